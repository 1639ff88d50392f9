#include <sys/mman.h>
#include <unistd.h>

#include "ErrHndr.h"
#include "tamoelf.h"

using namespace tamo;

extern "C" int tamo_elf_close(int fd) {
    if (fd == -1) {
        SETERR(ERR_FD_PARAM);
        return -1;
    }
    if (::close(fd) != 0) {
        SETERR(ERR_CLOSE);
        return -1;
    }
    return 0;
}

extern "C" int tamo_elf_mclose(void* address, size_t length) {
    if (::munmap(address, length) != 0) {
        SETERR(ERR_MUNMAP);
        return -1;
    }
    return 0;
}
