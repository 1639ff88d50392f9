// The set of live descriptors of each class. Entries look a handle up here
// before touching it, so a pointer that is not a live descriptor (a stale
// handle after tamo_elf_end, or garbage) is refused without being read.
//
// Section descriptors come in blocks (SlabPool.h), which their pools enter
// in a BlockIndex; a pool tells which of its slots are live. Walking a table
// of 65,535 sections then checks its handles against a few hundred ranges,
// the one used last first, instead of a set as large as the table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

namespace tamo {

enum class HandleClass { Elf = 0, Data = 1 };

class Registry {
public:
    static void add(HandleClass c, const void* p);  // may throw std::bad_alloc
    static void remove(HandleClass c, const void* p) noexcept;
    static bool live(HandleClass c, const void* p) noexcept;
};

// Disjoint address ranges (blocks of descriptors): which one holds an
// address, in logarithmic time, or at once when it is the one found last.
class BlockIndex {
public:
    void add(const void* begin, size_t bytes);  // may throw std::bad_alloc
    void remove(const void* begin) noexcept;
    // The start of the range holding p, or null.
    const unsigned char* find(const void* p) const noexcept {
        const auto a = reinterpret_cast<uintptr_t>(p);
        if (a - m_last.begin < m_last.end - m_last.begin) return reinterpret_cast<const unsigned char*>(m_last.begin);
        return findSlow(a);
    }

private:
    struct Range {
        uintptr_t begin = 0, end = 0;
    };
    const unsigned char* findSlow(uintptr_t a) const noexcept;
    std::map<uintptr_t, uintptr_t> m_ranges;  // begin -> end
    mutable Range m_last;
};

}  // namespace tamo
