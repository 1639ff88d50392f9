// Memory images: any input is read through tamo_elf_memory, walked, ended;
// afterwards the image must be byte for byte what it was, except EI_DATA.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t seed;
    if (!fuzz::start(data, size, seed)) return 0;
    std::vector<uint8_t> original(data, data + size - 1);
    std::vector<uint8_t> image = original;
    if (image.empty()) return 0;
    Elf* elf = tamo_elf_memory(reinterpret_cast<char*>(image.data()), image.size());
    if (elf) {
        fuzz::walkObject(elf, seed);
        tamo_elf_end(elf);
    }
    for (size_t i = 0; i < image.size(); ++i)
        if (i != EI_DATA && image[i] != original[i]) __builtin_trap();  // the image did not come back
    tamo_elf_errno();
    return 0;
}
