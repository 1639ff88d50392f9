// Helpers shared by the reading tests: a sample object with one section of
// every record type, and opening it through a file id or a memory image.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Builder.h"
#include "tamoelf.h"

namespace testkit {

enum class Access { File, Image };
inline const char* name(Access a) { return a == Access::File ? "file" : "image"; }

// A copy of an image in a buffer of the library's alignment (or off by
// `misalign` bytes), that outlives the descriptor made on it.
class ImageBuffer {
public:
    explicit ImageBuffer(const Bytes& b, size_t misalign = 0) : m_size(b.size()), m_misalign(misalign) {
        m_raw.reset(static_cast<uint8_t*>(std::malloc(b.size() + 16)));
        std::memcpy(data(), b.data(), b.size());
    }
    char* data() { return reinterpret_cast<char*>(m_raw.get() + m_misalign); }
    size_t size() const { return m_size; }
    Bytes bytes() const { return Bytes(m_raw.get() + m_misalign, m_raw.get() + m_misalign + m_size); }

private:
    struct Free {
        void operator()(uint8_t* p) const { std::free(p); }
    };
    std::unique_ptr<uint8_t, Free> m_raw;
    size_t m_size;
    size_t m_misalign;
};

// An open descriptor on bytes, through either path.
class Opened {
public:
    Opened(const Bytes& bytes, Access a) {
        initLibrary();
        if (a == Access::File) {
            m_file = std::make_unique<MemFile>(bytes);
            m_elf = tamo_elf_begin(m_file->fd(), ELF_C_READ, nullptr);
        } else {
            m_image = std::make_unique<ImageBuffer>(bytes);
            m_elf = tamo_elf_memory(m_image->data(), m_image->size());
        }
    }
    ~Opened() {
        if (m_elf) tamo_elf_end(m_elf);
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    Elf* elf() const { return m_elf; }
    int fd() const { return m_file ? m_file->fd() : -1; }
    // Ends the descriptor now (for image checks).
    void end() {
        if (m_elf) tamo_elf_end(m_elf);
        m_elf = nullptr;
    }
    ImageBuffer* image() { return m_image.get(); }

    Elf_Scn* scn(size_t i) const { return tamo_elf_getscn(m_elf, i); }
    Elf_Data* data(size_t i) const {
        Elf_Scn* s = scn(i);
        return s ? tamo_elf_getdata(s, nullptr) : nullptr;
    }
    Bytes bytes(size_t i) const {
        Elf_Data* d = data(i);
        if (!d) return {};
        const uint8_t* p = static_cast<const uint8_t*>(d->d_buf);
        return Bytes(p, p + d->d_size);
    }

private:
    std::unique_ptr<MemFile> m_file;
    std::unique_ptr<ImageBuffer> m_image;
    Elf* m_elf = nullptr;
};

// The sample object: one section of each record type the library converts.
struct Sample {
    ObjectBuilder builder;
    std::vector<Section> sections;  // index i+1 in the object
    size_t text, symtab, strtab, rela, rel, hash, dynamic, bss, sixword, offs, threeword, own12, note;

    explicit Sample(Order o) : builder(o) {
        auto add = [this](Section s) {
            sections.push_back(s);
            return builder.add(std::move(s));
        };
        text = add({.name = ".text", .type = SHT_PROGBITS, .flags = 6, .align = 4,
                    .content = raw(Bytes{0x7c, 0x08, 0x02, 0xa6, 0x94, 0x21, 0xff, 0xf0, 0x4e, 0x80, 0x00, 0x20})});
        strtab = add({.name = ".strtab", .type = SHT_STRTAB, .content = raw(std::string("\0main\0counter\0", 14))});
        std::vector<Elf32_Sym> syms = {
            {0, 0, 0, 0, 0, 0, 0},
            {1, 0x10, 0x20, 0x12, 0x01, static_cast<Elf32_Half>(text), 0xdeadbeef},
            {6, 0x1234, 4, 0x11, 0x02, 0xfff1, 7},
        };
        symtab = add({.name = ".symtab", .type = SHT_SYMTAB, .link = static_cast<uint32_t>(strtab), .info = 1,
                      .align = 4, .entsize = 20, .extra = 0x5a5a, .content = concat(syms, symFields)});
        std::vector<Elf32_Rela> relas = {{4, 0x0102, -8}, {0x10, 0x0203, 0x7fffffff}};
        rela = add({.name = ".rela.text", .type = SHT_RELA, .link = static_cast<uint32_t>(symtab),
                    .info = static_cast<uint32_t>(text), .align = 4, .entsize = 12, .content = concat(relas, relaFields)});
        rel = add({.name = ".rel.data", .type = SHT_REL, .align = 4, .entsize = 8,
                   .content = words({0x100, 0x0305, 0x104, 0x0406})});
        hash = add({.name = ".hash", .type = SHT_HASH, .align = 4, .entsize = 4, .content = words({1, 2, 0, 1, 0})});
        dynamic = add({.name = ".dynamic", .type = SHT_DYNAMIC, .align = 4, .entsize = 8,
                       .content = words({1, 0x10, 0x6ffffef5, 0x200, 0, 0})});
        bss = add({.name = ".bss", .type = SHT_NOBITS, .align = 8, .forceSize = 64});
        sixword = add({.name = ".six", .type = 13, .align = 4, .content = words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})});
        offs = add({.name = ".offs", .type = 14, .align = 4, .content = words({0x11223344, 0x55667788})});
        threeword = add({.name = ".three", .type = 20, .align = 4, .content = words({0xa, 0xb, 0xc})});
        own12 = add({.name = ".own12", .type = 12, .content = raw(Bytes{1, 2, 3, 4, 5})});
        note = add({.name = ".note", .type = SHT_NOTE, .align = 4, .content = words({4, 4, 1}) });
    }

    Bytes build() { return builder.build(); }
    size_t names() const { return builder.namesIndex(); }
    const Section& section(size_t index) const { return sections.at(index - 1); }
};

inline Bytes hostBytes(const Section& s) { return encode(s.content, kHost); }

inline uint32_t get32(const Bytes& b, size_t at, Order o) {
    uint32_t v = 0;
    for (unsigned i = 0; i < 4; ++i) v |= static_cast<uint32_t>(b.at(at + i)) << (o == Order::Little ? 8 * i : 8 * (3 - i));
    return v;
}
inline void set32(Bytes& b, size_t at, uint32_t v, Order o) {
    for (unsigned i = 0; i < 4; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (o == Order::Little ? 8 * i : 8 * (3 - i)));
}
// Rewrites word `word` (0 = sh_name ... 10 = sh_extra) of section header
// `index` in a built object of 44-byte section headers.
inline void patchShdr(Bytes& file, Order o, size_t index, int word, uint32_t value) {
    const uint32_t shoff = get32(file, 32, o);
    set32(file, shoff + 44 * index + 4 * static_cast<size_t>(word), value, o);
}
enum ShdrWord { kName = 0, kType = 1, kOffset = 4, kSize = 5 };

}  // namespace testkit
