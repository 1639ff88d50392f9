// The common frame of the exported functions: handle checks and the guard
// that keeps exceptions from crossing the interface.
#pragma once

#include <new>

#include "DataDesc.h"
#include "ElfDesc.h"
#include "ElfScn.h"
#include "ErrHndr.h"
#include "Globe.h"
#include "Registry.h"

namespace tamo {

// Runs an entry's body; an allocation failure becomes code 4 and the
// entry's failure value.
template <class R, class F>
R guarded(R failure, F&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        SETERR(ERR_NOMEM);
    } catch (...) {
        SETERR(ERR_INTERNAL);
    }
    return failure;
}

// A live descriptor of its class whose stamp is intact.
inline bool validElf(const Elf* e) { return Registry::live(HandleClass::Elf, e) && e->m_lMagicNum == ELF_MAGIC_NUM; }
inline bool validScn(const Elf_Scn* s) {
    return SlabPool<Elf_Scn>::live(s) && s->m_lMagicNum == SCN_MAGIC_NUM;
}
inline bool validData(const Elf_Data* d) {
    return Elf_Scn::liveData(d) && DataDesc::of(const_cast<Elf_Data*>(d))->m_lMagicNum == DAT_MAGIC_NUM;
}

// Null gives 32, anything but a valid descriptor of its class `code`
// (70 / 71 / 72).
template <class T>
inline T* checkHandle(T* p, bool valid, ErrNo code) {
    if (!p) {
        SETERR(ERR_NULL_PARAM);
        return nullptr;
    }
    if (!valid) {
        SETERR(code);
        return nullptr;
    }
    return p;
}
inline Elf* checkElf(Elf* e) { return checkHandle(e, e && validElf(e), ERR_ELF_MAGIC); }
inline Elf_Scn* checkScn(Elf_Scn* s) { return checkHandle(s, s && validScn(s), ERR_SCN_MAGIC); }
inline DataDesc* checkData(Elf_Data* d) {
    return checkHandle(d, d && validData(d), ERR_DATA_MAGIC) ? DataDesc::of(d) : nullptr;
}

// Entries that take a descriptor without checking its stamp still refuse a
// pointer that is not a live descriptor.
inline bool liveElf(const Elf* e) { return Registry::live(HandleClass::Elf, e); }
inline bool liveScn(const Elf_Scn* s) { return SlabPool<Elf_Scn>::live(s); }
inline bool liveData(const Elf_Data* d) { return Elf_Scn::liveData(d); }

// Owns a descriptor being made until it is handed to the caller.
class ElfGuard {
public:
    explicit ElfGuard(Elf* e = nullptr) : m_e(e) {}
    ~ElfGuard() {
        if (m_e) m_e->destroy();
    }
    ElfGuard(const ElfGuard&) = delete;
    ElfGuard& operator=(const ElfGuard&) = delete;
    Elf* get() const { return m_e; }
    Elf* operator->() const { return m_e; }
    void reset(Elf* e) { m_e = e; }
    Elf* release() {
        Elf* e = m_e;
        m_e = nullptr;
        return e;
    }

private:
    Elf* m_e;
};

}  // namespace tamo
