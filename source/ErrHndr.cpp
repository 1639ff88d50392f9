#include "ErrHndr.h"

#include <cerrno>

namespace tamo {

ErrHndr errHandler;

// One 80-byte slot per code; the texts are part of the interface.
const char ErrHndr::m_sErrmsgs[kSlots][kSlotSize] = {
    /* 0 */ "No error has been detected.",
    /* 1 */ "Invalid File id parameter \"-1\".",
    /* 2 */ "Invalid File id \"-1\".",
    /* 3 */ "Error occurs while mapping file to memory.",
    /* 4 */ "Attempt to allocate memory failed",
    /* 5 */ "Error occurs while doing fstat call.",
    /* 6 */ "Don't recognize the file type - not Elf object or archive.",
    /* 7 */ "Pointer to the beginning of mapped file is corrupted.",
    /* 8 */ "Error from _read(). bad handle, not open for reading, or locked.",
    /* 9 */ "Incorrect file type is found.",
    /* 10 */ "Error occurs while initializing symbol table.",
    /* 11 */ "Error occurs while initializing archive member.",
    /* 12 */ "Can't find any archive member in archive file.",
    /* 13 */ "Can't find archive member specified.",
    /* 14 */ "Library internal error.",
    /* 15 */ "Can't find symbol table.",
    /* 16 */ "Unexpected end-of-file while reading: _read returned 0.",
    /* 17 */ "Unspecified Error from _lseek.",
    /* 18 */ "Size of an archive member is negative number.",
    /* 19 */ "memcpy did not return pointer to destination.",
    /* 20 */ "Write to archive is not allowed.",
    /* 21 */ "Section with index specified does not exist.",
    /* 22 */ "Can't find elf header in the file.",
    /* 23 */ "Undefined e_type value in elf header.",
    /* 24 */ "Undefined e_encoding in elf header.",
    /* 25 */ "Invalid section index.",
    /* 26 */ "Empty section name.",
    /* 27 */ "Trying to get section header failed.",
    /* 28 */ "Invalid section type value.",
    /* 29 */ "Error occurs while updating elf file.",
    /* 30 */ "Section size specified is too small to hold data.",
    /* 31 */ "Unable to create a new data descriptor.",
    /* 32 */ "Invalid NULL parameter.",
    /* 33 */ "Invalid version number.",
    /* 34 */ "Unable to create a new Elf section.",
    /* 35 */ "Error occurs while writing elf file to buffer.",
    /* 36 */ "\"get_data\" called for empty section",
    /* 37 */ "No data at requested offset in the section.",
    /* 38 */ "Incorrect type of elf descriptor.",
    /* 39 */ "Invalid value for access permission.",
    /* 40 */ "Write back to mapped file is not allowed.",
    /* 41 */ "Destination and source buffers not of equal size",
    /* 42 */ "Error occurs while doing FDDONE or FDREAD operation.",
    /* 43 */ "Error occurs while doing alignment of data.",
    /* 44 */ "Missing/NULL elf header.",
    /* 45 */ "Undefined value for EI_CLASS.",
    /* 46 */ "Archive name in the file is corrupted.",
    /* 47 */ "Missing/NULL section descriptor.",
    /* 48 */ "Unable to create an elf descriptor.",
    /* 49 */ "Can't recognize the type of the elf descriptor.",
    /* 50 */ "Cannot open a file: error code returned from open()",
    /* 51 */ "Error occurs while mapping a file into memory.",
    /* 52 */ "Error occurs while unmapping a file.",
    /* 53 */ "Missing/NULL elf descriptor.",
    /* 54 */ "Incorrect ELF version information.",
    /* 55 */ "Unable to create a file descriptor.",
    /* 56 */ "Error EBADF \"Bad file number\" from _close(fileid).",
    /* 57 */ "Unable to create an archive descriptor.",
    /* 58 */ "Unable to open file: CreatFile returned INVALID_HANDLE_VALUE",
    /* 59 */ "Can't get archive member specified.",
    /* 60 */ "Can't get archive descriptor specified.",
    /* 61 */ "Write access denied for file opened for reading.",
    /* 62 */ "Invalid NULL as filename parameter",
    /* 63 */ "Can't recognize the type of the elf descriptor.",
    /* 64 */ "Error from _write()",
    /* 65 */ "Undefined ELF_C_ command.",
    /* 66 */ "Invalid flags parameter.",
    /* 67 */ "Invalid data type.",
    /* 68 */ "Invalid section type.",
    /* 69 */ "Can't find archive header.",
    /* 70 */ "Invalid elf descriptor pointer: bad magic number.",
    /* 71 */ "Invalid section descriptor pointer: bad magic number",
    /* 72 */ "Invalid data descriptor pointer: bad magic number.",
    /* 73 */ "NULL pointer to memory passed to GarbageGollector.",
    /* 74 */ "Error occurs while doing garbage collecting.",
    /* 75 */ "Reserved error code 75.",
    /* 76 */ "Reserved error code 76.",
    /* 77 */ "Reserved error code 77.",
    /* 78 */ "Reserved error code 78.",
    /* 79 */ "Error ENOSPC \"no space left on device\" while writing to file.",
    /* 80 */ "No ELF version set.",
    /* 81 */ "Missing/NULL file descriptor.",
    /* 82 */ "Do not know how to byteswap the type.",
    /* 83 */ "Read access denied for file opened for writing.",
    /* 84 */ "Invalid command for flag operation; only set or clear allowed.",
    /* 85 */ "Invalid command; elf_cntl() supports only FDREAD and FDDONE.",
    /* 86 */ "Error EBADF \"Bad file number\" from _write(): bad id or not open for write",
    /* 87 */ "Error in elf_begin(): RDWR command requires file opened for read/write access.",
    /* 88 */ "Error EBADF \"Bad file number\" from _lseek().",
    /* 89 */ "Error EINVAL \"Invalid argument\" from _lseek().",
    /* 90 */ "Cannot set LAYOUT flag with respect to Elf_Hdr",
    /* 91 */ "No LAYOUT flag in Elf_Scn class.",
    /* 92 */ "No LAYOUT flag in DataDesc class.",
    /* 93 */ "Error EACCES \"Permission denied\" from open().",
    /* 94 */ "Error EEXIST \"File exists\" from open().",
    /* 95 */ "Error EINVAL \"Invalid argument\" from open().",
    /* 96 */ "Error EMFILE \"Too many open files\" from open().",
    /* 97 */ "Error ENOENT \"No such file or directory\" from open().",
    /* 98 */ "Invalid value for swapping behavior identifier.",
    /* 99 */ "ERR_NUM",
};

void SETERR(ErrNo code, const char* context) noexcept {
    errHandler.m_code = code;
    errHandler.m_poster = context;
}

void report_open_err(int err, const char* context) noexcept {
    ErrNo code = ERR_OPEN;
    switch (err) {
    case ENOENT: code = ERR_OPEN_ENOENT; break;
    case EACCES: code = ERR_OPEN_EACCES; break;
    case EEXIST: code = ERR_OPEN_EEXIST; break;
    case EINVAL: code = ERR_OPEN_EINVAL; break;
    case EMFILE: code = ERR_OPEN_EMFILE; break;
    default: break;
    }
    SETERR(code, context);
}

void report_lseek_err(int err, const char* context) noexcept {
    ErrNo code = ERR_LSEEK;
    if (err == EBADF)
        code = ERR_LSEEK_EBADF;
    else if (err == EINVAL)
        code = ERR_LSEEK_EINVAL;
    SETERR(code, context);
}

void report_write_err(int err, const char* context) noexcept {
    ErrNo code = ERR_WRITE;
    if (err == ENOSPC)
        code = ERR_WRITE_ENOSPC;
    else if (err == EBADF)
        code = ERR_WRITE_EBADF;
    SETERR(code, context);
}

}  // namespace tamo
