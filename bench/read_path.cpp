// Read path: sane_read throughput of a 600 dpi A4 colour page in raw mode,
// from the simulated scanner in this process, against memcpy of the same bytes
// in the same pieces; and the resident memory a scan adds, which must not grow
// with the page (the buffers hold only the lines in flight).
//
//   build*/bench/read_path [--benchmark_filter=...]
//
// Rates are bytes per second of the process's CPU time (Google Benchmark's
// measure), so a machine busy with other work still gives comparable figures.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_scanner.h"

namespace {

const int SCAN_DPI = 600;
const int SMALL_READ = 32 * 1024;  // what scanimage asks for
const int LARGE_READ = 1024 * 1024;
const long MEMORY_LIMIT_KB = 32 * 1024;

using bench::Scanner;

Scanner* g_scanner = nullptr;

void BM_SaneRead(benchmark::State& state) {
    std::vector<SANE_Byte> buf((size_t)state.range(0));
    for (auto _ : state) {
        long n = g_scanner->scanPage(buf.data(), (int)buf.size());
        if (n != g_scanner->lPageBytes) {
            state.SkipWithError("the page did not arrive whole");
            return;
        }
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(state.iterations() * g_scanner->lPageBytes);
}

// The reference: the same bytes copied by memcpy from a page in memory into a
// buffer of the same size as the front end's.
void BM_Memcpy(benchmark::State& state) {
    const size_t piece = (size_t)state.range(0);
    std::vector<unsigned char> page((size_t)g_scanner->lPageBytes, 0x5A);
    std::vector<unsigned char> buf(piece);
    for (auto _ : state) {
        for (size_t off = 0; off < page.size(); off += piece) {
            memcpy(buf.data(), page.data() + off, std::min(piece, page.size() - off));
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(state.iterations() * g_scanner->lPageBytes);
}

BENCHMARK(BM_SaneRead)->Arg(SMALL_READ)->Arg(LARGE_READ)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_Memcpy)->Arg(SMALL_READ)->Arg(LARGE_READ)->Unit(benchmark::kMillisecond)->MinTime(0.5);

// Keeps the throughput of every run for the ratios printed at the end.
class RateReporter : public benchmark::ConsoleReporter {
public:
    explicit RateReporter(OutputOptions options) : ConsoleReporter(options) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            auto it = r.counters.find("bytes_per_second");
            if (!r.error_occurred && it != r.counters.end())
                rates[r.run_name.function_name + "/" + r.run_name.args] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

// The growth of the peak resident size over one scan of `size`, kB, from the
// resident size before it (the front end's buffer included); -1 if unknown.
long scanPeakKb(const char* size, int maxLen) {
    if (!g_scanner->select(size)) return -1;
    std::vector<SANE_Byte> buf((size_t)maxLen);
    memset(buf.data(), 0, buf.size());
    if (!qt::resetResidentPeak()) return -1;
    long before = qt::residentKb("VmRSS");
    if (g_scanner->scanPage(buf.data(), maxLen) < 0) return -1;
    return qt::residentKb("VmHWM") - before;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Scanner scanner;
    g_scanner = &scanner;
    // The demo's Quarto 5100.
    if (!scanner.open("sim/scenarios/demo.scn", SCAN_DPI, "A4")) {
        fprintf(stderr, "read_path: the backend or the simulated scanner could not be set up\n");
        return 1;
    }
    const long pageBytes = scanner.lPageBytes;

    // Memory first, before the reference buffers of the benchmarks exist.
    struct {
        const char* szSize;
        int iMaxLen;
        long lKb;
    } peaks[] = {{"A5", SMALL_READ, 0}, {"A4", SMALL_READ, 0}, {"A4", LARGE_READ, 0}, {"Legal", SMALL_READ, 0}};
    for (auto& p : peaks) p.lKb = scanPeakKb(p.szSize, p.iMaxLen);
    // The whole process's peak during the last of those scans (front end,
    // simulator and backend together).
    const long processPeakKb = qt::residentKb("VmHWM");
    scanner.select("A4");

    RateReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);

    printf("\nread path: 600 dpi A4 colour page, %ld bytes, raw, in-process simulator (rates per CPU second)\n",
           pageBytes);
    for (int len : {SMALL_READ, LARGE_READ}) {
        double read = reporter.rates["BM_SaneRead/" + std::to_string(len)];
        double copy = reporter.rates["BM_Memcpy/" + std::to_string(len)];
        if (read > 0 && copy > 0)
            printf("  sane_read %7d-byte buffer: %8.1f MB/s = %.3f x memcpy (%8.1f MB/s)%s\n", len, read / 1e6,
                   read / copy, copy / 1e6, read >= 1e9 ? "" : "  [below 1 GB/s]");
    }
    bool within = true;
    for (const auto& p : peaks) {
        if (p.lKb < 0) {
            printf("  peak resident memory of a scan (%s, %d-byte reads): unknown\n", p.szSize, p.iMaxLen);
            continue;
        }
        printf("  peak resident memory added by a scan (%s, %d-byte reads): %.1f MB%s\n", p.szSize, p.iMaxLen,
               p.lKb / 1024.0, p.lKb < MEMORY_LIMIT_KB ? "" : "  [over 32 MB]");
        within = within && p.lKb < MEMORY_LIMIT_KB;
    }
    if (processPeakKb > 0)
        printf("  peak resident size of the whole process during the Legal scan: %.1f MB\n", processPeakKb / 1024.0);
    benchmark::Shutdown();
    return within ? 0 : 2;
}
