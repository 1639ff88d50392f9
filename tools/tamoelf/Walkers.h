// How each section of an object changes byte order, and the tool's own
// conversions of the sections the library leaves as bytes: the DWARF
// sections other than .debug_info and .debug_line (address ranges, name
// tables, location and range lists, call frames, string offsets, address
// tables, name indexes, macros), .eh_frame, notes, and sections of 4-byte
// words whose types this format gives other meanings (section groups, the
// init and fini arrays). Each walks its section by its layout with the
// library's bounded cursor and its DWARF tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tamoelf.h"

namespace tool {

enum class Layout : uint8_t {
    Library,      // the library converts it (records, .debug_info, .debug_line, COFF)
    Types,        // .debug_types: the library's .debug_info walk, called by the tool
    NoOrder,      // bytes, strings and LEB128s only, or no bytes: nothing to convert
    Program,      // code or data: its layout is the program's, copied as it stands
    Words,        // 4-byte words (also .debug_ranges: pairs of 4-byte addresses)
    Note,         // notes: the three header words converted, names and descriptors copied
    Aranges,      // .debug_aranges
    Pubnames,     // .debug_pubnames, .debug_pubtypes
    GnuPubnames,  // .debug_gnu_pubnames, .debug_gnu_pubtypes
    Loc,          // .debug_loc (DWARF 2 to 4)
    Frame,        // .debug_frame
    EhFrame,      // .eh_frame
    StrOffsets,   // .debug_str_offsets
    Addr,         // .debug_addr
    Rnglists,     // .debug_rnglists
    Loclists,     // .debug_loclists
    Names,        // .debug_names
    Macro,        // .debug_macro
    Unknown,      // a layout the tool does not know: copied as it stands, and reported
};

// The layout of a section of this format by its name, type and flags.
Layout layoutOf(const std::string& name, uint32_t type, uint32_t flags);

// The read-swap controller of every descriptor the tool reads: sections of
// 4-byte words whose types this format gives other meanings (16 to 19, and
// 15 but for COFF debug records) stay as stored, for the tool to convert.
int toolReadSwapController(Elf32_Shdr* header, const char* name);

// Whether the tool converts sections of this layout itself (with
// convertSection, or the library's walk for Types).
bool toolConverts(Layout layout);

// A few words for listings: "library", "DWARF aranges", "unknown", ...
const char* layoutName(Layout layout);

// The sections of a given name (or prefix) walked by the tool, for help texts.
const char* walkedSectionList();

struct WalkProblem {
    size_t offset;     // where the walk stopped, from the start of the section
    std::string what;  // what it met there
};

// Converts `size` bytes in place from big-endian (fromBig) or little-endian
// order to the other, by `layout` (one the tool converts, not Types). Where
// a unit cannot be walked further, the rest of it stays as it was and the
// walk goes on with the next unit when the unit's length is known; each such
// place is reported. An empty result means every byte was accounted for.
std::vector<WalkProblem> convertSection(Layout layout, uint8_t* data, size_t size, bool fromBig);

}  // namespace tool
