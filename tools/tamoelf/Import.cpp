#include <cstring>

#include "Archive.h"
#include "Interop.h"
#include "StandardElf.h"

namespace tool {

Bytes importObject(const Bytes& object, const std::string& name) {
    RawObject o = readRawObject(object, ObjectFormat::Standard, name);
    resizeSymbols(o, ObjectFormat::Tamo);

    // Every section's bytes go out as they are (swap behaviour 4): they are
    // in the file's order already. The library lays the object out and
    // converts the headers.
    MemoryFile out;
    Descriptor d{tamo_elf_begin(out.fd(), ELF_C_WRITE, nullptr)};
    Elf32_Ehdr* h = d.elf ? tamo_elf32_newehdr(d.elf) : nullptr;
    if (!h) throw Failure(name + ": " + takeLibraryError().describe());
    const Elf32_Ehdr& in = o.header;
    std::memcpy(h->e_ident, in.e_ident, EI_NIDENT);
    h->e_type = in.e_type;
    h->e_machine = in.e_machine;
    h->e_version = in.e_version;
    h->e_entry = in.e_entry;
    h->e_flags = in.e_flags;
    for (size_t i = 1; i < o.sections.size(); ++i) {
        const RawSection& s = o.sections[i];
        Elf_Scn* scn = tamo_elf_newscn(d.elf);
        Elf32_Shdr* sh = scn ? tamo_elf32_getshdr(scn) : nullptr;
        if (!sh) throw Failure(name + ": section [" + std::to_string(i) + "]: " + takeLibraryError().describe());
        *sh = s.header;
        sh->sh_offset = 0;
        sh->sh_extra = 0;
        tamo_elf_setswapbehavior(scn, 4);
        if (s.header.sh_type == SHT_NOBITS || s.header.sh_type == SHT_NULL || s.bytes.empty()) continue;
        Elf_Data* data = tamo_elf_newdata(scn);
        if (!data) throw Failure(name + ": section [" + std::to_string(i) + "]: " + takeLibraryError().describe());
        data->d_buf = const_cast<uint8_t*>(s.bytes.data());
        data->d_size = s.bytes.size();
        data->d_type = ELF_T_BYTE;
        data->d_align = s.header.sh_addralign ? s.header.sh_addralign : 1;
    }
    // Every new section resets EI_DATA to the host's order: set it last.
    h = tamo_elf32_getehdr(d.elf);
    std::memcpy(h->e_ident, in.e_ident, EI_NIDENT);
    h->e_shstrndx = in.e_shstrndx;
    if (tamo_elf_update(d.elf, ELF_C_WRITE) < 0) throw Failure(name + ": " + takeLibraryError().describe());
    tamo_elf_end(d.elf);
    d.elf = nullptr;
    return out.contents();
}

void importFile(const std::string& in, const std::string& out, Notes& notes) {
    const Bytes file = readFile(in);
    Bytes result;
    if (isArchive(file)) throw Failure(in + ": already an archive of this format");
    if (!isGnuArchive(file) && !(file.size() >= 8 && std::memcmp(file.data(), "!<thin>\n", 8) == 0)) {
        result = importObject(file, in);
    } else {
        GnuArchive g = parseGnuArchive(file, in);
        std::vector<Bytes> data;
        unsigned order = 0;
        std::string first;
        for (const ArchiveMember& m : g.layout.members) {
            const std::string name = in + "(" + m.name + ")";
            Bytes bytes(file.begin() + m.dataOffset, file.begin() + m.dataOffset + m.size);
            const unsigned memberOrder = bytes.size() > EI_DATA && std::memcmp(bytes.data(), "\177ELF", 4) == 0
                                             ? bytes[EI_DATA]
                                             : 0;
            if (memberOrder) {
                if (order && memberOrder != order)
                    throw Failure(name + ": of the other byte order than " + first +
                                  "; an archive of this format holds members of one order");
                if (!order) first = m.name;
                order = memberOrder;
                bytes = importObject(bytes, name);
            } else {
                notes.push_back(name + ": not an ELF object: copied as it stands");
            }
            data.push_back(std::move(bytes));
        }
        result = writeArchive(g.layout, order == ELFDATA2MSB, data, g.hasSymbolTable ? &g.symbols : nullptr);
    }
    OutputFile output(out);
    output.write(result);
    output.commit();
}

}  // namespace tool
