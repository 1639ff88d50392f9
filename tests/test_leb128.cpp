// LEB128 coders (worked values both ways, 5-byte and over-long encodings),
// the copy routines and the bounded cursor that parsers use.
#include <gtest/gtest.h>

#include <vector>

#include "Cursor.h"
#include "leb128.h"
#include "tamoelf.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Worked {
    long value;
    Bytes sleb;  // empty: no signed row
    Bytes uleb;  // empty: no unsigned row
};

const Worked kWorked[] = {
    {0, {0x00}, {0x00}},
    {63, {0x3f}, {0x3f}},
    {64, {0xc0, 0x00}, {0x40}},
    {127, {0xff, 0x00}, {0x7f}},
    {128, {0x80, 0x01}, {0x80, 0x01}},
    {-1, {0x7f}, {}},
    {-64, {0x40}, {}},
    {-65, {0xbf, 0x7f}, {}},
    {2147483647, {0xff, 0xff, 0xff, 0xff, 0x07}, {0xff, 0xff, 0xff, 0xff, 0x07}},
    {-2147483647L - 1, {0x80, 0x80, 0x80, 0x80, 0x78}, {}},
};

TEST(Leb128, SignedWorkedValuesBothWays) {
    for (const Worked& w : kWorked) {
        if (w.sleb.empty()) continue;
        unsigned char buf[8] = {};
        EXPECT_EQ(long_to_leb(w.value, buf), buf) << "returns the start";
        EXPECT_EQ(Bytes(buf, buf + w.sleb.size()), w.sleb) << w.value;
        EXPECT_EQ(buf[w.sleb.size() - 1] & 0x80, 0);
        Bytes in = w.sleb;
        unsigned char* p = in.data();
        EXPECT_EQ(leb_to_long(&p), w.value);
        EXPECT_EQ(p, in.data() + in.size());
    }
}

TEST(Leb128, UnsignedWorkedValuesBothWays) {
    std::vector<std::pair<unsigned long, Bytes>> rows;
    for (const Worked& w : kWorked)
        if (!w.uleb.empty()) rows.emplace_back(static_cast<unsigned long>(w.value), w.uleb);
    rows.emplace_back(4294967295UL, Bytes{0xff, 0xff, 0xff, 0xff, 0x0f});
    rows.emplace_back(300UL, Bytes{0xac, 0x02});
    for (const auto& [value, enc] : rows) {
        unsigned char buf[8] = {};
        EXPECT_EQ(ulong_to_leb(value, buf), buf + enc.size()) << "returns the end";
        EXPECT_EQ(Bytes(buf, buf + enc.size()), enc) << value;
        Bytes in = enc;
        unsigned char* p = in.data();
        EXPECT_EQ(leb_to_ulong(&p), value);
        EXPECT_EQ(p, in.data() + in.size());
    }
}

TEST(Leb128, DecodingSmallCases) {
    Bytes b = {0x7f};
    unsigned char* p = b.data();
    EXPECT_EQ(leb_to_long(&p), -1);
    p = b.data();
    EXPECT_EQ(leb_to_ulong(&p), 127UL);
    Bytes forty = {0x40};
    p = forty.data();
    EXPECT_EQ(leb_to_long(&p), -64);
}

TEST(Leb128, OverLongEncodingsKeepTheLowBitsAndConsumeEverything) {
    Bytes redundant = {0x80, 0x00};
    unsigned char* p = redundant.data();
    EXPECT_EQ(leb_to_ulong(&p), 0UL);
    EXPECT_EQ(p, redundant.data() + 2);

    Bytes seven = {0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00};  // 1, padded to seven bytes
    p = seven.data();
    EXPECT_EQ(leb_to_ulong(&p), 1UL);
    EXPECT_EQ(p, seven.data() + 7);
    p = seven.data();
    EXPECT_EQ(leb_to_long(&p), 1L);

    // 2^35 + 5: bits above 32 are dropped.
    Bytes wide = {0x85, 0x80, 0x80, 0x80, 0x80, 0x01};
    p = wide.data();
    EXPECT_EQ(leb_to_ulong(&p), 5UL);
    EXPECT_EQ(p, wide.data() + 6);

    // A 5-byte negative value gets no extra sign extension.
    Bytes minusOne = {0xff, 0xff, 0xff, 0xff, 0x7f};
    p = minusOne.data();
    EXPECT_EQ(leb_to_long(&p), -1L);
}

TEST(Leb128, EncodersWorkOnThirtyTwoBitValues) {
    // Values are taken modulo 2^32, so five bytes are always enough.
    unsigned char buf[6] = {0, 0, 0, 0, 0, 0xaa};
    EXPECT_EQ(ulong_to_leb(static_cast<unsigned long>(-1L), buf), buf + 5);
    EXPECT_EQ(buf[5], 0xaa);
    long_to_leb(static_cast<long>(0x7fffffffL), buf);
    EXPECT_EQ(buf[5], 0xaa);
}

TEST(Leb128, CopyRoutines) {
    Bytes src = {0xac, 0x02, 0x55};
    Bytes dst(3, 0);
    unsigned char* s = src.data();
    unsigned char* d = dst.data();
    EXPECT_EQ(tamo::lebToUlongAndCopy(&s, &d), 300UL);
    EXPECT_EQ(s, src.data() + 2);
    EXPECT_EQ(d, dst.data() + 2);
    EXPECT_EQ(dst, (Bytes{0xac, 0x02, 0}));

    Bytes same = {0xe5, 0x8e, 0x26, 0x11};
    s = d = same.data();
    tamo::CopyLEB128(&s, &d);
    EXPECT_EQ(s, same.data() + 3);
    EXPECT_EQ(same, (Bytes{0xe5, 0x8e, 0x26, 0x11}));
}

TEST(Cursor, BoundsAreCheckedAndTheFirstFailureSticks) {
    const uint8_t data[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x80};
    tamo::Cursor c(data, sizeof data, tamo::ByteOrder::Big);
    EXPECT_EQ(c.u32(), 0x01020304u);
    EXPECT_EQ(c.u8(), 5);
    EXPECT_TRUE(c.ok());
    EXPECT_EQ(c.u16(), 0u) << "only one byte left";
    EXPECT_TRUE(c.failed());
    EXPECT_EQ(c.u8(), 0) << "reads after a failure return zero";
    EXPECT_EQ(c.remaining(), 0u);

    tamo::Cursor little(data, sizeof data, tamo::ByteOrder::Little);
    EXPECT_EQ(little.u16(), 0x0201u);
}

TEST(Cursor, LebAndStringsStopAtTheEnd) {
    const uint8_t unterminated[] = {0x80, 0x80};
    tamo::Cursor c(unterminated, sizeof unterminated);
    c.uleb();
    EXPECT_TRUE(c.failed());

    const uint8_t str[] = {'a', 'b', 0, 'c'};
    tamo::Cursor s(str, sizeof str);
    EXPECT_STREQ(s.cstr(), "ab");
    EXPECT_EQ(s.cstr(), nullptr) << "no NUL before the end";
    EXPECT_TRUE(s.failed());

    tamo::Cursor empty(nullptr, 10);
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.cstr(), nullptr);

    const uint8_t neg[] = {0x7f};
    tamo::Cursor n(neg, 1);
    EXPECT_EQ(n.sleb(), -1);
}

TEST(Cursor, TakeCannotWrap) {
    const uint8_t data[4] = {};
    tamo::Cursor c(data, sizeof data);
    c.skip(2);
    EXPECT_EQ(c.take(SIZE_MAX), nullptr);
    EXPECT_TRUE(c.failed());
    tamo::Cursor d(data, sizeof data);
    d.seek(5);
    EXPECT_TRUE(d.failed());
}

}  // namespace
