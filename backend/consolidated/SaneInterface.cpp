#include "SaneInterface.h"

#include <cstdlib>
#include <cstring>

#include "CLogger.h"
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
        // Split in place at every '/': vendor, model, name; a fourth piece and any
        // further ones are dropped, so libnet:A/B keeps only libnet:A (intended).
        char* pieces[3] = {nullptr, nullptr, nullptr};
        int n = 0;
        char* save = nullptr;
        for (char* tok = raw ? strtok_r(raw, "/", &save) : nullptr; tok != nullptr && n < 3;
             tok = strtok_r(nullptr, "/", &save))
            pieces[n++] = tok;
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

SANE_Status sane_ScanLib_open(SANE_String_Const, SANE_Handle*) {
    SANEIF_START();
    (void)iUsb;
    (void)iPseudo;
    (void)iDpi;
    SANEIF_END();
    return SANE_STATUS_UNSUPPORTED;
}

void sane_ScanLib_close(SANE_Handle) {
    SANEIF_START();
    SANEIF_END();
}

const SANE_Option_Descriptor* sane_ScanLib_get_option_descriptor(SANE_Handle, SANE_Int n) {
    SANEIF_START();
    if (n < 0 || n >= QUARTO_NUM_OPTIONS) return nullptr;
    SANEIF_END();
    return &m_opt[n];
}

SANE_Status sane_ScanLib_control_option(SANE_Handle, SANE_Int, SANE_Action, void*, SANE_Int*) {
    return SANE_STATUS_UNSUPPORTED;
}

SANE_Status sane_ScanLib_get_parameters(SANE_Handle, SANE_Parameters*) { return SANE_STATUS_UNSUPPORTED; }

SANE_Status sane_ScanLib_start(SANE_Handle) { return SANE_STATUS_UNSUPPORTED; }

SANE_Status sane_ScanLib_read(SANE_Handle, SANE_Byte*, SANE_Int, SANE_Int* length) {
    if (length != nullptr) *length = 0;
    return SANE_STATUS_UNSUPPORTED;
}

void sane_ScanLib_cancel(SANE_Handle) {}

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
