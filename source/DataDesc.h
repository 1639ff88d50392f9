// A data descriptor: one piece of a section's contents. The public Elf_Data
// record is its first member, so an Elf_Data* handed to a caller is the
// address of the descriptor itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "tamoelf.h"

class Elf_Scn;

// What the swap policy decided for one conversion (see DataDesc::swap).
struct SwapPlan {
    int status = 0;          // -1 failure (code set), 0 nothing to convert, 1 convert
    bool srcNative = false;  // the source holds host order
    bool dwarf = false;      // route to the DWARF converter
    const char* name = "";   // the section's name
    Elf_Type type = ELF_T_BYTE;
    size_t count = 0;        // units to convert
};

class DataDesc {
public:
    Elf_Data m_data;  // must stay the first member
    uint32_t m_lMagicNum;
    int m_bDirty;
    bool m_bInImage;  // m_pPlaced lies in a memory image
    bool m_bKept;     // kept inside its section descriptor, not registered
    Elf_Scn* m_pScn;

    // Where the library placed this piece's bytes: a buffer it allocated (with
    // a NUL byte after d_size) or a range of a memory image. m_pPlaced is null
    // for a caller's piece. m_readable counts the bytes known to be readable
    // from m_pPlaced (to the end of the image, or d_size + 1).
    uint8_t* m_pPlaced;
    size_t m_readable;
    // File offset of placed bytes initialize() still has to read; -1 when
    // they are there.
    int64_t m_readFrom = -1;
    DataDesc* m_pNext = nullptr;  // the section's next data descriptor

    explicit DataDesc(Elf_Scn* owner, bool kept = false);
    ~DataDesc();
    DataDesc(const DataDesc&) = delete;
    DataDesc& operator=(const DataDesc&) = delete;

    static DataDesc* of(Elf_Data* d) { return reinterpret_cast<DataDesc*>(d); }
    Elf_Data* data() { return &m_data; }

    // Sets type, size, offset, alignment and version for bytes read from a
    // section and converts them in place to host order. -1 on failure, 0 when
    // there is nothing to do (no bytes), else d_size.
    int initialize();

    // Converts d_size bytes at src, as units of `type`, into dst (equal or
    // disjoint) towards the file's order (toFile) or the host's, under the
    // section's swap behaviour unless `force`. Returns the units converted, 0
    // when the policy converts nothing, -1 on failure.
    int swap(char* src, char* dst, Elf_Type type, bool toFile, bool force);

    // The two halves of swap: the policy decision, and carrying it out
    // (`writing`: into an image being built, whose DWARF conversion must not
    // read sections).
    SwapPlan plan(Elf_Type type, bool toFile, bool force);
    long execute(const SwapPlan& plan, char* src, char* dst, bool writing = false);

    // Layout of the piece from section position pos, which moves past it;
    // returns d_align or -1.
    long update(uint64_t& pos);
    // Writes the piece into the image at sectionOffset + d_off; secPos moves
    // past it. Returns d_size or -1.
    long write2buff(char* buffer, uint64_t imageSize, uint64_t sectionOffset, uint64_t& secPos);
    // The bytes the piece takes in the file.
    uint64_t fileSize() const;

    // Whether a NUL ends the string at p inside the bytes known to be
    // readable: those the library placed, or else the block's d_size bytes.
    bool terminates(const char* p) const;
    // The block still points at the bytes the library placed.
    bool placed() const { return m_pPlaced && m_data.d_buf == m_pPlaced; }
};

static_assert(std::is_standard_layout_v<DataDesc>, "Elf_Data* must convert to DataDesc*");
