// Network namespaces for the tests of network scanning. Nothing a test runs
// here can send a packet to the machine's own network:
// - NetLab(ISOLATED): one namespace with only its loopback, for scans of a
//   device given by its address (no discovery);
// - NetLab(WITH_DEVICE_HOST): the backend's namespace, where the front end
//   runs, joined by a veth pair to a device host running the simulated
//   network scanner: 192.0.2.1/24 on the backend's side, 192.0.2.2/24 on the
//   device host. The limited broadcast (255.255.255.255) is routed onto the
//   veth in the backend's namespace only, so the discovery query reaches the
//   device host and nothing else.
// Names are unique per process and object; the destructor ends every process
// left in the namespaces and deletes them, and a later NetLab removes those
// that a killed test process left behind.
#ifndef QUARTO_NETLAB_H
#define QUARTO_NETLAB_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace qt {

class NetLab {
public:
    enum Kind { ISOLATED, WITH_DEVICE_HOST };
    static constexpr const char* BACKEND_ADDRESS = "192.0.2.1";
    static constexpr const char* DEVICE_ADDRESS = "192.0.2.2";

    explicit NetLab(Kind kind);
    ~NetLab();
    NetLab(const NetLab&) = delete;
    NetLab& operator=(const NetLab&) = delete;

    // False, with the reason, when the namespaces could not be made (not root,
    // no permission, no iproute2): the caller skips, it never falls back.
    bool ok() const { return bOk; }
    const std::string& whyNot() const { return szWhy; }

    // argv prefix that runs a command in the backend's namespace, in the
    // working directory dir.
    std::vector<std::string> backendLauncher(const std::string& dir) const;

    // Starts the simulated network scanner (sim/net quarto-netsim) on the device
    // host with the scenario file, logging to logFile; true once it listens.
    bool startResponder(const std::string& scenarioFile, const std::string& logFile);

private:
    bool ip(const std::vector<std::string>& args);
    void endProcessesIn(const std::string& ns);

    bool bOk = false;
    std::string szWhy;
    std::string szBackendNs, szDeviceNs;
    pid_t iResponder = -1;
};

// Starts the simulated network scanner with the scenario file, logging to
// logFile, through the launcher (an argv prefix; empty: in this process's
// network namespace, which must be one made for the test). Its pid once it
// listens on port 5353, else -1 with the reason in why.
pid_t startNetsim(const std::vector<std::string>& launcher, const std::string& scenarioFile,
                  const std::string& logFile, std::string* why);

}  // namespace qt

#endif
