#include "sanerun.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>
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

SaneEnv::Interrupted SaneEnv::scanimageInterrupted(const std::vector<std::string>& args, size_t firstBytes,
                                                  const std::vector<std::string>& extraEnv,
                                                  int timeoutSeconds) const {
    Interrupted r;
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return r;
    const std::string errFile = file("scanimage.err");
    ChildFds fds;
    fds.out = out[1];
    fds.err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    std::vector<std::string> argv = {"scanimage"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.insert(argv.begin(), vLauncher.begin(), vLauncher.end());
    const time_t deadline = time(nullptr) + timeoutSeconds;
    pid_t pid = spawnProgram(argv, env(extraEnv), fds);
    close(out[1]);
    if (fds.err >= 0) close(fds.err);
    if (pid < 0) {
        close(out[0]);
        return r;
    }
    bool signalled = false;
    char buf[65536];
    while (time(nullptr) <= deadline) {
        if (!signalled && r.lBytes >= firstBytes) {
            kill(pid, SIGINT);
            signalled = true;
        }
        struct pollfd p = {out[0], POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        ssize_t n = read(out[0], buf, sizeof(buf));
        if (n <= 0) break;
        r.lBytes += (size_t)n;
    }
    close(out[0]);
    const long left = (long)(deadline - time(nullptr));
    r.iStatus = waitProgram(pid, left > 0 ? (int)left : 0);
    r.szErr = readFile(errFile);
    return r;
}

}  // namespace qt
