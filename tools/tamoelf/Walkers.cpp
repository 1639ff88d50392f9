#include "Walkers.h"

#include <array>
#include <map>

#include "DwarfCursor.h"
#include "DwarfExpression.h"
#include "DwarfTables.h"
#include "Endian.h"

namespace tool {

namespace {

namespace dw = tamo::dwarf;
using Cursor = dw::BasicCursorPair<dw::Buffers::Same>;

constexpr unsigned kAddressSize = 4;  // this format's addresses
constexpr size_t kMaxProblems = 32;   // per section: the first ones tell the story
constexpr int kMaxIndirection = 16;

std::string hexByte(uint64_t v) {
    static const char digits[] = "0123456789abcdef";
    std::string s = "0x";
    bool started = false;
    for (int shift = 60; shift >= 0; shift -= 4) {
        const unsigned d = (v >> shift) & 0xf;
        if (d || started || shift < 8) {
            s += digits[d];
            started = true;
        }
    }
    return s;
}

// A walk in place over one section: the cursor (whose values read in host
// order whichever order the bytes are in) and what it met.
class Walk {
public:
    Walk(uint8_t* data, size_t size, bool fromBig)
        : c(data, data, size, fromBig == (tamo::kHostOrder == tamo::ByteOrder::Big)) {}

    Cursor c;
    std::vector<WalkProblem> problems;

    void report(size_t at, std::string what) {
        if (problems.size() < kMaxProblems) problems.push_back({at, std::move(what)});
    }
    // Stops the walk of the current unit at the cursor, saying why.
    bool stop(std::string what) {
        report(c.pos(), std::move(what));
        c.fail();
        return false;
    }

    // A LEB128 length and a location expression of that many bytes.
    bool expression(unsigned addressSize) {
        uint64_t length = 0;
        if (!c.Uleb(&length) || !c.has(length)) {
            c.fail();
            return false;
        }
        c = dw::locationExpression(c, c.pos() + static_cast<size_t>(length), addressSize);
        return c.ok();
    }

    // One value of a DWARF form, in a unit of the given offset and address
    // sizes.
    bool value(uint64_t form, unsigned offsetSize, unsigned addressSize) {
        for (int depth = 0; depth < kMaxIndirection; ++depth) {
            if (offsetSize == 8 && offsetSized(form)) return c.Swap(8);
            const dw::Form f = dw::formOf(form <= UINT32_MAX ? static_cast<uint32_t>(form) : 0);
            uint64_t length = 0;
            switch (f.kind) {
                case dw::FormKind::Fixed:
                    return f.reverse ? c.Swap(f.width) : c.CopyN(f.width);
                case dw::FormKind::Address:
                    return c.Swap(addressSize);
                case dw::FormKind::RefAddr:
                    return c.Swap(offsetSize);
                case dw::FormKind::Uleb:
                case dw::FormKind::Sleb:
                    return c.Uleb();
                case dw::FormKind::String:
                    return c.CopyString();
                case dw::FormKind::Block:
                    if (!(f.width ? c.ReadAndSwap(f.width, length) : c.Uleb(&length))) return false;
                    if (!c.has(length)) return (c.fail(), false);
                    return c.CopyN(static_cast<size_t>(length));
                case dw::FormKind::Exprloc:
                    return expression(addressSize);
                case dw::FormKind::Nothing:
                    return true;
                case dw::FormKind::Indirect:
                    if (!c.Uleb(&form)) return false;
                    continue;
                case dw::FormKind::Unknown:
                    return stop("form " + hexByte(form) + ", whose values cannot be sized");
            }
        }
        return stop("indirect forms nested too deep");
    }

private:
    // Forms whose values are section offsets, 8 bytes in 64-bit DWARF.
    static bool offsetSized(uint64_t form) {
        switch (form) {
            case 0x0e:    // strp
            case 0x10:    // ref_addr
            case 0x17:    // sec_offset
            case 0x1d:    // strp_sup
            case 0x1f:    // line_strp
            case 0x1f20:  // GNU_ref_alt
            case 0x1f21:  // GNU_strp_alt
                return true;
            default:
                return false;
        }
    }
};

bool validAddressSize(unsigned size) {
    return size == 1 || size == 2 || size == 4 || size == 8;
}

// The initial length of a unit at the cursor: its end and offset size, or
// false (reported) when it cannot be trusted.
bool unitStart(Walk& w, const char* what, size_t& end, unsigned& offsetSize) {
    Cursor& c = w.c;
    const size_t start = c.pos();
    uint64_t length = 0;
    offsetSize = 4;
    if (!c.ReadAndSwap(4, length)) {
        w.report(start, std::string(what) + " cut short: " + std::to_string(c.end() - start) + " bytes left");
        return false;
    }
    if (length == 0xffffffffu) {
        offsetSize = 8;
        if (!c.ReadAndSwap(8, length)) {
            w.report(start, std::string(what) + ": 64-bit length cut short");
            return false;
        }
    } else if (length >= dw::kReservedLength) {
        w.report(start, std::string(what) + ": reserved length " + hexByte(length));
        return false;
    }
    if (length > c.end() - c.pos()) {
        w.report(start, std::string(what) + " of " + std::to_string(length) +
                            " bytes runs past the end of the section");
        return false;
    }
    end = c.pos() + static_cast<size_t>(length);
    return true;
}

// Walks the units of a section one after another: `body(offsetSize, start)`
// walks one unit's contents inside its bounds. A unit whose walk stops keeps
// the rest of its bytes; a length that cannot be trusted keeps the rest of
// the section.
template <class Body>
void eachUnit(Walk& w, const char* what, Body body) {
    Cursor& c = w.c;
    while (c.pos() < c.end()) {
        const size_t start = c.pos();
        size_t end = 0;
        unsigned offsetSize = 4;
        if (!unitStart(w, what, end, offsetSize)) {
            c.copyRest();
            return;
        }
        const size_t outer = c.limit(end);
        const size_t reported = w.problems.size();
        body(offsetSize, start);
        if (c.failed() && w.problems.size() == reported)
            w.report(c.pos(), std::string(what) + " at offset " + std::to_string(start) +
                                  " is malformed here; the rest of it stays as it is");
        c.copyRest();
        c.restore(outer);
    }
}

bool version(Walk& w, const char* what, unsigned lowest, unsigned highest, uint64_t& v) {
    if (!w.c.ReadAndSwap(2, v)) return false;
    if (v < lowest || v > highest) return w.stop(std::string(what) + " version " + std::to_string(v) + " not known");
    return true;
}

// ---------------------------------------------------------------------------
// Plain sections

void words(Walk& w) {
    Cursor& c = w.c;
    while (c.has(4)) c.Swap(4);
    if (c.pos() < c.end()) {
        w.report(c.pos(), std::to_string(c.end() - c.pos()) + " bytes after the last whole word stay as they are");
        c.copyRest();
    }
}

void notes(Walk& w) {
    Cursor& c = w.c;
    while (c.pos() < c.end()) {
        uint64_t nameSize = 0, descSize = 0;
        if (!c.ReadAndSwap(4, nameSize) || !c.ReadAndSwap(4, descSize) || !c.Swap(4) ||
            !c.CopyN(static_cast<size_t>((nameSize + 3) & ~uint64_t{3})) ||
            !c.CopyN(static_cast<size_t>((descSize + 3) & ~uint64_t{3}))) {
            w.report(c.pos(), "a note runs past the end of the section; the rest stays as it is");
            c.copyRest();
            return;
        }
    }
}

// ---------------------------------------------------------------------------
// Lookup tables

void aranges(Walk& w) {
    eachUnit(w, "address range set", [&](unsigned offsetSize, size_t start) {
        Cursor& c = w.c;
        uint64_t v = 0;
        uint8_t addressSize = 0, segmentSize = 0;
        if (!version(w, "address range set", 2, 2, v) || !c.Swap(offsetSize) || !c.Byte(addressSize) ||
            !c.Byte(segmentSize))
            return;
        if (!validAddressSize(addressSize) || segmentSize > 8)
            return void(w.stop("address size " + std::to_string(addressSize) + ", segment size " +
                               std::to_string(segmentSize)));
        // The first tuple starts at a multiple of the tuple's size from the
        // start of the set.
        const size_t tuple = segmentSize + 2u * addressSize;
        if (!c.CopyN((tuple - (c.pos() - start) % tuple) % tuple)) return;
        while (c.has(tuple)) {
            if (segmentSize) c.Swap(segmentSize);
            c.Swap(addressSize) && c.Swap(addressSize);
        }
    });
}

void pubnames(Walk& w, bool gnu) {
    eachUnit(w, "name lookup set", [&](unsigned offsetSize, size_t) {
        Cursor& c = w.c;
        uint64_t v = 0;
        if (!version(w, "name lookup set", 2, 2, v) || !c.Swap(offsetSize) || !c.Swap(offsetSize)) return;
        while (c.pos() < c.end()) {
            uint64_t offset = 0;
            if (!c.ReadAndSwap(offsetSize, offset) || offset == 0) break;
            if (gnu) c.CopyN(1);  // flags: symbol kind and static
            if (!c.CopyString()) break;
        }
    });
}

// ---------------------------------------------------------------------------
// Location and range lists

void locationLists(Walk& w) {
    // Entries of DWARF 2 to 4: two addresses, then (unless both are 0, the
    // end of a list, or the first is all ones, a new base address) a 2-byte
    // length and a location expression.
    Cursor& c = w.c;
    const uint64_t baseMarker = 0xffffffffu;
    while (c.pos() < c.end()) {
        uint64_t begin = 0, end = 0, length = 0;
        if (!c.ReadAndSwap(kAddressSize, begin) || !c.ReadAndSwap(kAddressSize, end)) break;
        if ((begin == 0 && end == 0) || begin == baseMarker) continue;
        if (!c.ReadAndSwap(2, length) || !c.has(length)) {
            c.fail();
            break;
        }
        c = dw::locationExpression(c, c.pos() + static_cast<size_t>(length), kAddressSize);
    }
    if (c.failed()) {
        w.report(c.pos(), "a location list entry runs past the end of the section; the rest stays as it is");
        c.copyRest();
    }
}

// DWARF 5 list entries: up to two operands (a LEB128 or an address), then
// for location lists a counted location expression.
struct ListEntry {
    bool known = false;
    uint8_t operands[2] = {};  // 0 none, 'u' LEB128, 'a' address
    bool expression = false;
};

constexpr ListEntry entry(uint8_t a = 0, uint8_t b = 0, bool expression = false) {
    return {true, {a, b}, expression};
}

constexpr std::array<ListEntry, 10> kRangeEntries = {
    entry(),              // end_of_list
    entry('u'),           // base_addressx
    entry('u', 'u'),      // startx_endx
    entry('u', 'u'),      // startx_length
    entry('u', 'u'),      // offset_pair
    entry('a'),           // base_address
    entry('a', 'a'),      // start_end
    entry('a', 'u'),      // start_length
    ListEntry{}, ListEntry{},
};

constexpr std::array<ListEntry, 10> kLocationEntries = {
    entry(),                   // end_of_list
    entry('u'),                // base_addressx
    entry('u', 'u', true),     // startx_endx
    entry('u', 'u', true),     // startx_length
    entry('u', 'u', true),     // offset_pair
    entry(0, 0, true),         // default_location
    entry('a'),                // base_address
    entry('a', 'a', true),     // start_end
    entry('a', 'u', true),     // start_length
    entry('u', 'u'),           // GNU_view_pair
};

void lists(Walk& w, bool locations) {
    const char* what = locations ? "location list table" : "range list table";
    const auto& kinds = locations ? kLocationEntries : kRangeEntries;
    eachUnit(w, what, [&](unsigned offsetSize, size_t) {
        Cursor& c = w.c;
        uint64_t v = 0, offsets = 0;
        uint8_t addressSize = 0, segmentSize = 0;
        if (!version(w, what, 5, 5, v) || !c.Byte(addressSize) || !c.Byte(segmentSize) ||
            !c.ReadAndSwap(4, offsets))
            return;
        if (!validAddressSize(addressSize)) return void(w.stop("address size " + std::to_string(addressSize)));
        for (uint64_t i = 0; i < offsets && c.ok(); ++i) c.Swap(offsetSize);
        while (c.ok() && c.pos() < c.end()) {
            uint8_t kind = 0;
            c.Byte(kind);
            if (kind >= kinds.size() || !kinds[kind].known)
                return void(w.stop(std::string(locations ? "location" : "range") + " list entry kind " +
                                   hexByte(kind) + " not known"));
            for (uint8_t operand : kinds[kind].operands) {
                if (operand == 'u') c.Uleb();
                if (operand == 'a') c.Swap(addressSize);
            }
            if (kinds[kind].expression) w.expression(addressSize);
        }
    });
}

// ---------------------------------------------------------------------------
// Call frames

struct Cie {
    unsigned addressSize = kAddressSize;
    unsigned segmentSize = 0;
    uint8_t pointerEncoding = 0;   // of FDE addresses (.eh_frame 'R'); absolute by default
    uint8_t lsdaEncoding = 0xff;   // of the FDE's LSDA pointer ('L'); omitted by default
    bool augmentationData = false;  // 'z': FDEs carry a length of augmentation data
};

constexpr uint8_t DW_EH_PE_omit = 0xff, DW_EH_PE_aligned = 0x50;

// A pointer of .eh_frame in the given encoding.
bool pointer(Walk& w, uint8_t encoding, unsigned addressSize) {
    Cursor& c = w.c;
    if (encoding == DW_EH_PE_omit) return true;
    const uint8_t application = encoding & 0x70;
    if (application > DW_EH_PE_aligned) return w.stop("pointer encoding " + hexByte(encoding) + " not known");
    if (application == DW_EH_PE_aligned && !c.CopyN((addressSize - c.pos() % addressSize) % addressSize))
        return false;
    switch (encoding & 0x0f) {
        case 0x00:  // absptr
        case 0x08:  // signed absptr
            return c.Swap(addressSize);
        case 0x01:  // uleb128
        case 0x09:  // sleb128
            return c.Uleb();
        case 0x02:  // udata2
        case 0x0a:  // sdata2
            return c.Swap(2);
        case 0x03:  // udata4
        case 0x0b:  // sdata4
            return c.Swap(4);
        case 0x04:  // udata8
        case 0x0c:  // sdata8
            return c.Swap(8);
        default:
            return w.stop("pointer encoding " + hexByte(encoding) + " not known");
    }
}

void instructions(Walk& w, const Cie& cie, bool eh) {
    Cursor& c = w.c;
    while (c.ok() && c.pos() < c.end()) {
        uint8_t op = 0;
        c.Byte(op);
        switch (op >> 6) {
            case 1:  // advance_loc
            case 3:  // restore
                continue;
            case 2:  // offset: the register in the low bits, then a LEB128
                c.Uleb();
                continue;
            default:
                break;
        }
        switch (dw::kCfaOperands[op]) {
            case dw::CfaOperands::None:
                break;
            case dw::CfaOperands::Byte:
                c.CopyN(1);
                break;
            case dw::CfaOperands::Half:
                c.Swap(2);
                break;
            case dw::CfaOperands::Word:
                c.Swap(4);
                break;
            case dw::CfaOperands::Dword:
                c.Swap(8);
                break;
            case dw::CfaOperands::Address:
                if (eh)
                    pointer(w, cie.pointerEncoding, cie.addressSize);
                else
                    c.Swap(cie.addressSize);
                break;
            case dw::CfaOperands::Uleb:
                c.Uleb();
                break;
            case dw::CfaOperands::TwoLeb:
                c.Uleb() && c.Uleb();
                break;
            case dw::CfaOperands::Expression:
                w.expression(cie.addressSize);
                break;
            case dw::CfaOperands::UlebExpression:
                c.Uleb() && w.expression(cie.addressSize);
                break;
            case dw::CfaOperands::Unknown:
                w.stop("call frame instruction " + hexByte(op) + " not known");
                return;
        }
    }
}

// A CIE after its id: false when its fields cannot be walked.
bool readCie(Walk& w, Cie& cie) {
    Cursor& c = w.c;
    uint8_t version = 0;
    if (!c.Byte(version)) return false;
    if (version != 1 && version != 3 && version != 4)
        return w.stop("CIE version " + std::to_string(version) + " not known");
    const size_t at = c.pos();
    if (!c.CopyString()) return false;
    const std::string augmentation(reinterpret_cast<const char*>(c.source() + at));
    // Only 'z' augmentations say how long their data are ("eh" of old
    // compilers puts a pointer before the alignment factors).
    if (!augmentation.empty() && augmentation[0] != 'z')
        return w.stop("CIE augmentation \"" + augmentation + "\" not known");
    if (version >= 4) {
        uint8_t addressSize = 0, segmentSize = 0;
        if (!c.Byte(addressSize) || !c.Byte(segmentSize)) return false;
        if (!validAddressSize(addressSize) || segmentSize > 8)
            return w.stop("CIE address size " + std::to_string(addressSize));
        cie.addressSize = addressSize;
        cie.segmentSize = segmentSize;
    }
    // Code and data alignment factors, return address register.
    if (!c.Uleb() || !c.Uleb() || !(version == 1 ? c.CopyN(1) : c.Uleb())) return false;
    if (augmentation.empty()) return true;
    cie.augmentationData = true;
    uint64_t length = 0;
    if (!c.Uleb(&length) || !c.has(length)) return (c.fail(), false);
    const size_t end = c.pos() + static_cast<size_t>(length);
    for (size_t i = 1; i < augmentation.size() && c.ok(); ++i) {
        switch (augmentation[i]) {
            case 'L':
                c.Byte(cie.lsdaEncoding);
                break;
            case 'R':
                c.Byte(cie.pointerEncoding);
                break;
            case 'P': {
                uint8_t encoding = 0;
                c.Byte(encoding) && pointer(w, encoding, cie.addressSize);
                break;
            }
            case 'S':  // signal frame
            case 'B':  // AArch64 BTI
            case 'G':  // AArch64 MTE
                break;
            default:
                w.report(c.pos(), std::string("CIE augmentation '") + augmentation[i] +
                                      "' not known: the rest of its augmentation data stays as it is");
                i = augmentation.size();
        }
    }
    if (!c.ok() || c.pos() > end) return (c.fail(), false);
    c.copyTo(end);
    return true;
}

void frames(Walk& w, bool eh) {
    Cursor& c = w.c;
    const char* what = "call frame record";
    std::map<size_t, Cie> cies;  // by the offset of their length
    while (c.pos() < c.end()) {
        const size_t start = c.pos();
        size_t end = 0;
        unsigned offsetSize = 4;
        if (!unitStart(w, what, end, offsetSize)) {
            c.copyRest();
            return;
        }
        if (end == c.pos()) continue;  // an empty record (.eh_frame's terminator)
        const size_t outer = c.limit(end);
        const size_t reported = w.problems.size();
        const size_t idAt = c.pos();
        uint64_t id = 0;
        c.ReadAndSwap(offsetSize, id);
        const uint64_t cieId = eh ? 0 : offsetSize == 8 ? ~uint64_t{0} : 0xffffffffu;
        if (c.ok() && id == cieId) {
            Cie cie;
            if (readCie(w, cie)) {
                cies[start] = cie;
                instructions(w, cie, eh);
            }
        } else if (c.ok()) {
            // .eh_frame: the distance back to the CIE; .debug_frame: its offset.
            const uint64_t cieAt = eh ? (id <= idAt ? idAt - id : ~uint64_t{0}) : id;
            const auto it = cies.find(static_cast<size_t>(cieAt));
            if (it == cies.end()) {
                w.stop("FDE names a CIE at " + std::to_string(cieAt) + ", where none was read");
            } else {
                const Cie& cie = it->second;
                if (eh) {
                    pointer(w, cie.pointerEncoding, cie.addressSize) &&
                        pointer(w, cie.pointerEncoding & 0x0f, cie.addressSize);
                } else {
                    if (cie.segmentSize) c.Swap(cie.segmentSize);
                    c.Swap(cie.addressSize) && c.Swap(cie.addressSize);
                }
                if (cie.augmentationData) {
                    uint64_t length = 0;
                    if (c.Uleb(&length) && c.has(length)) {
                        const size_t augmentationEnd = c.pos() + static_cast<size_t>(length);
                        if (pointer(w, cie.lsdaEncoding, cie.addressSize) && c.pos() <= augmentationEnd)
                            c.copyTo(augmentationEnd);
                        else
                            c.fail();
                    } else {
                        c.fail();
                    }
                }
                if (c.ok()) instructions(w, cie, eh);
            }
        }
        if (c.failed() && w.problems.size() == reported)
            w.report(c.pos(), std::string(what) + " at offset " + std::to_string(start) +
                                  " is malformed here; the rest of it stays as it is");
        c.copyRest();
        c.restore(outer);
    }
}

// ---------------------------------------------------------------------------
// DWARF 5 tables

void stringOffsets(Walk& w) {
    eachUnit(w, "string offsets table", [&](unsigned offsetSize, size_t) {
        Cursor& c = w.c;
        uint64_t v = 0;
        if (!version(w, "string offsets table", 5, 5, v) || !c.Swap(2)) return;  // version, padding
        while (c.has(offsetSize)) c.Swap(offsetSize);
    });
}

void addresses(Walk& w) {
    eachUnit(w, "address table", [&](unsigned, size_t) {
        Cursor& c = w.c;
        uint64_t v = 0;
        uint8_t addressSize = 0, segmentSize = 0;
        if (!version(w, "address table", 5, 5, v) || !c.Byte(addressSize) || !c.Byte(segmentSize)) return;
        if (!validAddressSize(addressSize) || segmentSize > 8)
            return void(w.stop("address size " + std::to_string(addressSize)));
        while (c.has(segmentSize + addressSize)) {
            if (segmentSize) c.Swap(segmentSize);
            c.Swap(addressSize);
        }
    });
}

void nameIndex(Walk& w) {
    eachUnit(w, "name index", [&](unsigned offsetSize, size_t) {
        Cursor& c = w.c;
        uint64_t v = 0, cus = 0, localTus = 0, foreignTus = 0, buckets = 0, names = 0, abbrevSize = 0,
                 augmentationSize = 0;
        if (!version(w, "name index", 5, 5, v) || !c.Swap(2) || !c.ReadAndSwap(4, cus) ||
            !c.ReadAndSwap(4, localTus) || !c.ReadAndSwap(4, foreignTus) || !c.ReadAndSwap(4, buckets) ||
            !c.ReadAndSwap(4, names) || !c.ReadAndSwap(4, abbrevSize) || !c.ReadAndSwap(4, augmentationSize) ||
            !c.CopyN(static_cast<size_t>(augmentationSize)))
            return;
        auto array = [&](uint64_t count, unsigned width) {
            for (uint64_t i = 0; i < count && c.ok(); ++i) c.Swap(width);
        };
        array(cus, offsetSize);
        array(localTus, offsetSize);
        array(foreignTus, 8);
        array(buckets, 4);
        if (buckets) array(names, 4);  // hashes
        array(names, offsetSize);      // string offsets
        array(names, offsetSize);      // entry offsets
        if (!c.ok() || !c.has(abbrevSize)) return void(c.fail());

        // Abbreviations: code, tag, then (index, form) pairs up to (0, 0).
        std::map<uint64_t, std::vector<uint64_t>> abbrevs;
        const size_t poolStart = c.pos() + static_cast<size_t>(abbrevSize);
        const size_t outer = c.limit(poolStart);
        for (;;) {
            uint64_t code = 0, index = 0, form = 0;
            if (!c.Uleb(&code) || code == 0 || !c.Uleb()) break;
            std::vector<uint64_t>& forms = abbrevs[code];
            forms.clear();
            while (c.Uleb(&index) && c.Uleb(&form) && (index || form)) {
                forms.push_back(form);
                if (form == dw::DW_FORM_implicit_const) c.Uleb();
            }
        }
        const bool abbrevsRead = c.ok();
        c.copyRest();
        c.restore(outer);
        if (!abbrevsRead) return void(c.fail());

        // The entry pool: each name's entries, each list ended by a 0 code.
        while (c.ok() && c.pos() < c.end()) {
            uint64_t code = 0;
            if (!c.Uleb(&code) || code == 0) continue;
            const auto it = abbrevs.find(code);
            if (it == abbrevs.end()) return void(w.stop("name index entry of abbreviation " + std::to_string(code) +
                                                        ", which the index does not define"));
            for (uint64_t form : it->second)
                if (form != dw::DW_FORM_implicit_const && !w.value(form, offsetSize, kAddressSize)) return;
        }
    });
}

void macros(Walk& w) {
    Cursor& c = w.c;
    while (c.pos() < c.end()) {
        const size_t start = c.pos();
        const size_t reported = w.problems.size();
        uint64_t v = 0;
        uint8_t flags = 0;
        std::map<uint8_t, std::vector<uint8_t>> operandForms;  // opcode_operands_table
        if (version(w, "macro unit", 4, 5, v) && c.Byte(flags)) {
            const unsigned offsetSize = flags & 1 ? 8 : 4;
            if (flags & 2) c.Swap(offsetSize);  // debug_line_offset
            uint8_t count = 0;
            if (flags & 4 && c.Byte(count)) {
                for (unsigned i = 0; i < count && c.ok(); ++i) {
                    uint8_t opcode = 0, form = 0;
                    uint64_t forms = 0;
                    if (!c.Byte(opcode) || !c.Uleb(&forms)) break;
                    std::vector<uint8_t>& list = operandForms[opcode];
                    for (uint64_t k = 0; k < forms && c.Byte(form); ++k) list.push_back(form);
                }
            }
            while (c.ok()) {
                uint8_t op = 0;
                if (!c.Byte(op) || op == 0) break;  // the unit's end
                switch (op) {
                    case 0x01:  // define
                    case 0x02:  // undef
                        c.Uleb() && c.CopyString();
                        break;
                    case 0x03:  // start_file
                    case 0x0b:  // define_strx
                    case 0x0c:  // undef_strx
                        c.Uleb() && c.Uleb();
                        break;
                    case 0x04:  // end_file
                        break;
                    case 0x05:  // define_strp
                    case 0x06:  // undef_strp
                    case 0x08:  // define_sup
                    case 0x09:  // undef_sup
                        c.Uleb() && c.Swap(offsetSize);
                        break;
                    case 0x07:  // import
                    case 0x0a:  // import_sup
                        c.Swap(offsetSize);
                        break;
                    default: {
                        const auto it = operandForms.find(op);
                        if (it == operandForms.end()) {
                            w.stop("macro opcode " + hexByte(op) + " not known");
                            break;
                        }
                        for (uint8_t form : it->second)
                            if (!w.value(form, offsetSize, kAddressSize)) break;
                    }
                }
            }
        }
        if (c.failed()) {
            if (w.problems.size() == reported)
                w.report(c.pos(), "macro unit at offset " + std::to_string(start) +
                                      " is malformed here; the rest of the section stays as it is");
            c.copyRest();
            return;
        }
    }
}

}  // namespace

Layout layoutOf(const std::string& name, uint32_t type, uint32_t flags) {
    if (type == 0 || type == 8) return Layout::NoOrder;  // no bytes
    // COFF debug records by name (their types are 15 in files, 16 to 19
    // while the library converts them).
    if (name.starts_with(".rela.lnno.")) return Layout::Library;
    if (type >= 15 && type <= 19 && (name == ".coff.SDB" || name.starts_with(".lnno."))) return Layout::Library;
    switch (type) {
        case 2:   // symbols
        case 4:   // relocations with addends
        case 5:   // hash
        case 6:   // dynamic
        case 9:   // relocations
        case 11:  // dynamic symbols
        case 13:  // six-word records
        case 14:  // offsets (init arrays)
        case 20:  // three-word records
            return Layout::Library;
        case 3:  // strings
            return Layout::NoOrder;
        case 7:
            return Layout::Note;
        case 15:  // fini array
        case 16:  // preinit array
        case 17:  // section group
        case 18:  // extended section indices
            return Layout::Words;
        case 1:
            break;
        default:
            return Layout::Unknown;
    }
    if (flags & SHF_COMPRESSED) return Layout::Unknown;
    static const std::map<std::string, Layout> byName = {
        {".debug_info", Layout::Library},
        {".debug_types", Layout::Types},
        {".debug_abbrev", Layout::NoOrder},
        {".debug_str", Layout::NoOrder},
        {".debug_line_str", Layout::NoOrder},
        {".debug_macinfo", Layout::NoOrder},
        {".comment", Layout::NoOrder},
        {".note.GNU-stack", Layout::NoOrder},
        {".debug_ranges", Layout::Words},
        {".debug_aranges", Layout::Aranges},
        {".debug_pubnames", Layout::Pubnames},
        {".debug_pubtypes", Layout::Pubnames},
        {".debug_gnu_pubnames", Layout::GnuPubnames},
        {".debug_gnu_pubtypes", Layout::GnuPubnames},
        {".debug_loc", Layout::Loc},
        {".debug_frame", Layout::Frame},
        {".eh_frame", Layout::EhFrame},
        {".debug_str_offsets", Layout::StrOffsets},
        {".debug_addr", Layout::Addr},
        {".debug_rnglists", Layout::Rnglists},
        {".debug_loclists", Layout::Loclists},
        {".debug_names", Layout::Names},
        {".debug_macro", Layout::Macro},
    };
    if (const auto it = byName.find(name); it != byName.end()) return it->second;
    if (name.starts_with(".debug_line")) return Layout::Library;
    // Other debugging sections (split DWARF, indexes, compressed) and
    // exception tables have layouts the tool does not walk.
    if (name.starts_with(".debug") || name.starts_with(".zdebug") || name.starts_with(".gcc_except_table"))
        return Layout::Unknown;
    return Layout::Program;
}

int toolReadSwapController(Elf32_Shdr* header, const char* name) {
    const uint32_t type = header->sh_type;
    return type >= 15 && type <= 19 && layoutOf(name ? name : "", type, header->sh_flags) == Layout::Words ? 4 : 1;
}

namespace {

// What the tool does with each layout, in the order of the enumeration: its
// name in listings and the walk that converts it (none for the layouts the
// tool does not convert itself).
struct LayoutRow {
    Layout layout;
    const char* name;
    void (*walk)(Walk&);
};

constexpr LayoutRow kLayouts[] = {
    {Layout::Library, "library", nullptr},
    {Layout::Types, "DWARF type units", nullptr},  // the library's walk, called with the descriptor
    {Layout::NoOrder, "no byte order", nullptr},
    {Layout::Program, "program bytes", nullptr},
    {Layout::Words, "words", words},
    {Layout::Note, "notes", notes},
    {Layout::Aranges, "DWARF address ranges", aranges},
    {Layout::Pubnames, "DWARF name lookup", [](Walk& w) { pubnames(w, false); }},
    {Layout::GnuPubnames, "DWARF GNU name lookup", [](Walk& w) { pubnames(w, true); }},
    {Layout::Loc, "DWARF location lists", locationLists},
    {Layout::Frame, "DWARF call frames", [](Walk& w) { frames(w, false); }},
    {Layout::EhFrame, "unwind tables", [](Walk& w) { frames(w, true); }},
    {Layout::StrOffsets, "DWARF string offsets", stringOffsets},
    {Layout::Addr, "DWARF address table", addresses},
    {Layout::Rnglists, "DWARF range lists", [](Walk& w) { lists(w, false); }},
    {Layout::Loclists, "DWARF location lists", [](Walk& w) { lists(w, true); }},
    {Layout::Names, "DWARF name index", nameIndex},
    {Layout::Macro, "DWARF macros", macros},
    {Layout::Unknown, "unknown", nullptr},
};

constexpr bool inOrder() {
    for (size_t i = 0; i < std::size(kLayouts); ++i)
        if (kLayouts[i].layout != static_cast<Layout>(i)) return false;
    return std::size(kLayouts) == static_cast<size_t>(Layout::Unknown) + 1;
}
static_assert(inOrder(), "one row per layout, in the enumeration's order");

const LayoutRow& rowOf(Layout layout) {
    const size_t i = static_cast<size_t>(layout);
    return i < std::size(kLayouts) ? kLayouts[i] : kLayouts[std::size(kLayouts) - 1];
}

}  // namespace

bool toolConverts(Layout layout) {
    return rowOf(layout).walk || layout == Layout::Types;
}

const char* layoutName(Layout layout) {
    return rowOf(layout).name;
}

const char* walkedSectionList() {
    return ".debug_aranges, .debug_pubnames, .debug_pubtypes, .debug_gnu_pubnames, .debug_gnu_pubtypes, "
           ".debug_loc, .debug_ranges, .debug_frame, .debug_types, .debug_str_offsets, .debug_addr, "
           ".debug_rnglists, .debug_loclists, .debug_names, .debug_macro, .eh_frame, notes, section groups and "
           "init/fini arrays";
}

std::vector<WalkProblem> convertSection(Layout layout, uint8_t* data, size_t size, bool fromBig) {
    Walk w(data, size, fromBig);
    if (const auto walk = rowOf(layout).walk)
        walk(w);
    else
        w.report(0, std::string("sections of layout \"") + layoutName(layout) + "\" are not converted here");
    return w.problems;
}

}  // namespace tool
