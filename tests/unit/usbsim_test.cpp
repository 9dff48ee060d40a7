// The simulated scanner's own plumbing: its event log and its scenario files.
// What it sends on the wire is checked where it counts, by the backend's tests
// against hand-written bytes (protocol, transport, multi-page reader) and by
// the end-to-end scans that need both sides to agree.
#include <gtest/gtest.h>
#include <usb.h>

#include <string>
#include <unistd.h>

#include "testutil.h"
#include "usbsim.h"

namespace {

// Opens device 001/004 of a one-device scenario and writes one status request.
void openAndWrite() {
    ASSERT_EQ(usbsim_load_text("device 001 004 vid=0x2F4A pid=0x0500\n  version 326\n"), 0);
    usb_init();
    usb_find_busses();
    usb_find_devices();
    ASSERT_NE(usb_get_busses(), nullptr);
    usb_dev_handle* h = usb_open(usb_get_busses()->devices);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(usb_claim_interface(h, 0), 0);
    const char status[] = "\x1b\x53\x04\x00\x00\x00\x80\x00";
    EXPECT_EQ(usb_bulk_write(h, 0x02, status, 8, 1000), 8);
    usb_close(h);
}

// The log file every end-to-end test reads is appended as the events happen,
// and a symbolic link planted in its place is not followed.
TEST(SimLog, AppendsEveryEventAndNeverFollowsALink) {
    qt::TempDir dir;
    const std::string target = dir.file("target");
    qt::writeFile(target, "keep\n");
    ASSERT_EQ(symlink(target.c_str(), dir.file("link").c_str()), 0);
    {
        qt::ScopedEnv env("QUARTO_USBSIM_LOG", dir.file("link").c_str());
        openAndWrite();
    }
    EXPECT_EQ(qt::readFile(target), "keep\n");
    usbsim_reset();
    const std::string log = dir.file("sim.log");
    {
        qt::ScopedEnv env("QUARTO_USBSIM_LOG", log.c_str());
        openAndWrite();
    }
    const std::string file = qt::readFile(log);
    for (const char* line : {"open dev=0 bus=001 file=004\n", "claim dev=0 iface=0 rc=0\n",
                             "write dev=0 ep=0x02 len=8 data=1b53040000008000\n"})
        EXPECT_NE(file.find(line), std::string::npos) << line;
    EXPECT_EQ(file, usbsim_events());
    usbsim_reset();
}

// Every scenario the project ships loads without a line the simulator would
// skip (a test scenario with such a line would test less than it says).
TEST(SimFiles, ShippedScenariosLoadCleanly) {
    for (const char* f : {"sim/scenarios/demo.scn", "tests/data/sim_326.scn", "tests/data/sim_401.scn",
                          "tests/data/sim_402.scn", "tests/data/sim_500.scn", "tests/data/sim_unknown.scn",
                          "tests/data/options.scn", "tests/data/e2e_models.scn", "tests/data/e2e_q5100.scn",
                          "tests/data/e2e_q4200_feeder.scn"}) {
        const std::string path = qt::sourceDir() + "/" + f;
        EXPECT_EQ(usbsim_load_file(path.c_str()), 0) << f;
        EXPECT_GE(usbsim_device_count(), 1) << f;
    }
    EXPECT_EQ(usbsim_load_file("/nonexistent/scenario.scn"), -1);
    usbsim_reset();
}

}  // namespace
