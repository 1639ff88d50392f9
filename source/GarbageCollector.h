// Owner of the heap blocks a section allocates for its data: the blocks
// outlive every data record that points into them and are freed together
// when the section descriptor is destroyed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class GarbageCollector {
public:
    enum garbage_type : int32_t { GT_BLOCK = 0 };
    struct bag {
        void* block;
        garbage_type type;
    };

    GarbageCollector() = default;
    GarbageCollector(const GarbageCollector&) = delete;
    GarbageCollector& operator=(const GarbageCollector&) = delete;
    ~GarbageCollector();

    // Takes ownership of a block from malloc. Fails with 73 for a null block
    // and 4 when the list cannot grow; the caller then still owns the block.
    bool pickUp(void* block, garbage_type type = GT_BLOCK);

    size_t size() const { return m_bags.size(); }

private:
    std::vector<bag> m_bags;
};
