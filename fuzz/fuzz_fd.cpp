// File ids: any input, as a file (memfd), read with ELF_C_READ or
// ELF_C_RDWR and walked completely.
#include "FuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t seed;
    if (!fuzz::start(data, size, seed)) return 0;
    const int fd = fuzz::inputFile(data, size);
    if (fd < 0) return 0;
    Elf* elf = tamo_elf_begin(fd, (seed & 0x80) ? ELF_C_RDWR : ELF_C_READ, nullptr);
    if (elf) {
        if (tamo_elf_kind(elf) == ELF_K_ELF) fuzz::walkObject(elf, seed);
        Elf* again = tamo_elf_begin(fd, ELF_C_READ, elf);
        tamo_elf_end(again);
        tamo_elf_end(elf);
    }
    close(fd);
    tamo_elf_errno();
    return 0;
}
