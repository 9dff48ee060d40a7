// The simulated scanner's scenario: which busses and devices exist, how each
// device describes itself on the bus and how it answers the host. Parsed from
// the plain-text format documented in sim/README.md.
#ifndef USBSIM_SCENARIO_H
#define USBSIM_SCENARIO_H

#include <cstdint>
#include <string>
#include <vector>

namespace usbsim {

// Faults a device can be told to show. Counter faults are off at -1; flag
// faults are off at 0. The names are those of the scenario and of
// usbsim_set_fault().
enum FaultId {
    FAULT_BUSY,             // 1 detach frees the interface, 2 detach fails, 3 claim stays busy after detach
    FAULT_SETCONFIG_EPERM,  // 1: set-configuration refused with EPERM
    FAULT_OPEN_FAIL,        // 1: usb_open returns NULL
    FAULT_UNPLUG,           // N: device disappears after N more bulk writes
    FAULT_READ_TIMEOUT,     // N: bulk reads time out after N more good reads
    FAULT_SHORT_REPLY,      // N: command replies truncated to N bytes
    FAULT_WRONG_CODE,       // K: each reply preceded by K replies carrying another code
    FAULT_ABORT,            // N: host-abort record (3) after N image lines
    FAULT_DEVICE_ABORT,     // N: device-abort record (4) after N image lines
    FAULT_JAM,              // N: paper-jam record (5) after N image lines
    FAULT_WRITE_FAIL,       // N: bulk writes fail with -EIO after N more good writes
    FAULT_OOM,              // N: out-of-memory record (2) after N image lines
    FAULT_COMM_ERROR,       // N: communication-error record (6) after N image lines
    FAULT_BAD_STATUS,       // N: a record with a status no device defines after N image lines
    FAULT_NOT_RECORD,       // N: a message that is no scan record after N image lines, then nothing
    FAULT_STALL,            // N: nothing more after N image lines (reads time out)
    FAULT_UNPLUG_LINES,     // N: the device disappears after N image lines
    FAULT_COUNT
};

// Index of a fault name, or -1 when unknown.
int faultIndex(const char* szName);
const char* faultName(int iFault);
// Value that switches the fault off.
int faultOffValue(int iFault);
// True when the value is acceptable for the fault.
bool faultValueValid(int iFault, long long llValue);

struct InterfaceConfig {
    int iClass = 255;
    int iSubClass = 0;
    int iProtocol = 0;
    int iAlts = 1;
    std::vector<unsigned char> endpoints{0x81, 0x02};
};

struct ResolutionConfig {
    uint32_t uHorizontal = 0;
    uint32_t uVertical = 0;
    unsigned char cDepth = 0;
};

struct SourceConfig {
    int iType = 1;
    int iBarId = 0;
    uint32_t uOrigin = 0;
    uint32_t uWidth = 0;   // 1/1200 inch
    uint32_t uHeight = 0;  // 1/1200 inch
    std::vector<ResolutionConfig> resolutions;
};

struct SizeConfig {
    std::string szName;
    unsigned uWidth = 0;   // 1/1000 inch
    unsigned uLength = 0;  // 1/1000 inch
};

struct PropsConfig {
    int iMajor = 5;
    int iMinor = 0;
    int iCodeset = 0;
    int iCompression = 0;
    int iAlignColor = 0;
    int iAlignGray = 0;
    int iSupport = 0;  // image-processing support bits (major 5 and above)
    int iTypes = 0;    // original-document types (major 5 and above)
    int iDuplex = 0;   // major 5 and above
};

struct DeviceConfig {
    std::string szBus;
    std::string szFile;
    int iVendor = 0;
    int iProduct = 0;
    int iClass = 0;
    int iSubClass = 0;
    int iProtocol = 0;
    int iBcdDevice = 0x0100;
    int iConfigValue = 1;
    std::vector<InterfaceConfig> interfaces;  // empty: one default interface
    int iManufacturer = 0;                    // string indices, 0 = no string
    int iProductString = 0;
    int iSerial = 0;
    std::vector<std::pair<int, std::string>> strings;

    int iVersion = 500;
    bool bNpa = false;
    PropsConfig props;
    std::vector<SourceConfig> sources;
    std::vector<SizeConfig> sizes;
    bool bPropsRaw = false;  // send propsRaw instead of building the block
    std::vector<unsigned char> propsRaw;
    bool bSizesRaw = false;
    std::vector<unsigned char> sizesRaw;
    int iFeeder = 0;
    int iSheets = -1;          // sheets loaded in the feeder; -1: no sheets simulated
    bool bMultipage = false;   // feeder scans with source 2 or 4 run as multi-page jobs too
    int iWicketQuality = 75;   // compressed mode: quality factor of the bands
    int iWicketBand = 32;      // compressed mode: lines per band
    int iLockStatus = 128;
    int iStartStatus = 128;
    int iReplyStatus = 128;
    std::vector<unsigned char> scanParams = std::vector<unsigned char>(34, 0);
    bool bBgr = false;
    bool bInterleave = false;
    uint32_t uInterleaveOffsetX = 0;
    uint32_t uInterleaveTrim = 0;
    uint32_t uInterleaveOffsetY = 0;
    int iBlock = 16384;  // image payload bytes per escape-framed block
    int iPages = 1;
    int faults[FAULT_COUNT];
    int iReplugAfter = -1;
    std::string szReplugBus;
    std::string szReplugFile;

    DeviceConfig();
};

struct Scenario {
    std::vector<std::string> busses;  // in order of first mention
    std::vector<DeviceConfig> devices;
};

// Limits on what a scenario may declare.
constexpr int MAX_DEVICES = 32;
constexpr int MAX_INTERFACES = 8;
constexpr int MAX_ALTS = 8;
constexpr int MAX_ENDPOINTS = 16;
constexpr int MAX_SOURCES = 8;
constexpr int MAX_RESOLUTIONS = 32;
constexpr int MAX_SIZES = 32;
constexpr int MAX_SIZE_NAME = 64;
constexpr int MAX_STRING = 126;  // characters of a USB string descriptor
constexpr int MAX_NAME = 255;    // bus and device file names
constexpr int MAX_RAW_BLOCK = 4096;
constexpr int MAX_LINE = 4096;
constexpr int MAX_BLOCK = 65000;
constexpr int MAX_PAGES = 100;
constexpr int MAX_SHEETS = 100000;
constexpr int MAX_WICKET_BAND = 4096;

// Parses scenario text into out (appending). Each faulty line is skipped and
// described in errors ("line N: ..."); returns the number of such lines.
int parseScenario(const std::string& text, Scenario& out, std::string& errors);

// Bus and device file names: 1..MAX_NAME printable characters without blanks.
bool validName(const std::string& s);

}  // namespace usbsim

#endif
