// Bytes held through operator new in this test program (its replacement is
// in HeldMemory.cpp), for bounds on what inputs make the library allocate.
#pragma once

long heldByNew();
