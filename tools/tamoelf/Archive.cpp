#include "Archive.h"

#include <cstring>

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
        size_t size = 4 + 4 * symbols->size();
        for (const ArchiveSymbol& s : *symbols) size += s.name.size() + 1;
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
        store32(table.data(), static_cast<uint32_t>(symbols->size()), big);
        size_t at = 4;
        for (const ArchiveSymbol& s : *symbols) {
            store32(table.data() + at, offsets.at(s.member), big);
            at += 4;
        }
        for (const ArchiveSymbol& s : *symbols) {
            std::memcpy(table.data() + at, s.name.c_str(), s.name.size() + 1);
            at += s.name.size() + 1;
        }
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

}  // namespace tool
