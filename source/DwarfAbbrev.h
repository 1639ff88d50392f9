// Abbreviation tables of a .debug_abbrev section, read before a .debug_info
// section is converted: each compilation unit finds its table by offset and
// each entry its abbreviation by code (first match wins, in constant time).
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "DwarfCursor.h"
#include "tamoelf.h"

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
// A growable array holding its first N elements in itself: an
// abbreviation's specifications and plan seldom need more, and then reading
// and planning it allocates nothing of its own (in a compiler's object of a
// few KiB, allocations had been a third of the conversion's time).
template <class T, size_t N>
class SmallArray {
public:
    // Leaves the elements in itself unset: only the first size() are read.
    SmallArray() {}
    SmallArray(const SmallArray&) = delete;
    SmallArray& operator=(const SmallArray&) = delete;
    void clear() {
        m_size = 0;
        m_heap.clear();
    }
    void push_back(const T& v) {
        if (m_size < N) {
            m_inline[m_size] = v;
        } else {
            if (m_size == N) m_heap.assign(m_inline, m_inline + N);
            m_heap.push_back(v);
        }
        ++m_size;
    }
    const T* data() const { return m_size > N ? m_heap.data() : m_inline; }
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    const T& operator[](size_t i) const { return data()[i]; }
    const T* begin() const { return data(); }
    const T* end() const { return data() + m_size; }

private:
    T m_inline[N];
    std::vector<T> m_heap;  // all of them, once past N
    size_t m_size = 0;
};

// Every conversion of .debug_info makes and frees an object of each
// abbreviation and its plan, by the dozen for a compiler's object. Freed
// ones are kept, up to `Keep` of a size on each thread, for the next
// conversion: taking one back costs a few instructions, where the system's
// allocator spent about a fifth of a small conversion's time.
template <size_t Size, size_t Keep>
class Kept {
public:
    static void* take() {
        List& l = list();
        if (!l.head) return ::operator new(Size);
        Node* n = l.head;
        l.head = n->next;
        --l.count;
        return n;
    }
    static void give(void* p) noexcept {
        List& l = list();
        if (l.count == Keep) return ::operator delete(p);
        l.head = new (p) Node{l.head};
        ++l.count;
    }

private:
    struct Node {
        Node* next;
    };
    struct List {
        Node* head = nullptr;
        size_t count = 0;
        ~List() {
            while (head) ::operator delete(std::exchange(head, head->next));
        }
    };
    static List& list() {
        static thread_local List l;
        return l;
    }
};

struct Plan {
    static void* operator new(size_t) { return Kept<sizeof(Plan), 256>::take(); }
    static void operator delete(void* p) { Kept<sizeof(Plan), 256>::give(p); }

    uint32_t key = 0;  // address size and version it was made for; 0: not made
    SmallArray<Step, 6> steps;
    SmallArray<Reversal, 8> reversals;
};
// The plan of an abbreviation that could not be planned (no memory left):
// its entries, and the rest of their unit, are copied as they are.
const Plan& unplannable();

// What the walk needs of an abbreviation whose code is one byte, in one
// flat array so that an entry costs one load. Most abbreviations have one of
// two shapes: a record of fixed size (from the code byte on), or such a
// record, one value whose width the bytes tell (a LEB128, a string, a
// block or expression), and another record. Their records reverse only
// 4-byte words, done without branching on how many. Any other abbreviation
// goes through its general plan.
struct QuickRecord {
    uint16_t size = 0;
    uint8_t words = 0;    // reversals made: 2 or 4 (padded as needed)
    uint8_t scratch = 0;  // bit i: reversal i is padding, on a scratch word
    uint16_t offset[4] = {};
};
struct Quick {
    // OneLeb and OneExpression: OneValue whose value is a LEB128 or an
    // exprloc. End: the 0 byte that ends a list of children.
    enum Shape : uint8_t { General, Fixed, OneValue, OneLeb, OneExpression, End };
    const CDwarfAbbrevEntry* entry = nullptr;  // null: no abbreviation has the code
    Shape shape = General;
    bool children = false;
    Step value{Step::Unknown, 0, false, 0};  // OneValue: the value between the records
    QuickRecord head, tail;
};

}  // namespace tamo::dwarf

struct CDwarfAttrib {
    uint32_t m_lName;  // DW_AT value; 0 in the terminating pair
    uint32_t m_lForm;  // DW_FORM value
};

class CDwarfAbbrevEntry {
public:
    // Made without zeroing the room for its specifications first.
    CDwarfAbbrevEntry() {}
    TAMO_API ~CDwarfAbbrevEntry();
    static void* operator new(size_t) { return tamo::dwarf::Kept<sizeof(CDwarfAbbrevEntry), 256>::take(); }
    static void operator delete(void* p) { tamo::dwarf::Kept<sizeof(CDwarfAbbrevEntry), 256>::give(p); }
    // In section order, terminating pair included; most abbreviations have
    // at most seven attributes, held in the entry itself.
    tamo::dwarf::SmallArray<CDwarfAttrib, 8> m_vAttribs;
    uint32_t m_lCode = 0;
    uint32_t m_lTag = 0;
    bool m_bHasChildren = false;
    // Made by the walk that first converts an entry of this abbreviation
    // (most abbreviations of a hostile table never are).
    mutable std::unique_ptr<tamo::dwarf::Plan> m_plan;
};

class CDwarfAbbrevTable {
public:
    std::vector<std::unique_ptr<CDwarfAbbrevEntry>> m_vEntries;
    uint32_t m_lOffset = 0;

    explicit CDwarfAbbrevTable(uint32_t offset) : m_lOffset(offset) {}
    TAMO_API ~CDwarfAbbrevTable();

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
