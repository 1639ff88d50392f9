// DWARF conversion: .debug_info units (headers of versions 2 to 5, every
// form, every location opcode) and .debug_line programs (headers of
// versions 2 to 5, every opcode kind), each built by the test encoder in
// both byte orders: converting the big-endian bytes must give the
// little-endian (host) ones, in place and between buffers, and converting
// back must give the input. Malformed inputs stay inside their buffers.
#include <fcntl.h>

#include <map>
#include <sstream>

#include "DwarfAbbrev.h"
#include "ReadSupport.h"
#include "Tools.h"
#include "dwarf_swap.h"

using namespace testkit;

namespace {

Bytes convert(const char* name, const Bytes& in, bool srcNative, const Bytes& abbrev, bool inPlace) {
    Bytes out = inPlace ? in : Bytes(in.size(), 0xee);
    Bytes src = in;
    tamo::AbbrevBytes a{abbrev.data(), abbrev.size()};
    tamo::dwarfConvert(name, reinterpret_cast<char*>(inPlace ? out.data() : src.data()),
                       reinterpret_cast<char*>(out.data()), in.size(), nullptr, srcNative, &a);
    if (!inPlace) {
        EXPECT_EQ(src, in) << "the source is not changed";
    }
    return out;
}

// Big-endian bytes convert to the little-endian (host) ones, both ways, in
// place and between buffers.
void expectConverts(const char* name, const Fields& content, const Bytes& abbrev, const std::string& what) {
    const Bytes big = encode(content, Order::Big), little = encode(content, Order::Little);
    for (bool inPlace : {true, false}) {
        EXPECT_EQ(convert(name, big, false, abbrev, inPlace), little) << what << (inPlace ? " in place" : "");
        EXPECT_EQ(convert(name, little, true, abbrev, inPlace), big) << what << " back" << (inPlace ? " in place" : "");
    }
}

// A .debug_info unit: version 2-4 or 5 header, then the body.
Fields unit(unsigned version, const Fields& body, uint8_t addressSize = 4, uint8_t unitType = 1,
            uint32_t abbrevOffset = 0) {
    Fields header;
    if (version >= 5) {
        header = cat({Fields{{2, version}}, bytes({unitType, addressSize}), Fields{{4, abbrevOffset}}});
        if (unitType == 2 || unitType == 6) header = cat({header, Fields{{8, 0x1122334455667788}, {4, 0x33}}});
        if (unitType == 4 || unitType == 5) header = cat({header, Fields{{8, 0x0102030405060708}}});
    } else {
        header = cat({Fields{{2, version}, {4, abbrevOffset}}, bytes({addressSize})});
    }
    Fields rest = cat({header, body});
    return cat({Fields{{4, width(rest)}}, rest});
}

// An abbreviation table with code 1 holding the given (attribute, form)
// pairs, no children; `extra` goes before the terminating pair (an
// implicit constant's value).
Bytes abbrevOf(std::initializer_list<std::pair<uint32_t, uint32_t>> attrs, bool children = false) {
    Bytes a = {1, 0x11, static_cast<uint8_t>(children)};
    for (auto [at, form] : attrs) {
        Fields f = cat({uleb(at), uleb(form)});
        if (form == 0x21) f = cat({f, sleb(-5)});
        for (const Field& x : f) a.push_back(static_cast<uint8_t>(x.value));
    }
    a.insert(a.end(), {0, 0, 0});
    return a;
}

TEST(DebugInfo, EveryForm) {
    struct Row {
        uint32_t form;
        Fields value;
        uint32_t attribute = 0x03;  // DW_AT_name
    };
    const Fields expr = cat({bytes({0x91}), sleb(-20), bytes({0x23}), uleb(300)});  // fbreg -20; plus_uconst 300
    const std::vector<Row> rows = {
        {0x01, {{4, 0x10203040}}},                                                 // addr
        {0x03, cat({Fields{{2, 3}}, bytes({1, 2, 3})})},                           // block2
        {0x04, cat({Fields{{4, 2}}, bytes({1, 2})})},                              // block4
        {0x05, {{2, 0x1234}}},                                                     // data2
        {0x06, {{4, 0x12345678}}},                                                 // data4
        {0x07, {{8, 0x0102030405060708}}},                                         // data8
        {0x08, str("a name")},                                                     // string
        {0x09, cat({uleb(3), bytes({9, 8, 7})})},                                  // block
        {0x0a, cat({bytes({2}), bytes({1, 2})})},                                  // block1
        {0x0b, bytes({0x99})},                                                     // data1
        {0x0c, bytes({1})},                                                        // flag
        {0x0d, sleb(-1000)},                                                       // sdata
        {0x0e, {{4, 0x100}}},                                                      // strp
        {0x0f, uleb(1u << 20)},                                                    // udata
        {0x10, {{4, 0x4000}}},                                                     // ref_addr
        {0x11, bytes({5})},                                                        // ref1
        {0x12, {{2, 0x5005}}},                                                     // ref2
        {0x13, {{4, 0x50000005}}},                                                 // ref4
        {0x14, {{8, 0x5000000000000005}}},                                         // ref8
        {0x15, uleb(77)},                                                          // ref_udata
        {0x16, cat({uleb(0x06), Fields{{4, 0xabcdef01}}})},                        // indirect data4
        {0x16, cat({uleb(0x16), uleb(0x05), Fields{{2, 0xabcd}}})},                // indirect indirect data2
        {0x17, {{4, 0x6000}}},                                                     // sec_offset
        {0x18, cat({uleb(width(expr)), expr})},                                    // exprloc
        {0x19, {}},                                                                // flag_present
        {0x1a, uleb(3)},                                                           // strx
        {0x1b, uleb(4)},                                                           // addrx
        {0x1c, {{4, 0x7000}}},                                                     // ref_sup4
        {0x1d, {{4, 0x7001}}},                                                     // strp_sup
        {0x1e, raw(Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},  // data16, unchanged
        {0x1f, {{4, 0x7002}}},                                                     // line_strp
        {0x20, {{8, 0xfeedfacecafebeef}}},                                         // ref_sig8
        {0x21, {}},                                                                // implicit_const
        {0x22, uleb(1)},                                                           // loclistx
        {0x23, uleb(2)},                                                           // rnglistx
        {0x24, {{8, 0x7003}}},                                                     // ref_sup8
        {0x25, bytes({1})},                                                        // strx1
        {0x26, {{2, 0x0102}}},                                                     // strx2
        {0x27, {{3, 0x010203}}},                                                   // strx3
        {0x28, {{4, 0x01020304}}},                                                 // strx4
        {0x29, bytes({2})},                                                        // addrx1
        {0x2a, {{2, 0x0203}}},                                                     // addrx2
        {0x2b, {{3, 0x020304}}},                                                   // addrx3
        {0x2c, {{4, 0x02030405}}},                                                 // addrx4
        {0x1f01, uleb(9)},                                                         // GNU_addr_index
        {0x1f21, {{4, 0x8000}}},                                                   // GNU_strp_alt
        // A block of a location attribute holds an expression; of another
        // attribute, bytes.
        {0x0a, cat({bytes({static_cast<uint8_t>(width(expr))}), expr}), 0x02},
        {0x09, cat({uleb(5), bytes({0x03, 1, 2, 3, 4})}), 0x1c},  // const_value: copied as it is
    };
    for (const Row& r : rows) {
        const Bytes abbrev = abbrevOf({{r.attribute, r.form}, {0x3e, 0x0b}});
        for (unsigned version : {2u, 4u, 5u}) {
            // The value, then a data1 after it shows the walk kept its place.
            const Fields content = unit(version, cat({uleb(1), r.value, bytes({0x42})}));
            expectConverts(".debug_info", content, abbrev, "form " + std::to_string(r.form));
        }
    }
}

TEST(DebugInfo, EveryLocationOpcode) {
    struct Row {
        uint8_t op;
        Fields operands;
    };
    const std::vector<Row> rows = {
        {0x03, {{4, 0x10002000}}}, {0x08, bytes({0xff})}, {0x09, bytes({0x80})}, {0x0a, {{2, 0x1234}}},
        {0x0b, {{2, 0xfedc}}}, {0x0c, {{4, 0x12345678}}}, {0x0d, {{4, 0x87654321}}},
        {0x0e, {{8, 0x0102030405060708}}}, {0x0f, {{8, 0x8070605040302010}}}, {0x10, uleb(200)}, {0x11, sleb(-200)},
        {0x15, bytes({3})}, {0x23, uleb(1000)}, {0x28, {{2, 0xfffc}}}, {0x2f, {{2, 6}}}, {0x70, sleb(-8)},
        {0x75, sleb(64)}, {0x8f, sleb(0)}, {0x90, uleb(33)}, {0x91, sleb(-24)}, {0x92, cat({uleb(31), sleb(-8)})},
        {0x93, uleb(4)}, {0x94, bytes({4})}, {0x95, bytes({2})}, {0x98, {{2, 0x0102}}}, {0x99, {{4, 0x01020304}}},
        {0x9a, {{4, 0x05060708}}}, {0x9d, cat({uleb(3), uleb(5)})},
        {0x9e, cat({uleb(4), bytes({1, 2, 3, 4})})},  // implicit_value: bytes copied
        {0xa0, cat({Fields{{4, 0x300}}, sleb(-4)})}, {0xa1, uleb(7)}, {0xa2, uleb(8)},
        {0xa3, cat({uleb(3), bytes({0x0a}), Fields{{2, 0x0a0b}}})},      // entry_value: a nested expression
        {0xa4, cat({uleb(0x40), bytes({4}), Fields{{4, 0x11223344}}})},  // const_type: size then reversed
        {0xa5, cat({uleb(3), uleb(0x40)})}, {0xa6, cat({bytes({4}), uleb(0x40)})},
        {0xa7, cat({bytes({8}), uleb(0x41)})}, {0xa8, uleb(0x42)}, {0xa9, uleb(0x43)},
        {0xf3, cat({uleb(2), bytes({0x50, 0x9f})})},
        {0xfa, {{4, 0xcafe}}},  // GNU entry_value, parameter_ref
        {0xe0, {}}, {0x06, {}}, {0x30, {}}, {0x35, {}}, {0x50, {}}, {0x9f, {}}, {0x96, {}},
    };
    for (const Row& r : rows) {
        const Fields expr = cat({bytes({r.op}), r.operands, bytes({0x9f})});  // then stack_value
        for (uint32_t form : {0x18u, 0x09u}) {                                // exprloc, block of DW_AT_location
            const Bytes abbrev = abbrevOf({{0x02, form}, {0x3e, 0x0b}});
            const Fields content = unit(4, cat({uleb(1), uleb(width(expr)), expr, bytes({0x42})}));
            expectConverts(".debug_info", content, abbrev, "opcode " + std::to_string(r.op));
        }
    }
    // 8-byte addresses follow the unit's address size.
    const Bytes abbrev = abbrevOf({{0x02, 0x18}});
    expectConverts(".debug_info", unit(5, cat({uleb(1), uleb(9), bytes({0x03}), Fields{{8, 0x1020304050607080}}}), 8),
                   abbrev, "addr of 8 bytes");
    // An opcode the walk does not know: the rest of its expression goes as
    // it is, and the walk goes on after the expression.
    const Fields unknown =
        cat({uleb(1), uleb(7), bytes({0x0c}), Fields{{4, 0x01020304}}, bytes({0xe7, 0x0c, 0x11}), bytes({0x42})});
    const Bytes big = encode(unit(4, unknown), Order::Big);
    Bytes expected = encode(unit(4, unknown), Order::Little);
    EXPECT_EQ(convert(".debug_info", big, false, abbrevOf({{0x02, 0x18}, {0x3e, 0x0b}}), true), expected);
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
    Fields all;
    for (uint8_t type : {1, 2, 3, 4, 5, 6}) all = cat({all, unit(5, tree, 4, type)});
    for (unsigned version : {2u, 3u, 4u}) all = cat({all, unit(version, tree)});
    all = cat({all, unit(4, cat({uleb(1), Fields{{2, 0xbeef}}}), 4, 1, static_cast<uint32_t>(second))});
    expectConverts(".debug_info", all, abbrev, "units");

    // DWARF 4 type units (.debug_types): the header goes on with a type
    // signature and a type offset.
    Fields types;
    for (unsigned version : {2u, 4u}) {
        const Fields rest = cat({Fields{{2, version}, {4, 0}}, bytes({4}), Fields{{8, 0x0102030405060708}, {4, 0x17}},
                                 tree});
        types = cat({types, Fields{{4, width(rest)}}, rest});
    }
    expectConverts(".debug_types", types, abbrev, "type units");
}

// A line program of the given version: header (opcode_base 13 with the
// standard lengths unless given), directory and file tables, then `ops`.
Fields lineProgram(unsigned version, const Fields& ops,
                   std::vector<uint8_t> lengths = {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1}) {
    Fields h = bytes({1});  // minimum_instruction_length
    if (version >= 4) h = cat({h, bytes({1})});
    h = cat({h, bytes({1, 0xfb, 14, static_cast<uint8_t>(lengths.size() + 1)}),
             raw(Bytes(lengths.begin(), lengths.end()))});
    if (version >= 5) {
        h = cat({h, bytes({1}), uleb(1), uleb(0x08), uleb(1), str("/dir")});  // directories: path as string
        h = cat({h, bytes({3}), uleb(1), uleb(0x1f), uleb(2), uleb(0x0b), uleb(5), uleb(0x1e),  // path, dir, MD5
                 uleb(2), Fields{{4, 0x20}}, bytes({0}), raw(Bytes(16, 0xa5)),                  // two files
                 Fields{{4, 0x30}}, bytes({0}), raw(Bytes(16, 0x5a))});
    } else {
        h = cat({h, str("inc"), bytes({0}), str("a.c"), uleb(1), uleb(0), uleb(0), bytes({0})});
    }
    Fields afterVersion = version >= 5 ? bytes({4, 0}) : Fields{};
    Fields rest = cat({Fields{{4, width(h)}}, h, ops});
    Fields body = cat({Fields{{2, version}}, afterVersion, rest});
    return cat({Fields{{4, width(body)}}, body});
}

TEST(DebugLine, EveryOpcodeKindInEveryVersion) {
    const Fields ops = cat({
        bytes({0, 5, 2}),
        Fields{{4, 0x10000000}},  // set_address
        bytes({0, 9, 2}),
        Fields{{8, 0x1122334455667788}},  // set_address of 8 bytes
        bytes({0, 2, 4, 7}),              // set_discriminator
        bytes({0, 8, 3}),
        str("b.c"),
        uleb(0),
        uleb(0),
        uleb(0),                       // define_file (copied)
        bytes({0, 4, 0x80, 1, 2, 3}),  // an unknown extended opcode: skipped by its length
        bytes({0}),
        uleb(131),
        bytes({0x81}),
        raw(Bytes(130, 0x77)),  // a length of two LEB128 bytes
        bytes({2}),
        uleb(400),
        bytes({3}),
        sleb(-3),
        bytes({4, 2, 5, 9}),  // advance_pc, advance_line, set_file, set_column
        bytes({9}),
        Fields{{2, 0x1234}},  // fixed_advance_pc: converted
        bytes({1, 6, 7, 8, 10, 11}),
        bytes({12}),
        uleb(3),                  // no operands; set_isa
        bytes({13, 0x20, 0xff}),  // special opcodes
        bytes({0, 1, 1}),         // end_sequence
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
    const Bytes strings = {'a', 0, 'b', 'c', 0};
    EXPECT_EQ(convert(".debug_line_str", strings, false, {}, false), strings);
}

TEST(Dwarf, WhatCannotBeSizedIsCopied) {
    // Inputs the walks cannot (or must not) size: the part before the
    // problem is converted (a unit's length and version always are), the
    // rest is copied unchanged, nothing outside the buffer is touched (the
    // sanitizer build checks), and converting back gives the input.
    const Bytes abbrev = abbrevOf({{0x03, 0x08}, {0x3e, 0x0b}}, true);
    struct Row {
        const char* what;
        const char* name;
        Fields converted;  // the part that is converted (in both orders)
        Bytes copied;      // then bytes that stay as they are
    };
    const Fields header4 = Fields{{2, 4}, {4, 0}, {1, 4}};
    auto unitHead = [&](uint32_t length) { return cat({Fields{{4, length}}, header4}); };
    const std::vector<Row> rows = {
        {"unit past the end", ".debug_info", Fields{{4, 0x100}, {2, 4}}, Bytes{0, 0, 0, 0, 4, 1}},
        {"64-bit unit", ".debug_info", Fields{{4, 0xffffffff}}, Bytes{0, 0, 0, 0, 0, 0, 0, 12, 0, 4, 1, 2}},
        {"version 6", ".debug_info", Fields{{4, 8}, {2, 6}}, Bytes{0, 0, 0, 0, 4, 1}},
        {"version 1", ".debug_line", Fields{{4, 4}, {2, 1}}, Bytes{0, 0}},
        {"tree without its 0 bytes", ".debug_info", cat({unitHead(12), uleb(1), str("ab"), bytes({1})}), {}},
        {"string without its NUL", ".debug_info", unitHead(10), Bytes{1, 'a', 'b'}},
        {"LEB128 off the end", ".debug_info", unitHead(10), Bytes{0x81, 0x82, 0x83}},
        {"unknown abbreviation", ".debug_info", unitHead(11), Bytes{7, 0, 0, 0}},
        {"no table at the offset", ".debug_info", Fields{{4, 10}, {2, 4}, {4, 99}, {1, 4}}, Bytes{1, 'a', 0}},
        {"unit of an unknown type", ".debug_info", cat({Fields{{4, 10}, {2, 5}}, bytes({0x80, 4}), Fields{{4, 0}}}),
         Bytes{1, 2}},
        {"name longer than .debug_info", ".debug_info.dwo", {}, Bytes{0, 0, 0, 8, 0, 4, 0, 0, 0, 0, 4, 1}},
        {"extended opcode past the end", ".debug_line",
         cat({Fields{{4, 26}, {2, 2}, {4, 16}}, bytes({1, 1, 0xfb, 14, 10}), raw(Bytes{0, 1, 1, 1, 1, 0, 0, 0, 1}),
              bytes({0, 0})}),
         Bytes{0, 9, 2, 1}},
        {"header_length past the end", ".debug_line", Fields{{4, 8}, {2, 3}, {4, 0x100}}, Bytes{1, 1}},
    };
    for (const Row& r : rows) {
        Bytes big = encode(r.converted, Order::Big), little = encode(r.converted, Order::Little);
        big.insert(big.end(), r.copied.begin(), r.copied.end());
        little.insert(little.end(), r.copied.begin(), r.copied.end());
        for (bool inPlace : {true, false}) {
            EXPECT_EQ(convert(r.name, big, false, abbrev, inPlace), little) << r.what;
            EXPECT_EQ(convert(r.name, little, true, abbrev, inPlace), big) << r.what << " back";
        }
    }
    // A deep tree needs no deep stack.
    Fields deep;
    const int levels = 200000;
    for (int i = 0; i <= levels; ++i) deep.insert(deep.end(), {{1, 1}, {2, static_cast<uint64_t>(i & 0xffff)}});
    deep.insert(deep.end(), levels + 1, Field{1, 0});
    expectConverts(".debug_info", unit(4, deep), abbrevOf({{0x3e, 0x05}}, true), "deep");
}

TEST(Dwarf, SeveralInfoSectionsBeforeTheirAbbreviations) {
    // Reading the first .debug_info walks past the second while the tables
    // are being read: that nested conversion does not read them again, and
    // is made once they are there. Both arrive converted, and an image comes
    // back as it was.
    initLibrary();
    const Bytes abbrev = abbrevOf({{0x03, 0x08}, {0x3e, 0x06}});
    const Fields first = unit(5, cat({uleb(1), str("one"), Fields{{4, 0x01020304}}}), 4, 2);
    const Fields second = unit(4, cat({uleb(1), str("two"), Fields{{4, 0x05060708}}}));
    const Fields program = lineProgram(5, cat({bytes({0, 5, 2}), Fields{{4, 0x1000}}}));
    for (Access how : {Access::File, Access::Image}) {
        ObjectBuilder b(Order::Big);
        const size_t a = b.add({.name = ".debug_info", .content = first});
        const size_t c = b.add({.name = ".debug_info", .content = second});
        b.add({.name = ".debug_line", .content = program});
        b.add({.name = ".debug_abbrev", .content = raw(abbrev)});
        const Bytes file = b.build();
        {
            Opened o(file, how);
            EXPECT_EQ(o.bytes(a), encode(first, kHost)) << name(how);
            EXPECT_EQ(o.bytes(c), encode(second, kHost)) << name(how);
            EXPECT_EQ(o.bytes(3), encode(program, kHost)) << name(how);
            if (how == Access::Image) {
                o.end();
                Bytes back = o.image()->bytes();
                back[EI_DATA] = file[EI_DATA];
                EXPECT_EQ(back, file);
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Real compiler output

struct Section {
    std::string name;
    Bytes bytes;
};

// Every section of an object as the library reads it (converted, or as
// stored when `stored`), through a file id or a memory image.
std::vector<Section> sectionsOf(const std::string& path, Access how, bool stored = false) {
    std::vector<Section> out;
    const Bytes file = readFile(path);
    Opened o(file, how);
    if (!o.elf()) return out;
    if (stored) tamo_elf_setreadswapcontroller(o.elf(), [](Elf32_Shdr*, const char*) { return 4; });
    const Elf32_Ehdr* h = tamo_elf32_getehdr(o.elf());
    for (size_t i = 1; i < h->e_shnum; ++i) {
        Elf_Scn* scn = tamo_elf_getscn(o.elf(), i);
        if (!scn) return {};
        const char* name = tamo_elf_strptr(o.elf(), h->e_shstrndx, tamo_elf32_getshdr(scn)->sh_name);
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        const auto* p = d ? static_cast<const uint8_t*>(d->d_buf) : nullptr;
        out.push_back({name ? name : "", p ? Bytes(p, p + d->d_size) : Bytes{}});
    }
    tamo_elf_errno();
    return out;
}

bool converted(const std::string& name) {
    return name == ".debug_info" || name == ".debug_line";
}

// llvm-dwarfdump's view of an object's DWARF, without the line naming the
// file and its format.
std::string dwarfdump(const std::string& path) {
    std::istringstream in(run("llvm-dwarfdump -v --debug-info --debug-line --debug-types '" + path + "' 2>&1"));
    std::string out, line;
    while (std::getline(in, line))
        if (line.find(path) == std::string::npos) out += line + "\n";
    return out;
}

TEST(RealDwarf, BigEndianObjectsReadAsTheLittleEndianOnes) {
    initLibrary();
    if (!have("clang") || !have("llvm-dwarfdump")) GTEST_SKIP() << "clang or llvm-dwarfdump is not installed";
    TempDir dir;
    std::vector<std::string> skipped;
    int compared = 0;
    for (const char* source : {"dwarf_sample.c", "dwarf_sample.cpp"}) {
        for (int version = 2; version <= 5; ++version) {
            for (const char* opt : {"-O0", "-O2"}) {
                for (const char* types : {"", "-fdebug-types-section"}) {
                    const std::string variant =
                        std::string(source) + " -gdwarf-" + std::to_string(version) + " " + opt + " " + types;
                    std::map<std::string, std::string> objs;
                    for (const char* target : {"powerpc-linux-gnu", "powerpcle-linux-gnu"}) {
                        const std::string obj = dir.path(std::to_string(compared) + target + ".o");
                        int st = 0;
                        run(std::string("clang --target=") + target + " -fno-addrsig -gdwarf-" +
                                std::to_string(version) + " " + opt + " " + types + " -c '" + TAMO_TEST_DATA + "/" +
                                source + "' -o '" + obj + "' 2>&1",
                            &st);
                        ASSERT_EQ(st, 0) << variant;
                        objs[target] = obj;
                    }
                    const std::string big = objs["powerpc-linux-gnu"], little = objs["powerpcle-linux-gnu"];
                    if (dwarfdump(big) != dwarfdump(little)) {
                        skipped.push_back(variant);  // the compilers emitted different DWARF
                        continue;
                    }
                    ++compared;
                    const std::vector<Section> expected = sectionsOf(little, Access::File);
                    ASSERT_FALSE(expected.empty()) << variant;
                    for (Access how : {Access::File, Access::Image}) {
                        const std::vector<Section> got = sectionsOf(big, how);
                        ASSERT_EQ(got.size(), expected.size()) << variant;
                        for (size_t i = 0; i < got.size(); ++i) {
                            EXPECT_EQ(got[i].name, expected[i].name);
                            if (!converted(got[i].name)) continue;
                            EXPECT_TRUE(got[i].bytes == expected[i].bytes)
                                << variant << " " << name(how) << " section " << i + 1 << " " << got[i].name;
                        }
                    }
                    // A memory image comes back as it was.
                    {
                        const Bytes file = readFile(big);
                        ImageBuffer image(file);
                        Elf* elf = tamo_elf_memory(image.data(), image.size());
                        ASSERT_NE(elf, nullptr);
                        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
                        tamo_elf_end(elf);
                        Bytes back = image.bytes();
                        back[EI_DATA] = file[EI_DATA];
                        EXPECT_TRUE(back == file) << variant << ": image not restored";
                    }
                    // Written back through an update, every DWARF section is as the
                    // compiler wrote it.
                    {
                        const std::string copy = dir.path("rdwr.o");
                        writeFile(copy, readFile(big));
                        const int fd = tamo_elf_open(copy.c_str(), O_RDWR, 0);
                        Elf* elf = tamo_elf_begin(fd, ELF_C_RDWR, nullptr);
                        ASSERT_NE(elf, nullptr);
                        for (size_t i = 1; i < tamo_elf32_getehdr(elf)->e_shnum; ++i) tamo_elf_getscn(elf, i);
                        tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
                        ASSERT_GT(tamo_elf_update(elf, ELF_C_WRITE), 0) << tamo_elf_errmsg(tamo_elf_errno());
                        tamo_elf_end(elf);
                        close(fd);
                        const std::vector<Section> before = sectionsOf(big, Access::File, true);
                        const std::vector<Section> after = sectionsOf(copy, Access::File, true);
                        ASSERT_EQ(before.size(), after.size());
                        for (size_t i = 0; i < before.size(); ++i) {
                            if (before[i].name.rfind(".debug", 0) != 0) continue;
                            EXPECT_TRUE(before[i].bytes == after[i].bytes) << variant << " " << before[i].name;
                        }
                    }
                }
            }
        }
    }
    for (const std::string& v : skipped) std::printf("skipped (the two objects' DWARF differs): %s\n", v.c_str());
    EXPECT_GT(compared, 0);
}

}  // namespace
