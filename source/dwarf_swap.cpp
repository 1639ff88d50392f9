// Conversion of DWARF sections between byte orders: the dispatcher, and the
// walks of .debug_info (unit headers, entries, attribute values by form,
// location expressions) and of .debug_line (program headers, directory and
// file tables, opcode streams), for DWARF versions 2 to 5 in the 32-bit
// format. Every multi-byte field is reversed; bytes, strings and LEB128
// numbers are copied.
//
// The walks go through one bounded cursor pair and the tables of
// DwarfTables.h. What they cannot size (64-bit DWARF, unknown versions,
// forms or abbreviations, malformed data) is copied unchanged: the rest of
// the section when a unit's own bounds are in doubt, else the rest of the
// unit (or of the expression or extended opcode), after which the walk goes
// on. Decisions rest only on host-order values, so converting back restores
// the input.
//
// Speed: each abbreviation becomes a plan once per conversion (runs of
// fixed-width values as one record with its reversals, between the values
// whose width the bytes tell), and the abbreviations with one-byte codes sit
// in a flat array, so that a typical entry costs a byte load, an array load,
// one bounds check and its reversals. The entry walk keeps its cursor in a
// local copy; the rare steps take and return it by value. Where the
// processor has SSSE3, two units are walked at once, and entries whose
// values fit in 16-byte windows are checked and converted a window at a
// time (see Window); any entry they do not take goes the plain way.

#include "dwarf_swap.h"

#include <array>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TAMO_DWARF_WINDOWS 1
#endif

#include "DwarfAbbrev.h"
#include "DwarfCursor.h"
#include "DwarfExpression.h"
#include "DwarfTables.h"
#include "Endian.h"
#include "tamoelf.h"

namespace tamo {

namespace {

using dwarf::CursorPair;
using dwarf::Form;
using dwarf::FormKind;
using dwarf::Operands;
using dwarf::Step;

// True while the abbreviation tables are being read. A .debug_info
// conversion started by that reading (the section walk makes the sections it
// passes, and an object may hold several .debug_info sections, type units in
// COMDAT groups) must not read the tables again: it is recorded, and the
// conversion that reads the tables converts it once they are there.
bool bInHere = false;

struct InHereScope {
    InHereScope() { bInHere = true; }
    ~InHereScope() { bInHere = false; }
};

struct Deferred {
    char* src;
    char* dst;
    size_t size;
    bool srcNative;
    bool types;
};
std::vector<Deferred> g_deferred;

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
unsigned addressWidth(unsigned size) {
    return size == 2 || size == 4 || size == 8 ? size : 4;
}

// ---------------------------------------------------------------------------
// Location expressions

// The content of a block value: a location expression or plain bytes.
bool blockContent(CursorPair& c, uint64_t length, bool isExpression, const Unit& u) {
    if (!c.has(length)) {
        c.fail();
        return false;
    }
    if (isExpression)
        c = dwarf::locationExpression(c, c.pos() + static_cast<size_t>(length), u.addressSize);
    else
        c.CopyN(static_cast<size_t>(length));
    return c.ok();
}

// ---------------------------------------------------------------------------
// Attribute values

// One attribute value of form `form`; `attribute` tells whether a block
// holds a location expression.
bool swapValue(CursorPair& c, uint32_t form, uint32_t attribute, const Unit& u) {
    for (int indirections = 0; indirections <= kMaxNesting; ++indirections) {
        const Form f = dwarf::formOf(form);
        uint64_t length = 0;
        switch (f.kind) {
            case FormKind::Fixed:
                return f.reverse ? c.Swap(f.width) : c.CopyN(f.width);
            case FormKind::Address:
                return c.Swap(u.addressSize);
            case FormKind::RefAddr:
                return c.Swap(u.version == 2 ? u.addressSize : 4);
            case FormKind::Uleb:
            case FormKind::Sleb:
                return c.Uleb();
            case FormKind::String:
                return c.CopyString();
            case FormKind::Block:
                if (!(f.width ? c.ReadAndSwap(f.width, length) : c.Uleb(&length))) return false;
                return blockContent(c, length, dwarf::isLocationAttribute(attribute), u);
            case FormKind::Exprloc:
                return c.Uleb(&length) && blockContent(c, length, true, u);
            case FormKind::Nothing:
                return true;
            case FormKind::Indirect: {
                uint64_t actual = 0;
                if (!c.Uleb(&actual)) return false;
                form = static_cast<uint32_t>(actual == static_cast<uint32_t>(actual) ? actual : 0);
                continue;
            }
            case FormKind::Unknown:
                break;
        }
        break;
    }
    c.fail();
    return false;
}

// The plan of an abbreviation for a unit: what its forms make of its values,
// decided once rather than for every entry.
[[gnu::noinline]] const dwarf::Plan& planOf(const CDwarfAbbrevEntry& entry, const Unit& u) {
    dwarf::Plan& p = entry.m_plan;
    if (p.key == u.key()) return p;
    p = dwarf::Plan{};
    p.key = u.key();
    Step record{Step::Record, 0, false, 0};
    auto flush = [&] {
        if (record.value == 0) return;
        record.count = static_cast<uint32_t>(p.reversals.size()) - record.first;
        p.steps.push_back(record);
        record = Step{Step::Record, 0, false, 0};
    };
    auto fixed = [&](uint8_t width, bool reversed) {
        if (record.value == 0) record.first = static_cast<uint32_t>(p.reversals.size());
        if (reversed && width > 1) p.reversals.push_back({record.value, width});
        record.value += width;
    };
    auto variable = [&](Step step) {
        flush();
        p.steps.push_back(step);
    };
    for (const CDwarfAttrib& a : entry.m_vAttribs) {
        if (a.m_lName == 0) continue;
        const Form f = dwarf::formOf(a.m_lForm);
        switch (f.kind) {
            case FormKind::Fixed:
                fixed(f.width, f.reverse);
                break;
            case FormKind::Address:
                fixed(static_cast<uint8_t>(u.addressSize), true);
                break;
            case FormKind::RefAddr:
                fixed(static_cast<uint8_t>(u.version == 2 ? u.addressSize : 4), true);
                break;
            case FormKind::Uleb:
            case FormKind::Sleb:
                variable({Step::Leb, 0, false, 0});
                break;
            case FormKind::String:
                variable({Step::String, 0, false, 0});
                break;
            case FormKind::Block:
                variable({Step::Block, f.width, dwarf::isLocationAttribute(a.m_lName), 0});
                break;
            case FormKind::Exprloc:
                variable({Step::Block, 0, true, 0});
                break;
            case FormKind::Nothing:
                break;
            case FormKind::Indirect:
                variable({Step::Indirect, 0, false, a.m_lName});
                break;
            case FormKind::Unknown:
                variable({Step::Unknown, 0, false, 0});
                break;
        }
        if (record.value > UINT32_MAX / 2) variable({Step::Unknown, 0, false, 0});  // beyond any section
    }
    flush();
    return p;
}

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

// The rare steps, out of line. An expression is walked over its range of
// the buffers by a pair of its own: it reaches its end whatever it holds.
[[gnu::noinline]] void expressionAt(const CursorPair& at, size_t end, const Unit& u) {
    CursorPair c(at.source(), at.destination(), at.size(), at.srcNative(), at.pos(), end);
    if (!dwarf::swap_location_machine(c, end, u.addressSize, 0)) c.copyRest();
}
[[gnu::noinline]] CursorPair indirectStep(CursorPair c, uint32_t attribute, const Unit& u) {
    swapValue(c, 0x16, attribute, u);  // DW_FORM_indirect
    return c;
}

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
    const dwarf::Plan& p = entry.m_plan.key == u.key() ? entry.m_plan : planOf(entry, u);
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

// A record of the plan as a quick record (one more byte in front, the code,
// when `code`); false when it reverses other than words or is large.
bool quickRecord(const dwarf::Plan& p, const Step* s, bool code, dwarf::QuickRecord& r) {
    const uint32_t count = s ? s->count : 0;
    const uint32_t size = (s ? s->value : 0) + (code ? 1 : 0);
    if (size > UINT16_MAX || count > 4) return false;
    r = dwarf::QuickRecord{};
    r.size = static_cast<uint16_t>(size);
    for (uint32_t i = 0; i < count; ++i) {
        const dwarf::Reversal& f = p.reversals[s->first + i];
        if (f.width != 4) return false;
        r.offset[i] = static_cast<uint16_t>(f.offset + (code ? 1 : 0));
    }
    r.words = count > 2 ? 4 : 2;
    for (uint32_t i = count; i < r.words; ++i) r.scratch = static_cast<uint8_t>(r.scratch | (1u << i));
    return true;
}

// The shape of an abbreviation's plan (see dwarf::Quick).
void shape(dwarf::Quick& q, const dwarf::Plan& p) {
    const std::vector<Step>& s = p.steps;
    auto isRecord = [](const Step& x) { return x.kind == Step::Record; };
    auto isValue = [](const Step& x) { return x.kind == Step::Leb || x.kind == Step::String || x.kind == Step::Block; };
    if (s.empty() || (s.size() == 1 && isRecord(s[0]))) {
        if (quickRecord(p, s.empty() ? nullptr : &s[0], true, q.head)) q.shape = dwarf::Quick::Fixed;
        return;
    }
    size_t i = 0;  // [record] value [record]
    const Step* head = isRecord(s[0]) ? &s[i++] : nullptr;
    if (i >= s.size() || !isValue(s[i])) return;
    const Step* middle = &s[i++];
    const Step* tail = i < s.size() && isRecord(s[i]) ? &s[i++] : nullptr;
    if (i == s.size() && quickRecord(p, head, true, q.head) && quickRecord(p, tail, false, q.tail)) {
        q.value = *middle;
        if (middle->kind == Step::Leb)
            q.shape = dwarf::Quick::OneLeb;
        else if (middle->kind == Step::Block && middle->width == 0 && middle->expression)
            q.shape = dwarf::Quick::OneExpression;
        else
            q.shape = dwarf::Quick::OneValue;
    }
}

// An abbreviation whose entries fit in one or two 16-byte windows: the code
// and a head record (LEB128 values in it taken as one byte, which the walk
// checks), then optionally an exprloc of one operation with nothing to
// reverse and a tail record. Between two buffers each window is converted
// by one byte shuffle, which reverses the fields and leaves every other
// byte where it is.
struct alignas(16) Window {
    enum Kind : uint8_t { None, One, Two };
    uint8_t head[16];
    uint8_t tail[16];
    // Bytes that must be below 0x80; in the head, kRefuse too when the
    // entries of the abbreviation do not fit (the walk ors it into the mask
    // of high bits, so that one test decides both).
    static constexpr uint32_t kRefuse = 1u << 16;
    uint32_t headLeb = kRefuse;
    uint32_t tailLeb = 0;
    uint8_t headSize = 0, tailSize = 0;
    // An entry of two windows: the length of expression its last entry had
    // (so that the walk can step over the entry before it has read the
    // length, and checks it after).
    uint8_t length = 2;
    Kind kind = None;  // None: refused
    int8_t depth = 0;  // +1: has children; -1: the end of a list of children
    // In place the fields are reversed one by one (a whole window stored
    // back would stall the next entry's load): up to four words, at these
    // offsets from the head window (the first headWords) or the tail window.
    uint8_t words = 0;  // above 4: the fields are not four words or fewer
    uint8_t headWords = 0;
    uint8_t word[4] = {};
};

// Fills the head or the tail window from the plan's steps [from, to); false
// when they do not fit in `limit` bytes or hold other than records and
// LEB128 values.
bool fillWindow(const dwarf::Plan& p, const Step* from, const Step* to, Window& w, bool tail, unsigned limit) {
    uint8_t* shuffle = tail ? w.tail : w.head;
    uint32_t& leb = tail ? w.tailLeb : w.headLeb;
    uint8_t& size = tail ? w.tailSize : w.headSize;
    for (unsigned i = 0; i < 16; ++i) shuffle[i] = static_cast<uint8_t>(i);
    for (const Step* s = from; s != to; ++s) {
        if (s->kind == Step::Leb) {
            if (size + 1u > limit) return false;
            leb |= 1u << size;
            ++size;
            continue;
        }
        if (s->kind != Step::Record || size + s->value > limit) return false;
        for (uint32_t k = 0; k < s->count; ++k) {
            const dwarf::Reversal& r = p.reversals[s->first + k];
            const size_t at = size + r.offset;
            for (unsigned b = 0; b < r.width; ++b) shuffle[at + b] = static_cast<uint8_t>(at + r.width - 1 - b);
            if (r.width != 4 || w.words >= 4) {
                w.words = 0xfe;
            } else {
                w.word[w.words++] = static_cast<uint8_t>(at);
            }
        }
        size = static_cast<uint8_t>(size + s->value);
    }
    return true;
}

// In place, entries whose fields are not four words or fewer are refused.
void makeWindow(Window& w, const dwarf::Plan& p, bool children, bool inPlace) {
    w = Window{};
    const Step* begin = p.steps.data();
    const Step* end = begin + p.steps.size();
    const Step* split = end;
    for (const Step* s = begin; s != end; ++s)
        if (s->kind == Step::Block) {
            split = s;
            break;
        }
    w.headSize = 1;  // the code
    if (split == end) {
        if (!fillWindow(p, begin, end, w, false, 16)) return;
        w.headWords = w.words;
        w.kind = Window::One;
    } else {
        // The head leaves room for an expression of up to three bytes and
        // its length in the first window.
        if (split->width != 0 || !split->expression ||
            !fillWindow(p, begin, split, w, false, 12))
            return;
        w.headWords = w.words;
        if (!fillWindow(p, split + 1, end, w, true, 16)) return;
        w.kind = Window::Two;
    }
    w.depth = children ? 1 : 0;
    if (!inPlace || w.words <= 4) w.headLeb &= ~Window::kRefuse;
}

// The size of the abbreviation's entries, as far as the windows know it.
uint8_t expectedSize(const Window& w) {
    return static_cast<uint8_t>(w.kind == Window::Two ? w.headSize + 1 + w.length + w.tailSize : w.headSize);
}

// The abbreviations with one-byte codes of the table a unit uses, for the
// unit's kind: one flat array, remade when a unit uses another table (so
// that it costs the same however many tables an input names).
struct QuickTable {
    const CDwarfAbbrevTable* table = nullptr;
    uint32_t key = 0;
    bool windows = false;  // whether to make the windows too
    bool inPlace = false;  // and whether they convert in place
    std::vector<dwarf::Quick> entries;
    std::vector<Window> window;
    // The expected sizes of the windows' entries on their own: the walk
    // steps from entry to entry by one byte load from here (a shorter
    // chain than through the windows' rows).
    std::vector<uint8_t> sizes;

    const std::vector<dwarf::Quick>& of(const CDwarfAbbrevTable& t, const Unit& u) {
        if (table == &t && key == u.key()) return entries;
        table = &t;
        key = u.key();
        entries.assign(0x80, dwarf::Quick{});
        entries[0].shape = dwarf::Quick::End;
        if (windows) {
            window.assign(0x100, Window{});  // codes of two bytes and more: None
            window[0].kind = Window::One;
            window[0].headSize = 1;
            window[0].depth = -1;
            window[0].headLeb = 0;
            for (unsigned i = 0; i < 16; ++i) window[0].head[i] = static_cast<uint8_t>(i);
            sizes.assign(0x100, 0);
            sizes[0] = 1;
        }
        for (uint32_t code = 1; code < 0x80; ++code) {
            const CDwarfAbbrevEntry* e = t.find(code);
            if (!e) continue;
            dwarf::Quick& q = entries[code];
            q.entry = e;
            q.children = e->m_bHasChildren;
            const dwarf::Plan& plan = planOf(*e, u);
            shape(q, plan);
            if (windows) {
                makeWindow(window[code], plan, e->m_bHasChildren, inPlace);
                sizes[code] = expectedSize(window[code]);
            }
        }
        return entries;
    }
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
    l.quick = quickTable.of(*l.table, l.u).data();
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

template <dwarf::Buffers B>
void debugInfoOneLane(const CursorPair& whole, bool types) {
    QuickTable quick;
    Lane<B> one(whole, 0, whole.size(), types);
    while (!one.done()) {
        one = startUnit(one, quick);
        while (one.inUnit) swap_dwarf_entry(one);
    }
}

#ifdef TAMO_DWARF_WINDOWS
// The length of an expression that is one operation whose operand has no
// byte order, from its first two bytes: 1 without an operand, 2 with a
// byte, 2 or 3 with a LEB128 of one or two bytes (an operand running past
// the expression is copied either way); 0x40 for any other operation.
constexpr std::array<uint8_t, 256> kOneOperation = [] {
    std::array<uint8_t, 256> t{};
    for (size_t op = 0; op < 256; ++op) {
        const uint8_t c = dwarf::kPlainOperands[op];
        t[op] = c == 0 ? 1 : c == 1 ? 2 : c == 2 ? 0x82 : 0x40;
    }
    return t;
}();
[[gnu::always_inline]] inline unsigned oneOperationLength(const uint8_t* e) {
    const unsigned v = kOneOperation[e[0]];
    return (v & 0x7f) + ((v >> 7) & (e[1] >> 7));
}

// Reverses the first `count` (at most four) 4-byte words at the offsets from
// `base` packed a byte each in `at`, the first in the low byte.
[[gnu::always_inline]] inline void reverseWords(uint8_t* base, uint32_t at, unsigned count) {
    auto word = [&](unsigned k) {
        uint8_t* p = base + ((at >> 8 * k) & 0xff);
        storeRaw(p, bswap32(loadRaw<uint32_t>(p)));
    };
    // Most entries have one word or none.
    if (count == 0) return;
    word(0);
    if (count == 1) return;
    word(1);
    if (count == 2) return;
    word(2);
    if (count == 3) return;
    word(3);
}

// What the loop of a lane keeps in registers: its position and the depth
// of its entry tree (the two values each entry carries to the next).
struct Hot {
    size_t pos;
    ptrdiff_t depth;
};

// What the loop reads of a lane's unit: the last position at which a
// window fits in it (0 when none does: entries start after the unit's
// header), the windows of its table (none when no unit is left) and their
// entries' sizes. The loop reads them from memory for every entry (through
// a volatile view): with two lanes there are not registers enough for all,
// and these, unlike the position, are not carried from one entry to the
// next.
struct UnitView {
    size_t last = 0;
    Window* window = nullptr;
    uint8_t* sizes = nullptr;
};

// Bytes 0 to 15 at their place, then 0x80: from `16 - n` on, the shuffle
// that moves the last n bytes of a window to its front and clears the rest.
constexpr std::array<uint8_t, 32> kToFront = [] {
    std::array<uint8_t, 32> t{};
    for (size_t i = 0; i < 32; ++i) t[i] = static_cast<uint8_t>(i < 16 ? i : 0x80);
    return t;
}();

// In place, an entry of one window among the last 15 bytes of its unit:
// the window is the unit's last 16 bytes moved to the front, so that
// nothing past the unit is read; the entry must end inside the unit. A
// unit shorter than a window has none. False (nothing done) as for the
// windows.
[[gnu::target("ssse3"), gnu::always_inline]] inline bool unitTailEntry(Hot& h, Window* window, const uint8_t* sizes,
                                                                      size_t last, uint8_t* buffer) {
    const size_t end = last + 16;
    if (last == 0 || h.pos >= end) return false;
    const size_t left = end - h.pos;
    uint8_t* d = buffer + h.pos;
    const uint8_t code = d[0];
    const size_t size = sizes[code];
    const Window& w = window[code];
    const ptrdiff_t depth = h.depth + w.depth;
    if (w.kind != Window::One || size > left || depth <= 0) return false;
    const __m128i head =
        _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(buffer + end - 16)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(kToFront.data() + 16 - left)));
    if ((static_cast<uint32_t>(_mm_movemask_epi8(head)) | Window::kRefuse) & w.headLeb) return false;
    reverseWords(d, loadRaw<uint32_t>(w.word), w.words);
    h.pos += size;
    h.depth = depth;
    return true;
}

// One entry through its windows; false (nothing done) when it does not fit
// them: another kind of abbreviation, a LEB128 of more bytes, an expression
// that needs walking, fewer than 16 bytes left in the unit after a
// window's start (in place, unitTailEntry then takes entries of one
// window), or the entry that ends the unit's tree. All is checked before
// the first byte is written.
template <dwarf::Buffers B>
[[gnu::target("ssse3"), gnu::always_inline]] inline bool windowEntry(Hot& h, const UnitView& unit,
                                                                    const uint8_t* src, uint8_t* dst) {
    constexpr bool inPlace = B == dwarf::Buffers::Same;
    // The windows stay inside the unit: reading the next unit's bytes in
    // place would wait on the stores of the lane converting it.
    // What the loop knows of the unit is read from memory (see UnitView).
    const volatile UnitView& view = unit;
    const size_t last = view.last;
    if (h.pos > last) [[unlikely]] {
        if constexpr (inPlace)
            return unitTailEntry(h, view.window, view.sizes, last, const_cast<uint8_t*>(src));
        return false;
    }
    const uint8_t* s = src + h.pos;
    // The chain of entries would wait on each new cache line of the unit;
    // asking for the line 384 bytes on (about 50 entries) keeps ahead of it.
    // A prefetch never faults, so the address may lie past the section.
    _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(s) + 384), _MM_HINT_T0);
    const uint8_t code = s[0];
    uint8_t* const sizes = view.sizes;
    size_t size = sizes[code];
    Window& w = view.window[code];
    const __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const ptrdiff_t depth = h.depth + w.depth;
    if ((static_cast<uint32_t>(_mm_movemask_epi8(head)) | Window::kRefuse) & w.headLeb) return false;
    if (depth <= 0) return false;
    uint8_t* d = inPlace ? const_cast<uint8_t*>(s) : dst + h.pos;
    size_t tail = 0;
    if (w.kind == Window::Two) {
        const size_t length = s[w.headSize];
        if (length != w.length) [[unlikely]] {
            if (length - 1 > 2) return false;
            // The abbreviation's entries now have expressions of this length.
            w.length = static_cast<uint8_t>(length);
            size = sizes[code] = expectedSize(w);
        }
        if (oneOperationLength(s + w.headSize + 1) != length) return false;
        tail = size - w.tailSize;
        if (h.pos + tail > last) return false;
        const __m128i t = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + tail));
        if (_mm_movemask_epi8(t) & w.tailLeb) return false;
        if constexpr (!inPlace) {
            // The head's window first: its bytes past the head are the
            // source's, which the tail's window then stores converted.
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                             _mm_shuffle_epi8(head, _mm_load_si128(reinterpret_cast<const __m128i*>(w.head))));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + tail),
                             _mm_shuffle_epi8(t, _mm_load_si128(reinterpret_cast<const __m128i*>(w.tail))));
        }
    }
    if constexpr (inPlace) {
        // Only the reversed fields are stored: a whole window stored back
        // would hold up the next entry's load of bytes in it. The window's
        // fields are read before the first store (a store through a byte
        // pointer could otherwise change them).
        const uint32_t at = loadRaw<uint32_t>(w.word);
        const unsigned words = w.words, headWords = w.headWords;
        if (tail) {
            reverseWords(d, at, headWords);
            reverseWords(d + tail, at >> 8 * headWords, words - headWords);
        } else {
            reverseWords(d, at, words);
        }
    } else if (!tail) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                         _mm_shuffle_epi8(head, _mm_load_si128(reinterpret_cast<const __m128i*>(w.head))));
    }
    h.pos += size;
    h.depth = depth;
    return true;
}

// A lane: its walk, the windows of its unit's table, and where the loop
// left it.
template <dwarf::Buffers B>
struct WindowLane {
    Lane<B> lane;
    QuickTable quick;
    UnitView unit;
    Hot at{};

    explicit WindowLane(const Lane<B>& l) : lane(l) {
        quick.windows = true;
        quick.inPlace = B == dwarf::Buffers::Same;
    }

    void load() {
        const size_t end = lane.c.end();
        unit = UnitView{end >= 16 ? end - 16 : 0, lane.inUnit ? quick.window.data() : nullptr, quick.sizes.data()};
        at = Hot{lane.c.pos(), lane.depth};
    }
    // The next unit, from `next` on. Units that end at their header (or
    // take the rest of the section) are passed.
    void claim(const CursorPair& whole, size_t& next) {
        lane.inUnit = false;
        while (next < whole.size() && !lane.inUnit) {
            lane = startUnit(Lane<B>(whole, next, whole.size(), lane.types), quick);
            next = lane.inUnit ? lane.c.end() : lane.c.pos();
        }
        load();
    }
    // One entry the windows do not take, by the general walk; then the next
    // unit when this one has ended (no windows when none is left).
    [[gnu::noinline]] void general(const CursorPair& whole, size_t& next) {
        lane.c.Handled(at.pos - lane.c.pos());
        lane.depth = at.depth;
        swap_dwarf_entry(lane);
        if (lane.inUnit)
            load();
        else
            claim(whole, next);
    }
};

// A lane alone, to the end of its last unit.
template <dwarf::Buffers B>
[[gnu::target("ssse3")]] void alone(WindowLane<B>& l, const CursorPair& whole, size_t& next) {
    while (l.unit.window) {
        const uint8_t* const src = whole.source();
        uint8_t* const dst = whole.destination();
        Hot h = l.at;
        while (windowEntry<B>(h, l.unit, src, dst)) {
        }
        l.at = h;
        l.general(whole, next);
    }
}

// Two units at once, an entry of each in turn: the entries of one unit
// form a chain (each starts where the last ended), and the processor works
// on the two chains side by side. Each lane converts its units as one lane
// would; when one has none left, the other finishes alone.
template <dwarf::Buffers B>
[[gnu::target("ssse3")]] void debugInfoLanes(const CursorPair& whole, bool types) {
    const Lane<B> idle(whole, 0, 0, types);
    WindowLane<B> a(idle), b(idle);
    size_t next = 0;
    a.claim(whole, next);
    b.claim(whole, next);
    while (a.unit.window && b.unit.window) {
        // The loop of windows makes no call, and nothing it keeps in
        // registers lives across the general walk's: both lanes' positions
        // and depths can stay in registers.
        const uint8_t* const src = whole.source();
        uint8_t* const dst = whole.destination();
        Hot ha = a.at, hb = b.at;
        WindowLane<B>* slow;
        for (;;) {
            if (!windowEntry<B>(ha, a.unit, src, dst)) {
                slow = &a;
                break;
            }
            if (!windowEntry<B>(hb, b.unit, src, dst)) {
                slow = &b;
                break;
            }
        }
        a.at = ha;
        b.at = hb;
        slow->general(whole, next);
    }
    alone(a.unit.window ? a : b, whole, next);
}
#endif

template <dwarf::Buffers B>
void debugInfo(const CursorPair& whole, bool types, Walk walk) {
#ifdef TAMO_DWARF_WINDOWS
    static const bool ssse3 = __builtin_cpu_supports("ssse3");
    // Preparing the windows costs about as much as they save on 12 KiB of
    // clang's units (measured on x86-64): smaller sections, such as a
    // compiler's object of one unit, take the plain walk.
    constexpr size_t kWindowsFrom = size_t{16} << 10;
    if (ssse3 && (walk == Walk::Windows || (walk == Walk::Fast && whole.size() >= kWindowsFrom)))
        return debugInfoLanes<B>(whole, types);
#else
    (void)walk;
#endif
    debugInfoOneLane<B>(whole, types);
}

// The directory or file table of a version 5 line program header: entry
// formats as (content type, form) pairs, then entries of values by form.
bool entryTable(CursorPair& c, const Unit& u) {
    uint8_t formats = 0;
    if (!c.Byte(formats)) return false;
    uint32_t forms[255];
    for (unsigned i = 0; i < formats; ++i) {
        uint64_t form = 0;
        if (!c.Uleb() || !c.Uleb(&form)) return false;
        forms[i] = form <= UINT32_MAX ? static_cast<uint32_t>(form) : 0;
    }
    uint64_t count = 0;
    if (!c.Uleb(&count)) return false;
    for (uint64_t k = 0; k < count; ++k) {
        const size_t before = c.pos();
        for (unsigned i = 0; i < formats; ++i)
            if (!swapValue(c, forms[i], 0, u)) return false;
        // Entries whose values take no bytes: all the rest take none either.
        if (c.pos() == before) break;
    }
    return true;
}

// The header of a line program after its header_length field.
bool lineHeader(CursorPair& c, const Unit& u, const uint8_t*& lengths, uint8_t& opcodeBase) {
    c.CopyN(1);                      // minimum_instruction_length
    if (u.version >= 4) c.CopyN(1);  // maximum_operations_per_instruction
    c.CopyN(3);                      // default_is_stmt, line_base, line_range
    if (!c.Byte(opcodeBase)) return false;
    lengths = c.source() + c.pos();
    if (opcodeBase > 0 && !c.CopyN(opcodeBase - 1u)) return false;
    if (u.version >= 5) return entryTable(c, u) && entryTable(c, u);
    while (c.ok() && c.peek() != 0) c.CopyString();  // include_directories
    c.CopyN(1);
    while (c.ok() && c.peek() != 0) c.CopyString() && c.Uleb() && c.Uleb() && c.Uleb();  // file_names
    return c.CopyN(1);
}

// The opcodes of a line program up to the cursor's end.
void lineProgram(CursorPair& c, const uint8_t* lengths, uint8_t opcodeBase) {
    while (c.ok() && c.pos() < c.end()) {
        uint8_t op = 0;
        c.Byte(op);
        if (op == 0) {
            // Extended opcode: a LEB128 length, then that many bytes; the
            // walk always resumes at their end.
            uint64_t length = 0;
            if (!c.Uleb(&length) || !c.has(length)) break;
            const size_t next = c.pos() + static_cast<size_t>(length);
            if (length > 1 && c.peek() == dwarf::DW_LNE_set_address) {
                c.CopyN(1);
                c.Swap(static_cast<size_t>(length - 1));
            }
            c.copyTo(next);
        } else if (op < opcodeBase) {
            if (op == dwarf::DW_LNS_fixed_advance_pc) {
                c.Swap(2);
            } else {
                for (unsigned k = lengths[op - 1]; k > 0 && c.ok(); --k) c.Uleb();
            }
        }
    }
}

// One line-number program of .debug_line.
void endian_swap_debug_line_section(CursorPair& c) {
    Unit u;
    const size_t end = unitEnd(c, u.version);
    if (!end) {
        copyUntrusted(c);
        return;
    }
    const size_t outer = c.limit(end);
    c.Swap(4) && c.Swap(2);
    if (u.version >= 5) {
        uint8_t addressSize = 0;
        c.Byte(addressSize) && c.CopyN(1);  // address_size, segment_selector_size
        u.addressSize = addressWidth(addressSize);
    }
    uint64_t headerLength = 0;
    const uint8_t* lengths = nullptr;
    uint8_t opcodeBase = 0;
    if (c.ReadAndSwap(4, headerLength) && c.has(headerLength)) {
        const size_t program = c.pos() + static_cast<size_t>(headerLength);
        // The program starts where header_length says; bytes the header
        // walk did not reach before it go unchanged.
        if (lineHeader(c, u, lengths, opcodeBase) && c.pos() <= program) {
            c.copyTo(program);
            lineProgram(c, lengths, opcodeBase);
        }
    }
    c.copyRest();
    c.restore(outer);
}

}  // namespace

void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool srcNative,
                  const AbbrevBytes* abbrev, Walk walk) {
    // .debug_types (DWARF 4) holds units of .debug_info's kind with a longer
    // header; nothing routes it here on reading, but callers may convert it.
    const bool types = std::strcmp(name, ".debug_types") == 0;
    const bool info = types || std::strcmp(name, ".debug_info") == 0;
    // .debug_line_str holds only strings.
    const bool line = std::strncmp(name, ".debug_line", 11) == 0 && std::strcmp(name, ".debug_line_str") != 0;
    std::vector<Deferred> deferred;
    if (info) {
        if (bInHere) {
            try {
                g_deferred.push_back({src, dst, size, srcNative, types});
            } catch (const std::bad_alloc&) {
                // Without room to record it the section stays as it is.
            }
            return;
        }
        if (abbrev) {
            if (abbrev->data) parseAbbrevTables(abbrev->data, abbrev->size);
        } else {
            InHereScope scope;
            ReadAbbrevTable(const_cast<Elf*>(elf));
            deferred.swap(g_deferred);
        }
    }
    deferred.insert(deferred.begin(), Deferred{src, dst, size, srcNative, types});
    for (const Deferred& d : deferred) {
        CursorPair c(reinterpret_cast<const uint8_t*>(d.src), reinterpret_cast<uint8_t*>(d.dst), d.size, d.srcNative);
        if (info) {
            if (c.inPlace())
                debugInfo<dwarf::Buffers::Same>(c, d.types, walk);
            else
                debugInfo<dwarf::Buffers::Distinct>(c, d.types, walk);
            continue;
        }
        while (c.pos() < d.size) {
            if (line)
                endian_swap_debug_line_section(c);
            else
                c.copyRest();
        }
    }
    CDwarfAbbrevTable::releaseAll();
}

}  // namespace tamo

extern "C" void endian_swap_dwarf_section(const char* name, char* src, char* dst, const Elf* elf,
                                          const Elf32_Shdr* shdr, bool bSrcNative) {
    if (!name || !src || !dst || !shdr) return;
    tamo::dwarfConvert(name, src, dst, shdr->sh_size, elf, bSrcNative);
}
