// Console reporter that keeps the fastest repetition of every benchmark, by
// CPU time of the benchmark's thread (what the work costs, even on a machine
// shared with other work) and by wall time, for the ratios printed at the end.
#ifndef QUARTO_BENCH_REPORT_H
#define QUARTO_BENCH_REPORT_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    struct Best {
        double cpu = 1e300, real = 1e300;  // per iteration, in the benchmark's unit
    };
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
            Best& b = best[r.run_name.function_name];
            b.cpu = std::min(b.cpu, r.GetAdjustedCPUTime());
            b.real = std::min(b.real, r.GetAdjustedRealTime());
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, Best> best;
};

}  // namespace bench

#endif
