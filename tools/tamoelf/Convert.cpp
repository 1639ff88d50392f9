#include "Convert.h"

#include <fcntl.h>

#include <cstring>
#include <map>

#include "Archive.h"
#include "Walkers.h"

namespace tool {

namespace {

const char* orderWord(unsigned order) {
    return order == ELFDATA2MSB ? "big" : "little";
}

}  // namespace

void convertWalkedSections(Elf* elf, bool fromBig, const std::string& name, Notes& notes) {
    const Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
    for (size_t i = 1; h && i < h->e_shnum; ++i) {
        Elf_Scn* scn = tamo_elf_getscn(elf, i);
        Elf32_Shdr* sh = scn ? tamo_elf32_getshdr(scn) : nullptr;
        const char* n = sh ? tamo_elf_strptr(elf, h->e_shstrndx, sh->sh_name) : nullptr;
        if (!n) {
            clearLibraryError();
            continue;
        }
        const std::string where = name + ": section [" + std::to_string(i) + "] " + n;
        const Layout layout = layoutOf(n, sh->sh_type, sh->sh_flags);
        if (layout == Layout::Unknown) {
            notes.push_back(where + ": a layout the tool does not know; copied as it stands");
            continue;
        }
        if (!toolConverts(layout)) continue;
        Elf_Data* data = tamo_elf_getdata(scn, nullptr);
        if (!data || !data->d_buf || data->d_size == 0) {
            clearLibraryError();
            continue;
        }
        auto* bytes = static_cast<uint8_t*>(data->d_buf);
        if (layout == Layout::Types) {
            Elf32_Shdr extent = *sh;
            extent.sh_size = static_cast<Elf32_Word>(data->d_size);
            const bool srcNative = fromBig == (kHostOrder == ELFDATA2MSB);
            endian_swap_dwarf_section(".debug_types", static_cast<char*>(data->d_buf),
                                      static_cast<char*>(data->d_buf), elf, &extent, srcNative);
        } else {
            for (const WalkProblem& p : convertSection(layout, bytes, data->d_size, fromBig))
                notes.push_back(where + ": at offset " + std::to_string(p.offset) + ": " + p.what);
        }
        tamo_elf_flagdata(data, ELF_C_SET, ELF_F_DIRTY);
    }
    clearLibraryError();
}

unsigned byteOrderOf(const Bytes& f) {
    if (isArchive(f)) return std::memcmp(f.data(), "!<sola>\n", 8) == 0 ? ELFDATA2MSB : ELFDATA2LSB;
    if (f.size() < 22 || std::memcmp(f.data(), "\177ELF", 4) != 0) return 0;
    // As the library does: from the first two bytes of e_version.
    return static_cast<int8_t>(f[20]) + static_cast<int8_t>(f[21]) == 0 ? ELFDATA2MSB : ELFDATA2LSB;
}

Bytes convertObject(const Bytes& object, unsigned order, const std::string& name, Notes& notes) {
    const unsigned from = byteOrderOf(object);
    if (!from || isArchive(object)) throw Failure(name + ": not an ELF object");
    if (object.size() >= 48 && load16(&object[46], from == ELFDATA2MSB) == 40)
        throw Failure(name +
                      ": a standard ELF32 object (40-byte section headers, 16-byte symbols): bring it in "
                      "with `tamoelf import` first");
    if (from == order) {
        notes.push_back(name + ": already " + orderWord(order) + "-endian: copied");
        return object;
    }
    MemoryFile work(object);
    Descriptor d{tamo_elf_begin(work.fd(), ELF_C_RDWR, nullptr)};
    if (!d.elf) throw Failure(name + ": " + takeLibraryError().describe());
    tamo_elf_setreadswapcontroller(d.elf, toolReadSwapController);
    Elf32_Ehdr* h = tamo_elf32_getehdr(d.elf);
    const size_t count = h->e_shnum;

    // Every section is read (converted to host order); one the library
    // refuses is carried over as it stands.
    for (size_t i = 1; i < count; ++i) {
        Elf_Scn* scn = tamo_elf_getscn(d.elf, i);
        if (scn) continue;
        const LibraryError e = takeLibraryError();
        notes.push_back(name + ": section [" + std::to_string(i) + "]: " + e.describe() +
                        "; copied as it stands, in the input's byte order");
    }
    clearLibraryError();

    convertWalkedSections(d.elf, from == ELFDATA2MSB, name, notes);

    // COFF records take 8 and 20 bytes in big-endian files, 6 and 18 in
    // little-endian ones: those sections change size in place.
    for (size_t i = 1; i < count; ++i) {
        Elf_Scn* scn = tamo_elf_getscn(d.elf, i);
        if (!scn) {
            clearLibraryError();
            continue;
        }
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        const char* n = tamo_elf_strptr(d.elf, h->e_shstrndx, sh->sh_name);
        if (!n || sh->sh_type != 15) continue;
        const std::string s = n;
        const bool lines = s.starts_with(".lnno."), symbols = s == ".coff.SDB";
        if (!lines && !symbols) continue;
        const uint32_t mem = lines ? 6 : 18;
        const uint32_t file = mem + (order == ELFDATA2MSB ? 2 : 0);
        sh->sh_size = sh->sh_size / mem * file + sh->sh_size % mem;
    }
    clearLibraryError();

    h->e_ident[EI_DATA] = static_cast<unsigned char>(order);
    tamo_elf_flagelf(d.elf, ELF_C_SET, ELF_F_DIRTY | ELF_F_LAYOUT);
    if (tamo_elf_update(d.elf, ELF_C_WRITE) < 0) {
        const LibraryError e = takeLibraryError();
        if (e.code != 30 && e.code != 43) throw Failure(name + ": " + e.describe());
        // Sections that grew no longer fit between their neighbours.
        tamo_elf_flagelf(d.elf, ELF_C_CLR, ELF_F_LAYOUT);
        tamo_elf_flagelf(d.elf, ELF_C_SET, ELF_F_DIRTY);
        if (tamo_elf_update(d.elf, ELF_C_WRITE) < 0) throw Failure(name + ": " + takeLibraryError().describe());
        notes.push_back(name + ": sections grew and no longer fit in place (" + e.describe() + "): laid out afresh");
    }
    return work.contents();
}

void convertFile(const std::string& in, const std::string& out, unsigned order, Notes& notes) {
    const Bytes file = readFile(in);
    Bytes result;
    if (!isArchive(file)) {
        result = convertObject(file, order, in, notes);
    } else {
        const ArchiveLayout layout = parseArchive(file);
        // The symbol table as the library reads it: names and the offsets
        // of their members' headers.
        std::vector<ArchiveSymbol> symbols;
        if (layout.hasSymbolTable) {
            const int fd = tamo_elf_open(in.c_str(), O_RDONLY, 0);
            if (fd < 0) throw Failure(in + ": " + takeLibraryError().describe());
            Elf* ar = tamo_elf_begin(fd, ELF_C_READ, nullptr);
            if (!ar) {
                tamo_elf_close(fd);
                throw Failure(in + ": " + takeLibraryError().describe());
            }
            std::map<uint32_t, uint32_t> byOffset;
            for (size_t i = 0; i < layout.members.size(); ++i)
                byOffset[layout.members[i].headerOffset] = static_cast<uint32_t>(i);
            size_t n = 0;
            const Elf_Arsym* syms = tamo_elf_getarsym(ar, &n);
            std::string missing;
            for (size_t i = 0; syms && i < n; ++i) {
                auto it = byOffset.find(syms[i].as_off);
                if (it == byOffset.end())
                    missing = syms[i].as_name;
                else
                    symbols.push_back({syms[i].as_name, it->second});
            }
            tamo_elf_end(ar);
            tamo_elf_close(fd);
            clearLibraryError();
            if (!missing.empty()) throw Failure(in + ": archive symbol " + missing + " names no member's header");
        }
        std::vector<Bytes> data;
        for (const ArchiveMember& m : layout.members) {
            Bytes bytes(file.begin() + m.dataOffset, file.begin() + m.dataOffset + m.size);
            const std::string name = in + "(" + m.name + ")";
            if (byteOrderOf(bytes) && !isArchive(bytes)) {
                bytes = convertObject(bytes, order, name, notes);
            } else {
                notes.push_back(name + ": not an ELF object: copied as it stands");
            }
            data.push_back(std::move(bytes));
        }
        result = writeArchive(layout, order == ELFDATA2MSB, data, layout.hasSymbolTable ? &symbols : nullptr);
    }
    OutputFile output(out);
    output.write(result);
    output.commit();
}

}  // namespace tool
