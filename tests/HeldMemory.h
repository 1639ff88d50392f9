// Bytes held through operator new in this test program (its replacement is
// in HeldMemory.cpp), for bounds on what inputs make the library allocate,
// and allocations made to fail, for the paths taken without memory.
#pragma once

long heldByNew();

// From the (n+1)th allocation on, operator new fails (throws, or gives null
// where asked not to throw); a negative n lets every allocation succeed.
// Returns whether an allocation failed since the last call.
bool failNewAfter(long n);
