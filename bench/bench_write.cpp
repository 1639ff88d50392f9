// Writing a 240 MiB object of the other byte order (symbols, relocations,
// words and bytes) from host-order buffers with tamo_elf_update, against
// memcpy of the same bytes into an already-touched buffer plus one write(2)
// of them, in the same run. Before the benchmarks it prints the peak memory
// one update adds beyond the caller's data.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "RatioReporter.h"
#include "tamoelf.h"

namespace {

constexpr size_t kMiB = size_t{1} << 20;

struct Part {
    const char* name;
    uint32_t type;
    Elf_Type dataType;
    size_t size;
};
const Part kParts[] = {{".symtab", SHT_SYMTAB, ELF_T_SYM, 64 * kMiB},
                       {".rela.text", SHT_RELA, ELF_T_RELA, 60 * kMiB},
                       {".hash", SHT_HASH, ELF_T_WORD, 104 * kMiB},
                       {".text", SHT_PROGBITS, ELF_T_BYTE, 12 * kMiB}};

// The caller's side: host-order buffers and a descriptor on a new file that
// describes them; the image is about 240 MiB.
struct Output {
    std::string path = "/tmp/tamoelf-bench-write.o";
    int fd;
    Elf* elf;
    std::vector<std::vector<uint8_t>> buffers;
    std::string names = std::string(1, '\0');
    size_t total = 0;

    Output() {
        fd = open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0644);
        elf = tamo_elf_begin(fd, ELF_C_WRITE, nullptr);
        Elf32_Ehdr* h = tamo_elf32_newehdr(elf);
        h->e_type = 1;
        h->e_machine = 20;
        for (const Part& p : kParts) {
            buffers.emplace_back(p.size);
            for (size_t i = 0; i < p.size; ++i) buffers.back()[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
            add(p.name, p.type, p.dataType, buffers.back().data(), p.size);
            total += p.size;
        }
        const size_t namesIndex = std::size(kParts) + 1;
        names += ".shstrtab";
        names += '\0';
        add(".shstrtab", SHT_STRTAB, ELF_T_BYTE, names.data(), names.size());
        h = tamo_elf32_getehdr(elf);
        h->e_shstrndx = static_cast<Elf32_Half>(namesIndex);
        h->e_ident[EI_DATA] = ELFDATA2MSB;
    }
    ~Output() {
        tamo_elf_end(elf);
        close(fd);
        unlink(path.c_str());
    }
    void add(const char* name, uint32_t type, Elf_Type dataType, void* buf, size_t size) {
        Elf_Scn* scn = tamo_elf_newscn(elf);
        Elf32_Shdr* sh = tamo_elf32_getshdr(scn);
        sh->sh_name = static_cast<Elf32_Word>(names.size());
        names += name;
        names += '\0';
        sh->sh_type = type;
        sh->sh_addralign = 4;
        Elf_Data* d = tamo_elf_newdata(scn);
        d->d_buf = buf;
        d->d_size = size;
        d->d_type = dataType;
    }
    off_t update() {
        tamo_elf_flagelf(elf, ELF_C_SET, ELF_F_DIRTY);
        return tamo_elf_update(elf, ELF_C_WRITE);
    }
};

Output& output() {
    static Output o;
    return o;
}

long maxRssKiB() {
    struct rusage u;
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

// The plain operation: the caller's buffers copied into an image, which is
// written.
void memcpyAndWrite(const Output& o, std::vector<char>& image) {
    size_t at = 0;
    for (const auto& b : o.buffers) {
        std::memcpy(image.data() + at, b.data(), b.size());
        at += b.size();
    }
    lseek(o.fd, 0, SEEK_SET);
    if (write(o.fd, image.data(), image.size()) != static_cast<ssize_t>(image.size())) std::abort();
}

void BM_memcpy_write(benchmark::State& state) {
    Output& o = output();
    const size_t n = static_cast<size_t>(lseek(o.fd, 0, SEEK_END));
    std::vector<char> image(n, 1);  // touched before the loop
    for (auto _ : state) {
        memcpyAndWrite(o, image);
        benchmark::DoNotOptimize(image.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_update_write(benchmark::State& state) {
    Output& o = output();
    off_t n = 0;
    for (auto _ : state) {
        n = o.update();
        if (n <= 0) {
            state.SkipWithError(tamo_elf_errmsg(tamo_elf_errno()));
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * n);
}

BENCHMARK(BM_memcpy_write)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_update_write)->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    // Peak memory of one update beyond the caller's data (measured before
    // the baseline allocates its own image).
    Output& o = output();
    const long before = maxRssKiB();
    const off_t size = o.update();
    const long after = maxRssKiB();
    std::printf("image %.1f MiB; peak RSS %.1f MiB before update, %.1f MiB after: %.1f MiB added\n",
                static_cast<double>(size) / kMiB, before / 1024.0, after / 1024.0, (after - before) / 1024.0);

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter(std::vector<std::pair<std::string, std::string>>{
        {"BM_update_write/min_time:3.000", "BM_memcpy_write/min_time:3.000"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const size_t n = static_cast<size_t>(size);
    std::vector<char> image(n, 1);
    printInterleaved("update and write against memcpy and write", 20, static_cast<double>(n), static_cast<double>(n),
                     [&] { memcpyAndWrite(o, image); },
                     [&] {
                         if (o.update() <= 0) std::abort();
                     });
    return 0;
}
