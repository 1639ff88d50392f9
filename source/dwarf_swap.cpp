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

#include "dwarf_swap.h"

#include <cstring>
#include <new>
#include <vector>

#include "DwarfAbbrev.h"
#include "DwarfCursor.h"
#include "DwarfTables.h"
#include "tamoelf.h"

namespace tamo {

namespace {

using dwarf::CursorPair;
using dwarf::Form;
using dwarf::FormKind;
using dwarf::Operands;

// True while the abbreviation tables are being read. A .debug_info
// conversion started by that reading (the section walk makes the sections it
// passes, and an object may hold several .debug_info sections, type units in
// COMDAT groups) must not read the tables again: it is recorded, and the
// conversion that reads the tables converts it once they are there.
bool bInHere = false;

struct Deferred {
    char* src;
    char* dst;
    size_t size;
    bool srcNative;
};
std::vector<Deferred> g_deferred;

struct InHereScope {
    InHereScope() { bInHere = true; }
    ~InHereScope() { bInHere = false; }
};

// What a unit's header says about the values in it.
struct Unit {
    unsigned version = 2;
    unsigned addressSize = 4;
};

// Nested location expressions (DW_OP_entry_value) deeper than this are
// copied unchanged; indirect forms may name indirect forms this often.
constexpr int kMaxNesting = 16;

// Widths the address of a unit may have; anything else reads as 4, the
// width of this format's addresses.
unsigned addressWidth(unsigned size) {
    return size == 2 || size == 4 || size == 8 ? size : 4;
}

bool swap_location_machine(CursorPair& c, size_t end, const Unit& u, int depth);

// One location expression ending at `end`. A malformed or unknown opcode
// makes the rest of the expression go unchanged; the expression itself
// always ends at `end`.
void expression(CursorPair& c, size_t end, const Unit& u, int depth) {
    const size_t outer = c.limit(end);
    if (c.failed()) return;
    if (depth >= kMaxNesting || !swap_location_machine(c, end, u, depth)) c.copyRest();
    c.restore(outer);
}

bool swap_location_machine(CursorPair& c, size_t end, const Unit& u, int depth) {
    while (c.pos() < end) {
        uint8_t op = 0;
        if (!c.Byte(op)) return false;
        uint64_t n = 0;
        uint8_t size = 0;
        switch (dwarf::kOperands[op]) {
            case Operands::None:
                break;
            case Operands::Byte:
                c.CopyN(1);
                break;
            case Operands::Half:
                c.Swap(2);
                break;
            case Operands::Word:
                c.Swap(4);
                break;
            case Operands::Dword:
                c.Swap(8);
                break;
            case Operands::Address:
                c.Swap(u.addressSize);
                break;
            case Operands::Uleb:
            case Operands::Sleb:
                c.Uleb();
                break;
            case Operands::TwoLeb:
                c.Uleb() && c.Uleb();
                break;
            case Operands::WordSleb:
                c.Swap(4) && c.Uleb();
                break;
            case Operands::ByteUleb:
                c.CopyN(1) && c.Uleb();
                break;
            case Operands::Bytes:
                if (c.Uleb(&n) && c.has(n))
                    c.CopyN(static_cast<size_t>(n));
                else
                    c.fail();
                break;
            case Operands::Expression:
                if (c.Uleb(&n) && c.has(n))
                    expression(c, c.pos() + static_cast<size_t>(n), u, depth + 1);
                else
                    c.fail();
                break;
            case Operands::ConstType:
                c.Uleb() && c.Byte(size) && c.Swap(size);
                break;
            case Operands::Unknown:
                return false;  // its operands cannot be known: the rest goes as it is
        }
        if (c.failed()) return false;
    }
    return true;
}

// The content of a block value: a location expression or plain bytes.
bool blockContent(CursorPair& c, uint64_t length, bool isExpression, const Unit& u) {
    if (!c.has(length)) {
        c.fail();
        return false;
    }
    if (isExpression)
        expression(c, c.pos() + static_cast<size_t>(length), u, 0);
    else
        c.CopyN(static_cast<size_t>(length));
    return c.ok();
}

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

bool swap_dwarf_attributes(const CDwarfAbbrevEntry& entry, CursorPair& c, const Unit& u) {
    for (const CDwarfAttrib& a : entry.m_vAttribs)
        if (a.m_lName != 0 && !swapValue(c, a.m_lForm, a.m_lName, u)) return false;
    return true;
}

// One debugging entry and its children, walked without recursion.
bool swap_dwarf_entry(const CDwarfAbbrevTable& table, CursorPair& c, const Unit& u) {
    size_t depth = 0;
    for (;;) {
        if (depth > 0 && c.has(1) && c.peek() == 0) {  // the end of a list of children
            c.CopyN(1);
            if (--depth == 0) return true;
            continue;
        }
        uint64_t code = 0;
        if (!c.Uleb(&code)) return false;
        const CDwarfAbbrevEntry* entry = code <= UINT32_MAX ? table.find(static_cast<uint32_t>(code)) : nullptr;
        if (!entry || !swap_dwarf_attributes(*entry, c, u)) return false;
        if (entry->m_bHasChildren)
            ++depth;
        else if (depth == 0)
            return true;
    }
}

// The unit or program starting at the cursor: its end, or 0 when its length
// or version cannot be trusted (64-bit DWARF, a reserved length, a unit past
// the end of the data, a version the walks do not know). Such a unit is
// copied unchanged with the rest of the section.
size_t unitEnd(const CursorPair& c, unsigned& version) {
    const size_t start = c.pos();
    uint64_t length = 0, v = 0;
    if (!c.valueAt(start, 4, length) || length >= dwarf::kReservedLength) return 0;
    if (length > c.size() - start - 4 || length < 2 || !c.valueAt(start + 4, 2, v) || v < 2 || v > 5) return 0;
    version = static_cast<unsigned>(v);
    return start + 4 + static_cast<size_t>(length);
}

// One compilation (or type) unit of .debug_info.
void endian_swap_debug_info_section(CursorPair& c) {
    Unit u;
    const size_t end = unitEnd(c, u.version);
    if (!end) {
        c.copyRest();
        return;
    }
    const size_t outer = c.limit(end);
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
    }
    const CDwarfAbbrevTable* table =
        abbrevOffset <= UINT32_MAX ? CDwarfAbbrevTable::findTable(static_cast<uint32_t>(abbrevOffset)) : nullptr;
    if (c.ok() && table) swap_dwarf_entry(*table, c, u);
    // Bytes after the entry tree, or all of the unit the walk could not
    // size, go unchanged.
    c.copyRest();
    c.restore(outer);
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
        c.copyRest();
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
                  const AbbrevBytes* abbrev) {
    const bool info = std::strcmp(name, ".debug_info") == 0;
    // .debug_line_str holds only strings.
    const bool line = std::strncmp(name, ".debug_line", 11) == 0 && std::strcmp(name, ".debug_line_str") != 0;
    std::vector<Deferred> deferred;
    if (info) {
        if (bInHere) {
            try {
                g_deferred.push_back({src, dst, size, srcNative});
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
    deferred.insert(deferred.begin(), Deferred{src, dst, size, srcNative});
    for (const Deferred& d : deferred) {
        CursorPair c(reinterpret_cast<const uint8_t*>(d.src), reinterpret_cast<uint8_t*>(d.dst), d.size, d.srcNative);
        while (c.pos() < d.size) {
            if (info)
                endian_swap_debug_info_section(c);
            else if (line)
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
