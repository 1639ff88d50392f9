// Conversion of every unit type: which bytes move where, in place and
// between buffers, and that converting twice restores the input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ByteSwap.h"
#include "tamoelf.h"

using tamo::ByteSwap;

namespace {

using Bytes = std::vector<uint8_t>;

char* C(Bytes& b) { return reinterpret_cast<char*>(b.data()); }

// Field widths of one unit, a digit a field in record order; width-1 fields
// never move.
const std::pair<Elf_Type, const char*> kLayouts[] = {
    {ELF_T_BYTE, "1"},        {ELF_T_ADDR, "4"},           {ELF_T_OFF, "4"},
    {ELF_T_WORD, "4"},        {ELF_T_HALF, "2"},           {ELF_T_DYN, "44"},
    {ELF_T_REL, "44"},        {ELF_T_RELA, "444"},         {ELF_T_THREEWORD, "444"},
    {ELF_T_LINENO, "42"},     {ELF_T_SYM, "4441124"},      {ELF_T_SIXWORD, "444444"},
    {ELF_T_PHDR, "44444444"}, {ELF_T_SHDR, "44444444444"}, {ELF_T_EHDR, "11111111111111112244444222222"},
};

// Reverses each field of each whole unit.
Bytes reverseFields(Bytes b, const std::string& widths, size_t unit) {
    for (auto p = b.begin(); b.end() - p >= static_cast<long>(unit);)
        for (char w : widths) {
            std::reverse(p, p + (w - '0'));
            p += w - '0';
        }
    return b;
}

Bytes randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(rng() | 1);  // no zero half-words
    return b;
}

class EveryPlainType : public ::testing::TestWithParam<std::pair<Elf_Type, const char*>> {};

// Every kernel level (scalar, SSSE3, AVX2), lengths up to a few vector steps
// and odd buffer offsets: the field-by-field reference, in place and between
// buffers, and converting twice restores the input.
TEST_P(EveryPlainType, ReversesEachFieldAndIsItsOwnInverse) {
    const auto [t, widths] = GetParam();
    const size_t unit = tamo_elf32_fsize(t, 1, 1);
    for (int level = 2; level >= 0; --level) {
        const int got = tamo::limitVectorKernels(level);
        for (size_t count = 1; count < 40; count += 1 + count / 8) {
            for (size_t misalign : {0, 3}) {
                const Bytes in = randomBytes(unit * count + misalign, static_cast<unsigned>(t * 100 + count));
                const Bytes body(in.begin() + static_cast<long>(misalign), in.end());
                const Bytes expected = reverseFields(body, widths, unit);
                Bytes src = in, dst(in.size(), 0xee);
                EXPECT_EQ(ByteSwap::swapBlock(C(src) + misalign, C(dst) + misalign, t, count, false),
                          static_cast<long>(count));
                ASSERT_EQ(Bytes(dst.begin() + static_cast<long>(misalign), dst.end()), expected)
                    << "between buffers, level " << got << " type " << t << " count " << count;
                ASSERT_EQ(src, in) << "source untouched, type " << t;
                Bytes inPlace = body;
                ByteSwap::swapBlock(C(inPlace), C(inPlace), t, count, false);
                ASSERT_EQ(inPlace, expected) << "in place, level " << got << " type " << t;
                ByteSwap::swapBlock(C(inPlace), C(inPlace), t, count, true);
                ASSERT_EQ(inPlace, body) << "twice, type " << t;
            }
        }
    }
    tamo::limitVectorKernels(2);
    // One unit through the unit entry point.
    Bytes one = randomBytes(unit, 7), expectOne = reverseFields(one, widths, unit);
    EXPECT_EQ(ByteSwap::TypeUnitSwap(C(one), C(one), t), static_cast<int>(unit));
    EXPECT_EQ(one, expectOne);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryPlainType, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return "type" + std::to_string(info.param.first); });

TEST(ByteSwap, LineNumberRelocationsRescale) {
    const std::tuple<Elf_Type, uint32_t, uint32_t> rows[] = {
        {ELF_T_LNRELA_8TO6, 16, 12}, {ELF_T_LNRELA_8TO6, 17, 12}, {ELF_T_LNRELA_6TO8, 12, 16},
        {ELF_T_LNRELA_6TO8, 0, 0},   {ELF_T_LNRELA_8TO6, 0xffffffffu, 0xffffffffu / 8 * 6}};
    for (const auto& [type, offset, expected] : rows) {
        // r_offset stored big-endian, r_info and r_addend distinct.
        Bytes in = {0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}, out(12);
        for (int k = 0; k < 4; ++k) in[k] = static_cast<uint8_t>(offset >> (24 - 8 * k));
        EXPECT_EQ(ByteSwap::swapBlock(C(in), C(out), type, 1, false), 1);
        uint32_t got;
        std::memcpy(&got, out.data(), 4);
        EXPECT_EQ(got, expected) << offset;
        EXPECT_EQ(Bytes(out.begin() + 4, out.end()), (Bytes{4, 3, 2, 1, 8, 7, 6, 5}));
    }
}

TEST(ByteSwap, Failures) {
    // Unknown types (82) and unit types without a conversion or buffers
    // missing (38); a failing conversion writes nothing.
    Bytes b(24, 1);
    const auto code = [](long result) { return result == -1 ? tamo_elf_errno() : -1; };
    EXPECT_EQ(code(ByteSwap::TypeUnitSwap(C(b), C(b), ELF_T_SWORD)), 82);
    EXPECT_EQ(code(ByteSwap::swapBlock(C(b), C(b), ELF_T_SPARE, 2, false)), 82);
    EXPECT_EQ(b, Bytes(24, 1));
    EXPECT_EQ(code(ByteSwap::TypeUnitSwap(C(b), C(b), ELF_T_NUM)), 38);
    EXPECT_EQ(code(ByteSwap::TypeUnitSwap(nullptr, C(b), ELF_T_WORD)), 38);
    EXPECT_EQ(code(ByteSwap::TypeUnitSwap(C(b), nullptr, ELF_T_WORD)), 38);
}

TEST(ByteSwap, UnsignedUnitSwap) {
    Bytes a = {1, 2, 3, 4, 5}, d(5, 0);
    ByteSwap::UnsignedUnitSwap(C(a), C(d), 5);
    EXPECT_EQ(d, (Bytes{5, 4, 3, 2, 1}));
    EXPECT_EQ(a, (Bytes{1, 2, 3, 4, 5}));
    ByteSwap::UnsignedUnitSwap(C(a), C(a), 5);
    EXPECT_EQ(a, d);
    // No length, nothing written.
    ByteSwap::UnsignedUnitSwap(C(a), C(d), 0);
    ByteSwap::UnsignedUnitSwap(C(a), C(d), -3);
    EXPECT_EQ(d, (Bytes{5, 4, 3, 2, 1}));
}

// COFF records ------------------------------------------------------------

// An 18-byte symbol entry as it stands in a big-endian file: name inline or
// by string-table offset, value 0x11223344, section 5.
Bytes syment(uint8_t sclass, uint16_t type, uint8_t numaux, bool nameByOffset = false) {
    Bytes e = {'n', 'a', 'm', 'e', 'x', 'y', 'z', 0, 0x11, 0x22, 0x33, 0x44, 0x00, 0x05, uint8_t(type >> 8),
               uint8_t(type), sclass, numaux};
    if (nameByOffset) std::copy_n(Bytes{0, 0, 0, 0, 0x0a, 0x0b, 0x0c, 0x0d}.begin(), 8, e.begin());
    return e;
}

TEST(Coff, SymbolEntries) {
    // An inline name stays; value, section and type are reversed.
    const Bytes symbol = {'n', 'a', 'm', 'e', 'x', 'y', 'z', 0, 0x44, 0x33, 0x22, 0x11, 0x05, 0x00, 0x24, 0x00, 3, 0};
    Bytes alone = syment(3, 0x0024, 0);
    ByteSwap::swapBlock(C(alone), C(alone), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(alone, symbol);
    // A name by offset has its offset reversed.
    Bytes byOffset = syment(2, 0, 0, true);
    ByteSwap::swapBlock(C(byOffset), C(byOffset), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(Bytes(byOffset.begin() + 4, byOffset.begin() + 8), (Bytes{0x0d, 0x0c, 0x0b, 0x0a}));
    // The entry after a symbol without auxiliary entries is a symbol.
    Bytes run = syment(2, 0, 0), second = syment(3, 0x0024, 0);
    run.insert(run.end(), second.begin(), second.end());
    ByteSwap::swapBlock(C(run), C(run), ELF_T_SYMENT, 2, false);
    EXPECT_EQ(Bytes(run.begin() + 18, run.end()), symbol);
    // Each block starts a fresh run: one ending in a symbol with an
    // auxiliary entry leaves the next block's first entry a symbol.
    Bytes first = syment(103, 0, 1);
    ByteSwap::swapBlock(C(first), C(first), ELF_T_SYMENT, 1, false);
    ByteSwap::swapBlock(C(second), C(second), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(second, symbol);
}

// Each rule of the auxiliary-entry classification, through a conversion of a
// symbol entry followed by one auxiliary entry.
TEST(Coff, AuxiliaryEntryClassification) {
    // Class, type, whether the entry's first word is zero; the rule that
    // matches and the fields it reverses (offset, width).
    const std::tuple<uint8_t, uint16_t, bool, int, std::vector<std::pair<int, int>>> rows[] = {
        {103, 0, false, 1, {}},
        {103, 0, true, 2, {{4, 4}}},
        {3, 0, false, 3, {{0, 4}, {4, 2}, {6, 2}}},
        {10, 8, false, 4, {{6, 2}, {12, 4}}},
        {12, 9, false, 4, {{6, 2}, {12, 4}}},
        {15, 10, false, 4, {{6, 2}, {12, 4}}},
        {102, 0, false, 5, {{0, 4}, {6, 2}}},
        {2, 0x24, false, 6, {{0, 4}, {4, 4}, {8, 4}, {12, 4}}},
        {3, 0x20, false, 6, {{0, 4}, {4, 4}, {8, 4}, {12, 4}}},
        {2, 0x2b, false, 11, {}},  // function returning type 11
        {8, 0x34, false, 7, {{0, 4}, {4, 2}, {6, 2}, {8, 2}, {10, 2}, {12, 2}, {14, 2}}},
        {100, 0, false, 8, {{4, 2}, {12, 4}}},
        {101, 0, false, 8, {{4, 2}, {12, 4}}},
        {8, 0x0008, false, 9, {{0, 4}, {6, 2}}},
        {13, 0x0012, false, 9, {{0, 4}, {6, 2}}},
        {8, 0x0004, false, 11, {}},  // basic type 4 is outside the mask of rule 9
        {18, 0x0004, false, 10, {{0, 4}, {6, 2}}},
        {103, 1, false, 11, {}},  // file class with a type falls through
        {5, 0, false, 11, {}},
    };
    for (const auto& [sclass, type, firstWordZero, row, reversed] : rows) {
        SCOPED_TRACE(testing::Message() << "class " << int(sclass) << " type " << type);
        Bytes run = syment(sclass, type, 1), aux(18);
        std::iota(aux.begin(), aux.end(), uint8_t{0x30});
        if (firstWordZero) std::fill_n(aux.begin(), 4, 0);
        Bytes expected = aux;
        for (auto [off, w] : reversed) std::reverse(expected.begin() + off, expected.begin() + off + w);
        run.insert(run.end(), aux.begin(), aux.end());
        const Bytes before = run;
        Bytes out(run.size());
        EXPECT_EQ(ByteSwap::swapBlock(C(run), C(out), ELF_T_SYMENT, 2, false), 2);
        EXPECT_EQ(Bytes(out.begin() + 18, out.end()), expected);
        EXPECT_EQ(run, before) << "the source is left as it was";
        EXPECT_EQ(tamo::auxEntryFields(sclass, type, firstWordZero).row, row);
    }
}

TEST(Coff, TowardsTheFileClassifiesByHostOrderFields) {
    // File order to host order and back: the auxiliary entry of a function
    // must be recognised in both directions.
    Bytes fileOrder = syment(2, 0x0020, 1), host(36), back(36);
    for (uint8_t i = 1; i <= 18; ++i) fileOrder.push_back(i);
    Bytes src = fileOrder;
    ByteSwap::swapBlock(C(src), C(host), ELF_T_SYMENT, 2, /*srcNative=*/false);
    ByteSwap::swapBlock(C(host), C(back), ELF_T_SYMENT, 2, /*srcNative=*/true);
    EXPECT_EQ(back, fileOrder);
}

TEST(Coff, LineNumberEntry) {
    // With line 0 the first word is a symbol index, and still reversed.
    Bytes symbolIndex = {0, 0, 1, 2, 0, 0};
    ByteSwap::swapBlock(C(symbolIndex), C(symbolIndex), ELF_T_LINENO, 1, false);
    EXPECT_EQ(symbolIndex, (Bytes{2, 1, 0, 0, 0, 0}));
    // Converting one unit between buffers leaves both converted.
    Bytes src = {0, 0, 0, 9, 0, 3}, dst(6);
    ByteSwap::TypeUnitSwap(C(src), C(dst), ELF_T_LINENO);
    EXPECT_EQ(dst, (Bytes{9, 0, 0, 0, 3, 0}));
    EXPECT_EQ(src, dst);
}

}  // namespace
