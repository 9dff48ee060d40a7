// Network page post-processing: a 600 dpi A4 colour zlib page (4960 x 7016,
// the simulator's colour formula) read from its file, decoded, and turned by
// 180 degrees through the rotation file, against zlib's uncompress of the same
// data alone into a buffer that is already there.
//
//   build*/bench/netpost [--benchmark_filter=...]
//
// Times are wall-clock (the rotation goes through a file), fastest of the
// repetitions; the figure is the ratio post-processing / uncompress.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "NetComm.h"
#include "testutil.h"

namespace {

const int WIDTH = 4960;
const int HEIGHT = 7016;
const int DPI = 600;
const long PAGE_BYTES = 3L * WIDTH * HEIGHT;

struct Page {
    qt::TempDir dir;
    std::string szFile;
    std::string szHeader;
    std::vector<unsigned char> vCompressed;
    std::vector<unsigned char> vPixels;
    ConfigReader store;

    Page() {
        vPixels.resize((size_t)PAGE_BYTES);
        unsigned char* p = vPixels.data();
        for (int y = 0; y < HEIGHT; ++y)
            for (int x = 0; x < WIDTH; ++x, p += 3) {
                p[0] = (unsigned char)x;
                p[1] = (unsigned char)y;
                p[2] = (unsigned char)(x + y);
            }
        uLongf n = compressBound((uLong)PAGE_BYTES);
        vCompressed.resize(n);
        compress(vCompressed.data(), &n, vPixels.data(), (uLong)PAGE_BYTES);
        vCompressed.resize(n);
        szHeader = "P6\n#QVTRES=" + std::to_string(DPI) + "\n" + std::to_string(WIDTH) + " " +
                   std::to_string(HEIGHT) + "\n255\n";
        szFile = dir.file("Defaultscan.pxm");
        qt::writeFile(dir.file("Defaultscan.conf"), "ROTATE=180\n");
        store.SetIntOption("COLORDEPTH", 2);
        store.SetStringOption("TEMPDIRECTORY", dir.path().c_str());
    }
    // The page file as the scan program leaves it; post-processing removes it.
    void writeFile() {
        FILE* f = fopen(szFile.c_str(), "wb");
        fwrite(szHeader.data(), 1, szHeader.size(), f);
        fwrite(vCompressed.data(), 1, vCompressed.size(), f);
        fclose(f);
    }
    // Decodes and turns the page; the image's size, or -1.
    long postProcess(NetComm& net) {
        store.SetIntOption("CURRENTDPI", DPI);
        if (!net.openPage(szFile) || net.postProcess(true) != 0) return -1;
        return net.getImageSize();
    }
};

Page* g_page = nullptr;

// The result must be the 180-degree mapping: output pixel j is input pixel
// n - j, and pixel 0 stays black.
bool checkOnce() {
    NetComm net;
    net.setConfigReader(&g_page->store);
    g_page->writeFile();
    if (g_page->postProcess(net) != PAGE_BYTES) return false;
    std::vector<unsigned char> out;
    DataBuffer piece;
    for (int n = 0; net.ReadImage(&n, &piece, nullptr) == 0;) {
        std::vector<unsigned char> chunk((size_t)piece.GetAllDataSize());
        piece.GetAllData(chunk.data(), (int)chunk.size());
        out.insert(out.end(), chunk.begin(), chunk.end());
        piece.Reset();
    }
    const long n = (long)WIDTH * HEIGHT;
    if ((long)out.size() != PAGE_BYTES || out[0] || out[1] || out[2]) return false;
    for (long j = 1; j < n; ++j)
        if (memcmp(&out[j * 3], &g_page->vPixels[(n - j) * 3], 3) != 0) return false;
    return true;
}

void BM_PostProcess(benchmark::State& state) {
    NetComm net;
    net.setConfigReader(&g_page->store);
    for (auto _ : state) {
        state.PauseTiming();
        g_page->writeFile();
        state.ResumeTiming();
        if (g_page->postProcess(net) != PAGE_BYTES) {
            state.SkipWithError("post-processing failed");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * PAGE_BYTES);
}

void BM_Uncompress(benchmark::State& state) {
    std::vector<unsigned char> out((size_t)PAGE_BYTES, 0);
    for (auto _ : state) {
        uLongf n = (uLongf)PAGE_BYTES;
        if (uncompress(out.data(), &n, g_page->vCompressed.data(), (uLong)g_page->vCompressed.size()) != Z_OK) {
            state.SkipWithError("uncompress failed");
            return;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * PAGE_BYTES);
}

BENCHMARK(BM_PostProcess)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->Iterations(3);
BENCHMARK(BM_Uncompress)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->Iterations(3);

// Keeps the fastest time of each benchmark for the ratio printed at the end.
class FastestReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            double t = r.GetAdjustedRealTime();
            auto it = fastest.find(r.run_name.function_name);
            if (it == fastest.end() || t < it->second) fastest[r.run_name.function_name] = t;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> fastest;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Page page;
    g_page = &page;
    if (!checkOnce()) {
        fprintf(stderr, "post-processing does not give the 180-degree mapping of the page\n");
        return 1;
    }
    printf("page: %d x %d colour, %ld bytes, %zu bytes compressed\n", WIDTH, HEIGHT, PAGE_BYTES,
           page.vCompressed.size());
    FastestReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto post = reporter.fastest.find("BM_PostProcess");
    auto ref = reporter.fastest.find("BM_Uncompress");
    if (post != reporter.fastest.end() && ref != reporter.fastest.end())
        printf("post-processing / uncompress = %.3f (%.1f ms against %.1f ms)\n", post->second / ref->second,
               post->second, ref->second);
    benchmark::Shutdown();
    return 0;
}
