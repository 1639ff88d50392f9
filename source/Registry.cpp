#include "Registry.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tamo {

namespace {

// An open-addressing set of pointers: linear probing, deletion by shifting
// back the entries after the removed one (no tombstones), at most half full.
// A handle check is one probe into one flat array, and adding a descriptor
// allocates nothing but an occasional doubling, so the cost per descriptor
// stays the same whether an object has ten sections or 65,535.
class PointerSet {
public:
    void insert(const void* p) {
        if (2 * (m_count + 1) > m_slots.size()) grow();
        size_t i = home(p);
        while (m_slots[i] && m_slots[i] != p) i = (i + 1) & m_mask;
        if (!m_slots[i]) {
            m_slots[i] = p;
            ++m_count;
        }
    }

    void erase(const void* p) noexcept {
        if (m_slots.empty()) return;
        size_t i = home(p);
        while (m_slots[i] != p) {
            if (!m_slots[i]) return;
            i = (i + 1) & m_mask;
        }
        // Entries after the hole that could sit in it move back.
        for (size_t j = (i + 1) & m_mask; m_slots[j]; j = (j + 1) & m_mask) {
            const size_t h = home(m_slots[j]);
            if (((j - h) & m_mask) >= ((j - i) & m_mask)) {
                m_slots[i] = m_slots[j];
                i = j;
            }
        }
        m_slots[i] = nullptr;
        --m_count;
    }

    bool contains(const void* p) const noexcept {
        if (m_slots.empty()) return false;
        for (size_t i = home(p);; i = (i + 1) & m_mask) {
            if (m_slots[i] == p) return true;
            if (!m_slots[i]) return false;
        }
    }

private:
    size_t home(const void* p) const noexcept {
        // The address without its alignment bits: descriptors made one
        // after another lie near each other, and so do their slots.
        const uintptr_t a = reinterpret_cast<uintptr_t>(p) >> 4;
        return static_cast<size_t>(a ^ (a >> 20)) & m_mask;
    }

    void grow() {
        std::vector<const void*> old(m_slots.size() ? 2 * m_slots.size() : 64, nullptr);
        old.swap(m_slots);  // may throw: the set is unchanged then
        m_mask = m_slots.size() - 1;
        m_count = 0;
        for (const void* p : old)
            if (p) insert(p);
    }

    std::vector<const void*> m_slots;
    size_t m_mask = 0;
    size_t m_count = 0;
};

PointerSet& set(HandleClass c) {
    // Function-local so that descriptors made during static initialisation
    // of a client still find it constructed.
    static PointerSet sets[2];  // by HandleClass
    return sets[static_cast<int>(c)];
}

}  // namespace

void Registry::add(HandleClass c, const void* p) { set(c).insert(p); }

void Registry::remove(HandleClass c, const void* p) noexcept { set(c).erase(p); }

bool Registry::live(HandleClass c, const void* p) noexcept { return p && set(c).contains(p); }

void BlockIndex::add(const void* begin, size_t bytes) {
    const auto a = reinterpret_cast<uintptr_t>(begin);
    m_ranges.emplace(a, a + bytes);
}

void BlockIndex::remove(const void* begin) noexcept {
    const auto a = reinterpret_cast<uintptr_t>(begin);
    m_ranges.erase(a);
    if (m_last.begin == a) m_last = Range{};
}

const unsigned char* BlockIndex::findSlow(uintptr_t a) const noexcept {
    auto it = m_ranges.upper_bound(a);
    if (it == m_ranges.begin()) return nullptr;
    --it;
    if (a >= it->second) return nullptr;
    m_last = Range{it->first, it->second};
    return reinterpret_cast<const unsigned char*>(it->first);
}

}  // namespace tamo
