// The option table, option control and frame parameters as a front end meets
// them: through the exported entry points of the built library, opened against
// the simulated scanner (USB) or as the network placeholder device.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sane/sane.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "backendlib.h"
#include "sanerun.h"
#include "testutil.h"
#include "usbsim.h"

namespace {

using Strings = std::vector<std::string>;
using Words = std::vector<SANE_Word>;

// Device names as the device list hands them out; the two USB devices are
// described in tests/data/options.scn.
const char DEV_5100[] = "libusb/001/004";  // command 500, the all-in-one family (BOXKIND 1)
const char DEV_4200[] = "libusb/001/005";  // command 402, BOXKIND 0
const char DEV_NET[] = "libnet/SPECIFY_DEVICE";

// Feature file of the placeholder network device (vendor and product 0xFFFF):
// opening it causes no device traffic at all.
const char NET_FEATURES[] = R"([INTEGERS]
COMMANDVERSION=401
BOXKIND=0
CURRENTDPI=300
COLORDEPTH=2
CONTENTTYPE=1
ORIGINALSIZE=4
BRIGHTNESS=5
CONTRAST=3
COLORDROPOUTTHRESHOLD=100
MIRRORIMAGE=1
NEGATIVEIMAGE=1
BKGREMOVAL=2
[STRINGS]
USERNAME=current
PROFILENAME=Default
)";

// One test: a fresh load of the library (its per-process state, such as the
// read position of the custom sizes, starts anew), a configuration directory
// with copies of the model feature files, and the scenario.
class Options : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, usbsim_load_file((qt::sourceDir() + "/tests/data/options.scn").c_str()));
        env.reset(new qt::ScopedEnv("SANE_CONFIG_DIR", dir.path().c_str()));
        writeConfiguration("");
        ASSERT_TRUE(api.load());
        ASSERT_EQ(SANE_STATUS_GOOD, api.init(nullptr, nullptr));
    }
    void TearDown() override {
        if (handle != nullptr) api.close(handle);
        if (api.pLib != nullptr) {
            api.exit();
            api.unload();
        }
        usbsim_reset();
    }

    // Feature files are the shipped ones plus the extra lines (later lines win).
    void writeConfiguration(const std::string& extra) {
        auto model = [&](const char* name) {
            std::string copy = dir.file(name);
            qt::writeFile(copy, qt::readFile(qt::sourceDir() + "/etc/models/" + name) + "\n" + extra);
            return copy;
        };
        qt::writeFile(dir.file("net.conf"), std::string(NET_FEATURES) + extra);
        qt::writeFile(dir.file("quarto.conf"),
                      "usb 0x2f4a 0x0500 " + model("quarto5100.conf") + " Quarto_5100\n" +
                          "usb 0x2f4a 0x0402 " + model("quarto4200.conf") + " Quarto_4200\n" +
                          "net 0xffff 0xffff " + dir.file("net.conf") + " Network\n" +
                          "DISCOVER_USB_FLAG=1\nDISCOVER_NET_FLAG=0\nDEVICE_LIST_ORDER_MODE=0\n");
    }

    void openDevice(const char* name) {
        if (handle != nullptr) api.close(handle);
        handle = nullptr;
        ASSERT_EQ(SANE_STATUS_GOOD, api.open(name, &handle)) << name;
        ASSERT_NE(nullptr, handle);
    }

    const SANE_Option_Descriptor& opt(int n) {
        const SANE_Option_Descriptor* d = api.get_option_descriptor(handle, n);
        EXPECT_NE(nullptr, d);
        static const SANE_Option_Descriptor none = SANE_Option_Descriptor();
        return d ? *d : none;
    }

    SANE_Status setWord(int n, SANE_Word v, SANE_Int* info = nullptr) {
        return api.control_option(handle, n, SANE_ACTION_SET_VALUE, &v, info);
    }
    SANE_Word getWord(int n) {
        SANE_Word v = -12345;
        EXPECT_EQ(SANE_STATUS_GOOD, api.control_option(handle, n, SANE_ACTION_GET_VALUE, &v, nullptr)) << n;
        return v;
    }
    // The value buffer is exactly the option's size, as a front end allocates it.
    SANE_Status setString(int n, const std::string& text, SANE_Int* info = nullptr) {
        std::vector<char> buf((size_t)opt(n).size, '\0');
        memcpy(buf.data(), text.c_str(), std::min(buf.size(), text.size() + 1));
        return api.control_option(handle, n, SANE_ACTION_SET_VALUE, buf.data(), info);
    }
    std::string getString(int n) {
        std::unique_ptr<char[]> buf(new char[(size_t)opt(n).size]);
        memset(buf.get(), 0x7F, (size_t)opt(n).size);
        EXPECT_EQ(SANE_STATUS_GOOD, api.control_option(handle, n, SANE_ACTION_GET_VALUE, buf.get(), nullptr)) << n;
        return std::string(buf.get(), strnlen(buf.get(), (size_t)opt(n).size));
    }
    std::vector<std::string> stringList(int n) {
        std::vector<std::string> out;
        const SANE_String_Const* list = opt(n).constraint.string_list;
        for (int i = 0; list != nullptr && list[i] != nullptr && i < 100; ++i) out.push_back(list[i]);
        return out;
    }
    std::vector<SANE_Word> wordList(int n) {
        const SANE_Word* w = opt(n).constraint.word_list;
        return w ? std::vector<SANE_Word>(w + 1, w + 1 + w[0]) : std::vector<SANE_Word>();
    }
    SANE_Parameters parameters() {
        SANE_Parameters p;
        memset(&p, 0xEE, sizeof(p));
        EXPECT_EQ(SANE_STATUS_GOOD, api.get_parameters(handle, &p));
        return p;
    }

    qt::TempDir dir;
    std::unique_ptr<qt::ScopedEnv> env;
    qt::SaneApi api;
    SANE_Handle handle = nullptr;
};

enum {
    O_NUM,
    O_IP = 2,
    O_INTERFACE,
    O_USER = 5,
    O_PROFILE,
    O_CONTENT = 8,
    O_RES,
    O_MODE,
    O_DOCSRC,
    O_SIZE,
    O_ORIENT,
    O_BOTH,
    O_NOW,
    O_SOURCE,
    O_BRIGHT = 18,
    O_CONTRAST,
    O_MIRROR = 21,
    O_NEGATIVE,
    O_DROPOUT,
    O_THRESHOLD,
    O_BKG,
    O_RESET
};

// ---- The descriptors ----

struct OptionRow {
    const char* name;
    const char* title;
    SANE_Value_Type type;
    SANE_Constraint_Type constraint;
};

const SANE_Constraint_Type NONE = SANE_CONSTRAINT_NONE;
const SANE_Constraint_Type SLIST = SANE_CONSTRAINT_STRING_LIST;
const SANE_Constraint_Type RANGE = SANE_CONSTRAINT_RANGE;

const OptionRow OPTION_ROWS[27] = {
    {"", "Number of options", SANE_TYPE_INT, NONE},
    {"scanner-group", "Scanner", SANE_TYPE_GROUP, NONE},
    {"ip-address", "IP Address", SANE_TYPE_STRING, NONE},
    {"interface", "Interface", SANE_TYPE_STRING, NONE},
    {"profile-information-group", "Profile Information", SANE_TYPE_GROUP, NONE},
    {"user-name", "User Name", SANE_TYPE_STRING, NONE},
    {"profile-name", "Profile Name", SANE_TYPE_STRING, NONE},
    {"image-group", "Image Settings", SANE_TYPE_GROUP, NONE},
    {"content-type", "Content Type", SANE_TYPE_STRING, SLIST},
    {"scan-resolution", "Resolution", SANE_TYPE_INT, SANE_CONSTRAINT_WORD_LIST},
    {"mode", "Color Depth", SANE_TYPE_STRING, SLIST},
    {"content-source", "Content Source", SANE_TYPE_STRING, SLIST},
    {"original-size", "Original Size", SANE_TYPE_STRING, SLIST},
    {"orientation", "Orientation", SANE_TYPE_STRING, SLIST},
    {"scan-both-sides", "Scan both sides", SANE_TYPE_BOOL, NONE},
    {"scan-now", "Start Immediately", SANE_TYPE_BOOL, NONE},
    {"source", "Scan source", SANE_TYPE_STRING, SLIST},
    {"advanced-settings-group", "Advanced Settings", SANE_TYPE_GROUP, NONE},
    {"brightness", "Brightness", SANE_TYPE_FIXED, RANGE},
    {"contrast", "Contrast", SANE_TYPE_FIXED, RANGE},
    {"advance-imaging-group", "Advance Imaging", SANE_TYPE_GROUP, NONE},
    {"mirrorimage", "Mirror Image", SANE_TYPE_BOOL, NONE},
    {"negativeimage", "Negative Image", SANE_TYPE_BOOL, NONE},
    {"colordropout", "Color Dropout", SANE_TYPE_STRING, SLIST},
    {"colordropoutthreshold", "Color Dropout Threshold", SANE_TYPE_FIXED, RANGE},
    {"bkgremoval", "Background Removal", SANE_TYPE_BOOL, NONE},  // per model: TableCase
    {"reset", "Reset", SANE_TYPE_BUTTON, NONE},
};

// Capabilities: 5 settable and detectable, 37 the same inactive, 4 read-only,
// 32 only inactive, 64 advanced, 0 none.
struct TableCase {
    const char* device;
    SANE_Int caps[27];
    SANE_Value_Type bkgType;
    SANE_Constraint_Type bkgConstraint;
    const char* sizeDesc;
    const char* sourceDesc;
};

class OptionTable : public Options, public ::testing::WithParamInterface<TableCase> {};

TEST_P(OptionTable, NamesTitlesTypesCapabilitiesAndConstraints) {
    const TableCase& c = GetParam();
    openDevice(c.device);
    EXPECT_EQ(27, getWord(O_NUM));
    for (int n = 0; n < 27; ++n) {
        SCOPED_TRACE("option " + std::to_string(n));
        const SANE_Option_Descriptor& d = opt(n);
        const OptionRow& row = OPTION_ROWS[n];
        EXPECT_STREQ(row.name, d.name);
        EXPECT_STREQ(row.title, d.title);
        ASSERT_NE(nullptr, d.desc);
        SANE_Value_Type type = n == O_BKG ? c.bkgType : row.type;
        EXPECT_EQ(type, d.type);
        EXPECT_EQ(n == O_BKG ? c.bkgConstraint : row.constraint, d.constraint_type);
        EXPECT_EQ(type == SANE_TYPE_STRING ? 50 : 4, d.size);
        EXPECT_EQ(n == O_RES ? SANE_UNIT_DPI : SANE_UNIT_NONE, d.unit);
        EXPECT_EQ(c.caps[n], d.cap);
        if (type == SANE_TYPE_GROUP) {
            EXPECT_STREQ("", d.desc);
        }
        if (d.constraint_type == SANE_CONSTRAINT_STRING_LIST) {
            // A front end walks the list to its NULL; every entry fits the value.
            const Strings list = stringList(n);
            EXPECT_LT(list.size(), 100u) << "no terminating NULL";
            for (const std::string& e : list) EXPECT_LT(e.size(), (size_t)d.size) << e;
        }
    }
    EXPECT_STREQ(c.sizeDesc, opt(O_SIZE).desc);
    EXPECT_STREQ(c.sourceDesc, opt(O_SOURCE).desc);
    EXPECT_STREQ("Resets advance imaging options to its default value.", opt(O_RESET).desc);
    EXPECT_EQ(nullptr, api.get_option_descriptor(handle, 27));
    EXPECT_EQ(nullptr, api.get_option_descriptor(handle, -1));
}

const char SIZE_DESC[] = "The size of the area to be scanned.";
const char SIZE_DESC_ISD[] = "The size of the area to be scanned. Values will change depending on the scan source.";
const char SOURCE_DESC_USB[] = "The source of the document to be scanned (ex: flatbed).";
const char SOURCE_DESC_NET[] = "Indicates the number of pages to be scanned.";

INSTANTIATE_TEST_SUITE_P(
    Models, OptionTable,
    ::testing::Values(
        // Mirror supported (support bit 0), negative not; background removal is
        // never reported as supported, the content source is always offered.
        TableCase{DEV_5100,
                  {4, 5, 37, 32, 5, 37, 37, 5, 5, 5, 5, 5, 5, 5, 37, 37, 5, 37, 5, 5, 64, 5, 37, 37, 37, 37, 37},
                  SANE_TYPE_STRING, SLIST, SIZE_DESC_ISD, SOURCE_DESC_USB},
        // Negative supported (bit 1), mirror not; brightness and contrast are
        // never reported as supported by this family.
        TableCase{DEV_4200,
                  {4, 5, 37, 32, 5, 37, 37, 5, 5, 5, 5, 5, 5, 5, 37, 37, 5, 37, 37, 37, 64, 37, 5, 37, 37, 37, 37},
                  SANE_TYPE_BOOL, NONE, SIZE_DESC, SOURCE_DESC_USB},
        TableCase{DEV_NET,
                  {4, 5, 5, 32, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 0, 5, 5, 64, 5, 5, 5, 37, 5, 5},
                  SANE_TYPE_FIXED, RANGE, SIZE_DESC, SOURCE_DESC_NET}));

// ---- The value lists and ranges ----

const std::string OFICIO = "Oficio (M\xC3\xA9xico)";
const Strings MODES = {"1-bit Black & White", "8-bit Grayscale", "24-bit Color"};
const Strings ISD_FLATBED_SIZES = {"Letter",   "Executive", "Legal",    "A4",       "A5",       "A6",
                                   "B5",       "Folio",     "Statement", "3x5 Photo", "4x6 Photo", "3.5x5 in",
                                   "4x8 in",   "5x7 in",    "8x10 in",  "L",        "2L",       "Hagaki",
                                   "9x13 cm",  "10x15 cm",  "10x20 cm", "13x18 cm", "20x25 cm", "Business Card",
                                   OFICIO};
const Strings PSSD_SIZES = {"Letter",    "Executive", "Legal",         "A3",            "A4",
                            "A5",        "A6",        "B4",            "B5",            "Tabloid",
                            "Folio",     "Statement", "3x5 Photo",     "4x6 Photo",     "Business Card",
                            "Book Original", "Auto Size", "Mixed Size", "Universal",     OFICIO};

Strings plus(Strings a, const Strings& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct RangeRow {
    int option;
    double min, max;
};

struct ListCase {
    const char* device;
    Words resolutions;
    Strings modes, docSources, sizes, orientations, sources, bkgList;
    std::vector<RangeRow> ranges;
};

class OptionLists : public Options, public ::testing::WithParamInterface<ListCase> {};

TEST_P(OptionLists, OfferTheListsOfConnectionAndFamily) {
    const ListCase& c = GetParam();
    openDevice(c.device);
    EXPECT_EQ((Strings{"Text", "Text/Graphics", "Photo"}), stringList(O_CONTENT));
    EXPECT_EQ(c.resolutions, wordList(O_RES));
    EXPECT_EQ(c.modes, stringList(O_MODE));
    EXPECT_EQ(c.docSources, stringList(O_DOCSRC));
    EXPECT_EQ(c.sizes, stringList(O_SIZE));
    EXPECT_EQ(c.orientations, stringList(O_ORIENT));
    EXPECT_EQ(c.sources, stringList(O_SOURCE));
    EXPECT_EQ((Strings{"None", "Red", "Green", "Blue"}), stringList(O_DROPOUT));
    if (!c.bkgList.empty()) {
        EXPECT_EQ(c.bkgList, stringList(O_BKG));
    }
    for (const RangeRow& r : c.ranges) {
        SCOPED_TRACE("option " + std::to_string(r.option));
        const SANE_Range* range = opt(r.option).constraint.range;
        ASSERT_NE(nullptr, range);
        EXPECT_EQ(SANE_FIX(r.min), range->min);
        EXPECT_EQ(SANE_FIX(r.max), range->max);
        EXPECT_EQ(SANE_FIX(1), range->quant);
    }
}

const Strings BKG_LIST = {"Off", "Auto", "Mild", "Moderate", "Strong"};
const Strings NET_SIZES = {
    "Letter",   "Executive",     "Legal",         "A3",         "A4",         "A5",
    "A6",       "B4",            "B5",            "Tabloid",    "Folio",      "Statement",
    "3x5 Photo", "4x6 Photo",    "3.5x5 in",      "4x8 in",     "5x7 in",     "8x10 in",
    "L",        "2L",            "Hagaki",        "9x13 cm",    "10x15 cm",   "10x20 cm",
    "13x18 cm", "20x25 cm",      "Business Card", "Book Original", "Auto Size", "Mixed Size",
    "Universal", OFICIO,         "Custom Scan Size 1", "Custom Scan Size 2", "Custom Scan Size 3",
    "Custom Scan Size 4", "Custom Scan Size 5", "Custom Scan Size 6"};

// The 5100's lists are those scanimage -A shows (e2e options test).
INSTANTIATE_TEST_SUITE_P(
    Models, OptionLists,
    ::testing::Values(
        // Depth codes 0, 1, 1, 1: the last pair writes two modes, the third
        // slot keeps colour from the first. The document types are the device's
        // bits 0, 1 and 3; a custom size without a name gets the built-in one.
        ListCase{DEV_4200,
                 {150, 182, 300, 600},
                 MODES,
                 {"Auto/Other", "Black and White Laser", "Inkjet Plain"},
                 plus(PSSD_SIZES, {"Custom Scan Size 1", "Card"}),
                 {"Portrait"},
                 {"Flatbed", "Automatic Document Feeder"},
                 {},
                 {{O_BRIGHT, 1, 9}, {O_CONTRAST, 0, 5}, {O_THRESHOLD, 0, 254}}},
        ListCase{DEV_NET,
                 {75, 150, 200, 300, 400, 600, 1200},
                 MODES,
                 {"Black and White Laser", "Color Laser", "Inkjet Plain", "Inkjet Glossy", "Retail Photo", "Photo",
                  "Magazine", "Newspaper", "Brochure", "Auto/Other"},
                 NET_SIZES,
                 {"Portrait", "Landscape"},
                 {"Single Page", "Multiple Pages"},
                 {},
                 {{O_BRIGHT, 1, 9}, {O_CONTRAST, 0, 5}, {O_THRESHOLD, 0, 254}, {O_BKG, -4, 4}}}));

// The all-in-one family over the network: the narrower ranges, the list for
// background removal, and the imaging options gated by the feature file.
TEST_F(Options, NetworkAllInOneFamilyUsesItsRangesAndGatesImagingOptions) {
    writeConfiguration("[INTEGERS]\nBOXKIND=1\nMIRRORIMAGE=0\nNEGATIVEIMAGESUPPORT=1\nCOLORDROPOUT=0\n");
    openDevice(DEV_NET);
    EXPECT_EQ(SANE_FIX(-2), opt(O_BRIGHT).constraint.range->min);
    EXPECT_EQ(SANE_FIX(2), opt(O_CONTRAST).constraint.range->max);
    EXPECT_EQ(SANE_TYPE_STRING, opt(O_BKG).type);
    EXPECT_EQ(BKG_LIST, stringList(O_BKG));
    EXPECT_EQ(37, opt(O_MIRROR).cap);
    EXPECT_EQ(5, opt(O_NEGATIVE).cap);
    EXPECT_EQ(37, opt(O_DROPOUT).cap);
    EXPECT_EQ(5, opt(O_BKG).cap);
}

TEST_F(Options, OldLaserFamilyOffersTheFixedResolutions) {
    writeConfiguration("[INTEGERS]\nUSB_OLD_LASER_FLAG=1\nFAMILYID=12\n");
    openDevice(DEV_4200);
    EXPECT_EQ((Words{150, 200, 300}), wordList(O_RES));
}

// ---- Page sizes follow the source on the all-in-one family ----

TEST_F(Options, AllInOnePageSizesFollowTheSourceAndTheFeederListStaysEmptyUntilReopened) {
    openDevice(DEV_5100);
    SANE_Int info = -1;
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SIZE, "Hagaki", &info));
    EXPECT_EQ(SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS, info);
    EXPECT_EQ("Hagaki", getString(O_SIZE));

    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SOURCE, "Automatic Document Feeder", &info));
    EXPECT_EQ(SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS, info);
    // Only the flatbed list was filled at open: the feeder list is empty, and a
    // size that only the flatbed has falls back to the first (absent) entry.
    EXPECT_EQ(Strings{}, stringList(O_SIZE));
    EXPECT_EQ("", getString(O_SIZE));
    EXPECT_EQ(SANE_STATUS_INVAL, setString(O_SIZE, "Letter"));
    EXPECT_EQ(0, parameters().pixels_per_line);

    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SOURCE, "Flatbed"));
    EXPECT_EQ(ISD_FLATBED_SIZES[0], stringList(O_SIZE).at(0));
    EXPECT_EQ("Letter", getString(O_SIZE));  // the reset index, now in the flatbed list

    // Reopened: the flatbed list again, then the same empty feeder list.
    openDevice(DEV_5100);
    Strings reopened = stringList(O_SIZE);
    ASSERT_GE(reopened.size(), ISD_FLATBED_SIZES.size());
    EXPECT_EQ(ISD_FLATBED_SIZES, Strings(reopened.begin(), reopened.begin() + 25));
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SOURCE, "Automatic Document Feeder"));
    EXPECT_EQ(Strings{}, stringList(O_SIZE));
}

// ---- Getting and setting values ----

struct ControlCase {
    const char* device;
    int option;
    bool text;           // a string option (value in szIn/szBack) or a word
    SANE_Word in;        // word to set
    const char* szIn;    // text to set
    SANE_Status status;  // of the set
    SANE_Int info;
    SANE_Word back;      // read back after a good set
    const char* szBack;
};

class Control : public Options, public ::testing::WithParamInterface<ControlCase> {};

TEST_P(Control, SetReportsInfoAndReadsBack) {
    const ControlCase& c = GetParam();
    openDevice(c.device);
    SANE_Int info = -1;
    SANE_Status st = c.text ? setString(c.option, c.szIn, &info) : setWord(c.option, c.in, &info);
    ASSERT_EQ(c.status, st);
    if (st != SANE_STATUS_GOOD) return;
    EXPECT_EQ(c.info, info);
    if (c.text)
        EXPECT_EQ(c.szBack, getString(c.option));
    else
        EXPECT_EQ(c.back, getWord(c.option));
}

ControlCase word(const char* dev, int o, SANE_Word in, SANE_Status st, SANE_Int info, SANE_Word back) {
    return ControlCase{dev, o, false, in, nullptr, st, info, back, nullptr};
}
ControlCase text(const char* dev, int o, const char* in, SANE_Status st, SANE_Int info, const char* back) {
    return ControlCase{dev, o, true, 0, in, st, info, 0, back};
}

const SANE_Status INVAL = SANE_STATUS_INVAL;
const SANE_Int RELOAD = SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;

INSTANTIATE_TEST_SUITE_P(
    Values, Control,
    ::testing::Values(
        word(DEV_5100, O_RES, 182, SANE_STATUS_GOOD, SANE_INFO_RELOAD_PARAMS, 182),
        word(DEV_5100, O_RES, 200, INVAL, 0, 0),  // not in the device's list
        // FIXED: clamped into the range with INEXACT, the step not applied.
        word(DEV_5100, O_BRIGHT, SANE_FIX(12), SANE_STATUS_GOOD, SANE_INFO_INEXACT, SANE_FIX(2)),
        word(DEV_5100, O_BRIGHT, SANE_FIX(-7), SANE_STATUS_GOOD, SANE_INFO_INEXACT, SANE_FIX(-2)),
        word(DEV_5100, O_CONTRAST, SANE_FIX(-1), SANE_STATUS_GOOD, 0, SANE_FIX(-1)),
        // BOOL: stored as given, read back shifted by 16 (intended).
        word(DEV_5100, O_MIRROR, SANE_TRUE, SANE_STATUS_GOOD, 0, 65536),
        // String lists: the entry's text, exactly.
        text(DEV_5100, O_MODE, "8-bit Grayscale", SANE_STATUS_GOOD, RELOAD, "8-bit Grayscale"),
        text(DEV_5100, O_MODE, "8-bit grayscale", INVAL, 0, nullptr),
        text(DEV_5100, O_MODE, "8-bit Grayscale ", INVAL, 0, nullptr),
        text(DEV_4200, O_SIZE, "Tabloid", SANE_STATUS_GOOD, RELOAD, "Tabloid"),
        text(DEV_5100, O_SIZE, "Tabloid", INVAL, 0, nullptr),  // not in this family's list
        text(DEV_5100, O_DOCSRC, "Magazine", SANE_STATUS_GOOD, 0, "Magazine"),
        text(DEV_4200, O_DOCSRC, "Magazine", INVAL, 0, nullptr),
        // Only the all-in-one family reloads on a source change.
        text(DEV_5100, O_SOURCE, "Automatic Document Feeder", SANE_STATUS_GOOD, RELOAD, "Automatic Document Feeder"),
        text(DEV_4200, O_SOURCE, "Automatic Document Feeder", SANE_STATUS_GOOD, 0, "Automatic Document Feeder"),
        text(DEV_5100, O_BKG, "Moderate", SANE_STATUS_GOOD, 0, "Moderate"),
        // Colour dropout is ignored over USB.
        text(DEV_5100, O_DROPOUT, "Red", SANE_STATUS_GOOD, 0, "None"),
        // Names: letters, digits and '_' only.
        text(DEV_4200, O_USER, "scanner_7", SANE_STATUS_GOOD, 0, "scanner_7"),
        text(DEV_4200, O_USER, "bad-name", INVAL, 0, nullptr),
        text(DEV_4200, O_PROFILE, "", INVAL, 0, nullptr),
        // The network placeholder stores an address and a name.
        text(DEV_NET, O_IP, "192.0.2.7", SANE_STATUS_GOOD, 0, "192.0.2.7")));

TEST_F(Options, RefusedCallsLeaveEverythingAlone) {
    openDevice(DEV_4200);
    SANE_Word w = 0;
    SANE_Int info = -1;
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, 27, SANE_ACTION_GET_VALUE, &w, &info));
    EXPECT_EQ(0, info);
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, -1, SANE_ACTION_SET_VALUE, &w, nullptr));
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, 1, SANE_ACTION_GET_VALUE, &w, nullptr));  // group
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, O_INTERFACE, SANE_ACTION_GET_VALUE, &w, nullptr));
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, O_RES, SANE_ACTION_GET_VALUE, nullptr, nullptr));
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, O_RES, SANE_ACTION_SET_AUTO, &w, nullptr));
    // The button needs no value; over USB it resets nothing.
    EXPECT_EQ(SANE_STATUS_GOOD, api.control_option(handle, O_RESET, SANE_ACTION_SET_VALUE, nullptr, &info));
    EXPECT_EQ(0, info);
    EXPECT_EQ(SANE_FIX(5), getWord(O_BRIGHT));
    // A handle that was never opened is refused, not followed.
    int bogus = 0;
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(&bogus, O_RES, SANE_ACTION_GET_VALUE, &w, nullptr));
    SANE_Parameters p;
    EXPECT_EQ(SANE_STATUS_INVAL, api.get_parameters(&bogus, &p));
    // The address belongs to the network placeholder only: a USB device takes
    // the set without storing anything and leaves the buffer of a get alone.
    EXPECT_EQ(SANE_STATUS_GOOD, setString(O_IP, "10.1.2.3"));
    char ip[50];
    memset(ip, 'x', sizeof(ip));
    EXPECT_EQ(SANE_STATUS_GOOD, api.control_option(handle, O_IP, SANE_ACTION_GET_VALUE, ip, nullptr));
    EXPECT_EQ(std::string(50, 'x'), std::string(ip, 50));
}

TEST_F(Options, StringValuesStayWithinTheOptionSize) {
    openDevice(DEV_5100);
    // A value without a NUL in its 50 bytes is read no further (ASan watches
    // the heap block's end): no mode has that text, but it is a valid name, and
    // it reads back cut to 49 bytes and a NUL.
    std::unique_ptr<char[]> full(new char[50]);
    memset(full.get(), 'A', 50);
    EXPECT_EQ(SANE_STATUS_INVAL, api.control_option(handle, O_MODE, SANE_ACTION_SET_VALUE, full.get(), nullptr));
    EXPECT_EQ(SANE_STATUS_GOOD, api.control_option(handle, O_PROFILE, SANE_ACTION_SET_VALUE, full.get(), nullptr));
    EXPECT_EQ(std::string(49, 'A'), getString(O_PROFILE));
    // The longest list entry comes back whole, NUL-terminated within the 50 bytes.
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SIZE, "A name much longer than the option value can hold"));
    EXPECT_EQ("A name much longer than the option value can hold", getString(O_SIZE));
}

TEST_F(Options, CurrentUserNameReadsAsTheLoginName) {
    openDevice(DEV_4200);  // the feature file says "current"
    struct passwd* pw = getpwuid(getuid());
    EXPECT_EQ(pw ? pw->pw_name : "User1", getString(O_USER));
}

// ---- Frame parameters ----

struct Frame {
    SANE_Frame format;
    int depth, pixels, lines, bytes;
};

void expectFrame(const Frame& f, const SANE_Parameters& p) {
    EXPECT_EQ(f.format, p.format);
    EXPECT_EQ(f.depth, p.depth);
    EXPECT_EQ(f.pixels, p.pixels_per_line);
    EXPECT_EQ(f.lines, p.lines);
    EXPECT_EQ(f.bytes, p.bytes_per_line);
    EXPECT_EQ(SANE_TRUE, p.last_frame);
}

// A preview computes the frame at 75 dpi but leaves the user's resolution:
// 412.5 x 637.5 pixels of Statement, rounded on the second family and cut
// down on the all-in-one family. (The frames of real scans, and the windows
// they send, are checked through scanimage.)
struct PreviewCase {
    const char* device;
    const char* mode;
    Frame frame;
};

class Preview : public Options, public ::testing::WithParamInterface<PreviewCase> {};

TEST_P(Preview, FrameAt75DpiKeepsTheResolution) {
    const PreviewCase& c = GetParam();
    writeConfiguration("[INTEGERS]\nPREVIEW=1\n");
    openDevice(c.device);
    ASSERT_EQ(SANE_STATUS_GOOD, setWord(O_RES, 182));
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_MODE, c.mode));
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_SIZE, "Statement"));
    expectFrame(c.frame, parameters());
    EXPECT_EQ(182, getWord(O_RES));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, Preview,
    ::testing::Values(PreviewCase{DEV_4200, "24-bit Color", {SANE_FRAME_RGB, 8, 413, 638, 1239}},
                      PreviewCase{DEV_5100, "1-bit Black & White", {SANE_FRAME_GRAY, 1, 412, 637, 52}}));

// ---- The network placeholder: address, dependencies, reset, parameters ----

struct DependencyCase {
    int option;  // O_MODE or O_DROPOUT
    const char* value;
    const char* dropoutBefore;  // set first (while grey), or nullptr
    bool contrast, dropout, threshold, negative;  // active afterwards
};

class NetworkDependencies : public Options, public ::testing::WithParamInterface<DependencyCase> {};

TEST_P(NetworkDependencies, SwitchImagingOptions) {
    const DependencyCase& c = GetParam();
    openDevice(DEV_NET);
    if (c.dropoutBefore != nullptr) {
        ASSERT_EQ(SANE_STATUS_GOOD, setString(O_MODE, "8-bit Grayscale"));
        ASSERT_EQ(SANE_STATUS_GOOD, setString(O_DROPOUT, c.dropoutBefore));
    }
    SANE_Int info = -1;
    ASSERT_EQ(SANE_STATUS_GOOD, setString(c.option, c.value, &info));
    EXPECT_EQ(RELOAD, info);
    auto active = [&](int n) { return (opt(n).cap & SANE_CAP_INACTIVE) == 0; };
    EXPECT_EQ(c.contrast, active(O_CONTRAST));
    EXPECT_EQ(c.dropout, active(O_DROPOUT));
    EXPECT_EQ(c.threshold, active(O_THRESHOLD));
    EXPECT_EQ(c.negative, active(O_NEGATIVE));
}

INSTANTIATE_TEST_SUITE_P(
    Network, NetworkDependencies,
    ::testing::Values(DependencyCase{O_MODE, "24-bit Color", nullptr, true, false, false, true},
                      DependencyCase{O_MODE, "8-bit Grayscale", nullptr, true, true, false, true},
                      DependencyCase{O_MODE, "1-bit Black & White", nullptr, false, true, false, true},
                      DependencyCase{O_MODE, "1-bit Black & White", "Green", false, true, true, false},
                      DependencyCase{O_DROPOUT, "Red", nullptr, true, true, true, false},
                      DependencyCase{O_DROPOUT, "None", "Blue", true, true, false, true}));

TEST_F(Options, NetworkResetRestoresImagingDefaults) {
    openDevice(DEV_NET);
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_MODE, "8-bit Grayscale"));
    ASSERT_EQ(SANE_STATUS_GOOD, setString(O_DROPOUT, "Blue"));
    ASSERT_EQ(SANE_STATUS_GOOD, setWord(O_THRESHOLD, SANE_FIX(40)));
    EXPECT_EQ(SANE_FIX(2), getWord(O_BKG));
    SANE_Int info = -1;
    ASSERT_EQ(SANE_STATUS_GOOD, api.control_option(handle, O_RESET, SANE_ACTION_SET_VALUE, nullptr, &info));
    EXPECT_EQ(RELOAD, info);
    EXPECT_EQ(0, getWord(O_BKG));
    EXPECT_EQ(0, getWord(O_MIRROR));
    EXPECT_EQ(0, getWord(O_NEGATIVE));
    EXPECT_EQ("None", getString(O_DROPOUT));
    EXPECT_EQ(SANE_FIX(128), getWord(O_THRESHOLD));
    EXPECT_EQ(0, opt(O_NEGATIVE).cap & SANE_CAP_INACTIVE);
    EXPECT_NE(0, opt(O_THRESHOLD).cap & SANE_CAP_INACTIVE);
}

struct NetParamCase {
    int depth;
    const char* extra;  // measured sizes the network transport would store
    Frame frame;
};

class NetworkParameters : public Options, public ::testing::WithParamInterface<NetParamCase> {};

TEST_P(NetworkParameters, UseTheMeasuredImage) {
    const NetParamCase& c = GetParam();
    writeConfiguration(std::string("[INTEGERS]\nCOLORDEPTH=") + std::to_string(c.depth) + "\n" + c.extra);
    openDevice(DEV_NET);
    expectFrame(c.frame, parameters());
}

INSTANTIATE_TEST_SUITE_P(
    Network, NetworkParameters,
    ::testing::Values(
        // Line art rounds down over the network (the pages scanimage gets from
        // the network scan program, interpolated or not, have widths of whole
        // bytes); an interpolated size counts only when both sides are known.
        NetParamCase{0, "WIDTH_SCAN=1001\nHEIGHT_SCAN=40\n", {SANE_FRAME_GRAY, 1, 1001, 40, 125}},
        NetParamCase{2, "WIDTH_SCAN=640\nHEIGHT_SCAN=30\nINTER_WIDTH=1280\n", {SANE_FRAME_RGB, 8, 640, 30, 1920}}));

}  // namespace
