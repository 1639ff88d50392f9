// The library-wide error state: the code of the last failure and, for
// failures of file calls, the name of the operation that failed.
#pragma once

#include <cstdint>

namespace tamo {

enum ErrNo : int32_t {
    ERR_NONE = 0,
    ERR_FD_PARAM = 1,
    ERR_FD_INVALID = 2,
    ERR_MAP_IMAGE = 3,
    ERR_NOMEM = 4,
    ERR_FSTAT = 5,
    ERR_KIND = 6,
    ERR_IMAGE_BASE = 7,
    ERR_READ = 8,
    ERR_FILE_TYPE = 9,
    ERR_AR_SYMTAB_INIT = 10,
    ERR_AR_MEMBER_INIT = 11,
    ERR_AR_NO_MEMBERS = 12,
    ERR_AR_NO_SUCH_MEMBER = 13,
    ERR_INTERNAL = 14,
    ERR_AR_NO_SYMTAB = 15,
    ERR_AR_EOF = 16,
    ERR_LSEEK = 17,
    ERR_AR_NEGATIVE_SIZE = 18,
    ERR_MEMCPY = 19,
    ERR_WRITE_ARCHIVE = 20,
    ERR_NO_SUCH_SCN = 21,
    ERR_NO_EHDR_IN_FILE = 22,
    ERR_E_TYPE = 23,
    ERR_ENCODING = 24,
    ERR_SCN_INDEX = 25,
    ERR_SCN_NAME_EMPTY = 26,
    ERR_GET_SHDR = 27,
    ERR_SH_TYPE = 28,
    ERR_UPDATE = 29,
    ERR_SCN_TOO_SMALL = 30,
    ERR_NEW_DATA = 31,
    ERR_NULL_PARAM = 32,
    ERR_VERSION_NUMBER = 33,
    ERR_NEW_SCN = 34,
    ERR_WRITE_BUFFER = 35,
    ERR_GETDATA_EMPTY = 36,
    ERR_NO_DATA_AT_OFFSET = 37,
    ERR_DESC_TYPE = 38,
    ERR_ACCESS = 39,
    ERR_WRITE_MAPPED = 40,
    ERR_XLATE_SIZE = 41,
    ERR_FDCNTL = 42,
    ERR_ALIGN = 43,
    ERR_NO_EHDR = 44,
    ERR_EI_CLASS = 45,
    ERR_AR_NAME = 46,
    ERR_NO_SCN = 47,
    ERR_CREATE_ELF = 48,
    ERR_ELF_KIND = 49,
    ERR_OPEN = 50,
    ERR_MMAP = 51,
    ERR_MUNMAP = 52,
    ERR_NO_ELF = 53,
    ERR_ELF_VERSION = 54,
    ERR_CREATE_FILEDESC = 55,
    ERR_CLOSE = 56,
    ERR_CREATE_ARDESC = 57,
    ERR_CREATEFILE = 58,
    ERR_AR_GET_MEMBER = 59,
    ERR_AR_GET_DESC = 60,
    ERR_WRITE_DENIED = 61,
    ERR_NULL_FILENAME = 62,
    ERR_ELF_KIND_2 = 63,
    ERR_WRITE = 64,
    ERR_ELF_CMD = 65,
    ERR_FLAGS = 66,
    ERR_DATA_TYPE = 67,
    ERR_STRTAB_TYPE = 68,
    ERR_NO_ARHDR = 69,
    ERR_ELF_MAGIC = 70,
    ERR_SCN_MAGIC = 71,
    ERR_DATA_MAGIC = 72,
    ERR_GC_NULL = 73,
    ERR_GC = 74,
    ERR_RESERVED_75 = 75,
    ERR_RESERVED_76 = 76,
    ERR_RESERVED_77 = 77,
    ERR_RESERVED_78 = 78,
    ERR_WRITE_ENOSPC = 79,
    ERR_NO_VERSION = 80,
    ERR_NO_FILEDESC = 81,
    ERR_SWAP_TYPE = 82,
    ERR_READ_DENIED = 83,
    ERR_FLAG_CMD = 84,
    ERR_CNTL_CMD = 85,
    ERR_WRITE_EBADF = 86,
    ERR_RDWR = 87,
    ERR_LSEEK_EBADF = 88,
    ERR_LSEEK_EINVAL = 89,
    ERR_FLAG_EHDR_LAYOUT = 90,
    ERR_FLAG_SCN_LAYOUT = 91,
    ERR_FLAG_DATA_LAYOUT = 92,
    ERR_OPEN_EACCES = 93,
    ERR_OPEN_EEXIST = 94,
    ERR_OPEN_EINVAL = 95,
    ERR_OPEN_EMFILE = 96,
    ERR_OPEN_ENOENT = 97,
    ERR_SWAP_BEHAVIOR = 98,
    ERR_NUM = 99,
};

class ErrHndr {
public:
    static constexpr int kSlots = 100;
    static constexpr int kSlotSize = 80;
    static const char m_sErrmsgs[kSlots][kSlotSize];

    ErrNo m_code = ERR_NONE;
    const char* m_poster = nullptr;
};

// The one error state of the process.
extern ErrHndr errHandler;

// Records a failure: its code and the context text (may be null).
void SETERR(ErrNo code, const char* context = nullptr) noexcept;

// Map errno after a failed open, lseek or write to a library code.
void report_open_err(int err, const char* context) noexcept;
void report_lseek_err(int err, const char* context) noexcept;
void report_write_err(int err, const char* context) noexcept;

// The code currently pending (without clearing it).
inline ErrNo pendingError() noexcept { return errHandler.m_code; }

// Restores the error state on scope exit, for lookups whose failures are not
// the caller's business.
class ErrorStateGuard {
public:
    ErrorStateGuard() : m_saved(errHandler) {}
    ~ErrorStateGuard() { errHandler = m_saved; }
    ErrorStateGuard(const ErrorStateGuard&) = delete;
    ErrorStateGuard& operator=(const ErrorStateGuard&) = delete;

private:
    ErrHndr m_saved;
};

}  // namespace tamo
