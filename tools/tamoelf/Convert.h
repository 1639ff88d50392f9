// `convert`: an object or archive rewritten in the other byte order through
// the library's writing, keeping the input's layout.
#pragma once

#include <string>
#include <vector>

#include "Common.h"

namespace tool {

// What a conversion did that the caller should know (sections copied as
// they stand, a layout that had to change, ...).
using Notes = std::vector<std::string>;

// Converts an object's bytes to `order` (ELFDATA2LSB or ELFDATA2MSB);
// `name` names it in notes and failures. Throws Failure.
Bytes convertObject(const Bytes& object, unsigned order, const std::string& name, Notes& notes);

// Converts, in place in a descriptor's data, every section whose layout the
// tool walks itself (see Walkers.h) from the file's order (big-endian when
// `fromBig`) to the other; what could not be walked, and sections of layouts
// the tool does not know, are noted. The descriptor must read with
// toolReadSwapController.
void convertWalkedSections(Elf* elf, bool fromBig, const std::string& name, Notes& notes);

// Converts the object or archive at `in` into `out` (written beside it and
// renamed, so that a failure leaves no output). Throws Failure.
void convertFile(const std::string& in, const std::string& out, unsigned order, Notes& notes);

// The byte order an object's or archive's bytes are in: ELFDATA2LSB or
// ELFDATA2MSB (0 when they are neither).
unsigned byteOrderOf(const Bytes& file);

}  // namespace tool
