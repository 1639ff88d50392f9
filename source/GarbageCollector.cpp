#include "GarbageCollector.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "ErrHndr.h"

using namespace tamo;

namespace {

constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kMapThreshold = size_t{4} << 20;

void release(const GarbageCollector::bag& b) {
    if (b.type == GarbageCollector::GT_MAPPED)
        ::munmap(b.block, b.size);
    else
        std::free(b.block);
}

// A large buffer from its own mapping, aligned to a huge page and marked for
// huge pages: filling it then takes a few hundred page faults instead of
// tens of thousands.
void* mapLarge(size_t n, size_t& mapped) {
    const size_t length = (n + kHugePage - 1) / kHugePage * kHugePage;
    if (length < n) return nullptr;
    void* raw = ::mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    auto start = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t aligned = (start + kHugePage - 1) & ~(uintptr_t{kHugePage} - 1);
    if (aligned > start) ::munmap(raw, aligned - start);
    const uintptr_t end = start + length + kHugePage;
    if (end > aligned + length) ::munmap(reinterpret_cast<void*>(aligned + length), end - (aligned + length));
#ifdef MADV_HUGEPAGE
    ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
#endif
    mapped = length;
    return reinterpret_cast<void*>(aligned);
}

}  // namespace

GarbageCollector::~GarbageCollector() {
    for (const bag& b : m_bags) release(b);
    m_bags.clear();
}

void* GarbageCollector::allocate(size_t n) {
    try {
        m_bags.reserve(m_bags.size() + 1);
    } catch (const std::bad_alloc&) {
        SETERR(ERR_GC);
        return nullptr;
    }
    // Room was made above, so registering cannot fail.
    if (n >= kMapThreshold) {
        size_t mapped = 0;
        if (void* p = mapLarge(n, mapped)) {
            m_bags.push_back(bag{p, GT_MAPPED, mapped});
            return p;
        }
    }
    void* p = std::malloc(n ? n : 1);
    if (!p) {
        SETERR(ERR_NOMEM);
        return nullptr;
    }
    pickUp(p);
    return p;
}

bool GarbageCollector::pickUp(void* block, garbage_type type) {
    if (!block) {
        SETERR(ERR_GC_NULL);
        return false;
    }
    try {
        m_bags.push_back(bag{block, type, 0});
    } catch (const std::bad_alloc&) {
        SETERR(ERR_NOMEM);
        return false;
    }
    return true;
}
