// An open archive: its members in file order and its symbol table.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ArMember.h"
#include "ArSymTab.h"
#include "FileDesc.h"

class Elf;
class FileDesc;

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
