// An open archive: its members in file order and its symbol table.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ArMember.h"
#include "ArSymTab.h"

class Elf;
class FileDesc;

namespace tamo {

// A read-through window on a file, so that walking many small headers costs
// few system calls. Reads with pread: the file position is not moved.
class FileWindow {
public:
    explicit FileWindow(int fd) : m_fd(fd) {}
    // Makes up to n (at most kCapacity) bytes at off available in *p and
    // returns how many there are (fewer at end of file), or -1 when the read
    // fails.
    long fetch(int64_t off, size_t n, const uint8_t** p);
    static constexpr size_t kCapacity = 4096;

private:
    int m_fd;
    int64_t m_start = -1;
    size_t m_len = 0;
    std::unique_ptr<uint8_t[]> m_buf;
};

}  // namespace tamo

class ArDesc {
public:
    FileDesc* m_pFile;
    std::vector<std::unique_ptr<ArMember>> m_members;
    std::unique_ptr<ArSymTab> m_pSymTab;
    Elf* m_pElf = nullptr;

    explicit ArDesc(FileDesc* file) : m_pFile(file) {}
    ~ArDesc();

    // Reads the symbol table and every member header; returns the number of
    // members or -1.
    int initialize();

    // The member whose header starts at offset, or null (no code).
    ArMember* get_member(long offset) const;
    // The first member (member null) or the one after member; null with 12
    // or 13.
    ArMember* get_member(const ArMember* member) const;

    // Destroys every member's descriptor; the records go with the archive.
    void destroy();

private:
    std::unordered_map<uint32_t, ArMember*> m_byHeaderOffset;
};
