#include "Print.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tool {

namespace {

using nlohmann::json;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

const char* orderName(unsigned data) {
    return data == ELFDATA2MSB   ? "2's complement, big endian"
           : data == ELFDATA2LSB ? "2's complement, little endian"
                                 : "unknown";
}

std::string typeName(unsigned type) {
    switch (type) {
        case ET_NONE:
            return "NONE (No file type)";
        case ET_REL:
            return "REL (Relocatable file)";
        case ET_EXEC:
            return "EXEC (Executable file)";
        case ET_DYN:
            return "DYN (Shared object file)";
        case ET_CORE:
            return "CORE (Core file)";
        default:
            return format("0x%x", type);
    }
}

std::string flags(uint32_t f) {
    std::string s;
    const std::pair<uint32_t, char> known[] = {{SHF_WRITE, 'W'},      {SHF_ALLOC, 'A'},   {SHF_EXECINSTR, 'X'},
                                               {SHF_MERGE, 'M'},      {SHF_STRINGS, 'S'}, {SHF_INFO_LINK, 'I'},
                                               {SHF_LINK_ORDER, 'L'}, {SHF_GROUP, 'G'},   {SHF_TLS, 'T'}};
    for (auto [bit, c] : known)
        if (f & bit) s += c;
    return s;
}

const char* bindName(unsigned b) {
    static const char* const n[] = {"LOCAL", "GLOBAL", "WEAK"};
    return b < 3 ? n[b] : "OTHER";
}
const char* symbolTypeName(unsigned t) {
    static const char* const n[] = {"NOTYPE", "OBJECT", "FUNC", "SECTION", "FILE", "COMMON", "TLS"};
    return t < 7 ? n[t] : "OTHER";
}
const char* visibilityName(unsigned v) {
    static const char* const n[] = {"DEFAULT", "INTERNAL", "HIDDEN", "PROTECTED"};
    return n[v & 3];
}

const char* unitTypeName(unsigned t) {
    static const char* const n[] = {"?", "compile", "type", "partial", "skeleton", "split_compile", "split_type"};
    return t < 7 ? n[t] : "?";
}

void printObject(std::ostream& out, const Object& o) {
    const Elf32_Ehdr& h = o.header;
    out << "ELF Header:\n  Magic:  ";
    for (unsigned char b : h.e_ident) out << ' ' << hex(b, 2);
    out << "\n";
    auto row = [&](const char* label, const std::string& value) {
        out << format("  %-34s %s\n", label, value.c_str());
    };
    row("Class:", h.e_ident[EI_CLASS] == ELFCLASS32 ? "ELF32" : format("%u", h.e_ident[EI_CLASS]));
    row("Data:", orderName(h.e_ident[EI_DATA]));
    row("Type:", typeName(h.e_type));
    row("Machine:", machineName(h.e_machine));
    row("Version:", format("0x%x", h.e_version));
    row("Entry point address:", format("0x%x", h.e_entry));
    row("Start of program headers:", format("%u (bytes into file)", h.e_phoff));
    row("Start of section headers:", format("%u (bytes into file)", h.e_shoff));
    row("Flags:", format("0x%x", h.e_flags));
    row("Size of this header:", format("%u (bytes)", h.e_ehsize));
    row("Size of section headers:", format("%u (bytes)%s", h.e_shentsize, o.standard ? ", standard ELF32" : ""));
    row("Number of section headers:", format("%u", h.e_shnum));
    row("Section header string table index:", format("%u", h.e_shstrndx));

    out << "\nSection Headers:\n"
        << "  [Nr] Name                 Type       Addr     Off    Size   ES Flg Lk Inf Al Extra    Conversion\n";
    for (const Section& s : o.sections) {
        const Elf32_Shdr& x = s.header;
        out << format("  [%2zu] %-20.20s %-10.10s %08x %06x %06x %02x %3s %2u %3u %2u %08x %s%s\n", s.index,
                      s.name.c_str(), sectionTypeName(x.sh_type).c_str(), x.sh_addr, x.sh_offset, x.sh_size,
                      x.sh_entsize, flags(x.sh_flags).c_str(), x.sh_link, x.sh_info, x.sh_addralign, x.sh_extra,
                      layoutName(s.layout),
                      s.read || x.sh_type == SHT_NULL || x.sh_type == SHT_NOBITS || s.index == 0 ? "" : " (not read)");
    }
    if (!o.notes.empty()) {
        out << "\nNotes:\n";
        for (const Problem& n : o.notes) out << "  " << n.where << ": " << n.message << "; " << n.note << "\n";
    }

    std::string table;
    for (const Symbol& y : o.symbols) {
        if (y.table != table) {
            table = y.table;
            size_t n = 0;
            for (const Symbol& z : o.symbols) n += z.table == table;
            out << "\nSymbol table '" << table << "' contains " << n << " entries:\n"
                << "   Num:    Value  Size Type    Bind   Vis       Section          Extra    Name\n";
        }
        out << format("%6zu: %08x %5u %-7s %-6s %-9s %-16.16s %08x %s\n", y.index, y.value, y.size,
                      symbolTypeName(y.info & 0xf), bindName(y.info >> 4), visibilityName(y.other), y.section.c_str(),
                      y.extra, y.name.c_str());
    }

    std::string rel;
    for (const Relocation& r : o.relocations) {
        if (r.section != rel) {
            rel = r.section;
            size_t n = 0;
            for (const Relocation& z : o.relocations) n += z.section == rel;
            out << "\nRelocation section '" << rel << "' contains " << n << " entries:\n"
                << " Offset     Info    Type  Symbol" << (r.rela ? " + Addend" : "") << "\n";
        }
        out << format("%08x  %08x  %4u  %s", r.offset, r.info, ELF32_R_TYPE(r.info), r.symbol.c_str());
        if (r.rela)
            out << format(" %c %x", r.addend < 0 ? '-' : '+',
                          r.addend < 0 ? -static_cast<uint32_t>(r.addend) : static_cast<uint32_t>(r.addend));
        out << "\n";
    }

    std::string lines;
    for (const CoffLine& l : o.lines) {
        if (l.section != lines) {
            lines = l.section;
            out << "\nCOFF line numbers in '" << lines << "':\n  Line  Address/symbol\n";
        }
        out << format("%6u  %08x%s\n", l.line, l.address, l.line == 0 ? " (symbol index)" : "");
    }
    std::string sdb;
    for (const CoffEntry& e : o.coff) {
        if (e.section != sdb) {
            sdb = e.section;
            out << "\nCOFF symbols in '" << sdb << "':\n   Num: Name             Value    Scn  Type Class Aux\n";
        }
        if (e.auxiliary) {
            out << format("%6zu:   aux", e.index);
            for (uint8_t b : e.bytes) out << ' ' << hex(b, 2);
            out << "\n";
        } else {
            out << format("%6zu: %-16.16s %08x %4d %04x %5u %3u\n", e.index, e.name.c_str(), e.value, e.section_number,
                          e.type, e.storage_class, e.aux_count);
        }
    }
    if (!o.dwarf.empty()) out << "\nDWARF:\n";
    for (const DwarfUnit& u : o.dwarf) {
        if (!u.note.empty())
            out << format("  %s at 0x%x: length 0x%x, version %u: %s\n", u.section.c_str(), u.offset, u.length,
                          u.version, u.note.c_str());
        else if (u.line)
            out << format("  %s program at 0x%x: version %u, length 0x%x, header length 0x%x\n", u.section.c_str(),
                          u.offset, u.version, u.length, u.header_length);
        else
            out << format("  %s unit at 0x%x: version %u, %s, length 0x%x, abbreviations at 0x%x, address size %u\n",
                          u.section.c_str(), u.offset, u.version, unitTypeName(u.unit_type), u.length, u.abbrev_offset,
                          u.address_size);
    }
}

json problemsJson(const std::vector<Problem>& problems) {
    json a = json::array();
    for (const Problem& p : problems)
        a.push_back(
            {{"where", p.where}, {"code", p.code}, {"message", p.message}, {"context", p.context}, {"note", p.note}});
    return a;
}

// A JSON document made a part at a time: `head` holds its fields, with an
// empty list or null where each part goes; a part is a list of items or
// one nested document, each made only when it is wanted.
struct Doc {
    struct Part {
        const char* key;
        bool list;  // else one nested document
        size_t count;
        std::function<Doc(size_t)> item;
    };
    json head;
    std::vector<Part> parts;
};

// A list part whose items are plain JSON, one per element of `v`.
template <class T, class F>
Doc::Part listOf(const char* key, const std::vector<T>& v, F row) {
    return {key, true, v.size(), [&v, row](size_t i) { return Doc{row(v[i]), {}}; }};
}

// The whole document.
json whole(const Doc& d) {
    json j = d.head;
    for (const Doc::Part& p : d.parts) {
        if (!p.list) {
            j[p.key] = whole(p.item(0));
            continue;
        }
        for (size_t i = 0; i < p.count; ++i) j[p.key].push_back(whole(p.item(i)));
    }
    return j;
}

Doc objectDoc(const Object& o) {
    const Elf32_Ehdr& h = o.header;
    json j;
    j["file"] = o.file;
    j["kind"] = "object";
    j["size"] = o.size;
    json ident = json::array();
    for (unsigned char b : h.e_ident) ident.push_back(b);
    j["header"] = {{"ident", ident},
                   {"class", h.e_ident[EI_CLASS]},
                   {"byte_order", h.e_ident[EI_DATA] == ELFDATA2MSB ? "big" : "little"},
                   {"type", h.e_type},
                   {"machine", h.e_machine},
                   {"version", h.e_version},
                   {"entry", h.e_entry},
                   {"phoff", h.e_phoff},
                   {"shoff", h.e_shoff},
                   {"flags", h.e_flags},
                   {"ehsize", h.e_ehsize},
                   {"phentsize", h.e_phentsize},
                   {"phnum", h.e_phnum},
                   {"shentsize", h.e_shentsize},
                   {"shnum", h.e_shnum},
                   {"shstrndx", h.e_shstrndx},
                   {"standard", o.standard}};
    Doc d{std::move(j), {}};
    d.parts.push_back(listOf("sections", o.sections, [](const Section& s) {
        const Elf32_Shdr& x = s.header;
        return json{{"index", s.index},
                    {"name", s.name},
                    {"type", x.sh_type},
                    {"flags", x.sh_flags},
                    {"addr", x.sh_addr},
                    {"offset", x.sh_offset},
                    {"size", x.sh_size},
                    {"link", x.sh_link},
                    {"info", x.sh_info},
                    {"align", x.sh_addralign},
                    {"entsize", x.sh_entsize},
                    {"extra", x.sh_extra},
                    {"conversion", layoutName(s.layout)},
                    {"read", s.read}};
    }));
    d.parts.push_back(listOf("symbols", o.symbols, [](const Symbol& y) {
        return json{{"table", y.table},
                    {"index", y.index},
                    {"name", y.name},
                    {"value", y.value},
                    {"size", y.size},
                    {"type", symbolTypeName(y.info & 0xf)},
                    {"binding", bindName(y.info >> 4)},
                    {"visibility", visibilityName(y.other)},
                    {"section", y.section},
                    {"shndx", y.shndx},
                    {"extra", y.extra}};
    }));
    d.parts.push_back(listOf("relocations", o.relocations, [](const Relocation& r) {
        return json{{"section", r.section},
                    {"offset", r.offset},
                    {"info", r.info},
                    {"type", ELF32_R_TYPE(r.info)},
                    {"symbol", r.symbol},
                    {"addend", r.rela ? json(r.addend) : json(nullptr)}};
    }));
    d.parts.push_back(listOf("coff_lines", o.lines, [](const CoffLine& l) {
        return json{{"section", l.section}, {"address", l.address}, {"line", l.line}};
    }));
    d.parts.push_back(listOf("coff_symbols", o.coff, [](const CoffEntry& e) {
        if (e.auxiliary) {
            json bytes = json::array();
            for (uint8_t b : e.bytes) bytes.push_back(b);
            return json{{"section", e.section}, {"index", e.index}, {"auxiliary", bytes}};
        }
        return json{{"section", e.section}, {"index", e.index},         {"name", e.name},
                    {"value", e.value},     {"scnum", e.section_number}, {"type", e.type},
                    {"sclass", e.storage_class}, {"numaux", e.aux_count}};
    }));
    d.parts.push_back(listOf("dwarf", o.dwarf, [](const DwarfUnit& u) {
        json x = {{"section", u.section},
                  {"kind", u.line ? "line program" : "unit"},
                  {"offset", u.offset},
                  {"length", u.length},
                  {"version", u.version}};
        if (!u.note.empty()) x["note"] = u.note;
        if (u.line) {
            x["header_length"] = u.header_length;
        } else {
            x["unit_type"] = unitTypeName(u.unit_type);
            x["abbrev_offset"] = u.abbrev_offset;
            x["address_size"] = u.address_size;
        }
        return x;
    }));
    auto problem = [](const Problem& p) {
        return json{{"where", p.where}, {"code", p.code}, {"message", p.message}, {"context", p.context}, {"note", p.note}};
    };
    d.parts.push_back(listOf("problems", o.problems, problem));
    d.parts.push_back(listOf("notes", o.notes, problem));
    for (const Doc::Part& p : d.parts) d.head[p.key] = json::array();
    return d;
}

json objectJson(const Object& o) {
    return whole(objectDoc(o));
}

}  // namespace

void printArchiveHead(std::ostream& out, const Archive& a) {
    out << "Archive: " << a.file << "\n  Magic:   " << (a.big ? "!<sola>" : "!<elfa>")
        << "\n  Numbers: " << (a.big ? "big" : "little") << " endian\n\nMembers:\n"
        << "  Name                 Date         Uid   Gid   Mode     Size       Header   Data\n";
    for (const Member& m : a.members)
        out << format("  %-20.20s %-12d %-5d %-5d %-8d %-10u %08x %08x\n", m.name.c_str(), m.date, m.uid, m.gid, m.mode,
                      m.layout.size, m.layout.headerOffset, m.layout.dataOffset);
    if (a.hasSymbolTable) {
        out << "\nArchive symbol table (" << a.symbols.size() << " entries):\n";
        for (const ArchiveSymbolEntry& s : a.symbols)
            out << format("  %-32s %08x %s\n", s.name.c_str(), s.offset, s.member.c_str());
    } else {
        out << "\nNo archive symbol table.\n";
    }
}

void printMember(std::ostream& out, const Member& m) {
    if (!m.isObject) return;
    out << "\nMember: " << m.name << "\n";
    printObject(out, m.object);
}

void printText(std::ostream& out, const Survey& f) {
    if (!f.archive) {
        out << "File: " << f.object.file << "\n";
        if (f.object.header.e_ident[0] == 0x7f) printObject(out, f.object);
        return;
    }
    printArchiveHead(out, f.ar);
    for (const Member& m : f.ar.members) printMember(out, m);
}

namespace {

// A document's text moved `n` spaces right, as it stands inside another.
std::string indented(const std::string& text, size_t n) {
    const std::string pad(n, ' ');
    std::string r = pad;
    r.reserve(text.size() + n);
    for (char c : text) {
        r += c;
        if (c == '\n') r += pad;
    }
    return r;
}

Doc memberDoc(const Member& m) {
    json mj = {{"name", m.name},
               {"date", m.date},
               {"uid", m.uid},
               {"gid", m.gid},
               {"mode", m.mode},
               {"size", m.layout.size},
               {"header_offset", m.layout.headerOffset},
               {"data_offset", m.layout.dataOffset},
               {"object", nullptr}};
    Doc d{std::move(mj), {}};
    if (m.isObject)
        d.parts.push_back({"object", false, 1, [&m](size_t) { return objectDoc(m.object); }});
    else
        d.head["problems"] = problemsJson(m.object.problems);
    return d;
}

// Prints d as jsonText prints whole(d), moved `n` spaces right (the first
// line too when padFirst), one item of its parts at a time.
void printDoc(std::ostream& out, const Doc& d, size_t n, bool padFirst) {
    std::string text = indented(jsonText(d.head), n);
    if (!padFirst) text.erase(0, n);
    // Where each part goes: its key at the top level, as the head prints it.
    struct Place {
        size_t at, length;
        const Doc::Part* part;
    };
    std::vector<Place> places;
    for (const Doc::Part& p : d.parts) {
        std::string key(n + 3, ' ');
        key.front() = '\n';
        key.append("\"").append(p.key).append("\": ");
        const size_t at = text.find(key + (p.list ? "[]" : "null"));
        if (at == std::string::npos) throw Failure(std::string("internal: no place for ") + p.key);
        places.push_back({at + key.size(), p.list ? size_t{2} : size_t{4}, &p});
    }
    std::sort(places.begin(), places.end(), [](const Place& x, const Place& y) { return x.at < y.at; });
    size_t from = 0;
    for (const Place& place : places) {
        out.write(text.data() + from, static_cast<std::streamsize>(place.at - from));
        from = place.at + place.length;
        const Doc::Part& p = *place.part;
        if (!p.list) {
            printDoc(out, p.item(0), n + 2, false);
        } else if (p.count == 0) {
            out << "[]";
        } else {
            out << "[\n";
            for (size_t i = 0; i < p.count; ++i) {
                if (i) out << ",\n";
                printDoc(out, p.item(i), n + 4, true);
            }
            out << "\n" << std::string(n + 2, ' ') << "]";
        }
    }
    out.write(text.data() + from, static_cast<std::streamsize>(text.size() - from));
}

// An archive's document without its members' (an empty list).
json archiveJson(const Archive& a) {
    json j;
    j["file"] = a.file;
    j["kind"] = "archive";
    j["magic"] = a.big ? "!<sola>" : "!<elfa>";
    j["byte_order"] = a.big ? "big" : "little";
    j["members"] = json::array();
    json symbols = json::array();
    for (const ArchiveSymbolEntry& s : a.symbols)
        symbols.push_back({{"name", s.name}, {"offset", s.offset}, {"member", s.member}});
    j["symbol_table"] = a.hasSymbolTable ? symbols : json(nullptr);
    j["problems"] = problemsJson(a.problems);
    return j;
}


}  // namespace

json toJson(const Survey& f) {
    if (!f.archive) return objectJson(f.object);
    json j = archiveJson(f.ar);
    for (const Member& m : f.ar.members) j["members"].push_back(whole(memberDoc(m)));
    return j;
}

JsonPrinter::JsonPrinter(std::ostream& out, bool several) : out_(out), several_(several) {}

void JsonPrinter::startDocument() {
    if (several_) out_ << (documents_ ? ",\n" : "[\n");
    ++documents_;
}

SurveyEvents JsonPrinter::events() {
    // The archive's document is printed up to its list of members; the rest
    // waits for the members, each printed as it is read.
    return {[this](const Archive& a) {
                startDocument();
                const std::string text = indented(jsonText(archiveJson(a)), base());
                static const std::string empty = "\"members\": []";
                const size_t at = text.find(empty);
                out_ << text.substr(0, at + empty.size() - 2);
                tail_ = text.substr(at + empty.size());
                members_ = 0;
            },
            [this](const Member& m) {
                out_ << (members_++ ? ",\n" : "[\n");
                printDoc(out_, memberDoc(m), base() + 4, true);
            }};
}

void JsonPrinter::file(const Survey& s) {
    if (s.archive) {
        if (members_)
            out_ << '\n' << std::string(base() + 2, ' ') << ']';
        else
            out_ << "[]";
        out_ << tail_;
        return;
    }
    startDocument();
    printDoc(out_, objectDoc(s.object), base(), true);
}

void JsonPrinter::finish() {
    if (several_)
        out_ << (documents_ ? "\n]" : "[]");
    else if (!documents_)
        out_ << "[]";
    out_ << "\n";
}

size_t printProblems(std::ostream& out, const Survey& f) {
    size_t n = 0;
    auto print = [&](const std::string& file, const Problem& p) {
        ++n;
        out << file << ": " << p.where << ": ";
        if (p.code) out << "code " << p.code << ": ";
        out << p.message;
        if (!p.context.empty()) out << " (in " << p.context << ")";
        if (!p.note.empty()) out << "; " << p.note;
        out << "\n";
    };
    if (!f.archive) {
        for (const Problem& p : f.object.problems) print(f.object.file, p);
        return n;
    }
    for (const Problem& p : f.ar.problems) print(f.ar.file, p);
    for (const Member& m : f.ar.members)
        for (const Problem& p : m.object.problems) print(f.ar.file + "(" + m.name + ")", p);
    return n;
}

void printNotes(std::ostream& out, const Survey& f) {
    auto print = [&](const std::string& file, const Object& o) {
        for (const Problem& n : o.notes) out << file << ": " << n.where << ": note: " << n.message << "; " << n.note << "\n";
    };
    if (!f.archive) return print(f.object.file, f.object);
    for (const Member& m : f.ar.members) print(f.ar.file + "(" + m.name + ")", m.object);
}

std::string jsonText(const nlohmann::json& document) {
    return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace tool
