#include "Globals.h"
#include "tamoelf.h"

extern "C" void tamo_elf_fill(int fill) { tamo::g_iFill = fill; }
