// The scan session through the exported entry points of the built library,
// against the simulated scanner: what goes on the wire at open, start, read,
// cancel and close, the statuses the front end sees, and that every session
// leaves the device (and the process) as it found them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "Cmd326.h"
#include "NetComm.h"
#include "ScanLib.h"
#include "WicketReference.h"
#include "netns.h"
#include "session_testutil.h"

namespace {

using st::Page;
using st::Rig;
using st::sane;
using st::smallPage;

const char* const DEVICE = "libusb/001/004";

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sane().ok) << "the built backend could not be loaded"; }
    void TearDown() override {
        if (h != nullptr) sane().close(h);
        usbsim_reset();
    }
    SANE_Status open() { return sane().open(DEVICE, &h); }
    void close() {
        sane().close(h);
        h = nullptr;
    }
    SANE_Status startAndRead(Page& page, int maxLen = 32768) {
        EXPECT_EQ(SANE_STATUS_GOOD, sane().get_parameters(h, &page.params));
        SANE_Status s = sane().start(h);
        if (s == SANE_STATUS_GOOD) st::readPage(h, maxLen, page);
        return s;
    }
    // A whole page, checked against the device's pattern, then the usual cancel.
    void expectFullPage(int maxLen = 32768) {
        Page page;
        ASSERT_EQ(SANE_STATUS_GOOD, startAndRead(page, maxLen));
        EXPECT_EQ(SANE_STATUS_EOF, page.end);
        EXPECT_EQ((size_t)page.params.lines * (size_t)page.params.bytes_per_line, page.data.size());
        std::string why;
        EXPECT_TRUE(st::colourPatternMatches(page, &why)) << why;
        sane().cancel(h);
    }
    SANE_Status setString(int option, const char* text) {
        std::vector<char> v(text, text + strlen(text) + 1);
        return sane().control_option(h, option, SANE_ACTION_SET_VALUE, v.data(), nullptr);
    }
    SANE_Status setInt(int option, SANE_Int value) {
        return sane().control_option(h, option, SANE_ACTION_SET_VALUE, &value, nullptr);
    }
    void cancelAfterThreeReads(int len);
    SANE_Handle h = nullptr;
};

// ---------------------------------------------------------------- open and scan

struct ModelCase {
    const st::Model* model;
    std::vector<std::string> open;  // request headers sent by open
    const char* lock;               // LOCK and START request headers
    const char* start;
};

void PrintTo(const ModelCase& c, std::ostream* os) { *os << c.model->iVersion; }

class ModelSession : public SessionTest, public ::testing::WithParamInterface<ModelCase> {};

// Open wakes only versions 402 and 500; the scan sends status, lock and start,
// unlocks at the end and delivers every byte of the frame (the pixels and the
// window are checked through scanimage).
TEST_P(ModelSession, OpenThenScanSendsTheModelsRequestsAndDeliversTheFrame) {
    const ModelCase& c = GetParam();
    Rig rig(*c.model, smallPage(*c.model));
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    EXPECT_EQ(c.open, st::writeHeaders());
    const int mark = usbsim_write_count(0);

    Page page;
    ASSERT_EQ(SANE_STATUS_GOOD, startAndRead(page));
    std::vector<std::string> want;
    if (c.model->iVersion == 402) want.push_back(st::H_WAKE);
    want.insert(want.end(), {st::H_STATUS, c.lock, c.start, st::H_UNLOCK});
    EXPECT_EQ(want, st::writeHeaders(mark));

    // The last data comes with GOOD, then the end with no bytes.
    ASSERT_GE(page.statuses.size(), 2u);
    EXPECT_EQ(SANE_STATUS_EOF, page.statuses.back());
    EXPECT_EQ(0, page.lengths.back());
    EXPECT_EQ(SANE_STATUS_GOOD, page.statuses[page.statuses.size() - 2]);
    EXPECT_GT(page.lengths[page.lengths.size() - 2], 0);
    EXPECT_EQ((size_t)page.params.lines * (size_t)page.params.bytes_per_line, page.data.size());

    sane().cancel(h);
    close();
    EXPECT_EQ(st::countEvents("open dev=0 bus"), st::countEvents("close dev=0"));
}

INSTANTIATE_TEST_SUITE_P(
    Models, ModelSession,
    ::testing::Values(ModelCase{&st::Q5100,
                                {st::H_UNLOCK, st::H_WAKE, st::H_PROPS, st::H_SIZES},
                                "1b5305002f008000",
                                "1b53010000008000"},
                      ModelCase{&st::Q4200,
                                {st::H_UNLOCK, st::H_WAKE, st::H_PROPS, st::H_SIZES},
                                "1b5305001a008000",
                                "1b53010023008000"},
                      ModelCase{&st::Q4010, {st::H_UNLOCK, st::H_PROPS, st::H_SIZES}, "1b5305001a008000",
                                "1b5301001a008000"},
                      ModelCase{&st::Q3260, {st::H_PROPS, st::H_SIZES}, "1b53050018008000", "1b53010018008000"}));

// ---------------------------------------------------------------- failing opens

struct OpenFailure {
    const char* name;
    const st::Model* model;
    const char* scenario;  // added to the device's scenario
    const char* device;
    SANE_Status status;
    std::vector<std::string> writes;
};

void PrintTo(const OpenFailure& c, std::ostream* os) { *os << c.name; }

class OpenFails : public SessionTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFails, WithItsStatusAndReleasesTheDevice) {
    const OpenFailure& c = GetParam();
    Rig rig(*c.model, "", c.scenario);
    ASSERT_TRUE(rig.loaded);
    SANE_Handle before = reinterpret_cast<SANE_Handle>(0x5A);
    h = before;
    EXPECT_EQ(c.status, sane().open(c.device, &h));
    EXPECT_EQ(before, h);  // not written
    h = nullptr;
    EXPECT_EQ(c.writes, st::writeHeaders());
    EXPECT_EQ(st::countEvents("open dev=0 bus"), st::countEvents("close dev=0"));
}

INSTANTIATE_TEST_SUITE_P(
    Causes, OpenFails,
    ::testing::Values(
        // A last source without resolution records leaves none.
        OpenFailure{"NoResolutions", &st::Q4010, "source type=1 width=10200 height=14040\n", DEVICE,
                    SANE_STATUS_DEVICE_BUSY, {st::H_UNLOCK, st::H_PROPS, st::H_SIZES}},
        // The unlock goes through, the wake write fails.
        OpenFailure{"WakeFails402", &st::Q4200, "fault write_fail 1\n", DEVICE, SANE_STATUS_IO_ERROR, {st::H_UNLOCK}},
        OpenFailure{"WakeFails500", &st::Q5100, "fault write_fail 1\n", DEVICE, SANE_STATUS_IO_ERROR, {st::H_UNLOCK}},
        // A device that is not there has no feature file.
        OpenFailure{"NoSuchDevice", &st::Q4200, "", "libusb/001/009", SANE_STATUS_UNSUPPORTED, {}}));

// A network device is looked up as vendor and product 0xFFFF and, without a
// properties reply, gets the common resolutions. The transport's look-up of a
// name it does not know runs in a network namespace without a route.
TEST_F(SessionTest, NetworkDeviceUsesTheFeatureFileListedFor0xFFFF) {
    std::string why;
    if (!qt::privateNetwork(false, &why)) GTEST_SKIP() << why;
    Rig rig(st::Q4010);  // a model that is not woken: the transport has nothing to answer with
    ASSERT_TRUE(rig.loaded);
    EXPECT_EQ(SANE_STATUS_UNSUPPORTED, sane().open("libnet/127.0.0.1", &h));
    EXPECT_EQ(nullptr, h);
    rig.addDeviceLine(0xFFFF, 0xFFFF);
    ASSERT_EQ(SANE_STATUS_GOOD, sane().open("libnet/127.0.0.1", &h));
    EXPECT_EQ(0, usbsim_write_count(0));
}

// ---------------------------------------------------------------- start refused

class BadName : public SessionTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(BadName, RefusesTheStartBeforeAnyDeviceTraffic) {
    Rig rig(st::Q4200, GetParam());
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    usbsim_clear_record();
    EXPECT_EQ(SANE_STATUS_INVAL, sane().start(h));
    EXPECT_EQ(0, usbsim_write_count(0));
    EXPECT_EQ(0, st::countEvents("open dev=0"));
}

INSTANTIATE_TEST_SUITE_P(Names, BadName,
                         ::testing::Values("[STRINGS]\nPROFILENAME=bad-name\n", "[STRINGS]\nPROFILENAME\n",
                                           "[STRINGS]\nPROFILENAME=two words\n", "[STRINGS]\nUSERNAME=a.b\n",
                                           "[STRINGS]\nUSERNAME\n"));

struct ReplyCase {
    int lock;
    int start;
    SANE_Status status;
    bool startSent;
    bool aborted;  // cancel and unlock sent, device closed
};

void PrintTo(const ReplyCase& c, std::ostream* os) { *os << "lock " << c.lock << " start " << c.start; }

class ReplyStatus : public SessionTest, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(ReplyStatus, OfLockAndStartDecidesTheStart) {
    const ReplyCase& c = GetParam();
    Rig rig(st::Q4200, smallPage(st::Q4200),
            "lock_status " + std::to_string(c.lock) + "\nstart_status " + std::to_string(c.start) + "\n");
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    usbsim_clear_record();
    EXPECT_EQ(c.status, sane().start(h));

    std::vector<std::string> want = {st::H_WAKE, st::H_STATUS, "1b5305001a008000"};
    if (c.startSent) want.push_back("1b53010023008000");
    if (c.aborted) want.insert(want.end(), {st::H_CANCEL, st::H_UNLOCK});
    EXPECT_EQ(want, st::writeHeaders());
    EXPECT_EQ(c.aborted ? 1 : 0, st::countEvents("close dev=0"));
}

INSTANTIATE_TEST_SUITE_P(
    Codes, ReplyStatus,
    ::testing::Values(ReplyCase{130, 128, SANE_STATUS_DEVICE_BUSY, false, false},
                      ReplyCase{131, 128, SANE_STATUS_DEVICE_BUSY, false, false},
                      ReplyCase{136, 128, SANE_STATUS_DEVICE_BUSY, false, false},
                      ReplyCase{129, 128, SANE_STATUS_INVAL, false, false},
                      ReplyCase{133, 128, SANE_STATUS_IO_ERROR, false, false},
                      ReplyCase{128, 136, SANE_STATUS_INVAL, true, true},
                      ReplyCase{128, 137, SANE_STATUS_NO_MEM, true, true},
                      ReplyCase{128, 132, SANE_STATUS_IO_ERROR, true, true},
                      ReplyCase{135, 128, SANE_STATUS_GOOD, true, false}));

// The feeder of the 5100 (limit 300 dpi) in each state it reports, one sheet
// per scan.
struct FeederCase {
    int state;
    int dpi;
    SANE_Status status;
};

void PrintTo(const FeederCase& c, std::ostream* os) { *os << "feeder " << c.state << " at " << c.dpi; }

class Feeder : public SessionTest, public ::testing::WithParamInterface<FeederCase> {};

TEST_P(Feeder, StateAndResolutionDecideTheStart) {
    const FeederCase& c = GetParam();
    // One sheet per scan, as the 5100 scans with the multi-page job switched off.
    Rig rig(st::Q5100, "[INTEGERS]\nUSB_MULTIPAGE_FLAG=0\n", "feeder " + std::to_string(c.state) + "\n");
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    ASSERT_EQ(SANE_STATUS_GOOD, setString(st::OPT_SOURCE, "Automatic Document Feeder"));
    ASSERT_EQ(SANE_STATUS_GOOD, setInt(st::OPT_RESOLUTION, c.dpi));
    usbsim_clear_record();
    Page page;
    ASSERT_EQ(c.status, startAndRead(page));
    if (c.status != SANE_STATUS_GOOD) {
        EXPECT_EQ(std::vector<std::string>{st::H_STATUS}, st::writeHeaders());
        return;
    }
    EXPECT_EQ(SANE_STATUS_EOF, page.end);
    EXPECT_EQ((size_t)page.params.lines * (size_t)page.params.bytes_per_line, page.data.size());
    usbsim_window w;
    ASSERT_EQ(0, usbsim_last_window(0, &w));
    EXPECT_EQ(4, w.data[24]);  // source byte of the scan-lock record: the feeder
}

INSTANTIATE_TEST_SUITE_P(States, Feeder,
                         ::testing::Values(FeederCase{0, 300, SANE_STATUS_UNSUPPORTED},
                                           FeederCase{2, 600, SANE_STATUS_UNSUPPORTED},
                                           FeederCase{2, 150, SANE_STATUS_GOOD}));

// Records with unequal resolutions shorten the walk: of 300x300, 300x600 and
// 600x600 only 300 is offered.
TEST_F(SessionTest, UnequalResolutionRecordCutsTheLastRecordOff) {
    Rig rig(st::Q4010, "", "source type=1 width=10200 height=14040\nres 300 300 0\nres 300 600 0\nres 600 600 0\n");
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    const SANE_Option_Descriptor* d = sane().get_option_descriptor(h, st::OPT_RESOLUTION);
    ASSERT_NE(nullptr, d);
    ASSERT_EQ(SANE_CONSTRAINT_WORD_LIST, d->constraint_type);
    std::vector<SANE_Word> offered(d->constraint.word_list + 1, d->constraint.word_list + 1 + d->constraint.word_list[0]);
    EXPECT_NE(offered.end(), std::find(offered.begin(), offered.end(), 300));
    EXPECT_EQ(offered.end(), std::find(offered.begin(), offered.end(), 600));
    EXPECT_EQ(SANE_STATUS_INVAL, setInt(st::OPT_RESOLUTION, 600));
}

// ---------------------------------------------------------------- panel parameters

struct DemonCase {
    const char* env;
    bool fetch;
};

void PrintTo(const DemonCase& c, std::ostream* os) { *os << (c.env ? c.env : "unset"); }

class Demon : public SessionTest, public ::testing::WithParamInterface<DemonCase> {};

TEST_P(Demon, FetchesPanelParametersOnlyWhenSwitchedOn) {
    const DemonCase& c = GetParam();
    // Panel parameters asking for 150 dpi (resolution index 2).
    Rig rig(st::Q5100, "", "scan_params 12\n", c.env);
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    std::vector<std::string> want = {st::H_UNLOCK, st::H_WAKE, st::H_PROPS, st::H_SIZES};
    if (c.fetch) want.insert(want.end(), {st::H_PARAMS, st::H_STATUS});
    EXPECT_EQ(want, st::writeHeaders());
    SANE_Int dpi = 0;
    ASSERT_EQ(SANE_STATUS_GOOD, sane().control_option(h, st::OPT_RESOLUTION, SANE_ACTION_GET_VALUE, &dpi, nullptr));
    EXPECT_EQ(c.fetch ? 150 : 300, dpi);
}

INSTANTIATE_TEST_SUITE_P(Env, Demon,
                         ::testing::Values(DemonCase{nullptr, false}, DemonCase{"0", false}, DemonCase{"1", true},
                                           DemonCase{"10", true}));

// ---------------------------------------------------------------- cancel and faults

// Starts, reads three buffers of len bytes and cancels: the cancel itself
// only sets flags, the next read is CANCELLED with no bytes, and the session
// has sent CANCEL and UNLOCK.
void SessionTest::cancelAfterThreeReads(int len) {
    ASSERT_EQ(SANE_STATUS_GOOD, sane().start(h));
    std::vector<unsigned char> buf((size_t)len);
    SANE_Int got = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(SANE_STATUS_GOOD, sane().read(h, buf.data(), len, &got));
        ASSERT_GT(got, 0);
    }
    usbsim_clear_record();
    sane().cancel(h);
    EXPECT_EQ(0, usbsim_write_count(0));
    got = -1;
    EXPECT_EQ(SANE_STATUS_CANCELLED, sane().read(h, buf.data(), len, &got));
    EXPECT_EQ(0, got);
    EXPECT_EQ((std::vector<std::string>{st::H_CANCEL, st::H_UNLOCK}), st::writeHeaders());
    // A front end ends every frame with a cancel, failed or not.
    sane().cancel(h);
}

TEST_F(SessionTest, CancelInMidPageAbortsUnlocksClosesAndTheNextScanWorks) {
    Rig rig(st::Q4200, smallPage(st::Q4200));
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    ASSERT_NO_FATAL_FAILURE(cancelAfterThreeReads(4096));
    EXPECT_EQ(1, st::countEvents("close dev=0"));
    expectFullPage();
}

// The 5100 compresses colour at 75 dpi: a cancel in mid-page drops the
// collected job, and the next page is the reference decoding of the bands
// the device sent for it.
TEST_F(SessionTest, CancelInMidCompressedPageAndTheNextPageIsWhole) {
    Rig rig(st::Q5100, "[INTEGERS]\nCURRENTDPI=75\nCOLORDEPTH=2\nORIGINALSIZE=23\n", "wicket quality=75 band=8\n");
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    ASSERT_NO_FATAL_FAILURE(cancelAfterThreeReads(1024));
    usbsim_window w;
    ASSERT_EQ(0, usbsim_last_window(0, &w));
    ASSERT_EQ(1, w.compression) << "not a compressed scan";

    qt::TempDir dir;
    ASSERT_EQ(0, usbsim_set_band_file(dir.file("bands").c_str()));
    Page page;
    ASSERT_EQ(SANE_STATUS_GOOD, startAndRead(page));
    usbsim_set_band_file(nullptr);
    EXPECT_EQ(SANE_STATUS_EOF, page.end);
    const std::string bands = qt::readFile(dir.file("bands"));
    std::vector<uint8_t> want;
    int width = 0;
    ASSERT_EQ(0, wicketref::decodeStream((const uint8_t*)bands.data(), bands.size(), 3, &want, &width));
    EXPECT_EQ(page.params.pixels_per_line, width);
    EXPECT_EQ((size_t)page.params.lines * (size_t)page.params.bytes_per_line, want.size());
    EXPECT_TRUE(std::vector<unsigned char>(want.begin(), want.end()) == page.data);
}

// A jam and a read time-out in mid-scan are seen through scanimage; these are
// the faults it is not shown.
struct FaultCase {
    const char* fault;  // "unplug": unplugged, then plugged in again under the same numbers
    int value;
    bool afterStart;  // switched on once the scan runs (read counters)
    SANE_Status status;
    bool unlocked;
};

void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.fault; }

class MidScanFault : public SessionTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(MidScanFault, EndsTheReadWithItsStatusAndTheNextSessionScans) {
    const FaultCase& c = GetParam();
    auto fault = [&](int value) {
        if (strcmp(c.fault, "unplug") != 0) return usbsim_set_fault(0, c.fault, value);
        return value < 0 ? usbsim_replug(0, "001", "004") : usbsim_unplug(0);
    };
    Rig rig(st::Q4200, smallPage(st::Q4200));
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    if (!c.afterStart) {
        ASSERT_EQ(0, fault(c.value));
    }
    Page page;
    ASSERT_EQ(SANE_STATUS_GOOD, sane().get_parameters(h, &page.params));
    ASSERT_EQ(SANE_STATUS_GOOD, sane().start(h));
    if (c.afterStart) {
        ASSERT_EQ(0, fault(c.value));
    }
    const int mark = usbsim_write_count(0);
    st::readPage(h, 32768, page);
    EXPECT_EQ(c.status, page.end);
    EXPECT_LT(page.data.size(), (size_t)page.params.lines * (size_t)page.params.bytes_per_line);
    // An I/O error leaves the scanner locked; the next open releases it.
    EXPECT_EQ(c.unlocked ? std::vector<std::string>{st::H_UNLOCK} : std::vector<std::string>{}, st::writeHeaders(mark));

    ASSERT_EQ(0, fault(-1));
    sane().cancel(h);
    close();
    EXPECT_EQ(st::countEvents("open dev=0 bus"), st::countEvents("close dev=0"));
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    expectFullPage();
}

INSTANTIATE_TEST_SUITE_P(Faults, MidScanFault,
                         ::testing::Values(FaultCase{"abort", 40, false, SANE_STATUS_CANCELLED, true},
                                           FaultCase{"device_abort", 40, false, SANE_STATUS_CANCELLED, true},
                                           FaultCase{"unplug", 0, true, SANE_STATUS_IO_ERROR, false}));

// ---------------------------------------------------------------- many sessions

TEST_F(SessionTest, TwoHundredSessionsInOneProcessKeepNoDescriptor) {
    Rig rig(st::Q4200, smallPage(st::Q4200));
    ASSERT_TRUE(rig.loaded);
    ASSERT_EQ(SANE_STATUS_GOOD, open());
    expectFullPage();
    close();
    const int fds = st::openFdCount();
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(SANE_STATUS_GOOD, open()) << "cycle " << i;
        Page page;
        ASSERT_EQ(SANE_STATUS_GOOD, startAndRead(page)) << "cycle " << i;
        ASSERT_EQ(SANE_STATUS_EOF, page.end) << "cycle " << i;
        ASSERT_EQ((size_t)page.params.lines * (size_t)page.params.bytes_per_line, page.data.size());
        close();
    }
    EXPECT_EQ(fds, st::openFdCount());
    EXPECT_EQ(st::countEvents("open dev=0 bus"), st::countEvents("close dev=0"));
}

}  // namespace

// ---------------------------------------------------------------- replacing the command object

namespace {

// A command object that tells when it is destroyed.
struct WatchedCmd : Cmd326 {
    explicit WatchedCmd(bool* gone) : pGone(gone) {}
    ~WatchedCmd() override { *pGone = true; }
    bool* pGone;
};

// The transport refuses a null command and keeps the one it holds, so the
// session must never free that one while the transport can still use it.
TEST(SessionObjects, ReplacingTheCommandNeverLeavesTheTransportAFreedOne) {
    bool firstGone = false, secondGone = false;
    ScanLib session;
    NetComm* comm = new NetComm;
    session.SetIO(comm);
    WatchedCmd* first = new WatchedCmd(&firstGone);
    session.SetComm(first);
    ASSERT_EQ(first, comm->getCommand());

    session.SetComm(nullptr);
    EXPECT_TRUE(!firstGone || comm->getCommand() != first) << "the transport holds a freed command";

    WatchedCmd* second = new WatchedCmd(&secondGone);
    session.SetComm(second);
    EXPECT_EQ(second, comm->getCommand());
    EXPECT_TRUE(firstGone) << "the replaced command is released";
    EXPECT_FALSE(secondGone);
}

}  // namespace
