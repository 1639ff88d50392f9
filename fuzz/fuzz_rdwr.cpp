// Updating in place: any input, as a file, opened with ELF_C_RDWR; a
// seed-chosen subset of its sections is read, sometimes a data byte or a
// header field changes and the caller's layout is set, and the descriptor
// is written back. A failed update leaves the file as it was and the
// caller's blocks as they were. A written file opens again; every section
// that could be read before can be read after, with the same header and
// (unless it changed) the same data; written once more it is the same file.
#include <algorithm>
#include <bit>

#include "FuzzCommon.h"

namespace {

using fuzz::Bytes;

// Sections looked at, and the limits of what is written: huge section
// tables take the paths small ones take, only a hundred times slower.
constexpr size_t kWalk = 256;
constexpr size_t kMaxSections = 4096;
constexpr off_t kMaxImage = off_t{1} << 20;

struct Rng {
    uint32_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
};

// What a reader gets of one section.
struct Seen {
    bool made = false;      // tamo_elf_getscn gave it
    bool readable = false;  // and a data block
    int code = 0;           // the error code when it was not made
    Elf32_Shdr sh{};
    Bytes data;
    // Converted by its type alone (not COFF, DWARF or types 15 to 19), and
    // without a code: reading hands a block out as it stands when it cannot
    // convert it (a file whose e_version is not 1, for one).
    bool plain = false;
};

Seen see(Elf* elf, size_t i) {
    Seen s;
    const Elf32_Ehdr* h = tamo_elf32_getehdr(elf);
    tamo_elf_errno();
    Elf_Scn* scn = tamo_elf_getscn(elf, i);
    if (!scn) {
        s.code = tamo_elf_errno();
        return s;
    }
    s.made = true;
    s.sh = *tamo_elf32_getshdr(scn);
    if (Elf_Data* d = tamo_elf_getdata(scn, nullptr)) {
        s.readable = true;
        const auto* p = static_cast<const uint8_t*>(d->d_buf);
        if (d->d_size) s.data.assign(p, p + d->d_size);
    }
    const bool clean = tamo_elf_errno() == 0;
    const char* name = i != h->e_shstrndx ? tamo_elf_strptr(elf, h->e_shstrndx, s.sh.sh_name) : "";
    s.plain = clean && (s.sh.sh_type < 15 || s.sh.sh_type > 19) &&
              !(name && (fuzz::coffName(name, s.sh.sh_type) || fuzz::dwarfName(name)));
    tamo_elf_errno();
    return s;
}

// Every section (of the first kWalk) as a new descriptor on fd reads it,
// and the section-name table; false when fd holds no ELF object.
bool look(int fd, Elf32_Ehdr& h, std::vector<Seen>& seen, Seen& names) {
    lseek(fd, 0, SEEK_SET);
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    const bool ok = elf && tamo_elf_kind(elf) == ELF_K_ELF && tamo_elf32_getehdr(elf);
    if (ok) {
        h = *tamo_elf32_getehdr(elf);
        seen.clear();
        for (size_t i = 0; i < std::min<size_t>(h.e_shnum, kWalk); ++i) seen.push_back(see(elf, i));
        names = see(elf, h.e_shstrndx);
    }
    tamo_elf_end(elf);
    tamo_elf_errno();
    return ok;
}

// Section header i of an image the library wrote: 44-byte records at
// e_shoff, in the order e_ident[EI_DATA] names.
Elf32_Shdr writtenShdr(const Bytes& out, size_t i) {
    const bool big = out[EI_DATA] == ELFDATA2MSB;
    auto word = [&](size_t at) {
        uint32_t v = 0;
        for (size_t k = 0; k < 4; ++k) v |= uint32_t{at + k < out.size() ? out[at + k] : uint8_t{0}} << (big ? 24 - 8 * k : 8 * k);
        return v;
    };
    Elf32_Word w[11];
    for (size_t k = 0; k < 11; ++k) w[k] = word(word(32) + sizeof(Elf32_Shdr) * i + 4 * k);
    Elf32_Shdr sh;
    std::memcpy(&sh, w, sizeof sh);
    return sh;
}

Bytes blockBytes(Elf_Scn* scn) {
    Elf_Data* d = tamo_elf_getdata(scn, nullptr);
    if (!d || !d->d_size) return {};
    const auto* p = static_cast<const uint8_t*>(d->d_buf);
    return Bytes(p, p + d->d_size);
}

class RdwrCase {
public:
    RdwrCase(const uint8_t* data, size_t size, uint32_t seed)
        : m_input(data, data + size - 1), m_seed(seed), m_rng{(seed * 0x9e3779b9u + static_cast<uint32_t>(size)) | 1} {}
    ~RdwrCase() {
        if (m_elf) tamo_elf_end(m_elf);
        if (m_fd >= 0) close(m_fd);
    }
    void run(const uint8_t* data, size_t size);

private:
    void change();
    // Whether section i, readable before, must be readable after the write.
    bool mustRead(size_t i) const;
    void compare(size_t i, const Seen& after) const;

    Bytes m_input;
    uint32_t m_seed;
    Rng m_rng;
    int m_fd = -1;
    Elf* m_elf = nullptr;
    Elf32_Ehdr m_h{};
    std::vector<Seen> m_before;
    Seen m_names;
    std::vector<Elf_Scn*> m_read;  // sections the descriptor read
    bool m_layout = false, m_headerChanged = false;
    size_t m_changedScn = SIZE_MAX, m_changedAt = 0;  // the data byte changed
    uint8_t m_changedTo = 0;
};

// A data byte of a read section (not the section-name table), or a field of
// the ELF header or of a read section's header.
void RdwrCase::change() {
    std::vector<size_t> read;
    for (size_t i = 0; i < m_read.size(); ++i)
        if (m_read[i]) read.push_back(i);
    if (read.empty()) return;
    const size_t i = read[m_rng.next() % read.size()];
    Elf_Data* d = tamo_elf_getdata(m_read[i], nullptr);
    if ((m_seed & 0x10) && d && d->d_size && i != m_h.e_shstrndx) {
        m_changedScn = i;
        m_changedAt = m_rng.next() % d->d_size;
        m_changedTo = static_cast<uint8_t>(~static_cast<uint8_t*>(d->d_buf)[m_changedAt]);
        static_cast<uint8_t*>(d->d_buf)[m_changedAt] = m_changedTo;
        tamo_elf_flagdata(d, ELF_C_SET, ELF_F_DIRTY);
    }
    if (m_seed & 0x20) {
        m_headerChanged = true;
        const uint32_t v = m_rng.next();
        const uint32_t value = (v & 0x100) ? v >> 9 : v & 0xff;
        if (v & 0x80) {
            Elf32_Ehdr& h = *tamo_elf32_getehdr(m_elf);
            Elf32_Half* halves[] = {&h.e_type, &h.e_machine, &h.e_phnum, &h.e_shstrndx};
            *halves[(v >> 5) & 3] = static_cast<Elf32_Half>(value);
        } else {
            auto* words = reinterpret_cast<Elf32_Word*>(tamo_elf32_getshdr(m_read[i]));
            const size_t k = (v >> 3) % 11;
            std::memcpy(&words[k], &value, sizeof value);
        }
    }
}

bool RdwrCase::mustRead(size_t i) const {
    const Seen& b = m_before[i];
    if (!b.readable) return false;
    // The null section (sh_name 0) has no room of its own: the library's
    // layout empties it, the caller's does not copy it. In a file of the
    // other byte order, sections need their names.
    const bool foreign = m_h.e_ident[EI_DATA] != (std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB);
    const bool namesGone = m_names.made && m_names.sh.sh_name == 0;
    return !(m_layout && b.sh.sh_name == 0) && !(foreign && i != m_h.e_shstrndx && namesGone);
}

// Section i as read after the write: readable (a file cut to the caller's
// layout may leave less room for overlapping sections: code 4), the same
// header but for what layout decides, the same data.
void RdwrCase::compare(size_t i, const Seen& after) const {
    const Seen& b = m_before[i];
    if (!mustRead(i)) return;
    if (!after.readable) {
        if (m_layout && after.code == 4) return;
        __builtin_trap();  // readable before, not after
    }
    const Elf32_Shdr &x = b.sh, &y = after.sh;
    const bool named = x.sh_name != 0;
    if (x.sh_name != y.sh_name || x.sh_type != y.sh_type || x.sh_flags != y.sh_flags || x.sh_addr != y.sh_addr ||
        x.sh_link != y.sh_link || x.sh_info != y.sh_info || x.sh_extra != y.sh_extra ||
        (named && b.plain && (x.sh_size != y.sh_size || x.sh_entsize != y.sh_entsize)) ||
        (named && m_layout && (x.sh_offset != y.sh_offset || x.sh_addralign != y.sh_addralign)))
        __builtin_trap();  // a header changed on the way
    if (!named || !b.plain) return;
    Bytes want = b.data;
    if (i == m_changedScn) want[m_changedAt] = m_changedTo;
    if (after.data != want) __builtin_trap();  // not the data written
}

void RdwrCase::run(const uint8_t* data, size_t size) {
    m_fd = fuzz::inputFile(data, size);
    if (m_fd < 0 || !look(m_fd, m_h, m_before, m_names) || m_h.e_shnum > kMaxSections) return;
    lseek(m_fd, 0, SEEK_SET);
    m_elf = tamo_elf_begin(m_fd, ELF_C_RDWR, nullptr);
    if (!m_elf || tamo_elf_kind(m_elf) != ELF_K_ELF) return;
    const size_t n = m_h.e_shnum;
    m_read.assign(std::min(n, kWalk), nullptr);
    const uint32_t share = m_seed & 3;  // none, some, most or all sections
    for (size_t i = 0; i < m_read.size(); ++i)
        if (share == 3 || (share && m_rng.next() % 4 < share)) m_read[i] = tamo_elf_getscn(m_elf, i);
    change();
    if (m_seed & 0x40) {
        m_layout = true;
        tamo_elf_flagelf(m_elf, ELF_C_SET, ELF_F_LAYOUT);
    }
    std::vector<Bytes> blocks;
    for (Elf_Scn* scn : m_read) blocks.push_back(scn ? blockBytes(scn) : Bytes{});
    tamo_elf_flagelf(m_elf, ELF_C_SET, ELF_F_DIRTY);
    tamo_elf_errno();
    const off_t laid = tamo_elf_update(m_elf, ELF_C_NULL);
    if (laid > kMaxImage) return;
    const off_t written = tamo_elf_update(m_elf, ELF_C_WRITE);
    for (size_t i = 0; i < m_read.size(); ++i)
        if (m_read[i] && blockBytes(m_read[i]) != blocks[i]) __builtin_trap();  // writing changed a caller's block
    if (written < 0) {
        if (fuzz::fileBytes(m_fd) != m_input) __builtin_trap();  // a failed update changed the file
        return;
    }
    const Bytes out = fuzz::fileBytes(m_fd);
    if (written != laid || out.size() != static_cast<size_t>(written)) __builtin_trap();

    // Written once more, the same file; when nothing was read or changed
    // under the library's layout, that must work.
    const bool untouched = !m_layout && !m_headerChanged && m_changedScn == SIZE_MAX &&
                           std::all_of(m_read.begin(), m_read.end(), [](Elf_Scn* s) { return !s; });
    tamo_elf_flagelf(m_elf, ELF_C_SET, ELF_F_DIRTY);
    const off_t again = tamo_elf_update(m_elf, ELF_C_WRITE);
    // As layout defines it: a null section (sh_name 0) with a block is
    // placed at offset 0 and cannot be written (43). The update
    // reads the section-name table itself, so a null one that could not be
    // read the first time (and was carried over, emptied) has an empty block
    // the second time, and writing once more fails.
    const Elf32_Shdr names = writtenShdr(out, m_h.e_shstrndx);
    const bool nullNames = m_h.e_shstrndx < m_h.e_shnum && names.sh_name == 0 && names.sh_type != SHT_NULL &&
                           names.sh_type != SHT_NOBITS && again < 0 && tamo_elf_errno() == 43;
    if ((again >= 0 || (untouched && !nullNames)) && (again != written || fuzz::fileBytes(m_fd) != out))
        __builtin_trap();

    // The written file through a new descriptor, and the sections this one
    // carried over, read at their new places.
    Elf32_Ehdr h;
    std::vector<Seen> after;
    Seen afterNames;
    if (!look(m_fd, h, after, afterNames)) __builtin_trap();  // the written file does not open
    if (m_headerChanged) return;
    if (h.e_type != m_h.e_type || h.e_machine != m_h.e_machine || h.e_entry != m_h.e_entry ||
        h.e_flags != m_h.e_flags || h.e_phoff != m_h.e_phoff || h.e_phnum != m_h.e_phnum ||
        h.e_shnum != m_h.e_shnum || h.e_shstrndx != m_h.e_shstrndx || h.e_ident[EI_DATA] != m_h.e_ident[EI_DATA])
        __builtin_trap();  // the ELF header changed on the way
    for (size_t i = 0; i < m_before.size(); ++i) {
        compare(i, after[i]);
        if (!m_read[i]) compare(i, see(m_elf, i));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t seed;
    if (!fuzz::start(data, size, seed)) return 0;
    RdwrCase(data, size, seed).run(data, size);
    tamo_elf_errno();
    return 0;
}
