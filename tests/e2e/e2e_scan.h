// Shared pieces of the end-to-end scans: the simulated scanner's page formula,
// the scan window it logged, PNM output of scanimage, the frame that
// scanimage announced, and the page geometry the option store computes.
#ifndef QUARTO_E2E_SCAN_H
#define QUARTO_E2E_SCAN_H

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "sanerun.h"
#include "testutil.h"

namespace e2e {

using Bytes = std::vector<unsigned char>;

enum Mode { LINEART, GRAY, COLOR };

inline const char* modeName(Mode m) {
    return m == LINEART ? "1-bit Black & White" : m == GRAY ? "8-bit Grayscale" : "24-bit Color";
}
// Colour code of the scan window on the wire.
inline int wireColor(Mode m) { return m == LINEART ? 1 : m == GRAY ? 2 : 3; }
inline int bitsPerPixel(Mode m) { return m == LINEART ? 1 : m == GRAY ? 8 : 24; }
inline long bytesPerLine(Mode m, long pixels) {
    return m == LINEART ? (pixels + 7) / 8 : m == GRAY ? pixels : 3 * pixels;
}

// The quarto.conf of the four models, with their shipped feature files.
const char* const MODELS_CONF =
    "usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n"
    "usb 0x2f4a 0x0402 @MODELDIR@/quarto4200.conf Quarto_4200\n"
    "usb 0x2f4a 0x0401 @MODELDIR@/quarto4010.conf Quarto_4010\n"
    "usb 0x2f4a 0x0326 @MODELDIR@/quarto3260.conf Quarto_3260\n"
    "DISCOVER_USB_FLAG=1\nDISCOVER_NET_FLAG=0\nDEVICE_LIST_ORDER_MODE=0\nSHOW_PSEUDO_NETWORK_FLAG=0\n";

inline std::string dataFile(const std::string& name) { return qt::sourceDir() + "/tests/data/" + name; }

// ---- the scan window the simulated device was asked for ----

struct Window {
    bool bFound = false;
    int iColor = 0, iWidth = 0, iLines = 0, iX = 0, iY = 0, iXres = 0, iYres = 0, iCompression = -1, iSource = -1;
};

// The last "window dev=..." record of the simulator's event log.
inline Window lastWindow(const std::string& log) {
    Window w;
    size_t pos = log.rfind("window dev=");
    if (pos == std::string::npos) return w;
    std::string line = log.substr(pos, log.find('\n', pos) - pos);
    int dev = 0;
    w.bFound = sscanf(line.c_str(),
                      "window dev=%d color=%d width=%d lines=%d x=%d y=%d xres=%d yres=%d compression=%d source=%d",
                      &dev, &w.iColor, &w.iWidth, &w.iLines, &w.iX, &w.iY, &w.iXres, &w.iYres, &w.iCompression,
                      &w.iSource) >= 9;
    return w;
}

// ---- the page formula ----

// One line of the page as the device sends it for the window: X = offset x +
// column, Y = offset y + row; colour R = X, G = Y, B = X + Y, grey X + 2Y,
// line art a checkerboard of 8 x 8 cells, most significant bit first, padded
// with 0 bits to whole bytes (all mod 256).
inline Bytes deviceLine(const Window& w, int row) {
    const unsigned Y = (unsigned)(w.iY + row);
    Bytes line;
    if (w.iColor == 1) {
        line.assign((size_t)(w.iWidth + 7) / 8, 0);
        for (int c = 0; c < w.iWidth; ++c) {
            unsigned X = (unsigned)(w.iX + c);
            if (((X / 8 + Y / 8) & 1u) != 0) line[(size_t)c / 8] |= (unsigned char)(0x80u >> (c % 8));
        }
    } else if (w.iColor == 2) {
        line.resize((size_t)w.iWidth);
        for (int c = 0; c < w.iWidth; ++c) line[(size_t)c] = (unsigned char)((unsigned)(w.iX + c) + 2 * Y);
    } else {
        line.resize((size_t)w.iWidth * 3);
        for (int c = 0; c < w.iWidth; ++c) {
            unsigned X = (unsigned)(w.iX + c);
            line[(size_t)c * 3] = (unsigned char)X;
            line[(size_t)c * 3 + 1] = (unsigned char)Y;
            line[(size_t)c * 3 + 2] = (unsigned char)(X + Y);
        }
    }
    return line;
}

// Page p (from 1) of a feeder or multi-page scan: the formula shifted by 64
// columns a page, that is the window moved right by 64 (p - 1) pixels.
inline Window pageWindow(Window w, int page) {
    w.iX += 64 * (page - 1);
    return w;
}

// ---- scanimage output ----

struct Pnm {
    char cKind = 0;  // '4' bitmap, '5' grey, '6' colour
    int iWidth = 0, iHeight = 0;
    std::string szData;  // everything after the header
    int bitsPerPixel() const { return cKind == '4' ? 1 : cKind == '5' ? 8 : 24; }
    long lineBytes() const {
        return cKind == '4' ? (iWidth + 7) / 8 : cKind == '5' ? iWidth : 3L * iWidth;
    }
    const unsigned char* line(int row) const {
        return reinterpret_cast<const unsigned char*>(szData.data()) + (size_t)row * (size_t)lineBytes();
    }
};

// Parses a binary PNM (P4, P5 or P6 with maxval 255); false with a reason when malformed.
inline bool parsePnm(const std::string& file, Pnm* img, std::string* why) {
    size_t pos = 0;
    auto token = [&](std::string* t) {
        while (pos < file.size()) {
            if (file[pos] == '#') {
                while (pos < file.size() && file[pos] != '\n') ++pos;
            } else if (isspace((unsigned char)file[pos])) {
                ++pos;
            } else {
                break;
            }
        }
        size_t start = pos;
        while (pos < file.size() && !isspace((unsigned char)file[pos])) ++pos;
        *t = file.substr(start, pos - start);
        return !t->empty();
    };
    std::string magic, w, h, maxval;
    if (!token(&magic) || magic.size() != 2 || magic[0] != 'P' || magic[1] < '4' || magic[1] > '6') {
        *why = "not a binary PNM";
        return false;
    }
    img->cKind = magic[1];
    if (!token(&w) || !token(&h) || (img->cKind != '4' && (!token(&maxval) || maxval != "255"))) {
        *why = "truncated PNM header";
        return false;
    }
    img->iWidth = atoi(w.c_str());
    img->iHeight = atoi(h.c_str());
    if (pos >= file.size() || img->iWidth <= 0 || img->iHeight <= 0) {
        *why = "bad PNM size " + w + "x" + h;
        return false;
    }
    img->szData = file.substr(pos + 1);  // one whitespace byte ends the header
    return true;
}

// What scanimage -v reported of the frame parameters the backend announced.
struct Announced {
    bool bFound = false;
    int iPixels = 0, iLines = 0, iBits = 0;
    long lBytesRead = -1;
};

inline Announced announced(const std::string& err) {
    Announced a;
    size_t pos = err.find("scanning image of size ");
    if (pos != std::string::npos)
        a.bFound = sscanf(err.c_str() + pos, "scanning image of size %dx%d pixels at %d bits/pixel", &a.iPixels,
                          &a.iLines, &a.iBits) == 3;
    pos = err.find("read ");
    while (pos != std::string::npos && sscanf(err.c_str() + pos, "read %ld bytes in total", &a.lBytesRead) != 1)
        pos = err.find("read ", pos + 1);
    return a;
}

// Compares every line of the image with expected(row); "" when all agree, else
// the first difference and the number of lines that differ.
template <typename F>
std::string compareLines(const Pnm& img, F expected) {
    const long n = img.lineBytes();
    if ((long)img.szData.size() != n * img.iHeight)
        return "image holds " + std::to_string(img.szData.size()) + " bytes, " +
               std::to_string(n * img.iHeight) + " expected";
    long badLines = 0;
    std::string first;
    for (int row = 0; row < img.iHeight; ++row) {
        Bytes want = expected(row);
        want.resize((size_t)n, 0);
        const unsigned char* got = img.line(row);
        if (memcmp(got, want.data(), (size_t)n) == 0) continue;
        if (badLines++ == 0) {
            long i = 0;
            while (got[i] == want[(size_t)i]) ++i;
            first = "line " + std::to_string(row) + " byte " + std::to_string(i) + ": got " +
                    std::to_string(got[i]) + ", expected " + std::to_string(want[(size_t)i]);
        }
    }
    return badLines == 0 ? std::string() : first + " (" + std::to_string(badLines) + " lines differ)";
}

// ---- page geometry of the option store ----

struct PageSize {
    const char* szName;
    double dWidthMm, dHeightMm;
    double dWidthMmBox1;  // width in the list of the BOXKIND 1 family
};

const PageSize A4 = {"A4", 210, 297, 210.3};
const PageSize LETTER = {"Letter", 215.9, 279.4, 215.9};
const PageSize A5 = {"A5", 148, 210, 148};
const PageSize BUSINESS_CARD = {"Business Card", 51, 89, 51};

// The simulated flatbeds are 10200/1200 inch wide.
const double BED_WIDTH_INCH = 10200 / 1200.0;

// Millimetres to pixels at dpi: cut down for the BOXKIND 1 family, rounded for the others.
inline int toPixels(double mm, int dpi, int boxKind) {
    double px = mm / 25.4 * dpi;
    return (int)(boxKind == 1 ? std::floor(px) : std::round(px));
}
inline int pagePixels(const PageSize& s, int dpi, int boxKind) {
    int px = toPixels(boxKind == 1 ? s.dWidthMmBox1 : s.dWidthMm, dpi, boxKind);
    int limit = (int)std::floor(dpi * BED_WIDTH_INCH);
    return px > limit ? limit : px;
}
inline int pageLines(const PageSize& s, int dpi, int boxKind) { return toPixels(s.dHeightMm, dpi, boxKind); }

// scanimage arguments of a plain scan to PNM on standard output.
inline std::vector<std::string> scanArgs(const std::string& device, Mode mode, const PageSize& size, int dpi) {
    return {"-d", device, "-v", "--format=pnm", "--scan-resolution", std::to_string(dpi), "--mode", modeName(mode),
            "--original-size", size.szName};
}

}  // namespace e2e

#endif
