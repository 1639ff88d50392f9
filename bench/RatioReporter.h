// A console reporter that also prints, at the end, the throughput of each
// benchmark relative to a baseline measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Pairs (benchmark, baseline) of run names to compare; both must report
    // bytes per second.
    explicit RatioReporter(std::vector<std::pair<std::string, std::string>> pairs) : m_pairs(std::move(pairs)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            auto it = r.counters.find("bytes_per_second");
            if (it != r.counters.end()) m_rates[r.benchmark_name()] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nThroughput ratios (same run):\n");
        for (const auto& [bench, base] : m_pairs) {
            if (!m_rates.count(bench) || !m_rates.count(base)) continue;
            std::printf("  %-40s %8.0f MB/s  vs %-32s %8.0f MB/s  ratio %.2f\n", bench.c_str(), m_rates[bench] / 1e6,
                        base.c_str(), m_rates[base] / 1e6, m_rates[bench] / m_rates[base]);
        }
    }

private:
    std::vector<std::pair<std::string, std::string>> m_pairs;
    std::map<std::string, double> m_rates;
};

// Times a baseline and the library's operation in alternation, `rounds` of
// each, and prints the library's throughput relative to the baseline: from
// the best time of each, and the median over the rounds of each adjacent
// pair. On a machine whose speed drifts, the benchmarks above run minutes
// apart; these pairs run milliseconds apart. (A time ratio is the inverse.)
template <class Base, class Lib>
void printInterleaved(const char* what, int rounds, double baseBytes, double libBytes, Base&& base, Lib&& lib) {
    using Clock = std::chrono::steady_clock;
    auto seconds = [](auto& f) {
        const auto t0 = Clock::now();
        f();
        return std::chrono::duration<double>(Clock::now() - t0).count();
    };
    double bestBase = 1e300, bestLib = 1e300;
    std::vector<double> ratios;
    for (int r = 0; r < rounds; ++r) {
        const double tb = seconds(base), tl = seconds(lib);
        bestBase = std::min(bestBase, tb);
        bestLib = std::min(bestLib, tl);
        ratios.push_back((libBytes / tl) / (baseBytes / tb));
    }
    std::sort(ratios.begin(), ratios.end());
    const double median = ratios[ratios.size() / 2], best = (libBytes / bestLib) / (baseBytes / bestBase);
    std::printf("  %s, %d rounds in alternation: ratio %.2f of the best times (%.0f against %.0f MB/s), median of the "
                "rounds %.2f (%.2f to %.2f)\n",
                what, rounds, best, libBytes / bestLib / 1e6, baseBytes / bestBase / 1e6, median, ratios.front(),
                ratios.back());
}
