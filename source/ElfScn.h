// The section descriptor behind an Elf_Scn* handle: a section header of its
// ELF descriptor and the section's data descriptors.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "DataDesc.h"
#include "GarbageCollector.h"
#include "Globe.h"
#include "tamoelf.h"

class Elf;

class Elf_Scn {
public:
    uint32_t m_lMagicNum;
    Elf* m_pElf;
    Elf32_Shdr* m_pShdr = nullptr;
    uint32_t m_swapBehavior = 1;
    uint16_t m_index;
    int m_bDirty = 0;
    std::vector<std::unique_ptr<DataDesc>> m_vData;
    GarbageCollector m_gc;
    // Section bytes this section placed, charged to its ELF descriptor's
    // budget; given back when the section's initialisation fails.
    uint64_t m_charged = 0;

    Elf_Scn(Elf* owner, uint16_t index);
    ~Elf_Scn();
    Elf_Scn(const Elf_Scn&) = delete;
    Elf_Scn& operator=(const Elf_Scn&) = delete;

    // Reads the section's bytes (file, member or image), reshapes COFF debug
    // records of a foreign byte order, and makes the one data descriptor.
    int initialize();

    // The data descriptor after prev (the first when prev is null).
    DataDesc* get_data(const DataDesc* prev) const;

    // Deletes the data descriptors; buffers go with the collector.
    void destroy();

    // Appends a caller data descriptor (tamo_elf_newdata).
    DataDesc* new_data();

    // Layout of the section from image position pos, which moves past it
    // (tamo_elf_update); -1 on failure.
    int update(uint64_t& pos);
    // Writes the section's pieces into the image at its place; pos moves
    // past it. Returns sh_size (0 when nothing is written) or -1.
    int64_t write2buff(char* buffer, uint64_t size, uint64_t& pos);

    // Set by layout: the COFF records this section holds in a file of the
    // other byte order, which writing converts (and repacks) as reading did.
    tamo::CoffKind m_coff = tamo::CoffKind::None;

private:
    bool charge(uint64_t n);
    // Places sh_size bytes for the section and returns them, or null.
    uint8_t* placeBytes(const Elf32_Shdr& sh, bool& inImage, size_t& readable, int64_t& readFrom);
    // Rebuilds COFF records of srcSize bytes as dstSize bytes in a new buffer.
    uint8_t* reshape(uint8_t* bytes, uint32_t srcSize, uint32_t dstSize, size_t& readable);
};
