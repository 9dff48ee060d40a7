// Device side of a simulated scanner: requests in, replies and image out.
#include "SimDevice.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace usbsim {

namespace {

constexpr unsigned char ESC = 0x1B;
constexpr unsigned char MSG_SCANNER = 0x53;  // 'S'
constexpr unsigned char MSG_DATA = 0x44;     // 'D'

// Request codes (byte 2 of an ESC 'S' request); the reply repeats the code.
constexpr unsigned char REQ_START = 0x01;
constexpr unsigned char REQ_DATA = 0x02;
constexpr unsigned char REQ_PROPERTIES = 0x03;
constexpr unsigned char REQ_STATUS = 0x04;
constexpr unsigned char REQ_LOCK = 0x05;
constexpr unsigned char REQ_UNLOCK = 0x06;
constexpr unsigned char REQ_SIZES = 0x0A;
constexpr unsigned char REQ_SCAN_PARAMS = 0x0B;
constexpr unsigned char REQ_CANCEL = 0x0F;
constexpr unsigned char REQ_WAKE = 0x04;  // with ESC 'D'

constexpr int HEADER_LEN = 8;
constexpr int SCAN_PARAMS_LEN = 34;

// Scan record statuses (byte 8 of an ESC 'S' 02 record).
constexpr unsigned char REC_COMPLETE = 1;
constexpr unsigned char REC_HOST_ABORT = 3;
constexpr unsigned char REC_DEVICE_ABORT = 4;
constexpr unsigned char REC_JAM = 5;
constexpr unsigned char REC_PAGE_END = 7;
constexpr unsigned char REC_INTERLEAVE = 9;
constexpr int RECORD_LEN = 10;
constexpr int INTERLEAVE_RECORD_LEN = 31;

// Reply status the device gives a request it refuses (invalid).
constexpr int STATUS_GOOD = 128;
constexpr int STATUS_INVALID = 129;

constexpr unsigned char COLOR_LINEART = 1;
constexpr unsigned char COLOR_GREY = 2;
constexpr unsigned char COLOR_RGB = 3;

// The largest window the device accepts.
constexpr uint32_t MAX_WINDOW_WIDTH = 100000;
constexpr uint32_t MAX_WINDOW_LINES = 1000000;

// Filler for the pixels of an interleaved line that carry no image.
constexpr unsigned char JUNK = 0xEE;

// NPA packet envelope.
constexpr unsigned char NPA_START = 0xA5;
constexpr int NPA_HEADER_LEN = 12;
const unsigned char NPA_FIXED[7] = {0x10, 0x01, 0x83, 0xAA, 0xBB, 0xCC, 0xDD};

unsigned rd8(const unsigned char* p, int len, int off) { return off >= 0 && off < len ? p[off] : 0u; }
unsigned rdLE16(const unsigned char* p, int len, int off) {
    return off >= 0 && off + 2 <= len ? unsigned(p[off] | p[off + 1] << 8) : 0u;
}
uint32_t rdLE32(const unsigned char* p, int len, int off) {
    return off >= 0 && off + 4 <= len ? uint32_t(p[off]) | uint32_t(p[off + 1]) << 8 | uint32_t(p[off + 2]) << 16 |
                                            uint32_t(p[off + 3]) << 24
                                      : 0u;
}
void putLE16(std::vector<unsigned char>& v, unsigned x) {
    v.push_back(static_cast<unsigned char>(x));
    v.push_back(static_cast<unsigned char>(x >> 8));
}
void putLE32(std::vector<unsigned char>& v, uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(static_cast<unsigned char>(x >> (8 * i)));
}

void stripFor(int iVersion, int& iStrip, int& iStripMin) {
    switch (iVersion) {
    case 401: iStrip = 10; iStripMin = 2; break;
    case 402: iStrip = 10; iStripMin = 23; break;
    case 500: iStrip = 31; iStripMin = 23; break;
    default: iStrip = 9; iStripMin = 1; break;
    }
}

std::vector<unsigned char> statusRecord(unsigned char cStatus) {
    std::vector<unsigned char> r = {ESC, MSG_SCANNER, REQ_DATA, 0x00, RECORD_LEN - HEADER_LEN, 0x00, 0x00, 0x00,
                                    cStatus, 0x00};
    return r;
}

}  // namespace

std::string textf(const char* f, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

std::string hexText(const unsigned char* p, int len, int maxBytes) {
    static const char* const DIGITS = "0123456789abcdef";
    std::string s;
    int n = std::min(len, maxBytes);
    s.reserve(static_cast<size_t>(n) * 2 + 3);
    for (int i = 0; i < n; ++i) {
        s += DIGITS[p[i] >> 4];
        s += DIGITS[p[i] & 15];
    }
    if (len > n) s += "...";
    return s;
}

// ---------------------------------------------------------------- ScanStream

ScanStream::ScanStream(const DeviceConfig& cfg, const Window& w, int iFaultLine, int iFaultStatus_)
    : win(w),
      iBlock(cfg.iBlock),
      iPages(cfg.iPages),
      bBgr(cfg.bBgr),
      bInterleave(cfg.bInterleave && w.iColor != COLOR_LINEART),  // line art is never interleaved
      uIlOffsetX(cfg.uInterleaveOffsetX),
      uIlTrim(cfg.uInterleaveTrim),
      uIlOffsetY(cfg.uInterleaveOffsetY),
      llFaultLine(iFaultLine),
      iFaultStatus(iFaultStatus_) {
    stripFor(cfg.iVersion, iStrip, iStripMin);
}

// One line of the page as the device sends it, for page row `row`.
void ScanStream::makeLine(uint64_t row) {
    const uint64_t y = uint64_t(win.uOffsetY) + row;
    const uint32_t width = win.uWidth;
    if (win.iColor == COLOR_LINEART) {
        line.assign((size_t(width) + 7) / 8, 0);
        for (uint32_t c = 0; c < width; ++c) {
            uint64_t x = uint64_t(win.uOffsetX) + c;
            if (((x >> 3) + (y >> 3)) & 1) line[c >> 3] |= static_cast<unsigned char>(0x80u >> (c & 7));
        }
        return;
    }
    const size_t channels = win.iColor == COLOR_RGB ? 3 : 1;
    auto pixel = [&](uint32_t c, unsigned char* out) {
        uint64_t x = uint64_t(win.uOffsetX) + c;
        if (channels == 1) {
            out[0] = static_cast<unsigned char>(x + 2 * y);
            return;
        }
        unsigned char r = static_cast<unsigned char>(x), g = static_cast<unsigned char>(y),
                      b = static_cast<unsigned char>(x + y);
        out[0] = bBgr ? b : r;
        out[1] = g;
        out[2] = bBgr ? r : b;
    };
    if (!bInterleave) {
        line.resize(size_t(width) * channels);
        for (uint32_t c = 0; c < width; ++c) pixel(c, &line[c * channels]);
        return;
    }
    // Two halves, even pixels of the full line first, odd pixels second; each
    // half starts with `trim` junk pixels and the full line has `offset x`
    // junk pixels at its left.
    const size_t full = size_t(uIlOffsetX) + width;
    const size_t half = uIlTrim + (full + 1) / 2;
    line.assign(2 * half * channels, JUNK);
    for (size_t k = uIlOffsetX; k < full; ++k) {
        size_t pos = (k & 1 ? half : 0) + uIlTrim + k / 2;
        pixel(static_cast<uint32_t>(k - uIlOffsetX), &line[pos * channels]);
    }
}

bool ScanStream::pageDataFinished() const { return uRow >= ullStopRow && linePos >= line.size(); }

bool ScanStream::next(std::vector<unsigned char>& out) {
    for (;;) {
        switch (phase) {
        case PHASE_PAGE_START: {
            ullStopRow = win.uLines;
            if (llFaultLine >= 0 && uint64_t(llFaultLine) >= ullLinesBefore &&
                uint64_t(llFaultLine) - ullLinesBefore < ullStopRow)
                ullStopRow = uint64_t(llFaultLine) - ullLinesBefore;
            uRow = 0;
            line.clear();
            linePos = 0;
            phase = PHASE_DATA;
            if (bInterleave) {
                const size_t full = size_t(uIlOffsetX) + win.uWidth;
                const uint32_t ilWidth = static_cast<uint32_t>(2 * (uIlTrim + (full + 1) / 2));
                out = {ESC, MSG_SCANNER, REQ_DATA, 0x00, INTERLEAVE_RECORD_LEN - HEADER_LEN, 0x00, 0x00, 0x00,
                       REC_INTERLEAVE, 0x00, 0x01};
                putLE32(out, ilWidth);
                putLE32(out, win.uLines);
                putLE32(out, uIlOffsetX);
                putLE32(out, uIlOffsetY);
                putLE32(out, uIlTrim);
                return true;
            }
            continue;
        }
        case PHASE_DATA: {
            if (pageDataFinished()) {
                if (llFaultLine >= 0 && ullLinesBefore + uRow == uint64_t(llFaultLine)) {
                    out = statusRecord(static_cast<unsigned char>(iFaultStatus));
                    iEndStatus = iFaultStatus;
                    phase = PHASE_DONE;
                    return true;
                }
                phase = PHASE_PAGE_END;
                continue;
            }
            out.assign(static_cast<size_t>(iStrip), 0);
            const size_t limit = static_cast<size_t>(iStrip) + static_cast<size_t>(iBlock);
            while (out.size() < limit) {
                if (linePos >= line.size()) {
                    if (uRow >= ullStopRow) break;
                    makeLine(uRow++);
                    linePos = 0;
                    continue;
                }
                size_t n = std::min(limit - out.size(), line.size() - linePos);
                out.insert(out.end(), line.begin() + static_cast<long>(linePos),
                           line.begin() + static_cast<long>(linePos + n));
                linePos += n;
            }
            const size_t payload = out.size() - static_cast<size_t>(iStrip);
            if (payload == 0) continue;  // lines without bytes (width 0)
            const unsigned lenField = static_cast<unsigned>(payload) + static_cast<unsigned>(iStripMin);
            out[0] = ESC;
            out[1] = MSG_SCANNER;
            out[2] = REQ_DATA;
            out[4] = static_cast<unsigned char>(lenField);
            out[5] = static_cast<unsigned char>(lenField >> 8);
            return true;
        }
        case PHASE_PAGE_END:
            ullLinesBefore += win.uLines;
            uRow = 0;
            ullStopRow = 0;
            line.clear();
            linePos = 0;
            if (++iPage < iPages) {
                out = statusRecord(REC_PAGE_END);
                phase = PHASE_PAGE_START;
                return true;
            }
            out = statusRecord(REC_COMPLETE);
            iEndStatus = REC_COMPLETE;
            phase = PHASE_DONE;
            return true;
        case PHASE_DONE:
            return false;
        }
    }
}

// ----------------------------------------------------------------- SimDevice

SimDevice::SimDevice(const DeviceConfig& c, int index, EventSink sink) : cfg(c), iIndex(index), fnEvent(std::move(sink)) {}

void SimDevice::event(const std::string& s) const {
    if (fnEvent) fnEvent(s);
}

bool SimDevice::unwrapNpa(const unsigned char* p, int len, const unsigned char*& cmd, int& cmdLen) {
    const char* why = nullptr;
    if (len < NPA_HEADER_LEN || p[0] != NPA_START) why = "no packet start";
    else if (int((p[1] << 8 | p[2]) + 3) != len) why = "length field does not match the transfer";
    else if (std::memcmp(p + 3, NPA_FIXED, sizeof NPA_FIXED) != 0) why = "bad fixed header bytes";
    else {
        const int pad = p[11], trailer = 4 * p[10];
        cmd = p + NPA_HEADER_LEN + pad;
        cmdLen = len - NPA_HEADER_LEN - pad - trailer;
        if (cmdLen < 0) why = "padding and trailer longer than the packet";
        else
            for (int i = 0; i < trailer; ++i)
                if (cmd[cmdLen + i] != p[6 + i % 4]) why = "bad trailer";
    }
    if (why) {
        event(textf("npa dev=%d malformed packet: %s", iIndex, why));
        return false;
    }
    return true;
}

void SimDevice::handleWrite(const unsigned char* p, int len) {
    if (!cfg.bNpa) {
        handleRequest(p, len);
        return;
    }
    const unsigned char* cmd = nullptr;
    int cmdLen = 0;
    if (unwrapNpa(p, len, cmd, cmdLen)) handleRequest(cmd, cmdLen);
}

std::vector<unsigned char> SimDevice::header(unsigned char cCmd, unsigned char cCode, size_t dataLen,
                                             int iStatus) const {
    return {ESC, cCmd, cCode, 0x00, static_cast<unsigned char>(dataLen), static_cast<unsigned char>(dataLen >> 8),
            static_cast<unsigned char>(iStatus), static_cast<unsigned char>(cfg.iFeeder)};
}

void SimDevice::queueReply(std::vector<unsigned char> reply) {
    auto truncate = [this](std::vector<unsigned char>& v) {
        int n = cfg.faults[FAULT_SHORT_REPLY];
        if (n >= 0 && static_cast<size_t>(n) < v.size()) v.resize(static_cast<size_t>(n));
    };
    // A reply with another code: status replies get the unlock code, all others the status code.
    const unsigned char wrongCode = (reply[1] == MSG_SCANNER && reply[2] == REQ_STATUS) ? REQ_UNLOCK : REQ_STATUS;
    for (int i = 0; i < cfg.faults[FAULT_WRONG_CODE]; ++i) {
        std::vector<unsigned char> w = header(MSG_SCANNER, wrongCode, 0, cfg.iReplyStatus);
        truncate(w);
        queue.push_back(std::move(w));
    }
    truncate(reply);
    queue.push_back(std::move(reply));
}

std::vector<unsigned char> SimDevice::propertiesBlock() const {
    if (cfg.bPropsRaw) return cfg.propsRaw;
    const PropsConfig& pr = cfg.props;
    std::vector<unsigned char> b = {static_cast<unsigned char>(pr.iMajor),       static_cast<unsigned char>(pr.iMinor),
                                    static_cast<unsigned char>(pr.iCodeset),     static_cast<unsigned char>(pr.iCompression),
                                    static_cast<unsigned char>(pr.iAlignColor),  static_cast<unsigned char>(pr.iAlignGray)};
    const bool ext = pr.iMajor >= 5;
    if (ext) {
        const unsigned char more[6] = {static_cast<unsigned char>(pr.iSupport), 0, 0, static_cast<unsigned char>(pr.iDuplex),
                                       static_cast<unsigned char>(pr.iTypes), 0};
        b.insert(b.end(), more, more + 6);
    }
    b.push_back(static_cast<unsigned char>(cfg.sources.size()));
    for (const SourceConfig& s : cfg.sources) {
        b.push_back(static_cast<unsigned char>(s.iType));
        b.push_back(static_cast<unsigned char>(s.iBarId));
        putLE32(b, s.uOrigin);
        putLE32(b, s.uWidth);
        putLE32(b, s.uHeight);
        b.push_back(static_cast<unsigned char>(s.resolutions.size()));
        for (const ResolutionConfig& r : s.resolutions) {
            putLE32(b, r.uHorizontal);
            putLE32(b, r.uVertical);
            b.push_back(r.cDepth);
        }
        if (ext) b.push_back(0);  // one byte follows each record from major 5 on
    }
    return b;
}

std::vector<unsigned char> SimDevice::sizesBlock() const {
    if (cfg.bSizesRaw) return cfg.sizesRaw;
    std::vector<unsigned char> b = {static_cast<unsigned char>(cfg.sizes.size())};
    for (const SizeConfig& s : cfg.sizes) {
        putLE16(b, static_cast<unsigned>(s.szName.size()));
        b.insert(b.end(), s.szName.begin(), s.szName.end());
        putLE16(b, s.uWidth);
        putLE16(b, s.uLength);
        b.push_back(0);
    }
    return b;
}

// Scan settings of the settings requests (326/401/402) and of the scan-lock
// record (500) share one layout from the first byte after the header.
Window SimDevice::decodeWindow(const unsigned char* p, int len, int iRequest) const {
    Window w;
    const unsigned char* d = p + HEADER_LEN;
    const int n = len - HEADER_LEN;
    w.iColor = static_cast<int>(rd8(d, n, 0));
    w.iCompression = static_cast<int>(rd8(d, n, 1));
    w.iCompressionLevel = static_cast<int>(rd8(d, n, 2));
    w.iFilter = static_cast<int>(rd8(d, n, 3));
    w.uWidth = rdLE32(d, n, 4);
    w.uLines = rdLE32(d, n, 8);
    w.uOffsetX = rdLE32(d, n, 12);
    w.uOffsetY = rdLE32(d, n, 16);
    w.iXRes = static_cast<int>(rdLE16(d, n, 20));
    w.iYRes = static_cast<int>(rdLE16(d, n, 22));
    w.iSource = (cfg.iVersion != 326 && n > 24) ? static_cast<int>(d[24]) : -1;
    w.iRequest = iRequest;
    if (n > 0) w.data.assign(d, d + n);
    return w;
}

int SimDevice::checkWindow(const Window& w) const {
    const char* why = nullptr;
    if (w.iColor != COLOR_LINEART && w.iColor != COLOR_GREY && w.iColor != COLOR_RGB) why = "unknown colour code";
    else if (w.uWidth > MAX_WINDOW_WIDTH) why = "width too large";
    else if (w.uLines > MAX_WINDOW_LINES) why = "too many lines";
    if (!why) return STATUS_GOOD;
    event(textf("window dev=%d refused: %s", iIndex, why));
    return STATUS_INVALID;
}

void SimDevice::start(const unsigned char* p, int len) {
    Window w;
    bool have = false;
    if (cfg.iVersion != 500 && len > HEADER_LEN) {
        w = decodeWindow(p, len, 4);
        have = true;
    } else if (bHaveLockWindow) {
        w = lockWindow;
        have = true;
    }
    int status = cfg.iStartStatus;
    if (!have) {
        event(textf("start dev=%d without a window", iIndex));
        status = STATUS_INVALID;
    } else {
        scanWindow = w;
        bHaveLastWindow = true;
        event(textf("window dev=%d color=%d width=%u lines=%u x=%u y=%u xres=%d yres=%d compression=%d source=%d", iIndex,
                  w.iColor, w.uWidth, w.uLines, w.uOffsetX, w.uOffsetY, w.iXRes, w.iYRes, w.iCompression, w.iSource));
        if (checkWindow(w) != STATUS_GOOD) status = STATUS_INVALID;
    }
    queueReply(header(MSG_SCANNER, REQ_START, 0, status));
    if (status != STATUS_GOOD) {
        event(textf("start dev=%d status=%d: no image", iIndex, status));
        scan.reset();
        return;
    }
    if (w.iCompression == 1) event(textf("compression dev=%d mode 1 requested: raw data sent", iIndex));
    // The earliest of the configured abort, device-abort and jam faults ends the page.
    static const struct { FaultId f; int status; } ENDERS[] = {
        {FAULT_ABORT, REC_HOST_ABORT}, {FAULT_DEVICE_ABORT, REC_DEVICE_ABORT}, {FAULT_JAM, REC_JAM}};
    int faultLine = -1, faultStatus = 0;
    for (const auto& e : ENDERS) {
        int n = cfg.faults[e.f];
        if (n >= 0 && (faultLine < 0 || n < faultLine)) {
            faultLine = n;
            faultStatus = e.status;
        }
    }
    scan.reset(new ScanStream(cfg, w, faultLine, faultStatus));
    event(textf("scan dev=%d start", iIndex));
}

void SimDevice::handleRequest(const unsigned char* p, int len) {
    if (len < HEADER_LEN) {
        event(textf("request dev=%d malformed: %d bytes", iIndex, len));
        return;
    }
    const int declared = static_cast<int>(rdLE16(p, len, 4));
    if (declared != len - HEADER_LEN)
        event(textf("request dev=%d length field %d with %d data bytes", iIndex, declared, len - HEADER_LEN));
    if (p[0] == ESC && p[1] == MSG_DATA && p[2] == REQ_WAKE) {
        queueReply(header(MSG_DATA, REQ_WAKE, 0, cfg.iReplyStatus));
        return;
    }
    if (p[0] != ESC || p[1] != MSG_SCANNER) {
        event(textf("request dev=%d unknown: %s", iIndex, hexText(p, len, 16).c_str()));
        return;
    }
    switch (p[2]) {
    case REQ_CANCEL:
        event(textf("cancel dev=%d", iIndex));
        dropAll();
        return;
    case REQ_STATUS:
        queueReply(header(MSG_SCANNER, REQ_STATUS, 0, cfg.iReplyStatus));
        return;
    case REQ_PROPERTIES:
    case REQ_SIZES: {
        std::vector<unsigned char> block = p[2] == REQ_PROPERTIES ? propertiesBlock() : sizesBlock();
        std::vector<unsigned char> r = header(MSG_SCANNER, p[2], block.size(), cfg.iReplyStatus);
        r.insert(r.end(), block.begin(), block.end());
        queueReply(std::move(r));
        return;
    }
    case REQ_SCAN_PARAMS: {
        std::vector<unsigned char> r = header(MSG_SCANNER, REQ_SCAN_PARAMS, SCAN_PARAMS_LEN, cfg.iReplyStatus);
        r.insert(r.end(), cfg.scanParams.begin(), cfg.scanParams.end());
        queueReply(std::move(r));
        return;
    }
    case REQ_LOCK:
        bHaveLockWindow = len > HEADER_LEN;
        if (bHaveLockWindow) lockWindow = decodeWindow(p, len, 3);
        queueReply(header(MSG_SCANNER, REQ_LOCK, 0, cfg.iLockStatus));
        return;
    case REQ_START:
        start(p, len);
        return;
    case REQ_UNLOCK:
        bHaveLockWindow = false;
        queueReply(header(MSG_SCANNER, REQ_UNLOCK, 0, cfg.iReplyStatus));
        return;
    case REQ_DATA:
        queueReply(header(MSG_SCANNER, REQ_DATA, 0, cfg.iReplyStatus));
        return;
    default:
        event(textf("request dev=%d unknown: %s", iIndex, hexText(p, len, 16).c_str()));
        return;
    }
}

int SimDevice::read(unsigned char* buf, int cap) {
    if (!bHaveCurrent) {
        if (!queue.empty()) {
            current = std::move(queue.front());
            queue.pop_front();
        } else if (scan) {
            if (!scan->next(current)) {
                scan.reset();
                return -1;
            }
            if (scan->finished()) {
                event(textf("scan dev=%d end status=%d lines=%llu", iIndex, scan->endStatus(),
                          static_cast<unsigned long long>(scan->linesSent())));
                scan.reset();
            }
        } else {
            return -1;
        }
        bHaveCurrent = true;
        currentPos = 0;
    }
    const size_t n = std::min(static_cast<size_t>(std::max(cap, 0)), current.size() - currentPos);
    if (n) std::memcpy(buf, current.data() + currentPos, n);
    currentPos += n;
    if (currentPos >= current.size()) {
        bHaveCurrent = false;
        current.clear();
    }
    return static_cast<int>(n);
}

void SimDevice::inject(const unsigned char* p, int len) {
    queue.emplace_back(p, p + std::max(len, 0));
}

void SimDevice::dropAll() {
    queue.clear();
    current.clear();
    bHaveCurrent = false;
    currentPos = 0;
    scan.reset();
}

int SimDevice::queuedTransfers() const {
    return static_cast<int>(queue.size()) + (bHaveCurrent ? 1 : 0) + (scan ? 1 : 0);
}

bool SimDevice::lastWindow(Window& w) const {
    if (!bHaveLastWindow) return false;
    w = scanWindow;
    return true;
}

}  // namespace usbsim
