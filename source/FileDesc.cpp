#include "FileDesc.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "ElfDesc.h"
#include "ErrHndr.h"

using namespace tamo;

FileDesc::FileDesc(int fd, Elf_Cmd cmd) : m_iFd(fd), m_cmd(cmd), m_encoding(static_cast<uint8_t>(getDefaultEncoding())) {}

FileDesc::FileDesc(char* image, size_t size)
    : m_iFd(-1),
      m_bImage(TRUEVAL),
      m_pImage(image),
      m_imageSize(size),
      m_cmd(ELF_C_READ),
      m_encoding(static_cast<uint8_t>(getDefaultEncoding())) {}

unsigned FileDesc::getDefaultEncoding() { return Elf::DEFAULT_ENCODING; }

int64_t FileDesc::currentSize() {
    struct stat st;
    if (m_iFd >= 0 && ::fstat(m_iFd, &st) == 0) m_lFileSize = st.st_size;
    return m_lFileSize;
}

const uint8_t* FileDesc::readAhead(int64_t at, size_t n) {
    constexpr size_t kSmall = size_t{32} << 10, kAhead = size_t{128} << 10;
    if (n == 0 || n > kSmall || at < 0 || m_iFd < 0) return nullptr;
    if (const uint8_t* p = m_ahead.covered(at, n)) {
        ++m_aheadHits;
        return p;
    }
    // Reading ahead pays while sections are asked for near one another:
    // the first time, after a window served one, or just past either of
    // its ends (a walk forward or backward). Sections asked for here and
    // there are read on their own, as if there were no window.
    const int64_t start = m_ahead.start(), end = m_ahead.end(), last = at + static_cast<int64_t>(n);
    const bool forward = at >= end && at - end <= static_cast<int64_t>(kSmall);
    const bool backward = last <= start && start - last <= static_cast<int64_t>(kSmall);
    const bool ahead = !m_ahead.everFilled() || m_aheadHits > 0 || forward || backward;
    // Backward, the window ends with the section; otherwise it starts with
    // it and goes as far as the file went when it was opened.
    int64_t from = at;
    size_t want = n;
    if (ahead && backward) {
        from = last > static_cast<int64_t>(kAhead) ? last - static_cast<int64_t>(kAhead) : 0;
        want = static_cast<size_t>(last - from);
    } else if (ahead) {
        const int64_t held = m_lFileSize > at ? m_lFileSize - at : 0;
        want = std::max(n, static_cast<uint64_t>(held) < kAhead ? static_cast<size_t>(held) : kAhead);
    }
    m_aheadHits = 0;
    try {
        if (!m_ahead.fill(from, want)) return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;  // read as if there were no window
    }
    return m_ahead.covered(at, n);
}

bool FileDesc::leaveAt(int64_t position) {
    if (m_batched) {
        m_owed = position;
        return true;
    }
    return seekSet(m_iFd, position, "Elf_Scn::initialize");
}

bool FileDesc::Batch::settle() {
    if (!m_outer || m_file.m_owed < 0) return true;
    const int64_t owed = std::exchange(m_file.m_owed, -1);
    return seekSet(m_file.m_iFd, owed, "Elf_Scn::initialize");
}

namespace tamo {

long FileWindow::fetch(int64_t off, size_t n, const uint8_t** p) {
    if (n > kCapacity) n = kCapacity;
    if (const uint8_t* q = covered(off, n)) {
        *p = q;
        return static_cast<long>(n);
    }
    if (!fill(off, kCapacity)) return -1;
    *p = m_buf.get();
    return static_cast<long>(std::min(n, m_len));
}

bool FileWindow::fill(int64_t off, size_t len) {
    forget();
    if (len > m_room) {
        m_buf = std::make_unique<uint8_t[]>(len);
        m_room = len;
    }
    const ssize_t got = preadFully(m_fd, m_buf.get(), len, off);
    if (got < 0) return false;
    m_start = off;
    m_len = static_cast<size_t>(got);
    return true;
}

}  // namespace tamo

int FileDesc::initialize() {
    if (m_cmd == ELF_C_WRITE) {
        m_kind = ELF_K_ELF;
        m_lFileSize = 0;
        return ELF_K_ELF;
    }
    if (m_iFd == -1 && !isImage()) {
        SETERR(ERR_FD_INVALID);
        return 0;
    }
    if (isImage() && (!m_pImage || m_imageSize == 0)) {
        SETERR(ERR_MAP_IMAGE);
        return 0;
    }

    unsigned char head[9] = {};
    uint64_t length;
    if (isImage()) {
        std::memcpy(head, m_pImage, m_imageSize < sizeof head ? m_imageSize : sizeof head);
        length = m_imageSize;
    } else {
        struct stat st;
        if (::fstat(m_iFd, &st) != 0) {
            SETERR(ERR_FSTAT);
            return 0;
        }
        m_lFileSize = st.st_size;
        if (readFully(m_iFd, head, sizeof head) <= 0) {
            SETERR(ERR_READ);
            return 0;
        }
        length = st.st_size < 0 ? 0 : static_cast<uint64_t>(st.st_size);
    }

    if (length >= 16 && head[0] == 0x7f && head[1] == 'E' && head[2] == 'L' && head[3] == 'F') {
        m_kind = ELF_K_ELF;
        return ELF_K_ELF;
    }
    if (length >= 8) {
        if (std::memcmp(head, "!<sola>\n", 8) == 0) {
            m_encoding = ELFDATA2MSB;
            m_kind = ELF_K_AR;
            return ELF_K_AR;
        }
        if (std::memcmp(head, "!<elfa>\n", 8) == 0) {
            m_encoding = ELFDATA2LSB;
            m_kind = ELF_K_AR;
            return ELF_K_AR;
        }
    }
    SETERR(ERR_KIND);
    return 0;
}

namespace tamo {

bool seekSet(int fd, int64_t off, const char* context) {
    if (off < 0 || static_cast<int64_t>(static_cast<off_t>(off)) != off) {
        report_lseek_err(EINVAL, context);
        return false;
    }
    if (::lseek(fd, static_cast<off_t>(off), SEEK_SET) == static_cast<off_t>(-1)) {
        report_lseek_err(errno, context);
        return false;
    }
    return true;
}

int64_t tellPos(int fd, const char* context) {
    off_t pos = ::lseek(fd, 0, SEEK_CUR);
    if (pos == static_cast<off_t>(-1)) {
        report_lseek_err(errno, context);
        return -1;
    }
    return pos;
}

namespace {
// Reads until n bytes or end of file, retrying interrupted and short reads;
// at the current position (off < 0) or at an absolute offset.
ssize_t readLoop(int fd, void* buf, size_t n, int64_t off) {
    auto* p = static_cast<char*>(buf);
    size_t done = 0;
    while (done < n) {
        ssize_t r;
        if (off < 0) {
            r = ::read(fd, p + done, n - done);
        } else {
            const int64_t at = off + static_cast<int64_t>(done);
            if (static_cast<int64_t>(static_cast<off_t>(at)) != at) return -1;  // beyond this build's off_t
            r = ::pread(fd, p + done, n - done, static_cast<off_t>(at));
        }
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (r == 0) break;
        done += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(done);
}
}  // namespace

ssize_t readFully(int fd, void* buf, size_t n) { return readLoop(fd, buf, n, -1); }

ssize_t preadFully(int fd, void* buf, size_t n, int64_t off) { return off < 0 ? -1 : readLoop(fd, buf, n, off); }

bool readSection(FileDesc& file, int64_t at, uint8_t* buf, size_t n, size_t unit,
                 bool (*convert)(const uint8_t*, uint8_t*, size_t, const void*), const void* context) {
    if (const uint8_t* from = file.readAhead(at, n)) {
        const size_t converted = convert && convert(from, buf, n, context) ? n / unit * unit : 0;
        std::memcpy(buf + converted, from + converted, n - converted);
        return file.leaveAt(at + static_cast<int64_t>(n));
    }
    const int fd = file.m_iFd;
    file.readDirectly();
    if (!seekSet(fd, at, "Elf_Scn::initialize")) return false;
    // A chunk to convert is read into a buffer of the thread's own, small
    // enough to stay in the second-level cache, and converted from there
    // into place: the system's copy then writes to cache lines it already
    // has, and the section's bytes are written once. (Reading straight into
    // place and converting there measured about 10% slower.)
    constexpr size_t kChunk = size_t{512} << 10;
    const size_t chunk = convert ? (unit < kChunk ? kChunk / unit * unit : unit) : n;
    static thread_local std::unique_ptr<uint8_t[]> bounce;
    uint8_t* through = nullptr;  // without it, chunks are read and converted in place
    if (convert && chunk <= kChunk) {
        if (!bounce) bounce.reset(new (std::nothrow) uint8_t[kChunk]);
        through = bounce.get();
    }
    for (size_t done = 0; done < n;) {
        const size_t want = n - done < chunk ? n - done : chunk;
        uint8_t* const into = through ? through : buf + done;
        const ssize_t got = readFully(fd, into, want);
        if (got < 0 || static_cast<size_t>(got) != want) {
            SETERR(ERR_READ);
            return false;
        }
        if (convert) {
            // What is not converted (a partial record at the end, or a
            // chunk the conversion refuses) stays as it was read.
            const size_t converted = convert(into, buf + done, want, context) ? want / unit * unit : 0;
            if (through) std::memcpy(buf + done + converted, into + converted, want - converted);
        }
        done += want;
    }
    return true;
}

}  // namespace tamo
