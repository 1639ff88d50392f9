#include "ArMember.h"

#include <algorithm>
#include <cstring>

#include "ArDesc.h"
#include "ErrHndr.h"
#include "FileDesc.h"

namespace tamo {

namespace {

// strtol in base 10 on a 32-bit host: leading white space, a sign, digits up
// to the first non-digit (which may be in the next field), saturating at the
// 32-bit limits.
int32_t parseDecimal(const char* s) {
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    int64_t v = 0;
    for (; *s >= '0' && *s <= '9'; ++s) {
        v = v * 10 + (*s - '0');
        if (v > static_cast<int64_t>(INT32_MAX) + 1) v = static_cast<int64_t>(INT32_MAX) + 1;
    }
    if (negative) v = -v;
    if (v > INT32_MAX) v = INT32_MAX;
    if (v < INT32_MIN) v = INT32_MIN;
    return static_cast<int32_t>(v);
}

// Reads a 4-byte group of the name field into g; false with code 8 (the read
// failed) or 16 (end of file). A group cut short by the end of the file
// counts as 4 bytes, its missing bytes as NUL.
bool group(FileWindow& file, int64_t off, uint8_t (&g)[4]) {
    const uint8_t* p;
    const long n = file.fetch(off, 4, &p);
    if (n < 0) {
        SETERR(ERR_READ);
        return false;
    }
    if (n == 0) {
        SETERR(ERR_AR_EOF, "readArHdr");
        return false;
    }
    std::memset(g, 0, sizeof g);
    std::memcpy(g, p, static_cast<size_t>(n));
    return true;
}

}  // namespace

long readArHdr(FileWindow& file, long offset, ArHeader& out) {
    uint8_t g[4];
    int64_t pos = offset;
    // The name field: groups of 4 up to the first that holds a '/', then
    // every following group of four spaces.
    do {
        if (!group(file, pos, g)) return -1;
        pos += 4;
    } while (!std::memchr(g, '/', 4));
    for (;;) {
        if (!group(file, pos, g)) return -1;
        if (std::memcmp(g, "    ", 4) != 0) break;
        pos += 4;
    }
    const size_t nameLen = static_cast<size_t>(pos - offset);

    // The name field lies before a byte that was read, so it is all there.
    const uint8_t* p;
    out.rawName.resize(nameLen);
    for (size_t done = 0; done < nameLen;) {
        const size_t chunk = std::min<size_t>(nameLen - done, FileWindow::kCapacity);
        const long n = file.fetch(offset + static_cast<int64_t>(done), chunk, &p);
        if (n < static_cast<long>(chunk)) {
            SETERR(ERR_READ);
            return -1;
        }
        std::memcpy(&out.rawName[done], p, chunk);
        done += chunk;
    }
    out.name = out.rawName.substr(0, out.rawName.find('/'));

    // The fixed part is read as far as the file goes (its trailer is not
    // examined); what is missing reads as spaces, and the member's data then
    // start at the end of the file.
    const long n = file.fetch(pos, 44, &p);
    if (n < 0) {
        SETERR(ERR_READ);
        return -1;
    }
    char fixed[45];
    std::memset(fixed, ' ', 44);
    std::memcpy(fixed, p, static_cast<size_t>(n));
    fixed[44] = '\0';
    out.hdr.ar_date = parseDecimal(fixed + 0);
    out.hdr.ar_uid = parseDecimal(fixed + 12);
    out.hdr.ar_gid = parseDecimal(fixed + 18);
    out.hdr.ar_mode = parseDecimal(fixed + 24);
    out.hdr.ar_size = parseDecimal(fixed + 32);
    out.hdr.ar_name = out.name.data();
    out.hdr.ar_rawname = out.rawName.data();
    return static_cast<long>(pos + n);
}

}  // namespace tamo

long ArMember::initialize(long offset, tamo::FileWindow& file) {
    using namespace tamo;
    const long next = readArHdr(file, offset, m_header);
    if (next < 0) {
        if (pendingError() != ERR_AR_EOF) SETERR(ERR_AR_NAME);
        return -1;
    }
    const int64_t size = m_header.hdr.ar_size;
    const int64_t fileSize = m_pOwner->m_pFile->m_lFileSize;
    // The member's data must lie inside the archive, at an offset the 32-bit
    // format can name.
    if (size < 0 || next + size > fileSize || next + size > static_cast<int64_t>(UINT32_MAX)) {
        SETERR(ERR_AR_MEMBER_INIT);
        return -1;
    }
    m_hdrSize = static_cast<uint32_t>(next - offset);
    m_dataOffset = static_cast<uint32_t>(next);
    return static_cast<long>(next + size + (size & 1));
}
