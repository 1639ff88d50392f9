#include "DwarfAbbrev.h"

#include <cstring>

#include "Cursor.h"
#include "DwarfTables.h"
#include "tamoelf.h"

using namespace tamo;

std::vector<std::unique_ptr<CDwarfAbbrevTable>> CDwarfAbbrevTable::s_vTables;
std::unordered_map<uint32_t, size_t> CDwarfAbbrevTable::s_byOffset;

// Both destructors are part of the library's interface: each frees what
// its object owns (a table its abbreviations, an abbreviation its
// specifications and plan).
CDwarfAbbrevEntry::~CDwarfAbbrevEntry() = default;
CDwarfAbbrevTable::~CDwarfAbbrevTable() = default;

void CDwarfAbbrevTable::add(std::unique_ptr<CDwarfAbbrevEntry> entry) {
    // The first abbreviation with a code is the one found.
    const uint32_t code = entry->m_lCode;
    const bool known =
        (code < m_byDenseCode.size() && m_byDenseCode[code]) || (!m_byCode.empty() && m_byCode.count(code));
    if (!known) {
        if (code < 2 * m_vEntries.size() + 64) {
            if (code >= m_byDenseCode.size()) m_byDenseCode.resize(code + 1);
            m_byDenseCode[code] = entry.get();
        } else {
            m_byCode.emplace(code, m_vEntries.size());
        }
    }
    m_vEntries.push_back(std::move(entry));
}

const CDwarfAbbrevEntry* CDwarfAbbrevTable::findSparse(uint32_t code) const {
    auto it = m_byCode.find(code);
    return it == m_byCode.end() ? nullptr : m_vEntries[it->second].get();
}

void CDwarfAbbrevTable::append(std::unique_ptr<CDwarfAbbrevTable> table) {
    s_byOffset.emplace(table->m_lOffset, s_vTables.size());
    s_vTables.push_back(std::move(table));
}

const CDwarfAbbrevTable* CDwarfAbbrevTable::findTable(uint32_t offset) {
    auto it = s_byOffset.find(offset);
    return it == s_byOffset.end() ? nullptr : s_vTables[it->second].get();
}

void CDwarfAbbrevTable::releaseAll() {
    s_vTables.clear();
    s_byOffset.clear();
}

extern "C" void ReadAbbrevTable(Elf* elf) {
    // Everything that can read (and so convert) section data happens before
    // the first table is appended.
    Elf32_Ehdr* ehdr = tamo_elf32_getehdr(elf);
    if (!ehdr) return;
    const size_t names = ehdr->e_shstrndx;
    Elf_Scn* scn = tamo_elf_getscn(elf, 0);
    for (; scn; scn = tamo_elf_nextscn(elf, scn)) {
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        if (!sh) return;
        const char* name = tamo_elf_strptr(elf, names, sh->sh_name);
        if (name && std::strcmp(name, ".debug_abbrev") == 0) break;
    }
    if (!scn) return;
    Elf_Data* data = tamo_elf_getdata(scn, nullptr);
    if (!data || !data->d_buf || data->d_size == 0) return;
    parseAbbrevTables(static_cast<const uint8_t*>(data->d_buf), data->d_size);
}

namespace tamo {

void parseAbbrevTables(const uint8_t* bytes, size_t size) {
    try {
        Cursor c(bytes, size);
        CDwarfAbbrevTable* table = nullptr;
        bool newTable = true;
        while (!c.atEnd()) {
            if (newTable) {
                newTable = false;
                auto t = std::make_unique<CDwarfAbbrevTable>(static_cast<uint32_t>(c.offset()));
                table = t.get();
                CDwarfAbbrevTable::append(std::move(t));
            }
            const uint32_t code = c.uleb();
            if (c.failed()) break;
            if (code == 0) {
                newTable = true;
                continue;
            }
            auto entry = std::make_unique<CDwarfAbbrevEntry>();
            entry->m_lCode = code;
            entry->m_lTag = c.uleb();
            entry->m_bHasChildren = c.uleb() != 0;
            for (;;) {
                CDwarfAttrib a{c.uleb(), 0};
                a.m_lForm = c.uleb();
                // An implicit constant's value follows its form here; the
                // entries in .debug_info hold no bytes for it.
                if (a.m_lName != 0 && a.m_lForm == dwarf::DW_FORM_implicit_const) c.sleb();
                if (c.failed()) break;
                entry->m_vAttribs.push_back(a);
                if (a.m_lName == 0) break;
            }
            // An abbreviation cut off by the end of the data is dropped.
            if (c.failed()) break;
            table->add(std::move(entry));
        }
    } catch (...) {
        // Out of memory while reading: convert without the tables.
        CDwarfAbbrevTable::releaseAll();
    }
}

}  // namespace tamo
