#include "netlab.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "testutil.h"

namespace qt {

namespace {

const char NS_PREFIX[] = "quarto-e2e-";
const char RUN_NETNS[] = "/run/netns";
const int RESPONDER_START_S = 5;
const int RESPONDER_LIFETIME_S = 600;
const int IP_TIMEOUT_S = 20;

std::atomic<int> g_labCount{0};

// A process that has ended but is not yet reaped counts as gone.
bool processAlive(long pid) {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

// Namespaces of this naming whose creating process is gone (a test killed by
// its time limit cannot run its destructors).
void removeStaleNamespaces() {
    DIR* d = opendir(RUN_NETNS);
    if (d == nullptr) return;
    std::vector<std::string> stale;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.compare(0, sizeof(NS_PREFIX) - 1, NS_PREFIX) != 0) continue;
        long pid = atol(name.c_str() + sizeof(NS_PREFIX) - 1);
        if (pid > 0 && !processAlive(pid)) stale.push_back(name);
    }
    closedir(d);
    for (const std::string& ns : stale) runProgram({"ip", "netns", "del", ns}, {}, nullptr, nullptr, IP_TIMEOUT_S);
}

}  // namespace

bool NetLab::ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"ip"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string err;
    if (runProgram(argv, {}, nullptr, &err, IP_TIMEOUT_S) == 0) return true;
    std::string cmd;
    for (const std::string& a : argv) cmd += a + " ";
    szWhy = cmd + "failed: " + err;
    return false;
}

NetLab::NetLab(Kind kind) {
    if (geteuid() != 0) {
        szWhy = "network namespaces need root (ip netns add); not running as root";
        return;
    }
    removeStaleNamespaces();
    const std::string base = NS_PREFIX + std::to_string(getpid()) + "-" + std::to_string(g_labCount++);
    if (!ip({"netns", "add", base + "-b"})) return;
    szBackendNs = base + "-b";
    if (!ip({"-n", szBackendNs, "link", "set", "lo", "up"})) return;
    if (kind == WITH_DEVICE_HOST) {
        if (!ip({"netns", "add", base + "-d"})) return;
        szDeviceNs = base + "-d";
        // Both ends are made inside the namespaces: nothing appears in the
        // machine's own.
        const std::string host = std::string(BACKEND_ADDRESS) + "/24";
        const std::string device = std::string(DEVICE_ADDRESS) + "/24";
        if (!ip({"-n", szBackendNs, "link", "add", "qb0", "type", "veth", "peer", "name", "qd0", "netns",
                 szDeviceNs}) ||
            !ip({"-n", szBackendNs, "addr", "add", host, "dev", "qb0"}) ||
            !ip({"-n", szDeviceNs, "addr", "add", device, "dev", "qd0"}) ||
            !ip({"-n", szBackendNs, "link", "set", "qb0", "up"}) ||
            !ip({"-n", szDeviceNs, "link", "set", "qd0", "up"}) ||
            !ip({"-n", szDeviceNs, "link", "set", "lo", "up"}) ||
            // Without a route the limited broadcast is unreachable.
            !ip({"-n", szBackendNs, "route", "add", "255.255.255.255/32", "dev", "qb0"}))
            return;
    }
    bOk = true;
}

void NetLab::endProcessesIn(const std::string& ns) {
    std::string out;
    if (runProgram({"ip", "netns", "pids", ns}, {}, &out, nullptr, IP_TIMEOUT_S) != 0) return;
    std::istringstream in(out);
    for (long pid; in >> pid;)
        if (pid > 1) kill((pid_t)pid, SIGKILL);
}

NetLab::~NetLab() {
    if (iResponder > 0) {
        kill(iResponder, SIGTERM);
        waitProgram(iResponder, 2);
    }
    for (const std::string& ns : {szDeviceNs, szBackendNs}) {
        if (ns.empty()) continue;
        endProcessesIn(ns);
        runProgram({"ip", "netns", "del", ns}, {}, nullptr, nullptr, IP_TIMEOUT_S);
    }
}

std::vector<std::string> NetLab::backendLauncher(const std::string& dir) const {
    return {"ip", "netns", "exec", szBackendNs, "env", "--chdir=" + dir};
}

bool NetLab::startResponder(const std::string& scenarioFile, const std::string& logFile) {
    if (!bOk || szDeviceNs.empty()) return false;
    iResponder = startNetsim({"ip", "netns", "exec", szDeviceNs}, scenarioFile, logFile, &szWhy);
    return iResponder > 0;
}

pid_t startNetsim(const std::vector<std::string>& launcher, const std::string& scenarioFile,
                  const std::string& logFile, std::string* why) {
    std::vector<std::string> argv = launcher;
    argv.insert(argv.end(), {binaryDir() + "/sim/net/quarto-netsim", "--log", logFile, "--lifetime",
                             std::to_string(RESPONDER_LIFETIME_S), scenarioFile});
    const std::string errFile = logFile + ".err";
    ChildFds fds;
    fds.out = fds.err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    // The responder ends by itself when this process ends, whatever ends it.
    pid_t pid = spawnProgram(argv, {}, fds);
    if (fds.out >= 0) close(fds.out);
    if (pid < 0) return -1;
    const time_t deadline = time(nullptr) + RESPONDER_START_S;
    while (time(nullptr) <= deadline) {
        if (readFile(logFile).find("listening port=") != std::string::npos) return pid;
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            *why = "the responder ended: " + readFile(errFile);
            return -1;
        }
        usleep(10000);
    }
    kill(pid, SIGTERM);
    waitProgram(pid, 2);
    *why = "the responder did not start listening";
    return -1;
}

}  // namespace qt
