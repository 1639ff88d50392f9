// Storage for objects of one type owned by one descriptor, taken from blocks
// that grow geometrically (4, 8, ... up to 256 objects). Reading every
// section of a table of 65,535 then costs a few hundred allocations instead
// of one per section, and descriptors made one after another sit next to
// each other in memory. Freed slots are reused; blocks go when the pool does,
// after every object made from it has been released.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tamo {

template <class T>
class SlabPool {
public:
    SlabPool() = default;
    SlabPool(const SlabPool&) = delete;
    SlabPool& operator=(const SlabPool&) = delete;

    template <class... Args>
    T* make(Args&&... args) {
        Slot* slot = take();
        try {
            return ::new (static_cast<void*>(slot->bytes)) T(std::forward<Args>(args)...);
        } catch (...) {
            give(slot);
            throw;
        }
    }

    void release(T* object) noexcept {
        object->~T();
        give(reinterpret_cast<Slot*>(object));
    }

private:
    union Slot {
        Slot* next;
        alignas(T) unsigned char bytes[sizeof(T)];
    };
    static constexpr size_t kFirstBlock = 4;
    static constexpr size_t kLargestBlock = 256;

    Slot* take() {
        if (Slot* s = m_free) {
            m_free = s->next;
            return s;
        }
        if (m_used == m_capacity) {
            const size_t n = m_capacity ? std::min(m_capacity * 2, kLargestBlock) : kFirstBlock;
            m_blocks.emplace_back();  // may throw before the block exists
            m_blocks.back().reset(new Slot[n]);
            m_used = 0;
            m_capacity = n;
        }
        return &m_blocks.back()[m_used++];
    }
    void give(Slot* s) noexcept {
        s->next = m_free;
        m_free = s;
    }

    std::vector<std::unique_ptr<Slot[]>> m_blocks;
    size_t m_used = 0, m_capacity = 0;  // in the last block
    Slot* m_free = nullptr;
};

}  // namespace tamo
