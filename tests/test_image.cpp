// Memory images come back intact when their descriptor ends, and malformed
// or truncated inputs are refused with a code, without reading or writing
// outside what was given.
#include <algorithm>
#include <random>

#include "ReadSupport.h"

using namespace testkit;

#include "HeldMemory.h"

namespace {

int tamo32_shstrndx(Elf* elf) { return tamo_elf32_getehdr(elf)->e_shstrndx; }

// After tamo_elf_end every byte equals the original, except EI_DATA, which
// the library rewrites from e_version.
void expectRestored(const Bytes& before, const Bytes& after) {
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
        if (i == EI_DATA) continue;
        if (before[i] != after[i]) {
            ADD_FAILURE() << "image byte " << i << " was " << int(before[i]) << ", is " << int(after[i]);
            return;
        }
    }
}

// Opens a copy of `file` as a memory image, lets `work` use the descriptor,
// ends it and checks that the image came back.
template <class Work>
void roundTrip(const Bytes& file, Work&& work) {
    ImageBuffer image(file);
    Elf* elf = tamo_elf_memory(image.data(), image.size());
    ASSERT_NE(elf, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    work(elf);
    EXPECT_EQ(tamo_elf_end(elf), 0);
    expectRestored(file, image.bytes());
}

class Restore : public ::testing::TestWithParam<Order> {};

TEST_P(Restore, AnyReadingOrder) {
    for (unsigned seed = 0; seed < 6; ++seed) {
        Sample s(GetParam());
        roundTrip(s.build(), [&](Elf* elf) {
            std::vector<size_t> order;
            for (size_t i = 0; i <= s.names(); ++i) order.push_back(i);
            std::mt19937 rng(seed);
            std::shuffle(order.begin(), order.end(), rng);
            order.resize(1 + seed * 3 % order.size());  // some sections only
            for (size_t i : order) EXPECT_NE(tamo_elf_getscn(elf, i), nullptr);
        });
    }
}

TEST_P(Restore, EverythingReadAtOnce) {
    roundTrip(Sample(GetParam()).build(), [](Elf* elf) { EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0); });
}

int refuseHash(Elf32_Shdr*, const char* name) { return std::string(name) == ".hash" ? 0 : 1; }
int keepSymtab(Elf32_Shdr*, const char* name) { return std::string(name) == ".symtab" ? 4 : 1; }

TEST_P(Restore, InvalidControllerAnswer) {
    Sample s(GetParam());
    roundTrip(s.build(), [&](Elf* elf) {
        tamo_elf_setreadswapcontroller(elf, refuseHash);
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
        // The caller switches the section's behaviour afterwards; it was
        // never converted, so it must not be converted back.
        tamo_elf_setswapbehavior(tamo_elf_getscn(elf, s.hash), 2);
    });
}

TEST_P(Restore, CallerChangedBehavioursAndRecords) {
    Sample s(GetParam());
    roundTrip(s.build(), [&](Elf* elf) {
        tamo_elf_setreadswapcontroller(elf, keepSymtab);
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
        for (size_t i = 1; i <= s.names(); ++i) tamo_elf_setswapbehavior(tamo_elf_getscn(elf, i), 1 + i % 4);
        // Fiddling with the public records changes nothing about what comes back.
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, s.rela), nullptr);
        d->d_type = ELF_T_SHDR;
        d->d_size = 3;
        tamo_elf32_getehdr(elf)->e_ident[EI_DATA] = 3;
    });
}

TEST_P(Restore, OverlappingSections) {
    ObjectBuilder b(GetParam());
    const Fields w = words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    size_t hash = b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = w});
    b.build();
    const uint32_t at = b.offsetOf(hash);
    // A symbol table, a relocation table and the header over the same bytes.
    b.add({.name = ".symtab", .type = SHT_SYMTAB, .forceOffset = at + 2, .forceSize = 20});
    b.add({.name = ".rela", .type = SHT_RELA, .forceOffset = at + 4, .forceSize = 24});
    b.add({.name = ".hdr", .type = SHT_DYNAMIC, .forceOffset = 0, .forceSize = 48});
    Bytes file = b.build();
    roundTrip(file, [](Elf* elf) { EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0); });
    roundTrip(file, [](Elf* elf) {
        for (size_t i : {4, 2, 3, 1}) EXPECT_NE(tamo_elf_getscn(elf, i), nullptr) << i;
    });
    // A section over the ELF header, read first, leaves the descriptor's
    // header as it was (it gets a copy of those bytes), and the sections
    // read after it by that header are right.
    roundTrip(file, [](Elf* elf) {
        const Elf32_Ehdr before = *tamo_elf32_getehdr(elf);
        ASSERT_NE(tamo_elf_getscn(elf, 4), nullptr);
        EXPECT_EQ(std::memcmp(&before, tamo_elf32_getehdr(elf), sizeof before), 0);
        tamo_elf_errno();
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(tamo_elf_errno(), 0);
        uint32_t first = 0;
        std::memcpy(&first, d->d_buf, 4);
        EXPECT_EQ(first, 1u);
    });
}

TEST_P(Restore, LineNumberRelocationsThatDoNotDivide) {
    ObjectBuilder b(GetParam());
    b.add({.name = ".rela.lnno.text", .type = SHT_RELA, .content = words({17, 1, 2, 23, 3, 4})});
    b.add({.name = ".lnno.text", .type = 15, .content = raw(Bytes{0, 0, 0, 1, 0, 2, 0, 0, 0, 0, 0, 3, 0, 4, 5})});
    b.add({.name = ".coff.SDB", .type = 15, .content = raw(Bytes(41, 7))});
    roundTrip(b.build(), [](Elf* elf) { EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0); });
}

TEST_P(Restore, SectionsMadeWhileAnotherIsConverted) {
    // Converting .debug_info reads .debug_abbrev through the interface,
    // which makes (and converts) every section before it in the image.
    ObjectBuilder b(GetParam());
    size_t info = b.add({.name = ".debug_info", .type = SHT_PROGBITS,
                         .content = Fields{{4, 12}, {2, 2}, {4, 0}, {1, 4}, {1, 1}, {1, 0}, {4, 0x11223344}}});
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = words({1, 2, 3})});
    b.add({.name = ".debug_line", .type = SHT_PROGBITS, .content = words({9, 8, 7})});
    b.add({.name = ".debug_abbrev", .type = SHT_PROGBITS, .content = raw(Bytes{1, 0x11, 0, 0x10, 6, 0, 0, 0})});
    b.add({.name = ".symtab", .type = SHT_SYMTAB, .align = 4, .content = words({1, 2, 3, 4, 5})});
    roundTrip(b.build(), [&](Elf* elf) {
        EXPECT_NE(tamo_elf_getscn(elf, info), nullptr);
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
    });
}

TEST_P(Restore, FailedOpeningLeavesTheImage) {
    Sample s(GetParam());
    s.builder.shoffOverride = 0x7ffffff0;  // table far beyond the image
    Bytes file = s.build();
    ImageBuffer image(file);
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf_memory(image.data(), image.size()), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 7);
    expectRestored(file, image.bytes());
}

INSTANTIATE_TEST_SUITE_P(Image, Restore, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

// -------------------------------------------------------------------------

TEST(Malformed, ImageBounds) {
    for (Order order : {Order::Little, Order::Big}) {
        Sample s(order);
        Bytes file = s.build();
        // Shorter than a header.
        Bytes header = file;
        header.resize(40);
        ImageBuffer shortImage(header);
        EXPECT_EQ(tamo_elf_memory(shortImage.data(), shortImage.size()), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 6);
        EXPECT_EQ(shortImage.bytes(), header);
        // Cut inside the section header table.
        Bytes cut = file;
        cut.resize(file.size() - 10);
        ImageBuffer cutImage(cut);
        EXPECT_EQ(tamo_elf_memory(cutImage.data(), cutImage.size()), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 7);
        expectRestored(cut, cutImage.bytes());
    }
}

TEST(Malformed, SectionOutsideItsInput) {
    for (Order order : {Order::Little, Order::Big}) {
        for (Access a : {Access::File, Access::Image}) {
            ObjectBuilder b(order);
            size_t past = b.add({.name = ".hash", .type = SHT_HASH, .forceOffset = 60, .forceSize = 0x7fffff00});
            size_t wrap = b.add({.name = ".rel", .type = SHT_REL, .forceOffset = 0xfffffff0, .forceSize = 0x20});
            size_t ok = b.add({.name = ".dyn", .type = SHT_DYNAMIC, .content = words({1, 2})});
            Bytes file = b.build();
            Opened o(file, a);
            ASSERT_NE(o.elf(), nullptr);
            const int code = a == Access::File ? 8 : 7;
            tamo_elf_errno();
            EXPECT_EQ(o.scn(past), nullptr);
            EXPECT_EQ(tamo_elf_errno(), code);
            EXPECT_EQ(o.scn(wrap), nullptr);
            EXPECT_EQ(tamo_elf_errno(), code);
            EXPECT_EQ(o.bytes(ok), encode(words({1, 2}), kHost));
            EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), -1);
        }
    }
}

TEST(Malformed, TruncatedFilesReadAsZeros) {
    initLibrary();
    // A header cut short: what was not read is zero, so no sections.
    Sample s(Order::Big);
    Bytes file = s.build();
    Bytes head(file.begin(), file.begin() + 30);
    {
        MemFile f(head);
        Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(elf, nullptr);
        Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
        EXPECT_EQ(h->e_shnum, 0);
        EXPECT_EQ(h->e_shstrndx, 0);
        tamo_elf_end(elf);
    }
    // A section header table past the end of the file: zero records.
    s.builder.shoffOverride = static_cast<int64_t>(file.size()) + 1000;
    Bytes noTable = s.build();
    {
        MemFile f(noTable);
        Elf* elf = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(elf, nullptr);
        Elf_Scn* scn = tamo_elf_getscn(elf, 3);
        ASSERT_NE(scn, nullptr);
        EXPECT_EQ(tamo_elf32_getshdr(scn)->sh_type, 0u);
        EXPECT_EQ(tamo_elf_getdata(scn, nullptr), nullptr);
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
        tamo_elf_end(elf);
    }
}

TEST(Malformed, ZeroSectionHeaderSize) {
    Sample s(Order::Little);
    s.builder.shentsize = 0;
    Bytes file = s.build();
    Opened o(file, Access::File);
    ASSERT_NE(o.elf(), nullptr);
    EXPECT_EQ(tamo_elf32_getshdr(o.scn(2))->sh_type, 0u);
}

TEST(Malformed, NamesAndTypes) {
    for (Access a : {Access::File, Access::Image}) {
        ObjectBuilder b(Order::Big);
        size_t bad = b.add({.name = ".x", .type = 21, .content = raw(Bytes{1, 2, 3, 4})});
        size_t ok = b.add({.name = ".y", .type = SHT_HASH, .content = words({5})});
        Bytes file = b.build();
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        tamo_elf_errno();
        EXPECT_EQ(o.scn(bad), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 28);
        EXPECT_EQ(o.bytes(ok), encode(words({5}), kHost));
        // A name offset past the name table: a foreign file's sections need
        // their names, so the section cannot be had.
        ObjectBuilder c(Order::Big);
        size_t lost = c.add({.name = ".z", .type = SHT_HASH, .content = words({6})});
        Bytes other = c.build();
        patchShdr(other, Order::Big, lost, kName, 0x7f000000);
        Opened p(other, a);
        ASSERT_NE(p.elf(), nullptr);
        EXPECT_EQ(p.scn(lost), nullptr);
        EXPECT_EQ(tamo_elf_errno(), 68);
    }
}

TEST(Malformed, NoSectionNameTable) {
    for (Order order : {Order::Little, Order::Big}) {
        for (Access a : {Access::File, Access::Image}) {
            ObjectBuilder b(order);
            size_t hash = b.add({.name = ".hash", .type = SHT_HASH, .content = words({1, 2})});
            Bytes file = b.build();
            file[50] = file[51] = 0;  // e_shstrndx: no section-name table
            Opened o(file, a);
            ASSERT_NE(o.elf(), nullptr);
            EXPECT_EQ(tamo32_shstrndx(o.elf()), 0);
            tamo_elf_errno();
            if (order == kHost) {
                EXPECT_EQ(o.bytes(hash), encode(words({1, 2}), kHost));
                EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), 0);
                EXPECT_EQ(o.scn(0), nullptr) << "section 0 was never asked for";
                EXPECT_EQ(tamo_elf_errno(), 42);
            } else {
                // A foreign file's sections need their names.
                EXPECT_EQ(o.scn(hash), nullptr);
                EXPECT_EQ(tamo_elf_errno(), 25);
            }
        }
    }
}

TEST(Malformed, StringsEndInsideTheLibrarysMemory) {
    // A string table whose last string has no NUL.
    ObjectBuilder b(Order::Little);
    size_t strs = b.add({.name = ".strtab", .type = SHT_STRTAB, .content = raw(std::string("\0abc\0tail", 9))});
    Bytes file = b.build();
    Opened viaFile(file, Access::File);
    EXPECT_STREQ(tamo_elf_strptr(viaFile.elf(), strs, 5), "tail") << "the buffer carries a NUL past its end";
    EXPECT_STREQ(tamo_elf_strptr(viaFile.elf(), strs, 9), "");

    // In an image that ends with that string, the lookup is refused rather
    // than handing out a string that runs past the image.
    Bytes image = file;
    const uint32_t at = static_cast<uint32_t>(image.size());
    for (char c : std::string("\0abc\0tail", 9)) image.push_back(static_cast<uint8_t>(c));
    patchShdr(image, Order::Little, strs, kOffset, at);
    Opened viaImage(image, Access::Image);
    ASSERT_NE(viaImage.elf(), nullptr);
    EXPECT_STREQ(tamo_elf_strptr(viaImage.elf(), strs, 1), "abc");
    tamo_elf_errno();
    EXPECT_EQ(tamo_elf_strptr(viaImage.elf(), strs, 5), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 37);
    EXPECT_EQ(tamo_elf_strptr(viaImage.elf(), strs, 9), nullptr);
}

TEST(Malformed, OverlappingSectionsAreBounded) {
    // Thousands of headers that all name the whole file: the bytes the
    // library places are bounded by a multiple of the input's size.
    initLibrary();
    ObjectBuilder b(Order::Big);
    b.add({.name = ".big", .type = SHT_HASH, .align = 4, .content = Fields(16384, Field{4, 0x01020304})});
    b.build();
    for (int i = 0; i < 200; ++i) b.add({.name = ".o", .type = SHT_HASH, .forceOffset = 64, .forceSize = 65536});
    Bytes file = b.build();
    for (Access a : {Access::File, Access::Image}) {
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        tamo_elf_errno();
        EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), -1);
        EXPECT_EQ(tamo_elf_errno(), 4);
    }
}

TEST(Malformed, ClaimedSectionsCostNothingUntilAskedFor) {
    // Members that are a bare header claiming 65,535 sections: opening all of
    // them at once holds memory in proportion to the archive, not to what
    // the headers claim.
    initLibrary();
    for (Order order : {Order::Little, Order::Big}) {
        ArchiveBuilder ar(order);
        ObjectBuilder ob(order);
        ob.shoffOverride = 52;
        ob.shnumOverride = 65535;
        Bytes header = ob.build();
        header.resize(52);
        constexpr size_t kMembers = 64;
        for (size_t i = 0; i < kMembers; ++i) {
            char member[16];
            std::snprintf(member, sizeof member, "m%zu.o", i);
            ar.addMember({.name = member, .data = header});
        }
        MemFile f(ar.build());
        Elf* archive = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(archive, nullptr);
        const long before = heldByNew();
        std::vector<Elf*> members;
        Elf_Cmd cmd = ELF_C_READ;
        for (Elf* m; (m = tamo_elf_begin(f.fd(), cmd, archive)) != nullptr;) {
            members.push_back(m);
            cmd = tamo_elf_next(m);
        }
        ASSERT_EQ(members.size(), kMembers);
        EXPECT_LT(heldByNew() - before, static_cast<long>(kMembers * 4096)) << name(order);
        // The claimed sections are there, as zero headers.
        Elf_Scn* last = tamo_elf_getscn(members[0], 65534);
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(tamo_elf32_getshdr(last)->sh_type, 0u);
        for (Elf* m : members) tamo_elf_end(m);
        tamo_elf_end(archive);
    }
}

TEST(Malformed, FailedSectionsLeaveThePlacementBudget) {
    // A refused section (type 25) over the whole of a large one, asked for
    // again and again: it fails with its own code every time, and the large
    // section can still be had afterwards.
    initLibrary();
    for (Access a : {Access::File, Access::Image}) {
        ObjectBuilder b(Order::Big);
        size_t big = b.add({.name = ".big", .type = SHT_HASH, .align = 4, .content = Fields(100000, Field{4, 7})});
        b.build();
        size_t bad = b.add({.name = ".bad", .type = 25, .forceOffset = b.offsetOf(big), .forceSize = 400000});
        Bytes file = b.build();
        Opened o(file, a);
        ASSERT_NE(o.elf(), nullptr);
        for (int i = 0; i < 40; ++i) {
            EXPECT_EQ(o.scn(bad), nullptr);
            ASSERT_EQ(tamo_elf_errno(), 28) << name(a) << " attempt " << i;
        }
        Elf_Data* d = o.data(big);
        ASSERT_NE(d, nullptr) << name(a) << ": " << tamo_elf_errmsg(tamo_elf_errno());
        EXPECT_EQ(d->d_size, 400000u);
    }
}

TEST(Malformed, EmptySectionsNeedNoBytes) {
    // A section of size 0 whose offset lies past the end of its input reads
    // as an empty block, in a file, an image and an archive member.
    initLibrary();
    for (Order order : {Order::Little, Order::Big}) {
        ObjectBuilder b(order);
        size_t empty = b.add({.name = ".empty", .type = SHT_PROGBITS, .forceOffset = 0x7ffffff0, .forceSize = 0});
        size_t after = b.add({.name = ".hash", .type = SHT_HASH, .content = words({3})});
        Bytes file = b.build();
        auto check = [&](Elf* elf, const char* how) {
            ASSERT_NE(elf, nullptr) << how;
            Elf_Scn* scn = tamo_elf_getscn(elf, empty);
            ASSERT_NE(scn, nullptr) << how << ": " << tamo_elf_errmsg(tamo_elf_errno());
            Elf_Data* d = tamo_elf_getdata(scn, nullptr);
            ASSERT_NE(d, nullptr) << how;
            EXPECT_EQ(d->d_size, 0u) << how;
            EXPECT_EQ(tamo_elf_nextscn(elf, scn), tamo_elf_getscn(elf, after)) << how;
            EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0) << how;
        };
        for (Access a : {Access::File, Access::Image}) {
            Opened o(file, a);
            check(o.elf(), name(a));
        }
        ArchiveBuilder ar(order);
        ar.withSymbolTable = false;
        ar.addMember({.name = "a.o", .data = file});
        MemFile f(ar.build());
        Elf* archive = tamo_elf_begin(f.fd(), ELF_C_READ, nullptr);
        ASSERT_NE(archive, nullptr);
        check(tamo_elf_begin(f.fd(), ELF_C_READ, archive), "member");
        tamo_elf_end(archive);
    }
}

}  // namespace
