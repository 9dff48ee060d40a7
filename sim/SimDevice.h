// The device side of one simulated scanner: takes the bytes the host writes,
// answers each request with the reply it calls for, and plays the image of a
// scan as escape-framed blocks followed by a scan record. Bus-level matters
// (open, claim, unplug) are the libusb layer's business.
#ifndef USBSIM_SIMDEVICE_H
#define USBSIM_SIMDEVICE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Scenario.h"

namespace usbsim {

// A scan window as the host requested it.
struct Window {
    int iColor = 0;
    int iCompression = 0;
    int iCompressionLevel = 0;
    int iFilter = 0;
    uint32_t uWidth = 0;
    uint32_t uLines = 0;
    uint32_t uOffsetX = 0;
    uint32_t uOffsetY = 0;
    int iXRes = 0;
    int iYRes = 0;
    int iSource = -1;  // -1 when the request carries no source byte
    int iRequest = 0;  // 3 LOCK, 4 START
    std::vector<unsigned char> data;  // the request's data part as received
};

// The document feeder's sheets. Without a "sheets" line the feeder is not
// simulated (iLeft -1) and feeder scans behave as flatbed scans.
struct Feeder {
    int iLeft = -1;
    int iTaken = 0;  // sheets taken since the feeder was loaded: the page number p
    bool active() const { return iLeft >= 0; }
};

// Compressed bands already made. The page formula depends on Y only modulo
// 256, so a band is known by its first column, its first line modulo 256, its
// size and the pixel format; a 1200 dpi page then needs 8 encodings, not 440.
class BandCache {
public:
    using Band = std::shared_ptr<const std::vector<unsigned char>>;
    struct Key {
        uint64_t ullX;
        unsigned uY256;
        uint32_t uWidth, uLines;
        int iColor, iQuality;
        bool bBgr;
        bool operator<(const Key& o) const;
    };
    Band find(const Key& k) const;
    void add(const Key& k, Band b);

private:
    std::map<Key, Band> bands;
    size_t total = 0;
};

// How a scan is sent.
struct ScanPlan {
    bool bJob = false;         // a multi-page job: every item one record-framed message
    bool bCompressed = false;  // Wicket bands instead of raw lines
    Feeder* pFeeder = nullptr; // feeder scan: one sheet per page, p from the feeder's count
    int iPages = 1;            // pages of a scan that does not draw sheets
    int64_t llFaultLine = -1;  // image lines before the fault; -1: none
    int iFault = -1;           // FaultId of that fault
};

// Produces the transfers of one running scan, one block at a time, so that
// even a large page never sits in memory as a whole.
class ScanStream {
public:
    using BandSink = std::function<void(const unsigned char*, size_t)>;
    using EventSink = std::function<void(const std::string&)>;

    ScanStream(const DeviceConfig& cfg, const Window& w, const ScanPlan& plan, BandCache& cache, BandSink bandSink,
               EventSink eventSink, int iDevice);
    // Next transfer of the scan; false when the scan has ended.
    bool next(std::vector<unsigned char>& out);
    uint64_t linesSent() const { return ullLinesBefore + uRow; }
    // Text of the end for the event log: "status=N", "stalled", "unplugged".
    std::string endText() const;
    bool finished() const { return phase == PHASE_DONE; }
    bool unplugs() const { return bUnplug; }

private:
    enum Phase { PHASE_JOB_START, PHASE_PAGE_START, PHASE_DATA, PHASE_PAGE_END, PHASE_COMPLETE, PHASE_FAULT, PHASE_DONE };
    void makeLine(uint64_t row);
    bool nextUnit();
    bool fillStage(size_t n);
    bool morePages() const;
    bool faultDueAt(uint64_t lines) const { return plan.llFaultLine >= 0 && uint64_t(plan.llFaultLine) == lines; }
    bool dataTransfer(std::vector<unsigned char>& out);
    bool faultItem(std::vector<unsigned char>& out);

    Window win;
    ScanPlan plan;
    BandCache& cache;
    BandSink fnBand;
    EventSink fnEvent;
    int iDevice;
    int iStrip;
    int iStripMin;
    int iBlock;
    bool bBgr;
    bool bInterleave;
    uint32_t uIlOffsetX, uIlTrim, uIlOffsetY;
    int iQuality;
    int iBandLines;
    Phase phase;
    int iPage = 0;                // pages begun
    uint64_t ullXShift = 0;       // 64 * (p - 1) of the current page
    uint64_t ullLinesBefore = 0;  // lines of earlier pages
    uint32_t uRow = 0;            // lines of this page generated so far
    uint64_t ullStopRow = 0;      // lines of this page to send
    std::vector<unsigned char> line;
    BandCache::Band band;
    const unsigned char* pUnit = nullptr;  // the line or band being sent
    size_t unitLen = 0, unitPos = 0;
    std::vector<unsigned char> stage;  // bytes taken from units, not yet sent
    size_t stagePos = 0;
    int iEndStatus = -1;
    bool bStalled = false;
    bool bUnplug = false;
};

class SimDevice {
public:
    using EventSink = std::function<void(const std::string&)>;

    // read() result when the device has just gone off the bus (fault unplug_lines).
    static constexpr int READ_UNPLUG = -2;

    SimDevice(const DeviceConfig& cfg, int iIndex, EventSink sink, ScanStream::BandSink bandSink);

    // One bulk write of the host.
    void handleWrite(const unsigned char* p, int len);
    // Copies up to cap bytes of the current transfer; -1 when nothing is
    // queued, READ_UNPLUG when the device leaves the bus now.
    int read(unsigned char* buf, int cap);
    // Loads the feeder with n sheets (-1: no sheets simulated); the page count restarts.
    void loadFeeder(int n);
    int sheetsLeft() const { return feeder.iLeft; }
    // Queues an arbitrary transfer, as if the device had sent it.
    void inject(const unsigned char* p, int len);
    // Drops queued transfers and any running scan (cancel, reset, unplug).
    void dropAll();
    int queuedTransfers() const;
    bool lastWindow(Window& w) const;

    DeviceConfig cfg;  // faults are switched at run time in cfg.faults

private:
    void handleRequest(const unsigned char* p, int len);
    bool unwrapNpa(const unsigned char* p, int len, const unsigned char*& cmd, int& cmdLen);
    void queueReply(std::vector<unsigned char> reply);
    std::vector<unsigned char> header(unsigned char cCmd, unsigned char cCode, size_t dataLen, int iStatus) const;
    std::vector<unsigned char> propertiesBlock() const;
    std::vector<unsigned char> sizesBlock() const;
    Window decodeWindow(const unsigned char* p, int len, int iRequest) const;
    int checkWindow(const Window& w) const;
    void start(const unsigned char* p, int len);
    void event(const std::string& s) const;
    int feederByte() const;
    ScanPlan planFor(const Window& w);

    int iIndex;
    EventSink fnEvent;
    ScanStream::BandSink fnBand;
    Feeder feeder;
    BandCache bands;
    std::deque<std::vector<unsigned char>> queue;
    std::vector<unsigned char> current;  // transfer being read
    bool bHaveCurrent = false;
    size_t currentPos = 0;
    std::unique_ptr<ScanStream> scan;
    bool bHaveLockWindow = false;
    Window lockWindow;
    bool bHaveLastWindow = false;
    Window scanWindow;
};

// printf into a std::string (lines of the event log; at most 511 characters).
std::string textf(const char* f, ...) __attribute__((format(printf, 1, 2)));

// Hex text of up to maxBytes bytes ("1b5303..."), "..." appended when cut.
std::string hexText(const unsigned char* p, int len, int maxBytes);

}  // namespace usbsim

#endif
