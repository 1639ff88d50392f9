#include "Registry.h"

#include <unordered_set>

namespace tamo {

namespace {
std::unordered_set<const void*>& set(HandleClass c) {
    // Function-local so that descriptors made during static initialisation
    // of a client still find it constructed.
    static std::unordered_set<const void*> sets[3];
    return sets[static_cast<int>(c)];
}
}  // namespace

void Registry::add(HandleClass c, const void* p) { set(c).insert(p); }

void Registry::remove(HandleClass c, const void* p) noexcept { set(c).erase(p); }

bool Registry::live(HandleClass c, const void* p) noexcept { return p && set(c).count(p) != 0; }

}  // namespace tamo
