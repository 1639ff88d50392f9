// Library-wide constants and tables: descriptor stamps, the data-type size
// table, the section-type to data-type table and the presented-type table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tamoelf.h"

namespace tamo {

// Stamps carried by live descriptors in m_lMagicNum.
inline constexpr uint32_t ELF_MAGIC_NUM = 0x32bf021cu;
inline constexpr uint32_t SCN_MAGIC_NUM = 0x10dc38afu;
inline constexpr uint32_t DAT_MAGIC_NUM = 0x269aee06u;

inline constexpr int kNumVersions = 1;
inline constexpr int kNumScnTypes = 21;  // sh_type 0..20 have a data type

// Size of one unit of each type, [version-1][type][0 = memory, 1 = file].
inline constexpr uint8_t aryDataSize[kNumVersions][ELF_T_NUM][2] = {{
    {1, 1},    // ELF_T_BYTE
    {4, 4},    // ELF_T_ADDR
    {8, 8},    // ELF_T_DYN
    {52, 52},  // ELF_T_EHDR
    {2, 2},    // ELF_T_HALF
    {4, 4},    // ELF_T_OFF
    {32, 32},  // ELF_T_PHDR
    {12, 12},  // ELF_T_RELA
    {8, 8},    // ELF_T_REL
    {44, 44},  // ELF_T_SHDR
    {4, 4},    // ELF_T_SWORD
    {20, 20},  // ELF_T_SYM
    {4, 4},    // ELF_T_WORD
    {4, 4},    // ELF_T_SPARE
    {24, 24},  // ELF_T_SIXWORD
    {6, 6},    // ELF_T_LINENO
    {18, 18},  // ELF_T_SYMENT
    {12, 12},  // ELF_T_LNRELA_6TO8
    {12, 12},  // ELF_T_LNRELA_8TO6
    {12, 12},  // ELF_T_THREEWORD
}};

// Data type of a section's contents by sh_type (0..20).
inline constexpr Elf_Type aryScnDataType[kNumScnTypes] = {
    ELF_T_BYTE,         // 0  SHT_NULL
    ELF_T_BYTE,         // 1  SHT_PROGBITS
    ELF_T_SYM,          // 2  SHT_SYMTAB
    ELF_T_BYTE,         // 3  SHT_STRTAB
    ELF_T_RELA,         // 4  SHT_RELA
    ELF_T_WORD,         // 5  SHT_HASH
    ELF_T_DYN,          // 6  SHT_DYNAMIC
    ELF_T_BYTE,         // 7  SHT_NOTE
    ELF_T_BYTE,         // 8  SHT_NOBITS
    ELF_T_REL,          // 9  SHT_REL
    ELF_T_BYTE,         // 10 SHT_SHLIB
    ELF_T_SYM,          // 11 SHT_DYNSYM
    ELF_T_BYTE,         // 12
    ELF_T_SIXWORD,      // 13
    ELF_T_OFF,          // 14
    ELF_T_BYTE,         // 15 COFF debug sections as stored
    ELF_T_LINENO,       // 16 ".lnno." while converted
    ELF_T_SYMENT,       // 17 ".coff.SDB" while converted
    ELF_T_LNRELA_6TO8,  // 18 ".rela.lnno." of a little-endian file
    ELF_T_LNRELA_8TO6,  // 19 ".rela.lnno." of a big-endian file
    ELF_T_THREEWORD,    // 20
};

// The type a caller sees after data were converted under an internal type.
inline constexpr Elf_Type trueType[ELF_T_NUM + 1] = {
    ELF_T_BYTE,  ELF_T_ADDR,  ELF_T_DYN,   ELF_T_EHDR,    ELF_T_HALF,    ELF_T_OFF,       ELF_T_PHDR,
    ELF_T_RELA,  ELF_T_REL,   ELF_T_SHDR,  ELF_T_SWORD,   ELF_T_SYM,     ELF_T_WORD,      ELF_T_SPARE,
    ELF_T_SIXWORD,
    ELF_T_BYTE,  // ELF_T_LINENO
    ELF_T_BYTE,  // ELF_T_SYMENT
    ELF_T_RELA,  // ELF_T_LNRELA_6TO8
    ELF_T_RELA,  // ELF_T_LNRELA_8TO6
    ELF_T_THREEWORD, ELF_T_NUM,
};

// Section types that exist only while COFF debug data are being converted.
inline constexpr uint32_t SHT_COFF_STORED = 15;
inline constexpr uint32_t SHT_COFF_LINENO = 16;
inline constexpr uint32_t SHT_COFF_SYMENT = 17;
inline constexpr uint32_t SHT_COFF_LNRELA_6TO8 = 18;
inline constexpr uint32_t SHT_COFF_LNRELA_8TO6 = 19;

inline constexpr size_t unitSize(Elf_Type type) { return aryDataSize[0][type][0]; }

// The COFF debug sections a file of the other byte order carries: their
// records are converted (and, in big-endian files, repacked) on reading,
// and the reverse on writing.
enum class CoffKind { None, LineNumbers, Symbols, LineRelocations };

inline CoffKind coffKind(const char* name, uint32_t shType) {
    if (std::strncmp(name, ".rela.lnno.", 11) == 0) return CoffKind::LineRelocations;
    if (shType != SHT_COFF_STORED) return CoffKind::None;
    if (std::strncmp(name, ".lnno.", 6) == 0) return CoffKind::LineNumbers;
    if (std::strcmp(name, ".coff.SDB") == 0) return CoffKind::Symbols;
    return CoffKind::None;
}

// Record size of a COFF line-number or symbol section in memory (always the
// packed one) and in a file of encoding `ei_data`.
inline constexpr uint32_t coffMemoryRecord(CoffKind k) { return k == CoffKind::LineNumbers ? 6 : 18; }
inline constexpr uint32_t coffFileRecord(CoffKind k, unsigned ei_data) {
    return coffMemoryRecord(k) + (ei_data == ELFDATA2MSB ? 2 : 0);
}

// Data type of a section type, or ELF_T_NUM when it has none.
inline constexpr Elf_Type scnDataType(uint32_t shType) {
    return shType < kNumScnTypes ? aryScnDataType[shType] : ELF_T_NUM;
}

}  // namespace tamo
