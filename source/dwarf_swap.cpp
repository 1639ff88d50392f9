// Conversion of DWARF sections between byte orders: the dispatcher, the
// plain walk of .debug_info (its shared parts are in DwarfInfoWalk.h) and
// the walk of .debug_line (program headers, directory and file tables,
// opcode streams), for DWARF versions 2 to 5 in the 32-bit format. Every
// multi-byte field is reversed; bytes, strings and LEB128 numbers are
// copied.
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
// local copy; the rare steps take and return it by value. Large sections go
// through a faster walk where the processor has one: the chase
// (DwarfChase.cpp) with AVX-512, else the windows (DwarfWindows.cpp) with
// SSSE3.

#include "dwarf_swap.h"

#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "DwarfAbbrev.h"
#include "DwarfCursor.h"
#include "DwarfExpression.h"
#include "DwarfInfoWalk.h"
#include "DwarfTables.h"
#include "tamoelf.h"

namespace tamo::dwarf {
namespace {

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
    const auto& s = p.steps;
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

const Plan& makePlan(Plan& p, const CDwarfAbbrevEntry& entry, const Unit& u) {
    p.steps.clear();
    p.reversals.clear();
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

}  // namespace

const Plan& unplannable() {
    struct Unplannable {
        Plan plan;
        Unplannable() { plan.steps.push_back({Step::Unknown, 0, false, 0}); }
    };
    static const Unplannable u;
    return u.plan;
}

const Plan& planOf(const CDwarfAbbrevEntry& entry, const Unit& u) noexcept {
    if (entry.m_plan && entry.m_plan->key == u.key()) return *entry.m_plan;
    try {
        // Made as it is declared, without zeroing the room in it first.
        if (!entry.m_plan) entry.m_plan.reset(new Plan);
        return makePlan(*entry.m_plan, entry, u);
    } catch (const std::bad_alloc&) {
        if (entry.m_plan) entry.m_plan->key = 0;
        return unplannable();
    }
}


// An expression is walked over its range of the buffers by a pair of its
// own: it reaches its end whatever it holds.
void expressionAt(const CursorPair& at, size_t end, const Unit& u) {
    CursorPair c(at.source(), at.destination(), at.size(), at.srcNative(), at.pos(), end);
    if (!dwarf::swap_location_machine(c, end, u.addressSize, 0)) c.copyRest();
}
CursorPair indirectStep(CursorPair c, uint32_t attribute, const Unit& u) {
    swapValue(c, 0x16, attribute, u);  // DW_FORM_indirect
    return c;
}

const Quick* QuickTable::make(const CDwarfAbbrevTable& t, const Unit& u) {
    table = &t;
    key = u.key();
    // Filled from a constant: gcc built a fresh blank for each entry, and
    // each time loaded it whole over the byte it had just stored.
    static constexpr Quick kBlank{};
    entries.fill(kBlank);
    entries[0].shape = Quick::End;
    for (uint32_t code = 1; code < 0x80; ++code) {
        const CDwarfAbbrevEntry* e = t.find(code);
        if (!e) continue;
        Quick& q = entries[code];
        q.entry = e;
        q.children = e->m_bHasChildren;
        shape(q, planOf(*e, u));
    }
    if (remake) remake(tables, t, u);
    return entries.data();
}

namespace {

template <dwarf::Buffers B>
void debugInfoOneLane(const CursorPair& whole, bool types) {
    QuickTable quick;
    Lane<B> one(whole, 0, whole.size(), types);
    while (!one.done()) {
        one = startUnit(one, quick);
        while (one.inUnit) swap_dwarf_entry(one);
    }
}


template <Buffers B>
void debugInfo(const CursorPair& whole, bool types, Walk walk) {
    // Preparing a faster walk's tables costs about as much as it saves on a
    // few KiB of clang's units: smaller sections, such as a compiler's
    // object of one unit, take the plain walk.
    constexpr size_t kFasterFrom = size_t{16} << 10;
    const bool large = walk == Walk::Fast && whole.size() >= kFasterFrom;
    // The faster walks allocate their tables before converting anything:
    // without the memory for them, the plain walk converts the section (an
    // abbreviation it cannot plan is copied, with the rest of its unit).
    try {
        if ((large || walk == Walk::Chase) && chaseWalkRuns()) return debugInfoChase<B>(whole, types);
        if ((large || walk == Walk::Windows) && windowsWalkRuns()) return debugInfoWindows<B>(whole, types);
    } catch (const std::bad_alloc&) {
    }
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
}  // namespace tamo::dwarf

namespace tamo {

void dwarfConvert(const char* name, char* src, char* dst, size_t size, const Elf* elf, bool srcNative,
                  const AbbrevBytes* abbrev, Walk walk) {
    using namespace dwarf;
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
    // This section first, then any that reading the abbreviations asked for.
    const Deferred first{src, dst, size, srcNative, types};
    for (size_t i = 0; i <= deferred.size(); ++i) {
        const Deferred& d = i == 0 ? first : deferred[i - 1];
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
