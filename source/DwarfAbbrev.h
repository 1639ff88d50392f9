// Abbreviation tables of a .debug_abbrev section, read before a .debug_info
// section is converted: each compilation unit finds its table by offset and
// each entry its abbreviation by code (first match wins, in constant time).
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "DwarfCursor.h"

class CDwarfAbbrevEntry;

namespace tamo::dwarf {

// How the values of an entry of one abbreviation are converted, made once
// per abbreviation for a unit's address size and version: runs of values of
// fixed widths become one record (its size and the fields reversed in it,
// checked against the end of the data once), between the values whose width
// the bytes tell.
struct Step {
    enum Kind : uint8_t { Record, Leb, String, Block, Indirect, Unknown };
    Kind kind;
    uint8_t width;       // Block: length bytes (0: LEB128)
    bool expression;     // Block: the content is a location expression
    uint32_t value;      // Record: size; Indirect: the attribute
    uint32_t first = 0;  // Record: its fields in Plan::reversals
    uint32_t count = 0;
};
struct Plan {
    uint32_t key = 0;  // address size and version it was made for; 0: not made
    std::vector<Step> steps;
    std::vector<Reversal> reversals;
};

// What the walk needs of an abbreviation whose code is one byte, in one
// flat array so that an entry costs one load: a record of fixed size with
// its reversals inline, or the way to the general plan.
struct Quick {
    static constexpr int kInline = 4;
    const CDwarfAbbrevEntry* entry = nullptr;  // null: no abbreviation has the code
    uint32_t size = 0;                         // of a fixed record, from the code byte on
    bool fixed = false;
    bool children = false;
    uint8_t count = 0;
    // Words: every reversed field is 4 bytes, and `words` (0, 2 or 4)
    // reversals are made without a branch, those at the `scratch` bits on a
    // scratch word (an odd count is padded).
    bool words = false;
    uint8_t wordCount = 0;
    uint8_t scratch = 0;
    struct {
        uint16_t offset;
        uint8_t width;
    } fields[kInline] = {};
};

}  // namespace tamo::dwarf

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
    // Made by the walk that first converts an entry of this abbreviation.
    mutable tamo::dwarf::Plan m_plan;
};

class CDwarfAbbrevTable {
public:
    std::vector<std::unique_ptr<CDwarfAbbrevEntry>> m_vEntries;
    uint32_t m_lOffset = 0;

    explicit CDwarfAbbrevTable(uint32_t offset) : m_lOffset(offset) {}

    void add(std::unique_ptr<CDwarfAbbrevEntry> entry);
    // The first abbreviation with this code, or null.
    const CDwarfAbbrevEntry* find(uint32_t code) const {
        if (code < m_byDenseCode.size() && m_byDenseCode[code]) return m_byDenseCode[code];
        return m_byCode.empty() ? nullptr : findSparse(code);
    }

    // The tables of the conversion in progress, in section order.
    static std::vector<std::unique_ptr<CDwarfAbbrevTable>> s_vTables;
    static void append(std::unique_ptr<CDwarfAbbrevTable> table);
    // The first table at this offset, or null.
    static const CDwarfAbbrevTable* findTable(uint32_t offset);
    static void releaseAll();

private:
    const CDwarfAbbrevEntry* findSparse(uint32_t code) const;
    // Small codes (as compilers number them, from 1) index an array; others
    // go through a map. The array grows only with the table, so a hostile
    // code cannot make it large.
    std::vector<const CDwarfAbbrevEntry*> m_byDenseCode;
    std::unordered_map<uint32_t, size_t> m_byCode;
    static std::unordered_map<uint32_t, size_t> s_byOffset;
};

namespace tamo {
// Reads the abbreviation tables of a .debug_abbrev section's bytes into
// CDwarfAbbrevTable::s_vTables.
void parseAbbrevTables(const uint8_t* data, size_t size);
}  // namespace tamo
