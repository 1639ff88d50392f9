// The file or memory image behind a descriptor, kind detection, and the
// POSIX I/O helpers every reader uses.
#pragma once

#include <sys/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>

#include "tamoelf.h"

class Elf;

namespace tamo {

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

// Reads exactly n bytes at offset `at` (seeking there first) into buf; false
// with the code set when the file has fewer or a read fails. With `convert`,
// each chunk is handed to it (where it was read, where it goes, length)
// while still in cache, right after it was read; the two places may be
// one. Chunks are a whole number of `unit` bytes except the last; `convert`
// writes every whole record of them, or returns false having written none.
// Bytes it does not write are as they were read.
bool readSection(int fd, int64_t at, uint8_t* buf, size_t n, size_t unit = 1,
                 bool (*convert)(const uint8_t*, uint8_t*, size_t, const void*) = nullptr, const void* context = nullptr);

}  // namespace tamo
