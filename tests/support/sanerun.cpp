#include "sanerun.h"

#include <sstream>

namespace qt {

std::string SaneEnv::expand(const std::string& text) {
    std::string s = text;
    replaceAll(s, "@MODELDIR@", sourceDir() + "/etc/models");
    replaceAll(s, "@DATADIR@", sourceDir() + "/tests/data");
    return s;
}

SaneEnv::SaneEnv(const std::string& quartoConf, const std::string& scenarioPath) : szScenario(scenarioPath) {
    // Only quarto is loaded: no other installed backend may probe anything.
    writeFile(dir.file("dll.conf"), "quarto\n");
    writeFile(dir.file("quarto.conf"), expand(quartoConf));
}

std::vector<std::string> SaneEnv::env(const std::vector<std::string>& extra) const {
    std::vector<std::string> e = {
        "SANE_CONFIG_DIR=" + dir.path(),
        "LD_LIBRARY_PATH=" + binaryDir() + "/sim:" + binaryDir() + "/backend",
        "QUARTO_USBSIM_LOG=" + simLogPath(),
        "DISPLAY=",
    };
    if (!szScenario.empty()) e.push_back("QUARTO_USBSIM=" + szScenario);
    for (const std::string& x : extra) e.push_back(x);
    return e;
}

int SaneEnv::scanimage(const std::vector<std::string>& args, std::string* out, std::string* err,
                       const std::vector<std::string>& extraEnv, int timeoutSeconds) const {
    std::vector<std::string> argv = vLauncher;
    argv.push_back("scanimage");
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, env(extraEnv), out, err, timeoutSeconds);
}

std::vector<std::string> SaneEnv::listDevices(int* rc, std::string* err) const {
    std::string out;
    *rc = scanimage({"-L"}, &out, err);
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
        if (line.rfind("device `", 0) == 0) lines.push_back(line);
    return lines;
}

}  // namespace qt
