// A simulated Quarto 5100 opened through the entry points of the built
// backend, in the benchmark's own process (the backend binds to the simulated
// libusb linked into the program): set a resolution and a page size, scan a
// page through sane_read.
#ifndef QUARTO_BENCH_SCANNER_H
#define QUARTO_BENCH_SCANNER_H

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../tests/e2e/backend_api.h"
#include "sanerun.h"
#include "testutil.h"
#include "usbsim.h"

namespace bench {

class Scanner {
public:
    // The 5100 of the scenario file (relative to the source tree) at dpi,
    // colour, on the page size.
    bool open(const std::string& scenario, int dpi, const char* size) {
        iDpi = dpi;
        if (!b.load()) return false;
        qt::writeFile(dir.file("quarto.conf"),
                      qt::SaneEnv::expand("usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n"
                                          "DISCOVER_USB_FLAG=1\nDISCOVER_NET_FLAG=0\n"));
        setenv("SANE_CONFIG_DIR", dir.path().c_str(), 1);
        if (usbsim_load_file((qt::sourceDir() + "/" + scenario).c_str()) != 0) return false;
        if (b.open(DEVICE, &h) != SANE_STATUS_GOOD) return false;
        return select(size);
    }
    bool select(const char* size) {
        SANE_Int dpi = iDpi;
        std::vector<char> name(size, size + strlen(size) + 1);
        SANE_Parameters p;
        if (b.control_option(h, OPT_RESOLUTION, SANE_ACTION_SET_VALUE, &dpi, nullptr) != SANE_STATUS_GOOD ||
            b.control_option(h, OPT_ORIGINAL_SIZE, SANE_ACTION_SET_VALUE, name.data(), nullptr) != SANE_STATUS_GOOD ||
            b.get_parameters(h, &p) != SANE_STATUS_GOOD || p.format != SANE_FRAME_RGB)
            return false;
        lPageBytes = (long)p.bytes_per_line * p.lines;
        iPixels = p.pixels_per_line;
        iLines = p.lines;
        return true;
    }
    ~Scanner() {
        if (h != nullptr) b.close(h);
    }

    // One whole page in pieces of at most maxLen bytes; returns the bytes read,
    // or -1 when the page did not end with the end of the image.
    long scanPage(SANE_Byte* buf, int maxLen) {
        if (b.start(h) != SANE_STATUS_GOOD) return -1;
        long total = 0;
        SANE_Status s;
        SANE_Int len = 0;
        while ((s = b.read(h, buf, maxLen, &len)) == SANE_STATUS_GOOD) total += len;
        b.cancel(h);
        return s == SANE_STATUS_EOF ? total : -1;
    }

    long lPageBytes = 0;
    int iPixels = 0, iLines = 0;

private:
    static constexpr const char* DEVICE = "libusb/001/004";
    static constexpr int OPT_RESOLUTION = 9;
    static constexpr int OPT_ORIGINAL_SIZE = 12;
    qt::TempDir dir;
    e2e::BackendApi b;
    SANE_Handle h = nullptr;
    int iDpi = 0;
};

}  // namespace bench

#endif
