// The error state: every message, the errno mappings, and how the code and
// the context text are set, read and cleared.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Builder.h"
#include "ErrHndr.h"
#include "tamoelf.h"

namespace {

// The message of every code, as callers see it.
const char* const kMessages[99] = {
    "No error has been detected.",
    "Invalid File id parameter \"-1\".",
    "Invalid File id \"-1\".",
    "Error occurs while mapping file to memory.",
    "Attempt to allocate memory failed",
    "Error occurs while doing fstat call.",
    "Don't recognize the file type - not Elf object or archive.",
    "Pointer to the beginning of mapped file is corrupted.",
    "Error from _read(). bad handle, not open for reading, or locked.",
    "Incorrect file type is found.",
    "Error occurs while initializing symbol table.",
    "Error occurs while initializing archive member.",
    "Can't find any archive member in archive file.",
    "Can't find archive member specified.",
    "Library internal error.",
    "Can't find symbol table.",
    "Unexpected end-of-file while reading: _read returned 0.",
    "Unspecified Error from _lseek.",
    "Size of an archive member is negative number.",
    "memcpy did not return pointer to destination.",
    "Write to archive is not allowed.",
    "Section with index specified does not exist.",
    "Can't find elf header in the file.",
    "Undefined e_type value in elf header.",
    "Undefined e_encoding in elf header.",
    "Invalid section index.",
    "Empty section name.",
    "Trying to get section header failed.",
    "Invalid section type value.",
    "Error occurs while updating elf file.",
    "Section size specified is too small to hold data.",
    "Unable to create a new data descriptor.",
    "Invalid NULL parameter.",
    "Invalid version number.",
    "Unable to create a new Elf section.",
    "Error occurs while writing elf file to buffer.",
    "\"get_data\" called for empty section",
    "No data at requested offset in the section.",
    "Incorrect type of elf descriptor.",
    "Invalid value for access permission.",
    "Write back to mapped file is not allowed.",
    "Destination and source buffers not of equal size",
    "Error occurs while doing FDDONE or FDREAD operation.",
    "Error occurs while doing alignment of data.",
    "Missing/NULL elf header.",
    "Undefined value for EI_CLASS.",
    "Archive name in the file is corrupted.",
    "Missing/NULL section descriptor.",
    "Unable to create an elf descriptor.",
    "Can't recognize the type of the elf descriptor.",
    "Cannot open a file: error code returned from open()",
    "Error occurs while mapping a file into memory.",
    "Error occurs while unmapping a file.",
    "Missing/NULL elf descriptor.",
    "Incorrect ELF version information.",
    "Unable to create a file descriptor.",
    "Error EBADF \"Bad file number\" from _close(fileid).",
    "Unable to create an archive descriptor.",
    "Unable to open file: CreatFile returned INVALID_HANDLE_VALUE",
    "Can't get archive member specified.",
    "Can't get archive descriptor specified.",
    "Write access denied for file opened for reading.",
    "Invalid NULL as filename parameter",
    "Can't recognize the type of the elf descriptor.",
    "Error from _write()",
    "Undefined ELF_C_ command.",
    "Invalid flags parameter.",
    "Invalid data type.",
    "Invalid section type.",
    "Can't find archive header.",
    "Invalid elf descriptor pointer: bad magic number.",
    "Invalid section descriptor pointer: bad magic number",
    "Invalid data descriptor pointer: bad magic number.",
    "NULL pointer to memory passed to GarbageGollector.",
    "Error occurs while doing garbage collecting.",
    nullptr, nullptr, nullptr, nullptr,  // 75-78 reserved: any text
    "Error ENOSPC \"no space left on device\" while writing to file.",
    "No ELF version set.",
    "Missing/NULL file descriptor.",
    "Do not know how to byteswap the type.",
    "Read access denied for file opened for writing.",
    "Invalid command for flag operation; only set or clear allowed.",
    "Invalid command; elf_cntl() supports only FDREAD and FDDONE.",
    "Error EBADF \"Bad file number\" from _write(): bad id or not open for write",
    "Error in elf_begin(): RDWR command requires file opened for read/write access.",
    "Error EBADF \"Bad file number\" from _lseek().",
    "Error EINVAL \"Invalid argument\" from _lseek().",
    "Cannot set LAYOUT flag with respect to Elf_Hdr",
    "No LAYOUT flag in Elf_Scn class.",
    "No LAYOUT flag in DataDesc class.",
    "Error EACCES \"Permission denied\" from open().",
    "Error EEXIST \"File exists\" from open().",
    "Error EINVAL \"Invalid argument\" from open().",
    "Error EMFILE \"Too many open files\" from open().",
    "Error ENOENT \"No such file or directory\" from open().",
    "Invalid value for swapping behavior identifier.",
};

TEST(Errors, EveryMessageByCode) {
    for (int code = 0; code < 99; ++code) {
        const char* text = tamo_elf_errmsg(code);
        ASSERT_NE(text, nullptr) << code;
        if (kMessages[code]) {
            EXPECT_STREQ(text, kMessages[code]) << "code " << code;
        } else {
            EXPECT_GT(std::string(text).size(), 0u) << "reserved code " << code;
        }
        EXPECT_LE(std::string(text).size(), 79u);
    }
}

TEST(Errors, CodesOutsideTheTableGiveCodeZerosText) {
    for (int code : {-1, 99, 100, 1000, -2147483647 - 1})
        EXPECT_STREQ(tamo_elf_errmsg(code), "No error has been detected.") << code;
    // errmsg reads only its argument.
    tamo::SETERR(tamo::ERR_READ);
    EXPECT_STREQ(tamo_elf_errmsg(0), kMessages[0]);
    EXPECT_EQ(tamo_elf_errno(), 8);
}

TEST(Errors, ErrnoReturnsAndClearsButKeepsTheContext) {
    tamo_elf_errno();
    tamo::SETERR(tamo::ERR_LSEEK, "init_ElfHdr");
    EXPECT_EQ(tamo_elf_errno(), 17);
    EXPECT_EQ(tamo_elf_errno(), 0);
    ASSERT_NE(elf_lastmsg_poster(), nullptr);
    EXPECT_STREQ(elf_lastmsg_poster(), "init_ElfHdr");
    // A later failure without context replaces it.
    tamo::SETERR(tamo::ERR_NULL_PARAM);
    EXPECT_EQ(elf_lastmsg_poster(), nullptr);
    tamo_elf_errno();
}

struct Mapping {
    void (*report)(int, const char*);
    int err;
    int code;
};

TEST(Errors, SystemErrorMappings) {
    const Mapping rows[] = {
        {tamo::report_open_err, ENOENT, 97},  {tamo::report_open_err, EACCES, 93},
        {tamo::report_open_err, EEXIST, 94},  {tamo::report_open_err, EINVAL, 95},
        {tamo::report_open_err, EMFILE, 96},  {tamo::report_open_err, EISDIR, 50},
        {tamo::report_lseek_err, EBADF, 88},  {tamo::report_lseek_err, EINVAL, 89},
        {tamo::report_lseek_err, ESPIPE, 17}, {tamo::report_write_err, ENOSPC, 79},
        {tamo::report_write_err, EBADF, 86},  {tamo::report_write_err, EIO, 64},
    };
    for (const Mapping& m : rows) {
        m.report(m.err, "ctx");
        EXPECT_EQ(tamo_elf_errno(), m.code) << "errno " << m.err;
        EXPECT_STREQ(elf_lastmsg_poster(), "ctx");
    }
}

TEST(Errors, OpenFailuresCarryTheirContext) {
    EXPECT_EQ(tamo_elf_open("/nonexistent/tamoelf", 0, 0), -1);
    EXPECT_EQ(tamo_elf_errno(), 97);
    EXPECT_STREQ(elf_lastmsg_poster(), "elf_open");

    void* addr = nullptr;
    EXPECT_EQ(tamo_elf_mopen("/nonexistent/tamoelf", &addr), -1);
    EXPECT_EQ(tamo_elf_errno(), 97);
    EXPECT_STREQ(elf_lastmsg_poster(), "elf_mopen");

    EXPECT_EQ(tamo_elf_mopen(nullptr, &addr), -1);
    EXPECT_EQ(tamo_elf_errno(), 62);
}

TEST(Errors, SuccessesDoNotClearTheCode) {
    tamo::SETERR(tamo::ERR_KIND);
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_WORD, 2, 1), 8u);
    EXPECT_EQ(tamo_elf_errno(), 6);
}

}  // namespace
