// tamoelf: show, check and convert 32-bit ELF objects and archives of
// this format (44-byte section headers, 20-byte symbols, "!<elfa>\n" and
// "!<sola>\n" archives), through the tamoelf library, and carry them to and
// from standard ELF32 and GNU ar.
#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>

#include "Convert.h"
#include "Survey.h"
#include "Interop.h"
#include "Walkers.h"
#include "Print.h"

#ifndef TAMOELF_VERSION
#define TAMOELF_VERSION "unknown"
#endif

namespace {

using namespace tool;

int info(const std::vector<std::string>& files, bool asJson) {
    int status = 0;
    // An archive is printed as its members are read, each member's object
    // given back once printed.
    JsonPrinter json(std::cout, files.size() != 1);
    const SurveyEvents text{[](const Archive& a) { printArchiveHead(std::cout, a); },
                            [](const Member& m) { printMember(std::cout, m); }};
    for (const std::string& f : files) {
        try {
            const Survey r = surveyFile(f, false, Keep::Problems, asJson ? json.events() : text);
            if (asJson) {
                json.file(r);
            } else {
                if (!r.archive) printText(std::cout, r);
                std::cout.flush();
            }
            if (!r.clean()) {
                status = 1;
                if (!asJson) {
                    std::cout << "\nProblems:\n";
                    printProblems(std::cout, r);
                }
            }
        } catch (const Failure& e) {
            std::cerr << "tamoelf: " << e.what() << "\n";
            status = 1;
        }
        if (!asJson && &f != &files.back()) std::cout << "\n";
    }
    if (asJson) json.finish();
    return status;
}

int check(const std::vector<std::string>& files) {
    int status = 0;
    for (const std::string& f : files) {
        try {
            const Survey r = surveyFile(f, /*convert=*/true, Keep::Problems);
            printNotes(std::cout, r);
            if (printProblems(std::cout, r) == 0)
                std::cout << f << ": clean\n";
            else
                status = 1;
        } catch (const Failure& e) {
            std::cerr << "tamoelf: " << e.what() << "\n";
            status = 1;
        }
    }
    return status;
}

// Runs a command that writes a file, then prints what it noted.
template <class Command>
int writing(Command command) {
    Notes notes;
    command(notes);
    for (const std::string& n : notes) std::cerr << "tamoelf: " << n << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    CLI::App app{
        "Show, check and convert 32-bit ELF objects and archives of this format (44-byte section "
        "headers, 20-byte symbols, \"!<elfa>\"/\"!<sola>\" archives), in either byte order, and carry them to and "
        "from standard ELF32 objects and GNU ar archives."};
    app.set_version_flag("--version", std::string("tamoelf ") + TAMOELF_VERSION);
    app.require_subcommand(1);

    std::vector<std::string> infoFiles;
    bool asJson = false;
    CLI::App* infoCmd = app.add_subcommand(
        "info",
        "List an object's ELF header, sections, symbols, relocations, COFF records and DWARF units (readelf -h -S -s "
        "-r style), or an archive's members and symbol table and then each member's object. Exits 1 when anything "
        "could not be read (the problems are listed after what could be).");
    infoCmd->add_option("FILE", infoFiles, "objects or archives")->required()->check(CLI::ExistingFile);
    infoCmd->add_flag("--json", asJson, "print one JSON document (an array for several files)");

    std::vector<std::string> checkFiles;
    CLI::App* checkCmd = app.add_subcommand(
        "check",
        "Read every section and member, convert every section's data to the other byte order and back, and report "
        "each problem with the library's code, message and context, the file and the place. Goes on past problems "
        "where it can; exits 0 only when every file is clean.");
    checkCmd->add_option("FILE", checkFiles, "objects or archives")->required()->check(CLI::ExistingFile);

    std::string in, out, to;
    CLI::App* convertCmd = app.add_subcommand(
        "convert",
        std::string("Rewrite an object or archive in another byte order: through the library, the header, section "
                    "headers, symbols, relocations and every record type, COFF debug sections, .debug_info and "
                    ".debug_line; by the tool's own walkers, ") +
            walkedSectionList() +
            ". Code and data bytes are copied (their layout is the program's); sections of a layout the tool does "
            "not know are copied and named. The layout is kept (every section at its offset, gap bytes as "
        "they were), so converting twice gives the input back byte for byte, except: the two padding bytes of each "
        "big-endian COFF line-number or symbol record (written as zeros), line-number relocation offsets that are "
        "not whole records (rounded down), and sections the library cannot read (copied as they stand, in the "
        "input's byte order; each is named). COFF records take 8 and 20 bytes in big-endian files, 6 and 18 in "
        "little-endian ones: where a growing COFF section no longer fits before the next section, the object is "
        "laid out afresh (and said so), and converting back keeps the new layout. Archives get the other magic and "
        "their symbol table in the other "
        "order. The output is written beside OUT and renamed, so a failure leaves none.");
    convertCmd->add_option("--to", to, "the byte order to write")
        ->required()
        ->check(CLI::IsMember({"big", "little", "host"}));
    convertCmd->add_option("IN", in, "object or archive")->required()->check(CLI::ExistingFile);
    convertCmd->add_option("OUT", out, "where the converted file goes")->required();

    std::string importIn, importOut;
    CLI::App* importCmd = app.add_subcommand(
        "import",
        "Bring a standard ELF32 relocatable object (40-byte section headers, 16-byte symbols) of either byte order "
        "into this format, in the same order: 44-byte section headers (sh_extra 0), 20-byte symbols (st_extra 0), "
        "every other section's bytes, indices, names, flags and links as they were. A GNU ar archive becomes an "
        "archive of this format whose magic matches its members' order, with its symbol table rebuilt. Refused: "
        "objects that are not relocatable, ELF64, member names longer than 15 characters, members of mixed byte "
        "order.");
    importCmd->add_option("IN", importIn, "standard ELF32 object or GNU ar archive")
        ->required()
        ->check(CLI::ExistingFile);
    importCmd->add_option("OUT", importOut, "where the object or archive of this format goes")->required();

    std::string exportIn, exportOut;
    bool dropExtra = false;
    CLI::App* exportCmd = app.add_subcommand(
        "export",
        "Write an object or archive of this format as standard ELF32 and GNU ar, in the same byte order, for "
        "readelf, objdump, llvm-dwarfdump, gdb, ar and nm. A non-zero sh_extra or st_extra cannot be carried: "
        "refused, naming the section or symbol, unless --drop-extra.");
    exportCmd->add_option("IN", exportIn, "object or archive of this format")->required()->check(CLI::ExistingFile);
    exportCmd->add_option("OUT", exportOut, "where the standard object or GNU archive goes")->required();
    exportCmd->add_flag("--drop-extra", dropExtra, "drop non-zero sh_extra and st_extra values (said so)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    try {
        if (*infoCmd) return info(infoFiles, asJson);
        if (*checkCmd) return check(checkFiles);
        const unsigned order = to == "big" ? ELFDATA2MSB : to == "little" ? ELFDATA2LSB : kHostOrder;
        if (*convertCmd) return writing([&](Notes& n) { convertFile(in, out, order, n); });
        if (*importCmd) return writing([&](Notes& n) { importFile(importIn, importOut, n); });
        if (*exportCmd) return writing([&](Notes& n) { exportFile(exportIn, exportOut, dropExtra, n); });
    } catch (const Failure& e) {
        std::cerr << "tamoelf: " << e.what() << "\n";
        return 1;
    } catch (const std::bad_alloc&) {
        std::cerr << "tamoelf: out of memory\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "tamoelf: " << e.what() << "\n";
        return 1;
    }
    return 1;
}
