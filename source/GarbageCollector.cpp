#include "GarbageCollector.h"

#include <cstdlib>
#include <new>

#include "ErrHndr.h"
#include "MemBlock.h"

using namespace tamo;

namespace {

void release(const GarbageCollector::bag& b) {
    freeBlock(b.block, b.type == GarbageCollector::GT_MAPPED ? b.size : 0);
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
    size_t mapped = 0;
    void* p = allocBlock(n, mapped);
    if (!p) {
        SETERR(ERR_NOMEM);
        return nullptr;
    }
    m_bags.push_back(bag{p, mapped ? GT_MAPPED : GT_BLOCK, mapped});
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
