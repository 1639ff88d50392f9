// Block conversion against memcpy of the same buffer: words, symbols,
// relocations and section headers, between buffers and in place.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ByteSwap.h"
#include "RatioReporter.h"

namespace {

std::vector<char>& buffer(size_t which, size_t bytes) {
    static std::vector<char> bufs[2];
    if (bufs[which].size() != bytes) {
        bufs[which].assign(bytes, 0);
        for (size_t i = 0; i < bytes; ++i) bufs[which][i] = static_cast<char>(i * 131 + 7);
    }
    return bufs[which];
}

void BM_memcpy(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    char* src = buffer(0, n).data();
    char* dst = buffer(1, n).data();
    for (auto _ : state) {
        std::memcpy(dst, src, n);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

template <Elf_Type T, bool InPlace>
void BM_swap(benchmark::State& state) {
    const size_t unit = tamo_elf32_fsize(T, 1, 1);
    const size_t count = static_cast<size_t>(state.range(0)) / unit;
    char* src = buffer(0, static_cast<size_t>(state.range(0))).data();
    char* dst = InPlace ? src : buffer(1, static_cast<size_t>(state.range(0))).data();
    for (auto _ : state) {
        tamo::ByteSwap::swapBlock(src, dst, T, count, false);
        benchmark::DoNotOptimize(dst);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * count * unit));
}

constexpr int64_t kCache = 64 << 10;
constexpr int64_t kMemory = 32 << 20;

BENCHMARK(BM_memcpy)->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_WORD, false>)->Name("word")->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_WORD, true>)->Name("word_in_place")->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_SYM, false>)->Name("sym")->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_SYM, true>)->Name("sym_in_place")->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_RELA, false>)->Name("rela")->Arg(kCache)->Arg(kMemory);
BENCHMARK(BM_swap<ELF_T_HALF, false>)->Name("half")->Arg(kCache)->Arg(kMemory);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const char* size : {"65536", "33554432"})
        for (const char* b : {"word", "word_in_place", "sym", "sym_in_place", "rela", "half"})
            pairs.emplace_back(std::string(b) + "/" + size, std::string("BM_memcpy/") + size);
    RatioReporter reporter(pairs);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
