// Layout and writing (tamo_elf_update): the library's image of an object is
// compared byte for byte with the test builder's independent encoding of the
// same object in both byte orders; layout examples, fill bytes, caller
// layout, the codes of update, carrying unread sections over from a file
// opened for update, and round trips.
#include <fcntl.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <tuple>

#include "ReadSupport.h"

using namespace testkit;

namespace {

using Words = std::vector<uint32_t>;

// The code a call left when it failed (returned `bad`); -1 when it did not fail.
template <class T>
int codeOf(T result, std::type_identity_t<T> bad) {
    return result == bad ? tamo_elf_errno() : -1;
}

// The whole file, read from offset 0.
Bytes fileBytes(int fd) {
    Bytes b(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    return pread(fd, b.data(), b.size(), 0) == static_cast<ssize_t>(b.size()) ? b : Bytes{};
}

Elf_Type dataType(uint32_t shType) {
    static const std::map<uint32_t, Elf_Type> types = {
        {SHT_SYMTAB, ELF_T_SYM},  {SHT_RELA, ELF_T_RELA}, {SHT_REL, ELF_T_REL}, {SHT_HASH, ELF_T_WORD},
        {SHT_DYNAMIC, ELF_T_DYN}, {13, ELF_T_SIXWORD},    {14, ELF_T_OFF},      {20, ELF_T_THREEWORD}};
    const auto it = types.find(shType);
    return it == types.end() ? ELF_T_BYTE : it->second;
}

// A new file with a header, the null section and the sections and pieces
// the test adds; the pieces' bytes are kept in `bodies`.
struct NewFile {
    MemFile file{Bytes{}};
    Elf* elf;
    std::deque<Bytes> bodies;
    explicit NewFile(bool withHeader = true) {
        initLibrary();
        elf = tamo_elf_begin(file.fd(), ELF_C_WRITE, nullptr);
        if (withHeader) tamo_elf32_newehdr(elf);
    }
    // The object ObjectBuilder makes of the same sections (the section-name
    // table last), in byte order o.
    NewFile(Order o, const std::vector<Section>& sections) : NewFile() {
        std::string names(1, '\0');
        for (const Section& s : sections) {
            const uint32_t size = s.type == SHT_NOBITS ? static_cast<uint32_t>(s.forceSize) : 0;
            Elf_Scn* scn = section({static_cast<uint32_t>(names.size()), s.type, s.flags, s.addr, 0, size, s.link,
                                    s.info, s.align, s.entsize, s.extra});
            names += s.name + '\0';
            // The caller holds record types in host order, plain bytes (never
            // converted) in the file's order.
            const Elf_Type t = dataType(s.type);
            if (s.type != SHT_NOBITS) piece(scn, encode(s.content, t == ELF_T_BYTE ? o : kHost))->d_type = t;
        }
        Elf_Scn* shstr = section({static_cast<uint32_t>(names.size()), SHT_STRTAB, 0, 0, 0, 0, 0, 0, 1, 0, 0});
        names.append(".shstrtab", 10);
        piece(shstr, Bytes(names.begin(), names.end()));
        Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
        h->e_type = 1;
        h->e_machine = 20;
        h->e_shstrndx = static_cast<Elf32_Half>(sections.size() + 1);
        h->e_ident[EI_DATA] = static_cast<unsigned char>(o);
    }
    ~NewFile() { tamo_elf_end(elf); }
    Elf_Scn* section(const Elf32_Shdr& sh) {
        Elf_Scn* scn = tamo_elf_newscn(elf);
        *tamo_elf32_getshdr(scn) = sh;
        return scn;
    }
    Elf_Scn* section(uint32_t name, uint32_t type = SHT_PROGBITS, uint32_t align = 0) {
        return section({name, type, 0, 0, 0, 0, 0, 0, align, 0, 0});
    }
    Elf_Data* piece(Elf_Scn* scn, Bytes body, size_t align = 1) {
        bodies.push_back(std::move(body));
        Elf_Data* d = tamo_elf_newdata(scn);
        d->d_buf = bodies.back().data();
        d->d_size = bodies.back().size();
        d->d_align = align;
        return d;
    }
    Elf_Data* piece(Elf_Scn* scn, size_t size, size_t align = 1) { return piece(scn, Bytes(size, 0x11), align); }
    Bytes written() const { return fileBytes(file.fd()); }
};

class WriteBoth : public ::testing::TestWithParam<Order> {};

TEST_P(WriteBoth, ImageEqualsTheIndependentEncoding) {
    // Every record type, symbols with st_extra, sh_extra, a SHT_NOBITS
    // section: the same bytes as the builder's, and the caller's data and
    // host-order headers unchanged afterwards. (Reading such an object back
    // is checked in test_read.)
    Sample s(GetParam());
    const Bytes expected = s.build();
    NewFile lib(GetParam(), s.sections);
    const std::deque<Bytes> before = lib.bodies;
    // An empty piece of records needs no bytes and adds none.
    tamo_elf_newdata(tamo_elf_getscn(lib.elf, s.symtab))->d_type = ELF_T_SYM;
    ASSERT_EQ(tamo_elf_update(lib.elf, ELF_C_WRITE), static_cast<off_t>(expected.size()))
        << tamo_elf_errmsg(tamo_elf_errno());
    EXPECT_EQ(lib.written(), expected);
    EXPECT_EQ(lib.bodies, before);
    // Headers stay in host order.
    EXPECT_EQ(std::tie(tamo_elf32_getshdr(tamo_elf_getscn(lib.elf, s.symtab))->sh_extra,
                       tamo_elf32_getehdr(lib.elf)->e_shoff),
              std::make_tuple(0x5a5au, get32(expected, 32, GetParam())));
}

TEST_P(WriteBoth, UpdateInPlaceIsByteIdenticalAndCarriesUnreadSections) {
    // A file opened for update with none, one or several sections read,
    // marked dirty and written again, is the same file: unread sections are
    // copied from the file as they stand, and a longer file is cut to the
    // image.
    initLibrary();
    Sample s(GetParam());
    const Bytes original = s.build();
    Bytes longer = original;
    longer.insert(longer.end(), 8, 't');
    const std::vector<size_t> reads[] = {{}, {s.symtab}, {s.rela, s.text, s.bss}};
    for (const auto& which : reads) {
        MemFile file(longer);
        Elf* elf = tamo_elf_begin(file.fd(), ELF_C_RDWR, nullptr);
        ASSERT_NE(elf, nullptr);
        for (size_t i : which)
            ASSERT_EQ(tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr) != nullptr, i != s.bss) << i;
        tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
        lseek(file.fd(), 5, SEEK_SET);  // the image lands at offset 0 wherever the file stands
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), static_cast<off_t>(original.size()));
        EXPECT_EQ(fileBytes(file.fd()), original) << which.size() << " sections read";
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), 0) << "not dirty any more: nothing written";
        // Sections carried over are readable at their (new) places afterwards.
        Elf_Data* hash = tamo_elf_getdata(tamo_elf_getscn(elf, s.hash), nullptr);
        ASSERT_NE(hash, nullptr);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(hash->d_buf), static_cast<uint8_t*>(hash->d_buf) + hash->d_size),
                  hostBytes(s.section(s.hash)));
        tamo_elf_end(elf);
    }
}

TEST_P(WriteBoth, CoffSectionsComeBackAsTheyWere) {
    // Line-number and symbol records repacked on reading are repacked again
    // on writing; only the padding of big-endian records (and the bytes of a
    // trailing partial record) are not kept.
    CoffObject c(GetParam());
    Opened read(c.b.build(), Access::File);
    ASSERT_EQ(tamo_elf_cntl(read.elf(), ELF_C_FDREAD), 0);
    // Write what was read into a new file of the same order, read it back.
    std::vector<Section> sections = c.sections;
    for (size_t i = 0; i < sections.size(); ++i) sections[i].content = raw(read.bytes(i + 1));
    NewFile lib(GetParam(), sections);
    tamo_elf_getdata(tamo_elf_getscn(lib.elf, c.rela), nullptr)->d_type = ELF_T_RELA;  // as reading presented it
    ASSERT_GT(tamo_elf_update(lib.elf, ELF_C_WRITE), 0);
    Opened again(lib.written(), Access::File);
    for (size_t i = 1; i <= sections.size(); ++i) EXPECT_EQ(again.bytes(i), read.bytes(i)) << "section " << i;
}

INSTANTIATE_TEST_SUITE_P(Write, WriteBoth, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

// ---------------------------------------------------------------------------

// A section header's offset, size and alignment.
Words placed(Elf_Scn* s) {
    const Elf32_Shdr* sh = tamo_elf32_getshdr(s);
    return {sh->sh_offset, sh->sh_size, sh->sh_addralign};
}

TEST(Pieces, WalkedInTheOrderAddedAndCheckedAsHandles) {
    // A section's first piece lives inside its descriptor, later ones
    // apart: the walk and the handle checks treat them alike.
    NewFile f;
    Elf_Scn* a = f.section(0);
    const std::vector<Elf_Data*> pieces{f.piece(a, 4), f.piece(a, 4), f.piece(a, 4)};
    Elf_Scn* b = f.section(0);
    Elf_Data* other = f.piece(b, 4);  // not the last of its section
    f.piece(b, 4);
    Elf_Data* d = nullptr;
    for (Elf_Data* expected : pieces) EXPECT_EQ(d = tamo_elf_getdata(a, d), expected);
    EXPECT_EQ(codeOf(tamo_elf_getdata(a, d), nullptr), 37);
    EXPECT_EQ(codeOf(tamo_elf_getdata(a, other), nullptr), 37);
    for (Elf_Data* p : {pieces[0], pieces[2], other}) EXPECT_EQ(tamo_elf_flagdata(p, ELF_C_SET, ELF_F_DIRTY), ELF_F_DIRTY);
    for (void* near : {static_cast<void*>(reinterpret_cast<char*>(pieces[0]) + 8), static_cast<void*>(a)})
        EXPECT_EQ(codeOf(tamo_elf_getdata(a, static_cast<Elf_Data*>(near)), nullptr), 72);
    // Section handles: inside a descriptor, between two, the slot after the
    // last one made.
    char* const at = reinterpret_cast<char*>(a);
    const ptrdiff_t stride = reinterpret_cast<char*>(b) - at;
    for (char* near : {at + 1, at + stride / 2, at + 2 * stride})
        EXPECT_EQ(codeOf(tamo_elf_ndxscn(reinterpret_cast<Elf_Scn*>(near)), size_t{SHN_UNDEF}), 71) << near - at;
}

TEST(Layout, LibraryLayoutExamples) {
    // One file whose sections, in this order, show each rule of the layout.
    NewFile f;
    // sh_name 0: no place whatever it holds; SHT_NOBITS takes no room.
    Elf_Scn* unnamed = f.section({0, SHT_PROGBITS, 0, 0, 999, 0, 0, 0, 8, 0, 0});
    f.piece(unnamed, 40);
    Elf_Scn* bss = f.section(1, SHT_NOBITS, 4);
    f.piece(bss, 100);
    Elf_Scn* next = f.section(1);
    f.piece(next, 3);
    // Pieces: d_align 16 and 12 (need not be a power of two).
    Elf_Scn* s = f.section(1);
    Elf_Data* a = f.piece(s, 10);
    Elf_Data* b = f.piece(s, 10, 16);
    Elf_Scn* t = f.section(1);
    f.piece(t, 10);
    Elf_Data* c = f.piece(t, 4, 12);
    // The section takes its pieces' alignment; the table follows on a word.
    Elf_Scn* last = f.section(1);
    f.piece(last, 10, 4);
    tamo_elf32_getehdr(f.elf)->e_ident[EI_DATA] = 0;  // unset: the host's order
    ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_NULL), 124 + 7 * 44);
    const Elf32_Ehdr* h = tamo_elf32_getehdr(f.elf);
    EXPECT_EQ((Words{h->e_ident[EI_CLASS], h->e_ident[EI_DATA], h->e_version, h->e_ehsize, h->e_shentsize, h->e_shnum,
                     h->e_shoff}),
              (Words{ELFCLASS32, ELFDATA2LSB, 1, 52, 44, 7, 124}));
    const std::pair<Elf_Scn*, Words> places[] = {{unnamed, {0, 0, 0}}, {bss, {52, 100, 4}}, {next, {52, 3, 1}},
                                                 {s, {64, 26, 16}},    {t, {96, 16, 12}},   {last, {112, 10, 4}}};
    for (const auto& [scn, want] : places) EXPECT_EQ(placed(scn), want) << tamo_elf_ndxscn(scn);
    EXPECT_EQ((std::vector<off_t>{a->d_off, b->d_off, c->d_off}), (std::vector<off_t>{0, 16, 12}));
    // Writing the unnamed section, placed at 0, cannot work.
    EXPECT_EQ(codeOf(tamo_elf_update(f.elf, ELF_C_WRITE), -1), 43);
}

TEST(Layout, CallerLayout) {
    // A section at 100 with one piece: the piece must lie inside (30) at an
    // offset that is not negative (29); the caller's offsets stand.
    const std::tuple<uint32_t, off_t, size_t, int> rows[] = {
        {8, 0, 10, 30}, {10, 4, 8, 30}, {10, 2, 8, 0}, {10, -1, 1, 29}};
    for (const auto& [shSize, dOff, dSize, code] : rows) {
        NewFile f;
        tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT);
        Elf_Scn* s = f.section({1, SHT_PROGBITS, 0, 0, 100, shSize, 0, 0, 0, 0, 0});
        Elf_Data* d = f.piece(s, dSize);
        d->d_off = dOff;
        tamo_elf_errno();
        EXPECT_EQ(tamo_elf_update(f.elf, ELF_C_NULL), code ? -1 : 112 + 88) << shSize << " " << dOff;
        EXPECT_EQ(tamo_elf_errno(), code) << shSize << " " << dOff;
        EXPECT_EQ(std::tie(d->d_off, tamo_elf32_getshdr(s)->sh_offset), std::make_tuple(dOff, 100u));
    }
}

TEST(Layout, FillBytesAndCallersGaps) {
    // Only the low byte of the fill value counts.
    for (auto [fillValue, fill] : {std::pair<int, uint8_t>{0, 0}, {0x1ab, 0xab}}) {
        tamo_elf_fill(fillValue);
        NewFile f;
        Elf_Scn* a = f.section(1);
        f.piece(a, 10);  // 52..62
        Elf_Scn* b = f.section(1, SHT_PROGBITS, 8);
        f.piece(b, 3);     // 64..67
        f.piece(b, 2, 4);  // 68..70 after a gap of one byte
        ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), 72 + 3 * 44);
        const Bytes out = f.written();
        for (size_t at : {62u, 63u, 67u, 70u, 71u}) EXPECT_EQ(out.at(at), fill) << at;
        for (size_t at : {64u, 69u}) EXPECT_EQ(out.at(at), 0x11) << at;
        // Written again under the caller's layout with a and b at these offsets.
        auto rewrite = [&](uint32_t aAt, uint32_t bAt) {
            tamo_elf32_getshdr(a)->sh_offset = aAt;
            tamo_elf32_getshdr(b)->sh_offset = bAt;
            tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT | ELF_F_DIRTY);
            return tamo_elf_update(f.elf, ELF_C_WRITE);
        };
        // Section b moved to 80..86: the gap it leaves is not written and
        // shows nothing of the first image; the gap up to the table, on the
        // next word, is filled.
        ASSERT_EQ(rewrite(52, 80), 88 + 3 * 44);
        EXPECT_EQ(tamo_elf32_getehdr(f.elf)->e_shoff, 88u);
        const Bytes moved = f.written();
        for (size_t at = 62; at < 80; ++at) EXPECT_EQ(moved.at(at), 0) << at;
        for (size_t at : {86u, 87u}) EXPECT_EQ(moved.at(at), fill) << at;
        // Once more, smaller, in the same buffer: the two bytes that a at 54
        // leaves unwritten show nothing of what a held there before.
        ASSERT_EQ(rewrite(54, 64), 72 + 3 * 44);
        EXPECT_EQ(f.written().at(52) | f.written().at(53), 0);
        // Overlapping sections cannot be written.
        EXPECT_EQ(codeOf(rewrite(54, 60), -1), 43);
    }
    tamo_elf_fill(0);
}

TEST(Layout, CodesOfUpdate) {
    initLibrary();
    const std::vector<std::tuple<const char*, std::function<void(NewFile&)>, Elf_Cmd, int>> rows = {
        {"encoding 3", [](NewFile& f) { tamo_elf32_getehdr(f.elf)->e_ident[EI_DATA] = 3; }, ELF_C_NULL, 24},
        {"version 2", [](NewFile& f) { tamo_elf32_getehdr(f.elf)->e_version = 2; }, ELF_C_NULL, 33},
        {"piece version 0", [](NewFile& f) { f.piece(f.section(1), 4)->d_version = 0; }, ELF_C_NULL, 29},
        {"piece without bytes", [](NewFile& f) { f.piece(f.section(1), 4)->d_buf = nullptr; }, ELF_C_WRITE, 32},
        {"past 4 GiB",
         [](NewFile& f) {
             Elf_Scn* s = f.section(1);
             for (int i = 0; i < 3; ++i) f.piece(s, 1)->d_size = size_t{0x60000000};
         },
         ELF_C_WRITE, 29},
        {"unnamed section outside the image",
         [](NewFile& f) {
             tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT);
             f.piece(f.section({0, SHT_PROGBITS, 0, 0, 4000, 0, 0, 0, 0, 0, 0}), 8);
         },
         ELF_C_WRITE, 35},
        {"after FDDONE", [](NewFile& f) { tamo_elf_cntl(f.elf, ELF_C_FDDONE); }, ELF_C_WRITE, 42},
        {"command 8", [](NewFile&) {}, static_cast<Elf_Cmd>(8), 65},
    };
    for (const auto& [what, prepare, cmd, code] : rows) {
        NewFile f;
        prepare(f);
        tamo_elf_errno();
        EXPECT_EQ(codeOf(tamo_elf_update(f.elf, cmd), -1), code) << what;
        EXPECT_EQ(f.written().size(), 0u) << what << ": nothing written";
    }
    // No header (22); a read-only descriptor cannot be written (61); an
    // image cannot be laid out (9); no descriptor (32).
    NewFile bare(false);
    const Bytes obj = memberObject(Order::Big, 1);
    Opened viaFile(obj, Access::File), viaImage(obj, Access::Image);
    const std::tuple<Elf*, Elf_Cmd, int> calls[] = {{bare.elf, ELF_C_NULL, 22},
                                                    {viaFile.elf(), ELF_C_WRITE, 61},
                                                    {viaImage.elf(), ELF_C_NULL, 9},
                                                    {nullptr, ELF_C_NULL, 32}};
    for (const auto& [elf, cmd, code] : calls) EXPECT_EQ(codeOf(tamo_elf_update(elf, cmd), -1), code);
    EXPECT_EQ(tamo_elf_update(bare.elf, ELF_C_READ), 0) << "ELF_C_READ does nothing";
    EXPECT_EQ(codeOf(tamo_elf_newscn(bare.elf), nullptr), 44);
    EXPECT_EQ(codeOf(tamo_elf_newscn(viaImage.elf()), nullptr), 20);
    // A file id not open for writing (86), a full device (79), each with
    // the context "elf_update"; the descriptor stays dirty.
    for (const auto& [path, flags, code] :
         {std::tuple{"/dev/null", O_RDONLY, 86}, std::tuple{"/dev/full", O_WRONLY, 79}}) {
        const int fd = open(path, flags);
        ASSERT_GE(fd, 0);
        Elf* elf = tamo_elf_begin(fd, ELF_C_WRITE, nullptr);
        tamo_elf32_newehdr(elf);
        EXPECT_EQ(codeOf(tamo_elf_update(elf, ELF_C_WRITE), -1), code) << path;
        EXPECT_STREQ(elf_lastmsg_poster(), "elf_update");
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), -1) << "still dirty: tried again";
        tamo_elf_end(elf);
        close(fd);
    }
}

}  // namespace
