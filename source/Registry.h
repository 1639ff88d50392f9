// The set of live descriptors of each class. Entries look a handle up here
// before touching it, so a pointer that is not a live descriptor (a stale
// handle after tamo_elf_end, or garbage) is refused without being read.
#pragma once

namespace tamo {

enum class HandleClass { Elf = 0, Scn = 1, Data = 2 };

class Registry {
public:
    static void add(HandleClass c, const void* p);  // may throw std::bad_alloc
    static void remove(HandleClass c, const void* p) noexcept;
    static bool live(HandleClass c, const void* p) noexcept;
};

}  // namespace tamo
