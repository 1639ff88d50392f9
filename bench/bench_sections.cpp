// Reading every section of objects with 1,000 / 10,000 / 65,535 sections
// (the most e_shnum can count): the time per section must stay flat.
#include <algorithm>
#include <chrono>
#include <cstdio>
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

// Nanoseconds per section for one pass over every section of an image of
// n sections (opening and ending included).
double passNs(Bytes& image, size_t n) {
    const auto t0 = std::chrono::steady_clock::now();
    Elf* elf = tamo_elf_memory(reinterpret_cast<char*>(image.data()), image.size());
    for (size_t i = 1; i < n; ++i) benchmark::DoNotOptimize(tamo_elf_getdata(tamo_elf_getscn(elf, i), nullptr));
    tamo_elf_end(elf);
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() / double(n);
}

void BM_sections_image(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    Bytes image = object(n);
    for (auto _ : state) passNs(image, n);
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

// The two sizes measured in alternation, so that a noisy neighbour slows
// both alike, each taking its best round: the figure the flat-cost aim is
// judged by.
void interleavedRatio() {
    Bytes small = object(1000), large = object(65535);
    double bestSmall = 1e300, bestLarge = 1e300;
    for (int round = 0; round < 40; ++round) {
        double s = 0;
        for (int k = 0; k < 65; ++k) s += passNs(small, 1000);  // as many sections as one large pass
        bestSmall = std::min(bestSmall, s / 65);
        bestLarge = std::min(bestLarge, passNs(large, 65535));
    }
    std::printf("\nTime per section, image, interleaved best of 40 rounds: %.1f ns at 1,000, %.1f ns at 65,535: ratio %.2f\n",
                bestSmall, bestLarge, bestLarge / bestSmall);
}

}  // namespace

int main(int argc, char** argv) {
    tamo_elf_version(EV_CURRENT);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    interleavedRatio();
    return 0;
}
