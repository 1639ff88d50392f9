// Builders of test inputs: ELF objects of this format (44-byte section
// headers, 20-byte symbols) and archives, in either byte order, from one
// description. Contents are described field by field so that the same
// description gives the file's bytes and the bytes a reader must see in host
// order; nothing here uses the library's own conversion code.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tamoelf.h"

namespace testkit {

using Bytes = std::vector<uint8_t>;

enum class Order { Little = 1, Big = 2 };
inline constexpr Order kHost = Order::Little;
inline Order other(Order o) { return o == Order::Little ? Order::Big : Order::Little; }
inline const char* name(Order o) { return o == Order::Little ? "little" : "big"; }

// Stores a `width`-byte number in order o at `at` (which must be inside).
inline void putAt(uint8_t* at, uint64_t v, unsigned width, Order o) {
    for (unsigned i = 0; i < width; ++i) at[i] = static_cast<uint8_t>(v >> (o == Order::Little ? 8 * i : 8 * (width - 1 - i)));
}
inline void put(Bytes& out, uint64_t v, unsigned width, Order o) {
    out.resize(out.size() + width);
    putAt(out.data() + out.size() - width, v, width, o);
}

// One field of a record: its width in bytes (1, 2, 4 or 8) and value.
struct Field {
    uint8_t width;
    uint64_t value;
};
using Fields = std::vector<Field>;

inline Bytes encode(const Fields& fields, Order o) {
    Bytes out;
    for (const Field& f : fields) put(out, f.value, f.width, o);
    return out;
}

inline Fields raw(const Bytes& b) {
    Fields f;
    for (uint8_t x : b) f.push_back({1, x});
    return f;
}
inline Fields raw(const std::string& s) { return raw(Bytes(s.begin(), s.end())); }

// DWARF's pieces: bytes, LEB128 numbers, strings with their NUL.
inline Fields bytes(std::initializer_list<uint8_t> b) {
    return raw(Bytes(b));
}
inline Fields uleb(uint64_t v) {
    Fields f;
    do {
        uint8_t b = v & 0x7f;
        v >>= 7;
        f.push_back({1, static_cast<uint8_t>(b | (v ? 0x80 : 0))});
    } while (v);
    return f;
}
inline Fields sleb(int64_t v) {
    Fields f;
    for (bool more = true; more;) {
        uint8_t b = v & 0x7f;
        v >>= 7;
        more = !((v == 0 && !(b & 0x40)) || (v == -1 && (b & 0x40)));
        f.push_back({1, static_cast<uint8_t>(b | (more ? 0x80 : 0))});
    }
    return f;
}
inline Fields str(const std::string& s) {
    return raw(Bytes(s.begin(), s.end() + 1));
}
inline Fields cat(std::initializer_list<Fields> parts) {
    Fields out;
    for (const Fields& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline size_t width(const Fields& f) {
    size_t n = 0;
    for (const Field& x : f) n += x.width;
    return n;
}

inline Fields words(std::initializer_list<uint32_t> ws) {
    Fields f;
    for (uint32_t w : ws) f.push_back({4, w});
    return f;
}

inline Fields symFields(const Elf32_Sym& s) {
    return {{4, s.st_name}, {4, s.st_value}, {4, s.st_size}, {1, s.st_info},
            {1, s.st_other}, {2, s.st_shndx}, {4, s.st_extra}};
}
inline Fields relaFields(const Elf32_Rela& r) {
    return {{4, r.r_offset}, {4, r.r_info}, {4, static_cast<uint32_t>(r.r_addend)}};
}
template <class T, class F>
Fields concat(const std::vector<T>& records, F fields) {
    Fields out;
    for (const T& r : records) {
        Fields f = fields(r);
        out.insert(out.end(), f.begin(), f.end());
    }
    return out;
}

struct Section {
    std::string name;
    uint32_t type = SHT_PROGBITS;
    uint32_t flags = 0;
    uint32_t addr = 0;
    uint32_t link = 0;
    uint32_t info = 0;
    uint32_t align = 1;
    uint32_t entsize = 0;
    uint32_t extra = 0;
    Fields content;
    // Set to place the section somewhere else than the builder would, or
    // to give it a size other than its content's.
    int64_t forceOffset = -1;
    int64_t forceSize = -1;
};

// Builds an object: ELF header, sections in index order (section 0 is the
// null section, the section-name table is added last), section header
// table at the end.
class ObjectBuilder {
public:
    explicit ObjectBuilder(Order o) : m_order(o) {}

    Order order() const { return m_order; }

    // Adds a section and returns its index.
    size_t add(Section s) {
        m_sections.push_back(std::move(s));
        return m_sections.size();  // index 0 is the null section
    }

    // Header overrides.
    uint16_t type = 1;  // ET_REL
    uint16_t machine = 20;
    uint32_t version = 1;
    uint32_t entry = 0;
    uint32_t flags = 0;
    uint16_t shentsize = 44;  // 40 writes standard ELF32 section headers
    uint8_t identData = 0;    // EI_DATA as stored; 0: the true order
    int64_t shoffOverride = -1;
    int64_t shnumOverride = -1;

    // Index the section-name table gets.
    size_t namesIndex() const { return m_sections.size() + 1; }

    // Offset of section i's contents in the last built image.
    uint32_t offsetOf(size_t i) const { return m_offsets.at(i); }

    Bytes build() {
        // The section-name table (every name, then its own) comes last.
        std::vector<Section> all = m_sections;
        all.push_back({.name = ".shstrtab", .type = SHT_STRTAB});
        std::string names(1, '\0');
        std::vector<uint32_t> nameOff;
        for (const Section& s : all) {
            nameOff.push_back(static_cast<uint32_t>(names.size()));
            names += s.name + '\0';
        }
        all.back().content = raw(names);

        Bytes out(52, 0), table(shentsize, 0);  // the table starts with the null section's record
        m_offsets.assign(all.size() + 1, 0);
        for (size_t i = 0; i < all.size(); ++i) {
            const Section& s = all[i];
            const Bytes body = encode(s.content, m_order);
            uint32_t& off = m_offsets[i + 1];
            if (s.forceOffset >= 0) {
                off = static_cast<uint32_t>(s.forceOffset);
            } else {
                while (out.size() % std::max(s.align, 1u)) out.push_back(0);
                off = static_cast<uint32_t>(out.size());
                if (s.type != SHT_NOBITS) out.insert(out.end(), body.begin(), body.end());
            }
            const auto size = static_cast<uint32_t>(s.forceSize >= 0 ? s.forceSize : static_cast<int64_t>(body.size()));
            Bytes rec = encode(words({nameOff[i], s.type, s.flags, s.addr, off, size, s.link, s.info, s.align,
                                      s.entsize, s.extra}),
                               m_order);
            rec.resize(shentsize);  // 40 keeps a standard ELF32 record; more is zero
            table.insert(table.end(), rec.begin(), rec.end());
        }
        while (out.size() % 4) out.push_back(0);
        const auto shoff = static_cast<uint32_t>(shoffOverride >= 0 ? shoffOverride : static_cast<int64_t>(out.size()));
        if (shoffOverride < 0) out.insert(out.end(), table.begin(), table.end());

        const uint64_t shnum = shnumOverride >= 0 ? static_cast<uint64_t>(shnumOverride) : all.size() + 1;
        const uint8_t data = identData ? identData : static_cast<uint8_t>(m_order);
        Bytes hdr = {0x7f, 'E', 'L', 'F', 1, data, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        const Bytes rest = encode({{2, type}, {2, machine}, {4, version}, {4, entry}, {4, 0}, {4, shoff}, {4, flags},
                                   {2, 52}, {2, 0}, {2, 0}, {2, shentsize}, {2, shnum}, {2, all.size()}},
                                  m_order);
        hdr.insert(hdr.end(), rest.begin(), rest.end());
        std::copy(hdr.begin(), hdr.end(), out.begin());
        return out;
    }

private:
    Order m_order;
    std::vector<Section> m_sections;
    std::vector<uint32_t> m_offsets;
};

// Builds an archive: magic, optional symbol table, members.
class ArchiveBuilder {
public:
    explicit ArchiveBuilder(Order o) : m_order(o) {}

    struct Member {
        std::string name;     // as written before the '/'
        Bytes data;
        std::string rawName;  // when set, the whole name field as written
        int32_t date = 0, uid = 0, gid = 0, mode = 644;
        std::string sizeText;  // when set, replaces the size field's text
        std::string dateText;  // when set, replaces the date field's text
    };
    struct Symbol {
        std::string name;
        size_t member;  // index into members
    };

    bool withSymbolTable = true;
    bool oddSymbolTable = false;  // add one byte to the table's size
    std::string symbolTableField = nameField("");

    void addMember(Member m) { m_members.push_back(std::move(m)); }
    void addSymbol(std::string name, size_t member) { m_symbols.push_back({std::move(name), member}); }

    // Header offset of member i in the last built archive.
    uint32_t headerOffset(size_t i) const { return m_headerOffsets.at(i); }
    uint32_t dataOffset(size_t i) const { return m_dataOffsets.at(i); }

    static std::string nameField(const std::string& name) {
        std::string f = name + "/";
        size_t width = f.size() < 16 ? 16 : (f.size() + 3) / 4 * 4;
        f.resize(width, ' ');
        return f;
    }

    static std::string header(const std::string& field, const std::string& date, int32_t uid, int32_t gid,
                              int32_t mode, const std::string& size) {
        auto pad = [](std::string s, size_t w) {
            s.resize(w, ' ');
            return s;
        };
        return field + pad(date, 12) + pad(std::to_string(uid), 6) + pad(std::to_string(gid), 6) +
               pad(std::to_string(mode), 8) + pad(size, 10) + "`\n";
    }

    Bytes build() {
        const std::string magic = m_order == Order::Big ? "!<sola>\n" : "!<elfa>\n";
        Bytes out(magic.begin(), magic.end());

        // The table's size depends only on its names; member offsets follow.
        Bytes names;
        for (const Symbol& s : m_symbols) {
            names.insert(names.end(), s.name.begin(), s.name.end());
            names.push_back(0);
        }
        const size_t tableSize = 4 + 4 * m_symbols.size() + names.size() + (oddSymbolTable ? 1 : 0);
        size_t pos = 8;
        if (withSymbolTable) pos += symbolTableField.size() + 44 + tableSize;
        m_headerOffsets.clear();
        m_dataOffsets.clear();
        std::vector<std::string> headers;
        for (const Member& m : m_members) {
            std::string field = m.rawName.empty() ? nameField(m.name) : m.rawName;
            std::string h = header(field, m.dateText.empty() ? std::to_string(m.date) : m.dateText, m.uid, m.gid,
                                   m.mode, m.sizeText.empty() ? std::to_string(m.data.size()) : m.sizeText);
            m_headerOffsets.push_back(static_cast<uint32_t>(pos));
            m_dataOffsets.push_back(static_cast<uint32_t>(pos + h.size()));
            headers.push_back(h);
            pos += h.size() + m.data.size() + (m.data.size() & 1);
        }

        if (withSymbolTable) {
            std::string h = header(symbolTableField, "0", 0, 0, 0, std::to_string(tableSize));
            out.insert(out.end(), h.begin(), h.end());
            put(out, m_symbols.size(), 4, m_order);
            for (const Symbol& s : m_symbols) put(out, m_headerOffsets.at(s.member), 4, m_order);
            out.insert(out.end(), names.begin(), names.end());
            if (oddSymbolTable) out.push_back(0);
        }
        for (size_t i = 0; i < m_members.size(); ++i) {
            out.insert(out.end(), headers[i].begin(), headers[i].end());
            out.insert(out.end(), m_members[i].data.begin(), m_members[i].data.end());
            if (m_members[i].data.size() & 1) out.push_back('\n');
        }
        return out;
    }

private:
    Order m_order;
    std::vector<Member> m_members;
    std::vector<Symbol> m_symbols;
    std::vector<uint32_t> m_headerOffsets;
    std::vector<uint32_t> m_dataOffsets;
};

// A file with the given contents, positioned at 0; closed on destruction.
class MemFile {
public:
    explicit MemFile(const Bytes& contents) {
        m_fd = memfd_create("tamoelf-test", 0);
        if (m_fd >= 0 && !contents.empty()) {
            ssize_t w = ::write(m_fd, contents.data(), contents.size());
            (void)w;
        }
        if (m_fd >= 0) ::lseek(m_fd, 0, SEEK_SET);
    }
    ~MemFile() {
        if (m_fd >= 0) ::close(m_fd);
    }
    MemFile(const MemFile&) = delete;
    MemFile& operator=(const MemFile&) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

// Calls tamo_elf_version(EV_CURRENT) once per process.
inline void initLibrary() {
    static const bool done = (tamo_elf_version(EV_CURRENT), true);
    (void)done;
}

}  // namespace testkit
