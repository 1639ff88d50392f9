// The working-version gate, in a process of its own: nothing may have set
// the version before these tests.
#include <gtest/gtest.h>

#include "Builder.h"
#include "tamoelf.h"

TEST(VersionGate, OrderOfTheGate) {
    // Before any version is set, tamo_elf_begin refuses every call, whatever
    // the file id or command.
    EXPECT_EQ(tamo_elf_version(EV_NONE), 1u);
    EXPECT_EQ(tamo_elf_begin(-1, ELF_C_READ, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 80);
    EXPECT_EQ(tamo_elf_begin(0, ELF_C_NULL, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 80);

    // tamo_elf_memory and tamo_elf32_fsize do not need it.
    testkit::ObjectBuilder b(testkit::Order::Little);
    testkit::Bytes image = b.build();
    Elf* elf = tamo_elf_memory(reinterpret_cast<char*>(image.data()), image.size());
    ASSERT_NE(elf, nullptr);
    EXPECT_EQ(tamo_elf_end(elf), 0);
    EXPECT_EQ(tamo_elf32_fsize(ELF_T_SYM, 2, 1), 40u);

    // An unknown version is refused and changes nothing.
    EXPECT_EQ(tamo_elf_version(2), 0u);
    EXPECT_EQ(tamo_elf_errno(), 54);
    EXPECT_EQ(tamo_elf_begin(-1, ELF_C_READ, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 80);

    // Setting it: the previous version reads 1 even though none was set.
    EXPECT_EQ(tamo_elf_version(EV_CURRENT), 1u);
    EXPECT_EQ(tamo_elf_version(EV_CURRENT), 1u);
    EXPECT_EQ(tamo_elf_version(EV_NONE), 1u);

    // Now the checks after the gate run: a null command returns null without
    // a code, file id -1 gives 1.
    EXPECT_EQ(tamo_elf_begin(-1, ELF_C_NULL, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 0);
    EXPECT_EQ(tamo_elf_begin(-1, ELF_C_READ, nullptr), nullptr);
    EXPECT_EQ(tamo_elf_errno(), 1);
}
