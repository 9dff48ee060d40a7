#include "ScanLib.h"

#include <execinfo.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "CProps.h"
#include "CResponse.h"
#include "CScanRes.h"
#include "CSources.h"
#include "ConfigReader.h"
#include "DataBuffer.h"
#include "DeCompHandler.h"
#include "Device.h"
#include "FlatFileReader.h"
#include "ICommand.h"
#include "ICommunication.h"
#include "ImageData.h"
#include "InterleaveHandler.h"
#include "RawDataHandler.h"
#include "SaneConfReader.h"
#include "util.h"

namespace {
const char kDefaultConf[] = "/etc/sane.d/Tarvesk_1_0_0.conf";
const char kEtcDir[] = "/etc/sane.d/";

// Device reply status bytes (byte 6 of a reply) that MapToSLSTATUS tells apart.
const int DEV_STATUS_GOOD = 128;
const int DEV_STATUS_INVALID = 129;
const int DEV_STATUS_BUSY = 130;
const int DEV_STATUS_BUSY_OTHER = 131;
const int DEV_STATUS_IO_FIRST = 132;
const int DEV_STATUS_IO_LAST = 134;
const int DEV_STATUS_GOOD_OTHER = 135;
const int DEV_STATUS_LOCKED = 136;
const int DEV_STATUS_NO_MEM = 137;

// Document feeder states of a status reply (byte 7).
const int ADF_STATUS_NONE = 0;
const int ADF_STATUS_EMPTY = 1;
const int ADF_STATUS_LOADED = 2;

// Transport results of ReadImage that AcquireImage tells apart.
const int READ_END_OF_IMAGE = 1;
const int READ_NO_MEMORY = 2;
const int READ_ABORTED = 3;
const int READ_USB_ERROR = 4;
const int READ_PAPER_JAM = 5;
const int READ_FAILED = 15;
const int READ_CONTINUE = 18;

const int SCAN_SOURCE_FLATBED = 0;
const int SCAN_SOURCE_ADF = 1;

const int SCANNER_TYPE_FLATBED = 1;
const int SCANNER_TYPE_ADF_EDGE = 2;
const int SCANNER_TYPE_ADF_CENTER = 3;
const int SOURCE_TYPE_FLATBED = 1;
const int SOURCE_TYPE_ADF_EDGE = 2;

// Device limits come in 1/1200 inch.
const double DEVICE_UNITS_PER_INCH = 1200.0;
// Smallest scan edge in millimetres; 0.005 is added to an edge before the test.
const double MIN_SCAN_EDGE_MM = 25.4;
const double EDGE_ROUNDING_MM = 0.005;
// A 216 mm wide area is narrowed by a millimetre at 300 dpi and above.
const double FULL_WIDTH_MM = 216.0;
const double NARROWED_WIDTH_MM = 215.0;
const int NARROWING_MIN_DPI = 300;

// Draining the device after an abort.
const int CONSUME_CHUNK = 8192;
const long CONSUME_TIMEOUT_MS = 5000;
// Upper bound of chunks drained after an abort (512 MiB), so that a device
// that never stops sending cannot hold the caller forever.
const int CONSUME_MAX_CHUNKS = 65536;

// Resolutions offered when the device sends no properties (a network device).
const int DEFAULT_RESOLUTIONS[] = {75, 150, 200, 300, 400, 600};

const int NETWORK_ID = 0xFFFF;
const int CONF_NAME_LEN = 128;

const char* statusName(int status) {
    switch (status) {
    case SL_STATUS_GOOD: return "SL_STATUS_GOOD";
    case SL_STATUS_UNSUPPORTED: return "SL_STATUS_UNSUPPORTED";
    case SL_STATUS_CANCELLED: return "SL_STATUS_CANCELLED";
    case SL_STATUS_DEVICE_BUSY: return "SL_STATUS_DEVICE_BUSY";
    case SL_STATUS_INVAL: return "SL_STATUS_INVAL";
    case SL_STATUS_EOF: return "SL_STATUS_EOF";
    case SL_STATUS_JAMMED: return "SL_STATUS_JAMMED";
    case SL_STATUS_NO_DOCS: return "SL_STATUS_NO_DOCS";
    case SL_STATUS_IO_ERROR: return "SL_STATUS_IO_ERROR";
    case SL_STATUS_NO_MEM: return "SL_STATUS_NO_MEM";
    case SL_STATUS_CONF_NOT_LOADED: return "SL_STATUS_CONF_NOT_LOADED";
    default: return "SL_STATUS_UNKNOWN";
    }
}

std::string indexedKey(const char* prefix, int n) { return prefix + std::to_string(n); }

const char* strcasestrPortable(const char* hay, const char* needle) {
    size_t n = strlen(needle);
    for (const char* p = hay; *p; ++p)
        if (strncasecmp(p, needle, n) == 0) return p;
    return nullptr;
}
}  // namespace

void ScanLib::GetBackendName(char* buffer, int size) {
    void* frames[10];
    int n = backtrace(frames, 10);
    char** symbols = backtrace_symbols(frames, n);
    if (symbols == nullptr) {
        if (buffer && size > 0) buffer[0] = '\0';
        return;
    }
    int matched = -1;
    for (int i = 0; i < n; ++i) {
        if (strcasestrPortable(symbols[i], "libsane-") != nullptr) {
            matched = i;
            break;
        }
        // Clears as many bytes as frames were taken, not the buffer size: kept so
        // (bounded by the buffer here).
        if (buffer) memset(buffer, 0, (size_t)(n < size ? n : size));
    }
    if (matched >= 0 && buffer != nullptr && size > 0) {
        std::string frame = symbols[matched];
        std::string component;
        size_t start = 0;
        while (start <= frame.size()) {
            size_t slash = frame.find('/', start);
            std::string part = frame.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
            if (strcasestrPortable(part.c_str(), "libsane-") != nullptr) {
                component = part;
                break;
            }
            if (slash == std::string::npos) break;
            start = slash + 1;
        }
        size_t dash = component.find('-');
        std::string name = dash == std::string::npos ? std::string() : component.substr(dash + 1);
        size_t dot = name.find('.');
        if (dot != std::string::npos) name.resize(dot);
        snprintf(buffer, (size_t)size, "%s%s.conf", kEtcDir, name.c_str());
    }
    free(symbols);
}

std::string ScanLib::ResolveConfFile(const char* etcPath) {
    std::string path = etcPath ? etcPath : "";
    const char* dirs = getenv("SANE_CONFIG_DIR");
    if (dirs == nullptr || path.compare(0, strlen(kEtcDir), kEtcDir) != 0) return path;
    std::string base = path.substr(strlen(kEtcDir));
    std::string all = dirs;
    size_t start = 0;
    while (start <= all.size()) {
        size_t colon = all.find(':', start);
        std::string dir = all.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (!dir.empty()) {
            std::string candidate = dir + "/" + base;
            struct stat st;
            if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return candidate;
        }
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    return path;
}

int ScanLib::GetScanners(char*** list, int* count) {
    // A static member has no logger of its own: log through the thread's.
    auto logSelf = []() -> CLogger& { return ::logSelf(); };
    LOG_METHOD_START();
    std::unique_ptr<SaneConfReader> reader(new (std::nothrow) SaneConfReader());
    if (!reader) return 1;
    char buffer[128];
    memset(buffer, 0, sizeof(buffer));
    GetBackendName(buffer, sizeof(buffer));
    std::string file = ResolveConfFile(buffer[0] == '\0' ? kDefaultConf : buffer);
    if (reader->LoadConf(file.c_str()) != 1) {
        LOG_DEBUG("unable to load configuration file %s", file.c_str());
        LOG_METHOD_END_INT(17);
        return 17;
    }
    int rc = Device::getScanners(list, count, reader.get());
    LOG_METHOD_END_INT(rc);
    return rc;
}

// Logs the status of an exit by its name, then the method end, and returns it.
#define SL_RETURN(s)                                            \
    do {                                                        \
        const int st_ = (s);                                    \
        LOG_DEBUG("return status: %s", statusName(st_));        \
        LOG_METHOD_END_INT(st_);                                \
        return st_;                                             \
    } while (0)

ScanLib::ScanLib() = default;

ScanLib::~ScanLib() {
    releaseAll();
    // The document-type names belong to the option table of this session only.
    ClearSupportedOriginalTypes();
}

void ScanLib::releaseAll() {
    // The transport goes first: closing the device still reads the option store
    // and the transport holds the command object.
    pComm.reset();
    pCfgReader.reset();
    Buffer.reset();
    MyDecompressor.reset();
    pCmd.reset();
    Image.reset();
    ImageHandler.reset();
    Interleaver.reset();
    pSaneConfReader.reset();
    Demon.init(nullptr, nullptr);
}

void ScanLib::installCommand() {
    if (!pCmd || !pComm) return;
    pCmd->setConfigReader(pCfgReader.get());
    if (pComm->setCommand(pCmd.get()) == COMM_STATUS_INVALID_ARG) LOG_ERROR("unable to set command object");
}

int ScanLib::Open(const char* name) {
    LOG_METHOD_START();
    LOG_DEBUG("device name: %s", name ? name : "NULL");
    AcquireImageStatus = SL_STATUS_GOOD;
    ScanInProgress = 0;
    int status = openSteps(name);
    // A session that did not open holds nothing: the device is closed by the
    // transport's destructor and every object made so far is released.
    if (status != SL_STATUS_GOOD) releaseAll();
    SL_RETURN(status);
}

int ScanLib::openSteps(const char* name) {
    char backend[CONF_NAME_LEN];
    memset(backend, 0, sizeof(backend));
    GetBackendName(backend, sizeof(backend));
    std::string confFile = ResolveConfFile(backend);
    pSaneConfReader.reset(new SaneConfReader());
    if (pSaneConfReader->LoadConf(confFile.c_str()) != 1) {
        LOG_ERROR("unable to load backend configuration file [%s]", confFile.c_str());
        return SL_STATUS_UNSUPPORTED;
    }
    LOG_DEBUG("Backend filename = %s", confFile.c_str());
    if (AcquireImageStatus == SL_STATUS_CANCELLED) return SL_STATUS_CANCELLED;

    pComm.reset(Device::CreateInstance(name, pSaneConfReader.get()));
    if (!pComm) return SL_STATUS_DEVICE_BUSY;
    if (AcquireImageStatus == SL_STATUS_CANCELLED) return SL_STATUS_CANCELLED;

    int vid = NETWORK_ID;
    int pid = NETWORK_ID;
    if (pComm->isLocal() == 1) {
        if (pComm->openDevice() == COMM_STATUS_OPEN_FAILED) return SL_STATUS_DEVICE_BUSY;
        vid = pComm->getVid();
        pid = pComm->getPid();
    }
    if (closedOnCancel()) return SL_STATUS_CANCELLED;

    LOG_DEBUG("vid is %X, pid is %X", vid, pid);
    pCfgReader.reset(new FlatFileReader());
    const char* featureFile = pSaneConfReader->GetFeatureFile(vid, pid);
    if (featureFile == nullptr || pCfgReader->LoadConfig(featureFile) != 1) {
        LOG_ERROR("unable to load feature file [%s]", featureFile ? featureFile : "NULL");
        return SL_STATUS_UNSUPPORTED;
    }
    pComm->setConfigReader(pCfgReader.get());
    if (closedOnCancel()) return SL_STATUS_CANCELLED;

    Image.reset(new ImageData());
    Buffer.reset(new DataBuffer());
    pCmd.reset(ICommand::createCmdInstance(GetIntValue("COMMANDVERSION"), pComm->isLocal(), GetIntValue("BOXKIND")));
    pCmd->setNpa(GetIntValue("ENABLE_NPA"));
    installCommand();

    int consume = GetIntValue("USB_CONSUME_FLAG");
    LOG_DEBUG("consume flag: %d", consume);
    if (consume == 1) {
        // Drains what an interrupted earlier session left in the device and
        // releases a lock it may still hold.
        LOG_DEBUG("pre-consuming pending data...");
        pComm->clear();
        LOG_DEBUG("done pre-consuming pending data");
        LOG_DEBUG("sending unlock...");
        Unlock();
        LOG_DEBUG("done sending unlock");
    }

    int version = GetIntValue("COMMANDVERSION");
    if (version == CMD_VERSION_402 || version == CMD_VERSION_500) {
        LOG_DEBUG("Attempting to wake scanner...");
        CResponse reply;
        if (pComm->writeCommand(CMD_ID_WAKE, &reply) != CMD_ID_WAKE) {
            LOG_ERROR("unable to wake scanner");
            return SL_STATUS_IO_ERROR;
        }
    } else {
        LOG_DEBUG("Wake up will not be sent since scanner does not support it");
    }

    LOG_DEBUG("loading device properties");
    LoadScanDeviceProperties();
    LoadScanSizes();
    installCommand();
    if (closedOnCancel()) return SL_STATUS_CANCELLED;

    MyDecompressor.reset(new DeCompHandler());
    Interleaver.reset(new InterleaveHandler());
    ImageHandler.reset(new RawDataHandler());
    ImageHandler->SetUp(pCfgReader.get());

    int resolutions = GetIntValue("RESOLUTIONS");
    LOG_DEBUG("number of resolutions found %d:", resolutions);
    if (resolutions <= 0) {
        // The text speaks of "1 or less" while the test is for none: kept so.
        LOG_ERROR("1 or less than 1 resolutions found.");
        return SL_STATUS_DEVICE_BUSY;
    }

    if (pComm->isLocal() != 1) {
        const char* ip = pComm->getIPAddress();
        if (ip == nullptr || ip[0] == '\0') {
            LOG_DEBUG("empty ip address");
        } else {
            LOG_DEBUG("setting ip address to [%s]", ip);
            SetStringValue("IPADDRESS", ip);
        }
    }

    Demon.init(pComm.get(), pCfgReader.get());
    Demon.start();  // its result does not decide the open
    return SL_STATUS_GOOD;
}

int ScanLib::Start() {
    LOG_METHOD_START();
    if (!pComm || !pCfgReader || !pCmd || !Image || !Buffer || !MyDecompressor) {
        LOG_ERROR("session is not open");
        SL_RETURN(SL_STATUS_INVAL);
    }
    if (!isValidName(GetStringValue("PROFILENAME"))) {
        LOG_ERROR("invalid profile name");
        SL_RETURN(SL_STATUS_INVAL);
    }
    if (!isValidName(GetStringValue("USERNAME"))) {
        LOG_ERROR("invalid user name");
        SL_RETURN(SL_STATUS_INVAL);
    }

    const char* ip = GetStringValue("IPADDRESS");
    pComm->setIPAddress(ip ? ip : "");
    // A cancel of the previous scan does not stop this one.
    if (CancelInProgress == 1) AcquireImageStatus = SL_STATUS_GOOD;
    installCommand();
    if (AcquireImageStatus == SL_STATUS_CANCELLED) SL_RETURN(SL_STATUS_CANCELLED);

    int r = pComm->openDevice();
    // A busy device at start is reported as cancelled: intended.
    if (r == COMM_STATUS_OPEN_FAILED) SL_RETURN(SL_STATUS_CANCELLED);
    const bool bypass = (r == COMM_STATUS_CACHED_PAGES);
    if (!bypass && pComm->isLocal() != 1) {
        // The network transport answers 19 once its page is at hand; without a
        // page there is nothing to lock or start, so its result ends the start.
        int s = NetworkOpenStatus(r);
        LOG_ERROR("network scan job not started: %d", r);
        SL_RETURN(s);
    }
    if (bypass) {
        LOG_DEBUG("Bypassing device communication activities...");
    } else {
        int s = lockAndStart();
        if (s != SL_STATUS_GOOD) SL_RETURN(s);
    }

    AcquireImageStatus = SL_STATUS_GOOD;
    ScanInProgress = 1;
    Buffer->Reset();
    MyDecompressor->Initialize(pCfgReader.get());
    installCommand();

    if (!bypass) {
        int s = pComm->readAndDecompressData();
        if (s != 0) {
            LOG_ERROR("Error Reading Wicket Data from Scanner: ret = %d", s);
            SL_RETURN(SL_STATUS_IO_ERROR);
        }
        if (pComm->consumeScannerData() != 0) {
            LOG_ERROR("Error consuming data from scanner");
            // A feeder job that broke off has ended on the device: the scanner
            // is unlocked now rather than at the next session's open.
            Unlock();
            SL_RETURN(SL_STATUS_IO_ERROR);
        }
    }
    LOG_DEBUG("All is well ret = %d", SL_STATUS_GOOD);
    SL_RETURN(SL_STATUS_GOOD);
}

bool ScanLib::closedOnCancel() {
    if (AcquireImageStatus != SL_STATUS_CANCELLED) return false;
    pComm->closeDevice();
    return true;
}

bool ScanLib::abortedOnCancel() {
    if (AcquireImageStatus != SL_STATUS_CANCELLED) return false;
    AbortScanOperation();
    return true;
}

// The device exchanges of Start between opening the device and reading:
// wake (402 only), settings check, LOCK and START.
int ScanLib::lockAndStart() {
    if (closedOnCancel()) return SL_STATUS_CANCELLED;
    // Only 402 is woken again here; Open also wakes 500.
    if (GetIntValue("COMMANDVERSION") == CMD_VERSION_402) {
        CResponse wake;
        if (pComm->writeCommand(CMD_ID_WAKE, &wake) != CMD_ID_WAKE) {
            LOG_ERROR("unable to wake scanner");
            return SL_STATUS_IO_ERROR;
        }
    }
    if (closedOnCancel()) return SL_STATUS_CANCELLED;
    int s = CheckScanSettings();
    if (s != 0) {
        LOG_ERROR("CheckScanSettings ret = %d", s);
        return s;
    }
    if (closedOnCancel()) return SL_STATUS_CANCELLED;

    LOG_DEBUG("Attempting to LOCK scanner...");
    CResponse lock;
    int w = pComm->writeCommand(CMD_ID_LOCK, &lock);
    if (w != CMD_ID_LOCK) {
        LOG_ERROR("WriteCmd Lock failed ret = %d", w);
        return SL_STATUS_IO_ERROR;
    }
    LOG_DEBUG("Checking scanner reply of LOCK scanner command...");
    s = MapToSLSTATUS(lock.getStatus(), CMD_ID_LOCK);
    if (s != SL_STATUS_GOOD) {
        LOG_ERROR("Lock failed ret = %d", s);
        return s;
    }
    if (abortedOnCancel()) return SL_STATUS_CANCELLED;

    CResponse start;
    w = pComm->writeCommand(CMD_ID_START, &start);
    if (w != CMD_ID_START) {
        LOG_ERROR("WriteCmd Start failed ret = %d", w);
        return SL_STATUS_IO_ERROR;
    }
    s = MapToSLSTATUS(start.getStatus(), CMD_ID_START);
    if (s != SL_STATUS_GOOD) {
        LOG_ERROR("Start failed ret = %d", s);
        LOG_ERROR("Aborting Scan...");
        AbortScanOperation();
        return s;
    }
    if (abortedOnCancel()) return SL_STATUS_CANCELLED;
    return SL_STATUS_GOOD;
}

int ScanLib::NetworkOpenStatus(int comm) {
    switch (comm) {
    case COMM_STATUS_NO_MORE_PAGES: return SL_STATUS_NO_DOCS;     // the multi-page job has ended
    case COMM_STATUS_INVALID_ARG: return SL_STATUS_INVAL;         // a value was refused, nothing ran
    default: return SL_STATUS_IO_ERROR;                           // the page could not be read or decoded
    }
}

int ScanLib::MapToSLSTATUS(int code, int command) {
    int status;
    if (code == DEV_STATUS_GOOD || code == DEV_STATUS_GOOD_OTHER) {
        status = SL_STATUS_GOOD;
    } else if (code == DEV_STATUS_INVALID) {
        status = SL_STATUS_INVAL;
    } else if (code == DEV_STATUS_BUSY || code == DEV_STATUS_BUSY_OTHER) {
        status = SL_STATUS_DEVICE_BUSY;
    } else if (code >= DEV_STATUS_IO_FIRST && code <= DEV_STATUS_IO_LAST) {
        status = SL_STATUS_IO_ERROR;
    } else if (code == DEV_STATUS_LOCKED) {
        status = command == CMD_ID_START  ? SL_STATUS_INVAL
                 : command == CMD_ID_LOCK ? SL_STATUS_DEVICE_BUSY
                                          : SL_STATUS_GOOD;
    } else if (code == DEV_STATUS_NO_MEM) {
        status = SL_STATUS_NO_MEM;
    } else {
        status = SL_STATUS_GOOD;
    }
    LOG_DEBUG("command: %d; code: %d;", command, status);
    return status;
}

int ScanLib::AcquireImage(unsigned char*, int* len) {
    if (len) *len = 0;
    return SL_STATUS_GOOD;
}

int ScanLib::AcquireImage(unsigned char* buf, int maxLen, int* len) {
    LOG_METHOD_START();
    if (len == nullptr) SL_RETURN(SL_STATUS_INVAL);
    *len = 0;
    int result = SL_STATUS_GOOD;
    LOG_DEBUG("==============================%d", AcquireImageStatus);
    if (AcquireImageStatus != SL_STATUS_GOOD) {
        LOG_DEBUG("AcquireImage() is not okay to proceed");
        if (AcquireImageStatus == SL_STATUS_CANCELLED) {
            LOG_DEBUG("Scan operation has been explicitly cancelled; AcquireImage() is to stop operation.");
            AbortScanOperation();
        } else if (AcquireImageStatus == SL_STATUS_EOF && Image && Image->GetProcessedDataSize() > 0) {
            // Lines finished together with the end of the image that did not fit
            // into the last buffer are handed out before the end is reported.
            *len = Image->GetProcessedData(buf, maxLen);
            if (*len > 0) SL_RETURN(SL_STATUS_GOOD);
        }
        SL_RETURN(AcquireImageStatus);
    }
    if (!pComm || !Image || !Buffer || !MyDecompressor || !Interleaver || !ImageHandler) {
        LOG_ERROR("session is not open");
        SL_RETURN(SL_STATUS_INVAL);
    }

    int processed = Image->GetProcessedDataSize();
    long long needed = (long long)maxLen - processed;
    LOG_DEBUG("bytes processed: %d; bytes needed: %lld; max length: %d;", processed, needed, maxLen);
    if (needed > 0) {
        // Whole lines of raw data are read, however little was asked for.
        long long stride = Image->GetStride();
        if (stride > needed) {
            needed = stride - Image->GetRawDataSize();
        } else {
            if (stride > 0 && needed % stride > 0) needed += stride - needed % stride;
            needed -= Image->GetRawDataSize();
        }
    }

    while (needed >= 1) {
        if (AcquireImageStatus == SL_STATUS_CANCELLED) return cancelledRead();
        LOG_DEBUG("before pComm->ReadImage(). ");
        int n = 0;
        int rc = pComm->ReadImage(&n, Buffer.get(), Image.get());
        LOG_DEBUG("after pComm->ReadImage(). return: %d", rc);
        if (AcquireImageStatus == SL_STATUS_CANCELLED) return cancelledRead();

        bool leave = true;
        switch (rc) {
        case READ_END_OF_IMAGE:
            LOG_DEBUG("fetching image is completed");
            result = SL_STATUS_EOF;
            break;
        case READ_NO_MEMORY:
            LOG_ERROR("[ERROR] no memory error occurred while fetching image");
            result = SL_STATUS_NO_MEM;
            break;
        case READ_USB_ERROR:
            LOG_ERROR("[ERROR] USB error occurred while fetching image");
            result = SL_STATUS_CANCELLED;
            break;
        case READ_PAPER_JAM:
            LOG_ERROR("[ERROR] paper jam occurred while fetching image");
            result = SL_STATUS_CANCELLED;
            break;
        case READ_ABORTED:
            LOG_ERROR("[ERROR] scan abort occurred while fetching image");
            result = SL_STATUS_CANCELLED;
            break;
        case READ_FAILED:
            LOG_ERROR("[ERROR] read failure occurred while fetching image");
            ScanInProgress = 0;
            result = SL_STATUS_IO_ERROR;
            break;
        case READ_CONTINUE:
            LOG_DEBUG("Fetching image needs to continue");
            leave = false;
            break;
        default:
            LOG_DEBUG("retstatus = %d", result);
            MyDecompressor->Decompress(Buffer.get(), Image.get());
            Interleaver->DoInterleave(Buffer.get(), Image.get());
            needed -= Image->GetRawDataSize();
            leave = false;
            break;
        }
        if (leave) break;
    }

    ImageHandler->Perform(Image.get());
    *len = Image->GetProcessedData(buf, maxLen);
    // An I/O error leaves the scanner locked: intended.
    if (result != SL_STATUS_GOOD && result != SL_STATUS_IO_ERROR) {
        LOG_DEBUG("Calling Unlock");
        Unlock();
    }
    if (result == SL_STATUS_EOF && *len > 0) {
        LOG_DEBUG("We need to return good if there is still image data to give, otherwise our output will be cropped.");
        AcquireImageStatus = SL_STATUS_EOF;
        result = SL_STATUS_GOOD;
    }
    LOG_METHOD_END_INT(result);
    return result;
}

int ScanLib::cancelledRead() {
    LOG_DEBUG("Scan operation has been explicitly cancelled; AcquireImage() is to stop operation.");
    AbortScanOperation();
    SL_RETURN(SL_STATUS_CANCELLED);
}

int ScanLib::Cancel() {
    CancelInProgress = 1;
    AcquireImageStatus = SL_STATUS_CANCELLED;
    return SL_STATUS_GOOD;
}

int ScanLib::CancelAndFlush() {
    LOG_METHOD_START();
    int r = Cancel();
    if (ScanInProgress == 1) {
        // The running read loop sees the cancel, aborts and closes the device.
        LOG_DEBUG("Scan is currently in progress, not closing device...");
    } else {
        LOG_DEBUG("Scan is not in progress, closing device...");
        if (pComm) pComm->closeDevice();
    }
    LOG_METHOD_END_INT(r);
    return r;
}

void ScanLib::AbortScanOperation() {
    LOG_METHOD_START();
    if (!pComm) {
        CancelInProgress = 0;
        LOG_METHOD_END();
        return;
    }
    LOG_DEBUG("Scan is in Progress. Must send abort");
    CResponse reply;
    int r = pComm->writeCommand(CMD_ID_CANCEL, &reply);
    if (r == 0 && pComm->isLocal() == 1) {
        LOG_DEBUG("Sending cancel successful");
        if (GetIntValue("USB_CONSUME_FLAG") == 1) consumeAfterAbort();
    }
    LOG_DEBUG("Calling unlock");
    Unlock();
    pComm->closeDevice();
    CancelInProgress = 0;
    LOG_METHOD_END();
}

void ScanLib::consumeAfterAbort() {
    LOG_DEBUG("starting consume loop");
    std::vector<unsigned char> chunk(CONSUME_CHUNK);
    int status = 0;
    for (int i = 0; i < CONSUME_MAX_CHUNKS; ++i) {
        int size = CONSUME_CHUNK;
        LOG_DEBUG("reading chunk (size: %d) from device...", size);
        status = pComm->Read(chunk.data(), &size, CONSUME_TIMEOUT_MS);
        if (status != 0) break;
    }
    LOG_DEBUG("nothing more to consume. status: %d", status);
    LOG_DEBUG("end of consume loop");
}

int ScanLib::Unlock() {
    LOG_METHOD_START();
    CResponse reply;
    int r = pComm ? pComm->writeCommand(CMD_ID_UNLOCK, &reply) : -1;
    if (r == CMD_ID_UNLOCK)
        LOG_DEBUG("Unlock Successful");
    else
        LOG_ERROR("Unlock Failed");  // only logged
    ScanInProgress = 0;
    if (GetIntValue("COMMANDVERSION") == CMD_VERSION_500) SetDoubleValue("CURRENTTLX", 0.0);
    LOG_METHOD_END_INT(0);
    return 0;
}

int ScanLib::isValidName(const char* s) {
    if (s == nullptr || s[0] == '\0') return 0;
    for (const char* p = s; *p; ++p) {
        char c = *p;
        bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) return 0;
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Device capabilities and the settings check.

int ScanLib::LoadScanDeviceProperties() {
    LOG_METHOD_START();
    CResponse reply;
    pComm->writeCommand(CMD_ID_PROPERTIES, &reply);
    CProps* props = reply.getReply() == REPLY_PROPERTIES ? reply.getProperties() : nullptr;
    if (props == nullptr) {
        // No properties (a network device): no limits, the common resolutions.
        SetDoubleValue("FLATBEDWIDTHLIMIT", 0.0);
        SetDoubleValue("FLATBEDHEIGHTLIMIT", 0.0);
        SetDoubleValue("ADFWIDTHLIMIT", 0.0);
        SetDoubleValue("ADFHEIGHTLIMIT", 0.0);
        const int count = (int)(sizeof(DEFAULT_RESOLUTIONS) / sizeof(DEFAULT_RESOLUTIONS[0]));
        SetIntValue("RESOLUTIONS", count);
        for (int i = 0; i < count; ++i) SetIntValue(indexedKey("RESOLUTIONS_", i).c_str(), DEFAULT_RESOLUTIONS[i]);
        LOG_METHOD_END_INT(0);
        return 0;
    }

    props->GetSupportedOriginalTypes();
    SetIntValue("SCAN_SOURCE", SCAN_SOURCE_FLATBED);
    struct PropKey {
        const char* key;
        const char* text;
        int (CProps::*get)();
    };
    // The descreen flag is taken from the colour-dropout bit: intended.
    static const PropKey PROP_KEYS[] = {
        {"COMPRESSIONTECH", "Compression Technology", &CProps::getCompression},
        {"MAJORVERSION", "Major Version", &CProps::getMajor},
        {"MINORVERSION", "Minor Version", &CProps::getMinor},
        {"CODESET", "Code Set", &CProps::getCodeset},
        {"ALIGNMENTCOLOR", "Alignment Color", &CProps::getAlignmentClr},
        {"ALIGNMENTGRAY", "Alignment Gray", &CProps::getAlignmentGry},
        {"IMAGEPROCESSINGSUPPORT", "Image Processing Support", &CProps::ImageProcessingSupport},
        {"ORIGINALDOCUMENTSUPPORT", "Original Document Support", &CProps::OriginalDocumentSupport},
        {"MIRRORIMAGE", "Mirror Image Support", &CProps::isMirrorImageModificationSupported},
        {"NEGATIVEIMAGESUPPORT", "Negative Image Support", &CProps::isNegativeImageModificationSupported},
        {"COLORDROPOUTSUPPORT", "Color Dropout Support", &CProps::isColorDropoutSupported},
        {"DESCREEN", "Descreen Support", &CProps::isColorDropoutSupported},
        {"TEMPSUPPORT", "Temperature Support", &CProps::isTemperatureSupported},
        {"COLORSATURATION", "Color Saturation Support", &CProps::isColorSaturationSupported},
        {"COLORBALANCE", "Color Balance Support", &CProps::isColorBalanceSupported},
        {"BACKGROUNDREMOVAl", "Background Removal Support", &CProps::isBackgroundRemovalSupported},
        {"PSSDBRIGHTNESS", "PSSD Brightness Support", &CProps::isPSSDBrightnessSupported},
        {"PSSDCONTRAST", "PSSD Contrast Support", &CProps::isPSSDContrastSupported},
        {"ISDBRIGHTNESS", "ISD Brightness Support", &CProps::isISDBrightnessSupported},
        {"ISDCONTRAST", "ISD Contrast Support", &CProps::isISDContrastSupported},
    };
    for (const PropKey& k : PROP_KEYS) {
        int value = (props->*k.get)();
        SetIntValue(k.key, value);
        LOG_DEBUG("%s = %d", k.text, value);
    }

    int sources = props->getNumOfSources();
    for (int i = 0; i < sources; ++i) {
        CSources* source = props->getSource(i);
        if (source == nullptr) break;
        int width = 0;
        int height = 0;
        source->getWidth(&width);
        source->getHeight(&height);
        int type = source->getType();
        if (type == SOURCE_TYPE_FLATBED) {
            LOG_DEBUG("FLATBEDSCANNER");
            SetIntValue("SCANNERTYPE", SCANNER_TYPE_FLATBED);
            SetDoubleValue("FLATBEDWIDTHLIMIT", width / DEVICE_UNITS_PER_INCH);
            SetDoubleValue("FLATBEDHEIGHTLIMIT", height / DEVICE_UNITS_PER_INCH);
            LOG_DEBUG("FLatbed Width Limit: %f", width / DEVICE_UNITS_PER_INCH);
            LOG_DEBUG("FLatbed Height Limit: %d", height);
        } else {
            if (type == SOURCE_TYPE_ADF_EDGE) {
                LOG_DEBUG("ADFSCANNER EDGE-FED");
                SetIntValue("SCANNERTYPE", SCANNER_TYPE_ADF_EDGE);
            } else {
                LOG_DEBUG("ADFSCANNER CENTER-FED");
                SetIntValue("SCANNERTYPE", SCANNER_TYPE_ADF_CENTER);
            }
            SetDoubleValue("ADFWIDTHLIMIT", width / DEVICE_UNITS_PER_INCH);
            SetDoubleValue("ADFHEIGHTLIMIT", height / DEVICE_UNITS_PER_INCH);
            LOG_DEBUG("ADF Width Limit: %d", width);
            LOG_DEBUG("ADF Height Limit: %d", height);
        }
        SetIntValue("RESOLUTIONS", source->getNumOfRes());
        addResolutions(source->getNumOfRes(), source);
        if (type != SOURCE_TYPE_FLATBED) updateADFDpiLimit(source);
        // Later sources overwrite what earlier ones stored.
        SetIntValue("SCANBARID", source->getBarId());
        SetIntValue("DUPLEX_SUPPORT", source->getDuplexSupport());
        LOG_DEBUG("Scanner Bar Id = %d", source->getBarId());
    }
    LOG_METHOD_END_INT(0);
    return 0;
}

int ScanLib::addResolutions(int count, CSources* source) {
    LOG_METHOD_START();
    std::map<std::string, int> resolutions;
    std::map<std::string, int> depths;
    int n = 0;
    // Each record with unequal resolutions also shortens the walk by one, so
    // it cuts a record off the end: intended.
    for (int i = 0; source != nullptr && i < count; ++i) {
        CScanRes* res = source->getScanRes(i);
        if (res == nullptr) break;
        if (!res->isEqual()) {
            --count;
            continue;
        }
        int dpi = 0;
        res->getHorRes(&dpi);
        ++n;
        LOG_DEBUG("Inserting xDPI : %d", dpi);
        resolutions[indexedKey("RESOLUTIONS_", n)] = dpi;
        depths[indexedKey("MODE_", n)] = res->getColorDepth();
    }
    SetIntListValue("RESOLUTIONS_LIST", resolutions);
    SetIntListValue("COLORDEPTH_LIST", depths);
    LOG_METHOD_END_INT(n);
    return n;
}

int ScanLib::updateADFDpiLimit(CSources* source) {
    int limit = 0;
    int count = source ? source->getNumOfRes() : 0;
    for (int i = 0; i < count; ++i) {
        CScanRes* res = source->getScanRes(i);
        if (res == nullptr) break;
        int dpi = 0;
        if (res->isEqual() && res->getHorRes(&dpi) == 0 && dpi > limit) limit = dpi;
    }
    SetIntValue("ADFDPILIMIT", limit);
    LOG_DEBUG("ADF DPI Limit = %d", limit);
    return limit;
}

int ScanLib::LoadScanSizes() {
    LOG_METHOD_START();
    // Read position in the sizes block; it starts at 1 and is never reset, so a
    // later call goes on from where the previous one stopped: intended.
    static int iPos = 1;

    CResponse reply;
    pComm->writeCommand(CMD_ID_SCAN_SIZES, &reply);
    CProps* props = reply.getReply() == REPLY_SCAN_SIZES ? reply.getProperties() : nullptr;
    if (props == nullptr) {
        LOG_DEBUG("Command not found, possibly network path");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    LOG_DEBUG("Scan size reply found called ");
    int count = props->getNumOfCustomSizes();
    if (count < 0) count = 0;
    SetIntValue("NO_CUSTOM_SCANSIZES", count);
    LOG_DEBUG("Number Of Custom Scan Sizes = %d", count);

    // Bytes of the block the reply really holds: what its header announces,
    // cut to what arrived.
    int msgLen = 0;
    const unsigned char* msg = reply.getData(&msgLen);
    long blockLen = msgLen > CMD_HEADER_LEN ? msgLen - CMD_HEADER_LEN : 0;
    long announced = readLE16(msg, msgLen, 4);
    if (announced < blockLen) blockLen = announced;

    const bool adf = GetIntValue("SCAN_SOURCE") == SCAN_SOURCE_ADF;
    const double widthLimit = GetDoubleValue(adf ? "ADFWIDTHLIMIT" : "FLATBEDWIDTHLIMIT");
    const double lengthLimit = GetDoubleValue(adf ? "ADFHEIGHTLIMIT" : "FLATBEDHEIGHTLIMIT");
    std::map<std::string, std::string> names;
    std::map<std::string, int> nameLengths;
    std::map<std::string, double> widths;
    std::map<std::string, double> lengths;
    int i = 0;
    for (; i < count; ++i) {
        // An entry: 2-byte name length (first byte used), the name, 2-byte
        // width, 2-byte length, one skipped byte. One that does not fit in the
        // block is absent, and so is every later one.
        if (iPos + 1 > blockLen) break;
        int nameLen = props->getPaperNameLength(iPos);
        if ((long)iPos + 6 + nameLen > blockLen) break;
        iPos += 2;
        std::unique_ptr<char[]> raw(props->getPaperName(iPos, nameLen));
        std::string name = raw ? std::string(raw.get(), strnlen(raw.get(), (size_t)nameLen)) : std::string();
        iPos += nameLen;
        double width = props->customScanSizeWidth(iPos);
        LOG_DEBUG("custom width %f", width);
        iPos += 2;
        double length = props->customScanSizeLength(iPos);
        LOG_DEBUG("custom height %f", length);
        iPos += 2;
        iPos += 1;
        if (width > widthLimit) {
            width = widthLimit;
            LOG_DEBUG("custom width now %f", width);
        }
        if (length > lengthLimit) {
            length = lengthLimit;
            LOG_DEBUG("custom height now %f", length);
        }
        names[indexedKey("PAPERSIZENAME_", i)] = name;
        nameLengths[indexedKey("PAPERNAMELENGTH_", i)] = nameLen;
        widths[indexedKey("PAPERWIDTH_", i)] = width;
        lengths[indexedKey("PAPERLENGTH_", i)] = length;
    }
    if (i < count) {
        LOG_ERROR("scan sizes reply holds %d of %d sizes", i, count);
        SetIntValue("NO_CUSTOM_SCANSIZES", i);
    }
    SetStringListValue("PAPERSIZENAME_LIST", names);
    SetIntListValue("PAPERNAMELENGTH_LIST", nameLengths);
    SetDoubleListValue("PAPERWIDTH_LIST", widths);
    SetDoubleListValue("PAPERLENGTH_LIST", lengths);
    LOG_METHOD_END_INT(i);
    return i;
}

int ScanLib::CheckScanSettings() {
    LOG_METHOD_START();
    int result = 0;
    const int source = GetIntValue("SCAN_SOURCE");
    if (pComm->isLocal() == 1) {
        double width = GetDoubleValue("CURRENTBRX") - GetDoubleValue("CURRENTTLX") + EDGE_ROUNDING_MM;
        double height = GetDoubleValue("CURRENTBRY") - GetDoubleValue("CURRENTTLY") + EDGE_ROUNDING_MM;
        LOG_DEBUG("Scan Source = %d", source);
        if (width <= 0.0 || height <= 0.0) {
            LOG_ERROR("Negative width or height");
            SL_RETURN(SL_STATUS_UNSUPPORTED);
        }
        if (width < MIN_SCAN_EDGE_MM || height < MIN_SCAN_EDGE_MM) {
            LOG_ERROR("Scan size is below the minimum");
            SL_RETURN(SL_STATUS_UNSUPPORTED);
        }
        LOG_DEBUG("szScannerType = %d", GetIntValue("SCANNERTYPE"));
        LOG_DEBUG("before sending status command to scanner");
        CResponse reply;
        pComm->writeCommand(CMD_ID_STATUS, &reply);
        LOG_DEBUG("after sending status command to scanner");
        const int adfStatus = reply.getADFStatus();
        LOG_DEBUG("response.getADFStatus() = %d", adfStatus);
        const bool previewRefused = GetIntValue("PREVIEW") != 0 && GetIntValue("ADFPREVIEW") == 0;
        if (source == SCAN_SOURCE_ADF) {
            if (adfStatus == ADF_STATUS_EMPTY) {
                if (previewRefused) {
                    LOG_ERROR("Previewing is not allowed on the ADF.");
                    result = SL_STATUS_UNSUPPORTED;
                } else {
                    LOG_ERROR("No document(s) found on the ADF.");
                    result = SL_STATUS_NO_DOCS;
                }
            } else if (adfStatus == ADF_STATUS_NONE) {
                LOG_ERROR("There is no ADF support.");
                result = SL_STATUS_UNSUPPORTED;
            } else if (adfStatus == ADF_STATUS_LOADED) {
                const int dpi = GetIntValue("CURRENTDPI");
                const int limit = GetIntValue("ADFDPILIMIT");
                if (dpi > limit) {
                    LOG_DEBUG("Current DPI: %d", dpi);
                    LOG_DEBUG("ADF DPI LIMIT: %d", limit);
                    LOG_ERROR("Cannot scan using the ADF with the current resolution.");
                    SL_RETURN(SL_STATUS_UNSUPPORTED);
                }
                if (previewRefused) {
                    LOG_ERROR("Previewing is not allowed on the ADF.");
                    SL_RETURN(SL_STATUS_UNSUPPORTED);
                }
            }
        }
        LOG_DEBUG("Family ID: %d", GetIntValue("FAMILYID"));
        LOG_DEBUG("Scan Source = %d", source);
        if (GetIntValue("CURRENTDPI") >= NARROWING_MIN_DPI && GetDoubleValue("CURRENTBRX") == FULL_WIDTH_MM) {
            LOG_DEBUG("Setting Brx to 215.");
            SetDoubleValue("CURRENTBRX", NARROWED_WIDTH_MM);
        }
    }
    // The attributes are set even when the check refused the settings.
    Image->SetAttributes(pCfgReader.get(), source);
    SL_RETURN(result);
}

// ---------------------------------------------------------------------------
// Replacing parts, option access, conversions.

void ScanLib::SetIO(ICommunication* comm) {
    pComm.reset(comm);
    if (pComm) {
        pComm->setConfigReader(pCfgReader.get());
        if (pCmd) pComm->setCommand(pCmd.get());
    }
    Demon.init(pComm.get(), pCfgReader.get());
}

void ScanLib::SetComm(ICommand* cmd) {
    // A transport refuses a null command and keeps the one it holds, so a null
    // replacement is refused here too: freeing the current command would leave
    // the transport pointing at freed memory.
    if (cmd == nullptr) {
        LOG_ERROR("refusing to replace the command object by none");
        return;
    }
    if (pComm) pComm->setCommand(cmd);
    pCmd.reset(cmd);
    if (pCmd && pCfgReader) pCmd->setConfigReader(pCfgReader.get());
}

int ScanLib::GetIntValue(const char* key) { return pCfgReader ? pCfgReader->GetIntOption(key) : 0; }
int ScanLib::SetIntValue(const char* key, int value) { return pCfgReader ? pCfgReader->SetIntOption(key, value) : 0; }
double ScanLib::GetDoubleValue(const char* key) { return pCfgReader ? pCfgReader->GetDoubleOption(key) : 0.0; }
int ScanLib::SetDoubleValue(const char* key, double value) {
    return pCfgReader ? pCfgReader->SetDoubleOption(key, value) : 0;
}
const char* ScanLib::GetStringValue(const char* key) { return pCfgReader ? pCfgReader->GetStringOption(key) : nullptr; }
int ScanLib::SetStringValue(const char* key, const char* value) {
    return (pCfgReader && value) ? pCfgReader->SetStringOption(key, value) : 0;
}
int ScanLib::GetIntListValue(const char* key, std::map<std::string, int>& out) {
    return pCfgReader ? pCfgReader->GetIntListOption(key, out) : 0;
}
int ScanLib::SetIntListValue(const char* key, const std::map<std::string, int>& list) {
    return pCfgReader ? pCfgReader->SetIntListOption(key, list) : 0;
}
int ScanLib::GetDoubleListValue(const char* key, std::map<std::string, double>& out) {
    return pCfgReader ? pCfgReader->GetDoubleListOption(key, out) : 0;
}
int ScanLib::SetDoubleListValue(const char* key, const std::map<std::string, double>& list) {
    return pCfgReader ? pCfgReader->SetDoubleListOption(key, list) : 0;
}
int ScanLib::GetStringListValue(const char* key, std::map<std::string, std::string>& out) {
    return pCfgReader ? pCfgReader->GetStringListOption(key, out) : 0;
}
int ScanLib::SetStringListValue(const char* key, const std::map<std::string, std::string>& list) {
    return pCfgReader ? pCfgReader->SetStringListOption(key, list) : 0;
}

std::string ScanLib::toString(int value) { return std::to_string(value); }

std::string ScanLib::toString(double value) {
    char text[64];
    snprintf(text, sizeof(text), "%g", value);
    return text;
}
