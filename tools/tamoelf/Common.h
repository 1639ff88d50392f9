// Shared by the commands of the tamoelf tool: bytes and files, the
// library's error state, and failures that end a command.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Endian.h"
#include "tamoelf.h"

namespace tool {

using Bytes = std::vector<uint8_t>;

// The order the library hands data out in: the host's.
inline constexpr unsigned kHostOrder = static_cast<unsigned>(tamo::kHostOrder);  // as EI_DATA

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
// The string at offset `at` of a string table, up to its NUL or the table's
// end; empty past the end.
std::string stringIn(const Bytes& table, uint32_t at);
// Fields of either byte order, through the library's one place for them.
inline tamo::ByteOrder orderOf(bool big) { return big ? tamo::ByteOrder::Big : tamo::ByteOrder::Little; }
inline uint32_t load32(const uint8_t* p, bool big) { return tamo::load32(p, orderOf(big)); }
inline uint16_t load16(const uint8_t* p, bool big) { return tamo::load16(p, orderOf(big)); }
inline void store32(uint8_t* p, uint32_t v, bool big) { tamo::store32(p, v, orderOf(big)); }
inline void store16(uint8_t* p, uint16_t v, bool big) { tamo::store16(p, v, orderOf(big)); }

}  // namespace tool
