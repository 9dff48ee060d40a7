#include "SaneInterface.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CLogger.h"
#include "CProps.h"
#include "ScanLib.h"

#define SANEIF_START() LOG_DEBUG("::::::::::::::: SANEINTERFACE START ::::::::::::::: ")
#define SANEIF_END() LOG_DEBUG("::::::::::::::: SANEINTERFACE END ::::::::::::::: ")

// Process-wide state of this layer; the backend serves one open session at a time.
static SANE_Device** g_pDeviceListPtr = nullptr;
static int iNum = 0;
static int iUsb = 0;
static int iPseudo = 0;
static int iDpi = 0;
static SANE_Option_Descriptor m_opt[QUARTO_NUM_OPTIONS];
// The sessions handed out by open and not yet closed; a handle that is not one of
// them is refused instead of being dereferenced.
static std::set<ScanLib*> g_openSessions;

static const char kPseudoVendor[] = "MFP";
static const char kPseudoModel[] = "Network";
static const char kPseudoName[] = "libnet/SPECIFY_DEVICE";
static const char kScannerType[] = "Scanner";

// Frees a string of a record unless it is one of the constant literals above.
static void freeRecordString(SANE_String_Const s) {
    if (s != kPseudoVendor && s != kPseudoModel && s != kPseudoName && s != kScannerType)
        free(const_cast<char*>(s));
}

static void releaseDeviceList() {
    if (g_pDeviceListPtr == nullptr) return;
    for (int i = 0; i < iNum; ++i) {
        LOG_DEBUG("cleaning device %d/%d...", i + 1, iNum);
        SANE_Device* dev = g_pDeviceListPtr[i];
        if (dev == nullptr) continue;
        // The front end's pointers are only valid until the next list, so the
        // copied strings go with their record.
        freeRecordString(dev->name);
        freeRecordString(dev->vendor);
        freeRecordString(dev->model);
        free(dev);
    }
    free(g_pDeviceListPtr);
    g_pDeviceListPtr = nullptr;
}

SANE_Device* sane_ScanLib_make_device(char* raw) {
    SANE_Device* dev = (SANE_Device*)calloc(1, sizeof(SANE_Device));
    if (dev == nullptr) return nullptr;
    if (raw != nullptr && strstr(raw, "NET_PSEUDO_PLACE_HOLDER::") != nullptr) {
        dev->vendor = kPseudoVendor;
        dev->model = kPseudoModel;
        dev->name = kPseudoName;
    } else {
        // Split in place at every '/': vendor, model, name. An empty piece stays a
        // piece (a device without a manufacturer string gives "V//libusb:..." or
        // "/M/libusb:..."). A fourth piece and any further ones are dropped, so
        // libnet:A/B keeps only libnet:A (intended).
        char* pieces[3] = {nullptr, nullptr, nullptr};
        char* rest = raw;
        for (int n = 0; n < 3 && rest != nullptr; ++n) pieces[n] = strsep(&rest, "/");
        dev->vendor = strdup(pieces[0] ? pieces[0] : "");
        dev->model = strdup(pieces[1] ? pieces[1] : "");
        char* devName = strdup(pieces[2] ? pieces[2] : "");
        for (char* p = devName; p && *p; ++p)
            if (*p == ':') *p = '/';
        dev->name = devName;
    }
    dev->type = kScannerType;
    return dev;
}

SANE_Status sane_ScanLib_init(SANE_Int* version_code, SANE_Auth_Callback) {
    SANEIF_START();
    LOG_DEBUG("::::::::::::::: SCANLIB START ::::::::::::::: ");
    if (version_code != nullptr) *version_code = 0x1000001;
    SANEIF_END();
    return SANE_STATUS_GOOD;
}

void sane_ScanLib_exit(void) {
    SANEIF_START();
    releaseDeviceList();
    iNum = 0;
    LOG_DEBUG("::::::::::::::: SCANLIB END ::::::::::::::: ");
    SANEIF_END();
}

SANE_Status sane_ScanLib_get_devices(const SANE_Device*** device_list, SANE_Bool) {
    SANEIF_START();
    char** raw = nullptr;
    int count = 0;
    if (ScanLib::GetScanners(&raw, &count) != 0) {
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    releaseDeviceList();
    if (count < 0) count = 0;
    iNum = count;
    g_pDeviceListPtr = (SANE_Device**)calloc((size_t)iNum + 1, sizeof(SANE_Device*));
    if (g_pDeviceListPtr == nullptr) {
        iNum = 0;
        for (int i = 0; i < count; ++i) free(raw[i]);
        free(raw);
        SANEIF_END();
        return SANE_STATUS_NO_MEM;
    }
    for (int i = 0; i < iNum; ++i) {
        LOG_DEBUG("raw: %s", raw[i] ? raw[i] : "");
        SANE_Device* dev = sane_ScanLib_make_device(raw[i]);
        free(raw[i]);  // the record holds copies
        raw[i] = nullptr;
        if (dev == nullptr) {
            iNum = i;
            break;
        }
        LOG_DEBUG("name: %s", dev->name);
        g_pDeviceListPtr[i] = dev;
    }
    g_pDeviceListPtr[iNum] = nullptr;
    for (int i = iNum; i < count; ++i) free(raw[i]);  // left over after a failed allocation
    free(raw);
    if (device_list != nullptr) *device_list = (const SANE_Device**)g_pDeviceListPtr;
    SANEIF_END();
    return SANE_STATUS_GOOD;
}


// ---------------------------------------------------------------------------
// Option table
// ---------------------------------------------------------------------------

namespace {

enum OptionIndex {
    OPT_NUM_OPTS = 0,
    OPT_SCANNER_GROUP,
    OPT_IP_ADDRESS,
    OPT_INTERFACE,
    OPT_PROFILE_GROUP,
    OPT_USER_NAME,
    OPT_PROFILE_NAME,
    OPT_IMAGE_GROUP,
    OPT_CONTENT_TYPE,
    OPT_RESOLUTION,
    OPT_MODE,
    OPT_DOC_SOURCE,
    OPT_ORIGINAL_SIZE,
    OPT_ORIENTATION,
    OPT_SCAN_BOTH_SIDES,
    OPT_SCAN_NOW,
    OPT_SOURCE,
    OPT_ADVANCED_GROUP,
    OPT_BRIGHTNESS,
    OPT_CONTRAST,
    OPT_ADVANCE_IMAGING_GROUP,
    OPT_MIRROR_IMAGE,
    OPT_NEGATIVE_IMAGE,
    OPT_COLOR_DROPOUT,
    OPT_COLOR_DROPOUT_THRESHOLD,
    OPT_BKG_REMOVAL,
    OPT_RESET
};

const SANE_Int OPTION_STRING_SIZE = 50;
const int MODE_STRING_SIZE = 1024;
const int MODE_SLOTS = 3;
const int MAX_CUSTOM_SIZES = 6;
const int MAX_PAGE_SIZES = 38;
const int MAX_RESOLUTIONS = 64;
// Upper bound when walking any NULL-terminated list of this layer.
const int MAX_LIST_ENTRIES = 64;
const int FIXED_SHIFT = 16;
const int PREVIEW_DPI = 75;
const int BOXKIND_ISD = 1;
const int SOURCE_ADF = 1;
const int DEPTH_LINEART = 0;
const int DEPTH_GRAY = 1;
const int DEPTH_COLOR = 2;
const int FAMILY_NO_OLD_LASER_LIST = 16;
const int DEFAULT_DROPOUT_THRESHOLD = 128;
const SANE_Int RELOAD_ALL = SANE_INFO_RELOAD_OPTIONS | SANE_INFO_RELOAD_PARAMS;
const SANE_Int CAP_DEFAULT = SANE_CAP_SOFT_SELECT | SANE_CAP_SOFT_DETECT;

const char MODE_LINEART[] = "1-bit Black & White";
const char MODE_GRAY[] = "8-bit Grayscale";
const char MODE_COLOR[] = "24-bit Color";

const SANE_String_Const CONTENT_TYPE_LIST[] = {"Text", "Text/Graphics", "Photo", nullptr};
const SANE_String_Const NETWORK_MODE_LIST[] = {MODE_LINEART, MODE_GRAY, MODE_COLOR, nullptr};
const SANE_String_Const NETWORK_DOC_SOURCE_LIST[] = {
    "Black and White Laser", "Color Laser", "Inkjet Plain", "Inkjet Glossy", "Retail Photo", "Photo",
    "Magazine", "Newspaper", "Brochure", "Auto/Other", nullptr};
const SANE_String_Const ISD_DOC_SOURCE_LIST[] = {"Black and White Laser", "Color Laser", "Inkjet Plain",
                                                 "Inkjet Glossy", "Retail Photo", "Magazine",
                                                 "Newspaper", "Brochure", nullptr};
const SANE_String_Const NETWORK_ORIENTATION_LIST[] = {"Portrait", "Landscape", nullptr};
const SANE_String_Const USB_ORIENTATION_LIST[] = {"Portrait", nullptr};
const SANE_String_Const NETWORK_SOURCE_LIST[] = {"Single Page", "Multiple Pages", nullptr};
const SANE_String_Const USB_SOURCE_LIST[] = {"Flatbed", "Automatic Document Feeder", nullptr};
const SANE_String_Const COLOR_DROPOUT_LIST[] = {"None", "Red", "Green", "Blue", nullptr};
const SANE_String_Const BKG_REMOVAL_LIST[] = {"Off", "Auto", "Mild", "Moderate", "Strong", nullptr};

const SANE_Word NETWORK_RESOLUTION_LIST[] = {7, 75, 150, 200, 300, 400, 600, 1200};
const SANE_Word OLD_LASER_RESOLUTION_LIST[] = {3, 150, 200, 300};

const SANE_Range RANGE_BRIGHTNESS = {SANE_FIX(1), SANE_FIX(9), SANE_FIX(1)};
const SANE_Range RANGE_CONTRAST = {SANE_FIX(0), SANE_FIX(5), SANE_FIX(1)};
const SANE_Range RANGE_ISD_ADJUST = {SANE_FIX(-2), SANE_FIX(2), SANE_FIX(1)};
const SANE_Range RANGE_DROPOUT_THRESHOLD = {SANE_FIX(0), SANE_FIX(254), SANE_FIX(1)};
const SANE_Range RANGE_BKG_REMOVAL = {SANE_FIX(-4), SANE_FIX(4), SANE_FIX(1)};

struct PageSize {
    const char* szName;
    double dBrx;  // bottom-right corner in millimetres; the top-left is 0, 0
    double dBry;
};

// Every named size; also the network list, in this order.
const PageSize NETWORK_PAGE_SIZES[MAX_PAGE_SIZES] = {
    {"Letter", 215.9, 279.4},      {"Executive", 184.2, 266.7},   {"Legal", 215.9, 355.6},
    {"A3", 297, 420},              {"A4", 210, 297},              {"A5", 148, 210},
    {"A6", 105, 148},              {"B4", 257, 364},              {"B5", 182, 257},
    {"Tabloid", 279.4, 431.8},     {"Folio", 215.9, 330.2},       {"Statement", 139.7, 215.9},
    {"3x5 Photo", 76.2, 127},      {"4x6 Photo", 101.6, 152.4},   {"3.5x5 in", 88.9, 127},
    {"4x8 in", 101.6, 203.2},      {"5x7 in", 127, 177.8},        {"8x10 in", 203.2, 254},
    {"L", 89, 127},                {"2L", 127, 178},              {"Hagaki", 100, 148},
    {"9x13 cm", 90, 130},          {"10x15 cm", 100, 150},        {"10x20 cm", 100, 200},
    {"13x18 cm", 130, 180},        {"20x25 cm", 200, 250},        {"Business Card", 51, 89},
    {"Book Original", 0, 0},       {"Auto Size", 0, 0},           {"Mixed Size", 0, 0},
    {"Universal", 0, 0},           {"Oficio (M\xC3\xA9xico)", 215.9, 340.4},
    {"Custom Scan Size 1", 0, 0},  {"Custom Scan Size 2", 0, 0},  {"Custom Scan Size 3", 0, 0},
    {"Custom Scan Size 4", 0, 0},  {"Custom Scan Size 5", 0, 0},  {"Custom Scan Size 6", 0, 0}};
const int FIRST_CUSTOM_NAME = 32;  // "Custom Scan Size 1" in the table above
const int A4_SIZE = 4;
const double ISD_A4_WIDTH = 210.3;  // the all-in-one family's A4 is a little wider

// The USB lists as positions in NETWORK_PAGE_SIZES.
const int PSSD_USB_SIZES[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 26, 27, 28, 29, 30, 31};
const int ISD_FLATBED_SIZES[] = {0,  1,  2,  4,  5,  6,  8,  10, 11, 12, 13, 14, 15,
                                 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 31};
const int ISD_ADF_SIZES[] = {0, 1, 2, 4, 5, 8, 10, 17, 25, 31};
// Sizes past this position exist in the flatbed list only.
const int ISD_ADF_LAST_SIZE = 9;

// A page-size list with its bottom-right tables (BRX_list, BRY_list), indexed by
// ORIGINALSIZE. The name array always keeps a NULL after the last entry.
struct PageSizeList {
    SANE_String_Const names[MAX_PAGE_SIZES + 1];
    double brx[MAX_PAGE_SIZES];
    double bry[MAX_PAGE_SIZES];
    int count;
};

struct CustomSize {
    char szName[OPTION_STRING_SIZE];
    double dWidth;   // inches
    double dLength;  // inches
};

PageSizeList network_page_sizes;
PageSizeList pssd_usb_page_sizes;
PageSizeList isd_flatbed_page_sizes;
PageSizeList isd_adf_page_sizes;
// The list whose tables BRX_list/BRY_list are: the one option 12 offers.
const PageSizeList* pPageSizes = &network_page_sizes;

CustomSize g_customSizes[MAX_CUSTOM_SIZES];
int g_iCustomSizes = 0;

// Mode texts live in static buffers, so reopening never allocates them again.
char g_szModes[MODE_SLOTS][MODE_STRING_SIZE];
SANE_String_Const g_modeList[MODE_SLOTS + 1];

// Resolution word list of the device: word 0 is the count.
std::vector<SANE_Word> g_resolutionList(1, 0);

void copyText(char* dst, size_t cap, const char* src) {
    if (cap == 0) return;
    size_t n = src ? strnlen(src, cap - 1) : 0;
    if (n > 0) memcpy(dst, src, n);
    dst[n] = '\0';
}

void appendPageSize(PageSizeList& list, const char* name, double brx, double bry) {
    if (list.count >= MAX_PAGE_SIZES) return;
    list.names[list.count] = name;
    list.brx[list.count] = brx;
    list.bry[list.count] = bry;
    ++list.count;
    list.names[list.count] = nullptr;
}

void fillBuiltInSizes(PageSizeList& list, const int* positions, int n, bool wideA4) {
    for (int i = 0; i < n; ++i) {
        const PageSize& p = NETWORK_PAGE_SIZES[positions[i]];
        LOG_DEBUG("the non custom paper size %s", p.szName);
        appendPageSize(list, p.szName, (wideA4 && positions[i] == A4_SIZE) ? ISD_A4_WIDTH : p.dBrx, p.dBry);
    }
}

void appendCustomSizes(PageSizeList& list) {
    LOG_DEBUG("update custom size");
    for (int i = 0; i < g_iCustomSizes; ++i) {
        const CustomSize& c = g_customSizes[i];
        LOG_DEBUG("the custom paper size %s", c.szName);
        appendPageSize(list, c.szName, c.dWidth * 25.4, c.dLength * 25.4);
    }
}

int listLength(const SANE_String_Const* list) {
    int n = 0;
    while (list != nullptr && n < MAX_LIST_ENTRIES && list[n] != nullptr) ++n;
    return n;
}

// Entry of a list at an index read from the option store (untrusted): an index
// outside the list reads as the first entry, an empty list as "".
const char* listEntry(const SANE_String_Const* list, int index) {
    int n = listLength(list);
    if (n == 0) return "";
    if (index < 0 || index >= n) index = 0;
    return list[index];
}

// BRX_list/BRY_list at an index read from the option store: an index outside
// the current list reads as the first entry, an empty list as 0.
double currentCorner(const double* table, int index) {
    if (pPageSizes->count == 0) return 0.0;
    return table[(index >= 0 && index < pPageSizes->count) ? index : 0];
}
double currentBrx(int index) { return currentCorner(pPageSizes->brx, index); }
double currentBry(int index) { return currentCorner(pPageSizes->bry, index); }

// The scan area of the page size at index of the current list, from its top-left corner.
void storePageArea(ScanLib* s, int index) {
    s->SetDoubleValue("CURRENTTLY", 0.0);
    s->SetDoubleValue("CURRENTTLX", 0.0);
    s->SetDoubleValue("CURRENTBRX", currentBrx(index));
    s->SetDoubleValue("CURRENTBRY", currentBry(index));
}

// A 16.16 value of a whole number, wrapping like the 32-bit shift it stands for.
SANE_Word toFixed(int v) { return (SANE_Word)(int32_t)((uint32_t)v << FIXED_SHIFT); }
int fromFixed(SANE_Word v) { return (int)(v >> FIXED_SHIFT); }

void setMode(int slot, const char* text) {
    copyText(g_szModes[slot], MODE_STRING_SIZE, text);
    g_modeList[slot] = g_szModes[slot];
}

struct OptionText {
    const char* name;
    const char* title;
    const char* desc;
    SANE_Value_Type type;  // background removal's depends on connection and family
};

const OptionText OPTION_TEXTS[QUARTO_NUM_OPTIONS] = {
    {"", "Number of options", "Read-only option that specifies how many options a specific devices supports.",
     SANE_TYPE_INT},
    {"scanner-group", "Scanner", "", SANE_TYPE_GROUP},
    {"ip-address", "IP Address", "The IP address / hostname associated with this scan job.", SANE_TYPE_STRING},
    {"interface", "Interface", "The interface associated with this scan job.", SANE_TYPE_STRING},
    {"profile-information-group", "Profile Information", "", SANE_TYPE_GROUP},
    {"user-name", "User Name", "The user name associated with this scan job.", SANE_TYPE_STRING},
    {"profile-name", "Profile Name", "The profile name associated with this scan job.", SANE_TYPE_STRING},
    {"image-group", "Image Settings", "", SANE_TYPE_GROUP},
    {"content-type", "Content Type", "Indicates the type of material to be scanned.", SANE_TYPE_STRING},
    {"scan-resolution", "Resolution", "The resolution of the scan job in dots per inch.", SANE_TYPE_INT},
    {"mode", "Color Depth", "The color depth of the scan job.", SANE_TYPE_STRING},
    {"content-source", "Content Source", "Content Source.", SANE_TYPE_STRING},
    {"original-size", "Original Size", "The size of the area to be scanned.", SANE_TYPE_STRING},
    {"orientation", "Orientation", "The orientation of the scan output.", SANE_TYPE_STRING},
    {"scan-both-sides", "Scan both sides", "Scan both sides of the document.", SANE_TYPE_BOOL},
    {"scan-now", "Start Immediately", "Start scan operation immediately.", SANE_TYPE_BOOL},
    {"source", "Scan source", "Indicates the number of pages to be scanned.", SANE_TYPE_STRING},
    {"advanced-settings-group", "Advanced Settings", "", SANE_TYPE_GROUP},
    {"brightness", "Brightness", "Adjusts the brightness setting for this scan.", SANE_TYPE_FIXED},
    {"contrast", "Contrast", "Adjusts the contrast setting used for this scan.", SANE_TYPE_FIXED},
    {"advance-imaging-group", "Advance Imaging", "", SANE_TYPE_GROUP},
    {"mirrorimage", "Mirror Image", "Scans the image then rotates it 180 degrees horizontally.", SANE_TYPE_BOOL},
    {"negativeimage", "Negative Image", "Negative Image.", SANE_TYPE_BOOL},
    {"colordropout", "Color Dropout", "Color Dropout.", SANE_TYPE_STRING},
    {"colordropoutthreshold", "Color Dropout Threshold", "Color Dropout Threshold.", SANE_TYPE_FIXED},
    {"bkgremoval", "Background Removal", "Background Removal.", SANE_TYPE_BOOL},
    {"reset", "Reset", "Resets advance imaging options to its default value.", SANE_TYPE_BUTTON}};

void setType(int n, SANE_Value_Type type) {
    m_opt[n].type = type;
    m_opt[n].size = type == SANE_TYPE_STRING ? OPTION_STRING_SIZE : (SANE_Int)sizeof(SANE_Word);
}

void setStringList(int n, const SANE_String_Const* list) {
    m_opt[n].constraint_type = SANE_CONSTRAINT_STRING_LIST;
    m_opt[n].constraint.string_list = list;
}

void setWordList(int n, const SANE_Word* list) {
    m_opt[n].constraint_type = SANE_CONSTRAINT_WORD_LIST;
    m_opt[n].constraint.word_list = list;
}

void setRange(int n, const SANE_Range* range) {
    m_opt[n].constraint_type = SANE_CONSTRAINT_RANGE;
    m_opt[n].constraint.range = range;
}

void setInactive(int n, bool inactive) {
    if (inactive)
        m_opt[n].cap |= SANE_CAP_INACTIVE;
    else
        m_opt[n].cap &= ~SANE_CAP_INACTIVE;
}

// The USB document-source list of the second family, filled from the device's
// properties; its last slot is the terminator.
const SANE_String_Const* usbDocSourceList() {
    pssd_usb_doc_source_list[PSSD_USB_DOC_SOURCE_LIST_SIZE] = nullptr;
    return (const SANE_String_Const*)pssd_usb_doc_source_list;
}

ScanLib* liveSession(SANE_Handle handle) {
    ScanLib* s = static_cast<ScanLib*>(handle);
    return (s != nullptr && g_openSessions.count(s) != 0) ? s : nullptr;
}

}  // namespace

void GetListValues(ScanLib* session) {
    LOG_METHOD_START();
    const int boxKind = session->GetIntValue("BOXKIND");
    const int resolutions = session->GetIntValue("RESOLUTIONS");
    const int customCount = session->GetIntValue("NO_CUSTOM_SCANSIZES");

    // The list holds at most RESOLUTIONS words after the count (bounded); word 0
    // counts the words actually filled.
    const int capacity = std::max(0, std::min(resolutions, MAX_RESOLUTIONS));
    g_resolutionList.assign(1, 0);
    for (int i = 0; i <= MODE_SLOTS; ++i) g_modeList[i] = nullptr;

    std::map<std::string, int> resolutionMap;
    std::map<std::string, int> depthMap;
    session->GetIntListValue("RESOLUTIONS_LIST", resolutionMap);
    session->GetIntListValue("COLORDEPTH_LIST", depthMap);
    auto r = resolutionMap.begin();
    auto d = depthMap.begin();
    for (; r != resolutionMap.end() && d != depthMap.end(); ++r, ++d) {
        if ((int)g_resolutionList.size() <= capacity) g_resolutionList.push_back(r->second);
        LOG_DEBUG("printing the resolution list %d", r->second);
        LOG_DEBUG("printing the color depth array %d", d->second);
        // Slots not rewritten keep their text, so the last pair decides the list
        // and an earlier 0 leaves colour in the third slot: intended.
        setMode(0, MODE_LINEART);
        if (d->second == 0) {
            setMode(1, MODE_GRAY);
            setMode(2, MODE_COLOR);
        } else if (d->second == 1) {
            setMode(1, MODE_GRAY);
        } else {
            setMode(1, MODE_COLOR);
        }
    }
    g_resolutionList[0] = (SANE_Word)(g_resolutionList.size() - 1);

    std::map<std::string, double> lengthMap;
    std::map<std::string, double> widthMap;
    std::map<std::string, std::string> nameMap;
    session->GetDoubleListValue("PAPERLENGTH_LIST", lengthMap);
    session->GetDoubleListValue("PAPERWIDTH_LIST", widthMap);
    session->GetStringListValue("PAPERSIZENAME_LIST", nameMap);
    g_iCustomSizes = 0;
    auto len = lengthMap.begin();
    auto wid = widthMap.begin();
    auto nam = nameMap.begin();
    for (int i = 0; i < customCount && i < MAX_CUSTOM_SIZES && len != lengthMap.end() && wid != widthMap.end();
         ++i, ++len, ++wid) {
        CustomSize& c = g_customSizes[i];
        const char* name = nullptr;
        if (nam != nameMap.end()) {
            name = nam->second.c_str();
            ++nam;
        }
        // Names are cut to what the option's value can hold.
        copyText(c.szName, sizeof(c.szName),
                 (name != nullptr && name[0] != '\0') ? name : NETWORK_PAGE_SIZES[FIRST_CUSTOM_NAME + i].szName);
        c.dWidth = wid->second;
        c.dLength = len->second;
        LOG_DEBUG("printing the custom paper names list %s", c.szName);
        LOG_DEBUG("printing the custom paper width list %f", c.dWidth);
        g_iCustomSizes = i + 1;
    }

    if (iUsb == 0) {
        LOG_METHOD_END();
        return;
    }
    pssd_usb_page_sizes = PageSizeList();
    isd_flatbed_page_sizes = PageSizeList();
    isd_adf_page_sizes = PageSizeList();
    if (boxKind != BOXKIND_ISD) {
        fillBuiltInSizes(pssd_usb_page_sizes, PSSD_USB_SIZES, (int)(sizeof(PSSD_USB_SIZES) / sizeof(int)), false);
        appendCustomSizes(pssd_usb_page_sizes);
    } else if (session->GetIntValue("SCAN_SOURCE") != SOURCE_ADF) {
        // Only the list of the source selected at open is filled; the other one
        // stays empty until a later open with that source: intended.
        fillBuiltInSizes(isd_flatbed_page_sizes, ISD_FLATBED_SIZES, (int)(sizeof(ISD_FLATBED_SIZES) / sizeof(int)),
                         true);
        appendCustomSizes(isd_flatbed_page_sizes);
    } else {
        fillBuiltInSizes(isd_adf_page_sizes, ISD_ADF_SIZES, (int)(sizeof(ISD_ADF_SIZES) / sizeof(int)), true);
        appendCustomSizes(isd_adf_page_sizes);
    }
    LOG_METHOD_END();
}

void InitOptions(ScanLib* session) {
    LOG_METHOD_START();
    const bool usb = iUsb != 0;
    const bool isd = session->GetIntValue("BOXKIND") == BOXKIND_ISD;
    const bool usbPssd = usb && !isd;

    for (int n = 0; n < QUARTO_NUM_OPTIONS; ++n) {
        SANE_Option_Descriptor& o = m_opt[n];
        o = SANE_Option_Descriptor();
        o.name = OPTION_TEXTS[n].name;
        o.title = OPTION_TEXTS[n].title;
        o.desc = OPTION_TEXTS[n].desc;
        o.cap = CAP_DEFAULT;
        setType(n, OPTION_TEXTS[n].type);
    }
    m_opt[OPT_NUM_OPTS].cap = SANE_CAP_SOFT_DETECT;
    m_opt[OPT_INTERFACE].cap = SANE_CAP_INACTIVE;
    m_opt[OPT_ADVANCE_IMAGING_GROUP].cap = SANE_CAP_ADVANCED;
    if (!usb) m_opt[OPT_ADVANCED_GROUP].cap = 0;

    setInactive(OPT_IP_ADDRESS, !(iPseudo == 1 && !usb));
    setInactive(OPT_USER_NAME, usb);
    setInactive(OPT_PROFILE_NAME, usb);
    setStringList(OPT_CONTENT_TYPE, CONTENT_TYPE_LIST);

    m_opt[OPT_RESOLUTION].unit = SANE_UNIT_DPI;
    if (!usb)
        setWordList(OPT_RESOLUTION, NETWORK_RESOLUTION_LIST);
    else if (!isd && session->GetIntValue("FAMILYID") != FAMILY_NO_OLD_LASER_LIST &&
             session->GetIntValue("USB_OLD_LASER_FLAG") == 1)
        setWordList(OPT_RESOLUTION, OLD_LASER_RESOLUTION_LIST);
    else
        setWordList(OPT_RESOLUTION, g_resolutionList.data());

    setStringList(OPT_MODE, usb ? g_modeList : NETWORK_MODE_LIST);

    setStringList(OPT_DOC_SOURCE, !usb ? NETWORK_DOC_SOURCE_LIST : (isd ? ISD_DOC_SOURCE_LIST : usbDocSourceList()));
    const int originalDocs = session->GetIntValue("ORIGINALDOCUMENTSUPPORT");
    setInactive(OPT_DOC_SOURCE, usbPssd && (originalDocs == 0 || originalDocs == -1));

    if (usb && isd)
        m_opt[OPT_ORIGINAL_SIZE].desc =
            "The size of the area to be scanned. Values will change depending on the scan source.";
    if (!usb) {
        network_page_sizes = PageSizeList();
        for (const PageSize& p : NETWORK_PAGE_SIZES) appendPageSize(network_page_sizes, p.szName, p.dBrx, p.dBry);
        pPageSizes = &network_page_sizes;
    } else if (!isd) {
        pPageSizes = &pssd_usb_page_sizes;
    } else if (session->GetIntValue("SCAN_SOURCE") != SOURCE_ADF) {
        pPageSizes = &isd_flatbed_page_sizes;
    } else {
        pPageSizes = &isd_adf_page_sizes;
    }
    setStringList(OPT_ORIGINAL_SIZE, pPageSizes->names);

    setStringList(OPT_ORIENTATION, usb ? USB_ORIENTATION_LIST : NETWORK_ORIENTATION_LIST);
    setInactive(OPT_SCAN_BOTH_SIDES, usb);
    setInactive(OPT_SCAN_NOW, usb);
    if (usb) m_opt[OPT_SOURCE].desc = "The source of the document to be scanned (ex: flatbed).";
    setStringList(OPT_SOURCE, usb ? USB_SOURCE_LIST : NETWORK_SOURCE_LIST);

    setInactive(OPT_ADVANCED_GROUP, usb);
    setRange(OPT_BRIGHTNESS, isd ? &RANGE_ISD_ADJUST : &RANGE_BRIGHTNESS);
    setInactive(OPT_BRIGHTNESS, usbPssd && session->GetIntValue("PSSDBRIGHTNESS") == 0);
    setRange(OPT_CONTRAST, isd ? &RANGE_ISD_ADJUST : &RANGE_CONTRAST);
    setInactive(OPT_CONTRAST, usbPssd && session->GetIntValue("PSSDCONTRAST") == 0);

    const bool capabilityGated = usb || isd;
    setInactive(OPT_MIRROR_IMAGE, capabilityGated && session->GetIntValue("MIRRORIMAGE") == 0);
    setInactive(OPT_NEGATIVE_IMAGE, capabilityGated && session->GetIntValue("NEGATIVEIMAGESUPPORT") == 0);
    setStringList(OPT_COLOR_DROPOUT, COLOR_DROPOUT_LIST);
    setInactive(OPT_COLOR_DROPOUT, capabilityGated && session->GetIntValue("COLORDROPOUT") == 0);
    setRange(OPT_COLOR_DROPOUT_THRESHOLD, &RANGE_DROPOUT_THRESHOLD);
    setInactive(OPT_COLOR_DROPOUT_THRESHOLD, true);

    // Over USB the second family gets no list here: the option stays a plain
    // BOOL, as a fresh table has it.
    if (isd) {
        setType(OPT_BKG_REMOVAL, SANE_TYPE_STRING);
        setStringList(OPT_BKG_REMOVAL, BKG_REMOVAL_LIST);
    } else if (!usb) {
        setType(OPT_BKG_REMOVAL, SANE_TYPE_FIXED);
        setRange(OPT_BKG_REMOVAL, &RANGE_BKG_REMOVAL);
    }
    // The capability key ends in a lower-case l, as the feature files spell it.
    setInactive(OPT_BKG_REMOVAL, usb && session->GetIntValue("BACKGROUNDREMOVAl") == 0);
    setInactive(OPT_RESET, usb);
    LOG_METHOD_END();
}

void UpdateOptions(ScanLib* session) {
    LOG_METHOD_START();
    // Storing the resolution again makes the option store recompute what
    // depends on it.
    session->SetIntValue("CURRENTDPI", session->GetIntValue("CURRENTDPI"));
    LOG_METHOD_END();
}

int search_string_list(const SANE_String_Const* list, const char* text) {
    if (text == nullptr) return -1;
    int n = listLength(list);
    for (int i = 0; i < n; ++i)
        if (strcmp(list[i], text) == 0) return i;
    return -1;
}

SANE_Status CheckValue(const SANE_Option_Descriptor* opt, void* value, SANE_Int* info) {
    if (opt == nullptr) return SANE_STATUS_INVAL;
    switch (opt->constraint_type) {
        case SANE_CONSTRAINT_WORD_LIST: {
            if (value == nullptr || opt->constraint.word_list == nullptr) return SANE_STATUS_INVAL;
            const SANE_Word* words = opt->constraint.word_list;
            const SANE_Word v = *static_cast<SANE_Word*>(value);
            const int n = std::min<int>(words[0], MAX_RESOLUTIONS);
            for (int i = 1; i <= n; ++i)
                if (words[i] == v) return SANE_STATUS_GOOD;
            return SANE_STATUS_INVAL;
        }
        case SANE_CONSTRAINT_RANGE: {
            if (value == nullptr || opt->constraint.range == nullptr) return SANE_STATUS_INVAL;
            SANE_Word* v = static_cast<SANE_Word*>(value);
            const SANE_Range* range = opt->constraint.range;
            // Clamped to the range; the step is not applied.
            if (*v < range->min) {
                *v = range->min;
                if (info != nullptr) *info |= SANE_INFO_INEXACT;
            } else if (*v > range->max) {
                *v = range->max;
                if (info != nullptr) *info |= SANE_INFO_INEXACT;
            }
            return SANE_STATUS_GOOD;
        }
        case SANE_CONSTRAINT_STRING_LIST: {
            if (value == nullptr) return SANE_STATUS_INVAL;
            const std::string text(static_cast<const char*>(value),
                                   strnlen(static_cast<const char*>(value), (size_t)std::max(opt->size, 0)));
            return search_string_list(opt->constraint.string_list, text.c_str()) >= 0 ? SANE_STATUS_GOOD
                                                                                      : SANE_STATUS_INVAL;
        }
        default:
            return SANE_STATUS_GOOD;
    }
}

// ---------------------------------------------------------------------------
// Option control
// ---------------------------------------------------------------------------

namespace {

// A string option's value from the front end: at most the option's size bytes,
// whether or not a NUL comes within them.
std::string readString(int n, const void* value) {
    const char* text = static_cast<const char*>(value);
    return std::string(text, strnlen(text, (size_t)std::max(m_opt[n].size, 0)));
}

// Writes a string option's value: at most the option's size, NUL included.
void writeString(int n, void* value, const char* text) {
    copyText(static_cast<char*>(value), (size_t)std::max(m_opt[n].size, 0), text);
}

void writeListEntry(int n, void* value, int index) {
    writeString(n, value, listEntry(m_opt[n].constraint.string_list, index));
}

SANE_Word& word(void* value) { return *static_cast<SANE_Word*>(value); }

// The login name of the calling user, or "User1" when it is not known.
std::string loginName() {
    std::vector<char> buf(16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
        found->pw_name != nullptr)
        return found->pw_name;
    return "User1";
}

void applyModeDependencies(ScanLib* s) {
    const int depth = s->GetIntValue("COLORDEPTH");
    setInactive(OPT_CONTRAST, depth == DEPTH_LINEART);
    setInactive(OPT_COLOR_DROPOUT, false);
    setInactive(OPT_COLOR_DROPOUT_THRESHOLD, false);
    setInactive(OPT_NEGATIVE_IMAGE, false);
    if (depth == DEPTH_COLOR) {
        setInactive(OPT_COLOR_DROPOUT, true);
        setInactive(OPT_COLOR_DROPOUT_THRESHOLD, true);
    } else if (s->GetIntValue("COLORDROPOUT") != 0) {
        setInactive(OPT_NEGATIVE_IMAGE, true);
    } else {
        setInactive(OPT_COLOR_DROPOUT_THRESHOLD, true);
    }
}

void applyColorDropoutDependencies(ScanLib* s) {
    setInactive(OPT_COLOR_DROPOUT_THRESHOLD, false);
    setInactive(OPT_NEGATIVE_IMAGE, false);
    if (s->GetIntValue("COLORDROPOUT") != 0)
        setInactive(OPT_NEGATIVE_IMAGE, true);
    else
        setInactive(OPT_COLOR_DROPOUT_THRESHOLD, true);
}

// How an option's value crosses the interface and which store key holds it.
enum ValueKind {
    KIND_NONE,    // no value (groups, "interface")
    KIND_COUNT,   // the number of options, read-only
    KIND_TEXT,    // a string, stored as it is
    KIND_INT,     // a word, stored as it is
    KIND_LIST,    // the text of a list entry, stored as its index
    KIND_FIXED,   // 16.16 fixed point, stored as a whole number
    KIND_BOOL,    // stored as given, read back shifted like FIXED
    KIND_BUTTON   // no value
};

struct OptionKey {
    ValueKind kind;
    const char* key;
};

const OptionKey OPTION_KEYS[QUARTO_NUM_OPTIONS] = {
    {KIND_COUNT, nullptr},        {KIND_NONE, nullptr},        {KIND_TEXT, "IPADDRESS"},
    {KIND_NONE, nullptr},         {KIND_NONE, nullptr},        {KIND_TEXT, "USERNAME"},
    {KIND_TEXT, "PROFILENAME"},   {KIND_NONE, nullptr},        {KIND_LIST, "CONTENTTYPE"},
    {KIND_INT, "CURRENTDPI"},     {KIND_LIST, "COLORDEPTH"},   {KIND_LIST, "DOCUMENTSOURCE"},
    {KIND_LIST, "ORIGINALSIZE"},  {KIND_LIST, "ORIENTATION"},  {KIND_BOOL, "SCANBOTHSIDES"},
    {KIND_BOOL, "SCAN_NOW"},      {KIND_LIST, "SCAN_SOURCE"},  {KIND_NONE, nullptr},
    {KIND_FIXED, "BRIGHTNESS"},   {KIND_FIXED, "CONTRAST"},    {KIND_NONE, nullptr},
    {KIND_BOOL, "MIRRORIMAGE"},   {KIND_BOOL, "NEGATIVEIMAGE"}, {KIND_LIST, "COLORDROPOUT"},
    {KIND_FIXED, "COLORDROPOUTTHRESHOLD"}, {KIND_LIST, "BKGREMOVAL"}, {KIND_BUTTON, nullptr}};

// Background removal is a list or a FIXED range, as its descriptor says.
ValueKind valueKind(int n) {
    if (n == OPT_BKG_REMOVAL && m_opt[n].constraint_type != SANE_CONSTRAINT_STRING_LIST) return KIND_FIXED;
    return OPTION_KEYS[n].kind;
}

SANE_Status getOption(ScanLib* s, int n, void* value) {
    const char* key = OPTION_KEYS[n].key;
    switch (valueKind(n)) {
        case KIND_COUNT:
            word(value) = QUARTO_NUM_OPTIONS;
            break;
        case KIND_TEXT: {
            const char* text = s->GetStringValue(key);
            if (n == OPT_IP_ADDRESS && iPseudo != 1) {
                LOG_DEBUG("option: OPT_IP_ADDRESS; not supported for this type of device");
            } else if (n == OPT_USER_NAME && text != nullptr && strcmp(text, "current") == 0) {
                writeString(n, value, loginName().c_str());
            } else {
                writeString(n, value, text);
            }
            break;
        }
        case KIND_INT:
            word(value) = s->GetIntValue(key);
            break;
        case KIND_LIST:
            if (n == OPT_DOC_SOURCE && (m_opt[n].cap & SANE_CAP_INACTIVE)) {
                LOG_DEBUG("OPT_DOC_SOURCE is deactivated");
            } else if (n == OPT_SOURCE) {
                writeListEntry(n, value, s->GetIntValue(key) == SOURCE_ADF ? 1 : 0);
            } else {
                writeListEntry(n, value, s->GetIntValue(key));
            }
            break;
        // The BOOL options read back shifted like FIXED values (1 reads as
        // 65536) although they are stored as given: intended.
        case KIND_FIXED:
        case KIND_BOOL:
            word(value) = toFixed(s->GetIntValue(key));
            break;
        case KIND_BUTTON:
            break;
        default:
            LOG_DEBUG("unknown option");
            return SANE_STATUS_INVAL;
    }
    return SANE_STATUS_GOOD;
}

void resetImagingOptions(ScanLib* s) {
    s->SetIntValue("BKGREMOVAL", 0);
    s->SetIntValue("MIRRORIMAGE", 0);
    s->SetIntValue("NEGATIVEIMAGE", 0);
    s->SetIntValue("COLORDROPOUT", 0);
    s->SetIntValue("COLORDROPOUTTHRESHOLD", DEFAULT_DROPOUT_THRESHOLD);
    setInactive(OPT_NEGATIVE_IMAGE, false);
    setInactive(OPT_COLOR_DROPOUT_THRESHOLD, true);
}

// Stores the value; false when it is refused.
bool storeOption(ScanLib* s, int n, void* value, int index) {
    const char* key = OPTION_KEYS[n].key;
    switch (valueKind(n)) {
        case KIND_TEXT: {
            const std::string text = readString(n, value);
            if (n == OPT_IP_ADDRESS) {
                if (iPseudo == 1)
                    s->SetStringValue(key, text.c_str());
                else
                    LOG_DEBUG("option: OPT_IP_ADDRESS; not supported for this type of device");
                return true;
            }
            if (!ScanLib::isValidName(text.c_str())) {
                LOG_DEBUG("invalid name %s", text.c_str());
                return false;
            }
            s->SetStringValue(key, text.c_str());
            return true;
        }
        case KIND_LIST:
            if (n == OPT_COLOR_DROPOUT && iUsb != 0) return true;  // not offered over USB
            // The position in the list offered is what is stored (for "mode" the
            // position in the device's list).
            s->SetIntValue(key, n == OPT_SOURCE ? (index != 0 ? SOURCE_ADF : 0) : index);
            return true;
        case KIND_INT:
        case KIND_BOOL:
            s->SetIntValue(key, word(value));
            return true;
        case KIND_FIXED:
            s->SetIntValue(key, fromFixed(word(value)));
            return true;
        case KIND_COUNT:
            return true;
        case KIND_BUTTON:
            if (iUsb == 0) resetImagingOptions(s);
            return true;
        default:
            LOG_DEBUG("unknown option");
            return false;
    }
}

// What a stored value changes beyond its key, as SANE info bits.
SANE_Int applyOption(ScanLib* s, int n, int index) {
    switch (n) {
        case OPT_RESOLUTION:
            iDpi = s->GetIntValue("CURRENTDPI");
            return SANE_INFO_RELOAD_PARAMS;
        case OPT_MODE:
            if (iUsb == 0) applyModeDependencies(s);
            return RELOAD_ALL;
        case OPT_ORIGINAL_SIZE:
            if (iUsb != 0) storePageArea(s, index);
            return RELOAD_ALL;
        case OPT_SOURCE:
            if (iUsb != 0 && s->GetIntValue("BOXKIND") == BOXKIND_ISD) {
                LOG_DEBUG("indicating to SANE frontend to reload options and reload params");
                return RELOAD_ALL;
            }
            LOG_DEBUG("NOT indicating to SANE frontend to reload options and reload params");
            return 0;
        case OPT_COLOR_DROPOUT:
            if (iUsb != 0) return 0;
            applyColorDropoutDependencies(s);
            return RELOAD_ALL;
        case OPT_RESET:
            return iUsb == 0 ? RELOAD_ALL : 0;
        default:
            return 0;
    }
}

SANE_Status setOption(ScanLib* s, int n, void* value, int index, SANE_Int* info) {
    if (!storeOption(s, n, value, index)) return SANE_STATUS_INVAL;
    const SANE_Int flags = applyOption(s, n, index);
    if (info != nullptr) *info |= flags;
    return SANE_STATUS_GOOD;
}

}  // namespace

SANE_Status sane_ScanLib_open(SANE_String_Const devicename, SANE_Handle* handle) {
    SANEIF_START();
    iUsb = 0;
    iPseudo = 0;
    if (devicename == nullptr || handle == nullptr) {
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    // The device list turned ':' into '/'; the session wants the raw form back.
    std::string name = devicename;
    std::replace(name.begin(), name.end(), '/', ':');
    if (name.find("libusb") != std::string::npos)
        iUsb = 1;
    else if (name.find("SPECIFY_DEVICE") != std::string::npos)
        iPseudo = 1;

    std::unique_ptr<ScanLib> session(new ScanLib());
    const int status = session->Open(name.c_str());
    if (status == SL_STATUS_GOOD) {
        GetListValues(session.get());
        InitOptions(session.get());
        iDpi = session->GetIntValue("CURRENTDPI");
        if (iUsb == 1) {
            const int size = session->GetIntValue("ORIGINALSIZE");
            session->SetDoubleValue("CURRENTBRX", currentBrx(size));
            session->SetDoubleValue("CURRENTBRY", currentBry(size));
        }
        session->SetIntValue("CONNECTION", iUsb == 1 ? 1 : 0);
        *handle = session.get();
        g_openSessions.insert(session.release());
    }
    // A session whose Open failed is released here; the handle stays unwritten.
    SANEIF_END();
    return (SANE_Status)status;
}

void sane_ScanLib_close(SANE_Handle handle) {
    SANEIF_START();
    ScanLib* session = liveSession(handle);
    if (session != nullptr) {
        session->CancelAndFlush();
        g_openSessions.erase(session);
        delete session;
    }
    SANEIF_END();
}

const SANE_Option_Descriptor* sane_ScanLib_get_option_descriptor(SANE_Handle handle, SANE_Int n) {
    SANEIF_START();
    if (n < 0 || n >= QUARTO_NUM_OPTIONS) {
        SANEIF_END();
        return nullptr;
    }
    ScanLib* s = liveSession(handle);
    if (s != nullptr && iUsb == 1 && s->GetIntValue("BOXKIND") == BOXKIND_ISD) {
        if (s->GetIntValue("SCAN_SOURCE") != SOURCE_ADF) {
            pPageSizes = &isd_flatbed_page_sizes;
        } else {
            pPageSizes = &isd_adf_page_sizes;
            if (s->GetIntValue("ORIGINALSIZE") > ISD_ADF_LAST_SIZE) {
                s->SetIntValue("ORIGINALSIZE", 0);
                storePageArea(s, 0);
            }
        }
        m_opt[OPT_ORIGINAL_SIZE].constraint.string_list = pPageSizes->names;
    }
    SANEIF_END();
    return &m_opt[n];
}

SANE_Status sane_ScanLib_control_option(SANE_Handle handle, SANE_Int n, SANE_Action action, void* value,
                                        SANE_Int* info) {
    SANEIF_START();
    LOG_DEBUG("option number: %d; action: %d", n, (int)action);
    const bool inRange = n >= 0 && n < QUARTO_NUM_OPTIONS;
    if (value == nullptr && !(inRange && m_opt[n].type == SANE_TYPE_BUTTON)) {
        LOG_DEBUG("either value is null or option type is SANE_TYPE_BUTTON");
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    if (info != nullptr) *info = 0;
    if (!inRange) {
        LOG_DEBUG("option number falls outside valid range");
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    if (m_opt[n].type == SANE_TYPE_GROUP) {
        LOG_DEBUG("option type is SANE_TYPE_GROUP");
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    ScanLib* s = liveSession(handle);
    if (s == nullptr) {
        LOG_DEBUG("no open session for this handle");
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }

    SANE_Status status = SANE_STATUS_GOOD;
    if (action == SANE_ACTION_GET_VALUE) {
        LOG_DEBUG("action is SANE_ACTION_GET_VALUE");
        status = getOption(s, n, value);
    } else if (action == SANE_ACTION_SET_VALUE) {
        // A list value is looked up here, where its position is needed; the
        // other constraints are checked (and a range clamped) by CheckValue.
        int index = 0;
        if (m_opt[n].constraint_type == SANE_CONSTRAINT_STRING_LIST) {
            index = search_string_list(m_opt[n].constraint.string_list, readString(n, value).c_str());
            if (index < 0) status = SANE_STATUS_INVAL;
        } else {
            status = CheckValue(&m_opt[n], value, info);
        }
        if (status == SANE_STATUS_GOOD) status = setOption(s, n, value, index, info);
    } else if (action == SANE_ACTION_SET_AUTO) {
        const SANE_Int cap = m_opt[n].cap;
        status = ((cap & SANE_CAP_SOFT_SELECT) && (cap & SANE_CAP_AUTOMATIC)) ? SANE_STATUS_GOOD : SANE_STATUS_INVAL;
    }
    SANEIF_END();
    return status;
}

// Format, depth and bytes per line of a frame of the given colour depth; any
// depth other than grey and colour is line art with the bytes given.
static void setFrameFormat(SANE_Parameters* params, int depth, int lineArtBytes) {
    params->format = depth == DEPTH_COLOR ? SANE_FRAME_RGB : SANE_FRAME_GRAY;
    params->depth = (depth == DEPTH_GRAY || depth == DEPTH_COLOR) ? 8 : 1;
    if (depth == DEPTH_GRAY)
        params->bytes_per_line = params->pixels_per_line;
    else if (depth == DEPTH_COLOR)
        params->bytes_per_line = 3 * params->pixels_per_line;
    else
        params->bytes_per_line = lineArtBytes;
}

SANE_Status sane_ScanLib_get_parameters(SANE_Handle handle, SANE_Parameters* params) {
    SANEIF_START();
    ScanLib* s = liveSession(handle);
    if (s == nullptr || params == nullptr) {
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    const int depth = s->GetIntValue("COLORDEPTH");
    LOG_DEBUG("color depth from device %d", depth);
    UpdateOptions(s);
    if (iUsb != 0) {
        LOG_DEBUG("SaneInterface::get_params USB");
        // The geometry is computed at the resolution the scan will use.
        s->SetIntValue("CURRENTDPI", s->GetIntValue("PREVIEW") == 1 ? PREVIEW_DPI : iDpi);
        params->pixels_per_line = s->GetIntValue("PIXELS_PER_LINE");
        params->lines = s->GetIntValue("LINES");
        // Line art rounds up to whole bytes; another depth leaves the frame
        // format unwritten.
        if (depth == DEPTH_LINEART || depth == DEPTH_GRAY || depth == DEPTH_COLOR)
            setFrameFormat(params, depth, (params->pixels_per_line + 7) / 8);
        s->SetIntValue("CURRENTDPI", iDpi);
    } else {
        LOG_DEBUG("SaneInterface::get_params Network");
        const int interHeight = s->GetIntValue("INTER_HEIGHT");
        const int interWidth = s->GetIntValue("INTER_WIDTH");
        if (interHeight != 0 && interWidth != 0) {
            params->pixels_per_line = interWidth;
            params->lines = interHeight;
        } else {
            params->pixels_per_line = s->GetIntValue("SCANWIDTH");
            params->lines = s->GetIntValue("LINES");
        }
        // Line art (any depth other than grey and colour) rounds down, unlike
        // USB: the network image width is a multiple of 8. Intended.
        setFrameFormat(params, depth, params->pixels_per_line / 8);
    }
    params->last_frame = SANE_TRUE;
    LOG_DEBUG("dump in para bytes %d", s->GetIntValue("BYTES_PER_LINE"));
    LOG_DEBUG("dump in para lines %d", s->GetIntValue("LINES"));
    LOG_DEBUG("dump in para pixels %d", s->GetIntValue("PIXELS_PER_LINE"));
    LOG_DEBUG("dump in para dpi %d", s->GetIntValue("CURRENTDPI"));
    LOG_DEBUG("params pixel is %d", params->pixels_per_line);
    LOG_DEBUG("params lines is %d", params->lines);
    LOG_DEBUG("params bytes is %d", params->bytes_per_line);
    SANEIF_END();
    return SANE_STATUS_GOOD;
}

SANE_Status sane_ScanLib_start(SANE_Handle handle) {
    SANEIF_START();
    ScanLib* s = liveSession(handle);
    if (s == nullptr) {
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    UpdateOptions(s);
    const char* ip = s->GetStringValue("IPADDRESS");
    LOG_DEBUG("IP Address: %s", ip ? ip : "");
    const int status = s->Start();
    LOG_DEBUG("ScanLib start status: %d", status);
    if (status != SL_STATUS_GOOD) {
        LOG_DEBUG("ScanLib start failed");
        // A failed start must not leave the resolution the start adjusted.
        if (s->GetIntValue("CURRENTDPI") != iDpi) {
            s->SetIntValue("CURRENTDPI", iDpi);
            UpdateOptions(s);
        }
    } else {
        LOG_DEBUG("ScanLib start succeeded");
    }
    SANEIF_END();
    return (SANE_Status)status;
}

SANE_Status sane_ScanLib_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length) {
    SANEIF_START();
    if (length != nullptr) *length = 0;
    ScanLib* s = liveSession(handle);
    if (s == nullptr || data == nullptr || length == nullptr || max_length < 0) {
        SANEIF_END();
        return SANE_STATUS_INVAL;
    }
    LOG_DEBUG("max bytes: %d", max_length);
    const int status = s->AcquireImage(data, max_length, length);
    LOG_DEBUG("ret: %d; bytes read: %d", status, *length);
    SANEIF_END();
    return (SANE_Status)status;
}

void sane_ScanLib_cancel(SANE_Handle handle) {
    SANEIF_START();
    ScanLib* s = liveSession(handle);
    if (s != nullptr) s->CancelAndFlush();
    SANEIF_END();
}

SANE_Status sane_ScanLib_set_io_mode(SANE_Handle, SANE_Bool) {
    SANEIF_START();
    SANEIF_END();
    return SANE_STATUS_UNSUPPORTED;
}

SANE_Status sane_ScanLib_get_select_fd(SANE_Handle, SANE_Int*) {
    SANEIF_START();
    SANEIF_END();
    return SANE_STATUS_UNSUPPORTED;
}
