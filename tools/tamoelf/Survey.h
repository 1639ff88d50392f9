// What the tool reads of a file, through the library's interface: an
// object (header, sections, symbols, relocations, COFF records, DWARF unit
// summaries) or an archive (its members, its symbol table, each member's
// object), and every problem met on the way. Reading is best effort: it goes
// on past a problem wherever it can and records what it skipped.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Archive.h"
#include "Common.h"
#include "Walkers.h"

namespace tool {

struct Problem {
    std::string where;    // "section [3] .rela.text", "member m.o at offset 68", ...
    int code = 0;         // the library's code; 0 for a finding of the tool's own
    std::string message;  // the library's message, or the tool's text
    std::string context;  // the library's context text
    std::string note;     // what was done about it
};

struct Section {
    size_t index = 0;
    std::string name;
    Elf32_Shdr header{};
    bool read = false;  // its data could be had
    Elf_Type type = ELF_T_BYTE;
    Layout layout = Layout::NoOrder;  // how its bytes change byte order
    Bytes data;  // as the library hands it out (host order)
};

struct Symbol {
    std::string table;
    size_t index = 0;
    std::string name;
    uint32_t value = 0, size = 0, extra = 0;
    uint8_t info = 0, other = 0;
    uint16_t shndx = 0;
    std::string section;  // the section it is defined in, or UND/ABS/COM
};

struct Relocation {
    std::string section;
    bool rela = true;
    uint32_t offset = 0, info = 0;
    int32_t addend = 0;
    std::string symbol;
};

struct CoffLine {
    std::string section;
    uint32_t address = 0;  // or the symbol index when line is 0
    uint16_t line = 0;
};

struct CoffEntry {
    std::string section;
    size_t index = 0;
    bool auxiliary = false;
    std::string name;
    uint32_t value = 0;
    int16_t section_number = 0;
    uint16_t type = 0;
    uint8_t storage_class = 0, aux_count = 0;
    Bytes bytes;  // an auxiliary entry as it is
};

struct DwarfUnit {
    std::string section;
    bool line = false;  // a line program, else a unit of .debug_info
    uint32_t offset = 0, length = 0;
    unsigned version = 0;
    unsigned unit_type = 0;
    uint32_t abbrev_offset = 0, header_length = 0;
    unsigned address_size = 0;
    std::string note;  // why it could not be summed up
};

struct Object {
    std::string file;
    Elf32_Ehdr header{};
    bool standard = false;  // 40-byte section headers and 16-byte symbols
    uint64_t size = 0;      // of the file or member
    std::vector<Section> sections;
    std::vector<Symbol> symbols;
    std::vector<Relocation> relocations;
    std::vector<CoffLine> lines;
    std::vector<CoffEntry> coff;
    std::vector<DwarfUnit> dwarf;
    std::vector<Problem> problems;
    std::vector<Problem> notes;  // worth knowing, not wrong: sections of layouts the tool does not know

    const Section* section(size_t index) const;
    // Gives back everything but the header, size, problems and notes.
    void dropContent();
};

struct Member {
    ArchiveMember layout;
    std::string name;
    int32_t date = 0, uid = 0, gid = 0, mode = 0, size = 0;
    bool isObject = false;
    Object object;
};

struct ArchiveSymbolEntry {
    std::string name;
    uint32_t offset = 0;
    std::string member;
};

struct Archive {
    std::string file;
    bool big = false;
    std::vector<Member> members;
    bool hasSymbolTable = false;
    std::vector<ArchiveSymbolEntry> symbols;
    std::vector<Problem> problems;
};

struct Survey {
    bool archive = false;
    Object object;
    Archive ar;
    bool clean() const;
};

// What a survey keeps of each archive member's object once read:
// everything, or only its problems and notes, so that an archive is read
// holding one member's sections at a time however many members it has.
enum class Keep { All, Problems };

// Called as an archive is read: `archive` once its own parts are (magic,
// members' headers, symbol table, its problems), before any member's
// object; `member` for each member in turn, once its object (if it is
// one) has been read, before Keep applies.
struct SurveyEvents {
    std::function<void(const Archive&)> archive;
    std::function<void(const Member&)> member;
};

// Reads a file (object or archive). `convert` also converts every section's
// data to the file's order and back and checks it comes back (for check).
// Throws Failure only when the file cannot be opened or is neither.
Survey surveyFile(const std::string& path, bool convert = false, Keep keep = Keep::All,
                  const SurveyEvents& events = {});

// Reads an object through a descriptor; `bytes` are the object's own bytes
// (for the parts the library does not interpret: headers of sections it
// refuses, 16-byte symbols of standard objects).
Object surveyObject(Elf* elf, const std::string& file, const Bytes& bytes, bool convert);

// Names used in listings.
std::string sectionTypeName(uint32_t type);
std::string machineName(unsigned machine);

}  // namespace tool
