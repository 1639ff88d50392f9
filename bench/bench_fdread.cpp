// Reading and converting all data of a 240 MiB big-endian object through a
// file id (tamo_elf_cntl(ELF_C_FDREAD)) against a plain read of the same
// file into memory, in the same run.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Builder.h"
#include "RatioReporter.h"
#include "tamoelf.h"

namespace {

constexpr size_t kMiB = 1u << 20;

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v, bool big) {
    testkit::putAt(&b.at(at), v, 4, big ? testkit::Order::Big : testkit::Order::Little);
}
void put16(std::vector<uint8_t>& b, size_t at, uint16_t v, bool big) {
    testkit::putAt(&b.at(at), v, 2, big ? testkit::Order::Big : testkit::Order::Little);
}

// An object of symbols, relocations and word data, written to a file.
std::string makeObject(bool big) {
    struct S {
        const char* name;
        uint32_t type;
        size_t size;
    };
    const S sections[] = {{".symtab", SHT_SYMTAB, 64 * kMiB}, {".rela.text", SHT_RELA, 60 * kMiB},
                          {".hash", SHT_HASH, 104 * kMiB},   {".text", SHT_PROGBITS, 12 * kMiB - 4096},
                          {".shstrtab", SHT_STRTAB, 64}};
    const size_t n = std::size(sections) + 1;
    size_t total = 52;
    for (const S& s : sections) total += s.size;
    const size_t shoff = (total + 3) & ~size_t{3};
    std::vector<uint8_t> b(shoff + 44 * n, 0);
    for (size_t i = 52; i < shoff; i += 4) put32(b, i, static_cast<uint32_t>(i * 2654435761u), big);
    const char ident[] = {0x7f, 'E', 'L', 'F', 1, static_cast<char>(big ? 2 : 1), 1};
    std::memcpy(b.data(), ident, sizeof ident);
    put16(b, 16, 1, big);
    put16(b, 18, 20, big);
    put32(b, 20, 1, big);
    put32(b, 32, static_cast<uint32_t>(shoff), big);
    put16(b, 40, 52, big);
    put16(b, 46, 44, big);
    put16(b, 48, static_cast<uint16_t>(n), big);
    put16(b, 50, static_cast<uint16_t>(n - 1), big);
    // Names at the start of the last section.
    size_t off = 52;
    std::string names(1, '\0');
    std::vector<uint32_t> nameOff;
    for (const S& s : sections) {
        nameOff.push_back(static_cast<uint32_t>(names.size()));
        names += s.name;
        names += '\0';
    }
    for (size_t i = 0; i < std::size(sections); ++i) {
        const S& s = sections[i];
        const size_t h = shoff + 44 * (i + 1);
        put32(b, h + 0, nameOff[i], big);
        put32(b, h + 4, s.type, big);
        put32(b, h + 16, static_cast<uint32_t>(off), big);
        put32(b, h + 20, static_cast<uint32_t>(s.size), big);
        if (s.type == SHT_STRTAB) std::memcpy(&b[off], names.data(), names.size());
        off += s.size;
    }
    const std::string path = std::string("/tmp/tamoelf-bench-") + (big ? "big" : "little") + ".o";
    const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    if (fd < 0 || write(fd, b.data(), b.size()) != static_cast<ssize_t>(b.size())) std::abort();
    close(fd);
    return path;
}

struct File {
    std::string path;
    int fd;
    size_t size;
    explicit File(bool big) : path(makeObject(big)) {
        fd = open(path.c_str(), O_RDONLY);
        size = static_cast<size_t>(lseek(fd, 0, SEEK_END));
    }
    ~File() {
        close(fd);
        unlink(path.c_str());
    }
};

File& bigFile() {
    static File f(true);
    return f;
}
File& littleFile() {
    static File f(false);
    return f;
}

void readAll(int fd, char* p, size_t n) {
    lseek(fd, 0, SEEK_SET);
    while (n) {
        ssize_t r = read(fd, p, n);
        if (r <= 0) std::abort();
        p += r;
        n -= static_cast<size_t>(r);
    }
}

void BM_read_fresh(benchmark::State& state) {
    File& f = bigFile();
    for (auto _ : state) {
        char* p = static_cast<char*>(std::malloc(f.size));
        readAll(f.fd, p, f.size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.size));
}

void BM_read_reused(benchmark::State& state) {
    File& f = bigFile();
    std::vector<char> buf(f.size);
    for (auto _ : state) {
        readAll(f.fd, buf.data(), f.size);
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.size));
}

// The library's operation: every section read and converted through the
// file id.
bool readThroughFileId(const File& f) {
    lseek(f.fd, 0, SEEK_SET);
    Elf* elf = tamo_elf_begin(f.fd, ELF_C_READ, nullptr);
    if (!elf) return false;
    const bool read = tamo_elf_cntl(elf, ELF_C_FDREAD) == 0;
    tamo_elf_end(elf);
    return read;
}

void fdread(benchmark::State& state, File& f) {
    for (auto _ : state) {
        if (!readThroughFileId(f)) {
            state.SkipWithError(tamo_elf_errmsg(tamo_elf_errno()));
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.size));
}

void BM_fdread_big(benchmark::State& state) { fdread(state, bigFile()); }
void BM_fdread_little(benchmark::State& state) { fdread(state, littleFile()); }

BENCHMARK(BM_read_fresh)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_read_reused)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_fdread_big)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_fdread_little)->Unit(benchmark::kMillisecond)->MinTime(2);

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter({{"BM_fdread_big/min_time:2.000", "BM_read_fresh/min_time:2.000"},
                            {"BM_fdread_big/min_time:2.000", "BM_read_reused/min_time:2.000"},
                            {"BM_fdread_little/min_time:2.000", "BM_read_reused/min_time:2.000"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    File& f = bigFile();
    std::vector<char> buf(f.size, 1);
    const double bytes = static_cast<double>(f.size);
    printInterleaved("big-endian through a file id against read(2) into a touched buffer", 20, bytes, bytes,
                     [&] { readAll(f.fd, buf.data(), f.size); },
                     [&] {
                         if (!readThroughFileId(f)) std::abort();
                     });
    return 0;
}
