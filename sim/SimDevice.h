// The device side of one simulated scanner: takes the bytes the host writes,
// answers each request with the reply it calls for, and plays the image of a
// scan as escape-framed blocks followed by a scan record. Bus-level matters
// (open, claim, unplug) are the libusb layer's business.
#ifndef USBSIM_SIMDEVICE_H
#define USBSIM_SIMDEVICE_H

#include <cstdint>
#include <deque>
#include <functional>
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

// Produces the transfers of one running scan, one block at a time, so that
// even a large page never sits in memory as a whole.
class ScanStream {
public:
    ScanStream(const DeviceConfig& cfg, const Window& w, int iFaultLine, int iFaultStatus);
    // Next transfer of the scan; false when the scan has ended.
    bool next(std::vector<unsigned char>& out);
    uint64_t linesSent() const { return ullLinesBefore + uRow; }
    int endStatus() const { return iEndStatus; }
    bool finished() const { return phase == PHASE_DONE; }

private:
    enum Phase { PHASE_PAGE_START, PHASE_DATA, PHASE_PAGE_END, PHASE_DONE };
    void makeLine(uint64_t row);
    bool pageDataFinished() const;

    Window win;
    int iStrip;
    int iStripMin;
    int iBlock;
    int iPages;
    bool bBgr;
    bool bInterleave;
    uint32_t uIlOffsetX, uIlTrim, uIlOffsetY;
    int64_t llFaultLine;  // -1: no fault
    int iFaultStatus;
    Phase phase = PHASE_PAGE_START;
    int iPage = 0;
    uint64_t ullLinesBefore = 0;  // lines of earlier pages
    uint32_t uRow = 0;            // lines of this page generated so far
    uint64_t ullStopRow = 0;      // lines of this page to send
    std::vector<unsigned char> line;
    size_t linePos = 0;
    int iEndStatus = 0;
};

class SimDevice {
public:
    using EventSink = std::function<void(const std::string&)>;

    SimDevice(const DeviceConfig& cfg, int iIndex, EventSink sink);

    // One bulk write of the host.
    void handleWrite(const unsigned char* p, int len);
    // Copies up to cap bytes of the current transfer; 0 when nothing is queued.
    int read(unsigned char* buf, int cap);
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

    int iIndex;
    EventSink fnEvent;
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
