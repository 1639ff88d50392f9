// The tool's interoperation on fuzzed input. The first byte chooses:
//  - 0 to 3: a standard ELF32 object for import. When it is imported, the
//    result reads back (raw and through the library) with every section's
//    bytes, symbols widened; exporting it gives the same sections again.
//  - 4: a GNU archive for import (parsing and the archive writer).
//  - 5 on: a section for one of the tool's walkers (the byte picks the layout
//    and the byte order). Converting twice gives the input again: the walks
//    decide only by host-order values, so this holds for malformed input.
// Buffers have exactly their data's size, so that the sanitizers see any
// step outside them.
#include <cstdint>
#include <cstring>
#include <memory>

#include "Archive.h"
#include "FuzzCommon.h"
#include "Interop.h"
#include "StandardElf.h"
#include "Walkers.h"

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

constexpr tool::Layout kWalked[] = {
    tool::Layout::Words,    tool::Layout::Note,       tool::Layout::Aranges, tool::Layout::Pubnames,
    tool::Layout::GnuPubnames, tool::Layout::Loc,     tool::Layout::Frame,   tool::Layout::EhFrame,
    tool::Layout::StrOffsets, tool::Layout::Addr,     tool::Layout::Rnglists, tool::Layout::Loclists,
    tool::Layout::Names,    tool::Layout::Macro,
};

void walker(uint8_t choice, const uint8_t* data, size_t size) {
    const tool::Layout layout = kWalked[(choice >> 1) % std::size(kWalked)];
    const bool fromBig = choice & 1;
    std::unique_ptr<uint8_t[]> b(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(b.get(), data, size);
    tool::convertSection(layout, b.get(), size, fromBig);
    tool::convertSection(layout, b.get(), size, !fromBig);
    check(size == 0 || std::memcmp(b.get(), data, size) == 0);
}

bool sameSections(const tool::RawObject& a, const tool::RawObject& b, bool widened) {
    // (Section 0 alone is no table: the library writes none.)
    if (a.sections.size() != b.sections.size() && a.sections.size() + b.sections.size() > 1) return false;
    for (size_t i = 1; i < a.sections.size(); ++i) {
        const tool::RawSection& x = a.sections[i];
        const tool::RawSection& y = b.sections[i];
        if (x.header.sh_type != y.header.sh_type || x.header.sh_name != y.header.sh_name ||
            x.header.sh_flags != y.header.sh_flags || x.header.sh_link != y.header.sh_link ||
            x.header.sh_info != y.header.sh_info)
            return false;
        if (x.header.sh_type == SHT_SYMTAB || x.header.sh_type == SHT_DYNSYM) {
            const size_t from = widened ? 16 : 20, to = widened ? 20 : 16;
            if (y.bytes.size() != x.bytes.size() / from * to) return false;
            for (size_t k = 0; k < x.bytes.size() / from; ++k)
                if (std::memcmp(&x.bytes[k * from], &y.bytes[k * to], 16) != 0) return false;
        } else if (x.bytes != y.bytes) {
            return false;
        }
    }
    return true;
}

void importObject(const uint8_t* data, size_t size) {
    const tool::Bytes in(data, data + size);
    tool::RawObject original;
    tool::Bytes imported;
    try {
        original = tool::readRawObject(in, tool::ObjectFormat::Standard, "in");
        imported = tool::importObject(in, "in");
    } catch (const tool::Failure&) {
        return;  // refused, with a message
    }
    // What was imported reads back raw and through the library.
    const tool::RawObject back = tool::readRawObject(imported, tool::ObjectFormat::Tamo, "imported");
    check(back.big == original.big && sameSections(original, back, true));
    tool::MemoryFile file(imported);
    tool::Descriptor d{tamo_elf_begin(file.fd(), ELF_C_READ, nullptr)};
    check(d.elf && tamo_elf32_getehdr(d.elf));
    for (size_t i = 1; i < back.sections.size(); ++i) {
        // The library may refuse a section (a type it has no data type for,
        // a name it cannot find); one it reads has the header imported.
        Elf_Scn* scn = tamo_elf_getscn(d.elf, i);
        if (!scn) continue;
        const Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        check(sh->sh_name == back.sections[i].header.sh_name && sh->sh_link == back.sections[i].header.sh_link);
        tamo_elf_getdata(scn, nullptr);  // its data as the library converts them
    }
    tamo_elf_errno();
    // Exported again: the sections of the input.
    tool::Notes notes;
    const tool::Bytes exported = tool::exportObject(imported, "imported", true, notes);
    check(sameSections(back, tool::readRawObject(exported, tool::ObjectFormat::Standard, "exported"), false));
}

void importArchive(const uint8_t* data, size_t size) {
    const tool::Bytes in(data, data + size);
    try {
        const tool::GnuArchive g = tool::parseGnuArchive(in, "in");
        std::vector<tool::Bytes> members;
        for (const tool::ArchiveMember& m : g.layout.members)
            members.emplace_back(in.begin() + m.dataOffset, in.begin() + m.dataOffset + m.size);
        const tool::Bytes out = tool::writeArchive(g.layout, true, members, g.hasSymbolTable ? &g.symbols : nullptr);
        // Written in this format, it reads back with the same members.
        const tool::ArchiveLayout again = tool::parseArchive(out);
        check(again.members.size() == g.layout.members.size());
        for (size_t i = 0; i < members.size(); ++i) check(again.members[i].name == g.layout.members[i].name);
    } catch (const tool::Failure&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::once();
    if (size < 1) return 0;
    const uint8_t choice = data[0];
    ++data;
    --size;
    if (choice < 4)
        importObject(data, size);
    else if (choice == 4)
        importArchive(data, size);
    else
        walker(static_cast<uint8_t>(choice - 5), data, size);
    return 0;
}
