#include <memory>

#include "Entry.h"

using namespace tamo;

extern "C" Elf* tamo_elf_memory(char* image, size_t size) {
    return guarded<Elf*>(nullptr, [&]() -> Elf* {
        std::unique_ptr<FileDesc> file(new (std::nothrow) FileDesc(image, size));
        if (!file) {
            SETERR(ERR_CREATE_FILEDESC);
            return nullptr;
        }
        if (file->initialize() == 0) return nullptr;
        // Archives are read through file ids only; an archive image is left
        // as it is.
        if (file->m_kind != ELF_K_ELF) {
            SETERR(ERR_KIND);
            return nullptr;
        }
        ElfGuard elf(new (std::nothrow) Elf(std::move(file), ELF_C_READ));
        if (!elf.get()) {
            SETERR(ERR_CREATE_ELF);
            return nullptr;
        }
        if (elf->initialize() < 0) return nullptr;  // the guard puts the image back
        return elf.release();
    });
}
