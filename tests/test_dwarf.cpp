// DWARF conversion: .debug_info units (headers of versions 2 to 5, every
// form, every location opcode) and .debug_line programs (headers of
// versions 2 to 5, every opcode kind), each built by the test encoder in
// both byte orders: converting the big-endian bytes must give the
// little-endian (host) ones, in place and between buffers, and converting
// back must give the input. Malformed inputs stay inside their buffers.
#include <fcntl.h>

#include <string>
#include <tuple>

#include "DwarfAbbrev.h"
#include "HeldMemory.h"
#include "ReadSupport.h"
#include "Tools.h"
#include "dwarf_swap.h"

using namespace testkit;

namespace {

// Big-endian bytes convert to the little-endian (host) ones and back, in
// place and between buffers (leaving the source as it was).
void expectConverts(const char* name, const Fields& content, const Bytes& abbrev, const std::string& what) {
    const Bytes big = encode(content, Order::Big), little = encode(content, Order::Little);
    tamo::AbbrevBytes a{abbrev.data(), abbrev.size()};
    for (bool back : {false, true})
        for (bool inPlace : {true, false}) {
            const Bytes& in = back ? little : big;
            Bytes src = in, out = inPlace ? in : Bytes(in.size(), 0xee);
            tamo::dwarfConvert(name, reinterpret_cast<char*>(inPlace ? out.data() : src.data()),
                               reinterpret_cast<char*>(out.data()), in.size(), nullptr, back, &a);
            EXPECT_EQ(out, back ? big : little) << what << (back ? " back" : "") << (inPlace ? " in place" : "");
            EXPECT_TRUE(inPlace || src == in) << what << ": the source changed";
        }
}

// A .debug_info unit: a header of version 2-4, or 5 with its unit type
// (unit type 2 before version 5: a .debug_types unit), then the body.
Fields unit(unsigned version, const Fields& body, uint8_t addressSize = 4, uint8_t unitType = 1,
            uint32_t abbrevOffset = 0) {
    Fields h = version < 5 ? cat({Fields{{2, version}, {4, abbrevOffset}}, bytes({addressSize})})
                           : cat({Fields{{2, version}}, bytes({unitType, addressSize}), Fields{{4, abbrevOffset}}});
    if (unitType == 2 || unitType == 6) h = cat({h, Fields{{8, 0x1122334455667788}, {4, 0x33}}});
    if (unitType == 4 || unitType == 5) h = cat({h, Fields{{8, 0x0102030405060708}}});
    h = cat({h, body});
    return cat({Fields{{4, width(h)}}, h});
}

// An abbreviation table with code 1 holding the given (attribute, form)
// pairs (an implicit constant's value after its form).
Bytes abbrevOf(std::initializer_list<std::pair<uint32_t, uint32_t>> attrs, bool children = false) {
    Fields f = bytes({1, 0x11, children});
    for (auto [at, form] : attrs) f = cat({f, uleb(at), uleb(form), form == 0x21 ? sleb(-5) : Fields{}});
    return encode(cat({f, bytes({0, 0, 0})}), kHost);
}

TEST(DebugInfo, EveryForm) {
    struct Row {
        uint32_t form;
        const char* name;
        Fields value;
        uint32_t attribute = 0x03;  // DW_AT_name
    };
    // fbreg -20; const2u 0x1234; plus
    const Fields expr = cat({bytes({0x91}), sleb(-20), bytes({0x0a}), Fields{{2, 0x1234}}, bytes({0x22})});
    const std::vector<Row> rows = {
        {0x01, "addr", {{4, 0x10203040}}},
        {0x03, "block2", cat({Fields{{2, 3}}, bytes({1, 2, 3})})},
        {0x04, "block4", cat({Fields{{4, 2}}, bytes({1, 2})})},
        {0x05, "data2", {{2, 0x1234}}},
        {0x06, "data4", {{4, 0x12345678}}},
        {0x07, "data8", {{8, 0x0102030405060708}}},
        {0x08, "string", str("a name")},
        {0x09, "block", cat({uleb(3), bytes({9, 8, 7})})},
        {0x0a, "block1", bytes({2, 1, 2})},
        {0x0b, "data1", bytes({0x99})},
        {0x0c, "flag", bytes({1})},
        {0x0d, "sdata", sleb(-1000)},
        {0x0e, "strp", {{4, 0x100}}},
        {0x0f, "udata", uleb(1u << 20)},
        {0x10, "ref_addr", {{4, 0x4000}}},
        {0x11, "ref1", bytes({5})},
        {0x12, "ref2", {{2, 0x5005}}},
        {0x13, "ref4", {{4, 0x50000005}}},
        {0x14, "ref8", {{8, 0x5000000000000005}}},
        {0x15, "ref_udata", uleb(77)},
        {0x16, "indirect data4", cat({uleb(0x06), Fields{{4, 0xabcdef01}}})},
        {0x16, "indirect indirect data2", cat({uleb(0x16), uleb(0x05), Fields{{2, 0xabcd}}})},
        {0x17, "sec_offset", {{4, 0x6000}}},
        {0x18, "exprloc", cat({uleb(width(expr)), expr})},
        {0x19, "flag_present", {}},
        {0x1a, "strx", uleb(3)},
        {0x1b, "addrx", uleb(4)},
        {0x1c, "ref_sup4", {{4, 0x7000}}},
        {0x1d, "strp_sup", {{4, 0x7001}}},
        {0x1e, "data16 (copied)", raw(Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},
        {0x1f, "line_strp", {{4, 0x7002}}},
        {0x20, "ref_sig8", {{8, 0xfeedfacecafebeef}}},
        {0x21, "implicit_const", {}},
        {0x22, "loclistx", uleb(1)},
        {0x23, "rnglistx", uleb(2)},
        {0x24, "ref_sup8", {{8, 0x7003}}},
        {0x25, "strx1", bytes({1})},
        {0x26, "strx2", {{2, 0x0102}}},
        {0x27, "strx3", {{3, 0x010203}}},
        {0x28, "strx4", {{4, 0x01020304}}},
        {0x29, "addrx1", bytes({2})},
        {0x2a, "addrx2", {{2, 0x0203}}},
        {0x2b, "addrx3", {{3, 0x020304}}},
        {0x2c, "addrx4", {{4, 0x02030405}}},
        {0x1f01, "GNU_addr_index", uleb(9)},
        {0x1f21, "GNU_strp_alt", {{4, 0x8000}}},
        // A block of a location attribute holds an expression; of another
        // attribute (const_value: DW_OP_addr if it were one), bytes.
        {0x0a, "block1 of a location", cat({bytes({static_cast<uint8_t>(width(expr))}), expr}), 0x02},
        {0x09, "block of a const_value", cat({uleb(5), bytes({0x03, 1, 2, 3, 4})}), 0x1c},
    };
    // The value, then a data1 after it shows the walk kept its place.
    for (const Row& r : rows)
        for (unsigned version : {2u, 4u, 5u})
            expectConverts(".debug_info", unit(version, cat({uleb(1), r.value, bytes({0x42})})),
                           abbrevOf({{r.attribute, r.form}, {0x3e, 0x0b}}), r.name);
}

TEST(DebugInfo, EveryLocationOpcode) {
    // The operands, and the opcodes that take them: one of 1, 2, 4 or 8
    // bytes (DW_OP_addr's is the unit's address size), a LEB128, or none;
    // then the opcodes of other operands.
    const std::vector<std::pair<Fields, Bytes>> rows = {
        {bytes({0x80}), {0x08, 0x09, 0x15, 0x94, 0x95}},
        {{{2, 0xfedc}}, {0x0a, 0x0b, 0x28, 0x2f, 0x98}},
        {{{4, 0x87654321}}, {0x03, 0x0c, 0x0d, 0x99, 0x9a, 0xfa}},  // 0xfa: GNU parameter_ref
        {{{8, 0x8070605040302010}}, {0x0e, 0x0f}},
        {uleb(1000), {0x10, 0x23, 0x90, 0x93, 0xa1, 0xa2, 0xa8, 0xa9}},
        {sleb(-200), {0x11, 0x70, 0x75, 0x8f, 0x91}},
        {{}, {0xe0, 0x06, 0x30, 0x35, 0x50, 0x9f, 0x96}},
        {cat({uleb(31), sleb(-8)}), {0x92}},
        {cat({uleb(3), uleb(5)}), {0x9d}},
        {cat({uleb(4), bytes({1, 2, 3, 4})}), {0x9e}},  // implicit_value: bytes copied
        {cat({Fields{{4, 0x300}}, sleb(-4)}), {0xa0}},
        {cat({uleb(3), bytes({0x0a}), Fields{{2, 0x0a0b}}}), {0xa3}},      // entry_value: a nested expression
        {cat({uleb(0x40), bytes({4}), Fields{{4, 0x11223344}}}), {0xa4}},  // const_type: size then reversed
        {cat({uleb(3), uleb(0x40)}), {0xa5}},
        {cat({bytes({4}), uleb(0x40)}), {0xa6}},
        {cat({bytes({8}), uleb(0x41)}), {0xa7}},
        {cat({uleb(2), bytes({0x50, 0x9f})}), {0xf3}},  // GNU entry_value
    };
    for (const auto& [operands, ops] : rows)
        for (uint8_t op : ops) {
            const Fields expr = cat({bytes({op}), operands, bytes({0x9f})});  // then stack_value
            for (uint32_t form : {0x18u, 0x09u})                              // exprloc, block of DW_AT_location
                expectConverts(".debug_info", unit(4, cat({uleb(1), uleb(width(expr)), expr, bytes({0x42})})),
                               abbrevOf({{0x02, form}, {0x3e, 0x0b}}), "opcode " + std::to_string(op));
        }
    // 8-byte addresses follow the unit's address size: DW_OP_addr,
    // DW_FORM_addr, and DW_FORM_ref_addr in DWARF 2.
    for (uint8_t version : {2, 5}) {
        const Fields addresses = {
            {8, 0x1020304050607080}, {8, 0x1121314151617181}, {static_cast<uint8_t>(version == 2 ? 8 : 4), 0x1222}};
        expectConverts(".debug_info", unit(version, cat({uleb(1), uleb(9), bytes({0x03}), addresses}), 8),
                       abbrevOf({{0x02, 0x18}, {0x11, 0x01}, {0x10, 0x10}}), "addresses of 8 bytes");
    }
    // An opcode the walk does not know: the rest of its expression goes as
    // it is (const2u is not converted), and the walk goes on after it.
    expectConverts(".debug_info",
                   unit(4, cat({uleb(1), uleb(9), bytes({0x0c}), Fields{{4, 0x01020304}}, bytes({0xe7, 0x0a, 1, 2}),
                                Fields{{2, 0x4243}}})),
                   abbrevOf({{0x02, 0x18}, {0x3e, 0x05}}), "unknown opcode");
}

// Converts a unit (`in`, big-endian) with the plain walk and with each
// faster walk, in place and between buffers: the faster walks must give the
// plain walk's bytes.
void expectFasterWalksAsPlain(const Bytes& in, const tamo::AbbrevBytes& a, bool back, const std::string& what) {
    Bytes plain = in;
    char* p = reinterpret_cast<char*>(plain.data());
    tamo::dwarfConvert(".debug_info", p, p, in.size(), nullptr, back, &a, tamo::Walk::OneUnit);
    ASSERT_NE(plain, in) << what;
    for (const tamo::Walk walk : {tamo::Walk::Chase, tamo::Walk::Windows}) {
        Bytes inPlace = in, src = in, out(in.size());
        tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(inPlace.data()),
                           reinterpret_cast<char*>(inPlace.data()), in.size(), nullptr, back, &a, walk);
        tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(src.data()), reinterpret_cast<char*>(out.data()),
                           in.size(), nullptr, back, &a, walk);
        EXPECT_TRUE(inPlace == plain && out == plain)
            << "walk " << static_cast<int>(walk) << ", " << what << (back ? ", back" : "");
    }
}

TEST(DebugInfo, ShortExpressionsInTheFasterWalks) {
    // Expressions of one to three bytes, every opcode first, among the
    // children of a compile unit: the faster walks convert those with
    // nothing to reverse themselves, and give what the plain walk gives (a
    // two-byte operand in three bytes is reversed, DW_OP_addr's only where
    // addresses are of two bytes; an operand cut short is left as it is).
    const Bytes abbrev =
        encode(bytes({1, 0x11, 1, 0, 0, 2, 0x34, 0, 0x02, 0x18, 0x3e, 0x0b, 0, 0, 0}), kHost);
    const tamo::AbbrevBytes a{abbrev.data(), abbrev.size()};
    Fields children;
    for (unsigned op = 0; op < 0x100; ++op)
        for (const Fields& tail : {bytes({0x81, 0x02}), bytes({0x12, 0x34})})
            for (size_t length = 1; length <= 3; ++length)
                children = cat({children, uleb(2), uleb(length), bytes({static_cast<uint8_t>(op)}),
                                Fields(tail.begin(), tail.begin() + static_cast<ptrdiff_t>(length - 1)),
                                bytes({0x42})});
    for (uint8_t addressSize : {2, 4})
        for (bool back : {false, true})
            expectFasterWalksAsPlain(encode(unit(5, cat({uleb(1), children, bytes({0})}), addressSize), Order::Big), a,
                                     back, "addresses of " + std::to_string(addressSize));
}

TEST(DebugInfo, AddressIndicesOfEveryLengthInTheFasterWalks) {
    // DWARF 5 units index their addresses (DW_FORM_addrx): past 127 an index
    // takes two bytes, past 16,383 three. Subprograms (the index before an
    // expression and other fields) and variables (no expression) with
    // indices of every length, a two-byte 0 among them: the faster walks
    // give what the plain walk gives.
    const Bytes abbrev = encode(bytes({1, 0x11, 1, 0, 0,                                              //
                                       2, 0x2e, 0, 0x11, 0x1b, 0x12, 0x06, 0x40, 0x18, 0x03, 0x26, 0, 0,  //
                                       3, 0x34, 0, 0x11, 0x1b, 0x03, 0x05, 0, 0, 0}),
                                kHost);
    const tamo::AbbrevBytes a{abbrev.data(), abbrev.size()};
    // DW_OP_reg1; DW_OP_fbreg -1; DW_OP_fbreg -129.
    const Fields expressions[] = {bytes({1, 0x51}), bytes({2, 0x91, 0x7f}), bytes({3, 0x91, 0xff, 0x7e})};
    Fields children;
    for (uint32_t index = 0, k = 0; index < 20000; index += 7, ++k) {
        const Fields value = index == 133 ? bytes({0x80, 0x00}) : uleb(index);
        children = cat({children, uleb(2), value, Fields{{4, index}}, expressions[k % 3], Fields{{2, index}},  //
                        uleb(3), value, Fields{{2, index}}});
    }
    for (bool back : {false, true})
        expectFasterWalksAsPlain(encode(unit(5, cat({uleb(1), children, bytes({0})})), Order::Big), a, back,
                                 "address indices");
}

TEST(DebugInfo, WithoutMemoryAtAnyAllocation) {
    // Every allocation a conversion makes fails in turn, with those after
    // it: nothing escapes the call, nothing leaks (under the sanitizers),
    // and each field is either converted or left as it was. A faster walk
    // that cannot make its tables leaves the section to the plain walk.
    const Bytes abbrev = encode(bytes({1, 0x11, 1, 0x25, 0x08, 0, 0,  //
                                       2, 0x2e, 0, 0x11, 0x1b, 0x12, 0x06, 0x40, 0x18, 0x03, 0x0b, 0, 0,  //
                                       3, 0x34, 0, 0x02, 0x18, 0x49, 0x13, 0, 0, 0}),
                                kHost);
    const tamo::AbbrevBytes a{abbrev.data(), abbrev.size()};
    Fields children;
    for (uint32_t k = 0; k < 300; ++k)
        children = cat({children, uleb(2), uleb(k % 100), Fields{{4, k}}, bytes({1, 0x51}), bytes({7}),  //
                        uleb(3), bytes({2, 0x91, 0x7f}), Fields{{4, k}}});
    Bytes in;
    for (int u = 0; u < 8; ++u) {
        const Bytes one = encode(unit(5, cat({uleb(1), bytes({'c', 0}), children, bytes({0})})), Order::Big);
        in.insert(in.end(), one.begin(), one.end());
    }
    for (const tamo::Walk walk : {tamo::Walk::OneUnit, tamo::Walk::Windows, tamo::Walk::Chase}) {
        Bytes expected = in;
        tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(expected.data()),
                           reinterpret_cast<char*>(expected.data()), in.size(), nullptr, false, &a, walk);
        long failing = 0;
        for (bool hit = true; hit && failing < 10000; ++failing) {
            Bytes inPlace = in, out(in.size());
            failNewAfter(failing);
            tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(inPlace.data()),
                               reinterpret_cast<char*>(inPlace.data()), in.size(), nullptr, false, &a, walk);
            tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(in.data()), reinterpret_cast<char*>(out.data()),
                               in.size(), nullptr, false, &a, walk);
            hit = failNewAfter(-1);
            for (size_t i = 0; i < in.size(); ++i)
                if ((inPlace[i] != in[i] && inPlace[i] != expected[i]) || (out[i] != in[i] && out[i] != expected[i]))
                    FAIL() << "walk " << static_cast<int>(walk) << ", allocation " << failing << ": byte " << i;
            if (!hit) {
                EXPECT_TRUE(inPlace == expected && out == expected) << "walk " << static_cast<int>(walk);
            }
        }
        EXPECT_LT(failing, 10000);
    }
}

TEST(DebugInfo, UnitHeadersTreesAndSeveralUnits) {
    // Version 5 headers of every unit type, a tree of entries with children,
    // an empty children list, bytes after the tree, and several units with
    // their own tables.
    Bytes abbrev = {1, 0x11, 1, 0x03, 0x08, 0x10, 0x17, 0, 0,  // compile unit: name, stmt_list; children
                    2, 0x34, 1, 0x02, 0x18, 0,    0,           // variable: location; children (empty)
                    3, 0x24, 0, 0x0b, 0x0b, 0x3e, 0x0b, 0, 0,  // base type
                    0};
    const size_t second = abbrev.size();
    abbrev.insert(abbrev.end(), {1, 0x11, 0, 0x25, 0x05, 0, 0, 0});                             // another table: data2
    const Fields tree = cat({uleb(1), str("a.c"), Fields{{4, 0x10}},                            // root
                             uleb(2), uleb(5), bytes({0x0c}), Fields{{4, 0x2000}}, bytes({0}),  // empty children
                             uleb(3), bytes({4, 5}),                                            // base type
                             bytes({0}),          // end of the root's children
                             bytes({0, 0, 0})});  // padding after the tree
    Fields all, types;
    for (uint8_t type : {1, 2, 3, 4, 5, 6}) all = cat({all, unit(5, tree, 4, type)});
    for (unsigned version : {2u, 3u, 4u}) all = cat({all, unit(version, tree)});
    all = cat({all, unit(4, cat({uleb(1), Fields{{2, 0xbeef}}}), 4, 1, static_cast<uint32_t>(second))});
    expectConverts(".debug_info", all, abbrev, "units");
    // DWARF 4 type units (.debug_types): the header goes on with a type
    // signature and a type offset.
    for (unsigned version : {2u, 4u}) types = cat({types, unit(version, tree, 4, 2)});
    expectConverts(".debug_types", types, abbrev, "type units");
}

// A line program of the given version: header (opcode_base 13 with the
// standard lengths unless given), directory and file tables, then `ops`.
Fields lineProgram(unsigned version, const Fields& ops, const Bytes& lengths = {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1}) {
    const Fields md5 = raw(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    Fields h = cat({bytes({1}), version >= 4 ? bytes({1}) : Fields{},  // instruction lengths
                    bytes({1, 0xfb, 14, static_cast<uint8_t>(lengths.size() + 1)}), raw(lengths)});
    if (version >= 5)  // directories: path (string); two files: path (line_strp), directory (data1), MD5 (data16)
        h = cat({h,           bytes({1}), uleb(1),           uleb(0x08), uleb(1),
                 str("/dir"), bytes({3}), uleb(1),           uleb(0x1f), uleb(2),
                 uleb(0x0b),  uleb(5),    uleb(0x1e),        uleb(2),    Fields{{4, 0x20}},
                 bytes({0}),  md5,        Fields{{4, 0x30}}, bytes({1}), md5});
    else
        h = cat({h, str("inc"), bytes({0}), str("a.c"), uleb(1), uleb(0), uleb(0), bytes({0})});
    const Fields body =
        cat({Fields{{2, version}}, version >= 5 ? bytes({4, 0}) : Fields{}, Fields{{4, width(h)}}, h, ops});
    return cat({Fields{{4, width(body)}}, body});
}

TEST(DebugLine, EveryOpcodeKindInEveryVersion) {
    const Fields ops = cat({
        bytes({0, 5, 2}), Fields{{4, 0x10000000}}, bytes({0, 9, 2}), Fields{{8, 0x1122334455667788}},  // set_address
        bytes({0, 2, 4, 7, 0, 8, 3}), str("b.c"), bytes({0, 0, 0}),  // set_discriminator, define_file (copied)
        // Unknown extended opcodes, skipped by their length (one of two
        // LEB128 bytes): a fixed_advance_pc in them stays as it is.
        bytes({0, 4, 0x80, 9, 1, 2, 0}), uleb(131), bytes({0x81}), raw(Bytes(127, 0x77)), bytes({9, 1, 2}), bytes({2}),
        uleb(400), bytes({3}), sleb(-3), bytes({4, 2, 5, 9}),  // advance_pc, advance_line, set_file, column
        bytes({9}), Fields{{2, 0x1234}}, bytes({1, 6, 7, 8, 10, 11, 12}), uleb(3),  // fixed_advance_pc (converted)
        bytes({13, 0x20, 0xff, 0, 1, 1}),                                           // special opcodes, end_sequence
    });
    for (unsigned version : {2u, 3u, 4u, 5u})
        expectConverts(".debug_line", lineProgram(version, ops), {}, "version " + std::to_string(version));
    // Two programs; the lengths follow the header: opcode_base 10 makes 10
    // to 12 special, and an opcode 13 with two LEB128 operands under a
    // larger base.
    const Fields dwarf2 = cat({bytes({10, 11, 12, 9}), Fields{{2, 0x0102}}});
    const Fields custom = cat({bytes({13}), uleb(300), uleb(5), bytes({9}), Fields{{2, 0x0304}}});
    expectConverts(".debug_line",
                   cat({lineProgram(2, dwarf2, {0, 1, 1, 1, 1, 0, 0, 0, 1}),
                        lineProgram(3, custom, {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1, 2})}),
                   {}, "two programs");
    // Longer names that begin with .debug_line are line programs too;
    // .debug_line_str holds strings.
    expectConverts(".debug_line.dwo", lineProgram(4, ops), {}, ".debug_line.dwo");
    expectConverts(".debug_line_str", raw(Bytes{'a', 0, 'b', 'c', 0}), {}, ".debug_line_str");
}

TEST(Dwarf, WhatCannotBeSizedIsCopied) {
    // Inputs the walks cannot (or must not) size: the part before the
    // problem is converted (a unit's length and version always are), the
    // rest (bytes) is copied unchanged, nothing outside the buffer is
    // touched (the sanitizer build checks), and converting back gives the
    // input.
    const Fields header4 = {{2, 4}, {4, 0}, {1, 4}};
    auto unitHead = [&](uint32_t length) { return cat({Fields{{4, length}}, header4}); };
    const std::vector<std::tuple<const char*, const char*, Fields>> rows = {
        {"unit past the end", ".debug_info", cat({Fields{{4, 0x100}, {2, 4}}, bytes({0, 0, 0, 0, 4, 1})})},
        {"64-bit unit", ".debug_info", cat({Fields{{4, 0xffffffff}}, bytes({0, 0, 0, 0, 0, 0, 0, 12, 0, 4, 1, 2})})},
        {"version 6", ".debug_info", cat({Fields{{4, 8}, {2, 6}}, bytes({0, 0, 0, 0, 4, 1})})},
        {"version 1", ".debug_line", cat({Fields{{4, 4}, {2, 1}}, bytes({0, 0})})},
        {"tree without its 0 bytes", ".debug_info", cat({unitHead(12), uleb(1), str("ab"), bytes({1})})},
        {"string without its NUL", ".debug_info", cat({unitHead(10), bytes({1, 'a', 'b'})})},
        {"LEB128 off the end", ".debug_info", cat({unitHead(10), bytes({0x81, 0x82, 0x83})})},
        {"unknown abbreviation", ".debug_info", cat({unitHead(11), bytes({7, 0, 0, 0})})},
        {"no table at the offset", ".debug_info", cat({Fields{{4, 10}, {2, 4}, {4, 99}, {1, 4}}, bytes({1, 'a', 0})})},
        {"unit of an unknown type", ".debug_info",
         cat({Fields{{4, 10}, {2, 5}}, bytes({0x80, 4}), Fields{{4, 0}}, bytes({1, 2})})},
        {"name longer than .debug_info", ".debug_info.dwo", bytes({0, 0, 0, 8, 0, 4, 0, 0, 0, 0, 4, 1})},
        {"extended opcode past the end", ".debug_line",
         cat({Fields{{4, 26}, {2, 2}, {4, 16}}, bytes({1, 1, 0xfb, 14, 10, 0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0}),
              bytes({0, 9, 2, 1})})},
        {"header_length past the end", ".debug_line", cat({Fields{{4, 8}, {2, 3}, {4, 0x100}}, bytes({1, 1})})},
    };
    const Bytes abbrev = abbrevOf({{0x03, 0x08}, {0x3e, 0x0b}}, true);
    for (const auto& [what, name, content] : rows) expectConverts(name, content, abbrev, what);
    // A deep tree needs no deep stack.
    Fields deep;
    const int levels = 200000;
    for (int i = 0; i <= levels; ++i) deep.insert(deep.end(), {{1, 1}, {2, static_cast<uint64_t>(i & 0xffff)}});
    deep.insert(deep.end(), levels + 1, Field{1, 0});
    expectConverts(".debug_info", unit(4, deep), abbrevOf({{0x3e, 0x05}}, true), "deep");
}

using Sections = std::vector<std::pair<std::string, Bytes>>;

bool isInfoOrLine(const std::string& name) {
    return name == ".debug_info" || name == ".debug_line";
}
bool isDebug(const std::string& name) {
    return name.rfind(".debug", 0) == 0;
}

// Every section of an object by name as the library reads it (converted,
// or as stored when `stored`), with the bytes of those `keep` accepts.
Sections sectionsOf(const Opened& o, bool (*keep)(const std::string&), bool stored = false) {
    Sections out;
    if (!o.elf()) return out;
    if (stored) tamo_elf_setreadswapcontroller(o.elf(), [](Elf32_Shdr*, const char*) { return 4; });
    const Elf32_Ehdr* h = tamo_elf32_getehdr(o.elf());
    for (size_t i = 1; i < h->e_shnum; ++i) {
        if (!o.scn(i)) return {};
        const char* name = tamo_elf_strptr(o.elf(), h->e_shstrndx, tamo_elf32_getshdr(o.scn(i))->sh_name);
        const Bytes bytes = o.bytes(i);
        out.push_back({name ? name : "", keep(name ? name : "") ? bytes : Bytes{}});
    }
    tamo_elf_errno();
    return out;
}

// A big-endian object reads as `expected` through a file id and an image,
// and the image comes back as it was.
void expectReads(const Bytes& file, const Sections& expected, const std::string& what) {
    for (Access how : {Access::File, Access::Image}) {
        Opened o(file, how);
        EXPECT_TRUE(sectionsOf(o, isInfoOrLine) == expected) << what << " " << name(how);
        if (how == Access::File) continue;
        o.end();
        Bytes back = o.image()->bytes();
        back[EI_DATA] = file[EI_DATA];
        EXPECT_TRUE(back == file) << what << ": image not restored";
    }
}

TEST(Dwarf, SeveralInfoSectionsBeforeTheirAbbreviations) {
    // Reading the first .debug_info walks past the second while the tables
    // are being read: that nested conversion does not read them again, and
    // is made once they are there. Both arrive converted.
    const Fields first = unit(5, cat({uleb(1), str("one"), Fields{{4, 0x01020304}}}), 4, 2);
    const Fields second = unit(4, cat({uleb(1), str("two"), Fields{{4, 0x05060708}}}));
    const Fields program = lineProgram(5, cat({bytes({0, 5, 2}), Fields{{4, 0x1000}}}));
    ObjectBuilder b(Order::Big);
    b.add({.name = ".debug_info", .content = first});
    b.add({.name = ".debug_info", .content = second});
    b.add({.name = ".debug_line", .content = program});
    b.add({.name = ".debug_abbrev", .content = raw(abbrevOf({{0x03, 0x08}, {0x3e, 0x06}}))});
    expectReads(b.build(),
                {{".debug_info", encode(first, kHost)},
                 {".debug_info", encode(second, kHost)},
                 {".debug_line", encode(program, kHost)},
                 {".debug_abbrev", {}},
                 {".shstrtab", {}}},
                "sections");
}

// ---------------------------------------------------------------------------
// Real compiler output

// A section of many units, as a partial link makes, converts unit by unit
// as the one unit does, in place and between buffers: the compile unit of
// the big-endian object (as stored) repeated, against the little-endian one.
void expectManyUnits(const Sections& stored, const Sections& expected, const std::string& what) {
    const Bytes* abbrev = nullptr;
    for (const auto& [name, bytes] : stored)
        if (name == ".debug_abbrev") abbrev = &bytes;
    for (size_t i = 0; i < stored.size() && abbrev; ++i) {
        if (stored[i].first != ".debug_info") continue;
        Bytes big, little;
        for (int k = 0; k < 7; ++k) {
            big.insert(big.end(), stored[i].second.begin(), stored[i].second.end());
            little.insert(little.end(), expected[i].second.begin(), expected[i].second.end());
        }
        const tamo::AbbrevBytes a{abbrev->data(), abbrev->size()};
        for (const tamo::Walk walk : {tamo::Walk::Chase, tamo::Walk::Windows}) {
            Bytes inPlace = big, out(big.size());
            tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(inPlace.data()),
                               reinterpret_cast<char*>(inPlace.data()), big.size(), nullptr, false, &a, walk);
            tamo::dwarfConvert(".debug_info", reinterpret_cast<char*>(big.data()), reinterpret_cast<char*>(out.data()),
                               big.size(), nullptr, false, &a, walk);
            EXPECT_TRUE(inPlace == little && out == little) << what << ": many units, walk " << static_cast<int>(walk);
        }
        return;
    }
    ADD_FAILURE() << what << ": no .debug_info or .debug_abbrev";
}

// llvm-dwarfdump's view of an object's DWARF, without the line naming the
// file and its format.
std::string dwarfdump(const std::string& path) {
    return run("llvm-dwarfdump -v --debug-info --debug-line --debug-types '" + path + "' 2>&1 | grep -vF '" + path +
               "'");
}

TEST(RealDwarf, BigEndianObjectsReadAsTheLittleEndianOnes) {
    initLibrary();
    if (!have("clang") || !have("llvm-dwarfdump")) GTEST_SKIP() << "clang or llvm-dwarfdump is not installed";
    TempDir dir;
    const std::string big = dir.path("big.o"), little = dir.path("little.o"), copy = dir.path("rdwr.o");
    int compared = 0;
    for (const char* source : {"dwarf_sample.c", "dwarf_sample.cpp"})
        for (const char* version : {"2", "3", "4", "5"})
            for (const char* opt : {" -O0", " -O2"})
                for (const char* types : {"", " -fdebug-types-section"}) {
                    const std::string flags = std::string(" -gdwarf-") + version + opt + types,
                                      variant = source + flags;
                    const std::string cc = " -fno-addrsig" + flags + " -c '" TAMO_TEST_DATA "/" + source + "' -o '";
                    int st = 0;
                    run("{ clang --target=powerpc-linux-gnu" + cc + big + "' && clang --target=powerpcle-linux-gnu" +
                            cc + little + "'; } 2>&1",
                        &st);
                    ASSERT_EQ(st, 0) << variant;
                    if (dwarfdump(big) != dwarfdump(little)) {  // the compilers emitted different DWARF
                        std::printf("skipped (the two objects' DWARF differs): %s\n", variant.c_str());
                        continue;
                    }
                    ++compared;
                    const Bytes file = readFile(big);
                    const Sections expected = sectionsOf(Opened(readFile(little), Access::File), isInfoOrLine);
                    ASSERT_FALSE(expected.empty()) << variant;
                    expectReads(file, expected, variant);
                    expectManyUnits(sectionsOf(Opened(file, Access::File), isDebug, true), expected, variant);
                    // Written back through an update of every section's data, every
                    // DWARF section is as the compiler wrote it.
                    writeFile(copy, file);
                    const int fd = tamo_elf_open(copy.c_str(), O_RDWR, 0);
                    Elf* elf = tamo_elf_begin(fd, ELF_C_RDWR, nullptr);
                    ASSERT_NE(elf, nullptr);
                    for (size_t i = 1; i < tamo_elf32_getehdr(elf)->e_shnum; ++i)
                        tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr);
                    tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
                    ASSERT_GT(tamo_elf_update(elf, ELF_C_WRITE), 0) << tamo_elf_errmsg(tamo_elf_errno());
                    tamo_elf_end(elf);
                    close(fd);
                    EXPECT_TRUE(sectionsOf(Opened(file, Access::File), isDebug, true) ==
                                sectionsOf(Opened(readFile(copy), Access::File), isDebug, true))
                        << variant;
                }
    EXPECT_GT(compared, 0);
}

}  // namespace
