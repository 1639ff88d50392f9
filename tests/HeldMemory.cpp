#include "HeldMemory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

// Every form of operator new and delete, so that none of them pairs with a
// sanitizer's own.
namespace {
std::atomic<long> held{0};
std::atomic<bool> newsLimited{false};
std::atomic<long> newsLeft{0};  // when limited: allocations left before every one fails
std::atomic<bool> newFailed{false};

void* take(size_t n) noexcept {
    if (newsLimited.load() && newsLeft.fetch_sub(1) <= 0) {
        newFailed = true;
        return nullptr;
    }
    void* p = std::malloc(n ? n : 1);
    if (p) held += static_cast<long>(malloc_usable_size(p));
    return p;
}
void give(void* p) noexcept {
    if (p) held -= static_cast<long>(malloc_usable_size(p));
    std::free(p);
}
}  // namespace

long heldByNew() { return held.load(); }

bool failNewAfter(long n) {
    newsLeft = n;
    newsLimited = n >= 0;
    return newFailed.exchange(false);
}

void* operator new(size_t n) {
    if (void* p = take(n)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n) {
    if (void* p = take(n)) return p;
    throw std::bad_alloc();
}
void* operator new(size_t n, const std::nothrow_t&) noexcept { return take(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return take(n); }
void operator delete(void* p) noexcept { give(p); }
void operator delete[](void* p) noexcept { give(p); }
void operator delete(void* p, size_t) noexcept { give(p); }
void operator delete[](void* p, size_t) noexcept { give(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { give(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { give(p); }
