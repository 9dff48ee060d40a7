// Drives the built backend through its exported entry points against the
// simulated scanner. The library is loaded with dlopen, as a front end loads
// it, because the session finds its configuration file through the library's
// own file name; the simulator (libusb-0.1.so.4) is already in the process, so
// the backend binds to it.
#ifndef QUARTO_SESSION_TESTUTIL_H
#define QUARTO_SESSION_TESTUTIL_H

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sane/sane.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "backendlib.h"
#include "sanerun.h"
#include "testutil.h"
#include "usbsim.h"

namespace st {

// The entry points of the loaded library (never the in-process copies).
using Sane = qt::SaneApi;

// Loaded once per process and kept loaded.
inline const Sane& sane() {
    static Sane api = [] {
        Sane a;
        a.load();
        return a;
    }();
    return api;
}

// Option numbers of the option table.
const int OPT_RESOLUTION = 9;
const int OPT_ORIGINAL_SIZE = 12;
const int OPT_SOURCE = 16;

struct Model {
    const char* szFile;  // feature file under etc/models
    int iVersion;
    int iPid;
    int iBoxKind;
    int iBusinessCard;  // index of "Business Card" in the model's page-size list
    int iSmallDpi;      // lowest resolution at which the model sends plain data
};

// The 5100 compresses colour at 75 dpi, so its smallest plain resolution is 150.
const Model Q5100 = {"quarto5100.conf", 500, 0x0500, 1, 23, 150};
const Model Q4200 = {"quarto4200.conf", 402, 0x0402, 0, 14, 75};
const Model Q4010 = {"quarto4010.conf", 401, 0x0401, 0, 14, 75};
const Model Q3260 = {"quarto3260.conf", 326, 0x0326, 0, 14, 75};

// Business card in colour at the model's smallest plain resolution.
inline std::string smallPage(const Model& m) {
    return "[INTEGERS]\nCURRENTDPI=" + std::to_string(m.iSmallDpi) +
           "\nCOLORDEPTH=2\nORIGINALSIZE=" + std::to_string(m.iBusinessCard) + "\n";
}

// The device the model's scenario describes: a flatbed (75-600 dpi) and, for
// the feeder models, a feeder (75-300 dpi) listed first.
inline std::string deviceScenario(const Model& m, const std::string& extra = std::string()) {
    char dev[96];
    snprintf(dev, sizeof(dev), "device 001 004 vid=0x2f4a pid=0x%04x\nversion %d\n", m.iPid, m.iVersion);
    std::string s = std::string("bus 001\n") + dev + "props major=5\n";
    if (m.iBoxKind == 1 || m.iVersion == 402)
        s += "source type=2 width=10200 height=16800\nres 75 75 0\nres 150 150 0\nres 300 300 0\n";
    s += "source type=1 width=10200 height=14040\nres 75 75 0\nres 150 150 0\nres 300 300 0\nres 600 600 0\n";
    return s + extra;
}

// The model's feature file with some lines replaced: every KEY=VALUE line of
// `overrides` (a feature-file text with its own section headers) drops the
// model's line of that key; a bare KEY line drops it without a replacement.
inline std::string featureText(const Model& m, const std::string& overrides) {
    std::set<std::string> keys;
    std::istringstream ov(overrides);
    for (std::string line; std::getline(ov, line);)
        if (!line.empty() && line[0] != '[' && line[0] != '#') keys.insert(line.substr(0, line.find('=')));
    std::istringstream base(qt::readFile(qt::SaneEnv::expand(std::string("@MODELDIR@/") + m.szFile)));
    std::string out;
    for (std::string line; std::getline(base, line);)
        if (keys.count(line.substr(0, line.find('='))) == 0) out += line + "\n";
    return out + overrides;
}

// A configuration directory whose quarto.conf lists the model with a feature
// file of the test's own, the panel-parameter fetch switched off, and the
// simulator loaded with the model's scenario.
class Rig {
public:
    explicit Rig(const Model& model, const std::string& overrides = std::string(),
                 const std::string& scenarioExtra = std::string(), const char* demon = nullptr)
        : m(model), conf("SANE_CONFIG_DIR", dir.path().c_str()), demonEnv("SCAN_ENABLE_DEMON", demon) {
        qt::writeFile(dir.file("model.conf"), featureText(m, overrides));
        addDeviceLine(0x2f4a, m.iPid);
        loaded = usbsim_load_text(deviceScenario(m, scenarioExtra).c_str()) == 0;
    }

    // Lists one more vendor and product identifier with the same feature file.
    void addDeviceLine(int vid, int pid) {
        char line[512];
        snprintf(line, sizeof(line), "usb 0x%04x 0x%04x %s Quarto_Test\n", vid, pid, dir.file("model.conf").c_str());
        szDeviceLines += line;
        qt::writeFile(dir.file("quarto.conf"), szDeviceLines +
                                                   "DISCOVER_USB_FLAG=1\nDISCOVER_NET_FLAG=0\n"
                                                   "DEVICE_LIST_ORDER_MODE=0\nSHOW_PSEUDO_NETWORK_FLAG=0\n");
    }

    const Model& m;
    bool loaded = false;

private:
    std::string szDeviceLines;
    qt::TempDir dir;
    qt::ScopedEnv conf;
    qt::ScopedEnv demonEnv;
};

// The 8-byte headers (lower-case hex) of the writes to device 0 from the index `from` on.
inline std::vector<std::string> writeHeaders(int from = 0) {
    std::vector<std::string> out;
    for (int i = from, n = usbsim_write_count(0); i < n; ++i) {
        unsigned char buf[256];
        const int len = usbsim_get_write(0, i, buf, sizeof(buf));
        char hex[17] = "";
        for (int k = 0; k < len && k < 8; ++k) snprintf(hex + 2 * k, 3, "%02x", buf[k]);
        out.push_back(hex);
    }
    return out;
}

inline int countEvents(const std::string& needle) {
    std::string events = usbsim_events();
    int n = 0;
    for (size_t p = events.find(needle); p != std::string::npos; p = events.find(needle, p + 1)) ++n;
    return n;
}

// Headers of the requests, as on the wire.
const char* const H_UNLOCK = "1b53060000008000";
const char* const H_WAKE = "1b44040000008000";
const char* const H_PROPS = "1b53030000008000";
const char* const H_SIZES = "1b530a0000008000";
const char* const H_STATUS = "1b53040000008000";
const char* const H_CANCEL = "1b530f0000000000";
const char* const H_PARAMS = "1b530b0000008000";

// What one scan delivered.
struct Page {
    SANE_Parameters params{};
    std::vector<unsigned char> data;
    std::vector<SANE_Status> statuses;  // of every read, in order
    std::vector<int> lengths;
    SANE_Status end = SANE_STATUS_GOOD;  // the first status other than GOOD
};

// Reads until a status other than GOOD (bounded, so a fault cannot hang the test).
inline void readPage(SANE_Handle h, int maxLen, Page& page, long maxCalls = 2000000) {
    page.end = sane().readFrame(h, maxLen, &page.data, maxCalls, &page.statuses, &page.lengths);
    if (page.end == SANE_STATUS_GOOD) ADD_FAILURE() << "read never ended";
}

// The colour test pattern of the simulated device at pixel (x, y).
inline bool colourPatternMatches(const Page& page, std::string* why) {
    const int ppl = page.params.pixels_per_line;
    const int bpl = page.params.bytes_per_line;
    if (ppl <= 0 || bpl != 3 * ppl) {
        *why = "not a colour frame";
        return false;
    }
    for (size_t i = 0; i < page.data.size(); ++i) {
        size_t y = i / (size_t)bpl, x = (i % (size_t)bpl) / 3, c = i % 3;
        unsigned char want = (unsigned char)(c == 0 ? x : c == 1 ? y : x + y);
        if (page.data[i] != want) {
            char text[128];
            snprintf(text, sizeof(text), "byte %zu (x %zu, y %zu, channel %zu) is %u, want %u", i, x, y, c,
                     page.data[i], want);
            *why = text;
            return false;
        }
    }
    return true;
}

// Open descriptors of this process (the listing's own one included).
inline int openFdCount() { return (int)qt::listDir("/proc/self/fd").size(); }

}  // namespace st

#endif
