// Network scans through the entry points of the built library, in a network
// namespace of the test process's own, with the simulated scan program: the
// pages of a feeder job and its end, a failing program or a broken page with
// its status, after which the next scan works; no descriptor is left behind.
#include <dirent.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "netjob.h"
#include "netns.h"
#include "session_testutil.h"

namespace {

const int OPT_IP_ADDRESS = 2;
const int OPT_MODE = 10;
const int OPT_SCAN_RESOLUTION = 9;

int openDescriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

class NetSession : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        bPrivate = qt::privateNetwork(false, &szWhy);
        iFds = openDescriptors();
    }
    static void TearDownTestSuite() {
        if (bPrivate) {
            EXPECT_EQ(iFds, openDescriptors()) << "descriptors left open by the network scans";
        }
    }

    void SetUp() override {
        if (!bPrivate) GTEST_SKIP() << "no private network namespace: " << szWhy;
        ASSERT_TRUE(st::sane().ok);
        qt::writeFile(conf.file("quarto.conf"), dir.quartoConf("DISCOVER_USB_FLAG=0\nDISCOVER_NET_FLAG=0\n"
                                                              "DEVICE_LIST_ORDER_MODE=0\n"));
        ASSERT_EQ(SANE_STATUS_GOOD, st::sane().open("libnet/SPECIFY_DEVICE", &h));
        set(OPT_IP_ADDRESS, "192.0.2.2");
        set(st::OPT_SOURCE, "Multiple Pages");
    }
    void TearDown() override {
        if (h) st::sane().close(h);
    }

    void set(int option, const char* text) {
        std::vector<char> v(text, text + strlen(text) + 1);
        ASSERT_EQ(SANE_STATUS_GOOD, st::sane().control_option(h, option, SANE_ACTION_SET_VALUE, v.data(), nullptr));
    }
    void setInt(int option, SANE_Int value) {
        ASSERT_EQ(SANE_STATUS_GOOD, st::sane().control_option(h, option, SANE_ACTION_SET_VALUE, &value, nullptr));
    }
    // Starts a scan and reads its page to the end.
    SANE_Status scan(st::Page& page) {
        const SANE_Status s = st::sane().start(h);
        if (s == SANE_STATUS_GOOD) {
            EXPECT_EQ(SANE_STATUS_GOOD, st::sane().get_parameters(h, &page.params));
            st::readPage(h, 4096, page);
            EXPECT_EQ(SANE_STATUS_EOF, page.end);
        }
        return s;
    }

    static bool bPrivate;
    static std::string szWhy;
    static int iFds;
    qt::NetScanDir dir;
    qt::TempDir conf;
    qt::ScopedEnv confEnv{"SANE_CONFIG_DIR", conf.path().c_str()};
    qt::ScopedEnv jobEnv{"QUARTO_QUILLSIM", dir.jobFile().c_str()};
    SANE_Handle h = nullptr;
};

bool NetSession::bPrivate = false;
std::string NetSession::szWhy;
int NetSession::iFds = 0;

struct Failure {
    const char* szName;
    const char* szMode;
    int iDpi;
    const char* szJob;
    SANE_Status eStatus;
};

void PrintTo(const Failure& f, std::ostream* os) { *os << f.szName; }

const char* const GRAY = "8-bit Grayscale";
const char* const COLOR = "24-bit Color";
const char* const LINEART = "1-bit Black & White";
const SANE_Status IO = SANE_STATUS_IO_ERROR;
const SANE_Status CANCELLED = SANE_STATUS_CANCELLED;

class NetFailure : public NetSession, public ::testing::WithParamInterface<Failure> {};

// A failing program is the transport's status 8, which the session reports as
// cancelled (as it does a busy device); a page that cannot be read or decoded
// is an I/O error (every way a page breaks: NetBroken of the scan job test).
// Each job would leave a second page: the counter is above 0 while the
// program runs, so only its reset lets the next start run the program again.
TEST_P(NetFailure, StatusDirectoryRemovedNextScanWorks) {
    const Failure& f = GetParam();
    set(OPT_MODE, f.szMode);
    setInt(OPT_SCAN_RESOLUTION, f.iDpi);
    dir.setJob(std::string("width 40\nheight 16\npages 2\n") + f.szJob);
    const SANE_Status failed = st::sane().start(h);
    EXPECT_EQ(f.eStatus, failed);
    EXPECT_EQ(1u, dir.runs().size());
    EXPECT_FALSE(qt::fileExists(dir.scanDir())) << "the scan directory is still there";

    dir.setJob("width 40\nheight 16\npages 2\n");
    set(OPT_MODE, "8-bit Grayscale");
    setInt(OPT_SCAN_RESOLUTION, 300);
    st::Page page;
    ASSERT_EQ(SANE_STATUS_GOOD, scan(page)) << "after status " << failed;
    EXPECT_EQ(2u, dir.runs().size());
    const qt::NetImage want = qt::netPage(qt::NET_GRAY, 40, 16);
    EXPECT_EQ(40, page.params.pixels_per_line);
    EXPECT_EQ(16, page.params.lines);
    EXPECT_TRUE(page.data == want.data);
}

INSTANTIATE_TEST_SUITE_P(
    Jobs, NetFailure,
    ::testing::Values(Failure{"ProgramExitsNonZero", GRAY, 300, "exit 3\n", CANCELLED},
                      Failure{"DataCut", COLOR, 300, "truncate 1 60\n", IO},
                      Failure{"LineArtHeaderOverflows", LINEART, 300, "size 1 2147483640 8\n", IO},
                      Failure{"WicketCut", GRAY, 1200, "family 15\ntruncate 1 30\n", IO}),
    [](const ::testing::TestParamInfo<Failure>& info) { return std::string(info.param.szName); });

// The pages of a feeder job come from one run of the program, the page after
// the last is "no more documents", and the job leaves nothing behind.
TEST_F(NetSession, FeederJobEndsWithNoDocuments) {
    set(OPT_MODE, COLOR);
    dir.setJob("width 40\nheight 30\npages 2\n");
    for (int p = 1; p <= 2; ++p) {
        st::Page page;
        ASSERT_EQ(SANE_STATUS_GOOD, scan(page)) << p;
        EXPECT_EQ(SANE_FRAME_RGB, page.params.format);
        EXPECT_EQ(40, page.params.pixels_per_line);
        EXPECT_EQ(30, page.params.lines);
        EXPECT_EQ(120, page.params.bytes_per_line);
        EXPECT_TRUE(page.data == qt::netPage(qt::NET_COLOR, 40, 30, p).data) << p;
    }
    EXPECT_EQ(SANE_STATUS_NO_DOCS, st::sane().start(h));
    EXPECT_EQ(1u, dir.runs().size());
    EXPECT_FALSE(qt::fileExists(dir.scanDir()));
}

}  // namespace
