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

// Symbol tables (this format's and GNU's alike): a count, that many member
// header offsets, the names; numbers in big- or little-endian order.
size_t symbolTableSize(const std::vector<ArchiveSymbol>& symbols);
void writeSymbolTable(uint8_t* table, const std::vector<ArchiveSymbol>& symbols,
                      const std::vector<uint32_t>& memberOffsets, bool big);
// Reads one, matching its offsets to the members' headers; throws Failure
// (beginning with `where`) when it is cut short or names no member.
std::vector<ArchiveSymbol> readSymbolTable(const uint8_t* data, size_t size, bool big,
                                           const std::vector<ArchiveMember>& members, const std::string& where);

// Writes an archive: the magic of `big`, a symbol table when `symbols` is
// not null (its header kept from `layout` when it had one), and the
// members with their new data (a header keeps its bytes but for the size).
Bytes writeArchive(const ArchiveLayout& layout, bool big, const std::vector<Bytes>& data,
                   const std::vector<ArchiveSymbol>* symbols);

// GNU ar archives ("!<arch>\n"): 60-byte member headers (a 16-byte name
// field, then the same 44 bytes as this format's), a "/" symbol table of
// big-endian numbers, a "//" table of names longer than 15 characters.
bool isGnuArchive(const Bytes& file);

struct GnuArchive {
    // Members with this format's headers: the name and a '/' in a 16-byte
    // field, then GNU's 44 bytes (date, owner, mode, size) as they are.
    ArchiveLayout layout;
    bool hasSymbolTable = false;
    std::vector<ArchiveSymbol> symbols;  // from its symbol table
};

// Reads a GNU archive for import. Throws Failure naming `file` and the place:
// a malformed header, a member past the end, a 64-bit or thin archive, a
// member whose name is longer than 15 characters (named), a symbol whose
// offset is no member's.
GnuArchive parseGnuArchive(const Bytes& file, const std::string& name);

struct GnuMember {
    std::string name;
    Bytes fixed;  // the 44 bytes after the name field (the size is rewritten)
    Bytes data;
};

// Writes a GNU archive: a symbol table when `symbols` is not null, a table of
// long names when a name is longer than 15 characters, then the members.
Bytes writeGnuArchive(const std::vector<GnuMember>& members, const std::vector<ArchiveSymbol>* symbols);

}  // namespace tool
