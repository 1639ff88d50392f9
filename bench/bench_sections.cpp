// Reading every section of objects with 1,000 / 10,000 / 65,535 sections
// (the most e_shnum can count): the time per section must stay flat.
#include <cstring>
#include <map>

#include "Builder.h"
#include "RatioReporter.h"
#include "tamoelf.h"

using namespace testkit;

namespace {

const Bytes& object(size_t sections) {
    static std::map<size_t, Bytes> cache;
    Bytes& b = cache[sections];
    if (b.empty()) {
        ObjectBuilder builder(Order::Big);
        for (size_t i = 2; i < sections; ++i)  // null section and name table included
            builder.add({.name = ".s", .type = SHT_HASH, .align = 4, .content = words({uint32_t(i), 1})});
        b = builder.build();
    }
    return b;
}

void BM_sections_image(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    Bytes image = object(n);
    for (auto _ : state) {
        Elf* elf = tamo_elf_memory(reinterpret_cast<char*>(image.data()), image.size());
        for (size_t i = 1; i < n; ++i) benchmark::DoNotOptimize(tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr));
        tamo_elf_end(elf);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_sections_file(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    MemFile file(object(n));
    for (auto _ : state) {
        lseek(file.fd(), 0, SEEK_SET);
        Elf* elf = tamo_elf_begin(file.fd(), ELF_C_READ, nullptr);
        for (size_t i = 1; i < n; ++i) benchmark::DoNotOptimize(tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr));
        tamo_elf_end(elf);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_sections_reverse(benchmark::State& state) {
    // Sections asked for from the last to the first.
    const size_t n = static_cast<size_t>(state.range(0));
    Bytes image = object(n);
    for (auto _ : state) {
        Elf* elf = tamo_elf_memory(reinterpret_cast<char*>(image.data()), image.size());
        for (size_t i = n - 1; i >= 1; --i) benchmark::DoNotOptimize(tamo_elf_getscn(elf, i));
        tamo_elf_end(elf);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

BENCHMARK(BM_sections_image)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sections_file)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_sections_reverse)->Arg(1000)->Arg(10000)->Arg(65535)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
