// Compressed read path: a 1200 dpi A4 colour scan of the Quarto 5100, which
// asks the device for Wicket bands, read through sane_read from the simulated
// scanner in this process, against decoding the same bands alone with the
// backend's decoder. Prints scan_time / decode_time (aim: at most 1.15) and the
// peak resident memory the scan adds.
//
//   build*/bench/compressed_scan [--benchmark_filter=...]
//
// Times are CPU times of the benchmark's thread, the fastest of the
// repetitions. The simulated scanner encodes each distinct band once and keeps
// it, so after the first scan the scans cost the host's work only.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "DecompWicket.h"
#include "Wicket.h"
#include "bench_report.h"
#include "bench_scanner.h"
#include "util.h"

namespace {

const int SCAN_DPI = 1200;
const int READ_SIZE = 32 * 1024;  // what scanimage asks for
const double RATIO_AIM = 1.15;

bench::Scanner* g_scanner = nullptr;
std::vector<unsigned char> g_bands;  // the bands of one page, as the device sent them

void BM_CompressedScan(benchmark::State& state) {
    std::vector<SANE_Byte> buf(READ_SIZE);
    for (auto _ : state) {
        if (g_scanner->scanPage(buf.data(), (int)buf.size()) != g_scanner->lPageBytes) {
            state.SkipWithError("the page did not arrive whole");
            return;
        }
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(state.iterations() * g_scanner->lPageBytes);
}

// Each band of the page decoded into one band buffer, as the transport
// decodes it, without assembling or delivering the image.
bool decodeBands(Wicket& wicket, std::vector<unsigned char>& band, long* lines) {
    *lines = 0;
    for (size_t pos = 0; pos + WICKET_HEADER_SIZE <= g_bands.size();) {
        const unsigned char* h = g_bands.data() + pos;
        const uint32_t size = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_SIZE_OFFSET);
        const uint32_t bandLines = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_HEIGHT_OFFSET);
        const uint32_t width = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_WIDTH_OFFSET);
        if (size < uint32_t(WICKET_HEADER_SIZE) || size > g_bands.size() - pos) return false;
        const long paddedWidth = (long(width) + 7) / 8 * 8, paddedLines = (long(bandLines) + 7) / 8 * 8;
        const long bytes = paddedWidth * paddedLines * 3;
        if (band.size() < size_t(bytes)) band.resize(size_t(bytes));
        wicket.QualityFactor(int(readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_QUALITY_OFFSET)));
        int produced = 0, used = 0;
        if (wicket.DecompressThreePlanes(h + WICKET_HEADER_SIZE, int(size) - WICKET_HEADER_SIZE, band.data(), bytes,
                                         int(paddedWidth), int(paddedLines), &produced, &used) != 0)
            return false;
        *lines += bandLines;
        pos += size;
    }
    return true;
}

void BM_DecodeBands(benchmark::State& state) {
    Wicket wicket(1);
    std::vector<unsigned char> band;
    long lines = 0;
    for (auto _ : state) {
        if (!decodeBands(wicket, band, &lines) || lines != g_scanner->iLines) {
            state.SkipWithError("the bands did not decode");
            return;
        }
        benchmark::DoNotOptimize(band.data());
    }
    state.SetBytesProcessed(state.iterations() * g_scanner->lPageBytes);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::Scanner scanner;
    g_scanner = &scanner;
    qt::TempDir dir;
    const std::string bandFile = dir.file("bands");
    std::vector<SANE_Byte> buf(READ_SIZE);
    // The first scan makes the simulator's bands and copies them to the band file.
    if (!scanner.open("tests/data/e2e_q5100.scn", SCAN_DPI, "A4") || usbsim_set_band_file(bandFile.c_str()) != 0 ||
        scanner.scanPage(buf.data(), READ_SIZE) != scanner.lPageBytes) {
        fprintf(stderr, "compressed_scan: the backend or the simulated scanner could not scan the page\n");
        return 1;
    }
    usbsim_set_band_file(nullptr);
    const std::string bands = qt::readFile(bandFile);
    g_bands.assign(bands.begin(), bands.end());

    // The scan's peak memory, before the benchmarks' own buffers exist.
    long peakKb = -1;
    if (qt::resetResidentPeak()) {
        const long before = qt::residentKb("VmRSS");
        if (scanner.scanPage(buf.data(), READ_SIZE) == scanner.lPageBytes) peakKb = qt::residentKb("VmHWM") - before;
    }

    for (auto* b : {benchmark::RegisterBenchmark("compressed_scan", BM_CompressedScan),
                    benchmark::RegisterBenchmark("decode_bands", BM_DecodeBands)})
        b->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5);
    bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    printf("\ncompressed read path: 1200 dpi A4 colour page, %d x %d pixels, %ld bytes, %zu bytes of Wicket bands\n",
           scanner.iPixels, scanner.iLines, scanner.lPageBytes, g_bands.size());
    if (reporter.best.count("compressed_scan") && reporter.best.count("decode_bands")) {
        const bench::RatioReporter::Best &s = reporter.best["compressed_scan"], &d = reporter.best["decode_bands"];
        const double ratio = s.cpu / d.cpu;
        printf("  ratio scan_time / decode_time = %.3f (wall %.3f)%s\n", ratio, s.real / d.real,
               ratio <= RATIO_AIM ? "" : "  [above the aim of 1.15]");
        printf("  scan through sane_read (%d-byte reads): %.1f ms CPU; decoding the bands alone: %.1f ms CPU\n",
               READ_SIZE, s.cpu, d.cpu);
    }
    if (peakKb >= 0) printf("  peak resident memory added by the scan: %.1f MB\n", peakKb / 1024.0);
    benchmark::Shutdown();
    return 0;
}
