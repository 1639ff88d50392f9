// Shared by the commands of the tamoelf tool: bytes and files, the
// library's error state, and failures that end a command.
#pragma once

#include <bit>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "tamoelf.h"

namespace tool {

using Bytes = std::vector<uint8_t>;

// The order the library hands data out in: the host's.
inline constexpr unsigned kHostOrder = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// A failure that ends a command: printed as it is, exit status 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The library's last error (taken, so that the state is clear afterwards).
struct LibraryError {
    int code = 0;
    std::string message;
    std::string context;  // empty when the library set none
    // "message (code N[, in context])"
    std::string describe() const;
};
LibraryError takeLibraryError();
// Clears a code a walk leaves at its normal end (21, 37, 59).
void clearLibraryError();

// Reads a whole file; throws Failure naming it.
Bytes readFile(const std::string& path);

// A file that becomes `target` only when committed: written beside it under
// a temporary name and renamed, so that no partial output is ever left.
class OutputFile {
public:
    explicit OutputFile(const std::string& target);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    const std::string& path() const { return m_temp; }
    int fd() const { return m_fd; }
    void write(const Bytes& bytes);
    // Renames the temporary file to the target.
    void commit();

private:
    std::string m_target, m_temp;
    int m_fd = -1;
    bool m_committed = false;
};

// A file in memory (filled with `bytes`) that the library can open for
// reading, update or writing.
class MemoryFile {
public:
    explicit MemoryFile(const Bytes& bytes = {});
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    int fd() const { return m_fd; }
    Bytes contents() const;

private:
    int m_fd;
};

// Ends a descriptor when it goes.
struct Descriptor {
    Elf* elf;
    ~Descriptor() {
        if (elf) tamo_elf_end(elf);
    }
};

std::string hex(uint64_t v, int width = 0);
uint32_t load32(const uint8_t* p, bool big);
uint16_t load16(const uint8_t* p, bool big);
void store32(uint8_t* p, uint32_t v, bool big);
void store16(uint8_t* p, uint16_t v, bool big);

}  // namespace tool
