// The error state: every message, the errno mappings, and how the code and
// the context text are set, read and cleared.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>

#include <unistd.h>

#include "Builder.h"
#include "ErrHndr.h"
#include "Samples.h"
#include "tamoelf.h"

namespace {

// Texts spread over the whole table, among them those with quotes, a
// missing full stop and the library's own spelling: a text out of place or
// edited shows here.
const std::pair<int, const char*> kMessages[] = {
    {0, "No error has been detected."},
    {1, "Invalid File id parameter \"-1\"."},
    {2, "Invalid File id \"-1\"."},
    {8, "Error from _read(). bad handle, not open for reading, or locked."},
    {16, "Unexpected end-of-file while reading: _read returned 0."},
    {21, "Section with index specified does not exist."},
    {32, "Invalid NULL parameter."},
    {36, "\"get_data\" called for empty section"},
    {41, "Destination and source buffers not of equal size"},
    {49, "Can't recognize the type of the elf descriptor."},
    {56, "Error EBADF \"Bad file number\" from _close(fileid)."},
    {63, "Can't recognize the type of the elf descriptor."},
    {70, "Invalid elf descriptor pointer: bad magic number."},
    {71, "Invalid section descriptor pointer: bad magic number"},
    {72, "Invalid data descriptor pointer: bad magic number."},
    {73, "NULL pointer to memory passed to GarbageGollector."},
    {74, "Error occurs while doing garbage collecting."},
    {79, "Error ENOSPC \"no space left on device\" while writing to file."},
    {80, "No ELF version set."},
    {86, "Error EBADF \"Bad file number\" from _write(): bad id or not open for write"},
    {87, "Error in elf_begin(): RDWR command requires file opened for read/write access."},
    {97, "Error ENOENT \"No such file or directory\" from open()."},
    {98, "Invalid value for swapping behavior identifier."},
};

TEST(Errors, MessagesByCode) {
    for (const auto& [code, text] : kMessages) EXPECT_STREQ(tamo_elf_errmsg(code), text) << "code " << code;
    // Every code has its own text (49 and 63 are the same message).
    std::set<std::string> seen;
    for (int code = 0; code < 99; ++code) {
        const std::string text = tamo_elf_errmsg(code);
        EXPECT_FALSE(text.empty()) << code;
        EXPECT_LE(text.size(), 79u) << code;
        if (code != 63) {
            EXPECT_TRUE(seen.insert(text).second) << "code " << code << " repeats " << text;
        }
    }
}

TEST(Errors, CodesOutsideTheTableGiveCodeZerosText) {
    for (int code : {-1, 99, 100, 1000, -2147483647 - 1})
        EXPECT_STREQ(tamo_elf_errmsg(code), "No error has been detected.") << code;
    // errmsg reads only its argument.
    tamo::SETERR(tamo::ERR_READ);
    EXPECT_STREQ(tamo_elf_errmsg(0), "No error has been detected.");
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

TEST(Errors, CommandsAndTypesOutsideTheEnumerations) {
    // C callers pass any int; each entry answers a value outside its
    // enumeration with its own code (and the sanitizer build checks that no
    // such value is undefined behaviour).
    testkit::initLibrary();
    testkit::MemFile f(testkit::memberObject(testkit::Order::Big, 1));
    const auto cmd = [](int v) { return static_cast<Elf_Cmd>(v); };
    for (int bad : {9, -1, 1000}) {
        lseek(f.fd(), 0, SEEK_SET);
        EXPECT_EQ(tamo_elf_begin(f.fd(), cmd(bad), nullptr), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 39) << bad;
    }
    lseek(f.fd(), 0, SEEK_SET);
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(elf, nullptr);
    Elf_Scn* scn = tamo_elf_getscn(elf, 1);
    Elf_Data* data = tamo_elf_getdata(scn, nullptr);
    ASSERT_NE(data, nullptr);
    for (int bad : {9, -1}) {
        EXPECT_EQ(tamo_elf_cntl(elf, cmd(bad)), -1);
        EXPECT_EQ(tamo_elf_errno(), 85);
        EXPECT_EQ(tamo_elf_update(elf, cmd(bad)), -1);
        EXPECT_EQ(tamo_elf_errno(), 65);
        EXPECT_EQ(tamo_elf_flagelf(elf, cmd(bad), ELF_F_DIRTY), 0u);
        EXPECT_EQ(tamo_elf_errno(), 84);
        EXPECT_EQ(tamo_elf_flagscn(scn, cmd(bad), ELF_F_DIRTY), 0u);
        EXPECT_EQ(tamo_elf_errno(), 84);
        EXPECT_EQ(tamo_elf_flagdata(data, cmd(bad), ELF_F_DIRTY), 0u);
        EXPECT_EQ(tamo_elf_errno(), 84);
    }
    for (int bad : {20, 25, -1}) {
        EXPECT_EQ(tamo_elf32_fsize(static_cast<Elf_Type>(bad), 1, EV_CURRENT), 0u);
        EXPECT_EQ(tamo_elf_errno(), 67) << bad;
        uint8_t out[8];
        Elf_Data dst{};
        dst.d_buf = out;
        dst.d_size = sizeof out;
        const Elf_Type saved = data->d_type;
        data->d_type = static_cast<Elf_Type>(bad);
        EXPECT_EQ(tamo_elf32_xlatetom(&dst, data, ELFDATA2MSB), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 67) << bad;
        data->d_type = saved;
    }
    tamo_elf_end(elf);
}

}  // namespace
