// The walk of .debug_info units that every way of converting them shares:
// unit headers, the plan of each abbreviation, and one debugging entry at a
// time by its plan (the plain walk). The faster walks (DwarfWindows.cpp,
// DwarfChase.cpp) take the common entries their own way and hand every
// other step to these.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "DwarfAbbrev.h"
#include "DwarfCursor.h"
#include "DwarfTables.h"

namespace tamo::dwarf {

// What a unit's header says about the values in it.
struct Unit {
    unsigned version = 2;
    unsigned addressSize = 4;
    bool typeUnit = false;  // a unit of .debug_types (DWARF 4)
    uint32_t key() const { return addressSize << 8 | version; }
};

// Nested location expressions (DW_OP_entry_value) deeper than this are
// copied unchanged; indirect forms may name indirect forms this often.
constexpr int kMaxNesting = 16;

// Widths the address of a unit may have; anything else reads as 4, the
// width of this format's addresses.
inline unsigned addressWidth(unsigned size) {
    return size == 2 || size == 4 || size == 8 ? size : 4;
}

// The plan of an abbreviation for a unit: what its forms make of its values,
// decided once rather than for every entry.
const Plan& planOf(const CDwarfAbbrevEntry& entry, const Unit& u) noexcept;

// Whether an expression of up to three bytes is one operation whose
// operands have no byte order (DW_OP_fbreg, DW_OP_call_frame_cfa,
// DW_OP_addrx, ... as compilers emit them by the thousand): copied as it is.
inline bool reversesNothing(const uint8_t* p, size_t length) {
    switch (length) {
        case 1:
            return dwarf::kPlainOperands[p[0]] == 0;
        case 2:
            return dwarf::kPlainOperands[p[0]] == 1 || (dwarf::kPlainOperands[p[0]] == 2 && p[1] < 0x80);
        case 3:  // a LEB128 of two bytes
            return dwarf::kPlainOperands[p[0]] == 2 && (p[1] & 0x80) && p[2] < 0x80;
        default:
            return false;
    }
}

// The rare steps, out of line: an expression that needs walking, over
// [at, end); a value of form DW_FORM_indirect.
void expressionAt(const CursorPair& at, size_t end, const Unit& u);
CursorPair indirectStep(CursorPair c, uint32_t attribute, const Unit& u);

// A value whose width the bytes tell: a LEB128, a string, or a block (an
// expression, or bytes).
template <dwarf::Buffers B>
[[gnu::always_inline]] inline bool value(dwarf::BasicCursorPair<B>& c, const Step& s, const Unit& u) {
    if (s.kind == Step::Leb) return c.Uleb();
    if (s.kind == Step::String) return c.CopyString();
    uint64_t length = 0;
    if (!(s.width ? c.ReadAndSwap(s.width, length) : c.Uleb(&length))) return false;
    if (!c.has(length)) {
        c.fail();
        return false;
    }
    if (s.expression && !reversesNothing(c.source() + c.pos(), static_cast<size_t>(length))) {
        expressionAt(CursorPair(c), c.pos() + static_cast<size_t>(length), u);
        return c.Handled(static_cast<size_t>(length));
    }
    return c.CopyN(static_cast<size_t>(length));
}

// The values of one entry, by its abbreviation's plan.
template <dwarf::Buffers B>
[[gnu::always_inline]] inline bool swap_dwarf_attributes(const CDwarfAbbrevEntry& entry, dwarf::BasicCursorPair<B>& c,
                                                         const Unit& u) {
    const dwarf::Plan& p = entry.m_plan && entry.m_plan->key == u.key() ? *entry.m_plan : planOf(entry, u);
    for (const Step& s : p.steps) {
        switch (s.kind) {
            case Step::Record:
                c.Record(s.value, p.reversals.data() + s.first, s.count);
                break;
            case Step::Leb:
            case Step::String:
            case Step::Block:
                value(c, s, u);
                break;
            case Step::Indirect:
                c = dwarf::BasicCursorPair<B>(indirectStep(CursorPair(c), s.value, u));
                break;
            case Step::Unknown:
                c.fail();
                break;
        }
        if (c.failed()) return false;
    }
    return true;
}

// The abbreviations with one-byte codes of the table a unit uses, for the
// unit's kind: one flat array, remade when a unit uses another table (so
// that it costs the same however many tables an input names). A faster walk
// remakes its own tables of them at the same time.
struct QuickTable {
    const CDwarfAbbrevTable* table = nullptr;
    uint32_t key = 0;
    std::array<Quick, 0x80> entries;
    void (*remake)(void* tables, const CDwarfAbbrevTable& t, const Unit& u) = nullptr;
    void* tables = nullptr;

    const Quick* of(const CDwarfAbbrevTable& t, const Unit& u) {
        return table == &t && key == u.key() ? entries.data() : make(t, u);
    }

private:
    const Quick* make(const CDwarfAbbrevTable& t, const Unit& u);
};

// The unit or program starting at the cursor: its end, or 0 when its length
// or version cannot be trusted (64-bit DWARF, a reserved length, a unit past
// the end of the data, a version the walks do not know). Such a unit goes
// with the rest of the section by copyUntrusted.
template <dwarf::Buffers B>
size_t unitEnd(const dwarf::BasicCursorPair<B>& c, unsigned& version) {
    const size_t start = c.pos();
    uint64_t length = 0, v = 0;
    if (!c.valueAt(start, 4, length) || length >= dwarf::kReservedLength) return 0;
    if (length > c.size() - start - 4 || length < 2 || !c.valueAt(start + 4, 2, v) || v < 2 || v > 5) return 0;
    version = static_cast<unsigned>(v);
    return start + 4 + static_cast<size_t>(length);
}

// The rest of the section from a unit that cannot be trusted: its length and
// (after a length that is not reserved) its version are converted, as every
// unit's are, so that converting back reads the same values and decides
// alike; the rest is copied unchanged.
template <dwarf::Buffers B>
void copyUntrusted(dwarf::BasicCursorPair<B>& c) {
    uint64_t length = 0;
    if (c.ReadAndSwap(4, length) && length < dwarf::kReservedLength) c.Swap(2);
    c.copyRest();
}

// The header of a .debug_info unit whose range the cursor is limited to:
// converted, and the unit's abbreviation table (null when it has none or
// the header cannot be sized).
template <dwarf::Buffers B>
const CDwarfAbbrevTable* endian_swap_debug_info_section(dwarf::BasicCursorPair<B>& c, Unit& u) {
    uint64_t abbrevOffset = 0;
    c.Swap(4) && c.Swap(2);
    if (u.version >= 5) {
        uint8_t unitType = 0, addressSize = 0;
        c.Byte(unitType) && c.Byte(addressSize) && c.ReadAndSwap(4, abbrevOffset);
        u.addressSize = addressWidth(addressSize);
        if (unitType == dwarf::DW_UT_type || unitType == dwarf::DW_UT_split_type)
            c.Swap(8) && c.Swap(4);  // type signature, type offset
        else if (unitType == dwarf::DW_UT_skeleton || unitType == dwarf::DW_UT_split_compile)
            c.Swap(8);  // unit id
        else if (unitType != dwarf::DW_UT_compile && unitType != dwarf::DW_UT_partial)
            c.fail();  // a header the walk cannot size
    } else {
        uint8_t addressSize = 0;
        c.ReadAndSwap(4, abbrevOffset) && c.Byte(addressSize);
        u.addressSize = addressWidth(addressSize);
        if (u.typeUnit) c.Swap(8) && c.Swap(4);  // type signature, type offset
    }
    if (!c.ok() || abbrevOffset > UINT32_MAX) return nullptr;
    return CDwarfAbbrevTable::findTable(static_cast<uint32_t>(abbrevOffset));
}

// The walk of .debug_info units, one step (a unit header, or one debugging
// entry) at a time without recursion. A lane is a plain value: the walk
// keeps it in registers, and the out-of-line steps take and give it back by
// value.
template <dwarf::Buffers B>
struct Lane {
    dwarf::BasicCursorPair<B> c;
    const dwarf::Quick* quick = nullptr;
    const CDwarfAbbrevTable* table = nullptr;
    Unit u;
    ptrdiff_t depth = 0;
    size_t outer = 0;
    bool inUnit = false;
    bool types = false;  // the units are .debug_types units

    Lane(const CursorPair& whole, size_t begin, size_t end, bool typeUnits)
        : c(whole.source(), whole.destination(), whole.size(), whole.srcNative(), begin, end), types(typeUnits) {}
    bool done() const { return !inUnit && c.pos() >= c.end(); }
};

// Bytes after the entry tree, or all of the unit the walk could not size,
// go unchanged.
template <dwarf::Buffers B>
[[gnu::always_inline]] inline void finishUnit(Lane<B>& l) {
    l.c.copyRest();
    l.c.restore(l.outer);
    l.inUnit = false;
}

// Starts the unit at the lane's cursor: its header, then its entries; or
// copies what cannot be walked.
template <dwarf::Buffers B>
[[gnu::noinline]] Lane<B> startUnit(Lane<B> l, QuickTable& quickTable) {
    l.u = Unit{};
    l.u.typeUnit = l.types;
    const size_t end = unitEnd(l.c, l.u.version);
    if (!end) {
        copyUntrusted(l.c);
        return l;
    }
    l.outer = l.c.limit(end);
    l.table = endian_swap_debug_info_section(l.c, l.u);
    if (!l.table) {
        finishUnit(l);
        return l;
    }
    l.quick = quickTable.of(*l.table, l.u);
    l.depth = 0;
    l.inUnit = true;
    return l;
}

// One debugging entry (or the end of a list of children).
template <dwarf::Buffers B>
[[gnu::always_inline]] inline void swap_dwarf_entry(Lane<B>& l) {
    auto& c = l.c;
    if (!c.has(1)) return finishUnit(l);
    const uint8_t first = c.peekInRange();
    const CDwarfAbbrevEntry* entry;
    bool children;
    if (first < 0x80) {
        const dwarf::Quick& q = l.quick[first];
        switch (q.shape) {
            case dwarf::Quick::Fixed:
                if (!c.WordRecord(q.head)) return finishUnit(l);
                break;
            case dwarf::Quick::OneLeb:
                if (!c.WordRecord(q.head) || !c.Uleb() || !c.WordRecord(q.tail)) return finishUnit(l);
                break;
            case dwarf::Quick::OneExpression: {
                uint64_t length = 0;
                if (!c.WordRecord(q.head) || !c.Uleb(&length) || !c.has(length)) return finishUnit(l);
                if (reversesNothing(c.source() + c.pos(), static_cast<size_t>(length))) {
                    c.CopyN(static_cast<size_t>(length));
                } else {
                    expressionAt(CursorPair(c), c.pos() + static_cast<size_t>(length), l.u);
                    c.Handled(static_cast<size_t>(length));
                }
                if (!c.WordRecord(q.tail)) return finishUnit(l);
                break;
            }
            case dwarf::Quick::OneValue:
                if (!c.WordRecord(q.head) || !value(c, q.value, l.u) || !c.WordRecord(q.tail)) return finishUnit(l);
                break;
            case dwarf::Quick::End:
                // The end of a list of children; at the top, a code no
                // abbreviation has.
                if (l.depth == 0) return finishUnit(l);
                c.CopyN(1);
                if (--l.depth == 0) finishUnit(l);
                return;
            case dwarf::Quick::General:
                if (!q.entry || !c.CopyN(1) || !swap_dwarf_attributes(*q.entry, c, l.u)) return finishUnit(l);
                break;
        }
        children = q.children;
    } else {
        uint64_t code = 0;
        if (!c.Uleb(&code)) return finishUnit(l);
        entry = code <= UINT32_MAX ? l.table->find(static_cast<uint32_t>(code)) : nullptr;
        if (!entry || !swap_dwarf_attributes(*entry, c, l.u)) return finishUnit(l);
        children = entry->m_bHasChildren;
    }
    // The tree ends after a childless entry at the top.
    l.depth += children;
    if (l.depth <= 0) finishUnit(l);
}

// The faster walks of a whole .debug_info (or .debug_types) section, where
// the processor has what they need (tell by windowsWalkRuns and
// chaseWalkRuns); they give the same bytes as the plain walk.
bool windowsWalkRuns();
template <Buffers B>
void debugInfoWindows(const CursorPair& whole, bool types);
bool chaseWalkRuns();
template <Buffers B>
void debugInfoChase(const CursorPair& whole, bool types);

}  // namespace tamo::dwarf
