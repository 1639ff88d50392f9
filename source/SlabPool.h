// Storage for objects of one type owned by one descriptor, taken from blocks
// that grow geometrically (4, 8, ... up to 256 objects). Reading every
// section of a table of 65,535 then costs a few hundred allocations instead
// of one per section, and descriptors made one after another sit next to
// each other in memory. Freed slots are reused; blocks go when the pool does,
// after every object made from it has been released.
//
// Every pool of one type enters its blocks in one index, and each slot says
// whether it holds an object: live() tells whether any pointer is a live
// object of the type without reading anything the pools do not own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "Registry.h"

namespace tamo {

template <class T>
class SlabPool {
public:
    SlabPool() = default;
    SlabPool(const SlabPool&) = delete;
    SlabPool& operator=(const SlabPool&) = delete;
    ~SlabPool() {
        std::vector<std::unique_ptr<Slot[]>>& k = kept();
        for (size_t i = 0; i < m_blocks.size(); ++i) {
            // Every object is released: a block stays in the index with no
            // slot live while it is kept. Room for the kept blocks was
            // reserved when the first largest block was made.
            if (blockSize(i) == kLargestBlock && k.size() < k.capacity())
                k.push_back(std::move(m_blocks[i]));
            else
                index().remove(m_blocks[i].get());
        }
    }

    template <class... Args>
    T* make(Args&&... args) {
        Slot* slot = take();
        T* object;
        try {
            object = ::new (static_cast<void*>(slot->bytes)) T(std::forward<Args>(args)...);
        } catch (...) {
            give(slot);
            throw;
        }
        slot->live = true;
        return object;
    }

    void release(T* object) noexcept {
        Slot* slot = reinterpret_cast<Slot*>(object);
        slot->live = false;
        object->~T();
        give(slot);
    }

    // Whether p is an object of some pool of this type, made and not yet
    // released; p is not read unless it is.
    static bool live(const void* p) noexcept {
        const unsigned char* block = index().find(p);
        if (!block) return false;
        const size_t at = static_cast<size_t>(static_cast<const unsigned char*>(p) - block);
        return at % sizeof(Slot) == 0 && reinterpret_cast<const Slot*>(block + at)->live;
    }

private:
    struct Slot {
        union {
            Slot* next;
            alignas(T) unsigned char bytes[sizeof(T)];
        };
        bool live;
    };

    static BlockIndex& index() {
        static BlockIndex blocks;
        return blocks;
    }
    static constexpr size_t kFirstBlock = 4;
    static constexpr size_t kLargestBlock = 256;
    static size_t blockSize(size_t i) { return i < 6 ? kFirstBlock << i : kLargestBlock; }

    // Largest blocks of pools that have gone, kept for the pools to come, up
    // to one table of 65,536 objects: reading one large object after another
    // (members of an archive) reuses memory the process already has instead
    // of having the system hand out and zero fresh pages each time.
    static constexpr size_t kKeptBlocks = 256;
    static std::vector<std::unique_ptr<Slot[]>>& kept() {
        static std::vector<std::unique_ptr<Slot[]>> blocks;
        return blocks;
    }

    Slot* take() {
        if (Slot* s = m_free) {
            m_free = s->next;
            return s;
        }
        if (m_used == m_capacity) {
            const size_t n = blockSize(m_blocks.size());
            if (m_blocks.size() == m_blocks.capacity())
                m_blocks.reserve(2 * m_blocks.size() + 8);  // may throw: nothing taken yet
            if (n == kLargestBlock && !kept().empty()) {
                m_blocks.push_back(std::move(kept().back()));  // entered in the index already
                kept().pop_back();
            } else {
                if (n == kLargestBlock) kept().reserve(kKeptBlocks);
                std::unique_ptr<Slot[]> block(new Slot[n]);
                Slot* const first = block.get();
                for (size_t i = 0; i < n; ++i) first[i].live = false;
                index().add(first, n * sizeof(Slot));  // may throw: nothing entered
                m_blocks.push_back(std::move(block));  // room reserved above
            }
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
