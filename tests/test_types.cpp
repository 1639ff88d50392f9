// File sizes of the data types: this format's record sizes, the checks in
// their order, and 32-bit products.
#include <gtest/gtest.h>

#include "tamoelf.h"

namespace {

TEST(Types, FileSizeOfEveryType) {
    const std::pair<Elf_Type, size_t> rows[] = {
        {ELF_T_BYTE, 1},     {ELF_T_ADDR, 4},    {ELF_T_DYN, 8},          {ELF_T_EHDR, 52},        {ELF_T_HALF, 2},
        {ELF_T_OFF, 4},      {ELF_T_PHDR, 32},   {ELF_T_RELA, 12},        {ELF_T_REL, 8},          {ELF_T_SHDR, 44},
        {ELF_T_SWORD, 4},    {ELF_T_SYM, 20},    {ELF_T_WORD, 4},         {ELF_T_SPARE, 4},        {ELF_T_SIXWORD, 24},
        {ELF_T_LINENO, 6},   {ELF_T_SYMENT, 18}, {ELF_T_LNRELA_6TO8, 12}, {ELF_T_LNRELA_8TO6, 12}, {ELF_T_THREEWORD, 12},
    };
    for (const auto& [type, size] : rows) EXPECT_EQ(tamo_elf32_fsize(type, 7, 1), 7 * size) << type;
    // 0x40000001 symbols of 20 bytes: the product wraps at 2^32.
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_SYM, 0x40000001u, 1), static_cast<size_t>(static_cast<uint32_t>(0x40000001u * 20u)));
}

TEST(Types, FileSizeErrorsVersionFirst) {
    const struct {
        int type;
        unsigned version;
        int code;
    } rows[] = {{ELF_T_BYTE, 2, 33}, {20, 1, 67}, {20, 0, 33}, {-1, 1, 67}};
    for (const auto& r : rows) {
        EXPECT_EQ(tamo_elf32_fsize(static_cast<Elf_Type>(r.type), 1, r.version), 0u);
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.type << " " << r.version;
    }
}

}  // namespace
