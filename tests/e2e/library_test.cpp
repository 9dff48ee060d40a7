// The built shared library as a SANE front end meets it.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "sanerun.h"
#include "testutil.h"

namespace {

std::string libraryPath() { return qt::binaryDir() + "/backend/libsane-quarto.so.1"; }

TEST(Library, ExportsExactlyTheThirteenEntryPoints) {
    std::string out, err;
    ASSERT_EQ(0, qt::runProgram({"nm", "-D", "--defined-only", libraryPath()}, {}, &out, &err)) << err;
    std::set<std::string> names;
    std::istringstream lines(out);
    std::string addr, kind, name;
    while (lines >> addr >> kind >> name) names.insert(name);
    std::set<std::string> expected = {
        "sane_quarto_init",         "sane_quarto_exit",          "sane_quarto_get_devices",
        "sane_quarto_open",         "sane_quarto_close",         "sane_quarto_get_option_descriptor",
        "sane_quarto_control_option", "sane_quarto_get_parameters", "sane_quarto_start",
        "sane_quarto_read",         "sane_quarto_cancel",        "sane_quarto_set_io_mode",
        "sane_quarto_get_select_fd"};
    EXPECT_EQ(expected, names);
}

TEST(Library, DllLoaderFindsTheBackendAndItReadsQuartoConf) {
    // The library names its configuration file after itself: libsane-quarto.so.1
    // reads quarto.conf, found through SANE_CONFIG_DIR.
    qt::SaneEnv sane("DISCOVER_USB_FLAG=0\nDISCOVER_NET_FLAG=0\nDEVICE_LIST_ORDER_MODE=0\n"
                     "usb 0x2f4a 0x7e01 /nonexistent/model.conf Probe_Model\n");
    std::string out, err;
    int rc = sane.scanimage({"-L"}, &out, &err, {"ENABLE_SL_LOG=1"});
    EXPECT_EQ(0, rc) << err;
    EXPECT_NE(std::string::npos, err.find("model :Probe Model,")) << err.substr(0, 4000);
    EXPECT_EQ(std::string::npos, err.find("dll: ")) << "loader complained";
}

}  // namespace
