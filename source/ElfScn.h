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

// The data descriptors of a section in order, each linked to the next. The
// first is kept inside the section descriptor (a section read from a file
// has exactly one, which then costs no allocation and no entry in the handle
// registry); those tamo_elf_newdata adds after it are allocated one by one.
class DataList {
public:
    DataList() = default;
    DataList(const DataList&) = delete;
    DataList& operator=(const DataList&) = delete;
    ~DataList() { clear(); }

    // A new descriptor, not yet in the list: link() appends it, drop() undoes it.
    DataDesc* make(Elf_Scn* owner);
    void link(DataDesc* d);
    void drop(DataDesc* d);
    // Deletes every descriptor, first to last.
    void clear();

    bool empty() const { return !m_head; }
    DataDesc* front() const { return m_head; }
    // The descriptor kept inside, if one is made, and where it lies.
    const DataDesc* kept() const { return m_kept ? reinterpret_cast<const DataDesc*>(m_store) : nullptr; }
    static size_t keptOffset();

    struct iterator {
        DataDesc* at;
        DataDesc* operator*() const { return at; }
        iterator& operator++() {
            at = at->m_pNext;
            return *this;
        }
        bool operator!=(const iterator& o) const { return at != o.at; }
    };
    iterator begin() const { return {m_head}; }
    iterator end() const { return {nullptr}; }

private:
    alignas(DataDesc) unsigned char m_store[sizeof(DataDesc)];
    bool m_kept = false;
    DataDesc* m_head = nullptr;
    DataDesc* m_tail = nullptr;
};

class Elf_Scn {
public:
    // Fields ordered to pack: a table of 65,535 sections keeps one of these
    // (with its first data descriptor) per section asked for.
    uint32_t m_lMagicNum;
    uint32_t m_swapBehavior = 1;
    int m_bDirty = 0;
    uint16_t m_index;
    // Set by layout: the COFF records this section holds in a file of the
    // other byte order, which writing converts (and repacks) as reading did.
    tamo::CoffKind m_coff = tamo::CoffKind::None;
    Elf* m_pElf;
    Elf32_Shdr* m_pShdr = nullptr;
    DataList m_vData;
    GarbageCollector m_gc;
    // Section bytes this section placed, charged to its ELF descriptor's
    // budget; given back when the section's initialisation fails.
    uint64_t m_charged = 0;

    Elf_Scn(Elf* owner, uint16_t index);
    ~Elf_Scn();
    // Whether p is a live data descriptor (registered, or kept inside a live
    // section descriptor); p is not read unless it is.
    static bool liveData(const void* p) noexcept;
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

private:
    bool charge(uint64_t n);
    // Places sh_size bytes for the section and returns them, or null.
    uint8_t* placeBytes(const Elf32_Shdr& sh, bool& inImage, size_t& readable, int64_t& readFrom);
    // Rebuilds COFF records of srcSize bytes as dstSize bytes in a new buffer.
    uint8_t* reshape(uint8_t* bytes, uint32_t srcSize, uint32_t dstSize, size_t& readable);
};
