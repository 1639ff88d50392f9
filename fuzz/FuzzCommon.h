// Shared by the fuzz targets: walking everything a descriptor offers, the
// way a careful client would, so that every reading path runs.
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tamoelf.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

inline void once() {
    static const bool done = (tamo_elf_version(EV_CURRENT), true);
    (void)done;
}

// Prepares an input: the library's version is set, the last byte becomes
// the walk seed; false for an empty input.
inline bool start(const uint8_t* data, size_t size, uint32_t& seed) {
    once();
    if (size < 1) return false;
    seed = data[size - 1];
    return true;
}

// A file holding the input without its last byte (the walk seed); -1 when
// it cannot be made.
inline int inputFile(const uint8_t* data, size_t size) {
    const int fd = memfd_create("fuzz", 0);
    if (fd < 0) return -1;
    if (write(fd, data, size - 1) != static_cast<ssize_t>(size - 1)) {
        close(fd);
        return -1;
    }
    lseek(fd, 0, SEEK_SET);
    return fd;
}

// The size of a file, and its whole contents (empty when it cannot be read).
inline off_t fileSize(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 ? st.st_size : -1;
}
inline Bytes fileBytes(int fd) {
    Bytes b(static_cast<size_t>(std::max<off_t>(fileSize(fd), 0)));
    if (!b.empty() && pread(fd, b.data(), b.size(), 0) != static_cast<ssize_t>(b.size())) b.clear();
    return b;
}

// Sections converted by their names in a file of the other byte order: COFF
// records (converted, and repacked in big-endian files) and DWARF sections.
inline bool coffName(const char* name, uint32_t shType) {
    return std::strncmp(name, ".rela.lnno.", 11) == 0 ||
           (shType == 15 && (std::strncmp(name, ".lnno.", 6) == 0 || std::strcmp(name, ".coff.SDB") == 0));
}
inline bool dwarfName(const char* name) {
    return std::strncmp(name, ".debug_info", 11) == 0 || std::strncmp(name, ".debug_line", 11) == 0;
}

// Reads a string as a client would: up to its NUL.
inline size_t touch(const char* s) { return s ? std::strlen(s) : 0; }

// Walks the sections of an ELF descriptor in an order chosen by `seed`, reads
// every header, name and data block, and translates each block to the other
// byte order and back.
inline void walkObject(Elf* elf, uint32_t seed) {
    Elf32_Ehdr* eh = tamo_elf32_getehdr(elf);
    size_t count = 0;
    touch(tamo_elf_getident(elf, &count));
    if (!eh) return;
    const size_t n = eh->e_shnum;
    // A table of tens of thousands of (mostly empty) sections is legal and
    // read in linear time, but walking all of it for every input would slow
    // the fuzzer down a hundredfold: large tables are read whole only now
    // and then, and otherwise walked at both ends.
    if ((seed & 1) && (n <= 2048 || (seed & 0x40))) tamo_elf_cntl(elf, ELF_C_FDREAD);
    const size_t head = n > 320 ? 256 : n;
    const size_t walk = n > 320 ? 320 : n;
    for (size_t k = 0; k < walk; ++k) {
        const size_t pos = k < head ? k : n - (walk - k);
        const size_t i = (seed & 2) ? n - 1 - pos : pos;
        Elf_Scn* scn = tamo_elf_getscn(elf, i);
        if (!scn) continue;
        if (seed & 4) tamo_elf_setswapbehavior(scn, 1 + static_cast<int>((seed >> 3) + i) % 4);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        if (!sh) continue;
        touch(tamo_elf_strptr(elf, eh->e_shstrndx, sh->sh_name));
        for (Elf_Data* d = tamo_elf_getdata(scn, nullptr); d; d = tamo_elf_getdata(scn, d)) {
            volatile uint8_t sink = 0;
            const auto* p = static_cast<const uint8_t*>(d->d_buf);
            for (size_t b = 0; b < d->d_size; b += 61) sink = static_cast<uint8_t>(sink + p[b]);
            if (sh->sh_type == SHT_STRTAB && d->d_size) touch(tamo_elf_strptr(elf, i, d->d_size / 2));
            std::vector<uint8_t> out(d->d_size + 8);
            Elf_Data dst{out.data(), ELF_T_BYTE, out.size(), 0, 1, 1};
            tamo_elf32_xlatetof(&dst, d, ELFDATA2MSB);
            tamo_elf32_xlatetom(&dst, d, ELFDATA2LSB);
        }
    }
    size_t steps = 0;
    for (Elf_Scn* scn = nullptr; steps < 512 && (scn = tamo_elf_nextscn(elf, scn)) != nullptr; ++steps)
        tamo_elf_ndxscn(scn);
}

}  // namespace fuzz
