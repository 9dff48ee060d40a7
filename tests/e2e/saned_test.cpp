// The backend served by saned on 127.0.0.1 and scanned through SANE's net
// backend gives the same image, byte for byte, as the direct scan.
//
// The net backend of this SANE release has no port syntax in net.conf: it
// always connects to the sane-port service (6566). So the test first moves into
// a network namespace of its own (when it may), where 127.0.0.1:6566 is
// certainly free and no packet can reach any other host; without that right it
// uses the machine's loopback when 6566 is free there and is skipped otherwise.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "e2e_scan.h"
#include "netns.h"

namespace {

const int SANE_PORT = 6566;
const int START_TIMEOUT_S = 10;
const int STOP_TIMEOUT_S = 5;

bool loopbackPortFree(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    close(fd);
    return ok;
}

// saned in its own process group, listening on 127.0.0.1 only, with the
// simulator in its environment; stopped (group and all) by the destructor.
class Saned {
public:
    explicit Saned(const qt::SaneEnv& sane) : szLog(sane.file("saned.log")) {
        // The access list: only this machine's loopback address.
        qt::writeFile(sane.file("saned.conf"), "127.0.0.1\n");
        qt::ChildFds fds;
        fds.out = fds.err = open(szLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
        pid = qt::spawnProgram({"saned", "-l", "-e", "-d", "3", "-b", "127.0.0.1", "-p", std::to_string(SANE_PORT)},
                               sane.env(), fds, true);
        if (fds.out >= 0) close(fds.out);
    }
    ~Saned() { stop(); }

    // Waits (bounded) until saned listens; false if it ended or never got there.
    bool waitListening() {
        const time_t deadline = time(nullptr) + START_TIMEOUT_S;
        while (pid > 0 && time(nullptr) <= deadline) {
            if (qt::readFile(szLog).find("waiting for control connection") != std::string::npos) return true;
            int status;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return false;
            }
            usleep(20000);
        }
        return false;
    }

    std::string log() const { return qt::readFile(szLog); }

private:
    void stop() {
        if (pid <= 0) return;
        kill(-pid, SIGTERM);
        qt::waitProgram(pid, STOP_TIMEOUT_S, true);
        // Connection handlers of the group that are still there go too.
        kill(-pid, SIGKILL);
        pid = -1;
    }

    std::string szLog;
    pid_t pid = -1;
};

class SanedScan : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // saned and the front end started from here inherit the namespace.
        if (qt::privateNetwork(false))
            fprintf(stderr, "running saned in a private network namespace\n");
        if (!loopbackPortFree(SANE_PORT)) return;
        server.reset(new qt::SaneEnv(e2e::MODELS_CONF, e2e::dataFile("e2e_models.scn")));
        saned.reset(new Saned(*server));
        if (!saned->waitListening()) {
            fprintf(stderr, "saned did not start:\n%s\n", saned->log().c_str());
            saned.reset();
        }
        client.reset(new qt::TempDir());
        // Only the net backend, pointed at this machine.
        qt::writeFile(client->file("dll.conf"), "net\n");
        qt::writeFile(client->file("net.conf"), "connect_timeout = 10\n127.0.0.1\n");
    }
    static void TearDownTestSuite() {
        saned.reset();
        server.reset();
        client.reset();
    }
    void SetUp() override {
        if (!server) GTEST_SKIP() << "127.0.0.1:" << SANE_PORT << " is in use";
        ASSERT_TRUE(saned) << "saned did not start";
    }

    static int netScanimage(const std::vector<std::string>& args, std::string* out, std::string* err) {
        std::vector<std::string> argv = {"scanimage"};
        argv.insert(argv.end(), args.begin(), args.end());
        return qt::runProgram(argv, {"SANE_CONFIG_DIR=" + client->path()}, out, err, 120);
    }

    static std::unique_ptr<qt::SaneEnv> server;
    static std::unique_ptr<Saned> saned;
    static std::unique_ptr<qt::TempDir> client;
};

std::unique_ptr<qt::SaneEnv> SanedScan::server;
std::unique_ptr<Saned> SanedScan::saned;
std::unique_ptr<qt::TempDir> SanedScan::client;

struct NetCase {
    const char* szName;
    const char* szDevice;
    e2e::Mode eMode;
    const e2e::PageSize* pSize;
    int iDpi;
};

class SanedScanP : public SanedScan, public ::testing::WithParamInterface<NetCase> {};

TEST_P(SanedScanP, GivesTheImageOfTheDirectScan) {
    const NetCase& c = GetParam();
    std::string netOut, err;
    ASSERT_EQ(0, netScanimage(e2e::scanArgs(std::string("net:127.0.0.1:") + c.szDevice, c.eMode, *c.pSize, c.iDpi),
                              &netOut, &err))
        << err << saned->log();
    e2e::Window w = e2e::lastWindow(qt::readFile(server->simLogPath()));
    ASSERT_TRUE(w.bFound);

    std::string directOut;
    ASSERT_EQ(0, server->scanimage(e2e::scanArgs(c.szDevice, c.eMode, *c.pSize, c.iDpi), &directOut, &err, {}, 120))
        << err;
    ASSERT_EQ(directOut.size(), netOut.size());
    EXPECT_TRUE(directOut == netOut);

    e2e::Pnm img;
    std::string why;
    ASSERT_TRUE(e2e::parsePnm(netOut, &img, &why)) << why;
    EXPECT_EQ(e2e::bitsPerPixel(c.eMode), img.bitsPerPixel());
    EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(w, row); }));
}

INSTANTIATE_TEST_SUITE_P(
    Served, SanedScanP,
    ::testing::Values(NetCase{"Q5100_Color_A4_300", "quarto:libusb/001/004", e2e::COLOR, &e2e::A4, 300},
                      NetCase{"Q4200_Gray_Letter_150", "quarto:libusb/001/005", e2e::GRAY, &e2e::LETTER, 150},
                      NetCase{"Q3260_LineArt_A5_300", "quarto:libusb/001/002", e2e::LINEART, &e2e::A5, 300}),
    [](const ::testing::TestParamInfo<NetCase>& info) { return std::string(info.param.szName); });

}  // namespace
