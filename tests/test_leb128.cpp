// LEB128 coders (worked values both ways, 5-byte and over-long encodings),
// the copy routines and the bounded cursor that parsers use.
#include <gtest/gtest.h>

#include <vector>

#include "Cursor.h"
#include "leb128.h"
#include "tamoelf.h"

namespace {

using Bytes = std::vector<unsigned char>;

TEST(Leb128, WorkedValuesBothWays) {
    const struct {
        long long value;  // wide enough for 2^32 - 1 in a 32-bit build
        Bytes sleb;  // empty: no signed row
        Bytes uleb;  // empty: no unsigned row
    } rows[] = {
        {0, {0x00}, {0x00}},
        {63, {0x3f}, {0x3f}},
        {64, {0xc0, 0x00}, {0x40}},
        {128, {0x80, 0x01}, {0x80, 0x01}},
        {300, {0xac, 0x02}, {0xac, 0x02}},
        {-1, {0x7f}, {}},
        {-64, {0x40}, {}},
        {-65, {0xbf, 0x7f}, {}},
        {2147483647, {0xff, 0xff, 0xff, 0xff, 0x07}, {0xff, 0xff, 0xff, 0xff, 0x07}},
        {-2147483647L - 1, {0x80, 0x80, 0x80, 0x80, 0x78}, {}},
        {4294967295LL, {}, {0xff, 0xff, 0xff, 0xff, 0x0f}},
    };
    for (const auto& r : rows) {
        // Encoders take values modulo 2^32: five bytes always suffice.
        unsigned char buf[6] = {0, 0, 0, 0, 0, 0xaa};
        if (!r.sleb.empty()) {
            EXPECT_EQ(long_to_leb(static_cast<long>(r.value), buf), buf) << "returns the start";
            EXPECT_EQ(Bytes(buf, buf + r.sleb.size()), r.sleb) << r.value;
            Bytes in = r.sleb;
            unsigned char* p = in.data();
            EXPECT_EQ(leb_to_long(&p), static_cast<long>(r.value));
            EXPECT_EQ(p, in.data() + in.size());
        }
        if (!r.uleb.empty()) {
            EXPECT_EQ(ulong_to_leb(static_cast<unsigned long>(r.value), buf), buf + r.uleb.size()) << "returns the end";
            EXPECT_EQ(Bytes(buf, buf + r.uleb.size()), r.uleb) << r.value;
            Bytes in = r.uleb;
            unsigned char* p = in.data();
            EXPECT_EQ(leb_to_ulong(&p), static_cast<unsigned long>(r.value));
            EXPECT_EQ(p, in.data() + in.size());
        }
        EXPECT_EQ(buf[5], 0xaa) << r.value;
    }
}

TEST(Leb128, OverLongEncodingsKeepTheLowBitsAndConsumeEverything) {
    const struct {
        Bytes in;
        unsigned long u;
        long s;
    } rows[] = {
        {{0x80, 0x00}, 0, 0},
        {{0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}, 1, 1},  // 1, padded to seven bytes
        {{0x85, 0x80, 0x80, 0x80, 0x80, 0x01}, 5, 5},        // 2^35 + 5: bits above 32 are dropped
        {{0xff, 0xff, 0xff, 0xff, 0x7f}, 0xffffffffUL, -1},  // no extra sign extension at five bytes
    };
    for (const auto& r : rows) {
        Bytes in = r.in;
        unsigned char* p = in.data();
        EXPECT_EQ(leb_to_ulong(&p), r.u);
        EXPECT_EQ(p, in.data() + in.size());
        p = in.data();
        EXPECT_EQ(leb_to_long(&p), r.s);
    }
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
    EXPECT_EQ(c.u16(), 0u) << "only one byte left";
    EXPECT_TRUE(c.failed());
    EXPECT_EQ(c.u8(), 0) << "reads after a failure return zero";
    EXPECT_EQ(tamo::Cursor(data, sizeof data, tamo::ByteOrder::Little).u16(), 0x0201u);

    // LEB128 numbers and strings stop at the end; nothing wraps.
    tamo::Cursor leb(data + 5, 1);
    leb.uleb();
    EXPECT_TRUE(leb.failed());
    const uint8_t str[] = {'a', 'b', 0, 'c'};
    tamo::Cursor s(str, sizeof str);
    EXPECT_STREQ(s.cstr(), "ab");
    EXPECT_EQ(s.cstr(), nullptr) << "no NUL before the end";
    EXPECT_EQ(tamo::Cursor(nullptr, 10).size(), 0u);
    tamo::Cursor t(data, sizeof data);
    t.skip(2);
    EXPECT_EQ(t.take(SIZE_MAX), nullptr);
    tamo::Cursor d(data, sizeof data);
    d.seek(7);
    EXPECT_TRUE(d.failed());
}

}  // namespace
