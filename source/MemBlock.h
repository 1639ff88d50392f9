// Heap blocks for section data and written images. Large blocks come from
// their own mapping, aligned to and marked for huge pages, so that filling
// them takes a few hundred page faults instead of tens of thousands; small
// ones from malloc.
#pragma once

#include <cstddef>

namespace tamo {

// Allocates n bytes (uninitialised unless `zeroed`); null when there is no
// memory. `mapped` receives the mapping's length, 0 for a malloc block.
void* allocBlock(size_t n, size_t& mapped, bool zeroed = false);
void freeBlock(void* p, size_t mapped) noexcept;

// One block, released when it goes.
class Block {
public:
    Block() = default;
    ~Block() { reset(); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    // Allocates n zeroed bytes; false when there is no memory.
    bool allocateZeroed(size_t n) {
        reset();
        m_p = allocBlock(n, m_mapped, true);
        m_size = m_p ? n : 0;
        return m_p != nullptr;
    }
    // Makes room for n bytes, keeping the block when it is large enough;
    // `fresh` tells whether the bytes are new (zeroed) or left from before.
    bool reserve(size_t n, bool& fresh) {
        fresh = !m_p || n > capacity();
        if (fresh) return allocateZeroed(n);
        m_size = n;
        return true;
    }
    size_t capacity() const { return m_mapped ? m_mapped : m_size; }
    void reset() noexcept {
        if (m_p) freeBlock(m_p, m_mapped);
        m_p = nullptr;
        m_size = m_mapped = 0;
    }
    char* data() const { return static_cast<char*>(m_p); }
    size_t size() const { return m_size; }

private:
    void* m_p = nullptr;
    size_t m_size = 0;
    size_t m_mapped = 0;
};

}  // namespace tamo
