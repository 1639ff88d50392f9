// Carrying objects between this format and standard ELF32: the tool's
// walkers of the sections the library leaves as bytes (each layout in both
// byte orders from one description, and what they do with malformed input),
// and import, convert and export of real compiler objects and GNU archives,
// judged by llvm-dwarfdump, readelf, ar and nm.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Builder.h"
#include "Tools.h"
#include "Walkers.h"

using namespace testkit;
using tool::Layout;

namespace {

// ---------------------------------------------------------------------------
// Walkers

Bytes walk(Layout layout, Bytes b, Order from, std::vector<tool::WalkProblem>* problems = nullptr) {
    auto found = tool::convertSection(layout, b.data(), b.size(), from == Order::Big);
    if (problems) *problems = std::move(found);
    return b;
}

// A unit of a DWARF 5 table: its length, then the version and the rest.
Fields unit5(const Fields& rest) {
    const Fields body = cat({Fields{{2, 5}}, rest});
    return cat({Fields{{4, width(body)}}, body});
}
Fields expression(const Fields& ops) {
    return cat({uleb(width(ops)), ops});
}
// DW_OP_addr, DW_OP_const2u, DW_OP_breg1 -8: reversed, reversed, copied.
const Fields kExpr = cat({bytes({0x03}), Fields{{4, 0x10002000}}, bytes({0x0a}), Fields{{2, 0x1234}},
                          bytes({0x71}), sleb(-8)});

Fields frameInstructions(bool eh) {
    return cat({bytes({0x0c}), uleb(1), uleb(16),                   // def_cfa r1+16
                bytes({0x41, 0x9f}), uleb(1),                         // advance_loc 1, offset r31
                bytes({0x02, 7, 0x03}), Fields{{2, 0x0102}},          // advance_loc1, advance_loc2
                bytes({0x04}), Fields{{4, 0x01020304}},               // advance_loc4
                bytes({0x01}), Fields{{4, 0x0a0b0c0d}},               // set_loc (eh: sdata4 by 'R')
                bytes({0x0f}), expression(kExpr),                     // def_cfa_expression
                bytes({0x10}), uleb(3), expression(kExpr),            // expression r3
                bytes({0x16}), uleb(4), expression(bytes({0x30})),    // val_expression r4
                bytes({0x11}), uleb(5), sleb(-2), bytes({0x2e}), uleb(16),  // offset_extended_sf, GNU_args_size
                eh ? bytes({0x0a, 0x0b}) : bytes({0xc5, 0x00, 0x00})});     // remember/restore; restore, nops
}

Fields frames() {
    // .debug_frame: a version 1 CIE, a version 4 CIE, an FDE of each.
    const Fields cie1 = cat({Fields{{4, 0xffffffff}}, bytes({1}), str(""), uleb(4), sleb(-4), bytes({65}),
                             frameInstructions(false)});
    const Fields cie4 = cat({Fields{{4, 0xffffffff}}, bytes({4}), str(""), bytes({4, 0}), uleb(4), sleb(-4), uleb(65),
                             frameInstructions(false)});
    Fields out = cat({Fields{{4, width(cie1)}}, cie1});
    const uint32_t second = static_cast<uint32_t>(width(out));
    out = cat({out, Fields{{4, width(cie4)}}, cie4});
    for (uint32_t cie : {0u, second}) {
        const Fields fde = cat({Fields{{4, cie}, {4, 0x100}, {4, 0x40}}, frameInstructions(false)});
        out = cat({out, Fields{{4, width(fde)}}, fde});
    }
    return out;
}

Fields ehFrames() {
    // A "zPLR" CIE (personality indirect pcrel sdata4, LSDA and FDE pointers
    // pcrel sdata4), an FDE with an LSDA, the terminator.
    const Fields cie = cat({Fields{{4, 0}}, bytes({1}), str("zPLR"), uleb(4), sleb(-4), bytes({65}),
                            uleb(7), bytes({0x9b}), Fields{{4, 0x11223344}}, bytes({0x1b, 0x1b}),
                            frameInstructions(true)});
    Fields out = cat({Fields{{4, width(cie)}}, cie});
    const uint32_t fdeAt = static_cast<uint32_t>(width(out));
    const Fields fde = cat({Fields{{4, fdeAt + 4}, {4, 0xfffff000}, {4, 0x80}}, uleb(4), Fields{{4, 0x55667788}},
                            frameInstructions(true)});
    return cat({out, Fields{{4, width(fde)}}, fde, Fields{{4, 0}}});
}

Fields nameIndex() {
    // One CU, one local TU, one foreign TU, 2 buckets, 2 names; an
    // abbreviation (DW_IDX_compile_unit data1, die_offset ref4, type_hash
    // data8, parent flag_present); an entry pool of two lists.
    const Fields abbrevs = cat({uleb(1), uleb(0x2e), uleb(1), uleb(0x0b), uleb(3), uleb(0x13), uleb(5), uleb(0x07),
                                uleb(4), uleb(0x19), uleb(0), uleb(0), uleb(0)});
    const Fields entry = cat({uleb(1), bytes({0}), Fields{{4, 0x2a}, {8, 0x0102030405060708}}});
    return unit5(cat({Fields{{2, 0}, {4, 1}, {4, 1}, {4, 1}, {4, 2}, {4, 2}, {4, width(abbrevs)}, {4, 4}},
                      raw(std::string("LLVM")),
                      Fields{{4, 0x10}, {4, 0x20}, {8, 0x1122334455667788}},  // CU, local TU, foreign TU
                      Fields{{4, 1}, {4, 0}, {4, 0xdeadbeef}, {4, 0xfeedface}},  // buckets, hashes
                      Fields{{4, 0x100}, {4, 0x200}, {4, 0}, {4, 0x11}},       // string and entry offsets
                      abbrevs, entry, bytes({0}), entry, entry, bytes({0})}));
}

Fields macros() {
    // A version 5 unit with a line offset and an operand table for vendor
    // opcode 0xe0 (data4, udata), then every opcode; a version 4 unit.
    const Fields ops = cat({bytes({0x03}), uleb(0), uleb(1), bytes({0x01}), uleb(1), str("A 1"),  // start_file, define
                            bytes({0x05}), uleb(2), Fields{{4, 0x40}}, bytes({0x0b}), uleb(3), uleb(4),
                            bytes({0x0c}), uleb(5), uleb(6), bytes({0x07}), Fields{{4, 0x80}},  // strx, import
                            bytes({0xe0}), Fields{{4, 0xabcdef01}}, uleb(300), bytes({0x04, 0})});
    return cat({Fields{{2, 5}}, bytes({0x06}), Fields{{4, 0x30}}, bytes({1, 0xe0}), uleb(2), bytes({0x06, 0x0f}), ops,
                Fields{{2, 4}}, bytes({0x00}), bytes({0x02}), uleb(9), str("B"), bytes({0x06}), uleb(1),
                Fields{{4, 7}}, bytes({0})});
}

struct WalkCase {
    const char* what;
    Layout layout;
    Fields content;
};

std::vector<WalkCase> walkCases() {
    const Fields rangeEntries = cat({bytes({1}), uleb(3), bytes({2}), uleb(1), uleb(2), bytes({3}), uleb(1), uleb(9),
                                     bytes({4}), uleb(0x10), uleb(0x20), bytes({5}), Fields{{4, 0x1000}},
                                     bytes({6}), Fields{{4, 0x1000}, {4, 0x2000}}, bytes({7}), Fields{{4, 0x3000}},
                                     uleb(0x40), bytes({0})});
    const Fields e = expression(kExpr);
    const Fields locationEntries =
        cat({bytes({1}), uleb(3), bytes({2}), uleb(1), uleb(2), e, bytes({3}), uleb(1), uleb(9), e, bytes({4}),
             uleb(0x10), uleb(0x20), e, bytes({5}), e, bytes({6}), Fields{{4, 0x1000}}, bytes({7}),
             Fields{{4, 0x1000}, {4, 0x2000}}, e, bytes({8}), Fields{{4, 0x3000}}, uleb(0x40), e, bytes({9}), uleb(1),
             uleb(2), bytes({0})});
    const Fields arangesBody = cat({Fields{{2, 2}, {4, 0x44}}, bytes({4, 0}), raw(Bytes(4, 0)),
                                    Fields{{4, 0x1000}, {4, 0x20}, {4, 0x2000}, {4, 0x30}, {4, 0}, {4, 0}}});
    const Fields aranges64 = cat({Fields{{2, 2}, {8, 0x44}}, bytes({4, 0}),
                                  Fields{{4, 0x1000}, {4, 0x20}, {4, 0}, {4, 0}}});
    const Fields pubBody = cat({Fields{{2, 2}, {4, 0}, {4, 0x100}, {4, 0x2d}}, str("main"), Fields{{4, 0x40}},
                                str("counter"), Fields{{4, 0}}});
    const Fields gnuBody = cat({Fields{{2, 2}, {4, 0}, {4, 0x100}, {4, 0x2d}}, bytes({0x30}), str("main"),
                                Fields{{4, 0}}});
    return {
        {"words", Layout::Words, words({1, 0x01020304, 0xfffffffe})},
        {"notes", Layout::Note, cat({Fields{{4, 4}, {4, 6}, {4, 3}}, str("GNU"), bytes({1, 2, 3, 4, 5, 6, 0, 0})})},
        {"aranges, 32- and 64-bit",
         Layout::Aranges,
         cat({Fields{{4, width(arangesBody)}}, arangesBody, Fields{{4, 0xffffffff}, {8, width(aranges64)}},
              aranges64})},
        {"pubnames", Layout::Pubnames, cat({Fields{{4, width(pubBody)}}, pubBody})},
        {"gnu_pubnames", Layout::GnuPubnames, cat({Fields{{4, width(gnuBody)}}, gnuBody})},
        {"loc", Layout::Loc,
         cat({Fields{{4, 0x10}, {4, 0x20}, {2, width(kExpr)}}, kExpr, Fields{{4, 0xffffffff}, {4, 0x4000}},
              Fields{{4, 0x30}, {4, 0x38}, {2, 1}}, bytes({0x50}), Fields{{4, 0}, {4, 0}}})},
        {"debug_frame", Layout::Frame, frames()},
        {"eh_frame", Layout::EhFrame, ehFrames()},
        {"str_offsets", Layout::StrOffsets, unit5(cat({Fields{{2, 0}}, words({0, 5, 12})}))},
        {"addr", Layout::Addr, unit5(cat({bytes({4, 0}), words({0x1000, 0x2000})}))},
        {"rnglists", Layout::Rnglists,
         unit5(cat({bytes({4, 0}), Fields{{4, 2}, {4, 8}, {4, 10}}, rangeEntries}))},
        {"loclists", Layout::Loclists,
         unit5(cat({bytes({4, 0}), Fields{{4, 1}, {4, 4}}, locationEntries}))},
        {"names", Layout::Names, nameIndex()},
        {"macro", Layout::Macro, macros()},
    };
}

TEST(Walkers, EveryLayoutInBothOrders) {
    for (const WalkCase& c : walkCases()) {
        SCOPED_TRACE(c.what);
        for (Order from : {Order::Big, Order::Little}) {
            std::vector<tool::WalkProblem> problems;
            EXPECT_EQ(walk(c.layout, encode(c.content, from), from, &problems), encode(c.content, other(from)))
                << "from " << name(from);
            for (const auto& p : problems) ADD_FAILURE() << p.offset << ": " << p.what;
        }
    }
}

TEST(Walkers, MalformedInputIsBoundedReportedAndComesBack) {
    // Every case cut at every length, and with each byte in turn set to
    // 0xff: no read or write outside the bytes, the walk is reported where
    // it stops, and converting back gives the input again.
    for (const WalkCase& c : walkCases()) {
        SCOPED_TRACE(c.what);
        const Bytes whole = encode(c.content, Order::Big);
        size_t reported = 0;
        for (size_t n = 0; n < whole.size(); ++n) {
            Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
            std::vector<tool::WalkProblem> problems;
            const Bytes there = walk(c.layout, cut, Order::Big, &problems);
            EXPECT_EQ(walk(c.layout, there, Order::Little), cut) << "cut at " << n;
            reported += !problems.empty();
            for (const auto& p : problems) EXPECT_LE(p.offset, n);
        }
        EXPECT_GT(reported, whole.size() / 2) << "most cuts are noticed";
        for (size_t i = 0; i < whole.size(); ++i) {
            Bytes bad = whole;
            bad[i] = 0xff;
            EXPECT_EQ(walk(c.layout, walk(c.layout, bad, Order::Big), Order::Little), bad) << "byte " << i;
        }
    }
}

TEST(Walkers, WhatTheyCannotWalkIsNamed) {
    struct Row {
        Layout layout;
        Fields content;
        const char* says;
    } rows[] = {
        {Layout::Words, cat({words({1}), bytes({1, 2})}), "2 bytes after the last whole word"},
        {Layout::Aranges, cat({Fields{{4, 8}, {2, 3}, {2, 0}, {4, 0}}}), "version 3 not known"},
        {Layout::StrOffsets, Fields{{4, 0xfffffff5}}, "reserved length"},
        {Layout::Addr, cat({Fields{{4, 100}, {2, 5}}}), "runs past the end of the section"},
        {Layout::Rnglists, unit5(cat({bytes({4, 0}), Fields{{4, 0}}, bytes({0x0d})})), "range list entry kind 0x0d"},
        {Layout::Frame, Fields{{4, 8}, {4, 0x40}, {4, 0}}, "names a CIE at 64"},
        {Layout::Frame, cat({Fields{{4, 8}, {4, 0xffffffff}}, bytes({1}), str("xy")}), "augmentation \"xy\""},
        {Layout::EhFrame,
         cat({Fields{{4, 10}, {4, 0}}, bytes({1}), str(""), uleb(1), sleb(-4), bytes({65}), bytes({0x3f})}),
         "call frame instruction 0x3f"},
        {Layout::Names,
         unit5(cat({Fields{{2, 0}, {4, 0}, {4, 0}, {4, 0}, {4, 0}, {4, 0}, {4, 1}, {4, 0}}, bytes({0, 7})})),
         "abbreviation 7"},
        {Layout::Macro, cat({Fields{{2, 5}}, bytes({0, 0x42})}), "macro opcode 0x42"},
    };
    for (const Row& r : rows) {
        for (Order from : {Order::Big, Order::Little}) {
            const Bytes in = encode(r.content, from);
            std::vector<tool::WalkProblem> problems;
            const Bytes out = walk(r.layout, in, from, &problems);
            ASSERT_FALSE(problems.empty()) << r.says;
            EXPECT_NE(problems[0].what.find(r.says), std::string::npos) << problems[0].what;
            EXPECT_EQ(walk(r.layout, out, other(from)), in) << r.says;
        }
    }
}

TEST(Walkers, LayoutsByNameAndType) {
    struct Row {
        const char* name;
        uint32_t type, flags;
        Layout layout;
    } rows[] = {
        {".text", SHT_PROGBITS, 0, Layout::Program},
        {".debug_info", SHT_PROGBITS, 0, Layout::Library},
        {".debug_line.text", SHT_PROGBITS, 0, Layout::Library},
        {".debug_line_str", SHT_PROGBITS, 0, Layout::NoOrder},
        {".debug_types", SHT_PROGBITS, 0, Layout::Types},
        {".debug_ranges", SHT_PROGBITS, 0, Layout::Words},
        {".debug_frame", SHT_PROGBITS, 0, Layout::Frame},
        {".debug_frame", SHT_PROGBITS, 0x800, Layout::Unknown},  // compressed
        {".debug_loc.dwo", SHT_PROGBITS, 0, Layout::Unknown},
        {".gcc_except_table", SHT_PROGBITS, 0, Layout::Unknown},
        {".lnno.text", 15, 0, Layout::Library},
        {".fini_array", 15, 0, Layout::Words},
        {".group", 17, 0, Layout::Words},
        {".rela.lnno.text", SHT_RELA, 0, Layout::Library},
        {".note.x", SHT_NOTE, 0, Layout::Note},
        {".llvm_addrsig", 0x6fff4c03, 0, Layout::Unknown},
        {".bss", SHT_NOBITS, 0, Layout::NoOrder},
    };
    for (const Row& r : rows) EXPECT_EQ(tool::layoutOf(r.name, r.type, r.flags), r.layout) << r.name;
}

// ---------------------------------------------------------------------------
// Import, convert, export

const std::string kTool = program(TAMO_TOOL);

int tool(const std::string& args, std::string* output = nullptr) {
    int st = 0;
    const std::string out = run(kTool + " " + args + " 2>&1", &st);
    if (output) *output = out;
    return st;
}

// What the standard tools say about an object, without the lines that name
// the file or say where in it a table lies.
std::string dwarfdump(const std::string& file) {
    return run("llvm-dwarfdump -v --all '" + file + "' 2>&1 | tail -n +2");
}
std::string readelf(const std::string& options, const std::string& file) {
    return run("readelf -W " + options + " '" + file + "' 2>&1 | sed 's/ at offset 0x[0-9a-f]*//'");
}

bool toolchain() {
    return have("clang") && have("llvm-dwarfdump") && have("readelf") && have("ar") && have("nm");
}

struct Variant {
    std::string source;  // in tests/data
    bool big;            // the compiler's byte order
    unsigned version;
    std::string flags;
};
void PrintTo(const Variant& v, std::ostream* os) { *os << v.source << " -gdwarf-" << v.version << ' ' << v.flags; }

std::string variantName(const testing::TestParamInfo<Variant>& info) {
    const Variant& v = info.param;
    std::string n = (v.source.find(".cpp") != std::string::npos ? "Cpp" : "C") + std::string(v.big ? "Big" : "Little") +
                    "Dwarf" + std::to_string(v.version);
    for (char c : v.flags)
        if (std::isalnum(static_cast<unsigned char>(c))) n += c;
    return n;
}

std::vector<Variant> variants() {
    // Every version, both optimisation levels, with and without type units;
    // lookup tables, macros and .debug_frame at -O0, GNU lookup tables at
    // -O2. Little-endian output converted to big-endian too.
    std::vector<Variant> out;
    for (const char* source : {"dwarf_sample.c", "dwarf_sample.cpp"})
        for (unsigned version = 2; version <= 5; ++version)
            for (const char* types : {"", " -fdebug-types-section"}) {
                out.push_back({source, true, version,
                               std::string("-O0 -gpubnames -gdwarf-aranges -fdebug-macro") + types});
                out.push_back({source, true, version,
                               std::string("-O2 -ggnu-pubnames -fno-asynchronous-unwind-tables -fno-unwind-tables") +
                                   types});
            }
    for (unsigned version = 2; version <= 5; ++version)
        out.push_back({"dwarf_sample.cpp", false, version, "-O2 -fdebug-types-section -gdwarf-aranges"});
    return out;
}

class RealObjects : public testing::TestWithParam<Variant> {};

TEST_P(RealObjects, ImportConvertExportPrintsWhatTheOriginalPrints) {
    if (!toolchain()) GTEST_SKIP() << "needs clang, llvm-dwarfdump, readelf, ar, nm";
    const Variant& v = GetParam();
    TempDir dir;
    const std::string in = dir.path("in.o"), imported = dir.path("imported"), converted = dir.path("converted"),
                      exported = dir.path("exported.o"), back = dir.path("back");
    int st = 0;
    run(std::string("clang --target=") + (v.big ? "powerpc" : "powerpcle") + "-linux-gnu -fno-addrsig -c -gdwarf-" +
            std::to_string(v.version) + " " + v.flags + " '" + TAMO_TEST_DATA + "/" + v.source + "' -o '" + in + "'",
        &st);
    ASSERT_EQ(st, 0);
    std::string said;
    ASSERT_EQ(tool("import '" + in + "' '" + imported + "'", &said), 0) << said;
    ASSERT_EQ(tool(std::string("convert --to ") + (v.big ? "little" : "big") + " '" + imported + "' '" + converted + "'",
                   &said),
              0)
        << said;
    // Only exception tables, whose layout the tool does not walk, are left
    // as they were (and said so).
    std::istringstream lines(said);
    for (std::string line; std::getline(lines, line);)
        EXPECT_NE(line.find(".gcc_except_table: a layout the tool does not know"), std::string::npos) << line;
    ASSERT_EQ(tool("export '" + converted + "' '" + exported + "'", &said), 0) << said;

    EXPECT_EQ(dwarfdump(exported), dwarfdump(in));
    EXPECT_EQ(readelf("-s", exported), readelf("-s", in));
    EXPECT_EQ(readelf("-r", exported), readelf("-r", in));
    ASSERT_EQ(tool(std::string("convert --to ") + (v.big ? "big" : "little") + " '" + converted + "' '" + back + "'"),
              0);
    EXPECT_TRUE(readFile(back) == readFile(imported)) << "converting back gives the imported file";
}

INSTANTIATE_TEST_SUITE_P(Interop, RealObjects, testing::ValuesIn(variants()), variantName);

TEST(Interop, GnuArchiveRoundTrip) {
    if (!toolchain()) GTEST_SKIP() << "needs clang, llvm-dwarfdump, readelf, ar, nm";
    TempDir dir;
    int st = 0;
    for (const char* s : {"c", "cpp"})
        run(std::string("clang --target=powerpc-linux-gnu -fno-addrsig -c -g -O2 '") + TAMO_TEST_DATA +
                "/dwarf_sample." + s + "' -o '" + dir.path(std::string("s_") + s + ".o") + "'",
            &st);
    run("cd '" + dir.path("") + "' && printf 'odd' > notes.txt && ar rcs lib.a s_c.o notes.txt s_cpp.o", &st);
    ASSERT_EQ(st, 0);
    std::string said;
    ASSERT_EQ(tool("import '" + dir.path("lib.a") + "' '" + dir.path("big.a") + "'", &said), 0) << said;
    EXPECT_NE(said.find("notes.txt): not an ELF object"), std::string::npos) << said;
    const Bytes imported = readFile(dir.path("big.a"));
    ASSERT_GE(imported.size(), 8u);
    EXPECT_EQ(std::string(imported.begin(), imported.begin() + 8), "!<sola>\n");

    // info lists the members and each symbol in its member.
    const auto j = nlohmann::json::parse(run(kTool + " info --json '" + dir.path("big.a") + "'"));
    std::vector<std::string> members;
    for (const auto& m : j["members"]) members.push_back(m["name"]);
    EXPECT_EQ(members, (std::vector<std::string>{"s_c.o", "notes.txt", "s_cpp.o"}));
    std::string armap;
    for (const auto& s : j["symbol_table"])
        armap += s["name"].get<std::string>() + " in " + s["member"].get<std::string>() + "\n";
    const std::string gnuArmap = run("nm --print-armap '" + dir.path("lib.a") + "' | sed -n '/^Archive index/,/^$/p'");
    EXPECT_EQ("Archive index:\n" + armap + "\n", gnuArmap);

    ASSERT_EQ(tool("convert --to little '" + dir.path("big.a") + "' '" + dir.path("little.a") + "'"), 0);
    ASSERT_EQ(tool("export '" + dir.path("little.a") + "' '" + dir.path("out.a") + "'"), 0);
    EXPECT_EQ(run("ar t '" + dir.path("out.a") + "'"), "s_c.o\nnotes.txt\ns_cpp.o\n");
    EXPECT_EQ(run("nm --print-armap '" + dir.path("out.a") + "' | sed -n '/^Archive index/,/^$/p'"), gnuArmap);
    run("mkdir '" + dir.path("x") + "' && cd '" + dir.path("x") + "' && ar x ../out.a", &st);
    ASSERT_EQ(st, 0);
    for (const char* s : {"s_c.o", "s_cpp.o"})
        EXPECT_EQ(dwarfdump(dir.path(std::string("x/") + s)), dwarfdump(dir.path(s))) << s;
    EXPECT_TRUE(readFile(dir.path("x/notes.txt")) == readFile(dir.path("notes.txt")));
    ASSERT_EQ(tool("convert --to big '" + dir.path("little.a") + "' '" + dir.path("again.a") + "'"), 0);
    EXPECT_TRUE(readFile(dir.path("again.a")) == imported) << "converting back is byte-identical";
}

TEST(Interop, RefusalsNameThePlaceAndLeaveNoOutput) {
    if (!toolchain()) GTEST_SKIP() << "needs clang, readelf, ar";
    TempDir dir;
    const std::string src = std::string(TAMO_TEST_DATA) + "/dwarf_sample.c";
    const std::string prepare =
        "cd '" + dir.path("") + "' && clang --target=powerpc-linux-gnu -c '" + src + "' -o be.o && " +
        "clang --target=powerpcle-linux-gnu -c '" + src + "' -o le.o && clang --target=x86_64-linux-gnu -c '" + src +
        "' -o x64.o && cp be.o a_member_named_at_length.o && ar rcs long.a be.o a_member_named_at_length.o && " +
        "ar rcs mixed.a be.o le.o";
    int st = 0;
    run(prepare, &st);
    ASSERT_EQ(st, 0);
    struct Row {
        std::string command;
        const char* says;
    } rows[] = {
        {"import x64.o", "x64.o: a 64-bit ELF object"},
        {"import long.a", "member a_member_named_at_length.o (at offset"},
        {"import mixed.a", "mixed.a(le.o): of the other byte order"},
        {"export be.o", "be.o: section headers of 40 bytes, not 44"},
        {"export " + std::string(TAMO_SAMPLES) + "/sample-big.o", "section [5] .symtab: sh_extra is 0x5a5a"},
        {"convert --to little be.o", "bring it in with `tamoelf import` first"},
    };
    for (const Row& r : rows) {
        int status = 0;
        const std::string said = run("cd '" + dir.path("") + "' && " + kTool + " " + r.command + " out 2>&1", &status);
        EXPECT_EQ(status, 1) << r.command;
        EXPECT_NE(said.find(r.says), std::string::npos) << r.command << ": " << said;
        struct stat s;
        EXPECT_NE(::stat(dir.path("out").c_str(), &s), 0) << r.command << " left an output";
    }
    // A non-relocatable object: made from the object by changing its type.
    Bytes exec = readFile(dir.path("be.o"));
    exec[17] = ET_EXEC;
    writeFile(dir.path("exec.o"), exec);
    std::string said;
    EXPECT_EQ(tool("import '" + dir.path("exec.o") + "' '" + dir.path("out") + "'", &said), 1);
    EXPECT_NE(said.find("not a relocatable object"), std::string::npos) << said;
    // With --drop-extra the sample goes out, and says what it dropped.
    EXPECT_EQ(tool("export --drop-extra '" + std::string(TAMO_SAMPLES) + "/sample-big.o' '" + dir.path("s.o") + "'",
                   &said),
              0);
    EXPECT_NE(said.find("non-zero sh_extra or st_extra dropped"), std::string::npos) << said;
    EXPECT_NE(readelf("-s", dir.path("s.o")).find("main"), std::string::npos);
}

}  // namespace
