// Sizes of the data types, the section-type table and the presented types.
#include <gtest/gtest.h>

#include "Globe.h"
#include "tamoelf.h"

namespace {

struct SizeRow {
    Elf_Type type;
    size_t size;
};

TEST(Types, FileSizeOfEveryType) {
    const SizeRow rows[] = {
        {ELF_T_BYTE, 1},     {ELF_T_ADDR, 4},    {ELF_T_DYN, 8},     {ELF_T_EHDR, 52},       {ELF_T_HALF, 2},
        {ELF_T_OFF, 4},      {ELF_T_PHDR, 32},   {ELF_T_RELA, 12},   {ELF_T_REL, 8},         {ELF_T_SHDR, 44},
        {ELF_T_SWORD, 4},    {ELF_T_SYM, 20},    {ELF_T_WORD, 4},    {ELF_T_SPARE, 4},       {ELF_T_SIXWORD, 24},
        {ELF_T_LINENO, 6},   {ELF_T_SYMENT, 18}, {ELF_T_LNRELA_6TO8, 12}, {ELF_T_LNRELA_8TO6, 12},
        {ELF_T_THREEWORD, 12},
    };
    for (const SizeRow& r : rows) {
        EXPECT_EQ(tamo_elf32_fsize(r.type, 1, 1), r.size) << r.type;
        EXPECT_EQ(tamo_elf32_fsize(r.type, 7, 1), 7 * r.size) << r.type;
        EXPECT_EQ(tamo::aryDataSize[0][r.type][0], tamo::aryDataSize[0][r.type][1]);
    }
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_SHDR, 3, 1), 132u);
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_BYTE, 0, 1), 0u);
}

TEST(Types, FileSizeErrorsVersionFirst) {
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_BYTE, 5, 2), 0u);
    EXPECT_EQ(tamo_elf_errno(), 33);
    EXPECT_EQ(tamo_elf32_fsize(static_cast<Elf_Type>(20), 1, 1), 0u);
    EXPECT_EQ(tamo_elf_errno(), 67);
    EXPECT_EQ(tamo_elf32_fsize(static_cast<Elf_Type>(20), 1, 0), 0u);
    EXPECT_EQ(tamo_elf_errno(), 33);
    EXPECT_EQ(tamo_elf32_fsize(static_cast<Elf_Type>(-1), 1, 1), 0u);
    EXPECT_EQ(tamo_elf_errno(), 67);
}

TEST(Types, FileSizeIsAThirtyTwoBitProduct) {
    // 0x40000001 symbols of 20 bytes: the product wraps at 2^32.
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_SYM, 0x40000001u, 1), static_cast<size_t>(static_cast<uint32_t>(0x40000001u * 20u)));
}

TEST(Types, SectionTypeTable) {
    const Elf_Type expected[21] = {
        ELF_T_BYTE, ELF_T_BYTE,   ELF_T_SYM,     ELF_T_BYTE, ELF_T_RELA,   ELF_T_WORD,   ELF_T_DYN,
        ELF_T_BYTE, ELF_T_BYTE,   ELF_T_REL,     ELF_T_BYTE, ELF_T_SYM,    ELF_T_BYTE,   ELF_T_SIXWORD,
        ELF_T_OFF,  ELF_T_BYTE,   ELF_T_LINENO,  ELF_T_SYMENT, ELF_T_LNRELA_6TO8, ELF_T_LNRELA_8TO6, ELF_T_THREEWORD,
    };
    for (uint32_t t = 0; t < 21; ++t) EXPECT_EQ(tamo::scnDataType(t), expected[t]) << t;
    EXPECT_EQ(tamo::scnDataType(21), ELF_T_NUM);
    EXPECT_EQ(tamo::scnDataType(0x70000000), ELF_T_NUM);
}

TEST(Types, PresentedTypes) {
    for (int t = 0; t <= ELF_T_NUM; ++t) {
        Elf_Type expect = static_cast<Elf_Type>(t);
        if (t == ELF_T_LINENO || t == ELF_T_SYMENT) expect = ELF_T_BYTE;
        if (t == ELF_T_LNRELA_6TO8 || t == ELF_T_LNRELA_8TO6) expect = ELF_T_RELA;
        EXPECT_EQ(tamo::trueType[t], expect) << t;
    }
}

TEST(Types, RecordLayouts) {
    EXPECT_EQ(offsetof(Elf32_Shdr, sh_extra), 40u);
    EXPECT_EQ(offsetof(Elf32_Sym, st_shndx), 14u);
    EXPECT_EQ(offsetof(Elf32_Sym, st_extra), 16u);
    EXPECT_EQ(offsetof(Elf32_Ehdr, e_shstrndx), 50u);
    EXPECT_EQ(FALSEVAL, 0);
    EXPECT_EQ(TRUEVAL, 1);
}

}  // namespace
