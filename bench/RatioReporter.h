// A console reporter that also prints, at the end, the throughput of each
// benchmark relative to a baseline measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

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
