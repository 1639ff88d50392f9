// Owner of the heap blocks a section allocates for its data: the blocks
// outlive every data record that points into them and are freed together
// when the section descriptor is destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class GarbageCollector {
public:
    // GT_BLOCK: from malloc. GT_MAPPED: an anonymous mapping of `size` bytes,
    // used for large buffers so that they can be backed by huge pages.
    enum garbage_type : int32_t { GT_BLOCK = 0, GT_MAPPED = 1 };
    struct bag {
        void* block;
        garbage_type type;
        size_t size;
    };

    GarbageCollector() = default;
    GarbageCollector(const GarbageCollector&) = delete;
    GarbageCollector& operator=(const GarbageCollector&) = delete;
    ~GarbageCollector();

    // Takes ownership of a block from malloc. Fails with 73 for a null block
    // and 4 when the list cannot grow; the caller then still owns the block.
    bool pickUp(void* block, garbage_type type = GT_BLOCK);

    // Allocates n bytes (uninitialised) owned by the collector; null with
    // code 4 (no memory) or 74 (the list cannot grow).
    void* allocate(size_t n);

    size_t size() const { return m_bags.size(); }

private:
    std::vector<bag> m_bags;
};
