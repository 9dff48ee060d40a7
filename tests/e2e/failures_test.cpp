// Failures as a user meets them: scanimage's message for each status, what
// reached the simulated scanner (the scanner is always released), a front end
// that keeps its handle open and scans again after a failed page, and
// scanimage stopped with Ctrl-C in the middle of a feeder job.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "backend_api.h"
#include "e2e_scan.h"

namespace {

const char* const DEVICE = "quarto:libusb/001/004";

// The event log reduced to what a failure is judged by: requests by name, the
// scan's start and end, cancel, release and close. With fromStart, the list
// begins at the status request of the scan start (open sends none), so open's
// traffic is left out.
std::vector<std::string> scanEvents(const std::string& log, bool fromStart = true) {
    static const struct {
        const char* szHeader;
        const char* szName;
    } REQUESTS[] = {{"1b5304", "STATUS"}, {"1b5305", "LOCK"},   {"1b5301", "START"},
                    {"1b5306", "UNLOCK"}, {"1b530f", "CANCEL"}, {"1b4404", "WAKE"}};
    std::vector<std::string> events;
    std::istringstream in(log);
    bool started = !fromStart;
    for (std::string line; std::getline(in, line);) {
        std::string e;
        size_t data = line.find(" data=");
        if (line.compare(0, 6, "write ") == 0 && data != std::string::npos) {
            for (const auto& r : REQUESTS)
                if (line.compare(data + 6, 6, r.szHeader) == 0) e = r.szName;
            if (e.empty()) e = "write " + line.substr(data + 6, 6);
            if (e == "STATUS") started = true;
        } else if (line.compare(0, 15, "scan dev=0 end ") == 0) {
            e = line.substr(11, line.find(" lines=") - 11);  // "end status=N"
        } else if (line == "scan dev=0 start") {
            e = "scan";
        } else if (line.compare(0, 7, "cancel ") == 0 || line.compare(0, 8, "release ") == 0 ||
                   line.compare(0, 6, "close ") == 0) {
            e = line.substr(0, line.find(' '));
        }
        if (started && !e.empty()) events.push_back(e);
    }
    return events;
}

std::string joined(const std::vector<std::string>& v) {
    std::string s;
    for (const std::string& e : v) s += (s.empty() ? "" : " ") + e;
    return s;
}

// A 5100 scenario with extra lines for its device.
std::string q5100Scenario(const std::string& extra) { return qt::readFile(e2e::dataFile("e2e_q5100.scn")) + extra; }

// ---------------------------------------------------------------- scanimage

struct UserFailure {
    const char* szName;
    const char* szScenarioExtra;
    std::vector<std::string> vArgs;  // after the device and the page settings
    const char* szMessage;           // in scanimage's standard error
    const char* szEvents;            // scanEvents of the run
};

void PrintTo(const UserFailure& c, std::ostream* os) { *os << c.szName; }

class UserSees : public ::testing::TestWithParam<UserFailure> {};

TEST_P(UserSees, TheStatusMessageAndTheScannerIsReleased) {
    const UserFailure& c = GetParam();
    qt::TempDir dir;
    qt::writeFile(dir.file("sim.scn"), q5100Scenario(c.szScenarioExtra));
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    std::vector<std::string> args = e2e::scanArgs(DEVICE, e2e::COLOR, e2e::A5, 150);
    args.insert(args.end(), c.vArgs.begin(), c.vArgs.end());
    std::string out, err;
    int rc = sane.scanimage(args, &out, &err, {}, 60);
    EXPECT_NE(0, rc);
    EXPECT_NE(std::string::npos, err.find(c.szMessage)) << err;
    std::string log = qt::readFile(sane.simLogPath());
    EXPECT_EQ(c.szEvents, joined(scanEvents(log))) << log;
}

// The scanner's USB interface is always released and closed. A refused LOCK
// needs no UNLOCK; a jam or an abort record unlocks; a read that times out is
// an I/O error, which leaves the scanner locked on purpose (the next session's
// open sends UNLOCK first).
INSTANTIATE_TEST_SUITE_P(
    Faults, UserSees,
    ::testing::Values(
        UserFailure{"LockAnsweredBusy", "  lock_status 131\n", {}, "sane_start: Device busy",
                    "STATUS LOCK release close"},
        UserFailure{"BusyAtOpen", "  fault open_fail 1\n", {}, "open of device quarto:libusb/001/004 failed: Device busy",
                    ""},
        UserFailure{"PaperJam", "  fault jam 200\n", {}, "sane_read: Operation was canceled",
                    "STATUS LOCK START scan end status=5 UNLOCK release close"},
        UserFailure{"ReadTimeout", "  fault read_timeout 40\n", {}, "sane_read: Error during device I/O",
                    "STATUS LOCK START scan release close"}),
    [](const ::testing::TestParamInfo<UserFailure>& info) { return std::string(info.param.szName); });

// ---------------------------------------------------------------- a front end that keeps its handle

// The built backend and the simulator in this process, as a front end such as
// a GUI loads them: the simulated libusb-0.1 first (global), so that the
// backend binds to it.
struct InProcess : e2e::BackendApi {
    int (*load_text)(const char*) = nullptr;
    int (*set_fault)(int, const char*, int) = nullptr;
    const char* (*events)() = nullptr;
    void (*clear_record)() = nullptr;
    int (*feeder_sheets)(int) = nullptr;
    bool bOk = false;

    static const InProcess& get() {
        static InProcess api = loadAll();
        return api;
    }

private:
    static InProcess loadAll() {
        InProcess a;
        std::string path = qt::binaryDir() + "/sim/libusb-0.1.so.4";
        void* sim = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (sim == nullptr) {
            fprintf(stderr, "dlopen %s: %s\n", path.c_str(), dlerror());
            return a;
        }
        a.bOk = a.load() && e2e::bindSymbol(sim, "usbsim_load_text", a.load_text) &&
                e2e::bindSymbol(sim, "usbsim_set_fault", a.set_fault) &&
                e2e::bindSymbol(sim, "usbsim_events", a.events) &&
                e2e::bindSymbol(sim, "usbsim_clear_record", a.clear_record) &&
                e2e::bindSymbol(sim, "usbsim_feeder_sheets", a.feeder_sheets);
        return a;
    }
};

const int OPT_RESOLUTION = 9;
const int OPT_ORIGINAL_SIZE = 12;
const int OPT_SOURCE = 16;

struct KeptHandleFault {
    const char* szName;
    const char* szFault;
    int iValue;
    bool bBeforeStart;     // the simulator decides a jam when the scan starts
    SANE_Status eStatus;   // of the read that fails
    const char* szEvents;  // from the fault to the front end's cancel
    bool bHandleScansOn;   // the kept handle scans the next page, else the front end opens the device again
};

void PrintTo(const KeptHandleFault& c, std::ostream* os) { *os << c.szName; }

// A handle on the 5100 kept across scans, with the means to read whole pages.
class HandleTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (h != nullptr) api.close(h);
    }
    // The four models' configuration, and the 5100 with extra scenario lines in the simulator.
    void load(const std::string& extra) {
        ASSERT_TRUE(api.bOk) << "the built backend or simulator could not be loaded";
        qt::writeFile(dir.file("quarto.conf"), qt::SaneEnv::expand(e2e::MODELS_CONF));
        ASSERT_EQ(0, api.load_text(q5100Scenario(extra).c_str()));
    }
    // Opens and keeps the frame parameters: a business card in colour, or 3x5
    // photos at 150 dpi from the feeder.
    void openPage(const char* name, bool feeder = false) {
        ASSERT_EQ(SANE_STATUS_GOOD, api.open(name, &h));
        char size[] = "Business Card", photo[] = "3x5 Photo", source[] = "Automatic Document Feeder";
        ASSERT_EQ(SANE_STATUS_GOOD,
                  api.control_option(h, OPT_ORIGINAL_SIZE, SANE_ACTION_SET_VALUE, feeder ? photo : size, nullptr));
        SANE_Word dpi = 150;
        if (feeder) {
            ASSERT_EQ(SANE_STATUS_GOOD, api.control_option(h, OPT_SOURCE, SANE_ACTION_SET_VALUE, source, nullptr));
            ASSERT_EQ(SANE_STATUS_GOOD, api.control_option(h, OPT_RESOLUTION, SANE_ACTION_SET_VALUE, &dpi, nullptr));
        }
        ASSERT_EQ(SANE_STATUS_GOOD, api.get_parameters(h, &p));
    }
    // Reads until a status other than GOOD; returns it and appends the bytes to data.
    SANE_Status readToEnd(std::string* data) {
        std::vector<unsigned char> bytes;
        SANE_Status s = api.readFrame(h, 32768, &bytes, 100000);
        data->append(bytes.begin(), bytes.end());
        return s;
    }
    // Starts and reads one page: the start's status when it fails, else the read's end.
    SANE_Status scanPage(std::string* data) {
        SANE_Status s = api.start(h);
        return s == SANE_STATUS_GOOD ? readToEnd(data) : s;
    }
    // Every pixel against page p of the formula of the window asked for.
    void expectPage(const std::string& data, int page) {
        e2e::Window w = e2e::lastWindow(api.events());
        ASSERT_TRUE(w.bFound) << api.events();
        e2e::Pnm img;
        img.cKind = '6';
        img.iWidth = p.pixels_per_line;
        img.iHeight = p.lines;
        img.szData = data;
        const e2e::Window shifted = e2e::pageWindow(w, page);
        EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(shifted, row); })) << "page " << page;
    }
    void expectFullPage() {
        api.clear_record();
        std::string data;
        EXPECT_EQ(SANE_STATUS_EOF, scanPage(&data)) << api.events();
        api.cancel(h);
        expectPage(data, 1);
    }

    const InProcess& api = InProcess::get();
    qt::TempDir dir, tmp;
    qt::ScopedEnv conf{"SANE_CONFIG_DIR", dir.path().c_str()};
    qt::ScopedEnv tmpdir{"TMPDIR", tmp.path().c_str()};
    SANE_Handle h = nullptr;
    SANE_Parameters p{};
};

class KeptHandle : public HandleTest, public ::testing::WithParamInterface<KeptHandleFault> {};

// A GUI front end keeps the handle after a failed page and starts the next one.
TEST_P(KeptHandle, NextPageAfterAFailedOne) {
    const KeptHandleFault& c = GetParam();
    ASSERT_NO_FATAL_FAILURE(load(""));
    ASSERT_NO_FATAL_FAILURE(openPage("libusb/001/004"));

    auto fault = [&](int value) { return api.set_fault(0, c.szFault, value); };
    if (c.bBeforeStart) {
        ASSERT_EQ(0, fault(c.iValue));
    }
    ASSERT_EQ(SANE_STATUS_GOOD, api.start(h));
    std::vector<SANE_Byte> buf(4096);
    SANE_Int len = 0;
    ASSERT_EQ(SANE_STATUS_GOOD, api.read(h, buf.data(), (SANE_Int)buf.size(), &len));
    api.clear_record();
    if (!c.bBeforeStart) {
        ASSERT_EQ(0, fault(c.iValue));
    }
    std::string first;
    EXPECT_EQ(c.eStatus, readToEnd(&first));
    EXPECT_LT(first.size(), (size_t)p.bytes_per_line * (size_t)p.lines);
    api.cancel(h);
    EXPECT_EQ(c.szEvents, joined(scanEvents(api.events(), false))) << api.events();

    // The cause goes away.
    ASSERT_EQ(0, fault(-1));
    if (!c.bHandleScansOn) {
        EXPECT_EQ(SANE_STATUS_IO_ERROR, api.start(h));
        api.close(h);
        h = nullptr;
        ASSERT_NO_FATAL_FAILURE(openPage("libusb/001/004"));
    }
    expectFullPage();
}

// A jam record ends the page cleanly: the scanner is unlocked and the kept
// handle scans on. A read time-out is an I/O error that leaves the rest of the
// broken page in the device; only open drains and unlocks, so the front end's
// next start on the kept handle fails too and the scan works after it opens
// the device again.
INSTANTIATE_TEST_SUITE_P(
    Faults, KeptHandle,
    ::testing::Values(KeptHandleFault{"PaperJam", "jam", 20, true, SANE_STATUS_CANCELLED,
                                      "end status=5 UNLOCK release close", true},
                      KeptHandleFault{"ReadTimeout", "read_timeout", 3, false, SANE_STATUS_IO_ERROR, "release close",
                                      false}),
    [](const ::testing::TestParamInfo<KeptHandleFault>& info) { return std::string(info.param.szName); });

// ---------------------------------------------------------------- feeder jobs

struct JobFault {
    const char* szName;
    const char* szFault;   // ends the job after page 2 of 4
    const char* szEvents;  // from the job's start to the front end's cancel
};

void PrintTo(const JobFault& c, std::ostream* os) { *os << c.szName; }

class FeederJobFault : public HandleTest, public ::testing::WithParamInterface<JobFault> {};

// The 5100 with four sheets of 3x5 photos (750 lines at 150 dpi) in its
// feeder, scanned as one job, and a fault after page 2: the start reports an
// I/O error, the scanner is unlocked and released, and the kept handle then
// delivers what the job left: the ended pages, then the sheets the job never
// reached, then the empty feeder. Closing leaves nothing in TMPDIR.
TEST_P(FeederJobFault, TheNextBatchOnTheHandleWorksAndNothingIsLeft) {
    const JobFault& c = GetParam();
    const int lines = 750;
    ASSERT_NO_FATAL_FAILURE(load(std::string("  sheets 4\n  multipage on\n  fault ") + c.szFault + " " +
                                 std::to_string(2 * lines) + "\n"));
    ASSERT_NO_FATAL_FAILURE(openPage("libusb/001/004", true));
    ASSERT_EQ(lines, p.lines);

    api.clear_record();
    EXPECT_EQ(SANE_STATUS_IO_ERROR, api.start(h));
    api.cancel(h);
    EXPECT_EQ(c.szEvents, joined(scanEvents(api.events()))) << api.events();
    EXPECT_EQ(2, api.feeder_sheets(0));

    api.set_fault(0, c.szFault, -1);
    std::string data;
    for (int page = 1; page <= 4; ++page) {
        data.clear();
        ASSERT_EQ(SANE_STATUS_EOF, scanPage(&data)) << "page " << page;
        expectPage(data, page);
    }
    EXPECT_EQ(SANE_STATUS_NO_DOCS, scanPage(&data));
    api.cancel(h);
    api.close(h);
    h = nullptr;
    EXPECT_TRUE(qt::listDir(tmp.path()).empty());
}

// Pages ended before the fault stay cached. (Every status a job can end
// with: the record table of the multi-page unit test.)
INSTANTIATE_TEST_SUITE_P(
    AfterPage2Of4, FeederJobFault,
    ::testing::Values(JobFault{"PaperJam", "jam", "STATUS LOCK START scan end status=5 UNLOCK release close"},
                      JobFault{"ReadTimeout", "stall", "STATUS LOCK START scan end stalled UNLOCK release close"}),
    [](const ::testing::TestParamInfo<JobFault>& info) { return std::string(info.param.szName); });

// scanimage --batch over four sheets writes each page into FIFOs planted
// where it writes its pages ("page-N.pnm.part"), so the test reads page 1
// whole and stops scanimage with Ctrl-C in the middle of page 2: while the
// FIFO is not read the scan cannot move on.
struct BatchInterrupted {
    int iStatus = -1;
    std::vector<std::string> vPages;  // what each FIFO delivered
    std::string szErr;
};

BatchInterrupted batchInterrupted(const qt::SaneEnv& sane, const std::vector<std::string>& args,
                                  const std::vector<std::string>& extraEnv, const std::string& pageFormat,
                                  size_t secondPageBytes, int timeoutSeconds) {
    BatchInterrupted r;
    char path[512];
    for (int p = 1; p <= 2; ++p) {
        snprintf(path, sizeof(path), pageFormat.c_str(), p);
        if (mkfifo((std::string(path) + ".part").c_str(), 0600) != 0) return r;
    }
    std::string errFile = sane.file("scanimage.err");
    int errFd = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    std::vector<std::string> argv = {"scanimage"};
    argv.insert(argv.end(), args.begin(), args.end());
    qt::ChildFds fds;
    fds.err = errFd;
    pid_t pid = qt::spawnProgram(argv, sane.env(extraEnv), fds);
    if (errFd >= 0) close(errFd);
    if (pid < 0) return r;
    const time_t deadline = time(nullptr) + timeoutSeconds;
    char buf[65536];
    for (int p = 1; p <= 2; ++p) {
        snprintf(path, sizeof(path), pageFormat.c_str(), p);
        int fd = open((std::string(path) + ".part").c_str(), O_RDONLY | O_NONBLOCK);
        if (fd < 0) break;
        std::string data;
        bool signalled = false;
        while (time(nullptr) <= deadline) {
            if (p == 2 && !signalled && data.size() >= secondPageBytes) {
                kill(pid, SIGINT);
                signalled = true;
            }
            // Before scanimage opens the FIFO nothing is reported; once it has
            // closed it, the end of file is.
            struct pollfd pfd = {fd, POLLIN, 0};
            if (poll(&pfd, 1, 200) <= 0) continue;
            ssize_t n = read(fd, buf, sizeof(buf));
            if (n > 0) data.append(buf, (size_t)n);
            if (n == 0) break;
        }
        close(fd);
        r.vPages.push_back(data);
    }
    r.iStatus = qt::waitProgram(pid, (int)std::max<time_t>(1, deadline - time(nullptr)));
    r.szErr = qt::readFile(errFile);
    return r;
}

TEST(UserInterrupts, CtrlCInTheMiddleOfAFeederJobUnlocksAndLeavesNothing) {
    qt::TempDir dir, tmp;
    const std::string scenario = dir.file("sim.scn");
    qt::writeFile(scenario, q5100Scenario("  sheets 4\n  multipage on\n"));
    qt::SaneEnv sane(e2e::MODELS_CONF, scenario);
    const std::vector<std::string> page = {"-d", DEVICE, "--format=pnm", "--original-size", "3x5 Photo", "--source",
                                           "Automatic Document Feeder", "--scan-resolution", "150"};
    std::vector<std::string> args = page;
    args.push_back("--batch=" + dir.file("page-%d.pnm"));
    // 3x5 inch at 150 dpi in colour: 450 x 750 pixels, 1 MB a page.
    BatchInterrupted r = batchInterrupted(sane, args, {"TMPDIR=" + tmp.path()}, dir.file("page-%d.pnm"), 4096, 60);
    EXPECT_NE(0, r.iStatus) << r.szErr;
    EXPECT_NE(std::string::npos, r.szErr.find("received signal 2")) << r.szErr;
    ASSERT_EQ(2u, r.vPages.size()) << r.szErr;
    e2e::Pnm img;
    std::string why;
    ASSERT_TRUE(e2e::parsePnm(r.vPages[0], &img, &why)) << why;
    e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
    EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(e2e::pageWindow(w, 1), row); }));
    EXPECT_GE(r.vPages[1].size(), (size_t)4096);
    EXPECT_LT(r.vPages[1].size(), img.szData.size());

    // One job; page 1 unlocked the scanner, the cancel in page 2 stops and
    // unlocks again, the scanner is released, the job directory is gone.
    std::string log = qt::readFile(sane.simLogPath());
    EXPECT_EQ("STATUS LOCK START scan end status=1 UNLOCK CANCEL cancel UNLOCK release close", joined(scanEvents(log)))
        << log;
    EXPECT_TRUE(qt::listDir(tmp.path()).empty());

    // A new run empties the (again loaded) feeder.
    qt::TempDir again;
    args = page;
    args.push_back("--batch=" + again.file("page-%d.pnm"));
    std::string out, err;
    EXPECT_EQ(0, sane.scanimage(args, &out, &err, {"TMPDIR=" + tmp.path()}, 60)) << err;
    EXPECT_EQ(4u, qt::listDir(again.path()).size());
    EXPECT_TRUE(qt::listDir(tmp.path()).empty());
}

}  // namespace
