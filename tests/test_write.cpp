// Layout and writing (tamo_elf_update): the library's image of an object is
// compared byte for byte with the test builder's independent encoding of the
// same object in both byte orders; layout examples, fill bytes, caller
// layout, the codes of update, carrying unread sections over from a file
// opened for update, and round trips.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <functional>

#include "ReadSupport.h"

using namespace testkit;

namespace {

Bytes fileBytes(int fd) {
    const off_t end = lseek(fd, 0, SEEK_END);
    Bytes b(static_cast<size_t>(end));
    if (end > 0 && pread(fd, b.data(), b.size(), 0) != end) b.clear();
    return b;
}

Elf_Type dataType(uint32_t shType) {
    switch (shType) {
        case SHT_SYMTAB:
            return ELF_T_SYM;
        case SHT_RELA:
            return ELF_T_RELA;
        case SHT_REL:
            return ELF_T_REL;
        case SHT_HASH:
            return ELF_T_WORD;
        case SHT_DYNAMIC:
            return ELF_T_DYN;
        case 13:
            return ELF_T_SIXWORD;
        case 14:
            return ELF_T_OFF;
        case 20:
            return ELF_T_THREEWORD;
        default:
            return ELF_T_BYTE;
    }
}

// The bytes a caller holds for a section: host order for record types,
// the file's order for plain bytes (which are never converted).
Bytes callerBytes(const Section& s, Order o) {
    return encode(s.content, dataType(s.type) == ELF_T_BYTE ? o : kHost);
}

// Makes through the library the object that ObjectBuilder makes of the same
// sections (the section-name table last), in the given byte order.
class LibraryObject {
public:
    LibraryObject(Order o, const std::vector<Section>& sections) : m_file(Bytes{}) {
        initLibrary();
        m_elf = tamo_elf_begin(m_file.fd(), ELF_C_WRITE, nullptr);
        Elf32_Ehdr* h = tamo_elf32_newehdr(m_elf);
        h->e_type = 1;
        h->e_machine = 20;
        std::string names(1, '\0');
        std::vector<uint32_t> nameOff;
        for (const Section& s : sections) {
            nameOff.push_back(static_cast<uint32_t>(names.size()));
            names += s.name + '\0';
        }
        const uint32_t shstrName = static_cast<uint32_t>(names.size());
        names += std::string(".shstrtab") + '\0';
        for (size_t i = 0; i < sections.size(); ++i) {
            const Section& s = sections[i];
            m_bodies.push_back(callerBytes(s, o));
            add(s, nameOff[i], m_bodies.back(), dataType(s.type));
        }
        Section shstr{.name = ".shstrtab", .type = SHT_STRTAB};
        m_bodies.push_back(Bytes(names.begin(), names.end()));
        add(shstr, shstrName, m_bodies.back(), ELF_T_BYTE);
        h = tamo_elf32_getehdr(m_elf);
        h->e_shstrndx = static_cast<Elf32_Half>(sections.size() + 1);
        h->e_ident[EI_DATA] = static_cast<unsigned char>(o);
    }
    ~LibraryObject() {
        if (m_elf) tamo_elf_end(m_elf);
    }
    Elf* elf() const { return m_elf; }
    int fd() const { return m_file.fd(); }
    Elf_Scn* scn(size_t i) const { return tamo_elf_getscn(m_elf, i); }
    Elf_Data* data(size_t i) const { return tamo_elf_getdata(scn(i), nullptr); }
    off_t write() { return tamo_elf_update(m_elf, ELF_C_WRITE); }
    Bytes written() const { return fileBytes(m_file.fd()); }
    // The caller's buffers, which writing must leave as they were.
    const std::deque<Bytes>& bodies() const { return m_bodies; }

private:
    void add(const Section& s, uint32_t name, Bytes& body, Elf_Type type) {
        Elf_Scn* scn = tamo_elf_newscn(m_elf);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        *sh = Elf32_Shdr{name, s.type, s.flags, s.addr, 0, 0, s.link, s.info, s.align, s.entsize, s.extra};
        if (s.type == SHT_NOBITS) {
            sh->sh_size = static_cast<Elf32_Word>(s.forceSize);
            return;
        }
        Elf_Data* d = tamo_elf_newdata(scn);
        d->d_buf = body.data();
        d->d_size = body.size();
        d->d_type = type;
    }

    MemFile m_file;
    Elf* m_elf = nullptr;
    std::deque<Bytes> m_bodies;
};

class WriteBoth : public ::testing::TestWithParam<Order> {
protected:
    void SetUp() override { initLibrary(); }
};

TEST_P(WriteBoth, ImageEqualsTheIndependentEncoding) {
    // Every record type, symbols with st_extra, sh_extra, a SHT_NOBITS
    // section: the same bytes as the builder's, and the caller's data and
    // host-order headers unchanged afterwards.
    Sample s(GetParam());
    const Bytes expected = s.build();
    LibraryObject lib(GetParam(), s.sections);
    const std::vector<Bytes> before(lib.bodies().begin(), lib.bodies().end());
    ASSERT_EQ(lib.write(), static_cast<off_t>(expected.size())) << tamo_elf_errmsg(tamo_elf_errno());
    EXPECT_EQ(lib.written(), expected);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), lib.bodies().begin()));
    EXPECT_EQ(tamo_elf32_getshdr(lib.scn(s.symtab))->sh_extra, 0x5a5au) << "headers stay in host order";
    EXPECT_EQ(tamo_elf32_getehdr(lib.elf())->e_shoff, get32(expected, 32, GetParam()));

    // Reading it back gives exactly what was written, both ways.
    for (Access a : {Access::File, Access::Image}) {
        Opened o(expected, a);
        for (size_t i = 1; i <= s.sections.size(); ++i) {
            if (s.section(i).type == SHT_NOBITS) continue;
            EXPECT_EQ(o.bytes(i), callerBytes(s.section(i), GetParam())) << name(a) << " section " << i;
        }
    }
}

TEST_P(WriteBoth, UpdateInPlaceIsByteIdenticalAndCarriesUnreadSections) {
    // A file opened for update with only some sections read (or all, or
    // none), marked dirty and written again, is the same file; unread
    // sections are copied from the file as they stand.
    Sample s(GetParam());
    const Bytes original = s.build();
    const std::vector<std::vector<size_t>> reads = {{}, {s.symtab}, {s.rela, s.text, s.bss}};
    for (const auto& which : reads) {
        char path[] = "/tmp/tamoelf-rdwr-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_EQ(write(fd, original.data(), original.size()), static_cast<ssize_t>(original.size()));
        // A longer file is cut to the image.
        ASSERT_EQ(write(fd, "trailing", 8), 8);
        lseek(fd, 0, SEEK_SET);
        Elf* elf = tamo_elf_begin(fd, ELF_C_RDWR, nullptr);
        ASSERT_NE(elf, nullptr);
        for (size_t i : which) ASSERT_NE(tamo_elf_getscn(elf, i), nullptr);
        tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
        lseek(fd, 5, SEEK_SET);  // the image lands at offset 0 wherever the file stands
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), static_cast<off_t>(original.size()));
        EXPECT_EQ(fileBytes(fd), original) << which.size() << " sections read";
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), 0) << "not dirty any more: nothing written";
        // Sections carried over are readable at their (new) places afterwards.
        Elf_Data* hash = tamo_elf_getdata(tamo_elf_getscn(elf, s.hash), nullptr);
        ASSERT_NE(hash, nullptr);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(hash->d_buf), static_cast<uint8_t*>(hash->d_buf) + hash->d_size),
                  hostBytes(s.section(s.hash)));
        tamo_elf_end(elf);
        close(fd);
        unlink(path);
    }
}

TEST_P(WriteBoth, CoffSectionsComeBackAsTheyWere) {
    // Line-number and symbol records repacked on reading are repacked again
    // on writing; only the padding of big-endian records (and the bytes of a
    // trailing partial record) are not kept.
    CoffObject c(GetParam());
    const Bytes original = c.b.build();
    MemFile f(original);
    Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
    ASSERT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
    std::vector<Bytes> seen;
    for (size_t i = 1; i < tamo_elf32_getehdr(elf)->e_shnum; ++i) {
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr);
        seen.emplace_back(static_cast<uint8_t*>(d->d_buf), static_cast<uint8_t*>(d->d_buf) + d->d_size);
    }
    tamo_elf_end(elf);
    // Write what was read into a new file of the same order, read it back.
    std::vector<Section> sections;
    for (size_t i = 0; i + 1 < seen.size(); ++i) {
        Section s = c.sections.at(i);
        s.content = raw(seen[i]);
        sections.push_back(s);
    }
    LibraryObject lib(GetParam(), sections);
    lib.data(c.rela)->d_type = ELF_T_RELA;  // as reading presented them
    lib.data(c.relaTyped)->d_type = ELF_T_RELA;
    ASSERT_GT(lib.write(), 0);
    Opened again(lib.written(), Access::File);
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_EQ(again.bytes(i), seen[i - 1]) << "section " << i;
}

INSTANTIATE_TEST_SUITE_P(Write, WriteBoth, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

// ---------------------------------------------------------------------------

// A new file with the null section and sections described by the callback.
struct NewFile {
    MemFile file{Bytes{}};
    Elf* elf;
    std::deque<Bytes> bodies;
    NewFile() {
        initLibrary();
        elf = tamo_elf_begin(file.fd(), ELF_C_WRITE, nullptr);
        tamo_elf32_newehdr(elf);
    }
    ~NewFile() { tamo_elf_end(elf); }
    Elf_Scn* section(uint32_t name, uint32_t type = SHT_PROGBITS, uint32_t align = 0) {
        Elf_Scn* scn = tamo_elf_newscn(elf);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        sh->sh_name = name;
        sh->sh_type = type;
        sh->sh_addralign = align;
        return scn;
    }
    Elf_Data* piece(Elf_Scn* scn, size_t size, size_t align = 1, uint8_t byte = 0x11) {
        bodies.emplace_back(size, byte);
        Elf_Data* d = tamo_elf_newdata(scn);
        d->d_buf = bodies.back().data();
        d->d_size = size;
        d->d_align = align;
        return d;
    }
};

TEST(Layout, LibraryLayoutExamples) {
    {
        NewFile f;
        Elf_Scn* s = f.section(1);
        f.piece(s, 10, 4);
        ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_NULL), 152);
        const Elf32_Ehdr* h = tamo_elf32_getehdr(f.elf);
        EXPECT_EQ(h->e_ehsize, 52);
        EXPECT_EQ(h->e_shentsize, 44);
        EXPECT_EQ(h->e_shnum, 2);
        EXPECT_EQ(h->e_shoff, 64u);
        EXPECT_EQ(h->e_ident[EI_CLASS], ELFCLASS32);
        EXPECT_EQ(h->e_ident[EI_DATA], ELFDATA2LSB);
        EXPECT_EQ(h->e_version, 1u);
        const Elf32_Shdr* sh = tamo_elf32_getshdr(s);
        EXPECT_EQ(sh->sh_offset, 52u);
        EXPECT_EQ(sh->sh_size, 10u);
        EXPECT_EQ(sh->sh_addralign, 4u);
    }
    {
        // Pieces: d_align 16 and 12 (need not be a power of two).
        NewFile f;
        Elf_Scn* s = f.section(1);
        Elf_Data* a = f.piece(s, 10);
        Elf_Data* b = f.piece(s, 10, 16);
        Elf_Scn* t = f.section(1);
        f.piece(t, 10);
        Elf_Data* c = f.piece(t, 4, 12);
        ASSERT_GT(tamo_elf_update(f.elf, ELF_C_NULL), 0);
        EXPECT_EQ(a->d_off, 0);
        EXPECT_EQ(b->d_off, 16);
        EXPECT_EQ(tamo_elf32_getshdr(s)->sh_size, 26u);
        EXPECT_EQ(c->d_off, 12);
        EXPECT_EQ(tamo_elf32_getshdr(t)->sh_addralign, 12u);
        EXPECT_EQ(tamo_elf32_getshdr(t)->sh_offset % 12, 0u);
    }
    {
        // sh_name 0: no place whatever it holds; SHT_NOBITS takes no room.
        NewFile f;
        Elf_Scn* unnamed = f.section(0, SHT_PROGBITS, 8);
        f.piece(unnamed, 40);
        tamo_elf32_getshdr(unnamed)->sh_offset = 999;
        Elf_Scn* bss = f.section(1, SHT_NOBITS, 4);
        f.piece(bss, 100);
        Elf_Scn* next = f.section(1);
        f.piece(next, 3);
        ASSERT_GT(tamo_elf_update(f.elf, ELF_C_NULL), 0);
        const Elf32_Shdr* u = tamo_elf32_getshdr(unnamed);
        EXPECT_EQ(u->sh_offset + u->sh_size + u->sh_addralign, 0u);
        EXPECT_EQ(tamo_elf32_getshdr(bss)->sh_offset, 52u);
        EXPECT_EQ(tamo_elf32_getshdr(bss)->sh_size, 100u);
        EXPECT_EQ(tamo_elf32_getshdr(next)->sh_offset, 52u);
        // Writing the unnamed section, placed at 0, cannot work.
        EXPECT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), -1);
        EXPECT_EQ(tamo_elf_errno(), 43);
    }
}

TEST(Layout, CallerLayout) {
    struct Row {
        uint32_t shSize;
        off_t dOff;
        size_t dSize;
        int code;  // 0: layout passes
    };
    for (const Row& r : {Row{8, 0, 10, 30}, Row{10, 4, 8, 30}, Row{10, 2, 8, 0}, Row{10, -1, 1, 29}}) {
        NewFile f;
        tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT);
        Elf_Scn* s = f.section(1);
        Elf32_Shdr* sh = tamo_elf32_getshdr(s);
        sh->sh_offset = 100;
        sh->sh_size = r.shSize;
        Elf_Data* d = f.piece(s, r.dSize);
        d->d_off = r.dOff;
        tamo_elf_errno();
        const off_t got = tamo_elf_update(f.elf, ELF_C_NULL);
        if (r.code) {
            EXPECT_EQ(got, -1) << r.shSize << " " << r.dOff;
            EXPECT_EQ(tamo_elf_errno(), r.code);
        } else {
            EXPECT_EQ(got, 112 + 88);
            EXPECT_EQ(d->d_off, r.dOff) << "the caller's offsets stand";
            EXPECT_EQ(sh->sh_offset, 100u);
        }
    }
    // Sections ending at 301 put the table at 304; overlapping ones fail to
    // write (43); gaps are not written.
    NewFile f;
    tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT);
    tamo_elf_fill(0xab);
    Elf_Scn* a = f.section(1);
    *tamo_elf32_getshdr(a) = Elf32_Shdr{1, SHT_PROGBITS, 0, 0, 200, 101, 0, 0, 1, 0, 0};
    f.piece(a, 101);
    ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_NULL), 304 + 88);
    EXPECT_EQ(tamo_elf32_getehdr(f.elf)->e_shoff, 304u);
    ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), 304 + 88);
    const Bytes out = fileBytes(f.file.fd());
    EXPECT_EQ(out[100], 0) << "the gap before a caller's section is not written";
    EXPECT_EQ(out[302], 0xab) << "the gap before the section table holds the fill byte";
    Elf_Scn* b = f.section(1);
    *tamo_elf32_getshdr(b) = Elf32_Shdr{1, SHT_PROGBITS, 0, 0, 250, 10, 0, 0, 1, 0, 0};
    f.piece(b, 10);
    EXPECT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), -1);
    EXPECT_EQ(tamo_elf_errno(), 43);
    tamo_elf_fill(0);
}

TEST(Layout, FillBytesInEveryGap) {
    for (int fillValue : {0, 0x1ab}) {
        tamo_elf_fill(fillValue);
        NewFile f;
        Elf_Scn* a = f.section(1);
        f.piece(a, 10);  // 52..62
        Elf_Scn* b = f.section(1, SHT_PROGBITS, 8);
        f.piece(b, 3);     // 64..67
        f.piece(b, 2, 4);  // 68..70 after a gap of one byte
        ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), 72 + 3 * 44);
        const Bytes out = fileBytes(f.file.fd());
        const uint8_t fill = static_cast<uint8_t>(fillValue);
        for (size_t at : {62u, 63u, 67u, 70u, 71u}) EXPECT_EQ(out.at(at), fill) << at;
        EXPECT_EQ(out.at(64), 0x11);
        EXPECT_EQ(out.at(69), 0x11);
        // Written again under the caller's layout with section b moved on:
        // the gap it leaves is not written, and shows nothing of the first
        // image.
        tamo_elf_flagelf(f.elf, ELF_C_SET, ELF_F_LAYOUT | ELF_F_DIRTY);
        tamo_elf32_getshdr(b)->sh_offset = 80;
        ASSERT_EQ(tamo_elf_update(f.elf, ELF_C_WRITE), 88 + 3 * 44);
        const Bytes moved = fileBytes(f.file.fd());
        for (size_t at = 62; at < 80; ++at) EXPECT_EQ(moved.at(at), 0) << at;
    }
    tamo_elf_fill(0);
}

TEST(Layout, CodesOfUpdate) {
    initLibrary();
    struct Row {
        const char* what;
        std::function<void(NewFile&)> prepare;
        Elf_Cmd cmd;
        int code;
    };
    const std::vector<Row> rows = {
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
             Elf_Scn* s = f.section(0);
             tamo_elf32_getshdr(s)->sh_offset = 4000;
             f.piece(s, 8);
         },
         ELF_C_WRITE, 35},
        {"after FDDONE", [](NewFile& f) { tamo_elf_cntl(f.elf, ELF_C_FDDONE); }, ELF_C_WRITE, 42},
        {"command 8", [](NewFile&) {}, static_cast<Elf_Cmd>(8), 65},
    };
    // An empty piece needs no bytes, in either byte order.
    for (unsigned char order : {ELFDATA2LSB, ELFDATA2MSB}) {
        NewFile f;
        Elf_Scn* s = f.section(1, SHT_SYMTAB);
        Elf_Data* d = f.piece(s, 0);
        d->d_buf = nullptr;
        d->d_type = ELF_T_SYM;
        tamo_elf32_getehdr(f.elf)->e_ident[EI_DATA] = order;
        EXPECT_GT(tamo_elf_update(f.elf, ELF_C_WRITE), 0) << tamo_elf_errmsg(tamo_elf_errno());
    }
    for (const Row& r : rows) {
        NewFile f;
        r.prepare(f);
        tamo_elf_errno();
        EXPECT_EQ(tamo_elf_update(f.elf, r.cmd), -1) << r.what;
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.what;
        EXPECT_EQ(fileBytes(f.file.fd()).size(), 0u) << r.what << ": nothing written";
    }
    // No header (22); ELF_C_READ does nothing (0); a read-only descriptor
    // cannot be written (61); an image cannot be laid out (9).
    MemFile empty(Bytes{});
    Elf* bare = tamo_elf_begin(empty.fd(), ELF_C_WRITE, nullptr);
    EXPECT_EQ(tamo_elf_update(bare, ELF_C_NULL), -1);
    EXPECT_EQ(tamo_elf_errno(), 22);
    EXPECT_EQ(tamo_elf_update(bare, ELF_C_READ), 0);
    EXPECT_EQ(tamo_elf_newscn(bare), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 44);
    tamo_elf_end(bare);
    const Bytes obj = memberObject(Order::Big, 1);
    Opened viaFile(obj, Access::File), viaImage(obj, Access::Image);
    EXPECT_EQ(tamo_elf_update(viaFile.elf(), ELF_C_WRITE), -1);
    EXPECT_EQ(tamo_elf_errno(), 61);
    EXPECT_EQ(tamo_elf_update(viaImage.elf(), ELF_C_NULL), -1);
    EXPECT_EQ(tamo_elf_errno(), 9);
    EXPECT_EQ(tamo_elf_newscn(viaImage.elf()), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 20);
    EXPECT_EQ(tamo_elf_update(nullptr, ELF_C_NULL), -1);
    EXPECT_EQ(tamo_elf_errno(), 32);
}

TEST(Layout, WriteFailuresMapErrno) {
    // A file id not open for writing (86), a full device (79), each with
    // the context "elf_update"; the descriptor stays dirty.
    initLibrary();
    struct Row {
        const char* path;
        int flags;
        int code;
    };
    for (const Row& r : {Row{"/dev/null", O_RDONLY, 86}, Row{"/dev/full", O_WRONLY, 79}}) {
        const int fd = open(r.path, r.flags);
        ASSERT_GE(fd, 0);
        Elf* elf = tamo_elf_begin(fd, ELF_C_WRITE, nullptr);
        tamo_elf32_newehdr(elf);
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), -1) << r.path;
        EXPECT_EQ(tamo_elf_errno(), r.code) << r.path;
        EXPECT_STREQ(elf_lastmsg_poster(), "elf_update");
        EXPECT_EQ(tamo_elf_update(elf, ELF_C_WRITE), -1) << "still dirty: tried again";
        tamo_elf_end(elf);
        close(fd);
    }
}

}  // namespace
