// Memory images come back intact when their descriptor ends; malformed or
// truncated inputs are refused with a code, never read or written beyond.
#include <algorithm>
#include <random>

#include "HeldMemory.h"
#include "ReadSupport.h"

using namespace testkit;

namespace {

// A failed call: its result `bad` (null, 0) and the code it left.
template <class T>
::testing::AssertionResult failed(T result, int code, T bad = T{}) {
    const int got = tamo_elf_errno();
    if (result == bad && got == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "result " << result << ", code " << got << " (" << code << " expected)";
}

// Opens a copy of `file` as an image for `work`, ends it and checks that every byte
// is back, except EI_DATA, which the library rewrites from e_version.
template <class Work>
void roundTrip(const Bytes& file, Work&& work) {
    ImageBuffer image(file);
    Elf* elf = tamo_elf_memory(image.data(), image.size());
    ASSERT_NE(elf, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
    work(elf);
    EXPECT_EQ(tamo_elf_end(elf), 0);
    Bytes after = image.bytes();
    after[EI_DATA] = file[EI_DATA];
    const size_t i = std::mismatch(file.begin(), file.end(), after.begin()).first - file.begin();
    EXPECT_EQ(i, file.size()) << "image byte " << i << " was " << int(file[i]) << ", is " << int(after[i]);
}

class Image : public ::testing::TestWithParam<Order> {};

TEST_P(Image, ReadingOrderAndChangedBehaviours) {
    Sample s(GetParam());
    const Bytes file = s.build();
    // Some sections in any order, then (on odd seeds) everything else at once.
    for (unsigned seed = 0; seed < 6; ++seed)
        roundTrip(file, [&](Elf* elf) {
            std::vector<size_t> order;
            for (size_t i = 0; i <= s.names(); ++i) order.push_back(i);
            std::shuffle(order.begin(), order.end(), std::mt19937(seed));
            order.resize(1 + seed * 3 % order.size());
            for (size_t i : order) EXPECT_NE(tamo_elf_getscn(elf, i), nullptr);
            EXPECT_EQ(seed % 2 ? tamo_elf_cntl(elf, ELF_C_FDREAD) : 0, 0);
        });
    // Behaviours chosen by the controller, then the caller, and edited public records
    // change nothing. .hash, refused by an invalid answer, must not be converted back.
    const Elf_ReadSwapController controllers[] = {
        [](Elf32_Shdr*, const char* name) { return std::string(name) == ".hash" ? 0 : 1; },
        [](Elf32_Shdr*, const char* name) { return std::string(name) == ".symtab" ? 4 : 1; }};
    for (auto controller : controllers)
        roundTrip(file, [&](Elf* elf) {
            tamo_elf_setreadswapcontroller(elf, controller);
            EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
            for (size_t i = 1; i <= s.names(); ++i)
                tamo_elf_setswapbehavior(tamo_elf_getscn(elf, i), i == s.hash ? 2 : 1 + i % 4);
            Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, s.rela), nullptr);
            d->d_type = ELF_T_SHDR;
            d->d_size = 3;
            tamo_elf32_getehdr(elf)->e_ident[EI_DATA] = 3;
        });
}

TEST_P(Image, OverlappingAndDependentSections) {
    ObjectBuilder b(GetParam());
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10})});
    b.build();
    const uint32_t at = b.offsetOf(1);
    // A symbol table, a relocation table and the header over the same bytes.
    b.add({.name = ".symtab", .type = SHT_SYMTAB, .forceOffset = at + 2, .forceSize = 20});
    b.add({.name = ".rela", .type = SHT_RELA, .forceOffset = at + 4, .forceSize = 24});
    b.add({.name = ".hdr", .type = SHT_DYNAMIC, .forceOffset = 0, .forceSize = 48});
    Bytes file = b.build();
    roundTrip(file, [](Elf* elf) { EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0); });
    // Each section made on its own, in another order.
    roundTrip(file, [](Elf* elf) {
        for (size_t i : {4, 2, 3, 1}) EXPECT_NE(tamo_elf_getscn(elf, i), nullptr) << i;
    });
    // A section over the ELF header, read first, gets a copy of those bytes:
    // the descriptor's header and the sections read by it are unchanged.
    roundTrip(file, [](Elf* elf) {
        const Elf32_Ehdr before = *tamo_elf32_getehdr(elf);
        ASSERT_NE(tamo_elf_getscn(elf, 4), nullptr);
        EXPECT_EQ(std::memcmp(&before, tamo_elf32_getehdr(elf), sizeof before), 0);
        Elf_Data* d = tamo_elf_getdata(tamo_elf_getscn(elf, 1), nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(static_cast<const uint32_t*>(d->d_buf)[0], 1u);
    });
    // Converting .debug_info reads .debug_abbrev, which makes every section before
    // it; the rest (line numbers, odd-sized records) are read with everything else.
    b = ObjectBuilder(GetParam());
    const Fields unit = {{4, 12}, {2, 2}, {4, 0}, {1, 4}, {1, 1}, {1, 0}, {4, 0x11223344}};
    size_t info = b.add({.name = ".debug_info", .type = SHT_PROGBITS, .content = unit});
    b.add({.name = ".hash", .type = SHT_HASH, .align = 4, .content = words({1, 2, 3})});
    b.add({.name = ".debug_line", .type = SHT_PROGBITS, .content = words({9, 8, 7})});
    b.add({.name = ".debug_abbrev", .type = SHT_PROGBITS, .content = raw(Bytes{1, 0x11, 0, 0x10, 6, 0, 0, 0})});
    b.add({.name = ".symtab", .type = SHT_SYMTAB, .align = 4, .content = words({1, 2, 3, 4, 5})});
    b.add({.name = ".rela.lnno.text", .type = SHT_RELA, .content = words({17, 1, 2, 23, 3, 4})});
    b.add({.name = ".lnno.text", .type = 15, .content = raw(Bytes{0, 0, 0, 1, 0, 2, 0, 0, 0, 0, 0, 3, 0, 4, 5})});
    b.add({.name = ".coff.SDB", .type = 15, .content = raw(Bytes(41, 7))});
    roundTrip(b.build(), [&](Elf* elf) {
        EXPECT_NE(tamo_elf_getscn(elf, info), nullptr);
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
    });
}

TEST_P(Image, TruncatedInputs) {
    // Images that cannot be opened are refused and left as they were.
    Sample s(GetParam());
    const Bytes file = s.build();
    s.builder.shoffOverride = 0x7ffffff0;
    const std::pair<Bytes, int> rows[] = {
        {Bytes(file.begin(), file.begin() + 40), 6},  // shorter than a header
        {Bytes(file.begin(), file.end() - 10), 7},    // cut inside the section header table
        {s.build(), 7}};                              // the table far beyond the image
    for (const auto& [bytes, code] : rows) {
        ImageBuffer image(bytes);
        tamo_elf_errno();
        EXPECT_TRUE(failed(tamo_elf_memory(image.data(), image.size()), code));
        EXPECT_EQ(image.bytes(), bytes);
    }
    // Files are read as far as they go, the rest as zeros: a header cut short has no sections.
    Opened head(Bytes(file.begin(), file.begin() + 30), Access::File);
    ASSERT_NE(head.elf(), nullptr);
    EXPECT_EQ(tamo_elf32_getehdr(head.elf())->e_shnum, 0);
    // A section header table past the end of the file: zero records.
    s.builder.shoffOverride = static_cast<int64_t>(file.size()) + 1000;
    Opened noTable(s.build(), Access::File);
    ASSERT_NE(noTable.scn(3), nullptr);
    EXPECT_EQ(tamo_elf32_getshdr(noTable.scn(3))->sh_type, 0u);
    EXPECT_EQ(noTable.data(3), nullptr);
    EXPECT_EQ(tamo_elf_cntl(noTable.elf(), ELF_C_FDREAD), 0);
    // Section headers of size 0.
    Sample zero(GetParam());
    zero.builder.shentsize = 0;
    Opened z(zero.build(), Access::File);
    ASSERT_NE(z.scn(2), nullptr);
    EXPECT_EQ(tamo_elf32_getshdr(z.scn(2))->sh_type, 0u);
}

TEST_P(Image, SectionsThatCannotBeHad) {
    // Each with its codes through a file and an image, beside one that can be had;
    // a foreign file's sections also need a section-name table and offsets inside it.
    const std::tuple<Section, int, int> rows[] = {
        {{.name = ".hash", .type = SHT_HASH, .forceOffset = 60, .forceSize = 0x7fffff00}, 8, 7},  // past the end
        {{.name = ".rel", .type = SHT_REL, .forceOffset = 0xfffffff0, .forceSize = 0x20}, 8, 7},  // wrapping around
        {{.name = ".x", .type = 21, .content = raw(Bytes{1, 2, 3, 4})}, 28, 28},                  // an unknown type
    };
    for (Access a : {Access::File, Access::Image}) {
        for (const auto& [section, fileCode, imageCode] : rows) {
            ObjectBuilder b(GetParam());
            size_t bad = b.add(section);
            size_t ok = b.add({.name = ".dyn", .type = SHT_DYNAMIC, .content = words({1, 2})});
            Opened o(b.build(), a);
            tamo_elf_errno();
            EXPECT_TRUE(failed(o.scn(bad), a == Access::File ? fileCode : imageCode)) << section.name;
            EXPECT_EQ(o.bytes(ok), encode(words({1, 2}), kHost));
            EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), -1);
        }
        ObjectBuilder b(GetParam());
        size_t hash = b.add({.name = ".hash", .type = SHT_HASH, .content = words({1, 2})});
        Bytes file = b.build(), lost = file;
        file[50] = file[51] = 0;  // e_shstrndx: no section-name table
        patchShdr(lost, GetParam(), hash, kName, 0x7f000000);
        Opened o(file, a), p(lost, a);
        tamo_elf_errno();
        if (GetParam() == kHost) {
            EXPECT_EQ(o.bytes(hash), encode(words({1, 2}), kHost));
            EXPECT_EQ(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), 0);
            EXPECT_TRUE(failed(o.scn(0), 42)) << "section 0 was never asked for";
        } else {
            EXPECT_TRUE(failed(o.scn(hash), 25));
            EXPECT_TRUE(failed(p.scn(hash), 68));
        }
    }
}

TEST(Malformed, StringsEndInsideTheLibrarysMemory) {
    // A string table whose last string has no NUL.
    const std::string strings("\0abc\0tail", 9);
    ObjectBuilder b(Order::Little);
    size_t strs = b.add({.name = ".strtab", .type = SHT_STRTAB, .content = raw(strings)});
    Bytes file = b.build();
    Opened viaFile(file, Access::File);
    EXPECT_STREQ(tamo_elf_strptr(viaFile.elf(), strs, 5), "tail") << "the buffer carries a NUL past its end";
    EXPECT_STREQ(tamo_elf_strptr(viaFile.elf(), strs, 9), "");
    // In an image that ends with that string, the lookup is refused.
    patchShdr(file, Order::Little, strs, kOffset, static_cast<uint32_t>(file.size()));
    file.insert(file.end(), strings.begin(), strings.end());
    Opened viaImage(file, Access::Image);
    EXPECT_STREQ(tamo_elf_strptr(viaImage.elf(), strs, 1), "abc");
    tamo_elf_errno();
    EXPECT_TRUE(failed(tamo_elf_strptr(viaImage.elf(), strs, 5), 37));
    EXPECT_EQ(tamo_elf_strptr(viaImage.elf(), strs, 9), nullptr);
}

TEST(Malformed, PlacedBytesAreBounded) {
    // 200 headers all naming a large section: placed bytes stay within a multiple of
    // the input's size. A refused section (type 25) over the same bytes fails with its
    // own code every time and takes nothing from that budget.
    ObjectBuilder b(Order::Big);
    size_t big = b.add({.name = ".big", .type = SHT_HASH, .align = 4, .content = Fields(16384, Field{4, 0x01020304})});
    b.build();
    for (int i = 0; i < 200; ++i) b.add({.name = ".o", .type = SHT_HASH, .forceOffset = 64, .forceSize = 65536});
    size_t bad = b.add({.name = ".bad", .type = 25, .forceOffset = b.offsetOf(big), .forceSize = 65536});
    const Bytes file = b.build();
    for (Access a : {Access::File, Access::Image}) {
        Opened o(file, a);
        for (int i = 0; i < 40; ++i) ASSERT_TRUE(failed(o.scn(bad), 28)) << name(a) << " attempt " << i;
        EXPECT_EQ(o.bytes(big).size(), 65536u) << name(a) << ": " << tamo_elf_errmsg(tamo_elf_errno());
        EXPECT_TRUE(failed(tamo_elf_cntl(o.elf(), ELF_C_FDREAD), 4, -1)) << name(a);
    }
}

TEST_P(Image, ClaimedSectionsCostNothingUntilAskedFor) {
    // Members that are a bare header claiming 65,535 sections: opening all of
    // them at once holds memory in proportion to the archive, not to the claims.
    ObjectBuilder ob(GetParam());
    ob.shoffOverride = 52;
    ob.shnumOverride = 65535;
    Bytes header = ob.build();
    header.resize(52);
    constexpr size_t kMembers = 64;
    ArchiveBuilder ar(GetParam());
    for (size_t i = 0; i < kMembers; ++i) ar.addMember({.name = "m.o", .data = header});
    Opened archive(ar.build(), Access::File);  // ends the members with it
    ASSERT_NE(archive.elf(), nullptr);
    const long before = heldByNew();
    std::vector<Elf*> members;
    Elf_Cmd cmd = ELF_C_READ;
    for (Elf* m; (m = tamo_elf_begin(archive.fd(), cmd, archive.elf())) != nullptr; cmd = tamo_elf_next(m))
        members.push_back(m);
    ASSERT_EQ(members.size(), kMembers);
    EXPECT_LT(heldByNew() - before, static_cast<long>(kMembers * 4096));
    // The claimed sections are there, as zero headers.
    Elf_Scn* last = tamo_elf_getscn(members[0], 65534);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(tamo_elf32_getshdr(last)->sh_type, 0u);
    // Every claimed section of two members in turn: the second reuses the
    // descriptor blocks of the first, and a handle of the first that ended
    // is refused.
    for (Elf* m : {members[1], members[2]}) {
        Elf_Scn* scn = nullptr;
        while (Elf_Scn* next = tamo_elf_nextscn(m, scn)) scn = next;
        ASSERT_EQ(tamo_elf_ndxscn(scn), 65534u);
        EXPECT_EQ(tamo_elf_end(m), 0);
        EXPECT_TRUE(failed(tamo_elf_ndxscn(scn), 71));
    }
}

TEST_P(Image, EmptySectionsNeedNoBytes) {
    // An empty section placed past the end of its input reads as an empty block, in a
    // file, an image and an archive member; one placed at the end of an image is in it.
    const size_t empty = 1, after = 2;
    auto build = [](int64_t offset) {  // the same size wherever the empty section points
        ObjectBuilder b(GetParam());
        b.add({.name = ".empty", .type = SHT_PROGBITS, .forceOffset = offset, .forceSize = 0});
        b.add({.name = ".hash", .type = SHT_HASH, .content = words({3})});
        return b.build();
    };
    const Bytes file = build(0x7ffffff0), ending = build(static_cast<int64_t>(file.size()));
    Opened atEnd(ending, Access::Image);
    Elf_Data* d = atEnd.data(empty);
    EXPECT_EQ(d ? d->d_buf : nullptr, atEnd.image()->data() + ending.size());
    auto check = [&](Elf* elf, const char* how) {
        SCOPED_TRACE(how);
        Elf_Scn* scn = tamo_elf_getscn(elf, empty);
        ASSERT_NE(scn, nullptr) << tamo_elf_errmsg(tamo_elf_errno());
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->d_size, 0u);
        EXPECT_EQ(tamo_elf_nextscn(elf, scn), tamo_elf_getscn(elf, after));
        EXPECT_EQ(tamo_elf_cntl(elf, ELF_C_FDREAD), 0);
    };
    for (Access a : {Access::File, Access::Image}) check(Opened(file, a).elf(), name(a));
    ArchiveBuilder ar(GetParam());
    ar.addMember({.name = "a.o", .data = file});
    Opened archive(ar.build(), Access::File);
    ASSERT_NE(archive.elf(), nullptr);
    check(tamo_elf_begin(archive.fd(), ELF_C_READ, archive.elf()), "member");
}

INSTANTIATE_TEST_SUITE_P(ByOrder, Image, ::testing::Values(Order::Little, Order::Big),
                         [](const auto& info) { return std::string(name(info.param)); });

}  // namespace
