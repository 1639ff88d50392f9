// The tamoelf tool, run as a user runs it: on the shipped samples (which its
// generator must make again byte for byte), on real compiler objects, and on
// corrupted files.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Builder.h"
#include "Tools.h"

using namespace testkit;
using nlohmann::json;

namespace {

const std::string kTool = program(TAMO_TOOL);
const std::string kSamples = TAMO_SAMPLES;
const std::string kData = TAMO_TEST_DATA;

struct Result {
    int status;
    std::string out;
};
Result tool(const std::string& args) {
    int st = 0;
    std::string out = run(kTool + " " + args + " 2>&1", &st);
    return {st, out};
}
json infoJson(const std::string& file) {
    return json::parse(tool("info --json '" + file + "'").out);
}

// Each JSON pointer of the table into j, with the value found there (null:
// nothing there).
void expectAt(const json& j, const char* table) {
    const json rows = json::parse(table, nullptr, true, true);
    for (const auto& row : rows.items())
        EXPECT_EQ(j.value(json::json_pointer(row.key()), json()), row.value()) << row.key();
}

TEST(Tool, SamplesAreMadeAgainAndConvertRoundTripsByteForByte) {
    TempDir dir;
    ASSERT_EQ(std::system((program(TAMO_MKSAMPLES) + " '" + dir.path("") + "'").c_str()), 0);
    for (const std::string f : {"sample-big.o", "sample-little.o", "sample-big.a", "sample-little.a"}) {
        SCOPED_TRACE(f);
        const bool big = f.find("big") != std::string::npos;
        const std::string in = kSamples + "/" + f, once = dir.path("once"), twice = dir.path("twice");
        const std::string away = big ? "little" : "big", back = big ? "big" : "host";
        EXPECT_TRUE(readFile(dir.path(f)) == readFile(in));
        EXPECT_EQ(tool("check '" + in + "'").status, 0);
        ASSERT_EQ(tool("convert --to " + away + " '" + in + "' '" + once + "'").status, 0);
        const json j = infoJson(once);
        EXPECT_EQ(j.contains("header") ? j["header"]["byte_order"] : j["byte_order"], away);
        EXPECT_EQ(tool("check '" + once + "'").status, 0);
        ASSERT_EQ(tool("convert --to " + back + " '" + once + "' '" + twice + "'").status, 0);
        EXPECT_TRUE(readFile(twice) == readFile(in));
    }
}

TEST(Tool, InfoOfTheSamples) {
    for (const char* order : {"big", "little"}) {
        SCOPED_TRACE(order);
        const json j = infoJson(kSamples + "/sample-" + order + ".o");
        std::string sections;
        for (const json& s : j["sections"]) sections += s["name"].get<std::string>() + " ";
        EXPECT_EQ(sections,
                  " .text .data .bss .strtab .symtab .rela.text .lnno.text .rela.lnno.text .coff.SDB .debug_abbrev "
                  ".debug_info .debug_line .debug_str .shstrtab ");
        EXPECT_EQ(j["header"]["byte_order"], order);
        expectAt(j, R"({"/kind": "object", "/header/machine": 20 /* EM_PPC */, "/header/shentsize": 44,
            "/sections/5/extra": 23130 /* 0x5a5a */, "/symbols/7/section": "UND", "/problems": [],
            "/symbols/4/name": "main", "/symbols/4/type": "FUNC", "/symbols/4/binding": "GLOBAL",
            "/symbols/4/section": ".text", "/symbols/4/size": 16, "/symbols/4/extra": 572653569 /* 0x22220001 */,
            "/relocations/0/symbol": "main", "/relocations/0/addend": -8, "/relocations/2/symbol": ".text",
            "/relocations/2/addend": 257, "/relocations/4/section": ".rela.lnno.text",
            "/relocations/4/offset": 18 /* in 6-byte records, whatever the file holds */, "/relocations/5": null,
            "/coff_lines/1/line": 12, "/coff_lines/4/line": 15, "/coff_lines/5": null,
            "/coff_symbols/2/name": "main", "/coff_symbols/3/auxiliary/4": 16 /* the function's size, in host order */,
            "/coff_symbols/4/value": 4, "/coff_symbols/5": null, "/dwarf/0/version": 4,
            "/dwarf/0/unit_type": "compile", "/dwarf/1/kind": "line program", "/dwarf/2": null})");
    }
    // The text listing: readelf's layout, stable.
    const Result text = tool("info '" + kSamples + "/sample-big.o'");
    EXPECT_EQ(text.status, 0);
    for (const char* line :
         {"  Data:                              2's complement, big endian",
          "  [ 5] .symtab              SYMTAB     00000000 000084 0000a0 14      4   4  4 00005a5a library",
          "     4: 00000000    16 FUNC    GLOBAL DEFAULT   .text            22220001 main",
          "0000000a  00000406     6  main - 8",
          "  section [11] .debug_info unit at 0x0: version 4, compile, length 0x4b, abbreviations at 0x0, "
          "address size 4"})
        EXPECT_NE(text.out.find(std::string(line) + "\n"), std::string::npos) << line;

    expectAt(infoJson(kSamples + "/sample-big.a"),
             R"({"/kind": "archive", "/magic": "!<sola>", "/members/0/name": "sample.o", "/members/0/mode": 644,
        "/members/1/name": "util.o", "/members/1/object/symbols/4/name": "util_add", "/members/2": null,
        "/symbol_table": [{"name": "main", "member": "sample.o", "offset": 152},
            {"name": "table_main", "member": "sample.o", "offset": 152},
            {"name": "scratch", "member": "sample.o", "offset": 152},
            {"name": "util_add", "member": "util.o", "offset": 1736},
            {"name": "table_util_add", "member": "util.o", "offset": 1736},
            {"name": "scratch", "member": "util.o", "offset": 1736}]})");
}

TEST(Tool, InfoOfCompilerObjects) {
    // Standard ELF32 objects: 40-byte section headers and 16-byte symbols.
    expectAt(infoJson(kData + "/dwarf_sample-c.o"),
             R"({"/header/standard": true, "/header/byte_order": "big", "/dwarf/0/version": 5,
                 "/symbols/1/name": "dwarf_sample.c", "/symbols/16/name": "area", "/symbols/17/name": "big"})");
    expectAt(infoJson(kData + "/dwarf_sample-cpp.o"),
             R"({"/symbols/14/name": "_Z5totalPKPKN8geometry5ShapeEi", "/problems": []})");
}

TEST(Tool, FailuresLeaveNoOutput) {
    TempDir dir;
    const Result r = tool("convert --to little '" + kData + "/dwarf_sample-c.o' '" + dir.path("out.o") + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("standard ELF32 object"), std::string::npos) << r.out;
    EXPECT_EQ(run("ls -A '" + dir.path("") + "'"), "") << "neither the output nor a temporary file";
    EXPECT_NE(tool("convert --to sideways a b").status, 0);
    EXPECT_NE(tool("--help").out.find("convert"), std::string::npos);
    EXPECT_NE(tool("convert --help").out.find("padding bytes"), std::string::npos);
    EXPECT_NE(tool("--version").out.find("tamoelf 1."), std::string::npos);
}

TEST(Tool, CheckAndInfoReportCodeAndPlace) {
    TempDir dir;
    const Bytes object = readFile(kSamples + "/sample-big.o"), archive = readFile(kSamples + "/sample-big.a");
    const uint32_t shoff = uint32_t{object[32]} << 24 | uint32_t{object[33]} << 16 | object[34] << 8 | object[35];
    const size_t firstMember = std::string(archive.begin(), archive.end()).find("sample.o/");
    auto patched = [&](const Bytes& b, size_t at, std::initializer_list<uint8_t> v) {
        Bytes c = b;
        std::copy(v.begin(), v.end(), c.begin() + static_cast<long>(at));
        return c;
    };
    const std::pair<Bytes, const char*> rows[] = {
        // Cut inside the section header table; the table moved past the end.
        // Headers the file holds no byte of are not listed one by one.
        {Bytes(object.begin(), object.begin() + static_cast<long>(shoff + 44 * 3)),
         "section header table: the table (15 entries at offset"},
        {Bytes(object.begin(), object.begin() + static_cast<long>(shoff + 44 * 3 - 1)),
         "; sections [3] to [14], all zeros, are not listed"},
        {patched(object, 32, {0x00, 0x10, 0x00, 0x00}), "runs past the end of the file"},
        {patched(object, 46, {0x00, 0x00, 0xff, 0xff}),
         "entries of 0 bytes (e_shentsize) for 65535 sections; the library reads them as zeros; sections [0] to "
         "[65534], all zeros, are not listed"},
        {patched(object, 46, {0x00, 0x30}), "entries of 48 bytes (e_shentsize; this format's are 44"},
        // Section 6 (.rela.text) placed past the end of the file.
        {patched(object, shoff + 44 * 6 + 16, {0x00, 0x01, 0x00, 0x00}),
         "section [6] .rela.text: code 8: Error from _read()"},
        // The first member's size field says 99999.
        {patched(archive, firstMember + 48, {'9', '9', '9', '9', '9'}),
         "code 11: Error occurs while initializing archive member."},
        // The symbol table claims far more symbols than it holds.
        {patched(archive, 8 + 60, {0x00, 0x00, 0x7f, 0xff}),
         "archive: code 10: Error occurs while initializing symbol table."},
    };
    const std::string path = dir.path("bad");
    for (const auto& [bytes, expect] : rows) {
        writeFile(path, bytes);
        // info prints what it could read and the same problems as check.
        for (const char* command : {"check", "info"}) {
            const Result r = tool(std::string(command) + " '" + path + "'");
            EXPECT_EQ(r.status, 1) << command << ", " << expect;
            EXPECT_NE(r.out.find(expect), std::string::npos) << command << ":\n" << r.out;
            EXPECT_NE(r.out.find(path), std::string::npos) << command << ", " << expect;
        }
    }
    // A name that is not UTF-8 reaches JSON with U+FFFD for its bad byte.
    Bytes named = object;
    const std::string text(named.begin(), named.end());
    named.at(text.find(std::string(".text\0", 6)) + 1) = 0xff;
    writeFile(path, named);
    const Result r = tool("info --json '" + path + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\".\xef\xbf\xbd" "ext\""), std::string::npos) << r.out.substr(0, 400);
}

}  // namespace
