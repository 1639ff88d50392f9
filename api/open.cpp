#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "ErrHndr.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" int tamo_elf_open(const char* path, int flags, mode_t mode) {
    const int fd = ::open(path, flags, mode);
    if (fd == -1) report_open_err(errno, "elf_open");
    return fd;
}

extern "C" long tamo_elf_mopen(const char* path, void** address) {
    if (!path) {
        SETERR(ERR_NULL_FILENAME);
        return -1;
    }
    const int fd = ::open(path, O_RDONLY);
    if (fd == -1) {
        report_open_err(errno, "elf_mopen");
        return -1;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        ::close(fd);
        SETERR(ERR_FSTAT);
        return -1;
    }
    // The size must fit the result and the address space; an empty file
    // cannot be mapped.
    if (st.st_size <= 0 || static_cast<uint64_t>(st.st_size) > static_cast<uint64_t>(LONG_MAX) ||
        static_cast<uint64_t>(st.st_size) > SIZE_MAX) {
        ::close(fd);
        SETERR(ERR_MMAP);
        return -1;
    }
    void* p = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) {
        SETERR(ERR_MMAP);
        return -1;
    }
    if (address) *address = p;
    return static_cast<long>(st.st_size);
}
