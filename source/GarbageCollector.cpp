#include "GarbageCollector.h"

#include <cstdlib>
#include <new>

#include "ErrHndr.h"

using namespace tamo;

GarbageCollector::~GarbageCollector() {
    for (bag& b : m_bags) std::free(b.block);
    m_bags.clear();
}

bool GarbageCollector::pickUp(void* block, garbage_type type) {
    if (!block) {
        SETERR(ERR_GC_NULL);
        return false;
    }
    try {
        m_bags.push_back(bag{block, type});
    } catch (const std::bad_alloc&) {
        SETERR(ERR_NOMEM);
        return false;
    }
    return true;
}
