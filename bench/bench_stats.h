// Latencies of a load run, one list per client thread, summed up at the end.
#pragma once

#include <algorithm>
#include <cstdio>
#include <vector>

struct LoadStats {
    explicit LoadStats(int threads) : latencyMs(threads), failures(threads, 0) {}
    std::vector<std::vector<double>> latencyMs;
    std::vector<int> failures;

    // Prints "<label> N (failed F) in S s: R <unit>/s, p50 .. ms, p99 .. ms";
    // returns the number of failures.
    int report(const char* label, const char* unit, double seconds) const {
        std::vector<double> all;
        int failed = 0;
        for (size_t t = 0; t < latencyMs.size(); ++t) {
            all.insert(all.end(), latencyMs[t].begin(), latencyMs[t].end());
            failed += failures[t];
        }
        std::sort(all.begin(), all.end());
        auto pct = [&](double p) {
            return all.empty() ? 0.0 : all[static_cast<size_t>(p * (all.size() - 1))];
        };
        printf("%-10s %zu (failed %d) in %.2f s: %.0f %s/s, p50 %.2f ms, p99 %.2f ms\n", label,
               all.size(), failed, seconds, all.size() / seconds, unit, pct(0.50), pct(0.99));
        return failed;
    }
};
