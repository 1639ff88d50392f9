// tamoelf: inspect, check and convert 32-bit ELF objects and archives of
// this format (44-byte section headers, 20-byte symbols, "!<elfa>\n" and
// "!<sola>\n" archives), through the tamoelf library.
#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>

#include "Convert.h"
#include "Inspect.h"
#include "Print.h"

#ifndef TAMOELF_VERSION
#define TAMOELF_VERSION "unknown"
#endif

namespace {

using namespace tool;

int info(const std::vector<std::string>& files, bool asJson) {
    int status = 0;
    nlohmann::json documents = nlohmann::json::array();
    for (const std::string& f : files) {
        try {
            const Inspected r = inspectFile(f);
            if (asJson) {
                documents.push_back(toJson(r));
            } else {
                printText(std::cout, r);
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
    if (asJson) std::cout << (files.size() == 1 && !documents.empty() ? documents[0] : documents).dump(2) << "\n";
    return status;
}

int check(const std::vector<std::string>& files) {
    int status = 0;
    for (const std::string& f : files) {
        try {
            const Inspected r = inspectFile(f, /*convert=*/true);
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

int convert(const std::string& in, const std::string& out, const std::string& to) {
    const unsigned order = to == "big" ? ELFDATA2MSB : ELFDATA2LSB;  // host: this library's host is little-endian
    Notes notes;
    convertFile(in, out, order, notes);
    for (const std::string& n : notes) std::cerr << "tamoelf: " << n << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    CLI::App app{
        "Inspect, check and convert 32-bit ELF objects and archives of this format (44-byte section "
        "headers, 20-byte symbols, \"!<elfa>\"/\"!<sola>\" archives), in either byte order."};
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
        "Rewrite an object or archive in another byte order through the library: header, section headers, symbols, "
        "relocations and every record type, COFF debug sections, .debug_info and .debug_line. Code and data bytes "
        "are copied (their layout cannot be known). The layout is kept (every section at its offset, gap bytes as "
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

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    try {
        if (*infoCmd) return info(infoFiles, asJson);
        if (*checkCmd) return check(checkFiles);
        if (*convertCmd) return convert(in, out, to);
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
