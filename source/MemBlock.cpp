#include "MemBlock.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>

namespace tamo {

namespace {

constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kMapThreshold = size_t{4} << 20;

// A mapping of whole huge pages aligned to a huge page (fresh mappings are
// zeroed by the system).
void* mapLarge(size_t n, size_t& mapped) {
    const size_t length = (n + kHugePage - 1) / kHugePage * kHugePage;
    if (length < n || length + kHugePage < length) return nullptr;
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

void* allocBlock(size_t n, size_t& mapped, bool zeroed) {
    mapped = 0;
    if (n >= kMapThreshold)
        if (void* p = mapLarge(n, mapped)) return p;
    return zeroed ? std::calloc(n ? n : 1, 1) : std::malloc(n ? n : 1);
}

void freeBlock(void* p, size_t mapped) noexcept {
    if (mapped)
        ::munmap(p, mapped);
    else
        std::free(p);
}

}  // namespace tamo
