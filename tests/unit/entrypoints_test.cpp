// The exported entry points that need no session: version, device records,
// descriptor range, unsupported I/O modes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "SaneInterface.h"
#include "quarto.h"
#include "testutil.h"

namespace {

TEST(EntryPoints, InitWritesVersionOnlyThroughAPointer) {
    SANE_Int version = 0;
    EXPECT_EQ(SANE_STATUS_GOOD, sane_quarto_init(&version, nullptr));
    EXPECT_EQ(0x1000001, version);
    EXPECT_EQ(SANE_STATUS_GOOD, sane_quarto_init(nullptr, nullptr));
}

TEST(EntryPoints, IoModeAndSelectFdAreUnsupportedAndLeaveFdAlone) {
    EXPECT_EQ(SANE_STATUS_UNSUPPORTED, sane_quarto_set_io_mode(nullptr, SANE_TRUE));
    EXPECT_EQ(SANE_STATUS_UNSUPPORTED, sane_quarto_set_io_mode(nullptr, SANE_FALSE));
    SANE_Int fd = -77;
    EXPECT_EQ(SANE_STATUS_UNSUPPORTED, sane_quarto_get_select_fd(nullptr, &fd));
    EXPECT_EQ(-77, fd);
}

TEST(EntryPoints, OptionDescriptorRange) {
    EXPECT_EQ(nullptr, sane_quarto_get_option_descriptor(nullptr, -1));
    EXPECT_EQ(nullptr, sane_quarto_get_option_descriptor(nullptr, 27));
    const SANE_Option_Descriptor* first = sane_quarto_get_option_descriptor(nullptr, 0);
    const SANE_Option_Descriptor* last = sane_quarto_get_option_descriptor(nullptr, 26);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(26, last - first);
}

struct RecordCase {
    const char* raw;
    const char* vendor;
    const char* model;
    const char* name;
};

void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.raw; }

class DeviceRecord : public ::testing::TestWithParam<RecordCase> {};

TEST_P(DeviceRecord, SplitsRawNameIntoVendorModelAndName) {
    const RecordCase& c = GetParam();
    char* raw = strdup(c.raw);
    SANE_Device* dev = sane_ScanLib_make_device(raw);
    ASSERT_NE(nullptr, dev);
    EXPECT_STREQ(c.vendor, dev->vendor);
    EXPECT_STREQ(c.model, dev->model);
    EXPECT_STREQ(c.name, dev->name);
    EXPECT_STREQ("Scanner", dev->type);
    bool placeholder = strcmp(c.vendor, "MFP") == 0;
    if (!placeholder) {
        free(const_cast<char*>(dev->vendor));
        free(const_cast<char*>(dev->model));
        free(const_cast<char*>(dev->name));
    }
    free(dev);
    free(raw);
}

INSTANTIATE_TEST_SUITE_P(
    RawNames, DeviceRecord,
    ::testing::Values(
        RecordCase{"Tarvesk/Quarto 5100/libusb:001:004", "Tarvesk", "Quarto 5100", "libusb/001/004"},
        // The part after the last '/' of a network name is dropped.
        RecordCase{"Tarvesk/Quarto 7000/libnet:10.0.0.9/AABBCCDDEEFF", "Tarvesk", "Quarto 7000", "libnet/10.0.0.9"},
        RecordCase{"Tarvesk/Quarto 7000/NET_PSEUDO_PLACE_HOLDER::x", "MFP", "Network", "libnet/SPECIFY_DEVICE"},
        RecordCase{"V/M/N/extra/more", "V", "M", "N"},
        RecordCase{"OnlyVendor", "OnlyVendor", "", ""},
        // A device without a manufacturer or product string: empty pieces stay pieces.
        RecordCase{"Tarvesk//libusb:001:004", "Tarvesk", "", "libusb/001/004"},
        RecordCase{"//libusb:003:009", "", "", "libusb/003/009"}));

class DeviceList : public ::testing::Test {
protected:
    void SetUp() override {
        // The test binary has no libsane- frame, so the default file name is used.
        qt::writeFile(dir.file("Tarvesk_1_0_0.conf"),
                      "DISCOVER_USB_FLAG=0\nDISCOVER_NET_FLAG=0\nDEVICE_LIST_ORDER_MODE=0\n");
    }
    void TearDown() override { sane_quarto_exit(); }
    qt::TempDir dir;
};

TEST_F(DeviceList, MissingConfigurationIsInvalidAndKeepsThePreviousList) {
    const SANE_Device** first = nullptr;
    {
        qt::ScopedEnv env("SANE_CONFIG_DIR", dir.path().c_str());
        ASSERT_EQ(SANE_STATUS_GOOD, sane_quarto_get_devices(&first, SANE_FALSE));
        ASSERT_NE(nullptr, first);
        EXPECT_EQ(nullptr, first[0]);  // no device: only the terminator
    }
    qt::TempDir empty;
    qt::ScopedEnv env("SANE_CONFIG_DIR", empty.path().c_str());
    const SANE_Device** second = reinterpret_cast<const SANE_Device**>(0x1);
    EXPECT_EQ(SANE_STATUS_INVAL, sane_quarto_get_devices(&second, SANE_FALSE));
    EXPECT_EQ(reinterpret_cast<const SANE_Device**>(0x1), second);
    EXPECT_EQ(nullptr, first[0]);  // still readable: not released
}

TEST_F(DeviceList, ConfigDirectoriesAreSearchedInOrder) {
    qt::TempDir other;
    qt::ScopedEnv env("SANE_CONFIG_DIR", (other.path() + ":" + dir.path()).c_str());
    const SANE_Device** list = nullptr;
    EXPECT_EQ(SANE_STATUS_GOOD, sane_quarto_get_devices(&list, SANE_FALSE));
}

}  // namespace
