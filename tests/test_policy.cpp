// The swap policy (behaviours 1-4, read-swap controllers), translation with
// xlate, and the COFF debug sections of a foreign byte order.
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "ReadSupport.h"

using namespace testkit;

namespace {

// Controllers are plain functions: the test sets what they answer for each
// section (1 for the others) and sees which sections they are offered.
std::map<std::string, int> g_answers;
std::set<std::string> g_offered;

int controller(Elf32_Shdr*, const char* name) {
    g_offered.insert(name);
    const auto it = g_answers.find(name);
    return it == g_answers.end() ? 1 : it->second;
}

TEST(Policy, ControllerChoosesPerSection) {
    // The controller's answer for the symbol table, and whether it then
    // arrives reversed from its file order.
    const std::tuple<Order, int, bool> rows[] = {
        {Order::Big, 1, true},     {Order::Big, 2, true},     {Order::Big, 3, false},   {Order::Big, 4, false},
        {Order::Little, 1, false}, {Order::Little, 2, false}, {Order::Little, 3, true}, {Order::Little, 4, false},
    };
    for (const auto& [order, answer, converted] : rows) {
        Sample s(order);
        const Bytes file = s.build();
        for (Access a : {Access::File, Access::Image}) {
            Opened o(file, a);
            g_answers = {{".symtab", answer}, {".hash", 7}};
            g_offered.clear();
            Elf_ReadSwapController previous = tamo_elf_setreadswapcontroller(o.elf(), controller);
            ASSERT_NE(previous, nullptr);
            EXPECT_EQ(previous(nullptr, "anything"), 1) << "the default controller answers 1";
            EXPECT_EQ(o.bytes(s.symtab), encode(s.section(s.symtab).content, converted ? other(order) : order))
                << name(order) << " answer " << answer << " " << name(a);
            // Other sections follow behaviour 1; headers are always in host order.
            EXPECT_EQ(o.bytes(s.rela), hostBytes(s.section(s.rela)));
            EXPECT_EQ(tamo_elf32_getshdr(o.scn(s.symtab))->sh_link, static_cast<uint32_t>(s.strtab));
            // An answer that is no behaviour: the section is still read, left
            // as stored, with code 98.
            tamo_elf_errno();
            EXPECT_EQ(o.bytes(s.hash), encode(s.section(s.hash).content, order)) << "left as stored";
            EXPECT_EQ(tamo_elf_errno(), 98);
            EXPECT_TRUE(g_offered.count(".symtab"));
            EXPECT_FALSE(g_offered.count(".shstrtab")) << "the name table is never offered";
            EXPECT_EQ(tamo_elf_setreadswapcontroller(o.elf(), nullptr), controller);
        }
    }
    g_answers.clear();
}

TEST(Policy, SetSwapBehavior) {
    Sample s(Order::Big);
    Opened o(s.build(), Access::File);
    for (int b : {0, 5, -1, 1, 2, 3, 4}) {
        const bool good = b >= 1 && b <= 4;
        EXPECT_EQ(tamo_elf_setswapbehavior(o.scn(s.hash), b), good ? 0 : -1) << b;
        EXPECT_EQ(tamo_elf_errno(), good ? 0 : 98) << b;
    }
    EXPECT_EQ(tamo_elf_setswapbehavior(nullptr, 9), -1);
    EXPECT_EQ(tamo_elf_errno(), 98) << "the id is checked first";
}

// -------------------------------------------------------------------------

TEST(Xlate, CopiesConvertsAndChecksItsArguments) {
    Sample s(Order::Little);
    const size_t empty = s.builder.add({.name = ".hash.empty", .type = SHT_HASH, .align = 4});
    const size_t ten = s.builder.add(
        {.name = ".hash.odd", .type = SHT_HASH, .align = 4, .content = raw(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10})});
    Opened o(s.build(), Access::File);
    Elf_Data* src = o.data(s.symtab);
    ASSERT_NE(src, nullptr);
    const Bytes host = o.bytes(s.symtab);
    Bytes out(host.size() + 8, 0xee);
    Elf_Data dst{out.data(), ELF_T_BYTE, out.size(), 0, 1, 1};
    // The host's order: a copy; a larger destination takes the source's size
    // and type.
    EXPECT_EQ(tamo_elf32_xlatetom(&dst, src, ELFDATA2LSB), &dst);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + host.size()), host);
    EXPECT_EQ(dst.d_size, host.size());
    EXPECT_EQ(dst.d_type, ELF_T_SYM);
    // The other order: every unit converted, whatever the section's
    // behaviour; and back.
    tamo_elf_setswapbehavior(o.scn(s.symtab), 4);
    EXPECT_EQ(tamo_elf32_xlatetof(&dst, src, ELFDATA2MSB), &dst);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + host.size()), encode(s.section(s.symtab).content, Order::Big));
    std::memcpy(src->d_buf, out.data(), host.size());
    EXPECT_EQ(tamo_elf32_xlatetom(&dst, src, ELFDATA2MSB), &dst);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + host.size()), host);

    // An empty source converts nothing, and that is no error.
    ASSERT_NE(o.data(empty), nullptr);
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf32_xlatetof(&dst, o.data(empty), ELFDATA2MSB), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 0);
    // The bytes of a partial last unit are neither converted nor copied.
    Bytes buf(10, 0xee);
    Elf_Data exact{buf.data(), ELF_T_BYTE, buf.size(), 0, 1, 1};
    EXPECT_EQ(tamo_elf32_xlatetof(&exact, o.data(ten), ELFDATA2MSB), &exact);
    EXPECT_EQ(buf, (Bytes{4, 3, 2, 1, 8, 7, 6, 5, 0xee, 0xee}));
    // The checks in order: a record the library did not hand out, the size,
    // the encoding.
    Elf_Data small{out.data(), ELF_T_BYTE, 4, 0, 1, 1};
    Elf_Data large{out.data(), ELF_T_BYTE, out.size(), 0, 1, 1};
    Elf_Data callerOwn{out.data(), ELF_T_WORD, 8, 0, 1, 1};
    EXPECT_EQ(tamo_elf32_xlatetof(&large, &callerOwn, 2), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 72);
    EXPECT_EQ(tamo_elf32_xlatetof(&small, src, 3), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 41);
    EXPECT_EQ(tamo_elf32_xlatetom(&large, src, 3), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 24);
    EXPECT_EQ(tamo_elf32_xlatetom(&large, src, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 24);
}

// -------------------------------------------------------------------------

TEST(Coff, BigEndianRecordsAreRepackedAndConverted) {
    CoffObject c(Order::Big);
    const Bytes file = c.b.build();
    for (Access a : {Access::File, Access::Image}) {
        Opened o(file, a);
        // Line numbers: two 6-byte records, the trailing partial one dropped;
        // the stored type comes back.
        EXPECT_EQ(o.bytes(c.lnno), encode(Fields{{4, 0x1000}, {2, 10}, {4, 0x1001}, {2, 11}}, kHost));
        const Elf32_Shdr* sh = tamo_elf32_getshdr(o.scn(c.lnno));
        EXPECT_EQ((std::vector<uint32_t>{sh->sh_size, sh->sh_entsize, sh->sh_type}),
                  (std::vector<uint32_t>{12, 6, 15}));
        // The function symbol and its auxiliary entry (four words), 18 bytes
        // each; a longer name is not a symbol section.
        EXPECT_EQ(o.bytes(c.sdb), encode(cat({raw(std::string("func\0\0\0\0", 8)),
                                              Fields{{4, 0x400}, {2, 1}, {2, 0x20}, {1, 2}, {1, 1}},
                                              words({7, 0x30, 0x2000, 12}), Fields{{2, 0}}}),
                                         kHost));
        EXPECT_EQ(o.bytes(c.sdbSuffix).size(), 40u);
        // Relocations of line numbers, by name whatever their type: offsets 16
        // and 17 become 12.
        for (size_t i : {c.rela, c.relaTyped})
            EXPECT_EQ(o.bytes(i), encode(words({12, 0x101, 0, 12, 0x102, 4}), kHost)) << i;
        EXPECT_EQ(tamo_elf32_getshdr(o.scn(c.rela))->sh_type, static_cast<uint32_t>(SHT_PROGBITS));
        for (size_t i : {c.lnno, c.sdb, c.rela, c.relaTyped}) ASSERT_NE(o.data(i), nullptr) << i;
        EXPECT_EQ((std::vector<Elf_Type>{o.data(c.lnno)->d_type, o.data(c.sdb)->d_type, o.data(c.rela)->d_type,
                                         o.data(c.relaTyped)->d_type}),
                  (std::vector<Elf_Type>{ELF_T_BYTE, ELF_T_BYTE, ELF_T_RELA, ELF_T_RELA}));
    }
}

TEST(Coff, HostOrderFilesAreLeftAlone) {
    CoffObject c(Order::Little);
    Opened o(c.b.build(), Access::File);
    EXPECT_EQ(o.data(c.lnno)->d_size, 20u);
    EXPECT_EQ(o.data(c.sdb)->d_size, 40u);
    EXPECT_EQ(o.bytes(c.rela), encode(words({16, 0x101, 0, 17, 0x102, 4}), Order::Little));
    EXPECT_EQ(o.data(c.rela)->d_type, ELF_T_BYTE);
}

}  // namespace
