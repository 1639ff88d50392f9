#include <limits>

#include "Entry.h"

using namespace tamo;

extern "C" off_t tamo_elf_update(Elf* elf, Elf_Cmd cmd) {
    return guarded<off_t>(-1, [&]() -> off_t {
        if (!checkElf(elf)) return -1;
        if (static_cast<unsigned int>(cmd) > ELF_C_RDWR) {
            SETERR(ERR_ELF_CMD);
            return -1;
        }
        if (cmd == ELF_C_NULL) {
            const int64_t size = elf->update();
            if (size > static_cast<int64_t>(std::numeric_limits<off_t>::max())) {
                SETERR(ERR_UPDATE);
                return -1;
            }
            return static_cast<off_t>(size);
        }
        if (cmd != ELF_C_WRITE) return 0;
        if (elf->m_cmd == ELF_C_READ) {
            SETERR(ERR_WRITE_DENIED);
            return -1;
        }
        const int64_t size = elf->update();
        if (size < 0) return -1;
        if (size > static_cast<int64_t>(std::numeric_limits<off_t>::max()) ||
            static_cast<uint64_t>(size) > std::numeric_limits<size_t>::max()) {
            SETERR(ERR_NOMEM);
            return -1;
        }
        if (!elf->m_bDirty) return 0;  // nothing changed: nothing is built or written
        char* image = elf->imageBuffer(static_cast<uint64_t>(size));
        if (!image) return -1;
        const int64_t built = elf->write2buff(image, static_cast<uint64_t>(size));
        if (built <= 0) return static_cast<off_t>(built);
        if (!elf->m_pFile) {
            SETERR(ERR_NO_FILEDESC);
            return -1;
        }
        if (elf->writeImage(image, static_cast<uint64_t>(size)) < 0) return -1;
        elf->commitWrite();
        return static_cast<off_t>(size);
    });
}
