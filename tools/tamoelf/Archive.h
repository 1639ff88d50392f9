// The layout of an archive of this format, as the library reads it, and
// the tool's writer of such archives (the library reads archives only).
//
// Magic "!<elfa>\n" (little-endian numbers) or "!<sola>\n" (big-endian);
// an optional symbol table member (first header, name "/" then not "/"),
// whose data are N, N member header offsets and N names; then members, each
// a header (a name field in groups of four bytes up to the first with a '/'
// and any further groups of four spaces, then 44 bytes: date 12, uid 6,
// gid 6, mode 8, size 10, trailer 2) and its data, padded to an even offset
// (the symbol table is not padded).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Common.h"

namespace tool {

struct ArchiveMember {
    uint32_t headerOffset = 0;
    uint32_t dataOffset = 0;
    uint32_t size = 0;
    Bytes header;         // as stored: name field and fixed part
    std::string name;     // the text before the first '/'
    bool hasPad = false;  // an odd size is followed by one byte
    uint8_t pad = '\n';
};

struct ArchiveLayout {
    bool big = false;
    bool hasSymbolTable = false;
    ArchiveMember symbolTable;
    std::vector<ArchiveMember> members;
    Bytes trailing;  // fewer bytes than a header at the end
};

// Whether bytes begin with one of the two magics.
bool isArchive(const Bytes& file);

// Reads the layout; throws Failure (with the offset) when a header or a
// member does not fit the file.
ArchiveLayout parseArchive(const Bytes& file);

struct ArchiveSymbol {
    std::string name;
    uint32_t member;  // index into the members
};

// Writes an archive: the magic of `big`, a symbol table when `symbols` is
// not null (its header kept from `layout` when it had one), and the
// members with their new data (a header keeps its bytes but for the size).
Bytes writeArchive(const ArchiveLayout& layout, bool big, const std::vector<Bytes>& data,
                   const std::vector<ArchiveSymbol>* symbols);

}  // namespace tool
