// The error state: the messages, the errno mappings, and how the code and
// the context text are set, read and cleared.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include <unistd.h>

#include "Builder.h"
#include "ErrHndr.h"
#include "Samples.h"
#include "tamoelf.h"

namespace {

// A failing call's result (for pointers, whether there is one) and the code
// it leaves, read and so cleared.
using Outcome = std::pair<long long, int>;
const auto outcome = [](long long result) { return Outcome(result, tamo_elf_errno()); };

TEST(Errors, Messages) {
    // Texts spread over the whole table, among them those with quotes, a
    // missing full stop, the library's own spelling and the duplicate at 63:
    // a text out of place or edited shows here.
    const std::pair<int, const char*> samples[] = {
        {0, "No error has been detected."},
        {1, "Invalid File id parameter \"-1\"."},
        {8, "Error from _read(). bad handle, not open for reading, or locked."},
        {36, "\"get_data\" called for empty section"},
        {49, "Can't recognize the type of the elf descriptor."},
        {56, "Error EBADF \"Bad file number\" from _close(fileid)."},
        {63, "Can't recognize the type of the elf descriptor."},
        {71, "Invalid section descriptor pointer: bad magic number"},
        {73, "NULL pointer to memory passed to GarbageGollector."},
        {86, "Error EBADF \"Bad file number\" from _write(): bad id or not open for write"},
        {98, "Invalid value for swapping behavior identifier."},
    };
    for (const auto& [code, text] : samples) EXPECT_STREQ(tamo_elf_errmsg(code), text) << "code " << code;
    // Every code but 63 has its own text, and each fits its 80-byte slot.
    std::set<std::string> seen;
    for (int code = 0; code < 99; ++code) {
        const std::string text = tamo_elf_errmsg(code);
        EXPECT_TRUE(!text.empty() && text.size() < 80) << code;
        EXPECT_TRUE(code == 63 || seen.insert(text).second) << "code " << code << " repeats " << text;
    }
    // Codes outside the table give code 0's text.
    for (int code : {-1, 99, 100, 1000, -2147483647 - 1})
        EXPECT_STREQ(tamo_elf_errmsg(code), "No error has been detected.") << code;
}

TEST(Errors, ErrnoReturnsAndClearsButKeepsTheContext) {
    tamo::SETERR(tamo::ERR_LSEEK, "init_ElfHdr");
    EXPECT_STREQ(tamo_elf_errmsg(0), "No error has been detected.") << "errmsg reads only its argument";
    EXPECT_EQ(tamo_elf_errno(), 17);
    EXPECT_EQ(tamo_elf_errno(), 0);
    EXPECT_STREQ(elf_lastmsg_poster(), "init_ElfHdr");
    // A later failure without context replaces it; a success leaves the code.
    tamo::SETERR(tamo::ERR_NULL_PARAM);
    EXPECT_EQ(elf_lastmsg_poster(), nullptr);
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_WORD, 2, 1), 8u);
    EXPECT_EQ(tamo_elf_errno(), 32);
}

TEST(Errors, SystemErrorsAndTheirContext) {
    using namespace tamo;
    const std::tuple<void (*)(int, const char*), int, int> rows[] = {
        {report_open_err, ENOENT, 97},  {report_open_err, EACCES, 93},  {report_open_err, EEXIST, 94},
        {report_open_err, EINVAL, 95},  {report_open_err, EMFILE, 96},  {report_open_err, EISDIR, 50},
        {report_lseek_err, EBADF, 88},  {report_lseek_err, EINVAL, 89}, {report_lseek_err, ESPIPE, 17},
        {report_write_err, ENOSPC, 79}, {report_write_err, EBADF, 86},  {report_write_err, EIO, 64},
    };
    for (const auto& [report, err, code] : rows) {
        report(err, "ctx");
        EXPECT_EQ(tamo_elf_errno(), code) << "errno " << err;
        EXPECT_STREQ(elf_lastmsg_poster(), "ctx");
    }
    // The open calls name themselves.
    void* addr = nullptr;
    EXPECT_EQ(outcome(tamo_elf_open("/nonexistent/tamoelf", 0, 0)), Outcome(-1, 97));
    EXPECT_STREQ(elf_lastmsg_poster(), "elf_open");
    EXPECT_EQ(outcome(tamo_elf_mopen("/nonexistent/tamoelf", &addr)), Outcome(-1, 97));
    EXPECT_STREQ(elf_lastmsg_poster(), "elf_mopen");
    EXPECT_EQ(outcome(tamo_elf_mopen(nullptr, &addr)), Outcome(-1, 62));
}

TEST(Errors, CommandsAndTypesOutsideTheEnumerations) {
    // C callers pass any int; each entry answers a value outside its
    // enumeration with its own code (and the sanitizer build checks that no
    // such value is undefined behaviour).
    testkit::initLibrary();
    testkit::MemFile f(testkit::memberObject(testkit::Order::Big, 1));
    const auto cmd = [](int v) { return static_cast<Elf_Cmd>(v); };
    for (int bad : {9, -1, 1000}) {
        lseek(f.fd(), 0, SEEK_SET);  // each attempt reads the file before judging the command
        EXPECT_EQ(outcome(tamo_elf_begin(f.fd(), cmd(bad), nullptr) != nullptr), Outcome(0, 39)) << bad;
    }
    lseek(f.fd(), 0, SEEK_SET);
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(elf, nullptr);
    Elf_Scn* scn = tamo_elf_getscn(elf, 1);
    Elf_Data* data = tamo_elf_getdata(scn, nullptr);
    ASSERT_NE(data, nullptr);
    for (int bad : {9, -1}) {
        EXPECT_EQ(outcome(tamo_elf_cntl(elf, cmd(bad))), Outcome(-1, 85)) << bad;
        EXPECT_EQ(outcome(tamo_elf_update(elf, cmd(bad))), Outcome(-1, 65)) << bad;
        EXPECT_EQ(outcome(tamo_elf_flagelf(elf, cmd(bad), ELF_F_DIRTY)), Outcome(0, 84)) << bad;
        EXPECT_EQ(outcome(tamo_elf_flagscn(scn, cmd(bad), ELF_F_DIRTY)), Outcome(0, 84)) << bad;
        EXPECT_EQ(outcome(tamo_elf_flagdata(data, cmd(bad), ELF_F_DIRTY)), Outcome(0, 84)) << bad;
    }
    const Elf_Type saved = data->d_type;
    uint8_t out[8];
    Elf_Data dst{.d_buf = out, .d_size = sizeof out};
    for (int bad : {20, 25, -1}) {
        const auto type = static_cast<Elf_Type>(bad);
        EXPECT_EQ(outcome(tamo_elf32_fsize(type, 1, EV_CURRENT)), Outcome(0, 67)) << bad;
        data->d_type = type;
        EXPECT_EQ(outcome(tamo_elf32_xlatetom(&dst, data, ELFDATA2MSB) != nullptr), Outcome(0, 67)) << bad;
    }
    data->d_type = saved;
    tamo_elf_end(elf);
}

}  // namespace
