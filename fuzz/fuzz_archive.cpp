// Archives through file ids: the symbol table, every member header and
// member object, random access by symbol offsets, reading everything, and
// ending members and archive in either order.
#include <vector>

#include "FuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t seed;
    if (!fuzz::start(data, size, seed)) return 0;
    const int fd = fuzz::inputFile(data, size);
    if (fd < 0) return 0;
    Elf* ar = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    if (ar && tamo_elf_kind(ar) == ELF_K_AR) {
        size_t n = 0;
        Elf_Arsym* syms = tamo_elf_getarsym(ar, &n);
        std::vector<size_t> offsets;
        for (size_t i = 0; syms && i < n && i < 64; ++i) {
            fuzz::touch(syms[i].as_name);
            offsets.push_back(syms[i].as_off);
        }
        std::vector<Elf*> members;
        for (Elf_Cmd cmd = ELF_C_READ; cmd == ELF_C_READ && members.size() < 256;) {
            Elf* m = tamo_elf_begin(fd, ELF_C_READ, ar);
            if (!m) {
                // Skip a member that is not an object: step from the archive.
                break;
            }
            Elf_Arhdr* h = tamo_elf_getarhdr(m);
            if (h) {
                fuzz::touch(h->ar_name);
                fuzz::touch(h->ar_rawname);
            }
            tamo_elf_getbase(m);
            fuzz::walkObject(m, seed);
            members.push_back(m);
            cmd = tamo_elf_next(m);
        }
        for (size_t off : offsets) {
            if (tamo_elf_rand(ar, off) != off) continue;
            Elf* m = tamo_elf_begin(fd, ELF_C_READ, ar);
            if (m) members.push_back(m);
        }
        if (seed & 8) tamo_elf_cntl(ar, ELF_C_FDREAD);
        if (seed & 16) {
            for (Elf* m : members) tamo_elf_end(m);
            tamo_elf_end(ar);
        } else {
            tamo_elf_end(ar);  // takes the members with it
        }
    } else if (ar) {
        tamo_elf_end(ar);
    }
    close(fd);
    tamo_elf_errno();
    return 0;
}
