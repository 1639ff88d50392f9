#include "Archive.h"

#include <cstring>
#include <map>

namespace tool {

namespace {

constexpr size_t kFixed = 44;
constexpr size_t kSizeField = 32;  // offset of the size in the fixed part

// Reads the header at `at`: its length, or throws.
size_t headerLength(const Bytes& f, size_t at) {
    size_t pos = at;
    auto group = [&](size_t p) {
        if (p + 4 > f.size()) throw Failure("archive header at offset " + std::to_string(at) + " is cut short");
        return &f[p];
    };
    while (!std::memchr(group(pos), '/', 4)) pos += 4;
    pos += 4;
    while (std::memcmp(group(pos), "    ", 4) == 0) pos += 4;
    if (pos + kFixed > f.size()) throw Failure("archive header at offset " + std::to_string(at) + " is cut short");
    return pos - at + kFixed;
}

uint32_t decimal(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    size_t i = 0;
    while (i < n && p[i] == ' ') ++i;
    for (; i < n && p[i] >= '0' && p[i] <= '9'; ++i) v = v * 10 + (p[i] - '0');
    return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v);
}

ArchiveMember member(const Bytes& f, size_t at) {
    ArchiveMember m;
    const size_t length = headerLength(f, at);
    m.headerOffset = static_cast<uint32_t>(at);
    m.header.assign(f.begin() + static_cast<long>(at), f.begin() + static_cast<long>(at + length));
    const uint8_t* fixed = m.header.data() + length - kFixed;
    m.size = decimal(fixed + kSizeField, 10);
    m.dataOffset = static_cast<uint32_t>(at + length);
    const size_t slash =
        static_cast<size_t>(static_cast<const uint8_t*>(std::memchr(m.header.data(), '/', length)) - m.header.data());
    m.name.assign(m.header.begin(), m.header.begin() + static_cast<long>(slash));
    if (static_cast<uint64_t>(m.dataOffset) + m.size > f.size())
        throw Failure("archive member at offset " + std::to_string(at) + " claims " + std::to_string(m.size) +
                      " bytes, past the end of the archive");
    return m;
}

}  // namespace

size_t symbolTableSize(const std::vector<ArchiveSymbol>& symbols) {
    size_t size = 4 + 4 * symbols.size();
    for (const ArchiveSymbol& s : symbols) size += s.name.size() + 1;
    return size;
}

void writeSymbolTable(uint8_t* table, const std::vector<ArchiveSymbol>& symbols,
                      const std::vector<uint32_t>& memberOffsets, bool big) {
    store32(table, static_cast<uint32_t>(symbols.size()), big);
    size_t at = 4;
    for (const ArchiveSymbol& s : symbols) {
        store32(table + at, memberOffsets.at(s.member), big);
        at += 4;
    }
    for (const ArchiveSymbol& s : symbols) {
        std::memcpy(table + at, s.name.c_str(), s.name.size() + 1);
        at += s.name.size() + 1;
    }
}

std::vector<ArchiveSymbol> readSymbolTable(const uint8_t* p, size_t size, bool big,
                                           const std::vector<ArchiveMember>& members, const std::string& where) {
    if (size < 4) throw Failure(where + " is cut short");
    const uint32_t count = load32(p, big);
    if (count > (size - 4) / 4)
        throw Failure(where + " claims " + std::to_string(count) + " symbols, more than it can hold");
    std::map<uint32_t, uint32_t> byOffset;
    for (size_t i = 0; i < members.size(); ++i) byOffset[members[i].headerOffset] = static_cast<uint32_t>(i);
    std::vector<ArchiveSymbol> symbols;
    size_t at = 4 + size_t{count} * 4;
    for (uint32_t i = 0; i < count; ++i) {
        if (at >= size || !std::memchr(p + at, 0, size - at))
            throw Failure(where + " has fewer names than its " + std::to_string(count) + " symbols");
        const std::string symbol(reinterpret_cast<const char*>(p + at));
        at += symbol.size() + 1;
        const uint32_t offset = load32(p + 4 + 4 * i, big);
        const auto it = byOffset.find(offset);
        if (it == byOffset.end())
            throw Failure(where + ": symbol " + symbol + " names offset " + std::to_string(offset) +
                          ", where no member starts");
        symbols.push_back({symbol, it->second});
    }
    return symbols;
}

bool isArchive(const Bytes& file) {
    return file.size() >= 8 &&
           (std::memcmp(file.data(), "!<elfa>\n", 8) == 0 || std::memcmp(file.data(), "!<sola>\n", 8) == 0);
}

ArchiveLayout parseArchive(const Bytes& f) {
    if (!isArchive(f)) throw Failure("not an archive of this format");
    ArchiveLayout a;
    a.big = std::memcmp(f.data(), "!<sola>\n", 8) == 0;
    size_t pos = 8;
    if (f.size() > pos + kFixed && f[pos] == '/' && f[pos + 1] != '/') {
        a.symbolTable = member(f, pos);
        a.hasSymbolTable = true;
        pos = a.symbolTable.dataOffset + a.symbolTable.size;
    }
    while (f.size() > pos + kFixed) {
        ArchiveMember m = member(f, pos);
        pos = m.dataOffset + m.size;
        if (m.size & 1) {
            m.hasPad = pos < f.size();
            if (m.hasPad) m.pad = f[pos];
            ++pos;
        }
        a.members.push_back(std::move(m));
    }
    if (pos < f.size()) a.trailing.assign(f.begin() + static_cast<long>(pos), f.end());
    return a;
}

Bytes writeArchive(const ArchiveLayout& layout, bool big, const std::vector<Bytes>& data,
                   const std::vector<ArchiveSymbol>* symbols) {
    auto withSize = [](Bytes header, size_t size) {
        const std::string text = std::to_string(size);
        if (text.size() > 10) throw Failure("an archive member of " + text + " bytes does not fit the format");
        uint8_t* field = header.data() + header.size() - kFixed + kSizeField;
        std::memset(field, ' ', 10);
        std::memcpy(field, text.data(), text.size());
        return header;
    };
    // The symbol table's size depends only on its names; then the members'
    // places are known.
    Bytes table;
    Bytes tableHeader;
    if (symbols) {
        const size_t size = symbolTableSize(*symbols);
        if (layout.hasSymbolTable) {
            tableHeader = layout.symbolTable.header;
        } else {
            const std::string h = std::string("/") + std::string(15, ' ') + "0           0     0     0       " +
                                  std::string(10, ' ') + "`\n";
            tableHeader.assign(h.begin(), h.end());
        }
        tableHeader = withSize(tableHeader, size);
        table.resize(size);
    }
    std::vector<uint32_t> offsets;
    uint64_t pos = 8 + (symbols ? tableHeader.size() + table.size() : 0);
    for (size_t i = 0; i < layout.members.size(); ++i) {
        offsets.push_back(static_cast<uint32_t>(pos));
        pos += layout.members[i].header.size() + data[i].size() + (data[i].size() & 1);
        if (pos > UINT32_MAX) throw Failure("the archive would pass the format's 4 GiB");
    }

    Bytes out(big ? Bytes{'!', '<', 's', 'o', 'l', 'a', '>', '\n'} : Bytes{'!', '<', 'e', 'l', 'f', 'a', '>', '\n'});
    if (symbols) {
        writeSymbolTable(table.data(), *symbols, offsets, big);
        out.insert(out.end(), tableHeader.begin(), tableHeader.end());
        out.insert(out.end(), table.begin(), table.end());
    }
    for (size_t i = 0; i < layout.members.size(); ++i) {
        const ArchiveMember& m = layout.members[i];
        const Bytes header = data[i].size() == m.size ? m.header : withSize(m.header, data[i].size());
        out.insert(out.end(), header.begin(), header.end());
        out.insert(out.end(), data[i].begin(), data[i].end());
        if (data[i].size() & 1) out.push_back(m.hasPad ? m.pad : '\n');
    }
    out.insert(out.end(), layout.trailing.begin(), layout.trailing.end());
    return out;
}

// ---------------------------------------------------------------------------
// GNU ar

namespace {

constexpr size_t kGnuHeader = 60;

std::string trimmed(const uint8_t* p, size_t n) {
    while (n && p[n - 1] == ' ') --n;
    return std::string(reinterpret_cast<const char*>(p), n);
}

std::string paddedField(const std::string& text, size_t width) {
    std::string f = text;
    f.resize(width, ' ');
    return f;
}

}  // namespace

bool isGnuArchive(const Bytes& file) {
    return file.size() >= 8 && std::memcmp(file.data(), "!<arch>\n", 8) == 0;
}

GnuArchive parseGnuArchive(const Bytes& f, const std::string& name) {
    if (f.size() >= 8 && std::memcmp(f.data(), "!<thin>\n", 8) == 0)
        throw Failure(name + ": a thin archive (its members are files elsewhere): cannot be carried");
    if (!isGnuArchive(f)) throw Failure(name + ": not a GNU ar archive");
    GnuArchive g;
    Bytes symbolTable, longNames;
    bool hasSymbols = false;
    size_t pos = 8;
    while (pos < f.size()) {
        const std::string where = name + ": archive member header at offset " + std::to_string(pos);
        if (f.size() - pos < kGnuHeader) throw Failure(where + " is cut short");
        const uint8_t* h = &f[pos];
        if (h[58] != '`' || h[59] != '\n') throw Failure(where + " does not end in \"`\\n\"");
        ArchiveMember m;
        m.headerOffset = static_cast<uint32_t>(pos);
        m.dataOffset = static_cast<uint32_t>(pos + kGnuHeader);
        m.size = decimal(h + 48, 10);
        if (uint64_t{m.dataOffset} + m.size > f.size())
            throw Failure(where + ": the member claims " + std::to_string(m.size) +
                          " bytes, past the end of the archive");
        if (pos > UINT32_MAX) throw Failure(where + ": past the format's 4 GiB");
        m.header.assign(h, h + kGnuHeader);
        const std::string field = trimmed(h, 16);
        const Bytes data(f.begin() + m.dataOffset, f.begin() + m.dataOffset + m.size);
        pos = m.dataOffset + m.size + (m.size & 1);
        if (field == "/") {
            symbolTable = data;
            hasSymbols = true;
            continue;
        }
        if (field == "/SYM64/") throw Failure(where + ": a 64-bit symbol table: cannot be carried");
        if (field == "//") {
            longNames = data;  // for naming the members that use it
            continue;
        }
        if (field.size() > 1 && field[0] == '/') {
            // "/N": a long name, at offset N of the "//" member.
            std::string longName = field;
            const Bytes& names = longNames;
            const uint32_t at = decimal(reinterpret_cast<const uint8_t*>(field.data()) + 1, field.size() - 1);
            if (at < names.size()) {
                size_t end = at;
                while (end < names.size() && names[end] != '/' && names[end] != '\n') ++end;
                longName.assign(names.begin() + at, names.begin() + static_cast<long>(end));
            }
            throw Failure(name + ": member " + longName + " (at offset " + std::to_string(m.headerOffset) +
                          "): its name is longer than 15 characters, which this format's archives cannot hold");
        }
        if (field.rfind("#1/", 0) == 0) throw Failure(where + ": a BSD long name: cannot be carried");
        const size_t slash = field.find('/');
        m.name = slash == std::string::npos ? field : field.substr(0, slash);
        if (m.name.empty()) throw Failure(where + ": a member without a name");
        if (m.name.size() > 15)
            throw Failure(name + ": member " + m.name + " (at offset " + std::to_string(m.headerOffset) +
                          "): its name is longer than 15 characters, which this format's archives cannot hold");
        m.hasPad = (m.size & 1) && m.dataOffset + m.size < f.size();
        if (m.hasPad) m.pad = f[m.dataOffset + m.size];
        // This format's header: the name and a '/' in the 16-byte field,
        // then GNU's 44 bytes as they are, except that the date starts at
        // the field's first byte (left-aligned, "0" when blank): spaces there
        // would read as more of the name field, whose length varies here.
        std::string nameField = m.name + "/";
        nameField.resize(16, ' ');
        std::memcpy(m.header.data(), nameField.data(), 16);
        if (m.header[16] == ' ') {
            std::string date = trimmed(h + 16, 12);
            date.erase(0, date.find_first_not_of(' '));
            std::memcpy(m.header.data() + 16, paddedField(date.empty() ? "0" : date, 12).data(), 12);
        }
        g.layout.members.push_back(std::move(m));
    }

    if (hasSymbols) {
        // A big-endian count, that many big-endian member offsets, the names.
        g.symbols = readSymbolTable(symbolTable.data(), symbolTable.size(), true, g.layout.members,
                                    name + ": the archive's symbol table");
        g.hasSymbolTable = true;
    }
    return g;
}

Bytes writeGnuArchive(const std::vector<GnuMember>& members, const std::vector<ArchiveSymbol>* symbols) {
    auto header = [](const std::string& nameField, const Bytes& fixed, size_t size) {
        const std::string text = std::to_string(size);
        if (text.size() > 10) throw Failure("an archive member of " + text + " bytes does not fit the format");
        std::string h = paddedField(nameField, 16);
        if (fixed.size() == kFixed) {
            h.append(fixed.begin(), fixed.end());
        } else {
            h += paddedField("0", 12) + paddedField("0", 6) + paddedField("0", 6) + paddedField("644", 8) +
                 std::string(10, ' ') + "`\n";
        }
        h.replace(16 + kSizeField, 10, paddedField(text, 10));
        return Bytes(h.begin(), h.end());
    };

    // Names longer than 15 characters go to the "//" member.
    std::string longNames;
    std::vector<std::string> fields;
    for (const GnuMember& m : members) {
        if (m.name.size() <= 15 && m.name.find('/') == std::string::npos) {
            fields.push_back(m.name + "/");
        } else {
            std::string field = "/";  // (not "/" + ...: g++ 12 warns falsely on that)
            field += std::to_string(longNames.size());
            fields.push_back(field);
            longNames += m.name + "/\n";
        }
    }
    Bytes table;
    if (symbols) {
        const size_t size = symbolTableSize(*symbols);
        table.assign(size + (size & 1), 0);  // names padded with a NUL to an even size
    }
    uint64_t pos = 8;
    if (symbols) pos += kGnuHeader + table.size();
    if (!longNames.empty()) pos += kGnuHeader + longNames.size() + (longNames.size() & 1);
    std::vector<uint32_t> offsets;
    for (const GnuMember& m : members) {
        if (pos > UINT32_MAX) throw Failure("the archive would pass 4 GiB");
        offsets.push_back(static_cast<uint32_t>(pos));
        pos += kGnuHeader + m.data.size() + (m.data.size() & 1);
    }

    Bytes out{'!', '<', 'a', 'r', 'c', 'h', '>', '\n'};
    auto append = [&out](const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); };
    if (symbols) {
        writeSymbolTable(table.data(), *symbols, offsets, true);
        append(header("/", {}, table.size()));
        append(table);
    }
    if (!longNames.empty()) {
        Bytes h = header("//", {}, longNames.size());
        std::fill(h.begin() + 16, h.begin() + 16 + kSizeField, ' ');  // no date, owner or mode
        append(h);
        out.insert(out.end(), longNames.begin(), longNames.end());
        if (longNames.size() & 1) out.push_back('\n');
    }
    for (size_t i = 0; i < members.size(); ++i) {
        append(header(fields[i], members[i].fixed, members[i].data.size()));
        append(members[i].data);
        if (members[i].data.size() & 1) out.push_back('\n');
    }
    return out;
}

}  // namespace tool
