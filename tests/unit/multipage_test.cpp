// The multi-page reader of feeder jobs against the in-process simulated
// scanner, fed record by record: every status of the record table, messages
// that are no scan record, failed fetches, the drain after a completed job,
// pages handed out one per session, the job directory, the progress data
// file, and the progress window itself on a virtual display.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <usb.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "ICommand.h"
#include "IOComm.h"
#include "ImageData.h"
#include "ScanRecordDataMgr.h"
#include "protocol_testutil.h"
#include "testutil.h"
#include "usbsim.h"

// Every bulk read passes through here: a test may look at the job (or hold it
// up) between two reads of the reader.
namespace {
std::function<void()> g_beforeRead;
}

extern "C" int usb_bulk_read(usb_dev_handle* h, int ep, char* bytes, int size, int timeout) {
    static auto real = reinterpret_cast<int (*)(usb_dev_handle*, int, char*, int, int)>(dlsym(RTLD_NEXT, "usb_bulk_read"));
    if (g_beforeRead) g_beforeRead();
    return real(h, ep, bytes, size, timeout);
}

namespace {

using proto::Bytes;
using proto::hex;

// Records as a device sends them in a feeder job (lengths count the status,
// the unused byte and the payload).
const char* const JOB_START = "1b53020002000000 0800";
const char* const PAGE_START = "1b53020002000000 0900";
const char* const PAGE_END = "1b53020002000000 0700";
const char* const COMPLETE = "1b53020002000000 0100";
const char* const FRAG_AB = "1b53020004000000 0000 4142";
const char* const FRAG_CDE = "1b53020005000000 0000 434445";
const char* const FRAG_XY = "1b53020004000000 0000 5859";

char kName[] = "Tarvesk/Quarto 5100/libusb:001:004";

class MultiPage : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, usbsim_load_text("bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\nversion 500\n"));
        store.SetIntOption("USB_MULTIPAGE_FLAG", 1);
        store.SetIntOption("SCAN_SOURCE", 1);
        newTransport();
        useCommand(500);
        ASSERT_EQ(0, comm->openDevice());
    }
    void newTransport() {
        comm.reset(new IOComm());
        comm->setDevice(kName);
        comm->setConfigReader(&store);
        if (cmd) comm->setCommand(cmd.get());
    }
    void TearDown() override {
        g_beforeRead = nullptr;
        comm.reset();
        usbsim_reset();
    }
    void useCommand(int version) {
        cmd.reset(ICommand::createCmdInstance(version, 1, 0));
        cmd->setConfigReader(&store);
        comm->setCommand(cmd.get());
    }
    void send(const Bytes& b) { ASSERT_EQ(0, usbsim_inject(0, b.data(), (int)b.size())); }
    void send(std::initializer_list<const char*> records) {
        for (const char* r : records) send(hex(r));
    }
    // The pages the transport hands out, one per session as a front end gets them.
    std::vector<std::string> pages() {
        std::vector<std::string> out;
        for (int session = 0; session < 100; ++session) {
            if (session > 0 && comm->openDevice() != 19) break;
            DataBuffer buffer;
            ImageData image;
            int n = 0;
            if (comm->ReadImage(&n, &buffer, &image) != 0) break;
            out.push_back(std::string((const char*)buffer.GetRawDataPtr(), (size_t)buffer.GetRawDataSize()));
            EXPECT_EQ(n, buffer.GetRawDataSize());
            EXPECT_EQ(1, comm->ReadImage(&n, &buffer, &image)) << "one page per session";
        }
        return out;
    }
    ConfigReader store;
    std::unique_ptr<ICommand> cmd;
    std::unique_ptr<IOComm> comm;
};

// ---------------------------------------------------------------- the record table

struct JobCase {
    const char* szName;
    std::vector<const char*> vRecords;
    int iResult;
    std::vector<std::string> vPages;  // handed out afterwards
    int iLeft;                        // transfers the job leaves unread of one sent after the records
};

void PrintTo(const JobCase& c, std::ostream* os) { *os << c.szName; }

class RecordTable : public MultiPage, public ::testing::WithParamInterface<JobCase> {};

// Two pages start the same way; then the case's records follow, and one more
// transfer. The job's result, the pages that stay cached, and what is left of
// the device's transfers: a completed job drains the rest, a failed one reads
// no further (a failed fetch has read everything). A jam, running out of
// memory and an unknown status end a job with its pages through scanimage.
TEST_P(RecordTable, EndsTheJobAndKeepsTheEndedPages) {
    const JobCase& c = GetParam();
    send({JOB_START, PAGE_START, FRAG_AB, FRAG_CDE, PAGE_END, PAGE_START, FRAG_XY});
    for (const char* r : c.vRecords) send(hex(r));
    if (c.iLeft >= 0) send(hex("1b53020004000000 0000 2121"));
    EXPECT_EQ(c.iResult, comm->consumeScannerData());
    EXPECT_EQ(c.iLeft > 0 ? 1 : 0, usbsim_queued(0));
    EXPECT_EQ(c.vPages, pages());
    EXPECT_TRUE(qt::listDir(comm->getJobDirectory()).empty());
}

const std::vector<std::string> ONE = {"ABCDE"};
const std::vector<std::string> TWO = {"ABCDE", "XY"};

INSTANTIATE_TEST_SUITE_P(
    Statuses, RecordTable,
    ::testing::Values(JobCase{"Completed", {PAGE_END, COMPLETE}, 0, TWO, 0},
                      JobCase{"CompletedWithoutPageEnd", {COMPLETE}, 0, TWO, 0},
                      JobCase{"HostAbort", {PAGE_END, "1b53020002000000 0300"}, 1, TWO, 1},
                      JobCase{"DeviceAbort", {"1b53020002000000 0400"}, 1, ONE, 1},
                      JobCase{"OutOfMemory", {"1b53020002000000 0200"}, 1, ONE, 1},
                      JobCase{"CommunicationError", {"1b53020002000000 0600"}, 1, ONE, 1},
                      JobCase{"UnknownStatus", {"1b53020002000000 0a00"}, 1, ONE, 1},
                      JobCase{"NotAScanRecord", {"1b44040000008002"}, 1, ONE, 1},
                      JobCase{"MarkersWithoutEnd", std::vector<const char*>(USB_MAX_EMPTY_MESSAGES, PAGE_START), 1,
                              ONE, 1},
                      JobCase{"FetchFails", {}, 1, ONE, -1},
                      JobCase{"DataPartNeverComplete", {"1b53020010000000 0000 4142"}, 1, ONE, -1}),
    [](const ::testing::TestParamInfo<JobCase>& info) { return std::string(info.param.szName); });

// Messages are framed by their 8-byte header whatever the command class's
// strip sizes: split over transfers, a fragment of no bytes.
TEST_F(MultiPage, MessagesAreFramedByTheirHeaderForEveryCommandClass) {
    for (int version : {326, 401, 402, 500}) {
        useCommand(version);
        send({JOB_START, PAGE_START, FRAG_AB, "1b53020002000000 0000"});
        Bytes frag = hex(FRAG_CDE);
        send(Bytes(frag.begin(), frag.begin() + 3));
        send(Bytes(frag.begin() + 3, frag.begin() + 9));
        send(Bytes(frag.begin() + 9, frag.end()));
        send({PAGE_END, COMPLETE});
        EXPECT_EQ(0, comm->consumeScannerData()) << version;
        EXPECT_EQ(std::vector<std::string>{"ABCDE"}, pages()) << version;
    }
}

// The job directory is private, made by the first job and gone with the
// transport together with the pages nobody took; a transport that never ran
// a job (as enumeration makes them) neither sees nor clears those pages.
TEST_F(MultiPage, TheJobDirectoryBelongsToTheTransportThatMadeIt) {
    qt::TempDir tmp;
    qt::ScopedEnv tmpdir("TMPDIR", tmp.path().c_str());
    send({JOB_START, PAGE_START, FRAG_AB, PAGE_END, PAGE_START, FRAG_XY, PAGE_END, COMPLETE});
    ASSERT_EQ(0, comm->consumeScannerData());
    const std::string jobDir = comm->getJobDirectory();
    ASSERT_EQ(0u, jobDir.rfind(tmp.path() + "/", 0)) << jobDir;
    struct stat st;
    ASSERT_EQ(0, stat(jobDir.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777u);
    EXPECT_EQ(2u, qt::listDir(jobDir).size());

    IOComm().setDevice(kName);  // a bystander
    EXPECT_EQ(2, ScanRecordDataMgr::getInstance()->getTotalPages());
    EXPECT_EQ(19, comm->openDevice());

    comm.reset();
    EXPECT_TRUE(qt::listDir(tmp.path()).empty());
    EXPECT_EQ(0, ScanRecordDataMgr::getInstance()->getTotalPages());
}

// A cached page whose file went away (a clean-up of the temporary directory)
// cannot be handed out, but it must not outlive its transport: the next
// transport's job gives its own pages, not the old page's failure.
TEST_F(MultiPage, APageFileThatVanishedDoesNotOutliveItsTransport) {
    send({JOB_START, PAGE_START, FRAG_AB, PAGE_END, PAGE_START, FRAG_CDE, PAGE_END, COMPLETE});
    ASSERT_EQ(0, comm->consumeScannerData());
    const std::string jobDir = comm->getJobDirectory();
    std::vector<std::string> files = qt::listDir(jobDir);
    ASSERT_EQ(2u, files.size());
    ASSERT_EQ(0, unlink((jobDir + "/" + files[0]).c_str()));
    DataBuffer buffer;
    ImageData image;
    int n = 0;
    EXPECT_EQ(15, comm->ReadImage(&n, &buffer, &image)) << "the vanished page cannot be read";

    newTransport();
    ASSERT_EQ(0, comm->openDevice()) << "no page of the old transport is cached";
    send({JOB_START, PAGE_START, FRAG_XY, PAGE_END, COMPLETE});
    ASSERT_EQ(0, comm->consumeScannerData());
    EXPECT_EQ(std::vector<std::string>{"XY"}, pages());
}

// A page that grows past what an image of the frame can take (for a small
// frame the 42,000,000-byte floor) ends the job: it is neither kept in the
// cache nor read back into memory, and the ended page before it stays.
TEST_F(MultiPage, APageThatNeverEndsEndsTheJob) {
    store.SetIntOption("PIXELS_PER_LINE", 8);
    store.SetIntOption("LINES", 8);
    send({JOB_START, PAGE_START, FRAG_XY, PAGE_END, PAGE_START});
    const unsigned payload = 65533;  // the most one message carries
    Bytes fragment = hex("1b530200ffff0000 0000");
    fragment.resize(10 + payload, 0x11);
    const int messages = (int)(42000000 / payload) + 1;  // the last one passes the floor
    for (int i = 0; i < messages; ++i) send(fragment);
    send({PAGE_END, COMPLETE});
    EXPECT_EQ(1, comm->consumeScannerData());
    EXPECT_EQ(2, usbsim_queued(0)) << "read on past the bound";
    const std::vector<std::string> got = pages();
    EXPECT_EQ(1u, got.size()) << "the page past the bound was kept";
    if (!got.empty()) {
        EXPECT_EQ("XY", got[0]);
    }
    EXPECT_TRUE(qt::listDir(comm->getJobDirectory()).empty());
}

// ---------------------------------------------------------------- the progress display

// The data file of the display as it is when a read is about to happen.
std::string displayFile(const std::string& jobDir) {
    for (const std::string& n : qt::listDir(jobDir))
        if (n.rfind(".tmp.display.", 0) == 0) return jobDir + "/" + n;
    return std::string();
}

// A stand-in window program that only notes that it ran.
struct StandIn {
    qt::TempDir dir;
    std::string szProgram = dir.file("window");
    StandIn() {
        qt::writeFile(szProgram, "#!/bin/sh\ntouch '" + dir.file("ran") + "'\n");
        chmod(szProgram.c_str(), 0700);
    }
    bool ran(int waitTenths) {
        for (int i = 0; i < waitTenths * 10 && !qt::fileExists(dir.file("ran")); ++i) usleep(10000);
        return qt::fileExists(dir.file("ran"));
    }
};

const std::vector<const char*> THREE_PAGES = {JOB_START, PAGE_START, FRAG_AB, PAGE_END, PAGE_START, FRAG_CDE,
                                               PAGE_END,  PAGE_START, FRAG_XY, PAGE_END, COMPLETE};

// With a display the window program runs and its data file gets each page
// number, then goes with the job; without one neither is made, and the pages
// come out all the same.
class Display : public MultiPage, public ::testing::WithParamInterface<bool> {};

TEST_P(Display, IsFedEachPageNumberOnlyWhenThereIsOne) {
    const bool shown = GetParam();
    StandIn window;
    qt::ScopedEnv display("DISPLAY", shown ? ":99" : nullptr);
    store.SetIntOption("READ_STATUS_DISPLAY_FLAG", 1);
    store.SetStringOption("DISPLAYBINARY", window.szProgram.c_str());
    for (const char* r : THREE_PAGES) send(hex(r));
    std::string seen;
    bool sawFile = false;
    g_beforeRead = [&] {
        std::string f = displayFile(comm->getJobDirectory());
        sawFile = sawFile || !f.empty();
        if (!f.empty()) seen = qt::readFile(f);
    };
    ASSERT_EQ(0, comm->consumeScannerData());
    g_beforeRead = nullptr;
    EXPECT_EQ(shown, sawFile);
    EXPECT_EQ(shown ? "1\n2\n3\n" : "", seen);
    EXPECT_EQ("", displayFile(comm->getJobDirectory())) << "stop deletes the data file";
    EXPECT_EQ(shown, window.ran(shown ? 100 : 3));
    EXPECT_EQ(3u, pages().size());
}

INSTANTIATE_TEST_SUITE_P(WithAndWithout, Display, ::testing::Bool());

// ---------------------------------------------------------------- the real window

// A virtual display of its own (Xvfb picks a free number), gone with the object.
class VirtualDisplay {
public:
    VirtualDisplay() {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid = fork();
        if (pid == 0) {
            close(fds[0]);
            int devnull = open("/dev/null", O_RDWR);
            dup2(devnull, 0);
            dup2(devnull, 1);
            dup2(devnull, 2);
            std::string fd = std::to_string(fds[1]);
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "640x480x24", "-nolisten", "tcp",
                   (char*)nullptr);
            _exit(127);
        }
        close(fds[1]);
        char buf[32] = {0};
        ssize_t n = pid > 0 ? read(fds[0], buf, sizeof(buf) - 1) : -1;
        close(fds[0]);
        if (n > 0) szName = ":" + std::to_string(atoi(buf));
    }
    ~VirtualDisplay() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    const std::string& name() const { return szName; }

private:
    pid_t pid = -1;
    std::string szName;
};

bool haveProgram(const char* name) {
    std::string out, err;
    return qt::runProgram({"sh", "-c", std::string("command -v ") + name}, {}, &out, &err, 10) == 0;
}

// Window names on the display that match the pattern (xdotool's search).
std::string windowNames(const std::string& display, const std::string& pattern) {
    std::string out, err;
    qt::runProgram({"xdotool", "search", "--name", pattern, "getwindowname", "%@"}, {"DISPLAY=" + display}, &out,
                   &err, 10);
    return out;
}

bool waitFor(const std::function<bool()>& ready, int tenths) {
    for (int i = 0; i < tenths; ++i) {
        if (ready()) return true;
        usleep(100000);
    }
    return ready();
}

// A five-page job held up after the third page start: the window shows that
// page (a screenshot of it is kept under the build tree), and it closes when
// the job ends.
TEST_F(MultiPage, TheProgressWindowShowsThePageAndClosesAfterTheJob) {
    for (const char* tool : {"Xvfb", "xdotool", "/usr/bin/python3"})
        if (!haveProgram(tool)) GTEST_SKIP() << tool << " is not installed: the progress window is not tested";
    VirtualDisplay x;
    ASSERT_FALSE(x.name().empty()) << "Xvfb did not start";
    qt::ScopedEnv display("DISPLAY", x.name().c_str());
    store.SetIntOption("READ_STATUS_DISPLAY_FLAG", 1);
    const std::string program = qt::sourceDir() + "/tools/progress/quarto-progress";
    store.SetStringOption("DISPLAYBINARY", program.c_str());
    send(hex(JOB_START));
    for (int p = 0; p < 5; ++p) send({PAGE_START, FRAG_AB, PAGE_END});
    send(hex(COMPLETE));

    // Held before the read that follows the third page start.
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    int pageStarts = 0;
    g_beforeRead = [&] {
        std::string f = displayFile(comm->getJobDirectory());
        const std::string lines = f.empty() ? std::string() : qt::readFile(f);
        pageStarts = (int)std::count(lines.begin(), lines.end(), '\n');
        if (pageStarts != 3) return;
        std::unique_lock<std::mutex> lock(m);
        cv.wait_for(lock, std::chrono::seconds(120), [&] { return release; });
    };
    int result = -1;
    std::thread job([&] { result = comm->consumeScannerData(); });

    // A cold start of Python and GTK on a loaded machine (the sanitizer tree
    // runs beside other tests) can take many seconds: wait generously.
    bool shown = waitFor([&] { return windowNames(x.name(), "Scanning page 3") == "Scanning page 3\n"; }, 900);
    EXPECT_TRUE(shown) << "no window \"Scanning page 3\"";
    if (shown && haveProgram("xwd") && haveProgram("pnmtopng")) {
        const std::string dir = qt::binaryDir() + "/tests/artifacts";
        mkdir(dir.c_str(), 0755);
        std::string out, err;
        qt::runProgram({"sh", "-c", "xwd -root -silent | xwdtopnm 2>/dev/null | pnmtopng > \"$0\"",
                        dir + "/progress.png"},
                       {"DISPLAY=" + x.name()}, &out, &err, 30);
    }
    {
        std::lock_guard<std::mutex> lock(m);
        release = true;
    }
    cv.notify_all();
    job.join();
    g_beforeRead = nullptr;
    EXPECT_EQ(0, result);
    EXPECT_TRUE(waitFor([&] { return windowNames(x.name(), "Scanning").empty(); }, 300))
        << "the window is still there after the job";
    EXPECT_EQ(5u, pages().size());
}

}  // namespace
