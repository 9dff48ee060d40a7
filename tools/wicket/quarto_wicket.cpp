// quarto-wicket: decodes a Wicket stream (chunks with their 16-byte headers) to
// a PGM/PPM image, or encodes such an image into a Wicket stream.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DecompWicket.h"
#include "Wicket.h"
#include "WicketEncoder.h"
#include "util.h"

namespace {

const long MAX_IMAGE_BYTES = INT_MAX;  // the decoder's output limit
const int EXIT_DATA_ERROR = 1;
const int EXIT_USAGE = 2;

const char USAGE[] =
    "usage:\n"
    "  quarto-wicket decode [--channels 1|3] [--no-stuffing] IN OUT.pnm\n"
    "      Decodes the Wicket chunks in IN (each a 16-byte big-endian header:\n"
    "      size, lines, width, quality; then the coded band) into a PGM\n"
    "      (--channels 1) or PPM (--channels 3, the default) image. All chunks\n"
    "      must have the same width. --no-stuffing reads data written without\n"
    "      byte stuffing (then widths must be multiples of 16 in colour, 48 in grey).\n"
    "  quarto-wicket encode [--quality Q] [--band-lines N] [--no-stuffing] IN.pnm OUT\n"
    "      Encodes a binary PGM (P5) or PPM (P6) image with maxval 255 into\n"
    "      chunks of N lines (default 32) at quality Q (1..100, default 75).\n"
    "  quarto-wicket --help\n"
    "Truncated or corrupt input is reported with the chunk index and its byte\n"
    "offset; the exit status is then 1 and OUT is not written. OUT is written\n"
    "as a new file next to it and renamed into place once complete.\n";

int usage(const char* message) {
    if (message) fprintf(stderr, "quarto-wicket: %s\n", message);
    fputs(USAGE, stderr);
    return EXIT_USAGE;
}

bool readFile(const char* path, std::vector<uint8_t>& data) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fprintf(stderr, "quarto-wicket: cannot open %s: %s\n", path, strerror(errno));
        return false;
    }
    data.clear();
    struct stat sb;
    if (fstat(fd, &sb) == 0 && S_ISREG(sb.st_mode) && sb.st_size > 0 && sb.st_size <= MAX_IMAGE_BYTES)
        data.reserve(size_t(sb.st_size));
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            fprintf(stderr, "quarto-wicket: cannot read %s: %s\n", path, strerror(errno));
            close(fd);
            return false;
        }
        if (n == 0) break;
        if (data.size() + size_t(n) > size_t(MAX_IMAGE_BYTES)) {
            fprintf(stderr, "quarto-wicket: %s is too large\n", path);
            close(fd);
            return false;
        }
        data.insert(data.end(), buf, buf + n);
    }
    close(fd);
    return true;
}

// The output file, written as a new file next to OUT (created with O_EXCL, so
// never through a link or into a file that exists) and renamed to OUT only
// when complete: an error on the way leaves OUT as it was and removes the rest.
class Output {
public:
    explicit Output(const char* path) : szPath(path), szTemp(std::string(path) + ".XXXXXX") {}
    ~Output() {
        if (iFd >= 0) close(iFd);
        if (bCreated) unlink(szTemp.c_str());
    }
    bool create() {
        iFd = mkostemp(&szTemp[0], O_CLOEXEC);
        if (iFd < 0) return fail("create");
        bCreated = true;
        // mkostemp makes the file 0600; give it what a plain create would.
        mode_t mask = umask(0);
        umask(mask);
        if (fchmod(iFd, 0644 & ~mask) != 0) return fail("create");
        return true;
    }
    bool write(const uint8_t* data, size_t len) {
        // writeDataToFile takes at most UINT_MAX bytes at a time.
        for (size_t done = 0; done < len;) {
            const unsigned n = unsigned(std::min<size_t>(len - done, UINT_MAX));
            if (writeDataToFile(iFd, data + done, n) != 0) return fail("write");
            done += n;
        }
        return true;
    }
    bool commit() {
        int fd = iFd;
        iFd = -1;
        if (close(fd) != 0) return fail("write");
        if (rename(szTemp.c_str(), szPath.c_str()) != 0) return fail("write");
        bCreated = false;
        return true;
    }

private:
    bool fail(const char* what) {
        fprintf(stderr, "quarto-wicket: cannot %s %s: %s\n", what, szPath.c_str(), strerror(errno));
        return false;
    }
    std::string szPath, szTemp;
    int iFd = -1;
    bool bCreated = false;
};

int chunkError(int index, long offset, const std::string& what) {
    fprintf(stderr, "quarto-wicket: chunk %d at byte offset %ld: %s\n", index, offset, what.c_str());
    return EXIT_DATA_ERROR;
}

std::string codeText(int rc) {
    switch (rc) {
        case HUFF_ERROR_NO_CODE: return "corrupt data, no Huffman code matches (261)";
        case HUFF_ERROR_DATA_EXHAUSTED: return "truncated data, the coded band ends early (513)";
        case WICKET_ERROR_WIDTH: return "width does not fit the decoder (769)";
        case WICKET_ERROR_HEIGHT: return "height does not fit the decoder (770)";
        case WICKET_ERROR_COEF_OVERRUN: return "corrupt data, coefficients run past the block (771)";
        default: return "decoder error " + std::to_string(rc);
    }
}

struct Chunk {
    long lOffset;
    uint32_t uSize, uLines, uQuality;
};

// Walks the chunk headers before anything is decoded: every chunk must be
// whole, of the first chunk's width and of a size the decoder can hold, so
// that the image's height is known for the output header. 0, or the exit
// status after the message.
int readChunks(const std::vector<uint8_t>& in, int channels, bool stuffing, std::vector<Chunk>& chunks, long& width,
               long& height) {
    width = -1;
    height = 0;
    const long size = long(in.size());
    for (long offset = 0; offset < size;) {
        const int index = int(chunks.size());
        const uint8_t* h = in.data() + offset;
        if (size - offset < WICKET_HEADER_SIZE)
            return chunkError(index, offset, "truncated header (" + std::to_string(size - offset) + " of 16 bytes)");
        uint32_t chunkSize = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_SIZE_OFFSET);
        uint32_t lines = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_HEIGHT_OFFSET);
        uint32_t w = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_WIDTH_OFFSET);
        uint32_t quality = readBE32(h, WICKET_HEADER_SIZE, WICKET_HEADER_QUALITY_OFFSET);
        if (chunkSize < (uint32_t)WICKET_HEADER_SIZE)
            return chunkError(index, offset, "corrupt header, size " + std::to_string(chunkSize) + " is below 16");
        if (chunkSize > uint64_t(size - offset))
            return chunkError(index, offset,
                              "truncated chunk, size " + std::to_string(chunkSize) + " but only " +
                                  std::to_string(size - offset) + " bytes left");
        if (w == 0 || lines == 0 || w > (uint32_t)MAX_IMAGE_BYTES || lines > (uint32_t)MAX_IMAGE_BYTES)
            return chunkError(index, offset,
                              "corrupt header, geometry " + std::to_string(w) + " x " + std::to_string(lines));
        if (width < 0) width = w;
        if (long(w) != width)
            return chunkError(index, offset,
                              "width " + std::to_string(w) + " differs from the first chunk's " + std::to_string(width));
        long align = wicketLineAlign(stuffing ? 1 : 0, channels);
        long paddedWidth = (long(w) + align - 1) / align * align;
        long paddedLines = (long(lines) + WICKET_BLOCK - 1) / WICKET_BLOCK * WICKET_BLOCK;
        long rowBytes = long(w) * channels;
        if (paddedLines > MAX_IMAGE_BYTES / (paddedWidth * channels) || height + long(lines) > MAX_IMAGE_BYTES / rowBytes)
            return chunkError(index, offset, "image too large");
        chunks.push_back(Chunk{offset, chunkSize, lines, quality});
        height += lines;
        offset += chunkSize;
    }
    if (chunks.empty()) return chunkError(0, 0, "no chunk in the input");
    return 0;
}

// Decodes chunk by chunk and writes each band's rows as soon as it is decoded,
// so only one band is ever held.
int decodeCommand(int channels, bool stuffing, const char* inPath, const char* outPath) {
    std::vector<uint8_t> in;
    if (!readFile(inPath, in)) return EXIT_DATA_ERROR;
    std::vector<Chunk> chunks;
    long width = 0, height = 0;
    if (int rc = readChunks(in, channels, stuffing, chunks, width, height)) return rc;

    Output out(outPath);
    const std::string head =
        (channels == 3 ? "P6\n" : "P5\n") + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    if (!out.create() || !out.write(reinterpret_cast<const uint8_t*>(head.data()), head.size()))
        return EXIT_DATA_ERROR;
    Wicket wicket(stuffing ? 1 : 0);
    const long align = wicketLineAlign(stuffing ? 1 : 0, channels);
    const long paddedWidth = (width + align - 1) / align * align;
    const long rowBytes = width * channels, paddedRowBytes = paddedWidth * channels;
    std::vector<uint8_t> band;
    for (size_t index = 0; index < chunks.size(); ++index) {
        const Chunk& c = chunks[index];
        const long paddedLines = (long(c.uLines) + WICKET_BLOCK - 1) / WICKET_BLOCK * WICKET_BLOCK;
        const long bandBytes = paddedRowBytes * paddedLines;
        // The decoder writes every byte of the padded band, so the buffer is
        // only ever grown, never cleared.
        if (band.size() < size_t(bandBytes)) band.resize(size_t(bandBytes));
        wicket.QualityFactor(int(c.uQuality));
        int produced = 0, used = 0;
        const uint8_t* data = in.data() + c.lOffset + WICKET_HEADER_SIZE;
        int dataLen = int(c.uSize) - WICKET_HEADER_SIZE;
        int rc = channels == 3
                     ? wicket.DecompressThreePlanes(data, dataLen, band.data(), bandBytes, int(paddedWidth),
                                                    int(paddedLines), &produced, &used)
                     : wicket.DecompressOnePlane(data, dataLen, band.data(), bandBytes, int(paddedWidth),
                                                 int(paddedLines), &produced, &used);
        if (rc != 0) return chunkError(int(index), c.lOffset, codeText(rc));
        // Rows move up over the padding so the band's lines go out in one write.
        if (paddedRowBytes != rowBytes)
            for (long y = 1; y < long(c.uLines); ++y)
                memmove(band.data() + y * rowBytes, band.data() + y * paddedRowBytes, size_t(rowBytes));
        if (!out.write(band.data(), size_t(rowBytes) * c.uLines)) return EXIT_DATA_ERROR;
    }
    return out.commit() ? 0 : EXIT_DATA_ERROR;
}

// Reads one header token of a PNM file, skipping blanks and comments.
bool pnmToken(const std::vector<uint8_t>& d, size_t& pos, long& value) {
    for (;;) {
        while (pos < d.size() && strchr(" \t\r\n", d[pos]) && d[pos] != 0) ++pos;
        if (pos < d.size() && d[pos] == '#') {
            while (pos < d.size() && d[pos] != '\n') ++pos;
            continue;
        }
        break;
    }
    if (pos >= d.size() || d[pos] < '0' || d[pos] > '9') return false;
    value = 0;
    while (pos < d.size() && d[pos] >= '0' && d[pos] <= '9') {
        value = value * 10 + (d[pos++] - '0');
        if (value > MAX_IMAGE_BYTES) return false;
    }
    return true;
}

int encodeCommand(int quality, int bandLines, bool stuffing, const char* inPath, const char* outPath) {
    std::vector<uint8_t> in;
    if (!readFile(inPath, in)) return EXIT_DATA_ERROR;
    if (in.size() < 2 || in[0] != 'P' || (in[1] != '5' && in[1] != '6')) {
        fprintf(stderr, "quarto-wicket: %s is not a binary PGM (P5) or PPM (P6) file\n", inPath);
        return EXIT_DATA_ERROR;
    }
    int channels = in[1] == '6' ? 3 : 1;
    size_t pos = 2;
    long width, height, maxval;
    if (!pnmToken(in, pos, width) || !pnmToken(in, pos, height) || !pnmToken(in, pos, maxval) ||
        pos >= in.size() || width <= 0 || height <= 0 || maxval != 255) {
        fprintf(stderr, "quarto-wicket: %s has a bad header (need width, height and maxval 255)\n", inPath);
        return EXIT_DATA_ERROR;
    }
    ++pos;  // the single blank after maxval
    if (width * height > MAX_IMAGE_BYTES / channels || in.size() - pos < size_t(width * height * channels)) {
        fprintf(stderr, "quarto-wicket: %s holds fewer pixels than its header says\n", inPath);
        return EXIT_DATA_ERROR;
    }
    WicketEncodeOptions options;
    options.iQuality = quality;
    options.iBandLines = bandLines;
    options.bStuffing = stuffing;
    std::vector<uint8_t> stream = wicketEncodeImage(in.data() + pos, int(width), int(height), channels, options);
    Output out(outPath);
    return out.create() && out.write(stream.data(), stream.size()) && out.commit() ? 0 : EXIT_DATA_ERROR;
}

bool parseInt(const char* text, long lo, long hi, int& value) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
    value = int(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(nullptr);
    std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h") {
        fputs(USAGE, stdout);
        return 0;
    }
    if (cmd != "decode" && cmd != "encode") return usage("unknown command");
    int channels = 3, quality = 75, bandLines = 32;
    bool stuffing = true;
    std::vector<const char*> files;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help") {
            fputs(USAGE, stdout);
            return 0;
        } else if (a == "--no-stuffing") {
            stuffing = false;
        } else if (cmd == "decode" && a == "--channels" && i + 1 < argc) {
            if (!parseInt(argv[++i], 1, 3, channels) || channels == 2) return usage("--channels takes 1 or 3");
        } else if (cmd == "encode" && a == "--quality" && i + 1 < argc) {
            if (!parseInt(argv[++i], 1, 100, quality)) return usage("--quality takes 1 to 100");
        } else if (cmd == "encode" && a == "--band-lines" && i + 1 < argc) {
            if (!parseInt(argv[++i], 1, 65535, bandLines)) return usage("--band-lines takes 1 to 65535");
        } else if (!a.empty() && a[0] == '-') {
            return usage(("unknown option " + a).c_str());
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.size() != 2) return usage("need an input and an output file");
    if (cmd == "decode") return decodeCommand(channels, stuffing, files[0], files[1]);
    return encodeCommand(quality, bandLines, stuffing, files[0], files[1]);
}
