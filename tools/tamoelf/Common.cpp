#include "Common.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tool {

std::string LibraryError::describe() const {
    std::string s = message + " (code " + std::to_string(code);
    if (!context.empty()) s += ", in " + context;
    return s + ")";
}

LibraryError takeLibraryError() {
    LibraryError e;
    e.code = tamo_elf_errno();
    e.message = tamo_elf_errmsg(e.code);
    const char* context = elf_lastmsg_poster();
    if (e.code != 0 && context) e.context = context;
    return e;
}

void clearLibraryError() {
    tamo_elf_errno();
}

Bytes readFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) throw Failure(path + ": cannot open: " + std::strerror(errno));
    Bytes out;
    uint8_t buf[1 << 16];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int err = errno;
            ::close(fd);
            throw Failure(path + ": cannot read: " + std::strerror(err));
        }
        if (n == 0) break;
        out.insert(out.end(), buf, buf + n);
    }
    ::close(fd);
    return out;
}

OutputFile::OutputFile(const std::string& target) : m_target(target) {
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : target.substr(0, slash);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    const std::string pattern = dir + "/." + base + ".tmp-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    m_fd = ::mkstemp(name.data());
    if (m_fd < 0) throw Failure(target + ": cannot create a file beside it: " + std::strerror(errno));
    m_temp = name.data();
}

OutputFile::~OutputFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_committed) ::unlink(m_temp.c_str());
}

void OutputFile::write(const Bytes& bytes) {
    ::lseek(m_fd, 0, SEEK_SET);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw Failure(m_target + ": cannot write: " + std::strerror(n < 0 ? errno : ENOSPC));
        done += static_cast<size_t>(n);
    }
    if (::ftruncate(m_fd, static_cast<off_t>(bytes.size())) != 0)
        throw Failure(m_target + ": cannot write: " + std::strerror(errno));
}

void OutputFile::commit() {
    // mkstemp made the file private; the output gets the usual permissions.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(m_fd, 0644 & ~mask);
    if (::fsync(m_fd) != 0 || ::close(m_fd) != 0) {
        m_fd = -1;
        throw Failure(m_target + ": cannot write: " + std::strerror(errno));
    }
    m_fd = -1;
    if (::rename(m_temp.c_str(), m_target.c_str()) != 0)
        throw Failure(m_target + ": cannot write: " + std::strerror(errno));
    m_committed = true;
}

MemoryFile::MemoryFile(const Bytes& bytes) : m_fd(::memfd_create("tamoelf", 0)) {
    if (m_fd < 0) throw Failure(std::string("cannot make a working file: ") + std::strerror(errno));
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(m_fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(m_fd);
            throw Failure("cannot fill a working file");
        }
        done += static_cast<size_t>(n);
    }
    ::lseek(m_fd, 0, SEEK_SET);
}

MemoryFile::~MemoryFile() {
    ::close(m_fd);
}

Bytes MemoryFile::contents() const {
    const off_t size = ::lseek(m_fd, 0, SEEK_END);
    if (size < 0) throw Failure("cannot read a working file");
    Bytes b(static_cast<size_t>(size));
    if (size > 0 && ::pread(m_fd, b.data(), b.size(), 0) != size) throw Failure("cannot read a working file");
    return b;
}

std::string hex(uint64_t v, int width) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%0*llx", width, static_cast<unsigned long long>(v));
    return buf;
}

std::string stringIn(const Bytes& table, uint32_t at) {
    if (at >= table.size()) return "";
    const auto* p = reinterpret_cast<const char*>(table.data() + at);
    return std::string(p, strnlen(p, table.size() - at));
}

}  // namespace tool
