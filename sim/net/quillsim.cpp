// quarto-quillsim: stands in for the external network scan program. It records
// the argument vector it was started with and leaves the page files and side
// files that a real scan leaves, with pages drawn from the simulator's page
// formula; a job file named by QUARTO_QUILLSIM sets the page geometry, the file
// resolution, the side-file values, the page count and the faults. File
// formats and job statements: sim/README.md, "The simulated network scanner".
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "NetSimText.h"
#include "WicketEncoder.h"

namespace {

const char* const JOB_VARIABLE = "QUARTO_QUILLSIM";
const long long MAX_SIDE = 20000;
const long long MAX_PIXELS = 50000000;
const int MAX_PAGES = 100;
const long long MAX_NUMBER = 1LL << 40;
const int PAGE_SHIFT_X = 64;  // page p is the formula at (X + 64 (p - 1), Y)
const int WICKET_FAMILY_A = 14;
const int WICKET_FAMILY_B = 15;
const int WICKET_MIN_DPI = 1200;

enum Mode { LINEART = 0, GRAY = 1, COLOR = 2 };

struct PageFault {
    bool bNoSide = false;
    bool bCorrupt = false;
    long long llTruncate = -1;
    long long llClaimW = -1, llClaimH = -1;
};

struct Job {
    std::string szRecord;
    long long llWidth = 256, llHeight = 128, llDpi = 0, llFamily = 0, llRotate = 0, llPages = 1;
    long long llQuality = 75, llBandLines = 32, llExit = 0;
    bool bNoSideAll = false;
    std::map<long long, PageFault> faults;
};

int fail(const char* what, const std::string& detail) {
    fprintf(stderr, "quillsim: %s%s\n", what, detail.c_str());
    return 2;
}

// One statement into the job; false when it is not one.
bool applyStatement(const netsim::Statement& st, Job* job) {
    const std::vector<std::string>& w = st.words;
    const std::string& key = w[0];
    if (key == "record") {
        job->szRecord = st.szRest;
        return !job->szRecord.empty();
    }
    std::vector<long long> n(w.size(), 0);
    for (size_t i = 1; i < w.size(); ++i)
        if (!netsim::parseNumber(w[i], -MAX_NUMBER, MAX_NUMBER, &n[i])) return false;
    // Count numbers after the key, the first within [lo, hi].
    auto num = [&](size_t count, long long lo, long long hi) {
        return w.size() == count + 1 && n[1] >= lo && n[1] <= hi;
    };
    // A page number, then count - 1 numbers within [lo, hi].
    auto pageNum = [&](size_t count, long long lo, long long hi) {
        bool ok = num(count, 1, MAX_PAGES);
        for (size_t i = 2; ok && i <= count; ++i) ok = n[i] >= lo && n[i] <= hi;
        return ok;
    };
    if (key == "width" && num(1, 8, MAX_SIDE)) job->llWidth = n[1];
    else if (key == "height" && num(1, 1, MAX_SIDE)) job->llHeight = n[1];
    else if (key == "dpi" && num(1, 1, 100000)) job->llDpi = n[1];
    else if (key == "family" && num(1, 0, 1000000)) job->llFamily = n[1];
    else if (key == "rotate" && num(1, -100000, 100000)) job->llRotate = n[1];
    else if (key == "pages" && num(1, 1, MAX_PAGES)) job->llPages = n[1];
    else if (key == "quality" && num(1, 1, 100)) job->llQuality = n[1];
    else if (key == "band_lines" && num(1, 8, 4096) && n[1] % 8 == 0) job->llBandLines = n[1];
    else if (key == "exit" && num(1, 0, 255)) job->llExit = n[1];
    else if (key == "no_side" && num(1, 0, MAX_PAGES) && n[1] == 0) job->bNoSideAll = true;
    else if (key == "no_side" && pageNum(1, 0, 0)) job->faults[n[1]].bNoSide = true;
    else if (key == "corrupt" && pageNum(1, 0, 0)) job->faults[n[1]].bCorrupt = true;
    else if (key == "truncate" && pageNum(2, 0, MAX_NUMBER)) job->faults[n[1]].llTruncate = n[2];
    else if (key == "size" && pageNum(3, 0, MAX_NUMBER)) job->faults[n[1]].llClaimW = n[2];
    else return false;
    if (key == "size") job->faults[n[1]].llClaimH = n[3];
    return true;
}

bool loadJob(const std::string& file, Job* job) {
    if (!netsim::loadStatements(file, "quillsim", [&](const netsim::Statement& st) {
            return applyStatement(st, job) ? std::string() : std::string("bad statement");
        }))
        return false;
    if (job->llWidth * job->llHeight > MAX_PIXELS) return fail("page too large", ""), false;
    return true;
}

// The value of "--name=value" among the arguments, or "" when absent.
std::string argument(int argc, char** argv, const std::string& name) {
    const std::string prefix = "--" + name + "=";
    for (int i = 1; i < argc; ++i)
        if (strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) return argv[i] + prefix.size();
    return std::string();
}

// The page formula at X + shift: colour R = X, G = Y, B = X + Y; grey X + 2Y;
// line art bit 1 where X div 8 + Y div 8 is odd, most significant bit first.
std::vector<uint8_t> pagePixels(Mode mode, int width, int height, int page) {
    const unsigned shift = (unsigned)(PAGE_SHIFT_X * (page - 1));
    const size_t line = mode == LINEART ? (size_t)width / 8 : mode == GRAY ? (size_t)width : 3 * (size_t)width;
    std::vector<uint8_t> px(line * (size_t)height, 0);
    for (int y = 0; y < height; ++y) {
        uint8_t* row = px.data() + line * (size_t)y;
        const unsigned Y = (unsigned)y;
        for (int x = 0; x < width; ++x) {
            const unsigned X = (unsigned)x + shift;
            if (mode == COLOR) {
                row[3 * x] = (uint8_t)X;
                row[3 * x + 1] = (uint8_t)Y;
                row[3 * x + 2] = (uint8_t)(X + Y);
            } else if (mode == GRAY) {
                row[x] = (uint8_t)(X + 2 * Y);
            } else if (((X / 8 + Y / 8) & 1u) != 0) {
                row[x / 8] |= (uint8_t)(0x80u >> (x % 8));
            }
        }
    }
    return px;
}

std::string zlibPage(Mode mode, int width, int height, long long dpi, const std::vector<uint8_t>& px,
                     const PageFault& f) {
    static const char* const MAGIC[] = {"P4", "P5", "P6"};
    const long long w = f.llClaimW >= 0 ? f.llClaimW : width;
    const long long h = f.llClaimH >= 0 ? f.llClaimH : height;
    std::string s = std::string(MAGIC[mode]) + "\n#QVTRES=" + std::to_string(dpi) + "\n" + std::to_string(w) + " " +
                    std::to_string(h) + "\n" + (mode == LINEART ? "" : "255\n");
    uLongf len = compressBound(px.size());
    std::vector<Bytef> z(len);
    if (compress(z.data(), &len, px.data(), px.size()) != Z_OK) return std::string();
    const size_t header = s.size();
    s.append(reinterpret_cast<const char*>(z.data()), len);
    // Past the two-byte zlib header: all 1 bits start a block of the reserved type.
    if (f.bCorrupt)
        for (size_t i = header + 2; i < s.size(); ++i) s[i] = (char)0xFF;
    return s;
}

std::string wicketPage(Mode mode, int width, int height, const Job& job, const std::vector<uint8_t>& px,
                       const PageFault& f) {
    WicketEncodeOptions opt;
    opt.iQuality = (int)job.llQuality;
    opt.iBandLines = (int)job.llBandLines;
    opt.bStuffing = true;
    std::vector<uint8_t> bands = wicketEncodeImage(px.data(), width, height, mode == COLOR ? 3 : 1, opt);
    std::string s(bands.begin(), bands.end());
    if (s.size() < 16) return s;
    if (f.llClaimW >= 0) {
        std::string first = s.substr(0, 16);
        uint32_t size = (uint32_t)((uint8_t)first[0] << 24 | (uint8_t)first[1] << 16 | (uint8_t)first[2] << 8 |
                                   (uint8_t)first[3]);
        uint8_t header[16];
        wicketPutHeader(header, size, (uint32_t)f.llClaimH, (uint32_t)f.llClaimW, (uint32_t)job.llQuality);
        s.replace(0, 16, reinterpret_cast<const char*>(header), 16);
    }
    if (f.bCorrupt) {
        // The entropy-coded data of every band becomes 1 bits: no code matches.
        size_t pos = 0;
        while (pos + 16 <= s.size()) {
            uint32_t size = (uint32_t)((uint8_t)s[pos] << 24 | (uint8_t)s[pos + 1] << 16 |
                                       (uint8_t)s[pos + 2] << 8 | (uint8_t)s[pos + 3]);
            if (size < 16 || pos + size > s.size()) break;
            for (size_t i = pos + 16; i < pos + size; ++i) s[i] = (char)0xFF;
            pos += size;
        }
    }
    return s;
}

// Creates or replaces a file in the scan directory, never through a link.
bool writeFile(const std::string& path, const std::string& data) {
    if (netsim::writeToFile(path, data, false)) return true;
    fail("cannot write ", path + ": " + strerror(errno));
    return false;
}

// The side file's name: the page file's with its first ".pxm" replaced by ".conf".
std::string sideName(const std::string& page) {
    std::string s = page;
    size_t pos = s.find(".pxm");
    if (pos != std::string::npos) s.replace(pos, 4, ".conf");
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    Job job;
    const char* jobFile = getenv(JOB_VARIABLE);
    if (jobFile != nullptr && *jobFile != '\0' && !loadJob(jobFile, &job)) return 2;
    if (!job.szRecord.empty()) {
        std::string line;
        for (int i = 0; i < argc; ++i) line += (i ? " " : "") + netsim::escapeArgument(argv[i]);
        if (!netsim::writeToFile(job.szRecord, line + "\n", true)) return fail("cannot append to ", job.szRecord);
    }

    const std::string fileName = argument(argc, argv, "filename");
    long long mode = -1, dpi = 0;
    if (fileName.empty()) return fail("no --filename", "");
    if (!netsim::parseNumber(argument(argc, argv, "mode"), 0, 2, &mode)) return fail("bad --mode", "");
    if (!netsim::parseNumber(argument(argc, argv, "resolution"), 1, 100000, &dpi)) return fail("bad --resolution", "");

    const Mode m = (Mode)mode;
    const int width = (int)(m == LINEART ? job.llWidth - job.llWidth % 8 : job.llWidth);
    const int height = (int)job.llHeight;
    const bool wicket = (job.llFamily == WICKET_FAMILY_A || job.llFamily == WICKET_FAMILY_B) &&
                        dpi >= WICKET_MIN_DPI && m != LINEART;
    for (int page = 1; page <= job.llPages; ++page) {
        const std::string name = page == 1 ? fileName : fileName + "." + std::to_string(page - 1);
        const PageFault f = job.faults.count(page) ? job.faults[page] : PageFault();
        const std::vector<uint8_t> px = pagePixels(m, width, height, page);
        std::string data = wicket ? wicketPage(m, width, height, job, px, f)
                                  : zlibPage(m, width, height, job.llDpi > 0 ? job.llDpi : dpi, px, f);
        if (f.llTruncate >= 0 && (size_t)f.llTruncate < data.size()) data.resize((size_t)f.llTruncate);
        if (!writeFile(name, data)) return 1;
        if (job.bNoSideAll || f.bNoSide) continue;
        const std::string side =
            "FAMILYID=" + std::to_string(job.llFamily) + "\nROTATE=" + std::to_string(job.llRotate) + "\n";
        if (!writeFile(sideName(name), side)) return 1;
    }
    return (int)job.llExit;
}
