// The tamoelf tool, run as a user runs it: on the shipped samples (which its
// generator must make again byte for byte), on real compiler objects, and on
// corrupted files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>

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
    const Result r = tool("info --json '" + file + "'");
    return json::parse(r.out);
}
bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

TEST(Tool, SamplesAreMadeAgainByteForByte) {
    TempDir dir;
    int st = 0;
    run(program(TAMO_MKSAMPLES) + " '" + dir.path("") + "'", &st);
    ASSERT_EQ(st, 0);
    for (const char* f : {"sample-big.o", "sample-little.o", "sample-big.a", "sample-little.a"})
        EXPECT_TRUE(readFile(dir.path(f)) == readFile(kSamples + "/" + f)) << f;
}

TEST(Tool, InfoOfTheSamples) {
    for (const char* order : {"big", "little"}) {
        const json j = infoJson(kSamples + "/sample-" + order + ".o");
        SCOPED_TRACE(order);
        EXPECT_EQ(j["kind"], "object");
        EXPECT_EQ(j["header"]["byte_order"], order);
        EXPECT_EQ(j["header"]["machine"], EM_PPC);
        EXPECT_EQ(j["header"]["shentsize"], 44);
        std::vector<std::string> names;
        for (const json& s : j["sections"]) names.push_back(s["name"]);
        EXPECT_EQ(names, (std::vector<std::string>{"", ".text", ".data", ".bss", ".strtab", ".symtab", ".rela.text",
                                                   ".lnno.text", ".rela.lnno.text", ".coff.SDB", ".debug_abbrev",
                                                   ".debug_info", ".debug_line", ".debug_str", ".shstrtab"}));
        EXPECT_EQ(j["sections"][5]["extra"], 0x5a5a);
        const json& main = j["symbols"][4];
        EXPECT_EQ(main["name"], "main");
        EXPECT_EQ(main["type"], "FUNC");
        EXPECT_EQ(main["binding"], "GLOBAL");
        EXPECT_EQ(main["section"], ".text");
        EXPECT_EQ(main["size"], 16);
        EXPECT_EQ(main["extra"], 0x22220001);
        EXPECT_EQ(j["symbols"][7]["section"], "UND");
        const json& r = j["relocations"];
        ASSERT_EQ(r.size(), 5u);
        EXPECT_EQ(r[0]["symbol"], "main");
        EXPECT_EQ(r[0]["addend"], -8);
        EXPECT_EQ(r[2]["symbol"], ".text");
        EXPECT_EQ(r[2]["addend"], 0x101);
        EXPECT_EQ(r[4]["section"], ".rela.lnno.text");
        EXPECT_EQ(r[4]["offset"], 18) << "in 6-byte records, whatever the file holds";
        ASSERT_EQ(j["coff_lines"].size(), 5u);
        EXPECT_EQ(j["coff_lines"][1]["line"], 12);
        ASSERT_EQ(j["coff_symbols"].size(), 5u);
        EXPECT_EQ(j["coff_symbols"][2]["name"], "main");
        EXPECT_EQ(j["coff_symbols"][3]["auxiliary"][4], 16) << "the function's size, in host order";
        ASSERT_EQ(j["dwarf"].size(), 2u);
        EXPECT_EQ(j["dwarf"][0]["version"], 4);
        EXPECT_EQ(j["dwarf"][0]["unit_type"], "compile");
        EXPECT_EQ(j["dwarf"][1]["kind"], "line program");
        EXPECT_TRUE(j["problems"].empty());
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
}

TEST(Tool, InfoOfAnArchive) {
    const json j = infoJson(kSamples + "/sample-big.a");
    EXPECT_EQ(j["kind"], "archive");
    EXPECT_EQ(j["magic"], "!<sola>");
    ASSERT_EQ(j["members"].size(), 2u);
    EXPECT_EQ(j["members"][0]["name"], "sample.o");
    EXPECT_EQ(j["members"][1]["name"], "util.o");
    EXPECT_EQ(j["members"][0]["mode"], 644);
    EXPECT_EQ(j["members"][1]["object"]["symbols"][4]["name"], "util_add");
    std::map<std::string, std::string> defined;
    for (const json& s : j["symbol_table"]) defined[s["name"]] = s["member"];
    EXPECT_EQ(defined, (std::map<std::string, std::string>{{"main", "sample.o"},
                                                           {"table_main", "sample.o"},
                                                           {"scratch", "util.o"},
                                                           {"table_util_add", "util.o"},
                                                           {"util_add", "util.o"}}));
}

TEST(Tool, InfoOfCompilerObjects) {
    // Standard ELF32 objects: 40-byte section headers and 16-byte symbols.
    const json c = infoJson(kData + "/dwarf_sample-c.o");
    EXPECT_TRUE(c["header"]["standard"]);
    EXPECT_EQ(c["header"]["byte_order"], "big");
    std::set<std::string> symbols;
    for (const json& s : c["symbols"]) symbols.insert(s["name"].get<std::string>());
    EXPECT_TRUE(symbols.count("area") && symbols.count("big") && symbols.count("dwarf_sample.c"));
    EXPECT_FALSE(c["dwarf"].empty());
    EXPECT_EQ(c["dwarf"][0]["version"], 5);
    const json cpp = infoJson(kData + "/dwarf_sample-cpp.o");
    bool total = false;
    for (const json& s : cpp["symbols"]) total = total || s["name"] == "_Z5totalPKPKN8geometry5ShapeEi";
    EXPECT_TRUE(total);
    EXPECT_TRUE(cpp["problems"].empty());
}

TEST(Tool, ConvertRoundTripsByteForByte) {
    TempDir dir;
    for (const char* f : {"sample-big.o", "sample-little.o", "sample-big.a", "sample-little.a"}) {
        const bool big = std::string(f).find("big") != std::string::npos;
        const std::string in = kSamples + "/" + f, once = dir.path("once"), twice = dir.path("twice");
        ASSERT_EQ(tool("convert --to " + std::string(big ? "little" : "big") + " '" + in + "' '" + once + "'").status,
                  0);
        const json j = infoJson(once);
        const std::string order = j.contains("header") ? j["header"]["byte_order"] : j["byte_order"];
        EXPECT_EQ(order, big ? "little" : "big") << f;
        ASSERT_EQ(tool("convert --to " + std::string(big ? "big" : "host") + " '" + once + "' '" + twice + "'").status,
                  0);
        EXPECT_TRUE(readFile(twice) == readFile(in)) << f;
        EXPECT_EQ(tool("check '" + once + "'").status, 0) << f;
    }
}

TEST(Tool, FailuresLeaveNoOutput) {
    TempDir dir;
    const std::string out = dir.path("out.o");
    const Result r = tool("convert --to little '" + kData + "/dwarf_sample-c.o' '" + out + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("standard ELF32 object"), std::string::npos) << r.out;
    EXPECT_FALSE(exists(out));
    EXPECT_EQ(run("ls -A '" + dir.path("") + "'"), "") << "no temporary file left";
    EXPECT_NE(tool("convert --to sideways a b").status, 0);
    EXPECT_NE(tool("--help").out.find("convert"), std::string::npos);
    EXPECT_NE(tool("convert --help").out.find("padding bytes"), std::string::npos);
    EXPECT_NE(tool("--version").out.find("tamoelf 1."), std::string::npos);
}

TEST(Tool, CheckReportsCodeAndPlace) {
    TempDir dir;
    const Bytes object = readFile(kSamples + "/sample-big.o");
    const Bytes archive = readFile(kSamples + "/sample-big.a");
    const uint32_t shoff = uint32_t{object[32]} << 24 | uint32_t{object[33]} << 16 | object[34] << 8 | object[35];
    auto patched = [&](const Bytes& b, size_t at, std::initializer_list<uint8_t> v) {
        Bytes c = b;
        std::copy(v.begin(), v.end(), c.begin() + static_cast<long>(at));
        return c;
    };
    struct Row {
        const char* what;
        Bytes bytes;
        std::string expect;  // a part of the report
    };
    Bytes truncated(object.begin(), object.begin() + static_cast<long>(shoff + 44 * 3));
    Bytes farTable = patched(object, 32, {0x00, 0x10, 0x00, 0x00});
    // Section 6 (.rela.text) placed past the end of the file.
    Bytes sectionPast = patched(object, shoff + 44 * 6 + 16, {0x00, 0x01, 0x00, 0x00});
    // The first member's size field says 99999.
    const size_t firstMember = std::string(archive.begin(), archive.end()).find("sample.o/");
    Bytes badMember = archive;
    std::copy_n("99999     ", 10, badMember.begin() + static_cast<long>(firstMember + 16 + 32));
    // The symbol table claims far more symbols than it holds.
    Bytes badTable = patched(archive, 8 + 60, {0x00, 0x00, 0x7f, 0xff});
    const std::vector<Row> rows = {
        {"truncated", truncated, "section header table: the table (15 entries at offset"},
        {"table past the end", farTable, "runs past the end of the file"},
        {"section past the end", sectionPast, "section [6] .rela.text: code 8: Error from _read()"},
        {"bad member size", badMember, "code 11: Error occurs while initializing archive member."},
        {"broken symbol table", badTable, "archive: code 10: Error occurs while initializing symbol table."},
    };
    for (const Row& r : rows) {
        const std::string path = dir.path("bad");
        writeFile(path, r.bytes);
        const Result c = tool("check '" + path + "'");
        EXPECT_EQ(c.status, 1) << r.what;
        EXPECT_NE(c.out.find(r.expect), std::string::npos) << r.what << ":\n" << c.out;
        EXPECT_NE(c.out.find(path), std::string::npos) << r.what;
        // info prints what it could read and the same problems.
        const Result i = tool("info '" + path + "'");
        EXPECT_EQ(i.status, 1) << r.what;
        EXPECT_NE(i.out.find(r.expect), std::string::npos) << r.what;
    }
    for (const char* f : {"sample-big.o", "sample-little.a"})
        EXPECT_EQ(tool("check '" + kSamples + "/" + f + "'").status, 0);
}

}  // namespace
