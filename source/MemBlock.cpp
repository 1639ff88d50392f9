#include "MemBlock.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

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

// Large mappings given back are kept for the next blocks of about their size:
// a program that reads or writes one object after another then fills pages
// it already has instead of having the system zero fresh ones, which costs
// about as much as reading the file. The pool is bounded in blocks and bytes.
// (Marking kept pages MADV_FREE was tried: where the system takes such pages
// at once, every reuse faults them in again, and the pool gains nothing.)
constexpr size_t kPoolSlots = 8;
constexpr size_t kPoolBytes = sizeof(void*) >= 8 ? size_t{256} << 20 : size_t{32} << 20;

struct Pool {
    std::mutex lock;
    void* block[kPoolSlots] = {};
    size_t length[kPoolSlots] = {};
    size_t bytes = 0;

    // The smallest kept mapping of at least `want` bytes and at most twice
    // that; null when there is none.
    void* take(size_t want, size_t& mapped) {
        std::lock_guard<std::mutex> guard(lock);
        size_t best = kPoolSlots;
        for (size_t i = 0; i < kPoolSlots; ++i)
            if (block[i] && length[i] >= want && length[i] / 2 <= want &&
                (best == kPoolSlots || length[i] < length[best]))
                best = i;
        if (best == kPoolSlots) return nullptr;
        void* p = block[best];
        mapped = length[best];
        bytes -= mapped;
        block[best] = nullptr;
        length[best] = 0;
        return p;
    }

    // Keeps a mapping; false when the pool is full.
    bool keep(void* p, size_t mapped) {
        std::lock_guard<std::mutex> guard(lock);
        if (mapped > kPoolBytes - bytes) return false;
        for (size_t i = 0; i < kPoolSlots; ++i)
            if (!block[i]) {
                block[i] = p;
                length[i] = mapped;
                bytes += mapped;
                return true;
            }
        return false;
    }
};

Pool& pool() {
    static Pool* p = new Pool;  // never destroyed: blocks may be freed during exit
    return *p;
}

}  // namespace

void* allocBlock(size_t n, size_t& mapped, bool zeroed) {
    mapped = 0;
    if (n >= kMapThreshold) {
        const size_t want = (n + kHugePage - 1) / kHugePage * kHugePage;
        if (want >= n) {
            if (void* p = pool().take(want, mapped)) {
                if (zeroed) std::memset(p, 0, n);
                return p;
            }
        }
        if (void* p = mapLarge(n, mapped)) return p;
    }
    return zeroed ? std::calloc(n ? n : 1, 1) : std::malloc(n ? n : 1);
}

void freeBlock(void* p, size_t mapped) noexcept {
    if (!mapped) {
        std::free(p);
        return;
    }
    if (!pool().keep(p, mapped)) ::munmap(p, mapped);
}

}  // namespace tamo
