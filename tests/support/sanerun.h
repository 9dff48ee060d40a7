// Runs the real SANE front ends against the built backend and the simulated
// scanner, always with a configuration directory of the test's own.
#ifndef QUARTO_SANERUN_H
#define QUARTO_SANERUN_H

#include <string>
#include <vector>

#include "testutil.h"

namespace qt {

class SaneEnv {
public:
    // quartoConf is the text of quarto.conf; "@MODELDIR@" in it is replaced by
    // the repository's etc/models and "@DATADIR@" by tests/data.
    explicit SaneEnv(const std::string& quartoConf, const std::string& scenarioPath = std::string());

    std::string file(const std::string& name) const { return dir.file(name); }
    // Environment for a front end: SANE_CONFIG_DIR, LD_LIBRARY_PATH (simulator
    // first), QUARTO_USBSIM, QUARTO_USBSIM_LOG, an empty DISPLAY (no window is
    // ever started unless a test asks for one), plus the extra entries, which
    // win over these.
    std::vector<std::string> env(const std::vector<std::string>& extra = {}) const;
    std::string simLogPath() const { return dir.file("usbsim.log"); }

    // Every front end runs behind this command prefix (for example
    // "ip netns exec NS ..." to run it inside a network namespace).
    void setLauncher(const std::vector<std::string>& prefix) { vLauncher = prefix; }

    // scanimage with the given arguments; returns its exit status.
    int scanimage(const std::vector<std::string>& args, std::string* out, std::string* err,
                  const std::vector<std::string>& extraEnv = {}, int timeoutSeconds = 300) const;

    // The "device `...' is a ..." lines of scanimage -L, in order; *rc gets
    // its exit status.
    std::vector<std::string> listDevices(int* rc, std::string* err = nullptr) const;

    static std::string expand(const std::string& text);

private:
    TempDir dir;
    std::string szScenario;
    std::vector<std::string> vLauncher;
};

}  // namespace qt

#endif
