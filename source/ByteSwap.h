// Conversion of units of every Elf_Type between the two byte orders: ELF
// records, and the COFF line-number, symbol and auxiliary records that the
// library finds in ELF sections.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tamoelf.h"

namespace tamo {

// What the classification of a COFF auxiliary entry needs of the 18-byte
// unit converted just before it: its storage class, type (host order) and
// auxiliary count. A value, not a pointer, so it can never dangle; a run of
// records starts with an invalid link.
struct CoffLink {
    bool valid = false;
    uint8_t sclass = 0;
    uint8_t numaux = 0;
    uint16_t type = 0;
};

// The fields of an auxiliary entry that are reversed, chosen by the
// storage class and type of the entry in front of it.
struct AuxFields {
    struct Field {
        uint8_t off;
        uint8_t width;
    };
    int row = 0;  // 1..11, the rule that matched
    uint8_t count = 0;
    Field fields[7] = {};
};
AuxFields auxEntryFields(uint8_t sclass, uint16_t type, bool firstWordZero);

// Block conversion uses the widest vector kernels the processor offers.
// Tests limit them (0 scalar, 1 SSSE3, 2 AVX2) to cover every path; returns
// the level in effect.
int limitVectorKernels(int level);

class ByteSwap {
public:
    // Reverses n bytes from src into dst (or in place when they are equal).
    static void UnsignedUnitSwap(char* src, char* dst, int n);

    // Converts one unit; returns its size or -1 (code 38 or 82). COFF symbol
    // units are linked to the one converted before by the previous call.
    static int TypeUnitSwap(char* src, char* dst, Elf_Type type);

    // Converts count consecutive units of one type from src into dst (equal
    // or disjoint buffers; a distinct source is never changed). srcNative
    // tells whether src holds host order, which COFF symbol records need to
    // read the fields that classify the next record and line-number
    // relocations to rescale their offsets. Returns count, or -1 with the
    // code set; a failure happens before any byte is written.
    static long swapBlock(char* src, char* dst, Elf_Type type, size_t count, bool srcNative);

    // Copies count records from srcStride-byte to dstStride-byte slots
    // (keeping the first min(srcStride, dstStride) bytes, zero-padding the
    // rest), converting each one as a unit of `type` when doConvert is set:
    // COFF records between their 6/18-byte form in memory and the 8/20-byte
    // form of big-endian files. src and dst must not overlap. Returns count
    // or -1.
    static long reshapeBlock(const char* src, char* dst, Elf_Type type, size_t count, size_t srcStride,
                             size_t dstStride, bool doConvert, bool srcNative);

    // COFF records, converted in place.
    static void swap_line_info(uint8_t* lineno);
    static void swap_symtab_entry(uint8_t* syment);
    static void swap_aux_entry(uint8_t* auxent, const CoffLink& sym);

    // Whether converting twice with the same type restores the bytes. COFF
    // symbol records depend on their neighbours and the line-number
    // relocations rescale offsets, so those are not.
    static bool isInvolution(Elf_Type type) {
        return type != ELF_T_SYMENT && type != ELF_T_LNRELA_6TO8 && type != ELF_T_LNRELA_8TO6;
    }
};

}  // namespace tamo
