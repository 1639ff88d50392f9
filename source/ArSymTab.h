// The archive symbol table: for each global symbol, the header offset of
// the member that defines it. Its numbers are in the archive's byte order.
#pragma once

#include <cstdint>
#include <vector>

#include "ByteSwap.h"
#include "tamoelf.h"

class ArDesc;

class ArSymTab : private tamo::ByteSwap {
public:
    explicit ArSymTab(ArDesc* owner) : m_pOwner(owner) {}

    // Reads `size` bytes at `offset`; returns offset + size, or -1.
    long initialize(long offset, long size);

    // Reverses 4 bytes (type ELF_T_BYTE only; 38 otherwise).
    int swap(char* src, char* dst, Elf_Type type);

    // count() records and a terminating one whose as_name is null.
    Elf_Arsym* entries() { return m_entries.data(); }
    uint32_t count() const { return m_count; }

private:
    ArDesc* m_pOwner;
    std::vector<Elf_Arsym> m_entries;
    std::vector<char> m_names;
    uint32_t m_count = 0;
};

namespace tamo {
// The System V ABI's ELF hash.
uint32_t elfHash(const char* name);
}  // namespace tamo
