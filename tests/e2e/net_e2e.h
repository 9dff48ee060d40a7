// Shared pieces of the network end-to-end tests: a rig of network namespaces,
// scan directory and SANE configuration in which scanimage runs, and what its
// output must hold.
#ifndef QUARTO_E2E_NET_H
#define QUARTO_E2E_NET_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e_scan.h"
#include "netjob.h"
#include "netlab.h"
#include "sanerun.h"

namespace e2e {

// The placeholder entry: a network scanner given by its address.
const char* const PLACEHOLDER = "quarto:libnet/SPECIFY_DEVICE";

// quarto.conf switches. Discovery is on only where the rig has a device host.
inline std::string netSwitches(bool discover, int order = 0, bool pseudo = false,
                               const std::string& manufacturer = "Tarvesk", bool usb = false) {
    std::string s = std::string("DISCOVER_USB_FLAG=") + (usb ? "1" : "0") + "\nDISCOVER_NET_FLAG=" +
                    (discover ? "1" : "0") + "\nDEVICE_LIST_ORDER_MODE=" + std::to_string(order) +
                    "\nSHOW_PSEUDO_NETWORK_FLAG=" + (pseudo ? "1" : "0") + "\n";
    return manufacturer.empty() ? s : s + "MANUFACTURER=" + manufacturer + "\n";
}

// Namespaces (isolated, or with a device host), a scan directory with the
// simulated scan program, and a SANE configuration whose front ends run in the
// backend's namespace.
class NetRig {
public:
    // usbScenario: the text of a USB simulator scenario loaded at the same time.
    NetRig(qt::NetLab::Kind kind, const std::string& confText, const std::string& featureExtra = std::string(),
           const std::string& usbScenario = std::string(), const std::string& scanDirName = "scans")
        : lab(kind),
          dir(featureExtra, scanDirName),
          sane(dir.quartoConf(confText), usbScenario.empty() ? std::string() : written("usb.scn", usbScenario)) {
        sane.setLauncher(lab.backendLauncher(dir.work()));
    }

    // scanimage in the backend's namespace, with the job file in its environment.
    int scanimage(const std::vector<std::string>& args, std::string* out, std::string* err,
                  std::vector<std::string> env = {}) const {
        env.push_back(dir.jobVariable());
        return sane.scanimage(args, out, err, env, 120);
    }

    // The argument vector of the program's one run; empty, and a test failure,
    // when it ran another number of times.
    std::vector<std::string> onlyRun() const {
        const std::vector<std::vector<std::string>> runs = dir.runs();
        EXPECT_EQ(1u, runs.size()) << "runs of the scan program";
        return runs.size() == 1 ? runs[0] : std::vector<std::string>();
    }

    qt::NetLab lab;
    qt::NetScanDir dir;
    qt::SaneEnv sane;

private:
    std::string written(const std::string& name, const std::string& text) const {
        qt::writeFile(dir.file(name), text);
        return dir.file(name);
    }
};

// Skips the test, saying why, when the rig has no namespaces.
#define NET_RIG_OR_SKIP(rig)                                                                 \
    do {                                                                                     \
        if (!(rig).lab.ok()) GTEST_SKIP() << "no network namespace: " << (rig).lab.whyNot(); \
    } while (0)

inline Mode e2eMode(qt::NetMode m) { return m == qt::NET_LINEART ? LINEART : m == qt::NET_GRAY ? GRAY : COLOR; }

// The PNM file holds img, byte for byte.
inline void expectImage(const std::string& file, const qt::NetImage& img) {
    Pnm pnm;
    std::string why;
    ASSERT_TRUE(parsePnm(file, &pnm, &why)) << why;
    ASSERT_EQ(img.iWidth, pnm.iWidth);
    ASSERT_EQ(img.iHeight, pnm.iHeight);
    EXPECT_EQ(img.iBpp == 0 ? 1 : 8 * img.iBpp, pnm.bitsPerPixel());
    EXPECT_EQ("", compareLines(pnm, [&](int row) {
                  return Bytes(img.data.begin() + row * img.lineBytes(),
                               img.data.begin() + (row + 1) * img.lineBytes());
              }));
}

// The frame scanimage announced (get_parameters) and wrote equals img.
inline void expectFrame(const std::string& out, const std::string& err, const qt::NetImage& img) {
    Announced a = announced(err);
    ASSERT_TRUE(a.bFound) << err;
    EXPECT_EQ(img.iWidth, a.iPixels);
    EXPECT_EQ(img.iHeight, a.iLines);
    EXPECT_EQ(img.iBpp == 0 ? 1 : 8 * img.iBpp, a.iBits);
    expectImage(out, img);
}

}  // namespace e2e

#endif
