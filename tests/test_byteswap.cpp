// Conversion of every unit type: which bytes move where, in place and
// between buffers, and that converting twice restores the input.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "ByteSwap.h"
#include "tamoelf.h"

using tamo::ByteSwap;

namespace {

using Bytes = std::vector<uint8_t>;

// Field widths of one unit, in record order; width-1 fields never move.
std::vector<int> layout(Elf_Type t) {
    auto rep = [](int n, int w) { return std::vector<int>(n, w); };
    switch (t) {
    case ELF_T_BYTE: return {1};
    case ELF_T_ADDR:
    case ELF_T_OFF:
    case ELF_T_WORD: return {4};
    case ELF_T_DYN:
    case ELF_T_REL: return rep(2, 4);
    case ELF_T_EHDR: {
        std::vector<int> v = rep(16, 1);
        for (int w : {2, 2, 4, 4, 4, 4, 4, 2, 2, 2, 2, 2, 2}) v.push_back(w);
        return v;
    }
    case ELF_T_HALF: return {2};
    case ELF_T_PHDR: return rep(8, 4);
    case ELF_T_RELA:
    case ELF_T_THREEWORD: return rep(3, 4);
    case ELF_T_SHDR: return rep(11, 4);
    case ELF_T_SYM: return {4, 4, 4, 1, 1, 2, 4};
    case ELF_T_SIXWORD: return rep(6, 4);
    case ELF_T_LINENO: return {4, 2};
    default: return {};
    }
}

Bytes reverseFields(const Bytes& in, const std::vector<int>& fields) {
    Bytes out = in;
    size_t unit = 0;
    for (int w : fields) unit += w;
    for (size_t base = 0; base + unit <= in.size(); base += unit) {
        size_t off = base;
        for (int w : fields) {
            for (int i = 0; i < w; ++i) out[off + i] = in[off + w - 1 - i];
            off += w;
        }
    }
    return out;
}

Bytes randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(rng() | 1);  // no zero half-words
    return b;
}

char* C(Bytes& b) { return reinterpret_cast<char*>(b.data()); }

class EveryPlainType : public ::testing::TestWithParam<Elf_Type> {};

// Every kernel level (scalar, SSSE3, AVX2), lengths up to a few vector steps
// and odd buffer offsets: the field-by-field reference, in place and between
// buffers, and converting twice restores the input.
TEST_P(EveryPlainType, ReversesEachFieldAndIsItsOwnInverse) {
    const Elf_Type t = GetParam();
    const std::vector<int> fields = layout(t);
    const size_t unit = tamo_elf32_fsize(t, 1, 1);
    for (int level = 2; level >= 0; --level) {
        const int got = tamo::limitVectorKernels(level);
        for (size_t count = 1; count < 40; count += 1 + count / 8) {
            for (size_t misalign : {0, 3}) {
                const Bytes in = randomBytes(unit * count + misalign, static_cast<unsigned>(t * 100 + count));
                const Bytes body(in.begin() + static_cast<long>(misalign), in.end());
                const Bytes expected = reverseFields(body, fields);
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
    Bytes one = randomBytes(unit, 7);
    const Bytes expectOne = reverseFields(one, fields);
    EXPECT_EQ(ByteSwap::TypeUnitSwap(C(one), C(one), t), static_cast<int>(unit));
    EXPECT_EQ(one, expectOne);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryPlainType,
                         ::testing::Values(ELF_T_BYTE, ELF_T_ADDR, ELF_T_DYN, ELF_T_EHDR, ELF_T_HALF, ELF_T_OFF,
                                           ELF_T_PHDR, ELF_T_RELA, ELF_T_REL, ELF_T_SHDR, ELF_T_SYM, ELF_T_WORD,
                                           ELF_T_SIXWORD, ELF_T_LINENO, ELF_T_THREEWORD));

TEST(ByteSwap, LineNumberRelocationsRescale) {
    struct Row {
        Elf_Type type;
        uint32_t offset, expected;
    };
    for (const Row& r : {Row{ELF_T_LNRELA_8TO6, 16, 12}, Row{ELF_T_LNRELA_8TO6, 17, 12}, Row{ELF_T_LNRELA_6TO8, 12, 16},
                         Row{ELF_T_LNRELA_6TO8, 0, 0}, Row{ELF_T_LNRELA_8TO6, 0xffffffffu, 0xffffffffu / 8 * 6}}) {
        // r_offset stored big-endian, r_info and r_addend distinct.
        Bytes in = {static_cast<uint8_t>(r.offset >> 24), static_cast<uint8_t>(r.offset >> 16),
                    static_cast<uint8_t>(r.offset >> 8), static_cast<uint8_t>(r.offset), 1, 2, 3, 4, 5, 6, 7, 8};
        Bytes out(12);
        EXPECT_EQ(ByteSwap::swapBlock(C(in), C(out), r.type, 1, false), 1);
        uint32_t got;
        std::memcpy(&got, out.data(), 4);
        EXPECT_EQ(got, r.expected) << r.offset;
        EXPECT_EQ(Bytes(out.begin() + 4, out.end()), (Bytes{4, 3, 2, 1, 8, 7, 6, 5}));
    }
}

TEST(ByteSwap, Failures) {
    Bytes b(24, 1);
    tamo_elf_errno();
    EXPECT_EQ(ByteSwap::TypeUnitSwap(C(b), C(b), ELF_T_SWORD), -1);
    EXPECT_EQ(tamo_elf_errno(), 82);
    EXPECT_EQ(ByteSwap::swapBlock(C(b), C(b), ELF_T_SPARE, 2, false), -1);
    EXPECT_EQ(tamo_elf_errno(), 82);
    EXPECT_EQ(b, Bytes(24, 1)) << "a failing conversion writes nothing";
    EXPECT_EQ(ByteSwap::TypeUnitSwap(C(b), C(b), ELF_T_NUM), -1);
    EXPECT_EQ(tamo_elf_errno(), 38);
    EXPECT_EQ(ByteSwap::TypeUnitSwap(nullptr, C(b), ELF_T_WORD), -1);
    EXPECT_EQ(tamo_elf_errno(), 38);
    EXPECT_EQ(ByteSwap::TypeUnitSwap(C(b), nullptr, ELF_T_WORD), -1);
    EXPECT_EQ(tamo_elf_errno(), 38);
}

TEST(ByteSwap, UnsignedUnitSwap) {
    Bytes a = {1, 2, 3, 4, 5};
    Bytes d(5, 0);
    ByteSwap::UnsignedUnitSwap(C(a), C(d), 5);
    EXPECT_EQ(d, (Bytes{5, 4, 3, 2, 1}));
    EXPECT_EQ(a, (Bytes{1, 2, 3, 4, 5}));
    ByteSwap::UnsignedUnitSwap(C(a), C(a), 5);
    EXPECT_EQ(a, (Bytes{5, 4, 3, 2, 1}));
    ByteSwap::UnsignedUnitSwap(C(a), C(d), 0);
    ByteSwap::UnsignedUnitSwap(C(a), C(d), -3);
    EXPECT_EQ(d, (Bytes{5, 4, 3, 2, 1}));
    Bytes one = {9}, to = {0};
    ByteSwap::UnsignedUnitSwap(C(one), C(to), 1);
    EXPECT_EQ(to[0], 9);
}

// COFF records ------------------------------------------------------------

// An 18-byte symbol entry as it stands in a big-endian file.
Bytes syment(uint8_t sclass, uint16_t type, uint8_t numaux, bool nameByOffset = false) {
    Bytes e = {'n', 'a', 'm', 'e', 'x', 'y', 'z', 0, 0x11, 0x22, 0x33, 0x44, 0x00, 0x05};
    if (nameByOffset) {
        e[0] = e[1] = e[2] = e[3] = 0;
        e[4] = 0x0a;
        e[5] = 0x0b;
        e[6] = 0x0c;
        e[7] = 0x0d;
    }
    e.push_back(static_cast<uint8_t>(type >> 8));
    e.push_back(static_cast<uint8_t>(type));
    e.push_back(sclass);
    e.push_back(numaux);
    return e;
}

TEST(Coff, SymbolEntry) {
    Bytes inlineName = syment(2, 0x0024, 0);
    Bytes out = inlineName;
    ByteSwap::swapBlock(C(out), C(out), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 8), Bytes(inlineName.begin(), inlineName.begin() + 8));
    EXPECT_EQ(Bytes(out.begin() + 8, out.end()), (Bytes{0x44, 0x33, 0x22, 0x11, 0x05, 0x00, 0x24, 0x00, 2, 0}));

    Bytes byOffset = syment(2, 0, 0, true);
    ByteSwap::swapBlock(C(byOffset), C(byOffset), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(Bytes(byOffset.begin() + 4, byOffset.begin() + 8), (Bytes{0x0d, 0x0c, 0x0b, 0x0a}));
}

struct AuxRow {
    uint8_t sclass;
    uint16_t type;
    bool firstWordZero;
    int row;
    std::vector<std::pair<int, int>> reversed;  // offset, width
};

// Each rule of the auxiliary-entry classification, through a conversion of a
// symbol entry followed by one auxiliary entry.
TEST(Coff, AuxiliaryEntryClassification) {
    const AuxRow rows[] = {
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
    for (const AuxRow& r : rows) {
        Bytes aux(18);
        for (int i = 0; i < 18; ++i) aux[i] = static_cast<uint8_t>(0x30 + i);
        if (r.firstWordZero) aux[0] = aux[1] = aux[2] = aux[3] = 0;
        Bytes expected = aux;
        for (auto [off, w] : r.reversed)
            for (int i = 0; i < w; ++i) expected[off + i] = aux[off + w - 1 - i];

        Bytes run = syment(r.sclass, r.type, 1);
        run.insert(run.end(), aux.begin(), aux.end());
        Bytes out(run.size());
        const Bytes before = run;
        EXPECT_EQ(ByteSwap::swapBlock(C(run), C(out), ELF_T_SYMENT, 2, false), 2);
        EXPECT_EQ(Bytes(out.begin() + 18, out.end()), expected) << "class " << int(r.sclass) << " type " << r.type;
        EXPECT_EQ(run, before) << "the source is left as it was";
        EXPECT_EQ(tamo::auxEntryFields(r.sclass, r.type, r.firstWordZero).row, r.row)
            << "class " << int(r.sclass) << " type " << r.type;
    }
}

TEST(Coff, EntryAfterOneWithoutAuxiliariesIsASymbol) {
    Bytes run = syment(2, 0, 0);
    Bytes second = syment(3, 0, 0);
    run.insert(run.end(), second.begin(), second.end());
    Bytes expected = run;
    ByteSwap::swapBlock(C(expected), C(expected), ELF_T_SYMENT, 1, false);
    Bytes secondAlone = second;
    ByteSwap::swapBlock(C(secondAlone), C(secondAlone), ELF_T_SYMENT, 1, false);
    ByteSwap::swapBlock(C(run), C(run), ELF_T_SYMENT, 2, false);
    EXPECT_EQ(Bytes(run.begin() + 18, run.end()), secondAlone);
}

TEST(Coff, EachBlockStartsAFreshRun) {
    // A block ending in a symbol with auxiliaries must not make the next
    // block's first entry an auxiliary entry.
    Bytes first = syment(103, 0, 1);
    ByteSwap::swapBlock(C(first), C(first), ELF_T_SYMENT, 1, false);
    Bytes next = syment(2, 0, 0);
    Bytes alone = next;
    ByteSwap::swapBlock(C(next), C(next), ELF_T_SYMENT, 1, false);
    Bytes fresh = syment(2, 0, 0);
    ByteSwap::swapBlock(C(fresh), C(fresh), ELF_T_SYMENT, 1, false);
    EXPECT_EQ(next, fresh);
    EXPECT_NE(next, alone);
}

TEST(Coff, TowardsTheFileClassifiesByHostOrderFields) {
    // Host order in, file order out, and back: the auxiliary entry of a
    // function must be recognised in both directions.
    Bytes fileOrder = syment(2, 0x0020, 1);
    Bytes aux(18);
    for (int i = 0; i < 18; ++i) aux[i] = static_cast<uint8_t>(i + 1);
    fileOrder.insert(fileOrder.end(), aux.begin(), aux.end());
    Bytes host(fileOrder.size());
    Bytes src = fileOrder;
    ByteSwap::swapBlock(C(src), C(host), ELF_T_SYMENT, 2, /*srcNative=*/false);
    Bytes back(host.size());
    Bytes hostCopy = host;
    ByteSwap::swapBlock(C(hostCopy), C(back), ELF_T_SYMENT, 2, /*srcNative=*/true);
    EXPECT_EQ(back, fileOrder);
}

TEST(Coff, LineNumberEntry) {
    Bytes withLine = {0, 0, 1, 2, 0, 7};
    ByteSwap::swapBlock(C(withLine), C(withLine), ELF_T_LINENO, 1, false);
    EXPECT_EQ(withLine, (Bytes{2, 1, 0, 0, 7, 0}));
    Bytes symbolIndex = {0, 0, 1, 2, 0, 0};
    ByteSwap::swapBlock(C(symbolIndex), C(symbolIndex), ELF_T_LINENO, 1, false);
    EXPECT_EQ(symbolIndex, (Bytes{2, 1, 0, 0, 0, 0}));
    // Between buffers both end converted.
    Bytes src = {0, 0, 0, 9, 0, 3}, dst(6);
    ByteSwap::TypeUnitSwap(C(src), C(dst), ELF_T_LINENO);
    EXPECT_EQ(dst, (Bytes{9, 0, 0, 0, 3, 0}));
    EXPECT_EQ(src, dst);
}

}  // namespace
