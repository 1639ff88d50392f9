// The file or memory image behind a descriptor, kind detection, and the
// POSIX I/O helpers every reader uses.
#pragma once

#include <sys/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "tamoelf.h"

class Elf;

namespace tamo {

// A read-through window on a file, so that walking many small headers or
// sections costs few system calls. Reads with pread: the file position is
// not moved.
class FileWindow {
public:
    explicit FileWindow(int fd) : m_fd(fd) {}
    // Makes up to n (at most kCapacity) bytes at off available in *p and
    // returns how many there are (fewer at end of file), or -1 when the read
    // fails.
    long fetch(int64_t off, size_t n, const uint8_t** p);
    static constexpr size_t kCapacity = 4096;

    // The n bytes at off when the window holds them all, else null.
    const uint8_t* covered(int64_t off, size_t n) const {
        if (m_start < 0 || off < m_start || static_cast<uint64_t>(off - m_start) > m_len) return nullptr;
        return m_len - static_cast<size_t>(off - m_start) >= n ? m_buf.get() + (off - m_start) : nullptr;
    }
    // Reads up to len bytes at off into the window (its room grows to
    // len); false when the read fails, the window then empty.
    bool fill(int64_t off, size_t len);
    void forget() {
        m_start = -1;
        m_len = 0;
    }
    // Where the bytes it holds begin (-1: none) and end.
    int64_t start() const { return m_start; }
    int64_t end() const { return m_start + static_cast<int64_t>(m_len); }
    bool everFilled() const { return m_room != 0; }

private:
    int m_fd;
    int64_t m_start = -1;
    size_t m_len = 0, m_room = 0;
    std::unique_ptr<uint8_t[]> m_buf;
};

// The host's byte order as an EI_DATA value.
constexpr uint32_t elf_encoding() { return std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB; }

}  // namespace tamo

class FileDesc {
public:
    int m_iFd = -1;
    int64_t m_lFileSize = 0;  // from fstat; 0 for an image or a file opened for writing
    int m_bImage = 0;         // FALSEVAL / TRUEVAL
    char* m_pImage = nullptr;
    size_t m_imageSize = 0;
    Elf_Kind m_kind = ELF_K_NONE;
    Elf* m_pElf = nullptr;
    Elf_Cmd m_cmd = ELF_C_NULL;
    uint8_t m_encoding;

    FileDesc(int fd, Elf_Cmd cmd);
    FileDesc(char* image, size_t size);

    // Kind detection: returns the kind found, or 0 with the code set.
    int initialize();

    static unsigned getDefaultEncoding();

    bool isImage() const { return m_bImage != 0; }

    // The file's current size by fstat (the size recorded at opening when the
    // call fails); updates m_lFileSize.
    int64_t currentSize();

    // The n bytes at file offset `at`, from bytes of the file read ahead
    // (read there first, if they are not, with one read of up to 128 KiB
    // that leaves the position alone, forward from them or, walking
    // backward, up to their end); null for sections of more than 32 KiB, or
    // when the file does not hold them. A compiler's object has
    // dozens of sections of a few hundred bytes, and on a virtual machine a
    // seek and a read of each took 50 times as long as reading the file.
    // The bytes are those of the file when they were read ahead: the
    // library forgets them when it writes the file.
    const uint8_t* readAhead(int64_t at, size_t n);
    void forgetReadAhead() { m_ahead.forget(); }

    // Leaves the file where reading up to `position` would have: at once,
    // or, while the reads are batched, once the batch ends (the caller
    // cannot see the position in between). False with the code set when
    // the seek fails.
    bool leaveAt(int64_t position);
    // A read made at once: no seek is owed before it.
    void readDirectly() { m_owed = -1; }
    // Reads of one call batched: the seek owed is made when the outermost
    // batch ends.
    class Batch {
    public:
        explicit Batch(FileDesc& f) : m_file(f), m_outer(!f.m_batched) { f.m_batched = true; }
        // A batch left without settling (an exception) owes nothing after.
        ~Batch() {
            if (!m_outer) return;
            m_file.m_batched = false;
            m_file.m_owed = -1;
        }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        // Makes the seek owed (outermost batch only); false with the code
        // set when it fails.
        bool settle();

    private:
        FileDesc& m_file;
        bool m_outer;
    };

private:
    tamo::FileWindow m_ahead{m_iFd};
    size_t m_aheadHits = 0;  // sections the window served since it was filled
    bool m_batched = false;
    int64_t m_owed = -1;  // the position the batched reads leave the file at
};

namespace tamo {

// lseek(fd, off, SEEK_SET); a failure is reported through the seek mapping
// with the given context.
bool seekSet(int fd, int64_t off, const char* context);

// Position of fd (lseek by 0 from the current position), or -1 reported
// with the context.
int64_t tellPos(int fd, const char* context);

// Reads up to n bytes at the current position, retrying after interrupted
// and short reads until n bytes or end of file. Returns the bytes read, or
// -1 when a read failed.
ssize_t readFully(int fd, void* buf, size_t n);

// The same at an absolute offset, without moving the position.
ssize_t preadFully(int fd, void* buf, size_t n, int64_t off);

// Reads exactly n bytes at offset `at` into buf, leaving the file where a
// seek to `at` and a read would have (small sections come from bytes read
// ahead); false with the code set when the file has fewer or a read fails.
// With `convert`, each chunk is handed to it (where it was read, where it
// goes, length) while still in cache, right after it was read; the two
// places may be one. Chunks are a whole number of `unit` bytes except the last; `convert`
// writes every whole record of them, or returns false having written none.
// Bytes it does not write are as they were read.
bool readSection(FileDesc& file, int64_t at, uint8_t* buf, size_t n, size_t unit = 1,
                 bool (*convert)(const uint8_t*, uint8_t*, size_t, const void*) = nullptr, const void* context = nullptr);

}  // namespace tamo
