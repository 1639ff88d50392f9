// Converting 32 MiB of real .debug_info units between byte orders, in place
// and back (two passes an iteration), against memcpy of the same bytes into
// an already-touched buffer, in the same run. The units come from clang's
// output (DWARF 5, big-endian), repeated: for tests/data/dwarf_sample.cpp
// (units of about 1 KiB), and for a generated source of 3,000 structures
// and functions (units of about 430 KiB, whose address indices take two
// bytes); and one compiler object's unit at a time, as a client converts
// it. Without clang the benchmark says so and does nothing.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "RatioReporter.h"
#include "dwarf_swap.h"
#include "tamoelf.h"

namespace {

constexpr size_t kTarget = size_t{32} << 20;

struct Sections {
    std::vector<uint8_t> info, abbrev;
};

// .debug_info and .debug_abbrev as stored in clang's object for a source.
bool load(const std::string& source, Sections& out) {
    const std::string obj = "/tmp/tamoelf-bench-dwarf.o";
    const std::string cmd =
        "clang++ --target=powerpc-linux-gnu -fno-addrsig -g -O0 -c '" + source + "' -o " + obj + " 2>/dev/null";
    if (std::system(cmd.c_str()) != 0) return false;
    const int fd = open(obj.c_str(), O_RDONLY);
    Elf* elf = tamo_elf_begin(fd, ELF_C_READ, nullptr);
    if (!elf) return false;
    tamo_elf_setreadswapcontroller(elf, [](Elf32_Shdr*, const char*) { return 4; });  // as stored
    const size_t names = tamo_elf32_getehdr(elf)->e_shstrndx;
    for (Elf_Scn* scn = nullptr; (scn = tamo_elf_nextscn(elf, scn)) != nullptr;) {
        const char* name = tamo_elf_strptr(elf, names, tamo_elf32_getshdr(scn)->sh_name);
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        if (!name || !d) continue;
        const auto* p = static_cast<const uint8_t*>(d->d_buf);
        if (std::strcmp(name, ".debug_info") == 0) out.info.assign(p, p + d->d_size);
        if (std::strcmp(name, ".debug_abbrev") == 0) out.abbrev.assign(p, p + d->d_size);
    }
    tamo_elf_end(elf);
    close(fd);
    unlink(obj.c_str());
    return !out.info.empty() && !out.abbrev.empty();
}

Sections repeated(const std::string& source) {
    Sections one, all;
    if (!load(source, one)) return all;
    all.abbrev = one.abbrev;
    while (all.info.size() < kTarget) all.info.insert(all.info.end(), one.info.begin(), one.info.end());
    return all;
}

Sections& sections() {
    static Sections s = repeated(TAMO_TEST_DATA "/dwarf_sample.cpp");
    return s;
}

Sections& largeUnits() {
    static Sections s = [] {
        const std::string source = "/tmp/tamoelf-bench-dwarf-large.cpp";
        FILE* f = std::fopen(source.c_str(), "w");
        if (!f) return Sections{};
        for (int i = 0; i < 3000; ++i)
            std::fprintf(f,
                         "struct S%d { int a; long b; char c[%d]; double d; S%d* next; };\n"
                         "int f%d(S%d* p, int x) { int y = x * %d; for (int k = 0; k < x; ++k) y += p->a + k;"
                         " if (p->next) y += f%d(p->next, x - 1); return y; }\n",
                         i, i % 7 + 1, i, i, i, i, i);
        std::fclose(f);
        Sections s = repeated(source);
        unlink(source.c_str());
        return s;
    }();
    return s;
}

void BM_memcpy(benchmark::State& state) {
    const Sections& s = sections();
    std::vector<uint8_t> dst(s.info.size(), 1);
    for (auto _ : state) {
        std::memcpy(dst.data(), s.info.data(), s.info.size());
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.info.size()));
}

void inPlace(benchmark::State& state, const Sections& s) {
    if (s.info.empty()) {
        state.SkipWithError("clang is not installed");
        return;
    }
    std::vector<uint8_t> buf = s.info;
    char* p = reinterpret_cast<char*>(buf.data());
    const tamo::AbbrevBytes abbrev{s.abbrev.data(), s.abbrev.size()};
    for (auto _ : state) {
        tamo::dwarfConvert(".debug_info", p, p, buf.size(), nullptr, false, &abbrev);  // to host order
        tamo::dwarfConvert(".debug_info", p, p, buf.size(), nullptr, true, &abbrev);   // and back
    }
    if (buf != s.info) state.SkipWithError("converting back did not restore the units");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 2 * buf.size()));
}

void BM_debug_info_in_place(benchmark::State& state) { inPlace(state, sections()); }
void BM_debug_info_large_units(benchmark::State& state) { inPlace(state, largeUnits()); }

void BM_debug_info_between(benchmark::State& state) {
    const Sections& s = sections();
    if (s.info.empty()) {
        state.SkipWithError("clang is not installed");
        return;
    }
    std::vector<uint8_t> a = s.info, b(a.size());
    char* pa = reinterpret_cast<char*>(a.data());
    char* pb = reinterpret_cast<char*>(b.data());
    const tamo::AbbrevBytes abbrev{s.abbrev.data(), s.abbrev.size()};
    for (auto _ : state) {
        tamo::dwarfConvert(".debug_info", pa, pb, a.size(), nullptr, false, &abbrev);  // to host order
        tamo::dwarfConvert(".debug_info", pb, pa, a.size(), nullptr, true, &abbrev);   // and back
    }
    if (a != s.info) state.SkipWithError("converting back did not restore the units");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 2 * a.size()));
}

// A compiler's object as a client converts it: its one unit of about
// 1 KiB through endian_swap_dwarf_section with the object's descriptor,
// abbreviation tables read and released each time. At this size the
// conversion is mostly that setup: the time an object is the figure.
void BM_debug_info_one_object(benchmark::State& state) {
    const std::string obj = "/tmp/tamoelf-bench-dwarf-object.o";
    const std::string cmd = "clang++ --target=powerpc-linux-gnu -fno-addrsig -g -O0 -c '" TAMO_TEST_DATA
                            "/dwarf_sample.cpp' -o " +
                            obj + " 2>/dev/null";
    std::vector<char> image;
    if (std::system(cmd.c_str()) == 0)
        if (FILE* f = std::fopen(obj.c_str(), "rb")) {
            for (int c; (c = std::fgetc(f)) != EOF;) image.push_back(static_cast<char>(c));
            std::fclose(f);
        }
    unlink(obj.c_str());
    Elf* elf = image.empty() ? nullptr : tamo_elf_memory(image.data(), image.size());
    if (!elf) {
        state.SkipWithError("clang is not installed");
        return;
    }
    tamo_elf_setreadswapcontroller(elf, [](Elf32_Shdr*, const char*) { return 4; });  // as stored
    const size_t names = tamo_elf32_getehdr(elf)->e_shstrndx;
    Elf32_Shdr* header = nullptr;
    std::vector<char> src, dst;
    for (Elf_Scn* scn = nullptr; (scn = tamo_elf_nextscn(elf, scn)) != nullptr;) {
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        const char* name = tamo_elf_strptr(elf, names, sh->sh_name);
        Elf_Data* d = tamo_elf_getdata(scn, nullptr);
        if (!name || !d || std::strcmp(name, ".debug_info") != 0) continue;
        header = sh;
        src.assign(static_cast<char*>(d->d_buf), static_cast<char*>(d->d_buf) + d->d_size);
        dst.resize(src.size());
    }
    for (auto _ : state) {
        if (!header) break;
        endian_swap_dwarf_section(".debug_info", src.data(), dst.data(), elf, header, false);
        benchmark::DoNotOptimize(dst.data());
    }
    if (!header) state.SkipWithError("no .debug_info");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
    tamo_elf_end(elf);
}

BENCHMARK(BM_memcpy)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_debug_info_one_object)->Unit(benchmark::kMicrosecond)->MinTime(1);
BENCHMARK(BM_debug_info_in_place)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_debug_info_between)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_debug_info_large_units)->Unit(benchmark::kMillisecond)->MinTime(2);

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    std::printf("%.1f MiB of .debug_info units\n", static_cast<double>(sections().info.size()) / (1 << 20));
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter(std::vector<std::pair<std::string, std::string>>{
        {"BM_debug_info_in_place/min_time:2.000", "BM_memcpy/min_time:2.000"},
        {"BM_debug_info_between/min_time:2.000", "BM_memcpy/min_time:2.000"},
        {"BM_debug_info_large_units/min_time:2.000", "BM_memcpy/min_time:2.000"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const std::pair<const char*, Sections*> inputs[] = {
        {"units of 1 KiB in place against memcpy, a pass a round", &sections()},
        {"units of 430 KiB in place against memcpy, a pass a round", &largeUnits()}};
    for (const auto& [what, input] : inputs) {
        const Sections& s = *input;
        if (s.info.empty()) continue;
        std::vector<uint8_t> buf = s.info, dst(s.info.size(), 1);
        char* p = reinterpret_cast<char*>(buf.data());
        const tamo::AbbrevBytes abbrev{s.abbrev.data(), s.abbrev.size()};
        bool toFile = false;
        const double bytes = static_cast<double>(buf.size());
        printInterleaved(what, 60, bytes, bytes, [&] { std::memcpy(dst.data(), s.info.data(), s.info.size()); },
                         [&] {
                             tamo::dwarfConvert(".debug_info", p, p, buf.size(), nullptr, toFile, &abbrev);
                             toFile = !toFile;
                         });
    }
    return 0;
}
