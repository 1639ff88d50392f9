// The descriptor behind every Elf* handle: an ELF file (from a file id or a
// memory image, or new for writing), an archive, or one archive member.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "ByteSwap.h"
#include "FileDesc.h"
#include "MemBlock.h"
#include "SlabPool.h"
#include "tamoelf.h"

class ArDesc;
class ArMember;
class Elf_Scn;

class Elf : public tamo::ByteSwap {
public:
    static constexpr uint32_t DEFAULT_ENCODING = tamo::elf_encoding();

    uint32_t m_lMagicNum;
    FileDesc* m_pFile;
    ArDesc* m_pAr = nullptr;
    ArMember* m_pMember = nullptr;
    Elf_Kind m_kind;
    Elf32_Ehdr* m_pEhdr = nullptr;
    Elf_ReadSwapController m_ctrl = &Elf::defaultReadSwapController;
    uint16_t m_activation = 1;
    Elf_Cmd m_cmd;
    int m_bDirty = 0;
    int m_bLayout = 0;
    Elf_Cmd m_fdState = ELF_C_NULL;
    // The header was made by tamo_elf32_newehdr (its class byte stays 0
    // until layout fills it in), not read from the file.
    bool m_bEhdrMade = false;

    // An ELF file on f; the descriptor owns f.
    Elf(std::unique_ptr<FileDesc> f, Elf_Cmd cmd);
    // An archive's own descriptor; it owns the archive descriptor and its
    // file object.
    Elf(std::unique_ptr<FileDesc> f, std::unique_ptr<ArDesc> ar, Elf_Cmd cmd);
    // A member's descriptor; the archive keeps the member record.
    Elf(ArMember* member, Elf_Cmd cmd);
    ~Elf();
    Elf(const Elf&) = delete;
    Elf& operator=(const Elf&) = delete;

    // 1 when the header and section table were read, 0 when there is nothing
    // to read (new file, archive), -1 on failure.
    int initialize();
    int init_ElfHdr();
    int init_ScnTab();

    // The section descriptor for index, made (and its data read) on first use.
    Elf_Scn* get_scn(size_t index);
    // The section header of index, or null with code 21.
    Elf32_Shdr* get_shdr(size_t index) const;
    // The header of a section without making anything (a shared zero record
    // for one the file claims but does not hold); null past the table.
    const Elf32_Shdr* peekShdr(size_t index) const;
    size_t shdrCount() const { return m_nFileShdrs + m_newShdrs.size(); }
    // The section descriptor already made for index, or null.
    Elf_Scn* scnAt(size_t index) const { return index < m_vScns.size() ? m_vScns[index].get() : nullptr; }

    // Makes a descriptor (and so reads the data) of every section 1..n-1, or
    // of every member of an archive.
    int read_all();

    // Tears the descriptor down and frees it.
    void destroy();

    // Converts one header record when the file's order is not the host's;
    // 0 when nothing was converted.
    int swap(char* src, char* dst, Elf_Type type);

    static int defaultReadSwapController(Elf32_Shdr*, const char*);

    // tamo_elf_strptr after its argument checks.
    char* strptr(size_t section, size_t offset);
    // The name of a section for the swap policy: "" when it cannot be had.
    // Leaves the error state as it was.
    const char* sectionName(const Elf_Scn& scn);

    // Creating (tamo_elf32_newehdr, tamo_elf_newscn).
    Elf32_Ehdr* new_header();
    Elf_Scn* new_scn();

    // Layout (tamo_elf_update): completes the ELF header and places every
    // section and piece. Returns the image size, or -1 with the code set.
    int64_t update();
    // Builds the image that the last layout sized into `buffer` (`size`
    // zeroed bytes) in the file's byte order. Returns size, 0 when the
    // descriptor is not dirty (nothing is built), or -1. Nothing changes in
    // the descriptor until commitWrite.
    int64_t write2buff(char* buffer, uint64_t size);
    // The buffer the image is built in: `size` bytes, zeroed or holding the
    // previous image's bytes (kept between updates, so that writing again
    // touches no new memory; released with the descriptor). Null with code 4.
    char* imageBuffer(uint64_t size);
    // Writes a built image at offset 0 of the file, which then holds
    // exactly the image; 0, or -1 with the seek or write code.
    int writeImage(const char* buffer, uint64_t size);
    // After the image was written: sections carried over from the file take
    // their new places, and the dirty flags are cleared.
    void commitWrite();
    // The bytes of the section called `name` as they are now, without making
    // section descriptors (for conversions made while writing): a
    // described section's first piece, else its bytes read from the file
    // into `scratch`. Null when there is no such section.
    const uint8_t* peekSection(const char* name, size_t& size, std::vector<uint8_t>& scratch);

    bool onImage() const { return m_pFile && m_pFile->isImage(); }
    // The ELF header is worked on inside the caller's image (not a copy).
    bool headerInImage() const { return onImage() && !m_ownedEhdr; }
    bool isArchive() const { return m_pAr != nullptr; }
    bool isMember() const { return m_pMember != nullptr; }
    int fd() const { return m_pFile ? m_pFile->m_iFd : -1; }
    bool foreign() const { return m_pEhdr && m_pEhdr->e_ident[EI_DATA] != DEFAULT_ENCODING; }

    // Where this descriptor's contents start in the file, and how many bytes
    // they may span (the member's size, the file's or the image's). A file
    // may have grown since it was opened: `fresh` takes its size again.
    int64_t baseOffset() const;
    uint64_t contentLimit(bool fresh = false);

    // Accounts for n more bytes of section data placed by this descriptor;
    // fails with code 4 when a hostile file would make the library place far
    // more bytes than the input holds (overlapping sections).
    bool chargeSectionBytes(uint64_t n);

    // Records that len bytes at p inside the memory image were converted in
    // place, so that ending the descriptor can put them back: by converting
    // again (involutive types) or from a copy of the original bytes.
    // reserveImageUndo makes room for one record beforehand (false with
    // code 4), so that recording cannot fail once the bytes are converted.
    void recordImageConversion(uint8_t* p, size_t len, Elf_Type type, size_t count,
                               std::unique_ptr<uint8_t[]> original);
    bool reserveImageUndo();
    // Whether a conversion in the image is undone from a copy of its bytes
    // rather than by converting again. Records are undone last first, and
    // converting again is only right when nothing recorded before it changes
    // its bytes afterwards: DWARF and other conversions that are not their
    // own inverse keep a copy, and so does every conversion made while one
    // of those runs (the DWARF converter can convert other sections, over
    // the same bytes even, while it runs).
    bool undoByCopy(bool dwarf, Elf_Type type) const {
        return dwarf || !isInvolution(type) || m_copyConversionsRunning > 0;
    }
    // Marks a conversion undone from a copy as running while it lives.
    class CopyConversion {
    public:
        explicit CopyConversion(Elf& elf) : m_elf(elf) { ++m_elf.m_copyConversionsRunning; }
        ~CopyConversion() { --m_elf.m_copyConversionsRunning; }
        CopyConversion(const CopyConversion&) = delete;
        CopyConversion& operator=(const CopyConversion&) = delete;

    private:
        Elf& m_elf;
    };

private:
    int m_copyConversionsRunning = 0;
    struct ImageUndo {
        uint8_t* at;
        size_t len;
        Elf_Type type;
        size_t count;
        std::unique_ptr<uint8_t[]> original;
    };

    void restoreImage() noexcept;
    // Makes the descriptor of section `index` in its (empty) slot and reads
    // it; null, with the slot empty again, on failure.
    Elf_Scn* makeScn(size_t index);

    std::unique_ptr<FileDesc> m_ownedFile;
    std::unique_ptr<ArDesc> m_ownedAr;
    std::unique_ptr<Elf32_Ehdr> m_ownedEhdr;

    // Section headers: the records of the file's table that the file holds,
    // read in one block; records it claims beyond its end (zero) made one by
    // one when asked for; then any made by tamo_elf_newscn (a deque and a
    // node map keep handed-out pointers valid).
    std::unique_ptr<Elf32_Shdr[]> m_fileShdrs;
    size_t m_nFileShdrs = 0;  // e_shnum as read
    size_t m_nHeldShdrs = 0;  // records in m_fileShdrs
    // Records claimed beyond the file, made (zeroed) in pages of 256 when
    // one of a page is first asked for.
    static constexpr size_t kMadeShdrPage = 256;
    mutable std::vector<std::unique_ptr<Elf32_Shdr[]>> m_madeShdrs;
    std::deque<Elf32_Shdr> m_newShdrs;

    // Section descriptors by index: lookup is constant time, and walking the
    // vector gives index order. Their storage comes from the pool (declared
    // first, so it outlives them).
    struct ScnRelease {
        void operator()(Elf_Scn* scn) const noexcept;
    };
    tamo::SlabPool<Elf_Scn> m_scnPool;
    std::vector<std::unique_ptr<Elf_Scn, ScnRelease>> m_vScns;

    std::vector<ImageUndo> m_undo;
    uint64_t m_placedBytes = 0;

    // Where layout put each section that has no descriptor (it is copied
    // from the file when the image is built).
    struct Carried {
        size_t index;
        uint32_t offset, size, align;
        bool copies;  // its bytes go into the image
    };
    std::vector<Carried> m_carried;
    tamo::Block m_image;
    bool layoutCarried(size_t index, uint64_t& pos);
    bool copyCarried(const Carried& c, char* buffer, uint64_t size, uint64_t& pos);
    // The name of section `index` without making descriptors, or "".
    const char* peekName(size_t index);

};
