#include <cstring>

#include "Archive.h"
#include "Interop.h"
#include "StandardElf.h"

namespace tool {

Bytes exportObject(const Bytes& object, const std::string& name, bool dropExtra, Notes& notes) {
    RawObject o = readRawObject(object, ObjectFormat::Tamo, name);
    size_t dropped = 0;
    auto lost = [&](const std::string& what, uint32_t value) {
        if (!dropExtra)
            throw Failure(name + ": " + what + " is 0x" + hex(value) +
                          ", which standard ELF cannot hold (--drop-extra drops it)");
        ++dropped;
    };
    for (size_t i = 0; i < o.sections.size(); ++i) {
        const RawSection& s = o.sections[i];
        const std::string section = "section [" + std::to_string(i) + "] " + s.name;
        if (s.header.sh_extra) lost(section + ": sh_extra", s.header.sh_extra);
        if (s.header.sh_type != SHT_SYMTAB && s.header.sh_type != SHT_DYNSYM) continue;
        const Bytes* strings = s.header.sh_link < o.sections.size() ? &o.sections[s.header.sh_link].bytes : nullptr;
        for (size_t k = 0; k + 20 <= s.bytes.size(); k += 20) {
            const uint32_t extra = load32(&s.bytes[k + 16], o.big);
            if (!extra) continue;
            const std::string symbol = strings ? stringIn(*strings, load32(&s.bytes[k], o.big)) : "";
            lost(section + ": symbol " + std::to_string(k / 20) + (symbol.empty() ? "" : " (" + symbol + ")") +
                     ": st_extra",
                 extra);
        }
    }
    if (dropped) notes.push_back(name + ": " + std::to_string(dropped) + " non-zero sh_extra or st_extra dropped");
    resizeSymbols(o, ObjectFormat::Standard);
    return writeStandardObject(o);
}

void exportFile(const std::string& in, const std::string& out, bool dropExtra, Notes& notes) {
    const Bytes file = readFile(in);
    Bytes result;
    if (isGnuArchive(file)) throw Failure(in + ": already a GNU ar archive");
    if (!isArchive(file)) {
        result = exportObject(file, in, dropExtra, notes);
    } else {
        const ArchiveLayout a = parseArchive(file);
        std::vector<ArchiveSymbol> symbols;
        if (a.hasSymbolTable)
            symbols = readSymbolTable(file.data() + a.symbolTable.dataOffset, a.symbolTable.size, a.big, a.members,
                                      in + ": the archive's symbol table");
        std::vector<GnuMember> members;
        for (const ArchiveMember& m : a.members) {
            GnuMember g;
            g.name = m.name;
            g.fixed.assign(m.header.end() - 44, m.header.end());
            g.data.assign(file.begin() + m.dataOffset, file.begin() + m.dataOffset + m.size);
            const std::string name = in + "(" + m.name + ")";
            if (g.data.size() >= 4 && std::memcmp(g.data.data(), "\177ELF", 4) == 0)
                g.data = exportObject(g.data, name, dropExtra, notes);
            else
                notes.push_back(name + ": not an ELF object: copied as it stands");
            members.push_back(std::move(g));
        }
        if (!a.trailing.empty())
            notes.push_back(in + ": " + std::to_string(a.trailing.size()) +
                            " bytes after the last member, too few for a header: dropped");
        result = writeGnuArchive(members, a.hasSymbolTable ? &symbols : nullptr);
    }
    OutputFile output(out);
    output.write(result);
    output.commit();
}

}  // namespace tool
