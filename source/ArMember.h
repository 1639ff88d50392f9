// One member of an archive: its parsed header, where its data lie, and the
// descriptor made for it (if any).
#pragma once

#include <cstdint>
#include <string>

#include "tamoelf.h"

class ArDesc;
class Elf;

namespace tamo {
class FileWindow;

// A member header as read: the parsed record and the strings it points at.
struct ArHeader {
    Elf_Arhdr hdr{};
    std::string name;
    std::string rawName;
};

// Reads the header at offset; returns the offset just after it, or -1.
long readArHdr(FileWindow& file, long offset, ArHeader& out);
}  // namespace tamo

class ArMember {
public:
    ArDesc* m_pOwner;
    tamo::ArHeader m_header;
    Elf* m_pElf = nullptr;
    uint32_t m_dataOffset = 0;
    uint32_t m_hdrSize = 0;
    size_t m_index = 0;  // position in the archive's member list

    explicit ArMember(ArDesc* owner) : m_pOwner(owner) {}

    // Reads the header at offset; returns the offset of the next header, or -1.
    long initialize(long offset, tamo::FileWindow& file);

    uint32_t headerOffset() const { return m_dataOffset - m_hdrSize; }
    uint32_t size() const { return static_cast<uint32_t>(m_header.hdr.ar_size); }
    Elf_Arhdr* header() { return &m_header.hdr; }
};
