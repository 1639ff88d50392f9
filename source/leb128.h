// Cursor routines of the DWARF converters: copy one LEB128 number from a
// source cursor to a destination cursor (equal or disjoint buffers).
#pragma once

namespace tamo {

// Copies one encoded number; both cursors move past it. The caller
// guarantees that the encoding ends inside its buffer.
void CopyLEB128(unsigned char** ppbSrc, unsigned char** ppbDst);

// As CopyLEB128, and returns the unsigned value decoded from the source.
unsigned long lebToUlongAndCopy(unsigned char** ppbSrc, unsigned char** ppbDst);

}  // namespace tamo
