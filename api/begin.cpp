#include <unistd.h>

#include <memory>

#include "ArDesc.h"
#include "Entry.h"
#include "Globals.h"

using namespace tamo;

namespace {

constexpr uint16_t kMaxActivations = 0xffff;

// Hands an existing descriptor out once more.
Elf* activate(Elf* elf) {
    if (elf->m_activation == kMaxActivations) {
        SETERR(ERR_CREATE_ELF);
        return nullptr;
    }
    ++elf->m_activation;
    return elf;
}

template <class... Args>
Elf* newElf(Args&&... args) {
    Elf* e = new (std::nothrow) Elf(std::forward<Args>(args)...);
    if (!e) SETERR(ERR_CREATE_ELF);
    return e;
}

std::unique_ptr<FileDesc> newFileDesc(int fd, Elf_Cmd cmd) {
    std::unique_ptr<FileDesc> f(new (std::nothrow) FileDesc(fd, cmd));
    if (!f) SETERR(ERR_CREATE_FILEDESC);
    return f;
}

// The member whose header starts at the file position of fd.
Elf* beginMember(int fd, Elf_Cmd cmd, Elf* archive) {
    const int64_t pos = tellPos(fd, "elf_begin");
    if (pos < 0) return nullptr;
    if (!archive->m_pAr) {
        SETERR(ERR_AR_GET_DESC);
        return nullptr;
    }
    ArMember* member = archive->m_pAr->get_member(static_cast<long>(pos));
    if (!member) {
        SETERR(ERR_AR_NO_SUCH_MEMBER);
        return nullptr;
    }
    if (member->m_pElf) return activate(member->m_pElf);
    ElfGuard elf(newElf(member, cmd));
    if (!elf.get()) return nullptr;
    const int r = elf->initialize();
    // Reading the member moved the position; put it back on the member's
    // header so that the walk (tamo_elf_next) is undisturbed. The position
    // was just read, so this seek succeeds; it reports nothing of its own.
    ::lseek(fd, static_cast<off_t>(pos), SEEK_SET);
    if (r < 0) return nullptr;
    return elf.release();
}

}  // namespace

extern "C" Elf* tamo_elf_begin(int fd, Elf_Cmd cmd, Elf* ref) {
    return guarded<Elf*>(nullptr, [&]() -> Elf* {
        if (ref && !validElf(ref)) {
            SETERR(ERR_ELF_MAGIC);
            return nullptr;
        }
        if (g_libelf_version == 0) {
            SETERR(ERR_NO_VERSION);
            return nullptr;
        }
        if (cmd == ELF_C_NULL) return nullptr;
        if (fd == -1) {
            SETERR(ERR_FD_PARAM);
            return nullptr;
        }
        if (cmd == ELF_C_WRITE) {
            auto file = newFileDesc(fd, ELF_C_WRITE);
            if (!file) return nullptr;
            file->initialize();
            ElfGuard elf(newElf(std::move(file), ELF_C_WRITE));
            if (!elf.get() || elf->initialize() < 0) return nullptr;
            return elf.release();
        }
        if (ref) {
            if (ref->m_kind == ELF_K_ELF) {
                if (cmd == ELF_C_RDWR && ref->m_cmd != ELF_C_RDWR) {
                    SETERR(ERR_RDWR);
                    return nullptr;
                }
                return activate(ref);
            }
            return beginMember(fd, cmd, ref);
        }

        auto file = newFileDesc(fd, cmd);
        if (!file || file->initialize() == 0) return nullptr;
        ElfGuard elf;
        if (file->m_kind == ELF_K_AR) {
            if (cmd == ELF_C_RDWR) {
                SETERR(ERR_WRITE_ARCHIVE);
                return nullptr;
            }
            std::unique_ptr<ArDesc> ar(new (std::nothrow) ArDesc(file.get()));
            if (!ar) {
                SETERR(ERR_CREATE_ARDESC);
                return nullptr;
            }
            elf.reset(newElf(std::move(file), std::move(ar), cmd));
            if (!elf.get() || elf->m_pAr->initialize() < 0) return nullptr;
        } else {
            elf.reset(newElf(std::move(file), cmd));
            if (!elf.get()) return nullptr;
        }
        if (elf->initialize() < 0) return nullptr;

        // Archives are left positioned at the first member's header, ELF
        // files at their start.
        int64_t position = 0;
        if (elf->m_pAr) {
            const ArMember* first = elf->m_pAr->get_member(static_cast<const ArMember*>(nullptr));
            if (!first) return nullptr;
            position = first->headerOffset();
        }
        if (!seekSet(fd, position, "elf_begin")) return nullptr;
        return elf.release();
    });
}
