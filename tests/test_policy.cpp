// The swap policy (behaviours 1-4, read-swap controllers), translation with
// xlate, and the COFF debug sections of a foreign byte order.
#include <cstring>
#include <set>
#include <string>

#include "ReadSupport.h"

using namespace testkit;

namespace {

// Controllers are plain functions: the test sets what they answer.
std::string g_target;
int g_answer = 1;
std::set<std::string> g_offered;

int controller(Elf32_Shdr*, const char* name) {
    g_offered.insert(name);
    return g_target == name ? g_answer : 1;
}

struct BehaviourRow {
    Order order;
    int answer;
    bool converted;  // the symbol table arrives reversed from its file order
};

TEST(Policy, ControllerChoosesPerSection) {
    const BehaviourRow rows[] = {
        {Order::Big, 1, true},     {Order::Big, 2, true},     {Order::Big, 3, false},   {Order::Big, 4, false},
        {Order::Little, 1, false}, {Order::Little, 2, false}, {Order::Little, 3, true}, {Order::Little, 4, false},
    };
    for (const BehaviourRow& r : rows) {
        for (Access a : {Access::File, Access::Image}) {
            Sample s(r.order);
            Bytes file = s.build();
            Opened o(file, a);
            ASSERT_NE(o.elf(), nullptr);
            g_target = ".symtab";
            g_answer = r.answer;
            g_offered.clear();
            Elf_ReadSwapController previous = tamo_elf_setreadswapcontroller(o.elf(), controller);
            ASSERT_NE(previous, nullptr);
            EXPECT_EQ(previous(nullptr, "anything"), 1) << "the default controller answers 1";
            const Bytes stored = encode(s.section(s.symtab).content, r.order);
            const Bytes reversed = encode(s.section(s.symtab).content, other(r.order));
            EXPECT_EQ(o.bytes(s.symtab), r.converted ? reversed : stored)
                << name(r.order) << " answer " << r.answer << " " << name(a);
            // Other sections follow behaviour 1; headers are always in host order.
            EXPECT_EQ(o.bytes(s.hash), encode(s.section(s.hash).content, kHost));
            EXPECT_EQ(tamo_elf32_getshdr(o.scn(s.symtab))->sh_link, static_cast<uint32_t>(s.strtab));
            EXPECT_TRUE(g_offered.count(".symtab"));
            EXPECT_FALSE(g_offered.count(".shstrtab")) << "the name table is never offered";
            EXPECT_EQ(tamo_elf_setreadswapcontroller(o.elf(), nullptr), controller);
        }
    }
}

TEST(Policy, ControllerAnsweringAnInvalidId) {
    for (Access a : {Access::File, Access::Image}) {
        Sample s(Order::Big);
        Bytes file = s.build();
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        tamo_elf_setreadswapcontroller(o.elf(), controller);
        g_target = ".hash";
        g_answer = 7;
        tamo_elf_errno();
        Elf_Data* d = o.data(s.hash);
        ASSERT_NE(d, nullptr) << "the section is still read";
        EXPECT_EQ(tamo_elf_errno(), 98);
        EXPECT_EQ(o.bytes(s.hash), encode(s.section(s.hash).content, Order::Big)) << "left as stored";
        g_target.clear();
    }
}

TEST(Policy, SetSwapBehavior) {
    Sample s(Order::Big);
    Bytes file = s.build();
    Opened o(file, Access::File);
    Elf_Scn* scn = o.scn(s.hash);
    for (int bad : {0, 5, -1}) {
        EXPECT_EQ(tamo_elf_setswapbehavior(scn, bad), -1);
        EXPECT_EQ(tamo_elf_errno(), 98);
    }
    for (int good : {1, 2, 3, 4}) EXPECT_EQ(tamo_elf_setswapbehavior(scn, good), 0);
    EXPECT_EQ(tamo_elf_setswapbehavior(nullptr, 9), -1);
    EXPECT_EQ(tamo_elf_errno(), 98) << "the id is checked first";
}

// -------------------------------------------------------------------------

TEST(Xlate, ToMemoryAndToFile) {
    Sample s(Order::Little);
    Bytes file = s.build();
    Opened o(file, Access::File);
    Elf_Data* src = o.data(s.symtab);
    ASSERT_NE(src, nullptr);
    const Bytes host(static_cast<uint8_t*>(src->d_buf), static_cast<uint8_t*>(src->d_buf) + src->d_size);

    Bytes out(src->d_size + 8, 0xee);
    Elf_Data dst{out.data(), ELF_T_BYTE, out.size(), 0, 1, 1};
    // The host's order: a copy.
    EXPECT_EQ(tamo_elf32_xlatetom(&dst, src, ELFDATA2LSB), &dst);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + host.size()), host);
    EXPECT_EQ(dst.d_size, src->d_size) << "a larger destination takes the source's size";
    EXPECT_EQ(dst.d_type, ELF_T_SYM);
    // The other order: every unit converted, whatever the section's behaviour.
    tamo_elf_setswapbehavior(o.scn(s.symtab), 4);
    dst.d_size = out.size();
    EXPECT_EQ(tamo_elf32_xlatetof(&dst, src, ELFDATA2MSB), &dst);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + host.size()), encode(s.section(s.symtab).content, Order::Big));
    // And back.
    Bytes back(host.size());
    Elf_Data other{back.data(), ELF_T_BYTE, back.size(), 0, 1, 1};
    Elf_Data* mid = o.data(s.symtab);
    std::memcpy(mid->d_buf, out.data(), host.size());
    EXPECT_EQ(tamo_elf32_xlatetom(&other, mid, ELFDATA2MSB), &other);
    EXPECT_EQ(back, host);
}

TEST(Xlate, ArgumentChecksInOrder) {
    Sample s(Order::Little);
    Bytes file = s.build();
    Opened o(file, Access::File);
    Elf_Data* src = o.data(s.hash);
    Bytes buf(64);
    Elf_Data small{buf.data(), ELF_T_BYTE, 4, 0, 1, 1};
    Elf_Data big{buf.data(), ELF_T_BYTE, buf.size(), 0, 1, 1};
    Elf_Data callerOwn{buf.data(), ELF_T_WORD, 8, 0, 1, 1};
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf32_xlatetof(&big, &callerOwn, 2), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 72) << "a record the library did not hand out";
    EXPECT_EQ(tamo_elf32_xlatetof(&small, src, 3), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 41) << "size before encoding";
    EXPECT_EQ(tamo_elf32_xlatetom(&big, src, 3), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 24);
    EXPECT_EQ(tamo_elf32_xlatetom(&big, src, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 24);
}

TEST(Xlate, EmptySourceConvertsNothing) {
    ObjectBuilder b(Order::Little);
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4});
    Bytes file = b.build();
    Opened o(file, Access::File);
    Elf_Data* src = o.data(1);
    ASSERT_NE(src, nullptr);
    EXPECT_EQ(src->d_size, 0u);
    Bytes buf(8);
    Elf_Data dst{buf.data(), ELF_T_BYTE, buf.size(), 0, 1, 1};
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf32_xlatetof(&dst, src, ELFDATA2MSB), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 0);
}

TEST(Xlate, PartialUnitsAreNeitherConvertedNorCopied) {
    ObjectBuilder b(Order::Little);
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = raw(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10})});
    Bytes file = b.build();
    Opened o(file, Access::File);
    Elf_Data* src = o.data(1);
    Bytes buf(10, 0xee);
    Elf_Data dst{buf.data(), ELF_T_BYTE, buf.size(), 0, 1, 1};
    EXPECT_EQ(tamo_elf32_xlatetof(&dst, src, ELFDATA2MSB), &dst);
    EXPECT_EQ(buf, (Bytes{4, 3, 2, 1, 8, 7, 6, 5, 0xee, 0xee}));
}

// -------------------------------------------------------------------------

TEST(Coff, BigEndianRecordsAreRepackedAndConverted) {
    for (Access a : {Access::File, Access::Image}) {
        CoffObject c(Order::Big);
        Bytes file = c.b.build();
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);

        Elf_Data* lines = o.data(c.lnno);
        ASSERT_NE(lines, nullptr);
        EXPECT_EQ(lines->d_size, 12u);
        EXPECT_EQ(lines->d_type, ELF_T_BYTE);
        Elf32_Shdr* sh = tamo_elf32_getshdr(o.scn(c.lnno));
        EXPECT_EQ(sh->sh_size, 12u);
        EXPECT_EQ(sh->sh_entsize, 6u);
        EXPECT_EQ(sh->sh_type, 15u) << "the stored type comes back";
        EXPECT_EQ(o.bytes(c.lnno), encode(Fields{{4, 0x1000}, {2, 10}, {4, 0x1001}, {2, 11}}, kHost));

        Elf_Data* sdb = o.data(c.sdb);
        ASSERT_NE(sdb, nullptr);
        EXPECT_EQ(sdb->d_size, 36u);
        EXPECT_EQ(sdb->d_type, ELF_T_BYTE);
        const Bytes got = o.bytes(c.sdb);
        const Bytes symbol = encode(Fields{{4, 0x400}, {2, 1}, {2, 0x20}, {1, 2}, {1, 1}}, kHost);
        EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), (Bytes{'f', 'u', 'n', 'c'}));
        EXPECT_EQ(Bytes(got.begin() + 8, got.begin() + 18), symbol);
        // The function's auxiliary entry: four words reversed.
        EXPECT_EQ(Bytes(got.begin() + 18, got.begin() + 34), encode(words({7, 0x30, 0x2000, 12}), kHost));

        EXPECT_EQ(o.data(c.sdbSuffix)->d_size, 40u) << "a longer name is not a symbol section";

        for (size_t i : {c.rela, c.relaTyped}) {
            Elf_Data* r = o.data(i);
            ASSERT_NE(r, nullptr);
            EXPECT_EQ(r->d_type, ELF_T_RELA);
            EXPECT_EQ(o.bytes(i), encode(words({12, 0x101, 0, 12, 0x102, 4}), kHost)) << "offsets 16 and 17 become 12";
        }
        EXPECT_EQ(tamo_elf32_getshdr(o.scn(c.rela))->sh_type, static_cast<uint32_t>(SHT_PROGBITS));
    }
}

TEST(Coff, HostOrderFilesAreLeftAlone) {
    CoffObject c(Order::Little);
    Bytes file = c.b.build();
    Opened o(file, Access::File);
    EXPECT_EQ(o.data(c.lnno)->d_size, 20u);
    EXPECT_EQ(o.data(c.sdb)->d_size, 40u);
    EXPECT_EQ(o.bytes(c.rela), encode(words({16, 0x101, 0, 17, 0x102, 4}), Order::Little));
    EXPECT_EQ(o.data(c.rela)->d_type, ELF_T_BYTE);
}

}  // namespace
