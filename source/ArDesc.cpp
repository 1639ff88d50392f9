#include "ArDesc.h"

#include <algorithm>

#include "ElfDesc.h"
#include "ErrHndr.h"
#include "FileDesc.h"

using namespace tamo;

ArDesc::~ArDesc() = default;

int ArDesc::initialize() {
    if (!m_pFile) {
        SETERR(ERR_NO_FILEDESC);
        return -1;
    }
    if (m_pFile->m_iFd == -1) {
        SETERR(ERR_FD_INVALID);
        return -1;
    }
    if (m_pFile->m_kind != ELF_K_AR) {
        SETERR(ERR_FILE_TYPE);
        return -1;
    }
    const int fd = m_pFile->m_iFd;
    const int64_t size = m_pFile->m_lFileSize;
    FileWindow file(fd);

    if (!seekSet(fd, 8, "ArDesc:initialize")) return -1;
    ArHeader first;
    const long afterFirst = readArHdr(file, 8, first);
    if (afterFirst < 0) {
        // The end of the file inside a header keeps its own code (16).
        if (pendingError() != ERR_AR_EOF) SETERR(ERR_AR_SYMTAB_INIT);
        return -1;
    }
    long offset = 8;
    if (first.rawName[0] == '/' && first.rawName[1] != '/') {
        m_pSymTab = std::make_unique<ArSymTab>(this);
        offset = m_pSymTab->initialize(afterFirst, first.hdr.ar_size);
        if (offset < 0) {
            SETERR(ERR_AR_SYMTAB_INIT);
            return -1;
        }
    }
    if (!seekSet(fd, offset, "ArDesc:initialize")) return -1;
    while (size > static_cast<int64_t>(offset) + 44) {
        auto member = std::make_unique<ArMember>(this);
        const long next = member->initialize(offset, file);
        if (next < 0) {
            if (pendingError() != ERR_AR_EOF) SETERR(ERR_AR_MEMBER_INIT);
            return -1;
        }
        member->m_index = m_members.size();
        m_byHeaderOffset.emplace(member->headerOffset(), member.get());
        m_members.push_back(std::move(member));
        offset = next;
    }
    return static_cast<int>(m_members.size());
}

ArMember* ArDesc::get_member(long offset) const {
    if (offset < 0 || static_cast<uint64_t>(offset) > UINT32_MAX) return nullptr;
    auto it = m_byHeaderOffset.find(static_cast<uint32_t>(offset));
    return it == m_byHeaderOffset.end() ? nullptr : it->second;
}

ArMember* ArDesc::get_member(const ArMember* member) const {
    if (!member) {
        if (m_members.empty()) {
            SETERR(ERR_AR_NO_MEMBERS);
            return nullptr;
        }
        return m_members.front().get();
    }
    const size_t i = member->m_index;
    if (member->m_pOwner != this || i >= m_members.size() || m_members[i].get() != member ||
        i + 1 >= m_members.size()) {
        SETERR(ERR_AR_NO_SUCH_MEMBER);
        return nullptr;
    }
    return m_members[i + 1].get();
}

void ArDesc::destroy() {
    for (auto& member : m_members)
        if (member->m_pElf) member->m_pElf->destroy();  // clears the link
}
