// Reading objects of either byte order through a file id and a memory
// image: header, section headers and every record type arrive in host order.
#include <unistd.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <type_traits>

#include "ReadSupport.h"
#include "Registry.h"

using namespace testkit;

namespace {

// A failed call: its result `bad` (null, 0, -1) and the code it left.
template <class T>
::testing::AssertionResult failed(T result, int code, std::type_identity_t<T> bad = T{}) {
    const int got = tamo_elf_errno();
    if (result == bad && got == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "result " << result << ", code " << got << " (" << code << " expected)";
}

// The sample object in the test's byte order, opened the test's way.
class ReadBoth : public ::testing::TestWithParam<std::tuple<Order, Access>> {
protected:
    Order order() const { return std::get<0>(GetParam()); }
    Access access() const { return std::get<1>(GetParam()); }
    void SetUp() override {
        s.builder.entry = 0x01020304;
        s.builder.flags = 0x80000001;
        reopen();
        tamo_elf_errno();
    }
    void reopen() {
        o = std::make_unique<Opened>(s.build(), access());
        ASSERT_NE(o->elf(), nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    }

    Sample s{order()};
    std::unique_ptr<Opened> o;
};

TEST_P(ReadBoth, HeadersInHostOrderWhateverEiDataSays) {
    // As built; with EI_DATA saying the other order (the order comes from
    // e_version); with standard 40-byte section headers, without the
    // eleventh word.
    for (const auto& [identData, shentsize] : {std::pair<int, int>{0, 44}, {int(other(order())), 44}, {0, 40}}) {
        s.builder.identData = static_cast<uint8_t>(identData);
        s.builder.shentsize = static_cast<uint16_t>(shentsize);
        ASSERT_NO_FATAL_FAILURE(reopen());
        Elf32_Ehdr* h = tamo_elf32_getehdr(o->elf());
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(tamo_elf_kind(o->elf()), ELF_K_ELF);
        EXPECT_EQ(std::tie(h->e_ident[EI_DATA], h->e_type, h->e_machine, h->e_version, h->e_entry, h->e_flags,
                           h->e_ehsize, h->e_shentsize, h->e_shnum, h->e_shstrndx),
                  std::make_tuple(static_cast<uint8_t>(order()), 1, 20, 1u, 0x01020304u, 0x80000001u, 52, shentsize,
                                  s.names() + 1, s.names()));
        size_t count = 99;
        EXPECT_EQ(tamo_elf_getident(o->elf(), &count), reinterpret_cast<char*>(h->e_ident));
        EXPECT_EQ(count, 16u);
        EXPECT_EQ(tamo_elf_getident(o->elf(), nullptr), reinterpret_cast<char*>(h->e_ident));
        EXPECT_EQ(tamo_elf_getbase(o->elf()), 0);
        for (size_t i = 1; i < s.names(); ++i) {
            const Section& w = s.section(i);
            Elf32_Shdr* sh = tamo_elf32_getshdr(o->scn(i));
            ASSERT_NE(sh, nullptr) << w.name;
            EXPECT_EQ(tamo_elf_ndxscn(o->scn(i)), i);
            EXPECT_STREQ(tamo_elf_strptr(o->elf(), s.names(), sh->sh_name), w.name.c_str());
            const uint32_t size = static_cast<uint32_t>(w.forceSize >= 0 ? w.forceSize : width(w.content));
            // sh_extra is the eleventh word.
            EXPECT_EQ(std::tie(sh->sh_type, sh->sh_flags, sh->sh_link, sh->sh_info, sh->sh_addralign, sh->sh_entsize,
                               sh->sh_extra, sh->sh_offset, sh->sh_size),
                      std::make_tuple(w.type, w.flags, w.link, w.info, w.align, w.entsize,
                                      shentsize == 44 ? w.extra : 0u, s.builder.offsetOf(i), size))
                << w.name << " " << shentsize;
        }
        EXPECT_EQ(o->bytes(s.hash), hostBytes(s.section(s.hash)));
    }
}

TEST_P(ReadBoth, EveryRecordTypeInHostOrder) {
    const std::pair<size_t, Elf_Type> types[] = {
        {s.text, ELF_T_BYTE}, {s.strtab, ELF_T_BYTE},         {s.symtab, ELF_T_SYM},  {s.rela, ELF_T_RELA},
        {s.rel, ELF_T_REL},   {s.hash, ELF_T_WORD},           {s.dynamic, ELF_T_DYN}, {s.sixword, ELF_T_SIXWORD},
        {s.offs, ELF_T_OFF},  {s.threeword, ELF_T_THREEWORD}, {s.own12, ELF_T_BYTE},  {s.note, ELF_T_BYTE}};
    // Asked for in section order, then (a file read ahead backward) in
    // the reverse order.
    for (bool reverse : {false, true}) {
        if (reverse) {
            ASSERT_NO_FATAL_FAILURE(reopen());
        }
        for (size_t k = 0; k < std::size(types); ++k) {
            const auto [index, type] = types[reverse ? std::size(types) - 1 - k : k];
            const Section& want = s.section(index);
            Elf_Data* d = o->data(index);
            ASSERT_NE(d, nullptr) << want.name;
            // Bytes are only converted for typed data; plain bytes stay as stored.
            const Bytes expect = encode(want.content, type == ELF_T_BYTE ? order() : kHost);
            EXPECT_EQ(std::tie(d->d_type, d->d_off, d->d_align, d->d_version, d->d_size),
                      std::make_tuple(type, 0, 1u, 1u, expect.size()))
                << want.name;
            EXPECT_EQ(o->bytes(index), expect) << want.name << (reverse ? ", in reverse" : "");
        }
    }
    // Symbols and relocations through the public records.
    auto* syms = static_cast<Elf32_Sym*>(o->data(s.symtab)->d_buf);
    EXPECT_EQ(std::tie(syms[1].st_value, syms[1].st_size, syms[1].st_info, syms[1].st_other, syms[1].st_shndx,
                       syms[1].st_extra, syms[2].st_shndx),
              std::make_tuple(0x10u, 0x20u, 0x12, 0x01, s.text, 0xdeadbeefu, 0xfff1));
    EXPECT_STREQ(tamo_elf_strptr(o->elf(), s.strtab, syms[2].st_name), "counter");
    auto* relas = static_cast<Elf32_Rela*>(o->data(s.rela)->d_buf);
    EXPECT_EQ(std::tie(relas[0].r_addend, relas[1].r_info), std::make_tuple(-8, 0x0203u));
}

TEST_P(ReadBoth, WalkingSectionsDataAndStrings) {
    // Sections without data: SHT_NOBITS keeps its size, section 0 has none.
    EXPECT_EQ(tamo_elf32_getshdr(o->scn(s.bss))->sh_size, 64u);
    for (size_t i : {s.bss, size_t{0}}) EXPECT_TRUE(failed(tamo_elf_getdata(o->scn(i), nullptr), 37)) << i;
    // Out of order requests keep one descriptor per index.
    Elf_Scn* third = o->scn(3);
    EXPECT_NE(third, o->scn(1));
    EXPECT_EQ(o->scn(3), third);
    // nextscn starts at 1 and ends with code 21.
    size_t n = 0;
    for (Elf_Scn* scn = nullptr; (scn = tamo_elf_nextscn(o->elf(), scn)) != nullptr;)
        EXPECT_EQ(tamo_elf_ndxscn(scn), ++n);
    EXPECT_EQ(n, s.names());
    EXPECT_EQ(tamo_elf_errno(), 21);
    EXPECT_TRUE(failed(o->scn(s.names() + 1), 21));
    // Data walk: one block; the block after it is not there, nor in another section.
    Elf_Scn* sym = o->scn(s.symtab);
    Elf_Data* d = tamo_elf_getdata(sym, nullptr);
    EXPECT_EQ(tamo_elf_getdata(sym, nullptr), d);
    EXPECT_TRUE(failed(tamo_elf_getdata(sym, d), 37));
    EXPECT_TRUE(failed(tamo_elf_getdata(o->scn(s.rela), d), 37));
    // Strings: the end of the table is an empty string, past it nothing.
    const uint32_t size = tamo_elf32_getshdr(o->scn(s.strtab))->sh_size;
    EXPECT_EQ(tamo_elf_strptr(o->elf(), s.strtab, size), static_cast<char*>(o->data(s.strtab)->d_buf) + size);
    EXPECT_STREQ(tamo_elf_strptr(o->elf(), s.strtab, 1), "main");
    EXPECT_STREQ(tamo_elf_strptr(o->elf(), s.strtab, 3), "in");
    EXPECT_TRUE(failed(tamo_elf_strptr(o->elf(), s.strtab, size + 1), 68));
    EXPECT_TRUE(failed(tamo_elf_strptr(o->elf(), s.symtab, 0), 68));
    EXPECT_TRUE(failed(tamo_elf_strptr(o->elf(), 0, 0), 25));
    EXPECT_TRUE(failed(tamo_elf_strptr(nullptr, 0, 0), 32));
    EXPECT_TRUE(failed(tamo_elf_strptr(o->elf(), 999, 0), 21));
    // An object without sections: nothing to walk, nothing to read.
    ObjectBuilder b(order());
    b.shnumOverride = 0;
    const Opened none(b.build(), access());
    EXPECT_TRUE(failed(none.scn(0), 21));
    EXPECT_EQ(tamo_elf_nextscn(none.elf(), nullptr), nullptr);
    EXPECT_EQ(tamo_elf_cntl(none.elf(), ELF_C_FDREAD), 0);
}

TEST_P(ReadBoth, ReadEverythingOrNoMore) {
    // After FDDONE, what was read stays and nothing more is read.
    Elf_Scn* read = o->scn(s.symtab);
    ASSERT_NE(read, nullptr);
    if (access() == Access::File) {
        // However the bytes were had (small sections come from bytes read
        // ahead), the file is left where seeking to them and reading them
        // would have left it.
        const Elf32_Shdr* h = tamo_elf32_getshdr(read);
        EXPECT_EQ(lseek(o->fd(), 0, SEEK_CUR), static_cast<off_t>(h->sh_offset + h->sh_size));
    }
    EXPECT_EQ(tamo_elf_cntl(o->elf(), ELF_C_FDDONE), 0);
    EXPECT_EQ(o->scn(s.symtab), read);
    EXPECT_TRUE(failed(o->scn(s.hash), 42));
    EXPECT_TRUE(failed(tamo_elf_cntl(o->elf(), ELF_C_CLR), 85, -1));
    // After FDREAD, everything is there except section 0.
    ASSERT_NO_FATAL_FAILURE(reopen());
    EXPECT_EQ(tamo_elf_cntl(o->elf(), ELF_C_FDREAD), 0);
    for (size_t i = 1; i <= s.names(); ++i) EXPECT_NE(o->scn(i), nullptr) << i;
    EXPECT_TRUE(failed(o->scn(0), 42));
    EXPECT_TRUE(failed(tamo_elf_cntl(o->elf(), ELF_C_FDREAD), 42, -1));
    EXPECT_EQ(o->bytes(s.hash), hostBytes(s.section(s.hash)));
}

// Sections larger than the chunks a file is read and converted in, ending
// in a partial record that stays as stored.
TEST_P(ReadBoth, LargeSectionsEndingInAPartialRecord) {
    std::vector<Elf32_Sym> records;
    Fields words;
    for (uint32_t i = 0; i < 70000; ++i)
        records.push_back({i, i * 3u, i ^ 0x5a5a5a5au, 0x12, 1, static_cast<Elf32_Half>(i), ~i});
    for (uint32_t i = 0; i < 400000; ++i) words.push_back({4, i * 2654435761u});
    const Fields tail = raw(std::string("\x01\x02\x03\x04\x05\x06\x07", 7));
    const Fields syms = cat({concat(records, symFields), tail});
    words.insert(words.end(), tail.begin(), tail.begin() + 3);
    ObjectBuilder b(order());
    const size_t symtab = b.add({.name = ".symtab", .type = SHT_SYMTAB, .entsize = 20, .content = syms});
    const size_t hash = b.add({.name = ".hash", .type = SHT_HASH, .entsize = 4, .content = words});
    const Opened big(b.build(), access());
    EXPECT_EQ(big.bytes(symtab), encode(syms, kHost));
    EXPECT_EQ(big.bytes(hash), encode(words, kHost));
}

TEST_P(ReadBoth, HandleChecks) {
    Elf_Data* data = o->data(s.symtab);
    alignas(8) static char fake[256] = {};
    Elf* bogus = reinterpret_cast<Elf*>(fake);
    auto* bogusScn = reinterpret_cast<Elf_Scn*>(fake);
    tamo_elf_errno();
    EXPECT_TRUE(failed(tamo_elf_kind(nullptr), 32, ELF_K_NONE));
    EXPECT_TRUE(failed(tamo_elf_kind(bogus), 70, ELF_K_NONE));
    EXPECT_TRUE(failed(tamo_elf32_getehdr(bogus), 70));
    EXPECT_TRUE(failed(tamo_elf_getscn(nullptr, 1), 32));
    EXPECT_TRUE(failed(tamo_elf_getscn(bogus, 1), 70));
    EXPECT_TRUE(failed(tamo_elf_nextscn(o->elf(), bogusScn), 71));
    EXPECT_TRUE(failed(tamo_elf_ndxscn(nullptr), 32));
    EXPECT_TRUE(failed(tamo_elf_ndxscn(bogusScn), 71));
    EXPECT_TRUE(failed(tamo_elf32_getshdr(bogusScn), 71));
    EXPECT_TRUE(failed(tamo_elf_getdata(nullptr, data), 32));
    EXPECT_TRUE(failed(tamo_elf_getdata(o->scn(s.symtab), reinterpret_cast<Elf_Data*>(fake)), 72));
    EXPECT_TRUE(failed(tamo_elf_getbase(nullptr), 32, -1));
    EXPECT_TRUE(failed(tamo_elf_begin(0, ELF_C_READ, bogus), 70));
    EXPECT_TRUE(failed(tamo_elf_end(nullptr), 32, -1));
    EXPECT_TRUE(failed(tamo_elf_strptr(bogus, 1, 0), 70));
    EXPECT_TRUE(failed(tamo_elf_strptr(bogus, 0, 0), 25)) << "index 0 is refused before the handle is checked";
    EXPECT_TRUE(failed(tamo_elf_getident(nullptr, nullptr), 32));
    EXPECT_TRUE(failed(tamo_elf_cntl(bogus, ELF_C_FDREAD), 70, -1));
    EXPECT_TRUE(failed(tamo_elf_setswapbehavior(bogusScn, 1), 71, -1));
    size_t count = 7;
    EXPECT_TRUE(failed(tamo_elf_getident(nullptr, &count), 32));
    EXPECT_EQ(count, 0u);
    count = 7;
    EXPECT_TRUE(failed(tamo_elf_getident(bogus, &count), 70));
    EXPECT_EQ(count, 7u) << "a bad stamp leaves the count alone";
}

INSTANTIATE_TEST_SUITE_P(Read, ReadBoth,
                         ::testing::Combine(::testing::Values(Order::Little, Order::Big),
                                            ::testing::Values(Access::File, Access::Image)),
                         [](const auto& info) {
                             return std::string(name(std::get<0>(info.param))) + "_" + name(std::get<1>(info.param));
                         });

// -------------------------------------------------------------------------

TEST(Read, ImagesAlignedOrNot) {
    // An aligned image's header is used in place, a misaligned one through a
    // copy; either way EI_DATA is rewritten from e_version and the rest of
    // the image comes back as it was.
    for (Order order : {Order::Little, Order::Big})
        for (size_t misalign : {0, 1}) {
            Sample s(order);
            Bytes file = s.build();
            file[EI_DATA] = 0;
            ImageBuffer image(file, misalign);
            Elf* elf = tamo_elf_memory(image.data(), image.size());
            Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
            ASSERT_NE(h, nullptr);
            EXPECT_EQ(reinterpret_cast<char*>(h) == image.data(), misalign == 0);
            EXPECT_EQ(h->e_shnum, s.names() + 1);
            Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, s.hash), nullptr);
            ASSERT_NE(d, nullptr);
            const auto* p = static_cast<uint8_t*>(d->d_buf);
            EXPECT_EQ(Bytes(p, p + d->d_size), hostBytes(s.section(s.hash)));
            EXPECT_EQ(tamo_elf_end(elf), 0);
            file[EI_DATA] = static_cast<uint8_t>(order);
            EXPECT_EQ(image.bytes(), file);
        }
}

TEST(Read, ActivationCounts) {
    initLibrary();
    MemFile f(Sample(Order::Big).build());
    for (Elf_Cmd cmd : {ELF_C_READ, ELF_C_RDWR}) {
        lseek(f.fd(), 0, SEEK_SET);
        Elf* elf = tamo_elf_begin(f.fd(), cmd, nullptr);
        EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 0) << "an object is left positioned at its start";
        EXPECT_EQ(tamo_elf_begin(f.fd(), cmd, elf), elf);
        if (cmd == ELF_C_READ) {
            EXPECT_TRUE(failed(tamo_elf_begin(f.fd(), ELF_C_RDWR, elf), 87)) << "a read-only descriptor";
        }
        EXPECT_EQ(tamo_elf_end(elf), 1);
        EXPECT_EQ(tamo_elf_kind(elf), ELF_K_ELF) << "still alive";
        EXPECT_EQ(tamo_elf_end(elf), 0);
        // The handle is gone now: entries refuse it without touching it.
        EXPECT_TRUE(failed(tamo_elf_end(elf), 70, -1));
        EXPECT_TRUE(failed(tamo_elf_kind(elf), 70, ELF_K_NONE));
    }
}

TEST(Read, NewHeaderChecksTheClassOfAFilesHeaderAndNewFilesAreNotRead) {
    // tamo_elf32_newehdr returns a header read from the file only when its
    // class byte says ELFCLASS32.
    initLibrary();
    for (uint8_t cls : {0, 1, 2}) {
        Bytes file = memberObject(Order::Big, 1);
        file[EI_CLASS] = cls;
        MemFile f(file);
        Elf* elf = tamo_elf_begin(f.fd(), ELF_C_RDWR, nullptr);
        tamo_elf_errno();
        Elf32_Ehdr* h = tamo_elf32_newehdr(elf);
        EXPECT_EQ(h, cls == ELFCLASS32 ? tamo_elf32_getehdr(elf) : nullptr) << int(cls);
        EXPECT_EQ(tamo_elf_errno(), cls == ELFCLASS32 ? 0 : 45) << int(cls);
        tamo_elf_end(elf);
    }
    // A new file's descriptor reads nothing and has no header until
    // tamo_elf32_newehdr makes one, of class 0 until layout.
    MemFile f(Bytes{'n', 'o', 't', ' ', 'e', 'l', 'f'});
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_WRITE, nullptr);
    EXPECT_EQ(tamo_elf_kind(elf), ELF_K_ELF);
    EXPECT_EQ(tamo_elf32_getehdr(elf), nullptr);
    size_t count = 5;
    EXPECT_TRUE(failed(tamo_elf_getident(elf, &count), 44));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(lseek(f.fd(), 0, SEEK_CUR), 0) << "the file was not read";
    EXPECT_TRUE(failed(tamo_elf_cntl(elf, ELF_C_FDREAD), 83, -1));
    Elf32_Ehdr* made = tamo_elf32_newehdr(elf);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->e_ident[EI_CLASS], 0);
    EXPECT_EQ(tamo_elf32_newehdr(elf), made);
    made->e_ident[EI_CLASS] = 2;
    EXPECT_TRUE(failed(tamo_elf32_newehdr(elf), 45));
    EXPECT_EQ(tamo_elf_end(elf), 0);
}

TEST(Read, SmallFilesAndKindDetection) {
    initLibrary();
    tamo_elf_errno();
    // Too short for a header, whatever the start; not an object; nothing at all.
    const Bytes magic = {0x7f, 'E', 'L', 'F', 1, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::pair<Bytes, int> rows[] = {
        {Bytes(magic.begin(), magic.begin() + 8), 6}, {magic, 6}, {Bytes(17, 'h'), 6}, {Bytes{}, 8}};
    for (const auto& [bytes, code] : rows) {
        MemFile f(bytes);
        EXPECT_TRUE(failed(tamo_elf_begin(f.fd(), ELF_C_READ, nullptr), code)) << bytes.size();
        if (bytes.empty()) continue;
        ImageBuffer image(bytes);
        EXPECT_TRUE(failed(tamo_elf_memory(image.data(), image.size()), code)) << bytes.size();
        EXPECT_EQ(image.bytes(), bytes);
    }
    char c = 0;
    EXPECT_TRUE(failed(tamo_elf_memory(&c, 0), 3));
    EXPECT_TRUE(failed(tamo_elf_memory(nullptr, 100), 3));
    EXPECT_TRUE(failed(tamo_elf_cntl(nullptr, ELF_C_FDREAD), 32, -1));
}

TEST(Read, RegistryKeepsTrackThroughGrowthAndRemovals) {
    // Addresses of a static arena, so that they cannot be those of live
    // descriptors; close together, as descriptors made in a row are.
    static uint64_t arena[20000];
    std::vector<const void*> in;
    for (size_t i = 0; i < 20000; i += 1 + i % 3) in.push_back(&arena[i]);
    for (const void* p : in) tamo::Registry::add(tamo::HandleClass::Data, p);
    std::shuffle(in.begin(), in.end(), std::mt19937(7));
    const size_t half = in.size() / 2;
    for (size_t i = 0; i < half; ++i) tamo::Registry::remove(tamo::HandleClass::Data, in[i]);
    for (size_t i = 0; i < in.size(); ++i)
        ASSERT_EQ(tamo::Registry::live(tamo::HandleClass::Data, in[i]), i >= half) << i;
    EXPECT_FALSE(tamo::Registry::live(tamo::HandleClass::Elf, in.back()));
    for (size_t i = half; i < in.size(); ++i) tamo::Registry::remove(tamo::HandleClass::Data, in[i]);
    for (const void* p : in) ASSERT_FALSE(tamo::Registry::live(tamo::HandleClass::Data, p));
}

}  // namespace
