// Process-wide settings made through the interface.
#pragma once

#include <cstdint>

namespace tamo {
extern uint32_t g_libelf_version;  // working version; 0 until tamo_elf_version(1)
extern int32_t g_iFill;            // fill value for gaps in written images
}  // namespace tamo
