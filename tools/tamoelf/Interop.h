// `import` and `export`: objects and archives carried between standard ELF32
// (40-byte section headers, 16-byte symbols, GNU ar archives), which
// readelf, objdump, llvm-dwarfdump, gdb and ar read, and this format, in the
// same byte order.
#pragma once

#include <string>

#include "Common.h"
#include "Convert.h"

namespace tool {

// A standard relocatable object becomes one of this format, written through
// the library: 44-byte section headers (sh_extra 0), 20-byte symbols
// (st_extra 0), every other section's bytes, and every index, name, flag and
// link, as they were. Throws Failure naming `name`.
Bytes importObject(const Bytes& object, const std::string& name);

// The reverse. A non-zero sh_extra or st_extra would be lost: refused,
// naming the section or symbol, unless `dropExtra` (then noted).
Bytes exportObject(const Bytes& object, const std::string& name, bool dropExtra, Notes& notes);

// Objects or archives, from `in` into `out` (written beside it and renamed,
// so that a failure leaves no output). Throws Failure.
void importFile(const std::string& in, const std::string& out, Notes& notes);
void exportFile(const std::string& in, const std::string& out, bool dropExtra, Notes& notes);

}  // namespace tool
