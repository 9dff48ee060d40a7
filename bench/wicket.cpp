// Wicket decoding of a 600 dpi A4 page (4960 x 7016) at quality 75, in colour
// and in grey, next to libjpeg-turbo decoding the same entropy-coded data
// wrapped as a baseline JPEG (accurate integer IDCT, the same scaled tables,
// 4:4:4, one restart interval per 32-line band). Prints quarto_time /
// libjpeg_time for each mode and the absolute throughput.
//
// Then the whole-process time of "quarto-wicket decode" writing the colour page
// as a PPM file, against "djpeg -dct int" writing the same picture from the
// baseline JPEG: CPU time (user + system) of the child process, its peak
// resident size, and the ratio quarto-wicket / djpeg.
//
// Before timing, the run checks that both decoders agree: grey bit for bit
// with libjpeg-turbo; colour (whose YCbCr conversion differs from JPEG's) bit
// for bit with the plain reference decoder of the tests. The JPEG carries no
// Huffman tables, so libjpeg-turbo decodes it with its own copy of the Annex K
// tables, and its quality scaling is compared with ours.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <jpeglib.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "DecompWicket.h"
#include "HuffCodec.h"
#include "Wicket.h"
#include "WicketEncoder.h"
#include "WicketKernels.h"
#include "WicketReference.h"
#include "bench_report.h"
#include "testutil.h"
#include "util.h"

namespace {

using Bytes = std::vector<uint8_t>;

const int PAGE_WIDTH = 4960;
const int PAGE_HEIGHT = 7016;
const int QUALITY = 75;
const int BAND_LINES = 32;

// ------------------------------------------------------------------- the page

uint32_t hash32(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352d;
    x ^= x >> 15;
    x *= 0x846ca68b;
    x ^= x >> 16;
    return x;
}

// A scanned office page: paper with a little grain, a colour heading, columns
// of text-like strokes, a photograph with smooth shading and texture, and a
// colour chart.
Bytes makePage(int channels) {
    Bytes page(size_t(PAGE_WIDTH) * PAGE_HEIGHT * channels);
    const int photoX0 = 600, photoX1 = 3000, photoY0 = 3300, photoY1 = 5000;
    for (int y = 0; y < PAGE_HEIGHT; ++y) {
        uint8_t* row = page.data() + size_t(y) * PAGE_WIDTH * channels;
        for (int x = 0; x < PAGE_WIDTH; ++x) {
            uint32_t h = hash32(uint32_t(y) * 8191u + uint32_t(x));
            int grain = int(h & 7) - 3;
            int rgb[3] = {246 + grain, 244 + grain, 238 + grain};
            bool inPhoto = x >= photoX0 && x < photoX1 && y >= photoY0 && y < photoY1;
            if (inPhoto) {
                int u = x - photoX0, v = y - photoY0;
                int tex = int((h >> 3) & 31) - 16;
                rgb[0] = 90 + (u * 120) / (photoX1 - photoX0) + ((u / 40 + v / 50) % 9) * 6 + tex;
                rgb[1] = 70 + (v * 130) / (photoY1 - photoY0) + ((u / 70) % 5) * 8 + tex;
                rgb[2] = 150 - (u * 60) / (photoX1 - photoX0) + (v / 90 % 4) * 10 + tex;
            } else if (y >= 5300 && y < 5700 && x >= 600 && x < 4300) {
                int patch = (x - 600) / 370 + ((y - 5300) / 200) * 10;  // colour chart
                rgb[0] = int(hash32(uint32_t(patch)) & 255);
                rgb[1] = int(hash32(uint32_t(patch) + 77) & 255);
                rgb[2] = int(hash32(uint32_t(patch) + 191) & 255);
            } else if (y >= 300 && y < 420 && x >= 600 && x < 3800) {
                // Heading: bold dark-blue strokes.
                if (hash32(uint32_t(x / 22) * 31u + uint32_t((y - 300) / 40)) % 3 != 0 && x % 22 < 15) {
                    rgb[0] = 20 + grain;
                    rgb[1] = 40 + grain;
                    rgb[2] = 120 + grain;
                }
            } else if (y >= 600 && y < 6700 && x >= 500 && x < 4460 && (x < 2380 || x >= 2580)) {
                // Body text: lines 50 pixels apart, glyph cells of 18 x 30.
                int line = (y - 600) / 50, inLine = (y - 600) % 50;
                int cell = x / 18, inCell = x % 18;
                uint32_t g = hash32(uint32_t(line) * 4099u + uint32_t(cell));
                bool word = (g % 7) != 0 && (hash32(uint32_t(line) * 17u + uint32_t(x / 260)) % 9) != 0;
                if (word && inLine < 30) {
                    bool stem = inCell >= int(2 + g % 6) && inCell < int(5 + g % 6);
                    bool bar = (inLine >= int(g >> 8) % 24 && inLine < int(g >> 8) % 24 + 3) && inCell < 14;
                    bool bowl = ((g >> 16) & 1) && inCell >= 4 && inCell < 13 && (inLine == 10 || inLine == 27);
                    if (stem || bar || bowl) rgb[0] = rgb[1] = rgb[2] = 35 + grain * 2;
                }
            }
            if (channels == 1) {
                int v = (rgb[0] * 77 + rgb[1] * 150 + rgb[2] * 29 + 128) >> 8;
                row[x] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
            } else {
                for (int c = 0; c < 3; ++c) row[3 * x + c] = uint8_t(rgb[c] < 0 ? 0 : rgb[c] > 255 ? 255 : rgb[c]);
            }
        }
    }
    return page;
}

// ------------------------------------------------------- JPEG wrapping

void put16(Bytes& b, int v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

// The chunks' entropy-coded data as one baseline JPEG scan, a restart marker
// between bands. No DHT segment: the decoder uses the standard tables.
Bytes wrapAsJpeg(const Bytes& stream, int channels) {
    Wicket tables(1);
    tables.QualityFactor(QUALITY);
    Bytes j = {0xFF, 0xD8};
    j.insert(j.end(), {0xFF, 0xDB});
    put16(j, 2 + 65 * (channels == 3 ? 2 : 1));
    for (int t = 0; t < (channels == 3 ? 2 : 1); ++t) {
        j.push_back(uint8_t(t));
        const int* dq = t ? tables.m_aiChrominanceDequantTable : tables.m_aiLuminanceDequantTable;
        for (int k = 0; k < 64; ++k) j.push_back(uint8_t(dq[WICKET_NATURAL_ORDER[k]]));
    }
    j.insert(j.end(), {0xFF, 0xC0});
    put16(j, 8 + 3 * channels);
    j.push_back(8);
    put16(j, PAGE_HEIGHT);
    put16(j, PAGE_WIDTH);
    j.push_back(uint8_t(channels));
    for (int c = 0; c < channels; ++c) j.insert(j.end(), {uint8_t(c + 1), 0x11, uint8_t(c ? 1 : 0)});
    j.insert(j.end(), {0xFF, 0xDD});
    put16(j, 4);
    put16(j, (PAGE_WIDTH / 8) * (BAND_LINES / 8));
    j.insert(j.end(), {0xFF, 0xDA});
    put16(j, 6 + 2 * channels);
    j.push_back(uint8_t(channels));
    for (int c = 0; c < channels; ++c) j.insert(j.end(), {uint8_t(c + 1), uint8_t(c ? 0x11 : 0x00)});
    j.insert(j.end(), {0x00, 0x3F, 0x00});
    size_t pos = 0;
    int band = 0;
    while (pos + WICKET_HEADER_SIZE <= stream.size()) {
        uint32_t size = readBE32(stream.data() + pos, WICKET_HEADER_SIZE, 0);
        if (band > 0) j.insert(j.end(), {0xFF, uint8_t(0xD0 + (band - 1) % 8)});
        // Without the two look-ahead bytes the encoder appends.
        j.insert(j.end(), stream.begin() + long(pos) + WICKET_HEADER_SIZE,
                 stream.begin() + long(pos + size) - WICKET_LOOKAHEAD_BYTES);
        pos += size;
        ++band;
    }
    j.insert(j.end(), {0xFF, 0xD9});
    return j;
}

// ----------------------------------------------------------- the decoders

struct JpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    int warnings = 0;
};

void jpegErrorExit(j_common_ptr cinfo) {
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    fprintf(stderr, "libjpeg error: %s\n", text);
    longjmp(reinterpret_cast<JpegError*>(cinfo->err)->jump, 1);
}

void jpegMessage(j_common_ptr cinfo, int level) {
    if (level < 0) reinterpret_cast<JpegError*>(cinfo->err)->warnings++;
}

// Decodes the JPEG into out; returns the number of warnings, -1 on error.
int decodeJpeg(const Bytes& jpeg, uint8_t* out, int channels) {
    jpeg_decompress_struct cinfo;
    JpegError err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jpegErrorExit;
    err.mgr.emit_message = jpegMessage;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return -1;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, jpeg.data(), (unsigned long)jpeg.size());
    jpeg_read_header(&cinfo, TRUE);
    cinfo.dct_method = JDCT_ISLOW;
    cinfo.out_color_space = channels == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_start_decompress(&cinfo);
    const size_t stride = size_t(PAGE_WIDTH) * channels;
    JSAMPROW rows[16];
    while (cinfo.output_scanline < cinfo.output_height) {
        int n = 0;
        for (; n < 16 && cinfo.output_scanline + unsigned(n) < cinfo.output_height; ++n)
            rows[n] = out + (cinfo.output_scanline + unsigned(n)) * stride;
        jpeg_read_scanlines(&cinfo, rows, JDIMENSION(n));
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return err.warnings;
}

// Decodes the Wicket stream band by band through the chunk decompressor.
bool decodeQuarto(CDecompWicket& dec, const Bytes& stream, uint8_t* out, int channels) {
    dec.StartDecomp(PAGE_WIDTH, PAGE_HEIGHT, channels == 3 ? 2 : 1, 8 * channels);
    const long stride = long(PAGE_WIDTH) * channels;
    long row = 0;
    while (row < PAGE_HEIGHT) {
        int consumed = 0, produced = 0;
        long left = (PAGE_HEIGHT - row) * stride;
        int rc = dec.Decomp(const_cast<uint8_t*>(stream.data()), int(stream.size()), &consumed, out + row * stride,
                            int(left), &produced);
        if (rc != CDecomp::DECOMP_LINE_COMPLETED || produced <= 0) return false;
        row += produced / stride;
    }
    return true;
}

// The plain reference decoder, band by band.
bool decodeReference(const Bytes& stream, uint8_t* out, int channels) {
    Bytes image;
    int width = 0;
    if (wicketref::decodeStream(stream.data(), stream.size(), channels, &image, &width) != 0 || width != PAGE_WIDTH ||
        image.size() != size_t(PAGE_WIDTH) * PAGE_HEIGHT * channels)
        return false;
    memcpy(out, image.data(), image.size());
    return true;
}

// libjpeg-turbo's own quality scaling of its own copy of the Annex K tables.
bool tablesMatchLibjpeg() {
    jpeg_compress_struct c;
    jpeg_error_mgr e;
    c.err = jpeg_std_error(&e);
    jpeg_create_compress(&c);
    c.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, QUALITY, TRUE);
    Wicket w(1);
    w.QualityFactor(QUALITY);
    bool same = true;
    for (int i = 0; i < 64; ++i) {
        same = same && c.quant_tbl_ptrs[0]->quantval[i] == unsigned(w.m_aiLuminanceDequantTable[i]) &&
               c.quant_tbl_ptrs[1]->quantval[i] == unsigned(w.m_aiChrominanceDequantTable[i]);
    }
    jpeg_destroy_compress(&c);
    return same;
}

// --------------------------------------------------------------- fixtures

struct Mode {
    int channels = 0;
    Bytes stream, jpeg, quartoOut, jpegOut;
    long outputBytes() const { return long(PAGE_WIDTH) * PAGE_HEIGHT * channels; }
};
Mode g_colour, g_grey;

bool prepare(Mode& m, int channels) {
    m.channels = channels;
    Bytes page = makePage(channels);
    WicketEncodeOptions opt;
    opt.iQuality = QUALITY;
    opt.iBandLines = BAND_LINES;
    opt.bStuffing = true;
    m.stream = wicketEncodeImage(page.data(), PAGE_WIDTH, PAGE_HEIGHT, channels, opt);
    m.jpeg = wrapAsJpeg(m.stream, channels);
    m.quartoOut.assign(size_t(m.outputBytes()), 0);
    m.jpegOut.assign(size_t(m.outputBytes()), 0);
    const char* name = channels == 3 ? "colour" : "grey";
    printf("%s: %.1f MB of pixels, Wicket stream %.2f MB (%zu bytes), JPEG %zu bytes\n", name,
           m.outputBytes() / 1e6, m.stream.size() / 1e6, m.stream.size(), m.jpeg.size());

    CDecompWicket dec(1);
    if (!decodeQuarto(dec, m.stream, m.quartoOut.data(), channels)) {
        fprintf(stderr, "%s: quarto decoding failed\n", name);
        return false;
    }
    int warnings = decodeJpeg(m.jpeg, m.jpegOut.data(), channels);
    if (warnings != 0) {
        fprintf(stderr, "%s: libjpeg-turbo reported %d warnings or an error\n", name, warnings);
        return false;
    }
    if (channels == 1) {
        if (m.quartoOut != m.jpegOut) {
            fprintf(stderr, "grey: quarto and libjpeg-turbo pixels differ\n");
            return false;
        }
        printf("grey: quarto and libjpeg-turbo give identical pixels\n");
    } else {
        Bytes ref(size_t(m.outputBytes()));
        if (!decodeReference(m.stream, ref.data(), channels) || ref != m.quartoOut) {
            fprintf(stderr, "colour: quarto differs from the reference decoder\n");
            return false;
        }
        // libjpeg-turbo clamps Y, Cb and Cr to 0..255 before its conversion and
        // rounds differently; the Wicket formulas convert the transform's values
        // as they are. Apart from ringing at sharp edges the two stay within 2.
        long far = 0;
        int maxDiff = 0;
        for (size_t i = 0; i < ref.size(); ++i) {
            int d = std::abs(int(ref[i]) - int(m.jpegOut[i]));
            maxDiff = std::max(maxDiff, d);
            if (d > 2) ++far;
        }
        printf("colour: quarto identical to the reference decoder; against libjpeg-turbo's own YCbCr "
               "conversion %.4f%% of the bytes differ by more than 2 (at most %d)\n",
               100.0 * double(far) / double(ref.size()), maxDiff);
        if (far * 100 > long(ref.size())) return false;
    }
    // Every kernel level gives the same bytes.
    for (int level = WICKET_SIMD_SCALAR; level < wicketBestSimdLevel(); ++level) {
        Bytes other(size_t(m.outputBytes()));
        dec.GetWicket()->SetSimdLevel(level);
        if (!decodeQuarto(dec, m.stream, other.data(), channels) || other != m.quartoOut) {
            fprintf(stderr, "%s: kernel level %d gives other pixels\n", name, level);
            return false;
        }
    }
    return true;
}

void BM_Quarto(benchmark::State& state, Mode* m, int level) {
    CDecompWicket dec(1);
    dec.GetWicket()->SetSimdLevel(level);
    for (auto _ : state) {
        if (!decodeQuarto(dec, m->stream, m->quartoOut.data(), m->channels)) state.SkipWithError("decode failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * m->outputBytes());
}

void BM_Libjpeg(benchmark::State& state, Mode* m) {
    for (auto _ : state) {
        if (decodeJpeg(m->jpeg, m->jpegOut.data(), m->channels) != 0) state.SkipWithError("decode failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * m->outputBytes());
}

// ------------------------------------------------------- whole programs

extern "C" char** environ;

#ifndef QUARTO_WICKET_TOOL
#define QUARTO_WICKET_TOOL "quarto-wicket"
#endif

struct ProgramRun {
    double dCpu = 0, dWall = 0;  // seconds
    long lPeakKb = 0;
};

// Runs argv (found on PATH) with its output streams on /dev/null; false unless
// it exits with 0.
bool runTimed(const std::vector<std::string>& argv, ProgramRun* r) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return false;
    int status = 0;
    rusage ru;
    if (wait4(pid, &status, 0, &ru) != pid) return false;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    r->dCpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    r->dWall = double(t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
    r->lPeakKb = ru.ru_maxrss;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The programs are started by a small process forked before the benchmark
// grows: a process's peak resident size (ru_maxrss) carries over from the
// memory it was started from, so children of the benchmark would all report
// its 600 MB. The launcher takes NUL-separated command lines on a pipe and
// answers each with a ProgramRun and the exit verdict.
class Launcher {
public:
    bool start() {
        int req[2], ans[2];
        if (pipe(req) != 0 || pipe(ans) != 0) return false;
        pid = fork();
        if (pid < 0) return false;
        if (pid == 0) {
            close(req[1]);
            close(ans[0]);
            qt::resetResidentPeak();
            long base = qt::residentKb("VmRSS");
            if (writeAll(ans[1], &base, sizeof base)) serve(req[0], ans[1]);
            _exit(0);
        }
        close(req[0]);
        close(ans[1]);
        iRequest = req[1];
        iAnswer = ans[0];
        return readAll(iAnswer, &lBaseKb, sizeof lBaseKb);
    }
    ~Launcher() {
        if (pid <= 0) return;
        close(iRequest);
        close(iAnswer);
        waitpid(pid, nullptr, 0);
    }
    bool run(const std::vector<std::string>& argv, ProgramRun* r) {
        std::string line;
        for (const std::string& a : argv) line += a + '\0';
        uint32_t len = uint32_t(line.size());
        char ok = 0;
        return pid > 0 && writeAll(iRequest, &len, sizeof len) && writeAll(iRequest, line.data(), len) &&
               readAll(iAnswer, r, sizeof *r) && readAll(iAnswer, &ok, 1) && ok == 1;
    }
    // The launcher's own resident size, the floor of every peak reported.
    long lBaseKb = 0;

private:
    static bool writeAll(int fd, const void* p, size_t n) {
        for (const char* c = static_cast<const char*>(p); n > 0;) {
            ssize_t w = write(fd, c, n);
            if (w <= 0) return false;
            c += w;
            n -= size_t(w);
        }
        return true;
    }
    static bool readAll(int fd, void* p, size_t n) {
        for (char* c = static_cast<char*>(p); n > 0;) {
            ssize_t got = read(fd, c, n);
            if (got <= 0) return false;
            c += got;
            n -= size_t(got);
        }
        return true;
    }
    static void serve(int in, int out) {
        for (uint32_t len; readAll(in, &len, sizeof len) && len < (1u << 16);) {
            std::string line(len, '\0');
            if (!readAll(in, &line[0], len)) break;
            std::vector<std::string> argv;
            for (size_t p = 0; p < line.size(); p = line.find('\0', p) + 1) argv.push_back(line.c_str() + p);
            ProgramRun r;
            char ok = runTimed(argv, &r) ? 1 : 0;
            if (!writeAll(out, &r, sizeof r) || !writeAll(out, &ok, 1)) break;
        }
    }
    pid_t pid = -1;
    int iRequest = -1, iAnswer = -1;
};
Launcher g_launcher;

struct Program {
    std::vector<std::string> vArgv;
    ProgramRun best;  // least CPU time of the runs
    bool bRan = false;
};
Program g_quartoTool, g_djpeg;

// One iteration runs the program once; the time reported is its CPU time.
void BM_Program(benchmark::State& state, Program* p) {
    for (auto _ : state) {
        ProgramRun r;
        if (!g_launcher.run(p->vArgv, &r)) {
            state.SkipWithError("the program failed");
            return;
        }
        state.SetIterationTime(r.dCpu);
        if (!p->bRan || r.dCpu < p->best.dCpu) p->best = r;
        p->bRan = true;
    }
}

// The colour page as a Wicket stream and as a baseline JPEG in dir, and the
// two command lines; checks that quarto-wicket writes the decoder's pixels.
bool prepareTools(const qt::TempDir& dir) {
    const std::string wkt = dir.file("page.wkt"), jpg = dir.file("page.jpg");
    qt::writeFile(wkt, std::string(g_colour.stream.begin(), g_colour.stream.end()));
    qt::writeFile(jpg, std::string(g_colour.jpeg.begin(), g_colour.jpeg.end()));
    g_quartoTool.vArgv = {QUARTO_WICKET_TOOL, "decode", "--channels", "3", wkt, dir.file("quarto.ppm")};
    g_djpeg.vArgv = {"djpeg", "-dct", "int", "-outfile", dir.file("djpeg.ppm"), jpg};
    ProgramRun r;
    if (!g_launcher.run(g_quartoTool.vArgv, &r)) {
        fprintf(stderr, "quarto-wicket decode failed\n");
        return false;
    }
    const std::string head = "P6\n" + std::to_string(PAGE_WIDTH) + " " + std::to_string(PAGE_HEIGHT) + "\n255\n";
    const std::string ppm = qt::readFile(dir.file("quarto.ppm"));
    if (ppm.compare(0, head.size(), head) != 0 || ppm.size() != head.size() + g_colour.quartoOut.size() ||
        memcmp(ppm.data() + head.size(), g_colour.quartoOut.data(), g_colour.quartoOut.size()) != 0) {
        fprintf(stderr, "quarto-wicket decode wrote other pixels than the decoder\n");
        return false;
    }
    if (!g_launcher.run(g_djpeg.vArgv, &r)) {
        fprintf(stderr, "djpeg failed or is missing (package libjpeg-turbo-progs)\n");
        return false;
    }
    return qt::readFile(dir.file("djpeg.ppm")).size() == ppm.size();
}

using bench::RatioReporter;

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (!g_launcher.start()) {
        fprintf(stderr, "cannot start the program launcher\n");
        return 1;
    }
    if (!tablesMatchLibjpeg()) {
        fprintf(stderr, "quality-scaled tables differ from libjpeg-turbo's\n");
        return 1;
    }
    if (!prepare(g_colour, 3) || !prepare(g_grey, 1)) return 1;
    const int best = wicketBestSimdLevel();
    const char* levelName = best == WICKET_SIMD_AVX2 ? "avx2" : best == WICKET_SIMD_SSE2 ? "sse2" : "scalar";
    printf("quarto kernels: %s\n", levelName);

    auto reg = [](benchmark::internal::Benchmark* b) {
        b->Unit(benchmark::kMillisecond)->Repetitions(5)->MinTime(1.0);
    };
    reg(benchmark::RegisterBenchmark("quarto_colour", BM_Quarto, &g_colour, best));
    reg(benchmark::RegisterBenchmark("libjpeg_colour", BM_Libjpeg, &g_colour));
    reg(benchmark::RegisterBenchmark("quarto_grey", BM_Quarto, &g_grey, best));
    reg(benchmark::RegisterBenchmark("libjpeg_grey", BM_Libjpeg, &g_grey));
    if (best > WICKET_SIMD_SSE2) {
        reg(benchmark::RegisterBenchmark("quarto_colour_sse2", BM_Quarto, &g_colour, int(WICKET_SIMD_SSE2)));
        reg(benchmark::RegisterBenchmark("quarto_grey_sse2", BM_Quarto, &g_grey, int(WICKET_SIMD_SSE2)));
    }
    qt::TempDir toolDir;
    const bool tools = prepareTools(toolDir);
    if (tools) {
        auto regTool = [](benchmark::internal::Benchmark* b) {
            b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3)->Repetitions(3);
        };
        regTool(benchmark::RegisterBenchmark("tool_quarto_wicket_decode", BM_Program, &g_quartoTool));
        regTool(benchmark::RegisterBenchmark("tool_djpeg", BM_Program, &g_djpeg));
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    printf("\nFastest of the repetitions, 600 dpi A4 page (4960 x 7016), quality 75, CPU time of the decoding "
           "thread (wall time in brackets):\n");
    for (const char* mode : {"colour", "grey"}) {
        const Mode& m = std::string(mode) == "colour" ? g_colour : g_grey;
        std::string q = std::string("quarto_") + mode, l = std::string("libjpeg_") + mode;
        if (!reporter.best.count(q) || !reporter.best.count(l)) continue;
        const RatioReporter::Best &bq = reporter.best[q], &bl = reporter.best[l];
        printf("%-6s ratio quarto_time / libjpeg_time = %.3f (%.3f)   quarto %.1f ms, %.0f MB/s; "
               "libjpeg-turbo %.1f ms, %.0f MB/s\n",
               mode, bq.cpu / bl.cpu, bq.real / bl.real, bq.cpu, m.outputBytes() / bq.cpu / 1e3, bl.cpu,
               m.outputBytes() / bl.cpu / 1e3);
        std::string s = q + "_sse2";
        if (reporter.best.count(s))
            printf("%-6s quarto with SSE2 kernels only: %.1f ms, ratio %.3f\n", mode, reporter.best[s].cpu,
                   reporter.best[s].cpu / bl.cpu);
    }
    if (tools && g_quartoTool.bRan && g_djpeg.bRan) {
        const ProgramRun &q = g_quartoTool.best, &d = g_djpeg.best;
        printf("\nWhole process, colour page to a PPM file, fastest by CPU time (user + system) of 9 runs each:\n"
               "  ratio quarto-wicket decode / djpeg -dct int = %.3f (wall %.3f)\n"
               "  quarto-wicket: %.1f ms CPU, %.1f ms wall, peak resident %.1f MB\n"
               "  djpeg:         %.1f ms CPU, %.1f ms wall, peak resident %.1f MB\n"
               "  (a peak is never below the %.1f MB of the process that starts the programs)\n",
               q.dCpu / d.dCpu, q.dWall / d.dWall, q.dCpu * 1e3, q.dWall * 1e3, q.lPeakKb / 1024.0, d.dCpu * 1e3,
               d.dWall * 1e3, d.lPeakKb / 1024.0, g_launcher.lBaseKb / 1024.0);
    } else if (!tools) {
        printf("\nquarto-wicket against djpeg: not measured (see the message above)\n");
    }
    benchmark::Shutdown();
    return 0;
}
