#include "HeldMemory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> held{0};
}

long heldByNew() { return held.load(); }

void* operator new(size_t n) {
    void* p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    held += static_cast<long>(malloc_usable_size(p));
    return p;
}

void operator delete(void* p) noexcept {
    if (p) held -= static_cast<long>(malloc_usable_size(p));
    std::free(p);
}

void operator delete(void* p, size_t) noexcept {
    if (p) held -= static_cast<long>(malloc_usable_size(p));
    std::free(p);
}
