// What the tests of network scans expect, computed independently of the
// backend and of the simulated scan program: the page formula of the network
// pages, the rotation and nearest-neighbour resizing as the image utilities
// must do them (quirks included), the program's record of its argument
// vectors, and a scan directory with the job file the program reads.
#ifndef QUARTO_NETJOB_H
#define QUARTO_NETJOB_H

#include <string>
#include <vector>

#include "testutil.h"

namespace qt {

using Bytes = std::vector<unsigned char>;

// Colour depth codes of the option store, which are also the --mode values.
enum NetMode { NET_LINEART = 0, NET_GRAY = 1, NET_COLOR = 2 };

// A raw page: iBpp bytes a pixel, or 0 for line art (iWidth / 8 bytes a row).
struct NetImage {
    int iWidth = 0, iHeight = 0, iBpp = 0;
    Bytes data;
    long lineBytes() const { return iBpp == 0 ? iWidth / 8 : (long)iWidth * iBpp; }
};

// Page p (from 1) of a job: the formula at (X + 64 (p - 1), Y), X and Y from 0
// at the file's resolution: colour R = X, G = Y, B = X + Y; grey X + 2Y; line
// art bit 1 where X div 8 + Y div 8 is odd (all mod 256).
NetImage netPage(NetMode mode, int width, int height, int page = 1);

// Rotation through a file as the image utilities do it: 180 degrees reverses
// the pixels one pixel off (the result's first pixel is 0, pixel i > 0 is the
// source's pixel N - i); 90 and 270 both turn the image with one routine:
// source (row r, column c) goes to row (width - 1 - c), column r. Other angles
// leave the image as it is.
NetImage rotatePage(const NetImage& img, int angle);

// resizeNearest: width = trunc(dstDpi * (width / srcDpi)), height = (dstDpi /
// srcDpi) * height in integers, pixel (x, y) from (trunc(x / xs), trunc(y / ys)).
NetImage resizePage(const NetImage& img, int srcDpi, int dstDpi);

// A page as the Wicket path delivers it: the page encoded in bands as the scan
// program writes it (byte stuffing on), decoded by the reference decoder.
NetImage wicketPage(const NetImage& page, int quality, int bandLines);

// The program's record: one argument vector per run, as it received them.
std::vector<std::vector<std::string>> readRecord(const std::string& path);

// The documented command line of the scan program, argument by argument.
struct NetArgs {
    std::string szBinary, szFile, szIp, szUser, szProfile;
    int iContent = 0, iDpi = 300, iMode = NET_COLOR, iSize = 4, iOrientation = 0, iBkg = 0, iMirror = 0,
        iNegative = 0, iBoth = 0, iBrightness = 5, iDropout = 0, iThreshold = 128, iContrast = 3, iDocSource = 0,
        iSharpness = 2, iStartNow = 1;
    std::vector<std::string> argv() const;
};

// A scan directory (TEMPDIRECTORY) with the scan program's job file and record
// in a private working directory, and the feature file of the simulated
// network scanner (tests/data/e2e_net.conf with its places filled in and
// extra lines appended).
class NetScanDir {
public:
    explicit NetScanDir(const std::string& featureExtra = std::string(),
                        const std::string& scanDirName = std::string("scans"));

    const std::string& work() const { return dir.path(); }
    const std::string& scanDir() const { return szScanDir; }
    std::string file(const std::string& name) const { return dir.file(name); }
    std::string featureFile() const { return dir.file("net.conf"); }
    std::string recordFile() const { return dir.file("record"); }
    std::string jobFile() const { return dir.file("job"); }
    static std::string program();
    // QUARTO_QUILLSIM=... for the environment of the front end.
    std::string jobVariable() const { return "QUARTO_QUILLSIM=" + jobFile(); }
    // Writes the job file: "record" is added to the statements given.
    void setJob(const std::string& statements) const;
    std::vector<std::vector<std::string>> runs() const { return readRecord(recordFile()); }
    // The quarto.conf for the simulated network scanner with the given switches.
    std::string quartoConf(const std::string& switches) const;
    // Files below the working directory, outside the scan directory.
    std::vector<std::string> filesOutsideScanDir() const;

private:
    TempDir dir;
    std::string szScanDir;
};

}  // namespace qt

#endif
