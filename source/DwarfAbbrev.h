// Abbreviation tables of a .debug_abbrev section, read before a .debug_info
// section is converted: each compilation unit finds its table by offset and
// each entry its abbreviation by code (first match wins, in constant time).
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

struct CDwarfAttrib {
    uint32_t m_lName;  // DW_AT value; 0 in the terminating pair
    uint32_t m_lForm;  // DW_FORM value
};

class CDwarfAbbrevEntry {
public:
    std::vector<CDwarfAttrib> m_vAttribs;  // in section order, terminating pair included
    uint32_t m_lCode = 0;
    uint32_t m_lTag = 0;
    bool m_bHasChildren = false;
};

class CDwarfAbbrevTable {
public:
    std::vector<std::unique_ptr<CDwarfAbbrevEntry>> m_vEntries;
    uint32_t m_lOffset = 0;

    explicit CDwarfAbbrevTable(uint32_t offset) : m_lOffset(offset) {}

    void add(std::unique_ptr<CDwarfAbbrevEntry> entry);
    // The first abbreviation with this code, or null.
    const CDwarfAbbrevEntry* find(uint32_t code) const;

    // The tables of the conversion in progress, in section order.
    static std::vector<std::unique_ptr<CDwarfAbbrevTable>> s_vTables;
    static void append(std::unique_ptr<CDwarfAbbrevTable> table);
    // The first table at this offset, or null.
    static const CDwarfAbbrevTable* findTable(uint32_t offset);
    static void releaseAll();

private:
    std::unordered_map<uint32_t, size_t> m_byCode;
    static std::unordered_map<uint32_t, size_t> s_byOffset;
};

namespace tamo {
// Reads the abbreviation tables of a .debug_abbrev section's bytes into
// CDwarfAbbrevTable::s_vTables.
void parseAbbrevTables(const uint8_t* data, size_t size);
}  // namespace tamo
