// Reading objects of either byte order through a file id and a memory
// image: header, section headers and every record type arrive in host order.
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <tuple>

#include "ReadSupport.h"
#include "Registry.h"

using namespace testkit;

namespace {

class ReadBoth : public ::testing::TestWithParam<std::tuple<Order, Access>> {
protected:
    Order order() const { return std::get<0>(GetParam()); }
    Access access() const { return std::get<1>(GetParam()); }

    // The sample object in this test's byte order, opened this test's way.
    Sample s{order()};
    Opened& open() {
        m_file = s.build();
        m_opened = std::make_unique<Opened>(m_file, access());
        return *m_opened;
    }

private:
    Bytes m_file;
    std::unique_ptr<Opened> m_opened;
};

std::string paramName(const ::testing::TestParamInfo<std::tuple<Order, Access>>& info) {
    return std::string(name(std::get<0>(info.param))) + "_" + name(std::get<1>(info.param));
}

TEST_P(ReadBoth, HeaderInHostOrder) {
    s.builder.entry = 0x01020304;
    s.builder.flags = 0x80000001;
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    EXPECT_EQ(tamo_elf_kind(o.elf()), ELF_K_ELF);
    Elf32_Ehdr* h = tamo_elf32_getehdr(o.elf());
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->e_ident[EI_DATA], static_cast<int>(order()));
    EXPECT_EQ(h->e_type, 1);
    EXPECT_EQ(h->e_machine, 20);
    EXPECT_EQ(h->e_version, 1u);
    EXPECT_EQ(h->e_entry, 0x01020304u);
    EXPECT_EQ(h->e_flags, 0x80000001u);
    EXPECT_EQ(h->e_ehsize, 52);
    EXPECT_EQ(h->e_shentsize, 44);
    EXPECT_EQ(h->e_shnum, s.names() + 1);
    EXPECT_EQ(h->e_shstrndx, s.names());
    size_t count = 99;
    char* ident = tamo_elf_getident(o.elf(), &count);
    EXPECT_EQ(count, 16u);
    EXPECT_EQ(ident, reinterpret_cast<char*>(h->e_ident));
    EXPECT_EQ(tamo_elf_getident(o.elf(), nullptr), ident);
    EXPECT_EQ(tamo_elf_getbase(o.elf()), 0);
}

TEST_P(ReadBoth, SectionHeadersInHostOrder) {
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr);
    for (size_t i = 1; i < s.names(); ++i) {
        const Section& want = s.section(i);
        Elf_Scn* scn = o.scn(i);
        ASSERT_NE(scn, nullptr) << i << " " << tamo_elf_errmsg(tamo_elf_errno());
        EXPECT_EQ(tamo_elf_ndxscn(scn), i);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        ASSERT_NE(sh, nullptr);
        EXPECT_STREQ(tamo_elf_strptr(o.elf(), s.names(), sh->sh_name), want.name.c_str());
        EXPECT_EQ(sh->sh_type, want.type) << want.name;
        EXPECT_EQ(sh->sh_flags, want.flags);
        EXPECT_EQ(sh->sh_link, want.link);
        EXPECT_EQ(sh->sh_info, want.info);
        EXPECT_EQ(sh->sh_addralign, want.align);
        EXPECT_EQ(sh->sh_entsize, want.entsize);
        EXPECT_EQ(sh->sh_extra, want.extra) << "the eleventh word";
        EXPECT_EQ(sh->sh_offset, s.builder.offsetOf(i));
        const uint32_t size = want.forceSize >= 0 ? static_cast<uint32_t>(want.forceSize)
                                                  : static_cast<uint32_t>(encode(want.content, order()).size());
        EXPECT_EQ(sh->sh_size, size) << want.name;
    }
}

TEST_P(ReadBoth, EveryRecordTypeInHostOrder) {
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr);
    struct Expect {
        size_t index;
        Elf_Type type;
    };
    for (Expect e : {Expect{s.text, ELF_T_BYTE}, Expect{s.strtab, ELF_T_BYTE}, Expect{s.symtab, ELF_T_SYM},
                     Expect{s.rela, ELF_T_RELA}, Expect{s.rel, ELF_T_REL}, Expect{s.hash, ELF_T_WORD},
                     Expect{s.dynamic, ELF_T_DYN}, Expect{s.sixword, ELF_T_SIXWORD}, Expect{s.offs, ELF_T_OFF},
                     Expect{s.threeword, ELF_T_THREEWORD}, Expect{s.own12, ELF_T_BYTE}, Expect{s.note, ELF_T_BYTE}}) {
        const Section& want = s.section(e.index);
        Elf_Data* d = o.data(e.index);
        ASSERT_NE(d, nullptr) << want.name;
        EXPECT_EQ(d->d_type, e.type) << want.name;
        EXPECT_EQ(d->d_off, 0);
        EXPECT_EQ(d->d_align, 1u);
        EXPECT_EQ(d->d_version, 1u);
        // Bytes are only converted for typed data; plain bytes stay as stored.
        const Bytes expect = encode(want.content, e.type == ELF_T_BYTE ? order() : kHost);
        EXPECT_EQ(d->d_size, expect.size()) << want.name;
        EXPECT_EQ(o.bytes(e.index), expect) << want.name;
    }
    // Symbols through the public record.
    auto* syms = static_cast<Elf32_Sym*>(o.data(s.symtab)->d_buf);
    EXPECT_EQ(syms[1].st_value, 0x10u);
    EXPECT_EQ(syms[1].st_size, 0x20u);
    EXPECT_EQ(syms[1].st_info, 0x12);
    EXPECT_EQ(syms[1].st_other, 0x01);
    EXPECT_EQ(syms[1].st_shndx, s.text);
    EXPECT_EQ(syms[1].st_extra, 0xdeadbeefu);
    EXPECT_EQ(syms[2].st_shndx, 0xfff1);
    EXPECT_STREQ(tamo_elf_strptr(o.elf(), s.strtab, syms[2].st_name), "counter");
    auto* relas = static_cast<Elf32_Rela*>(o.data(s.rela)->d_buf);
    EXPECT_EQ(relas[0].r_addend, -8);
    EXPECT_EQ(relas[1].r_info, 0x0203u);
}

TEST_P(ReadBoth, WalkingSectionsAndData) {
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr);
    // Sections without data: SHT_NOBITS keeps its size, section 0 has none.
    EXPECT_EQ(tamo_elf32_getshdr(o.scn(s.bss))->sh_size, 64u);
    for (size_t i : {s.bss, size_t{0}}) {
        EXPECT_EQ(tamo_elf_getdata(o.scn(i), nullptr), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 37);
    }
    // Out of order requests keep one descriptor per index.
    Elf_Scn* third = o.scn(3);
    Elf_Scn* first = o.scn(1);
    EXPECT_NE(third, first);
    EXPECT_EQ(o.scn(3), third);
    // nextscn starts at 1 and ends with code 21.
    size_t n = 0;
    Elf_Scn* scn = nullptr;
    while ((scn = tamo_elf_nextscn(o.elf(), scn)) != nullptr) EXPECT_EQ(tamo_elf_ndxscn(scn), ++n);
    EXPECT_EQ(n, s.names());
    EXPECT_EQ(tamo_elf_errno(), 21);
    // Data walk: one block; the block after it is not there.
    Elf_Scn* sym = o.scn(s.symtab);
    Elf_Data* d = tamo_elf_getdata(sym, nullptr);
    EXPECT_EQ(tamo_elf_getdata(sym, nullptr), d);
    EXPECT_EQ(tamo_elf_getdata(sym, d), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 37);
    // A block of another section.
    EXPECT_EQ(tamo_elf_getdata(o.scn(s.rela), d), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 37);
    EXPECT_EQ(tamo_elf_getscn(o.elf(), s.names() + 1), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 21);
}

TEST_P(ReadBoth, StringLookup) {
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr);
    Elf32_Shdr* sh = tamo_elf32_getshdr(o.scn(s.strtab));
    char* end = tamo_elf_strptr(o.elf(), s.strtab, sh->sh_size);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end, static_cast<char*>(o.data(s.strtab)->d_buf) + sh->sh_size);
    EXPECT_STREQ(tamo_elf_strptr(o.elf(), s.strtab, 1), "main");
    EXPECT_STREQ(tamo_elf_strptr(o.elf(), s.strtab, 3), "in");
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf_strptr(o.elf(), s.strtab, sh->sh_size + 1), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 68);
    EXPECT_EQ(tamo_elf_strptr(o.elf(), s.symtab, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 68);
    EXPECT_EQ(tamo_elf_strptr(o.elf(), 0, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 25);
    EXPECT_EQ(tamo_elf_strptr(nullptr, 0, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 32);
    EXPECT_EQ(tamo_elf_strptr(o.elf(), 999, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 21);
}

TEST_P(ReadBoth, ReadEverythingOrNoMore) {
    {
        // After FDDONE, what was read stays and nothing more is read.
        Opened& o = open();
        Elf_Scn* read = o.scn(s.symtab);
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDDONE), 0);
        EXPECT_EQ(o.scn(s.symtab), read);
        EXPECT_EQ(o.scn(s.hash), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 42);
        EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_CLR), -1);
        EXPECT_EQ(tamo_elf_errno(), 85);
    }
    Opened& o = open();
    ASSERT_NE(o.elf(), nullptr);
    EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), 0);
    for (size_t i = 1; i <= s.names(); ++i) EXPECT_NE(o.scn(i), nullptr) << i;
    tamo_elf_errno();
    EXPECT_EQ(o.scn(0), nullptr) << "section 0 is not read";
    EXPECT_EQ(tamo_elf_errno(), 42);
    EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), -1);
    EXPECT_EQ(tamo_elf_errno(), 42);
    EXPECT_EQ(o.bytes(s.hash), encode(s.section(s.hash).content, kHost));
}

// Sections larger than the chunks a file is read and converted in, ending
// in a partial record that stays as stored.
TEST_P(ReadBoth, LargeSectionsEndingInAPartialRecord) {
    ObjectBuilder b(order());
    Fields syms, words;
    for (uint32_t i = 0; i < 70000; ++i) {
        const Fields f = symFields(Elf32_Sym{i, i * 3u, i ^ 0x5a5a5a5au, 0x12, 1, static_cast<Elf32_Half>(i), ~i});
        syms.insert(syms.end(), f.begin(), f.end());
    }
    for (uint32_t i = 0; i < 400000; ++i) words.push_back({4, i * 2654435761u});
    const Fields tail = raw(std::string("\x01\x02\x03\x04\x05\x06\x07", 7));
    syms.insert(syms.end(), tail.begin(), tail.end());
    words.insert(words.end(), tail.begin(), tail.begin() + 3);
    const size_t symtab = b.add({.name = ".symtab", .type = SHT_SYMTAB, .entsize = 20, .content = syms});
    const size_t hash = b.add({.name = ".hash", .type = SHT_HASH, .entsize = 4, .content = words});
    const Opened o(b.build(), access());
    ASSERT_NE(o.elf(), nullptr);
    EXPECT_EQ(o.bytes(symtab), encode(syms, kHost));
    EXPECT_EQ(o.bytes(hash), encode(words, kHost));
}

INSTANTIATE_TEST_SUITE_P(Read, ReadBoth,
                         ::testing::Combine(::testing::Values(Order::Little, Order::Big),
                                            ::testing::Values(Access::File, Access::Image)),
                         paramName);

// -------------------------------------------------------------------------

TEST(Read, ByteOrderComesFromTheVersionField) {
    ObjectBuilder b(Order::Big);
    b.identData = ELFDATA2LSB;  // the file lies
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = words({0x01020304})});
    Bytes file = b.build();
    for (Access a : {Access::File, Access::Image}) {
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        EXPECT_EQ(tamo_elf32_getehdr(o.elf())->e_ident[EI_DATA], ELFDATA2MSB);
        EXPECT_EQ(tamo_elf32_getehdr(o.elf())->e_shnum, 3);
        EXPECT_EQ(o.bytes(1), encode(words({0x01020304}), kHost));
    }
}

TEST(Read, NoSections) {
    ObjectBuilder b(Order::Big);
    b.shnumOverride = 0;
    Bytes file = b.build();
    for (Access a : {Access::File, Access::Image}) {
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        tamo_elf_errno();
        EXPECT_EQ(o.scn(0), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 21);
        EXPECT_EQ(tamo_elf_nextscn(o.elf(), nullptr), nullptr);
        EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), 0);
    }
}

TEST(Read, StandardFortyByteSectionHeadersThroughAFile) {
    for (Order order : {Order::Little, Order::Big}) {
        Sample s(order);
        s.builder.shentsize = 40;
        Bytes file = s.build();
        Opened o(file, Access::File);
        ASSERT_NE(o.elf(), nullptr);
        for (size_t i = 1; i <= s.names(); ++i) {
            Elf32_Shdr* sh = tamo_elf32_getshdr(o.scn(i));
            ASSERT_NE(sh, nullptr);
            EXPECT_EQ(sh->sh_offset, s.builder.offsetOf(i));
            EXPECT_EQ(sh->sh_extra, 0u) << "the eleventh word is not in the file";
        }
        EXPECT_STREQ(tamo_elf_strptr(o.elf(), s.names(), tamo_elf32_getshdr(o.scn(s.rela))->sh_name), ".rela.text");
    }
}

TEST(Read, ImagesAlignedOrNot) {
    // An aligned image's header is used in place, a misaligned one through a
    // copy; either way EI_DATA is rewritten from e_version and the rest of
    // the image comes back as it was.
    for (Order order : {Order::Little, Order::Big}) {
        for (size_t misalign : {0, 1}) {
            Sample s(order);
            Bytes file = s.build();
            file[EI_DATA] = 0;
            ImageBuffer image(file, misalign);
            Elf* elf = tamo_elf_memory(image.data(), image.size());
            ASSERT_NE(elf, nullptr);
            Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
            EXPECT_EQ(reinterpret_cast<char*>(h) == image.data(), misalign == 0);
            EXPECT_EQ(h->e_shnum, s.names() + 1);
            Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, s.hash), nullptr);
            ASSERT_NE(d, nullptr);
            EXPECT_EQ(Bytes(static_cast<uint8_t*>(d->d_buf), static_cast<uint8_t*>(d->d_buf) + d->d_size),
                      encode(s.section(s.hash).content, kHost));
            EXPECT_EQ(tamo_elf_end(elf), 0);
            Bytes back = image.bytes();
            EXPECT_EQ(back[EI_DATA], static_cast<int>(order));
            back[EI_DATA] = 0;
            EXPECT_EQ(back, file);
        }
    }
}

TEST(Read, ActivationCounts) {
    initLibrary();
    MemFile f(Sample(Order::Big).build());
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_NE(elf, nullptr);
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 0) << "an object is left positioned at its start";
    EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_READ, elf), elf);
    EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_RDWR, elf), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 87);
    EXPECT_EQ(tamo_elf_end(elf), 1);
    EXPECT_EQ(tamo_elf_kind(elf), ELF_K_ELF) << "still alive";
    EXPECT_EQ(tamo_elf_end(elf), 0);
    // The handle is gone now: entries refuse it without touching it.
    EXPECT_EQ(tamo_elf_end(elf), -1);
    EXPECT_EQ(tamo_elf_errno(), 70);
    EXPECT_EQ(tamo_elf_kind(elf), ELF_K_NONE);
    EXPECT_EQ(tamo_elf_errno(), 70);
    // Read-write descriptors share their activation the same way.
    lseek(f.fd(), 0, SEEK_SET);
    Elf* rdwr = tamo_elf_begin(f.fd(), ELF_C_RDWR, nullptr);
    ASSERT_NE(rdwr, nullptr);
    EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_RDWR, rdwr), rdwr);
    EXPECT_EQ(tamo_elf_end(rdwr), 1);
    EXPECT_EQ(tamo_elf_end(rdwr), 0);
}

TEST(Read, NewHeaderChecksTheClassOfAFilesHeader) {
    // tamo_elf32_newehdr returns a header read from the file only when its
    // class byte says ELFCLASS32; one the library made has class 0 until
    // layout and comes back unchanged.
    initLibrary();
    for (uint8_t cls : {0, 1, 2}) {
        Bytes file = memberObject(Order::Big, 1);
        file[EI_CLASS] = cls;
        MemFile f(file);
        Elf* elf = tamo_elf_begin(f.fd(), ELF_C_RDWR, nullptr);
        ASSERT_NE(elf, nullptr);
        tamo_elf_errno();
        Elf32_Ehdr* h = tamo_elf32_newehdr(elf);
        if (cls == ELFCLASS32) {
            EXPECT_EQ(h, tamo_elf32_getehdr(elf));
            EXPECT_EQ(tamo_elf_errno(), 0);
        } else {
            EXPECT_EQ(h, nullptr) << int(cls);
            EXPECT_EQ(tamo_elf_errno(), 45) << int(cls);
        }
        tamo_elf_end(elf);
    }
    MemFile f(Bytes{});
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_WRITE, nullptr);
    Elf32_Ehdr* made = tamo_elf32_newehdr(elf);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->e_ident[EI_CLASS], 0);
    EXPECT_EQ(tamo_elf32_newehdr(elf), made);
    made->e_ident[EI_CLASS] = 2;
    EXPECT_EQ(tamo_elf32_newehdr(elf), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 45);
    tamo_elf_end(elf);
}

TEST(Read, NewFileDescriptorReadsNothing) {
    initLibrary();
    MemFile f(Bytes{'n', 'o', 't', ' ', 'e', 'l', 'f'});
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_WRITE, nullptr);
    ASSERT_NE(elf, nullptr);
    EXPECT_EQ(tamo_elf_kind(elf), ELF_K_ELF);
    EXPECT_EQ(tamo_elf32_getehdr(elf), nullptr);
    size_t count = 5;
    EXPECT_EQ(tamo_elf_getident(elf, &count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(tamo_elf_errno(), 44);
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 0) << "the file was not read";
    EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), -1);
    EXPECT_EQ(tamo_elf_errno(), 83);
    EXPECT_EQ(tamo_elf_end(elf), 0);
}

TEST(Read, SmallFilesAndKindDetection) {
    initLibrary();
    struct Row {
        Bytes bytes;
        int code;
    };
    Bytes magic8 = {0x7f, 'E', 'L', 'F', 1, 2, 1, 0};
    Bytes magic15 = magic8;
    magic15.resize(15, 0);
    const Row rows[] = {
        {magic8, 6},
        {magic15, 6},
        {Bytes{'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '!', '!', '!', '!', '!', '!'}, 6},
        {Bytes{}, 8},  // nothing to read
    };
    for (const Row& r : rows) {
        MemFile f(r.bytes);
        tamo_elf_errno();
        EXPECT_EQ(tamo_elf_begin(f.fd(), ELF_C_READ, nullptr), nullptr);
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.bytes.size();
        if (!r.bytes.empty()) {
            ImageBuffer image(r.bytes);
            EXPECT_EQ(tamo_elf_memory(image.data(), image.size()), nullptr);
            EXPECT_EQ(tamo_elf_errno(), r.code);
            EXPECT_EQ(image.bytes(), r.bytes);
        }
    }
    char c = 0;
    EXPECT_EQ(tamo_elf_memory(&c, 0), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 3);
    EXPECT_EQ(tamo_elf_memory(nullptr, 100), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 3);
    EXPECT_EQ(tamo_elf_cntl(nullptr, ELF_C_FDREAD), -1);
    EXPECT_EQ(tamo_elf_errno(), 32);
}

TEST(Read, RegistryKeepsTrackThroughGrowthAndRemovals) {
    // Addresses of a static arena, so that they cannot be those of live
    // descriptors; close together, as descriptors made in a row are.
    static uint64_t arena[20000];
    std::vector<const void*> in;
    for (size_t i = 0; i < 20000; i += 1 + i % 3) in.push_back(&arena[i]);
    for (const void* p : in) tamo::Registry::add(tamo::HandleClass::Data, p);
    std::mt19937 rng(7);
    std::shuffle(in.begin(), in.end(), rng);
    const size_t half = in.size() / 2;
    for (size_t i = 0; i < half; ++i) tamo::Registry::remove(tamo::HandleClass::Data, in[i]);
    for (size_t i = 0; i < in.size(); ++i)
        ASSERT_EQ(tamo::Registry::live(tamo::HandleClass::Data, in[i]), i >= half) << i;
    EXPECT_FALSE(tamo::Registry::live(tamo::HandleClass::Scn, in.back()));
    for (size_t i = half; i < in.size(); ++i) tamo::Registry::remove(tamo::HandleClass::Data, in[i]);
    for (const void* p : in) ASSERT_FALSE(tamo::Registry::live(tamo::HandleClass::Data, p));
}

TEST(Read, HandleChecks) {
    initLibrary();
    Sample s(Order::Big);
    Bytes file = s.build();
    Opened o(file, Access::Image);
    ASSERT_NE(o.elf(), nullptr);
    alignas(8) static char fake[256] = {};
    Elf* bogus = reinterpret_cast<Elf*>(fake);
    auto* bogusScn = reinterpret_cast<Elf_Scn*>(fake);
    auto* bogusData = reinterpret_cast<Elf_Data*>(fake);
    Elf_Scn* scn = o.scn(s.symtab);
    Elf_Data* data = tamo_elf_getdata(scn, nullptr);
    Elf* elf = o.elf();
    struct Row {
        const char* what;
        std::function<bool()> failed;
        int code;
    };
    const Row rows[] = {
        {"kind null", [] { return tamo_elf_kind(nullptr) == ELF_K_NONE; }, 32},
        {"kind bogus", [=] { return tamo_elf_kind(bogus) == ELF_K_NONE; }, 70},
        {"getehdr bogus", [=] { return tamo_elf32_getehdr(bogus) == nullptr; }, 70},
        {"getscn null", [] { return tamo_elf_getscn(nullptr, 1) == nullptr; }, 32},
        {"getscn bogus", [=] { return tamo_elf_getscn(bogus, 1) == nullptr; }, 70},
        {"nextscn bogus scn", [=] { return tamo_elf_nextscn(elf, bogusScn) == nullptr; }, 71},
        {"ndxscn null", [] { return tamo_elf_ndxscn(nullptr) == 0; }, 32},
        {"ndxscn bogus", [=] { return tamo_elf_ndxscn(bogusScn) == 0; }, 71},
        {"getshdr bogus", [=] { return tamo_elf32_getshdr(bogusScn) == nullptr; }, 71},
        {"getdata null", [=] { return tamo_elf_getdata(nullptr, data) == nullptr; }, 32},
        {"getdata bogus data", [=] { return tamo_elf_getdata(scn, bogusData) == nullptr; }, 72},
        {"getbase null", [] { return tamo_elf_getbase(nullptr) == -1; }, 32},
        {"begin bogus ref", [=] { return tamo_elf_begin(0, ELF_C_READ, bogus) == nullptr; }, 70},
        {"end null", [] { return tamo_elf_end(nullptr) == -1; }, 32},
        {"strptr bogus", [=] { return tamo_elf_strptr(bogus, 1, 0) == nullptr; }, 70},
        {"strptr index 0 before stamp", [=] { return tamo_elf_strptr(bogus, 0, 0) == nullptr; }, 25},
        {"getident null", [] { return tamo_elf_getident(nullptr, nullptr) == nullptr; }, 32},
        {"cntl bogus", [=] { return tamo_elf_cntl(bogus, ELF_C_FDREAD) == -1; }, 70},
        {"setswapbehavior bogus", [=] { return tamo_elf_setswapbehavior(bogusScn, 1) == -1; }, 71},
    };
    for (const Row& r : rows) {
        tamo_elf_errno();
        EXPECT_TRUE(r.failed()) << r.what;
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.what;
    }
    size_t count = 7;
    EXPECT_EQ(tamo_elf_getident(nullptr, &count), nullptr);
    EXPECT_EQ(count, 0u);
    count = 7;
    EXPECT_EQ(tamo_elf_getident(bogus, &count), nullptr);
    EXPECT_EQ(count, 7u) << "a bad stamp leaves the count alone";
}

}  // namespace
