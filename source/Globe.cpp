#include "Globe.h"

#include "Globals.h"

extern "C" {
TAMO_API extern const int FALSEVAL = 0;
TAMO_API extern const int TRUEVAL = 1;
}

namespace tamo {
uint32_t g_libelf_version = 0;
int32_t g_iFill = 0;
}  // namespace tamo
