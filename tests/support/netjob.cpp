#include "netjob.h"

#include "WicketEncoder.h"
#include "WicketReference.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

namespace qt {

NetImage netPage(NetMode mode, int width, int height, int page) {
    NetImage img;
    img.iWidth = width;
    img.iHeight = height;
    img.iBpp = mode == NET_LINEART ? 0 : mode == NET_GRAY ? 1 : 3;
    img.data.assign((size_t)(img.lineBytes() * height), 0);
    for (int y = 0; y < height; ++y) {
        unsigned char* row = img.data.data() + (size_t)(img.lineBytes() * y);
        for (int x = 0; x < width; ++x) {
            const unsigned X = (unsigned)(x + 64 * (page - 1)), Y = (unsigned)y;
            if (mode == NET_COLOR) {
                row[3 * x] = (unsigned char)(X % 256);
                row[3 * x + 1] = (unsigned char)(Y % 256);
                row[3 * x + 2] = (unsigned char)((X + Y) % 256);
            } else if (mode == NET_GRAY) {
                row[x] = (unsigned char)((X + 2 * Y) % 256);
            } else if ((X / 8 + Y / 8) % 2 == 1) {
                row[x / 8] = (unsigned char)(row[x / 8] | (0x80 >> (x % 8)));
            }
        }
    }
    return img;
}

NetImage rotatePage(const NetImage& img, int angle) {
    if (img.iBpp == 0 || (angle != 90 && angle != 180 && angle != 270)) return img;
    const size_t bpp = (size_t)img.iBpp;
    const size_t n = (size_t)img.iWidth * (size_t)img.iHeight;
    NetImage out = img;
    std::fill(out.data.begin(), out.data.end(), 0);
    if (angle == 180) {
        for (size_t i = 1; i < n; ++i)
            std::copy_n(img.data.begin() + (long)((n - i) * bpp), bpp, out.data.begin() + (long)(i * bpp));
        return out;
    }
    out.iWidth = img.iHeight;
    out.iHeight = img.iWidth;
    for (int r = 0; r < img.iHeight; ++r)
        for (int c = 0; c < img.iWidth; ++c) {
            const size_t src = ((size_t)r * (size_t)img.iWidth + (size_t)c) * bpp;
            const size_t dst = ((size_t)(img.iWidth - 1 - c) * (size_t)img.iHeight + (size_t)r) * bpp;
            std::copy_n(img.data.begin() + (long)src, bpp, out.data.begin() + (long)dst);
        }
    return out;
}

NetImage resizePage(const NetImage& img, int srcDpi, int dstDpi) {
    NetImage out;
    out.iBpp = img.iBpp;
    out.iWidth = (int)(dstDpi * ((double)img.iWidth / srcDpi));
    out.iHeight = (dstDpi / srcDpi) * img.iHeight;
    out.data.assign((size_t)(out.lineBytes() * out.iHeight), 0);
    const double xs = (double)out.iWidth / img.iWidth, ys = (double)out.iHeight / img.iHeight;
    const size_t bpp = (size_t)img.iBpp;
    for (int y = 0; y < out.iHeight; ++y)
        for (int x = 0; x < out.iWidth; ++x) {
            const size_t src = ((size_t)(y / ys) * (size_t)img.iWidth + (size_t)(x / xs)) * bpp;
            std::copy_n(img.data.begin() + (long)src, bpp,
                        out.data.begin() + (long)(((size_t)y * (size_t)out.iWidth + (size_t)x) * bpp));
        }
    return out;
}

NetImage wicketPage(const NetImage& page, int quality, int bandLines) {
    WicketEncodeOptions opt;
    opt.iQuality = quality;
    opt.iBandLines = bandLines;
    opt.bStuffing = true;
    const std::vector<uint8_t> bands = wicketEncodeImage(page.data.data(), page.iWidth, page.iHeight, page.iBpp, opt);
    NetImage out = page;
    out.data.clear();
    wicketref::Decoder decoder(true);
    for (size_t pos = 0; pos + 16 <= bands.size();) {
        auto be32 = [&](size_t off) {
            return (int)((uint32_t)bands[pos + off] << 24 | (uint32_t)bands[pos + off + 1] << 16 |
                         (uint32_t)bands[pos + off + 2] << 8 | bands[pos + off + 3]);
        };
        const int size = be32(0), lines = be32(4), width = be32(8), q = be32(12);
        const int paddedW = (width + 7) / 8 * 8, paddedH = (lines + 7) / 8 * 8;
        Bytes band((size_t)paddedW * (size_t)paddedH * (size_t)page.iBpp);
        int produced = 0;
        long bits = 0;
        decoder.setQuality(q, q);
        if (size < 16 || decoder.decode(bands.data() + pos + 16, size - 16, band.data(), paddedW, paddedH, page.iBpp,
                                        &produced, &bits) != 0)
            return NetImage();
        for (int y = 0; y < lines; ++y) {
            const auto row = band.begin() + (long)y * paddedW * page.iBpp;
            out.data.insert(out.data.end(), row, row + (long)width * page.iBpp);
        }
        pos += (size_t)size;
    }
    return out;
}

std::vector<std::vector<std::string>> readRecord(const std::string& path) {
    std::vector<std::vector<std::string>> runs;
    std::istringstream in(readFile(path));
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> argv;
        std::istringstream words(line);
        for (std::string w; std::getline(words, w, ' ');) {
            std::string arg;
            for (size_t i = 0; i < w.size(); ++i) {
                if (w[i] == '\\' && i + 3 < w.size() && w[i + 1] == 'x') {
                    arg.push_back((char)std::stoi(w.substr(i + 2, 2), nullptr, 16));
                    i += 3;
                } else {
                    arg.push_back(w[i]);
                }
            }
            argv.push_back(arg);
        }
        runs.push_back(argv);
    }
    return runs;
}

std::vector<std::string> NetArgs::argv() const {
    auto kv = [](const char* key, const std::string& v) { return std::string("--") + key + "=" + v; };
    auto n = [&](const char* key, int v) { return kv(key, std::to_string(v)); };
    std::vector<std::string> a = {szBinary,
                                  kv("filename", szFile),
                                  kv("ip-address", szIp),
                                  "--interface=any",
                                  kv("user-name", szUser),
                                  kv("profile-name", szProfile),
                                  n("content-type", iContent),
                                  n("resolution", iDpi),
                                  n("mode", iMode),
                                  n("original-size", iSize),
                                  n("orientation", iOrientation),
                                  n("bkgremoval", iBkg),
                                  n("mirrorimage", iMirror),
                                  n("negativeimage", iNegative),
                                  n("scan-both-sides", iBoth),
                                  n("brightness", iBrightness),
                                  n("colordropout", iDropout),
                                  n("colordropoutthreshold", iThreshold)};
    // Compression 6, type 4 from 1200 dpi on in grey and colour; else 2, 3.
    const bool wicket = iDpi > 1199 && iMode != NET_LINEART;
    a.push_back(n("compression", wicket ? 6 : 2));
    a.push_back(n("type", wicket ? 4 : 3));
    a.push_back("--text-mode=0");
    if (iMode == NET_COLOR) a.push_back(n("contrast", iContrast));  // colour jobs only
    a.push_back(n("documentsource", iDocSource));
    a.push_back(n("sharpness", iSharpness));
    a.push_back(n("start-now", iStartNow));
    return a;
}

NetScanDir::NetScanDir(const std::string& featureExtra, const std::string& scanDirName)
    : szScanDir(dir.file(scanDirName)) {
    std::string text = readFile(sourceDir() + "/tests/data/e2e_net.conf");
    replaceAll(text, "@PROGRAM@", program());
    replaceAll(text, "@SCANDIR@", szScanDir);
    writeFile(featureFile(), text + featureExtra);
    setJob("");
}

std::string NetScanDir::program() { return binaryDir() + "/sim/net/quarto-quillsim"; }

void NetScanDir::setJob(const std::string& statements) const {
    writeFile(jobFile(), "record " + recordFile() + "\n" + statements);
}

std::string NetScanDir::quartoConf(const std::string& switches) const {
    return "usb 0xffff 0xffff " + featureFile() + " Network_Scanner\n" + switches;
}

static void listFiles(const std::string& path, const std::string& skip, std::vector<std::string>* out) {
    DIR* d = opendir(path.c_str());
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        const std::string full = path + "/" + name;
        if (full == skip) continue;
        out->push_back(full);
        struct stat st;
        if (lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) listFiles(full, skip, out);
    }
    closedir(d);
}

std::vector<std::string> NetScanDir::filesOutsideScanDir() const {
    std::vector<std::string> files;
    listFiles(dir.path(), szScanDir, &files);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace qt
