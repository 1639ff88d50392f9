// Helpers shared by the reading tests: a sample object with one section of
// every record type, and opening it through a file id or a memory image.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Builder.h"
#include "Samples.h"
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

inline Bytes hostBytes(const Section& s) { return encode(s.content, kHost); }

inline uint32_t get32(const Bytes& b, size_t at, Order o) {
    uint32_t v = 0;
    for (unsigned i = 0; i < 4; ++i) v |= static_cast<uint32_t>(b.at(at + i)) << (o == Order::Little ? 8 * i : 8 * (3 - i));
    return v;
}
// Rewrites word `word` (0 = sh_name ... 10 = sh_extra) of section header
// `index` in a built object of 44-byte section headers.
inline void patchShdr(Bytes& file, Order o, size_t index, int word, uint32_t value) {
    const uint32_t shoff = get32(file, 32, o);
    putAt(&file.at(shoff + 44 * index + 4 * static_cast<size_t>(word)), value, 4, o);
}
enum ShdrWord { kName = 0, kType = 1, kOffset = 4, kSize = 5 };

}  // namespace testkit
