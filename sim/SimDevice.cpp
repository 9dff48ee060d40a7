// Device side of a simulated scanner: requests in, replies and image out.
#include "SimDevice.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "WicketEncoder.h"

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
constexpr unsigned char REC_IN_PROGRESS = 0;
constexpr unsigned char REC_COMPLETE = 1;
constexpr unsigned char REC_OUT_OF_MEMORY = 2;
constexpr unsigned char REC_HOST_ABORT = 3;
constexpr unsigned char REC_DEVICE_ABORT = 4;
constexpr unsigned char REC_JAM = 5;
constexpr unsigned char REC_COMM_ERROR = 6;
constexpr unsigned char REC_PAGE_END = 7;
constexpr unsigned char REC_JOB_START = 8;
constexpr unsigned char REC_PAGE_START = 9;
constexpr unsigned char REC_INTERLEAVE = 9;  // a page start whose byte 10 is 1
constexpr unsigned char REC_UNDEFINED = 0x5A;  // a status no device defines
constexpr int INTERLEAVE_RECORD_LEN = 31;
// Job messages: 8-byte header whose bytes 4-5 count what follows, the status,
// one unused byte, then the payload.
constexpr size_t JOB_HEADER_LEN = 10;
constexpr size_t RECORD_MARK_LEN = 3;  // 1B 53 02 begins every scan record
// A message that is no scan record: a status reply in the middle of the image.
const unsigned char FOREIGN_MESSAGE[8] = {ESC, MSG_SCANNER, REQ_STATUS, 0x00, 0x00, 0x00, 0x80, 0x00};

// Source codes of the scan window.
constexpr int SOURCE_ADF_SIMPLEX = 2;
constexpr int SOURCE_ADF_JOB = 3;
constexpr int SOURCE_ADF = 4;

bool isFeederSource(int source) {
    return source == SOURCE_ADF_SIMPLEX || source == SOURCE_ADF_JOB || source == SOURCE_ADF;
}

// Page p of a scan is the page formula shifted by 64 * (p - 1) columns.
constexpr uint64_t PAGE_SHIFT = 64;
// A host reads the stream in pieces whose size is a multiple of this.
constexpr size_t READ_ALIGN = 512;
// Encoded bands kept for later scans, at most this many bytes.
constexpr size_t BAND_CACHE_BYTES = size_t(64) << 20;

// How each fault that counts image lines ends the scan.
enum EndKind { END_RECORD, END_FOREIGN, END_STALL, END_UNPLUG };
struct FaultEnd {
    FaultId fault;
    EndKind kind;
    unsigned char status;
};
const FaultEnd FAULT_ENDS[] = {
    {FAULT_ABORT, END_RECORD, REC_HOST_ABORT},     {FAULT_DEVICE_ABORT, END_RECORD, REC_DEVICE_ABORT},
    {FAULT_JAM, END_RECORD, REC_JAM},              {FAULT_OOM, END_RECORD, REC_OUT_OF_MEMORY},
    {FAULT_COMM_ERROR, END_RECORD, REC_COMM_ERROR}, {FAULT_BAD_STATUS, END_RECORD, REC_UNDEFINED},
    {FAULT_NOT_RECORD, END_FOREIGN, 0},            {FAULT_STALL, END_STALL, 0},
    {FAULT_UNPLUG_LINES, END_UNPLUG, 0}};

const FaultEnd* faultEnd(int fault) {
    for (const FaultEnd& e : FAULT_ENDS)
        if (e.fault == fault) return &e;
    return nullptr;
}

// Feeder states in byte 7 of a reply.
constexpr int FEEDER_EMPTY = 1;
constexpr int FEEDER_LOADED = 2;

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

// 1B 53 02 00 <n LE16> 00 00 <status> 00 <payload>, n = 2 + payload length.
std::vector<unsigned char> jobMessage(unsigned char cStatus, const unsigned char* p, size_t n) {
    const size_t lenField = JOB_HEADER_LEN - HEADER_LEN + n;
    std::vector<unsigned char> r = {ESC,  MSG_SCANNER, REQ_DATA, 0x00, static_cast<unsigned char>(lenField),
                                    static_cast<unsigned char>(lenField >> 8), 0x00, 0x00, cStatus, 0x00};
    if (n) r.insert(r.end(), p, p + n);
    return r;
}

std::vector<unsigned char> statusRecord(unsigned char cStatus) { return jobMessage(cStatus, nullptr, 0); }

bool isRecordMark(const unsigned char* p) { return p[0] == ESC && p[1] == MSG_SCANNER && p[2] == REQ_DATA; }

// Length of a transfer of band bytes that starts at s, n wanted of avail at
// hand. The host takes a piece of the stream that begins with 1B 53 02 for a
// scan record, and it begins pieces at the start of a transfer and at
// multiples of its read size inside one. So no offset that is a multiple of
// 512 may begin with those bytes (the transfer ends one byte into them
// instead), and the next transfer may not begin with them (this one is one
// byte shorter then). Pieces of 8 bytes or fewer never count as records.
size_t bareTransferLength(const unsigned char* s, size_t n, size_t avail) {
    for (size_t o = READ_ALIGN; o + size_t(HEADER_LEN) < n; o += READ_ALIGN)
        if (isRecordMark(s + o)) return o + 1;
    if (n > 1 && n + RECORD_MARK_LEN <= avail && isRecordMark(s + n)) --n;
    return n;
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

// ----------------------------------------------------------------- BandCache

bool BandCache::Key::operator<(const Key& o) const {
    return std::tie(ullX, uY256, uWidth, uLines, iColor, iQuality, bBgr) <
           std::tie(o.ullX, o.uY256, o.uWidth, o.uLines, o.iColor, o.iQuality, o.bBgr);
}

BandCache::Band BandCache::find(const Key& k) const {
    auto it = bands.find(k);
    return it == bands.end() ? Band() : it->second;
}

void BandCache::add(const Key& k, Band b) {
    if (total + b->size() > BAND_CACHE_BYTES) {
        bands.clear();
        total = 0;
    }
    total += b->size();
    bands[k] = std::move(b);
}

// ---------------------------------------------------------------- ScanStream

ScanStream::ScanStream(const DeviceConfig& cfg, const Window& w, const ScanPlan& p, BandCache& c, BandSink bandSink,
                       EventSink eventSink, int dev)
    : win(w),
      plan(p),
      cache(c),
      fnBand(std::move(bandSink)),
      fnEvent(std::move(eventSink)),
      iDevice(dev),
      iBlock(cfg.iBlock),
      bBgr(cfg.bBgr),
      // Interleaving is a property of raw lines in the ordinary stream only; line art is never interleaved.
      bInterleave(cfg.bInterleave && w.iColor != COLOR_LINEART && !p.bJob && !p.bCompressed),
      uIlOffsetX(cfg.uInterleaveOffsetX),
      uIlTrim(cfg.uInterleaveTrim),
      uIlOffsetY(cfg.uInterleaveOffsetY),
      iQuality(cfg.iWicketQuality),
      iBandLines(cfg.iWicketBand),
      phase(p.bJob ? PHASE_JOB_START : PHASE_PAGE_START) {
    stripFor(cfg.iVersion, iStrip, iStripMin);
}

std::string ScanStream::endText() const {
    if (bUnplug) return "unplugged";
    if (bStalled) return "stalled";
    if (iEndStatus < 0) return "foreign";
    return textf("status=%d", iEndStatus);
}

// One line of the page as the device sends it, for page row `row`.
void ScanStream::makeLine(uint64_t row) {
    const uint64_t y = uint64_t(win.uOffsetY) + row;
    const uint64_t x0 = uint64_t(win.uOffsetX) + ullXShift;
    const uint32_t width = win.uWidth;
    if (win.iColor == COLOR_LINEART) {
        line.assign((size_t(width) + 7) / 8, 0);
        for (uint32_t c = 0; c < width; ++c) {
            uint64_t x = x0 + c;
            if (((x >> 3) + (y >> 3)) & 1) line[c >> 3] |= static_cast<unsigned char>(0x80u >> (c & 7));
        }
        return;
    }
    const size_t channels = win.iColor == COLOR_RGB ? 3 : 1;
    auto pixel = [&](uint32_t c, unsigned char* out) {
        uint64_t x = x0 + c;
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

// Makes the next unit of page bytes: a raw line, or a band of up to
// iBandLines lines in compressed mode. False when the page has no more.
bool ScanStream::nextUnit() {
    unitPos = 0;
    unitLen = 0;
    if (uRow >= ullStopRow) return false;
    if (!plan.bCompressed) {
        makeLine(uRow++);
        pUnit = line.data();
        unitLen = line.size();
        return true;
    }
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(uint64_t(iBandLines), ullStopRow - uRow));
    const BandCache::Key key{uint64_t(win.uOffsetX) + ullXShift, unsigned((uint64_t(win.uOffsetY) + uRow) & 255u),
                             win.uWidth, n, win.iColor, iQuality, bBgr};
    band = cache.find(key);
    if (!band) {
        const size_t channels = win.iColor == COLOR_RGB ? 3 : 1;
        const size_t rowBytes = size_t(win.uWidth) * channels;
        std::vector<unsigned char> pixels(rowBytes * n);
        for (uint32_t r = 0; r < n; ++r) {
            makeLine(uRow + r);
            std::copy(line.begin(), line.end(), pixels.begin() + static_cast<long>(r * rowBytes));
        }
        band = std::make_shared<const std::vector<unsigned char>>(wicketEncodeBand(
            pixels.data(), int(win.uWidth), int(n), long(rowBytes), int(channels), iQuality, true));
        cache.add(key, band);
    }
    uRow += n;
    if (fnBand) fnBand(band->data(), band->size());
    pUnit = band->data();
    unitLen = band->size();
    return true;
}

// Gathers page bytes until n are waiting to be sent or the page has no more.
bool ScanStream::fillStage(size_t n) {
    if (stagePos > 0 && stagePos >= stage.size() / 2) {
        stage.erase(stage.begin(), stage.begin() + static_cast<long>(stagePos));
        stagePos = 0;
    }
    while (stage.size() - stagePos < n) {
        if (unitPos >= unitLen && !nextUnit()) break;
        const size_t k = std::min(n - (stage.size() - stagePos), unitLen - unitPos);
        stage.insert(stage.end(), pUnit + unitPos, pUnit + unitPos + k);
        unitPos += k;
    }
    return stage.size() > stagePos;
}

bool ScanStream::morePages() const {
    if (plan.pFeeder) return plan.bJob ? plan.pFeeder->iLeft > 0 : iPage < 1;
    return iPage < plan.iPages;
}

// The next transfer of page data, framed for the stream; false when the page's
// data has all been sent.
bool ScanStream::dataTransfer(std::vector<unsigned char>& out) {
    const size_t block = static_cast<size_t>(iBlock);
    const bool bare = plan.bCompressed && !plan.bJob;
    if (!fillStage(block + (bare ? RECORD_MARK_LEN : 0))) return false;
    const unsigned char* s = stage.data() + stagePos;
    const size_t avail = stage.size() - stagePos;
    size_t n = std::min(block, avail);
    if (bare) n = bareTransferLength(s, n, avail);
    if (plan.bJob) {
        out = jobMessage(REC_IN_PROGRESS, s, n);
    } else {
        out.assign(bare ? 0 : static_cast<size_t>(iStrip), 0);
        out.insert(out.end(), s, s + n);
    }
    stagePos += n;
    if (!plan.bJob && !bare) {
        const unsigned lenField = static_cast<unsigned>(n) + static_cast<unsigned>(iStripMin);
        out[0] = ESC;
        out[1] = MSG_SCANNER;
        out[2] = REQ_DATA;
        out[4] = static_cast<unsigned char>(lenField);
        out[5] = static_cast<unsigned char>(lenField >> 8);
    }
    return true;
}

bool ScanStream::faultItem(std::vector<unsigned char>& out) {
    const FaultEnd* e = faultEnd(plan.iFault);
    phase = PHASE_DONE;
    switch (e ? e->kind : END_STALL) {
    case END_RECORD:
        out = statusRecord(e->status);
        iEndStatus = e->status;
        return true;
    case END_FOREIGN:
        out.assign(FOREIGN_MESSAGE, FOREIGN_MESSAGE + sizeof FOREIGN_MESSAGE);
        return true;
    case END_UNPLUG:
        bUnplug = true;
        return false;
    case END_STALL:
        bStalled = true;
        return false;
    }
    return false;
}

bool ScanStream::next(std::vector<unsigned char>& out) {
    for (;;) {
        switch (phase) {
        case PHASE_JOB_START:
            out = statusRecord(REC_JOB_START);
            phase = PHASE_PAGE_START;
            return true;
        case PHASE_PAGE_START: {
            uint64_t page = uint64_t(iPage) + 1;
            if (plan.pFeeder) {
                // The feeder may have been emptied at run time since START:
                // the page is then scanned without a sheet to take.
                Feeder& f = *plan.pFeeder;
                if (f.iLeft > 0) {
                    --f.iLeft;
                    ++f.iTaken;
                    if (fnEvent) fnEvent(textf("feeder dev=%d sheet=%d left=%d", iDevice, f.iTaken, f.iLeft));
                }
                page = uint64_t(std::max(f.iTaken, 1));
            }
            ++iPage;
            ullXShift = PAGE_SHIFT * (page - 1);
            ullStopRow = win.uLines;
            if (plan.llFaultLine >= 0 && uint64_t(plan.llFaultLine) >= ullLinesBefore &&
                uint64_t(plan.llFaultLine) - ullLinesBefore < ullStopRow)
                ullStopRow = uint64_t(plan.llFaultLine) - ullLinesBefore;
            uRow = 0;
            unitLen = unitPos = 0;
            stage.clear();
            stagePos = 0;
            phase = PHASE_DATA;
            if (plan.bJob) {
                out = statusRecord(REC_PAGE_START);
                return true;
            }
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
        case PHASE_DATA:
            if (dataTransfer(out)) return true;
            // A fault counted to the last line of a job's page comes after that
            // page's end record; everywhere else right after its line.
            if (faultDueAt(ullLinesBefore + uRow) && !(plan.bJob && uRow == win.uLines)) {
                phase = PHASE_FAULT;
                continue;
            }
            phase = PHASE_PAGE_END;
            continue;
        case PHASE_PAGE_END:
            ullLinesBefore += win.uLines;
            uRow = 0;
            ullStopRow = 0;
            if (plan.bJob) {
                out = statusRecord(REC_PAGE_END);
                phase = faultDueAt(ullLinesBefore) ? PHASE_FAULT : morePages() ? PHASE_PAGE_START : PHASE_COMPLETE;
                return true;
            }
            if (morePages()) {
                out = statusRecord(REC_PAGE_END);
                phase = PHASE_PAGE_START;
                return true;
            }
            phase = PHASE_COMPLETE;
            continue;
        case PHASE_COMPLETE:
            out = statusRecord(REC_COMPLETE);
            iEndStatus = REC_COMPLETE;
            phase = PHASE_DONE;
            return true;
        case PHASE_FAULT:
            return faultItem(out);
        case PHASE_DONE:
            return false;
        }
    }
}

// ----------------------------------------------------------------- SimDevice

SimDevice::SimDevice(const DeviceConfig& c, int index, EventSink sink, ScanStream::BandSink bandSink)
    : cfg(c), iIndex(index), fnEvent(std::move(sink)), fnBand(std::move(bandSink)) {
    feeder.iLeft = cfg.iSheets;
}

// Byte 7 of every reply: with sheets simulated 2 while some remain and 1 when
// the feeder is empty; otherwise the scenario's fixed state.
int SimDevice::feederByte() const {
    if (!feeder.active()) return cfg.iFeeder;
    return feeder.iLeft > 0 ? FEEDER_LOADED : FEEDER_EMPTY;
}

void SimDevice::loadFeeder(int n) {
    feeder.iLeft = n < 0 ? -1 : n;
    feeder.iTaken = 0;
    event(textf("feeder dev=%d loaded sheets=%d", iIndex, feeder.iLeft));
}

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
            static_cast<unsigned char>(iStatus), static_cast<unsigned char>(feederByte())};
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

// How the scan of window w goes out: job or single stream, raw or compressed,
// from the feeder's sheets or not, and the earliest fault that counts lines.
ScanPlan SimDevice::planFor(const Window& w) {
    ScanPlan plan;
    const bool fromFeeder = isFeederSource(w.iSource);
    plan.bJob = w.iSource == SOURCE_ADF_JOB || (cfg.bMultipage && fromFeeder);
    plan.bCompressed = w.iCompression == 1 && w.iColor != COLOR_LINEART && w.uWidth > 0;
    plan.pFeeder = fromFeeder && feeder.active() ? &feeder : nullptr;
    plan.iPages = cfg.iPages;
    for (const FaultEnd& e : FAULT_ENDS) {
        const int n = cfg.faults[e.fault];
        if (n >= 0 && (plan.llFaultLine < 0 || n < plan.llFaultLine)) {
            plan.llFaultLine = n;
            plan.iFault = e.fault;
        }
    }
    return plan;
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
        // An empty feeder refuses the scan; the reply's feeder byte says why.
        if (status == STATUS_GOOD && isFeederSource(w.iSource) && feeder.active() && feeder.iLeft == 0) {
            event(textf("start dev=%d refused: feeder empty", iIndex));
            status = STATUS_INVALID;
        }
    }
    queueReply(header(MSG_SCANNER, REQ_START, 0, status));
    if (status != STATUS_GOOD) {
        event(textf("start dev=%d status=%d: no image", iIndex, status));
        scan.reset();
        return;
    }
    const ScanPlan plan = planFor(w);
    if (w.iCompression == 1 && !plan.bCompressed) event(textf("compression dev=%d not for this window: raw data sent", iIndex));
    scan.reset(new ScanStream(cfg, w, plan, bands, fnBand, fnEvent, iIndex));
    event(textf("scan dev=%d start", iIndex));
    event(textf("scan dev=%d plan job=%d compressed=%d quality=%d band=%d sheets=%d", iIndex, plan.bJob ? 1 : 0,
                plan.bCompressed ? 1 : 0, cfg.iWicketQuality, cfg.iWicketBand, plan.pFeeder ? feeder.iLeft : -1));
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
            const bool more = scan->next(current);
            if (scan->finished())
                event(textf("scan dev=%d end %s lines=%llu", iIndex, scan->endText().c_str(),
                            static_cast<unsigned long long>(scan->linesSent())));
            if (!more) {
                const bool unplug = scan->unplugs();
                scan.reset();
                return unplug ? READ_UNPLUG : -1;
            }
            if (scan->finished()) scan.reset();
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
