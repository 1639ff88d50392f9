// Carrying objects between this format and standard ELF32: the tool's
// walkers of the sections the library leaves as bytes (each layout in both
// byte orders from one description, and what they do with malformed input),
// and import, convert and export of real compiler objects and GNU archives,
// judged by llvm-dwarfdump, readelf, ar and nm.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <tuple>

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

// A section's contents in a layout; for malformed ones, what the walk says.
struct WalkCase {
    Layout layout;
    Fields content;
    const char* says = nullptr;
};

std::vector<WalkCase> walkCases() {
    // A length and what it counts; a unit of a DWARF 5 table; an expression.
    const auto lengthed = [](const Fields& body) { return cat({Fields{{4, width(body)}}, body}); };
    const auto unit5 = [&](const Fields& rest) { return lengthed(cat({Fields{{2, 5}}, rest})); };
    const auto expression = [](const Fields& ops) { return cat({uleb(width(ops)), ops}); };
    // DW_OP_addr, DW_OP_const2u, DW_OP_breg1 -8: reversed, reversed, copied.
    const Fields op = cat({bytes({0x03}), Fields{{4, 0x10002000}}, bytes({0x0a}), Fields{{2, 0x1234}}, bytes({0x71}),
                           sleb(-8)});
    const Fields e = expression(op);
    const auto instructions = [&](bool eh) {
        return cat({bytes({0x0c}), uleb(1), uleb(16),                   // def_cfa r1+16
                    bytes({0x41, 0x9f}), uleb(1),                         // advance_loc 1, offset r31
                    bytes({0x02, 7, 0x03}), Fields{{2, 0x0102}},          // advance_loc1, advance_loc2
                    bytes({0x04}), Fields{{4, 0x01020304}},               // advance_loc4
                    bytes({0x01}), Fields{{4, 0x0a0b0c0d}},               // set_loc (eh: sdata4 by 'R')
                    bytes({0x0f}), e,                                     // def_cfa_expression
                    bytes({0x10}), uleb(3), e,                            // expression r3
                    bytes({0x16}), uleb(4), expression(bytes({0x30})),    // val_expression r4
                    bytes({0x11}), uleb(5), sleb(-2), bytes({0x2e}), uleb(16),  // offset_extended_sf, GNU_args_size
                    eh ? bytes({0x0a, 0x0b}) : bytes({0xc5, 0x00, 0x00})});     // remember/restore; restore, nops
    };
    // .debug_frame: a version 1 CIE, a version 4 CIE (with address and
    // segment sizes), an FDE of each.
    const auto cie = [&](uint8_t v) {
        return lengthed(cat({Fields{{4, 0xffffffff}}, bytes({v}), str(""), v == 4 ? bytes({4, 0}) : Fields{}, uleb(4),
                             sleb(-4), uleb(65), instructions(false)}));
    };
    const Fields cie1 = cie(1), cie4 = cie(4);
    const Fields fde = cat({Fields{{4, 0x100}, {4, 0x40}}, instructions(false)});  // after its CIE's offset
    // .eh_frame: a "zPLR" CIE (personality indirect pcrel sdata4, LSDA and
    // FDE pointers pcrel sdata4), an FDE with an LSDA, the terminator.
    const Fields ehCie = lengthed(cat({Fields{{4, 0}}, bytes({1}), str("zPLR"), uleb(4), sleb(-4), bytes({65}), uleb(7),
                                       bytes({0x9b}), Fields{{4, 0x11223344}}, bytes({0x1b, 0x1b}), instructions(true)}));
    const Fields ehFde = lengthed(cat({Fields{{4, width(ehCie) + 4}, {4, 0xfffff000}, {4, 0x80}}, uleb(4),
                                       Fields{{4, 0x55667788}}, instructions(true)}));
    // .debug_names: one CU, one local TU, one foreign TU, 2 buckets, 2
    // names; an abbreviation (DW_IDX_compile_unit data1, die_offset ref4,
    // type_hash data8, parent flag_present); an entry pool of two lists.
    const Fields abbrevs = cat({uleb(1), uleb(0x2e), uleb(1), uleb(0x0b), uleb(3), uleb(0x13), uleb(5), uleb(0x07),
                                uleb(4), uleb(0x19), uleb(0), uleb(0), uleb(0)});
    const Fields entry = cat({uleb(1), bytes({0}), Fields{{4, 0x2a}, {8, 0x0102030405060708}}});
    const Fields names = unit5(cat({Fields{{2, 0}, {4, 1}, {4, 1}, {4, 1}, {4, 2}, {4, 2}, {4, width(abbrevs)}, {4, 4}},
                                    raw(std::string("LLVM")),
                                    Fields{{4, 0x10}, {4, 0x20}, {8, 0x1122334455667788}},  // CU, local TU, foreign TU
                                    Fields{{4, 1}, {4, 0}, {4, 0xdeadbeef}, {4, 0xfeedface}},  // buckets, hashes
                                    Fields{{4, 0x100}, {4, 0x200}, {4, 0}, {4, 0x11}},  // string and entry offsets
                                    abbrevs, entry, bytes({0}), entry, entry, bytes({0})}));
    // .debug_macro: a version 5 unit with a line offset and an operand table
    // for vendor opcode 0xe0 (data4, udata), then every opcode; a version 4
    // unit.
    const Fields ops = cat({bytes({0x03}), uleb(0), uleb(1), bytes({0x01}), uleb(1), str("A 1"),  // start_file, define
                            bytes({0x05}), uleb(2), Fields{{4, 0x40}}, bytes({0x0b}), uleb(3), uleb(4),
                            bytes({0x0c}), uleb(5), uleb(6), bytes({0x07}), Fields{{4, 0x80}},  // strx, import
                            bytes({0xe0}), Fields{{4, 0xabcdef01}}, uleb(300), bytes({0x04, 0})});
    const Fields macros = cat({Fields{{2, 5}}, bytes({0x06}), Fields{{4, 0x30}}, bytes({1, 0xe0}), uleb(2),
                               bytes({0x06, 0x0f}), ops, Fields{{2, 4}}, bytes({0x00}), bytes({0x02}), uleb(9), str("B"),
                               bytes({0x06}), uleb(1), Fields{{4, 7}}, bytes({0})});
    const Fields rangeEntries = cat({bytes({1}), uleb(3), bytes({2}), uleb(1), uleb(2), bytes({3}), uleb(1), uleb(9),
                                     bytes({4}), uleb(0x10), uleb(0x20), bytes({5}), Fields{{4, 0x1000}},
                                     bytes({6}), Fields{{4, 0x1000}, {4, 0x2000}}, bytes({7}), Fields{{4, 0x3000}},
                                     uleb(0x40), bytes({0})});
    const Fields locationEntries =
        cat({bytes({1}), uleb(3), bytes({2}), uleb(1), uleb(2), e, bytes({3}), uleb(1), uleb(9), e, bytes({4}),
             uleb(0x10), uleb(0x20), e, bytes({5}), e, bytes({6}), Fields{{4, 0x1000}}, bytes({7}),
             Fields{{4, 0x1000}, {4, 0x2000}}, e, bytes({8}), Fields{{4, 0x3000}}, uleb(0x40), e, bytes({9}), uleb(1),
             uleb(2), bytes({0})});
    const Fields aranges = cat({Fields{{2, 2}, {4, 0x44}}, bytes({4, 0}), raw(Bytes(4, 0)),
                                Fields{{4, 0x1000}, {4, 0x20}, {4, 0x2000}, {4, 0x30}, {4, 0}, {4, 0}}});
    const Fields aranges64 =
        cat({Fields{{2, 2}, {8, 0x44}}, bytes({4, 0}), Fields{{4, 0x1000}, {4, 0x20}, {4, 0}, {4, 0}}});
    const Fields pub = Fields{{2, 2}, {4, 0}, {4, 0x100}, {4, 0x2d}};  // a unit's 0x100 bytes at 0; a DIE at 0x2d
    return {
        {Layout::Words, words({1, 0x01020304, 0xfffffffe})},
        {Layout::Note, cat({Fields{{4, 4}, {4, 6}, {4, 3}}, str("GNU"), bytes({1, 2, 3, 4, 5, 6, 0, 0})})},
        {Layout::Aranges, cat({lengthed(aranges), Fields{{4, 0xffffffff}, {8, width(aranges64)}}, aranges64})},
        {Layout::Pubnames, lengthed(cat({pub, str("main"), Fields{{4, 0x40}}, str("counter"), Fields{{4, 0}}}))},
        {Layout::GnuPubnames, lengthed(cat({pub, bytes({0x30}), str("main"), Fields{{4, 0}}}))},
        {Layout::Loc, cat({Fields{{4, 0x10}, {4, 0x20}, {2, width(op)}}, op, Fields{{4, 0xffffffff}, {4, 0x4000}},
              Fields{{4, 0x30}, {4, 0x38}, {2, 1}}, bytes({0x50}), Fields{{4, 0}, {4, 0}}})},
        {Layout::Frame,
         cat({cie1, cie4, lengthed(cat({Fields{{4, 0}}, fde})), lengthed(cat({Fields{{4, width(cie1)}}, fde}))})},
        {Layout::EhFrame, cat({ehCie, ehFde, Fields{{4, 0}}})},
        {Layout::StrOffsets, unit5(cat({Fields{{2, 0}}, words({0, 5, 12})}))},
        {Layout::Addr, unit5(cat({bytes({4, 0}), words({0x1000, 0x2000})}))},
        {Layout::Rnglists, unit5(cat({bytes({4, 0}), Fields{{4, 2}, {4, 8}, {4, 10}}, rangeEntries}))},
        {Layout::Loclists, unit5(cat({bytes({4, 0}), Fields{{4, 1}, {4, 4}}, locationEntries}))},
        {Layout::Names, names},
        {Layout::Macro, macros},
        // What the walkers cannot walk.
        {Layout::Words, cat({words({1}), bytes({1, 2})}), "2 bytes after the last whole word"},
        {Layout::Aranges, Fields{{4, 8}, {2, 3}, {2, 0}, {4, 0}}, "version 3 not known"},
        {Layout::StrOffsets, Fields{{4, 0xfffffff5}}, "reserved length"},
        {Layout::Addr, Fields{{4, 100}, {2, 5}}, "runs past the end of the section"},
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
}

TEST(Walkers, EveryLayoutInBothOrdersAndMalformedInputBounded) {
    // Each case from either order: the other order's bytes, or for a
    // malformed one the walk named where it stops. Converting back gives the
    // input again. Then each good case cut at every length, and with each
    // byte in turn set to 0xff: no read or write outside the bytes, the walk
    // is reported where it stops, and converting back gives the input again.
    for (const WalkCase& c : walkCases()) {
        SCOPED_TRACE(c.says ? c.says : tool::layoutName(c.layout));
        std::vector<tool::WalkProblem> problems;
        for (Order from : {Order::Big, Order::Little}) {
            SCOPED_TRACE(name(from));
            const Bytes in = encode(c.content, from), out = walk(c.layout, in, from, &problems);
            const std::string first = problems.empty() ? "" : problems[0].what;
            EXPECT_TRUE(c.says ? first.find(c.says) != std::string::npos : problems.empty()) << first;
            EXPECT_TRUE(c.says || out == encode(c.content, other(from)));  // malformed: only that it comes back
            EXPECT_EQ(walk(c.layout, out, other(from)), in);
        }
        if (c.says) continue;
        const Bytes whole = encode(c.content, Order::Big);
        size_t reported = 0;
        for (size_t n = 0; n < whole.size(); ++n) {
            const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
            EXPECT_EQ(walk(c.layout, walk(c.layout, cut, Order::Big, &problems), Order::Little), cut) << "cut at " << n;
            reported += !problems.empty();
            for (const auto& p : problems) EXPECT_LE(p.offset, n);
            Bytes bad = whole;
            bad[n] = 0xff;
            EXPECT_EQ(walk(c.layout, walk(c.layout, bad, Order::Big), Order::Little), bad) << "byte " << n;
        }
        EXPECT_GT(reported, whole.size() / 2) << "most cuts are noticed";
    }
}

TEST(Walkers, LayoutsByNameAndType) {
    // Where a prefix, a flag or the type decides; the real objects below
    // check the plain name table.
    for (const auto& [name, type, flags, layout] : std::vector<std::tuple<const char*, uint32_t, uint32_t, Layout>>{
             {".text", SHT_PROGBITS, 0, Layout::Program},
             {".debug_line.text", SHT_PROGBITS, 0, Layout::Library},
             {".debug_line_str", SHT_PROGBITS, 0, Layout::NoOrder},
             {".debug_frame", SHT_PROGBITS, 0x800, Layout::Unknown},  // compressed
             {".debug_loc.dwo", SHT_PROGBITS, 0, Layout::Unknown},
             {".gcc_except_table", SHT_PROGBITS, 0, Layout::Unknown},
             {".lnno.text", 15, 0, Layout::Library},
             {".fini_array", 15, 0, Layout::Words},
             {".group", 17, 0, Layout::Words},
             {".note.x", SHT_NOTE, 0, Layout::Note},
             {".llvm_addrsig", 0x6fff4c03, 0, Layout::Unknown},
             {".bss", SHT_NOBITS, 0, Layout::NoOrder},
         })
        EXPECT_EQ(tool::layoutOf(name, type, flags), layout) << name;
}

// ---------------------------------------------------------------------------
// Import, convert, export

const std::string kTool = program(TAMO_TOOL) + " ";
const std::string kData = TAMO_TEST_DATA;

// Commands run in a temporary directory, with clang and binutils.
class Interop : public testing::Test {
protected:
    void SetUp() override {
        for (const char* needed : {"clang", "llvm-dwarfdump", "readelf", "ar", "nm"})
            if (!have(needed)) GTEST_SKIP() << "needs " << needed;
    }
    // Whether a command ends with the status; what it printed (errors too)
    // is kept in `said`.
    testing::AssertionResult runs(const std::string& command, int status = 0) {
        int got = 0;
        said = out("{ " + command + "; } 2>&1", &got);
        if (got == status) return testing::AssertionSuccess();
        return testing::AssertionFailure() << command << ": status " << got << "\n" << said;
    }
    // What a command run here prints.
    std::string out(const std::string& c, int* st = nullptr) { return run("cd '" + dir.path("") + "' && " + c, st); }
    // What the standard tools say about a file here, without the lines that
    // name the file or say where in it a table lies.
    std::string dwarfdump(std::string f) { return out("llvm-dwarfdump -v --all " + f + " 2>&1 | tail -n +2"); }
    std::string readelf(std::string f) { return out("readelf -Wgsr " + f + " 2>&1 | sed 's/ at offset [^ ]*//'"); }
    std::string armap(std::string f) { return out("nm --print-armap " + f + " | sed -n '/^Archive/,/^$/p'"); }
    TempDir dir;
    std::string said;
};

// A compiler's output to import: the source (in tests/data), then the
// flags, the target last.
std::vector<std::string> variants() {
    // Every version, both optimisation levels, with and without type units;
    // lookup tables, macros and .debug_frame at -O0, GNU lookup tables at
    // -O2. Little-endian output converted to big-endian too.
    std::vector<std::string> out;
    for (unsigned version = 2; version <= 5; ++version) {
        const std::string dwarf = " -gdwarf-" + std::to_string(version);
        for (const char* source : {"dwarf_sample.c", "dwarf_sample.cpp"})
            for (const char* types : {"", " -fdebug-types-section"})
                for (const char* level : {" -O0 -gpubnames -gdwarf-aranges -fdebug-macro",
                                          " -O2 -ggnu-pubnames -fno-asynchronous-unwind-tables -fno-unwind-tables"})
                    out.push_back(source + dwarf + level + types + " --target=powerpc-linux-gnu");
        out.push_back("dwarf_sample.cpp" + dwarf + " -O2 -fdebug-types-section -gdwarf-aranges" +
                      " --target=powerpcle-linux-gnu");
    }
    return out;
}

class RealObjects : public Interop, public testing::WithParamInterface<std::string> {};

TEST_P(RealObjects, ImportConvertExportPrintsWhatTheOriginalPrints) {
    const bool big = GetParam().find("powerpcle") == std::string::npos;
    ASSERT_TRUE(runs("clang -fno-addrsig -c '" + kData + "'/" + GetParam() + " -o in.o"));
    ASSERT_TRUE(runs(kTool + "import in.o imported"));
    ASSERT_TRUE(runs(kTool + "convert --to " + (big ? "little" : "big") + " imported converted"));
    // Only exception tables, whose layout the tool does not walk, are left
    // as they were (and said so).
    EXPECT_EQ(std::regex_replace(said, std::regex(".*\\.gcc_except_table: a layout the tool does not know.*\n"), ""),
              "");
    ASSERT_TRUE(runs(kTool + "export converted exported.o"));
    EXPECT_EQ(dwarfdump("exported.o"), dwarfdump("in.o"));
    EXPECT_EQ(readelf("exported.o"), readelf("in.o"));
    // Converting back gives the imported file.
    EXPECT_TRUE(runs(kTool + "convert --to " + (big ? "big" : "little") + " converted back && cmp back imported"));
}

INSTANTIATE_TEST_SUITE_P(Interop, RealObjects, testing::ValuesIn(variants()), [](const auto& info) {
    return std::regex_replace(info.param, std::regex("[^A-Za-z0-9]"), "");
});

TEST_F(Interop, GnuArchiveRoundTrip) {
    const std::string cc = "clang --target=powerpc-linux-gnu -fno-addrsig -c -g -O2 '" + kData + "/dwarf_sample.";
    ASSERT_TRUE(runs(cc + "c' -o s_c.o && " + cc + "cpp' -o s_cpp.o && printf odd > notes.txt && " +
                     "ar rcs lib.a s_c.o notes.txt s_cpp.o"));
    ASSERT_TRUE(runs(kTool + "import lib.a big.a && head -c 8 big.a | grep -qx '!<sola>'"));
    EXPECT_NE(said.find("notes.txt): not an ELF object"), std::string::npos) << said;

    // info lists the members, the text one too, and finds each symbol of
    // the index in the member nm finds it in.
    const auto j = nlohmann::json::parse(out(kTool + "info --json big.a"));
    std::string members, index = "Archive index:\n";
    for (const auto& m : j["members"]) members += m["name"].get<std::string>() + " ";
    EXPECT_EQ(members, "s_c.o notes.txt s_cpp.o ");
    for (const auto& s : j["symbol_table"])
        index += s["name"].get<std::string>() + " in " + s["member"].get<std::string>() + "\n";
    EXPECT_EQ(index + "\n", armap("lib.a"));

    ASSERT_TRUE(runs(kTool + "convert --to little big.a little.a && " + kTool + "export little.a out.a"));
    ASSERT_TRUE(runs("ar t out.a && mkdir x && cd x && ar x ../out.a"));
    EXPECT_EQ(said, "s_c.o\nnotes.txt\ns_cpp.o\n");
    EXPECT_EQ(armap("out.a"), armap("lib.a"));
    for (const std::string s : {"s_c.o", "s_cpp.o"}) EXPECT_EQ(dwarfdump("x/" + s), dwarfdump(s)) << s;
    // The text member comes out as it went in; converting back is byte-identical.
    EXPECT_TRUE(runs("cmp x/notes.txt notes.txt && " + kTool + "convert --to big little.a back.a && cmp back.a big.a"));
}

TEST_F(Interop, RefusalsNameThePlaceAndLeaveNoOutput) {
    // Objects of both orders and of x86-64, one made an executable (e_type
    // 2); archives with a long member name and of mixed byte orders.
    const std::string cc = "clang -c '" + kData + "/dwarf_sample.c' --target=";
    ASSERT_TRUE(runs(cc + "powerpc-linux-gnu -o be.o && " + cc + "powerpcle-linux-gnu -o le.o && " + cc +
                     "x86_64-linux-gnu -o x64.o && cp be.o exec.o && printf '\\2' | dd of=exec.o bs=1 seek=17 " +
                     "conv=notrunc && cp be.o a_member_named_at_length.o && " +
                     "ar rcs long.a be.o a_member_named_at_length.o && ar rcs mixed.a be.o le.o"));
    const std::string before = out("ls -A");
    for (const auto& [command, says] : std::vector<std::pair<std::string, const char*>>{
             {"import x64.o", "x64.o: a 64-bit ELF object"},
             {"import exec.o", "exec.o: not a relocatable object"},
             {"import long.a", "member a_member_named_at_length.o (at offset"},
             {"import mixed.a", "mixed.a(le.o): of the other byte order"},
             {"export be.o", "be.o: section headers of 40 bytes, not 44"},
             {"export " + std::string(TAMO_SAMPLES) + "/sample-big.o", "section [5] .symtab: sh_extra is 0x5a5a"},
             {"convert --to little be.o", "bring it in with `tamoelf import` first"},
         }) {
        EXPECT_TRUE(runs(kTool + command + " out", 1));
        EXPECT_NE(said.find(says), std::string::npos) << command << ": " << said;
        EXPECT_EQ(out("ls -A"), before) << command << " left a file";
    }
    // With --drop-extra the sample goes out, and says what it dropped.
    ASSERT_TRUE(runs(kTool + "export --drop-extra '" + TAMO_SAMPLES + "/sample-big.o' s.o"));
    EXPECT_NE(said.find("non-zero sh_extra or st_extra dropped"), std::string::npos) << said;
    EXPECT_NE(readelf("s.o").find("main"), std::string::npos);
}

}  // namespace
