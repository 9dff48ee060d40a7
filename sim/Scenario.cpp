// Parser of the scenario text. Every field is range-checked; a line that does
// not parse is skipped with a message and the rest of the scenario still loads.
#include "Scenario.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>

namespace usbsim {

namespace {

struct FaultInfo {
    const char* szName;
    int iOff;
    long long llMin;
    long long llMax;
};

const FaultInfo FAULTS[FAULT_COUNT] = {
    {"busy", 0, 0, 3},
    {"setconfig_eperm", 0, 0, 1},
    {"open_fail", 0, 0, 1},
    {"unplug", -1, -1, 1000000000},
    {"read_timeout", -1, -1, 1000000000},
    {"short_reply", -1, -1, 65535},
    {"wrong_code", 0, 0, 16},
    {"abort", -1, -1, 1000000000},
    {"device_abort", -1, -1, 1000000000},
    {"jam", -1, -1, 1000000000},
    {"write_fail", -1, -1, 1000000000},
    {"oom", -1, -1, 1000000000},
    {"comm_error", -1, -1, 1000000000},
    {"bad_status", -1, -1, 1000000000},
    {"not_record", -1, -1, 1000000000},
    {"stall", -1, -1, 1000000000},
    {"unplug_lines", -1, -1, 1000000000},
};

// Image windows and resolutions are 32-bit on the wire.
constexpr long long MAX_U32 = 0xFFFFFFFFLL;

std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

// Text after the first n words of the line, blanks at both ends removed.
std::string restAfterWords(const std::string& line, int n) {
    size_t pos = 0;
    for (int i = 0; i < n; ++i) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string::npos) return std::string();
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos) return std::string();
    }
    size_t b = line.find_first_not_of(" \t", pos);
    if (b == std::string::npos) return std::string();
    size_t e = line.find_last_not_of(" \t\r");
    return line.substr(b, e - b + 1);
}

bool parseNumber(const std::string& s, long long llMin, long long llMax, long long& out) {
    if (s.empty() || s.size() > 24) return false;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 0);
    if (errno != 0 || end == s.c_str() || *end != '\0' || v < llMin || v > llMax) return false;
    out = v;
    return true;
}

template <typename T>
bool parseInto(const std::string& s, long long llMin, long long llMax, T& out) {
    long long v = 0;
    if (!parseNumber(s, llMin, llMax, v)) return false;
    out = static_cast<T>(v);
    return true;
}

bool parseOnOff(const std::string& s, bool& out) {
    if (s == "on" || s == "1" || s == "yes") {
        out = true;
        return true;
    }
    if (s == "off" || s == "0" || s == "no") {
        out = false;
        return true;
    }
    return false;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Hex bytes from words such as "1B 53" or "1b53": each word an even number of digits.
bool parseHexWords(const std::vector<std::string>& words, size_t first, size_t maxBytes,
                   std::vector<unsigned char>& out) {
    out.clear();
    for (size_t i = first; i < words.size(); ++i) {
        const std::string& w = words[i];
        if (w.size() % 2 != 0) return false;
        for (size_t k = 0; k < w.size(); k += 2) {
            int hi = hexDigit(w[k]), lo = hexDigit(w[k + 1]);
            if (hi < 0 || lo < 0 || out.size() >= maxBytes) return false;
            out.push_back(static_cast<unsigned char>(hi << 4 | lo));
        }
    }
    return true;
}

// One key=value attribute of a statement and how its value is taken.
struct Attr {
    const char* szName;
    std::function<bool(const std::string&)> parse;
};

template <typename T>
Attr num(const char* szName, long long llMin, long long llMax, T& field) {
    return {szName, [llMin, llMax, &field](const std::string& v) { return parseInto(v, llMin, llMax, field); }};
}

class Parser {
public:
    Parser(Scenario& s, std::string& e) : scn(s), errors(e) {}

    void line(int iLineNo, const std::string& raw) {
        iLine = iLineNo;
        if (raw.size() > static_cast<size_t>(MAX_LINE)) {
            fail("line longer than 4096 characters");
            return;
        }
        std::vector<std::string> w = splitWords(raw);
        if (w.empty() || w[0][0] == '#') return;
        const std::string& key = w[0];
        if (key == "bus") {
            bus(w);
            return;
        }
        if (key == "device") {
            device(w);
            return;
        }
        if (!pDev) {
            if (bSkipping) return;  // the device line itself was reported
            fail("'" + key + "' before the first device line");
            return;
        }
        if (!deviceKey(key, w, raw)) fail("unknown key '" + key + "'");
    }

    int errorCount() const { return iErrors; }

private:
    Scenario& scn;
    std::string& errors;
    DeviceConfig* pDev = nullptr;
    bool bDefaultInterface = true;
    bool bSkipping = false;
    int iLine = 0;
    int iErrors = 0;

    void fail(const std::string& msg) {
        errors += "line " + std::to_string(iLine) + ": " + msg + "\n";
        ++iErrors;
    }

    void addBus(const std::string& name) {
        for (const auto& b : scn.busses)
            if (b == name) return;
        scn.busses.push_back(name);
    }

    void bus(const std::vector<std::string>& w) {
        if (w.size() != 2 || !validName(w[1])) {
            fail("usage: bus NAME");
            return;
        }
        addBus(w[1]);
    }

    void device(const std::vector<std::string>& w) {
        pDev = nullptr;
        bSkipping = true;
        if (w.size() < 3 || !validName(w[1]) || !validName(w[2])) {
            fail("usage: device BUS FILE vid=N pid=N [class=N subclass=N protocol=N bcd=N]");
            return;
        }
        if (scn.devices.size() >= static_cast<size_t>(MAX_DEVICES)) {
            fail("too many devices");
            return;
        }
        for (const DeviceConfig& other : scn.devices)
            if (other.szBus == w[1] && other.szFile == w[2]) {
                fail("device " + w[1] + " " + w[2] + " declared twice");
                return;
            }
        DeviceConfig d;
        d.szBus = w[1];
        d.szFile = w[2];
        if (!attributes(w, 3, "device",
                        {num("vid", 0, 0xFFFF, d.iVendor), num("pid", 0, 0xFFFF, d.iProduct),
                         num("class", 0, 255, d.iClass), num("subclass", 0, 255, d.iSubClass),
                         num("protocol", 0, 255, d.iProtocol), num("bcd", 0, 0xFFFF, d.iBcdDevice)}))
            return;
        addBus(d.szBus);
        scn.devices.push_back(d);
        pDev = &scn.devices.back();
        bDefaultInterface = true;
        bSkipping = false;
    }

    // The key=value words of w from index first; false (and reported) at the first bad one.
    bool attributes(const std::vector<std::string>& w, size_t first, const char* what, const std::vector<Attr>& attrs) {
        for (size_t i = first; i < w.size(); ++i) {
            std::string k, v;
            if (!splitPair(w[i], k, v)) return false;
            const Attr* a = nullptr;
            for (const Attr& c : attrs)
                if (k == c.szName) a = &c;
            if (!a) {
                fail(std::string("unknown ") + what + " attribute '" + k + "'");
                return false;
            }
            if (!a->parse(v)) {
                fail("bad value for " + k);
                return false;
            }
        }
        return true;
    }

    bool splitPair(const std::string& word, std::string& k, std::string& v) {
        size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0) {
            fail("expected key=value, got '" + word + "'");
            return false;
        }
        k = word.substr(0, eq);
        v = word.substr(eq + 1);
        return true;
    }

    bool deviceKey(const std::string& key, const std::vector<std::string>& w, const std::string& raw) {
        DeviceConfig& d = *pDev;
        if (key == "interface") interfaceLine(w);
        else if (key == "manufacturer") stringLine(raw, 1, d.iManufacturer);
        else if (key == "product") stringLine(raw, 2, d.iProductString);
        else if (key == "serial") stringLine(raw, 3, d.iSerial);
        else if (key == "imanufacturer") oneNumber(w, 0, 255, d.iManufacturer);
        else if (key == "iproduct") oneNumber(w, 0, 255, d.iProductString);
        else if (key == "iserial") oneNumber(w, 0, 255, d.iSerial);
        else if (key == "string") stringIndexLine(w, raw);
        else if (key == "config") oneNumber(w, 0, 255, d.iConfigValue);
        else if (key == "version") versionLine(w);
        else if (key == "npa") onOff(w, d.bNpa);
        else if (key == "props") propsLine(w);
        else if (key == "props_raw") rawBlock(w, d.bPropsRaw, d.propsRaw);
        else if (key == "sizes_raw") rawBlock(w, d.bSizesRaw, d.sizesRaw);
        else if (key == "source") sourceLine(w);
        else if (key == "res") resLine(w);
        else if (key == "size") sizeLine(w, raw);
        else if (key == "feeder") oneNumber(w, 0, 255, d.iFeeder);
        else if (key == "sheets") oneNumber(w, 0, MAX_SHEETS, d.iSheets);
        else if (key == "multipage") onOff(w, d.bMultipage);
        else if (key == "wicket") wicketLine(w);
        else if (key == "lock_status") oneNumber(w, 0, 255, d.iLockStatus);
        else if (key == "start_status") oneNumber(w, 0, 255, d.iStartStatus);
        else if (key == "reply_status") oneNumber(w, 0, 255, d.iReplyStatus);
        else if (key == "scan_params") scanParamsLine(w);
        else if (key == "bgr") onOff(w, d.bBgr);
        else if (key == "interleave") interleaveLine(w);
        else if (key == "block") oneNumber(w, 1, MAX_BLOCK, d.iBlock);
        else if (key == "pages") oneNumber(w, 1, MAX_PAGES, d.iPages);
        else if (key == "fault") faultLine(w);
        else if (key == "replug_after") replugLine(w);
        else return false;
        return true;
    }

    void oneNumber(const std::vector<std::string>& w, long long llMin, long long llMax, int& out) {
        if (w.size() != 2 || !parseInto(w[1], llMin, llMax, out))
            fail("usage: " + w[0] + " N (" + std::to_string(llMin) + ".." + std::to_string(llMax) + ")");
    }

    void onOff(const std::vector<std::string>& w, bool& out) {
        if (w.size() != 2 || !parseOnOff(w[1], out)) fail("usage: " + w[0] + " on|off");
    }

    void setString(int index, const std::string& text) {
        for (auto& s : pDev->strings)
            if (s.first == index) {
                s.second = text;
                return;
            }
        pDev->strings.emplace_back(index, text);
    }

    bool stringOk(const std::string& text) {
        if (text.size() > static_cast<size_t>(MAX_STRING)) {
            fail("string longer than 126 characters");
            return false;
        }
        return true;
    }

    // "manufacturer TEXT": the string gets the given index unless one was set.
    void stringLine(const std::string& raw, int defIndex, int& index) {
        std::string text = restAfterWords(raw, 1);
        if (!stringOk(text)) return;
        if (index == 0) index = defIndex;
        setString(index, text);
    }

    void stringIndexLine(const std::vector<std::string>& w, const std::string& raw) {
        int index = 0;
        if (w.size() < 2 || !parseInto(w[1], 1, 255, index)) {
            fail("usage: string INDEX TEXT");
            return;
        }
        std::string text = restAfterWords(raw, 2);
        if (stringOk(text)) setString(index, text);
    }

    void versionLine(const std::vector<std::string>& w) {
        int v = 0;
        if (w.size() != 2 || !parseInto(w[1], 0, 9999, v) || (v != 326 && v != 401 && v != 402 && v != 500)) {
            fail("usage: version 326|401|402|500");
            return;
        }
        pDev->iVersion = v;
    }

    void interfaceLine(const std::vector<std::string>& w) {
        if (bDefaultInterface) {
            pDev->interfaces.clear();
            bDefaultInterface = false;
        }
        if (pDev->interfaces.size() >= static_cast<size_t>(MAX_INTERFACES)) {
            fail("too many interfaces");
            return;
        }
        InterfaceConfig ic;
        const Attr ep = {"ep", [this, &ic](const std::string& v) { return endpointList(v, ic.endpoints); }};
        if (!attributes(w, 1, "interface",
                        {num("class", 0, 255, ic.iClass), num("subclass", 0, 255, ic.iSubClass),
                         num("protocol", 0, 255, ic.iProtocol), num("alts", 0, MAX_ALTS, ic.iAlts), ep}))
            return;
        pDev->interfaces.push_back(ic);
    }

    bool endpointList(const std::string& v, std::vector<unsigned char>& out) {
        out.clear();
        if (v.empty() || v == "none") return true;
        std::stringstream ss(v);
        std::string item;
        while (std::getline(ss, item, ',')) {
            unsigned char ep = 0;
            if (!parseInto(item, 0, 255, ep) || out.size() >= static_cast<size_t>(MAX_ENDPOINTS)) return false;
            out.push_back(ep);
        }
        return true;
    }

    void propsLine(const std::vector<std::string>& w) {
        PropsConfig& p = pDev->props;
        attributes(w, 1, "props",
                   {num("major", 0, 255, p.iMajor), num("minor", 0, 255, p.iMinor), num("codeset", 0, 255, p.iCodeset),
                    num("compression", 0, 255, p.iCompression), num("align_color", 0, 255, p.iAlignColor),
                    num("align_gray", 0, 255, p.iAlignGray), num("support", 0, 255, p.iSupport),
                    num("types", 0, 255, p.iTypes), num("duplex", 0, 255, p.iDuplex)});
    }

    void rawBlock(const std::vector<std::string>& w, bool& flag, std::vector<unsigned char>& out) {
        if (!parseHexWords(w, 1, MAX_RAW_BLOCK, out)) {
            fail("usage: " + w[0] + " HEXBYTES (at most 4096 bytes)");
            flag = false;
            out.clear();
            return;
        }
        flag = true;
    }

    void sourceLine(const std::vector<std::string>& w) {
        if (pDev->sources.size() >= static_cast<size_t>(MAX_SOURCES)) {
            fail("too many sources");
            return;
        }
        SourceConfig sc;
        if (!attributes(w, 1, "source",
                        {num("type", 0, 255, sc.iType), num("bar", 0, 255, sc.iBarId), num("origin", 0, MAX_U32, sc.uOrigin),
                         num("width", 0, MAX_U32, sc.uWidth), num("height", 0, MAX_U32, sc.uHeight)}))
            return;
        pDev->sources.push_back(sc);
    }

    void resLine(const std::vector<std::string>& w) {
        if (pDev->sources.empty()) {
            fail("res before any source line");
            return;
        }
        SourceConfig& sc = pDev->sources.back();
        ResolutionConfig r;
        if (w.size() != 4 || !parseInto(w[1], 0, MAX_U32, r.uHorizontal) || !parseInto(w[2], 0, MAX_U32, r.uVertical) ||
            !parseInto(w[3], 0, 255, r.cDepth)) {
            fail("usage: res HRES VRES DEPTH");
            return;
        }
        if (sc.resolutions.size() >= static_cast<size_t>(MAX_RESOLUTIONS)) {
            fail("too many resolutions for one source");
            return;
        }
        sc.resolutions.push_back(r);
    }

    void sizeLine(const std::vector<std::string>& w, const std::string& raw) {
        SizeConfig s;
        if (w.size() < 4 || !parseInto(w[1], 0, 0xFFFF, s.uWidth) || !parseInto(w[2], 0, 0xFFFF, s.uLength)) {
            fail("usage: size WIDTH LENGTH NAME (1/1000 inch)");
            return;
        }
        s.szName = restAfterWords(raw, 3);
        if (s.szName.size() > static_cast<size_t>(MAX_SIZE_NAME)) {
            fail("size name longer than 64 characters");
            return;
        }
        if (pDev->sizes.size() >= static_cast<size_t>(MAX_SIZES)) {
            fail("too many sizes");
            return;
        }
        pDev->sizes.push_back(s);
    }

    void scanParamsLine(const std::vector<std::string>& w) {
        std::vector<unsigned char> bytes;
        if (!parseHexWords(w, 1, 34, bytes)) {
            fail("usage: scan_params HEXBYTES (at most 34 bytes)");
            return;
        }
        bytes.resize(34, 0);
        pDev->scanParams = bytes;
    }

    void wicketLine(const std::vector<std::string>& w) {
        DeviceConfig& d = *pDev;
        attributes(w, 1, "wicket",
                   {num("quality", 1, 100, d.iWicketQuality), num("band", 1, MAX_WICKET_BAND, d.iWicketBand)});
    }

    void interleaveLine(const std::vector<std::string>& w) {
        DeviceConfig& d = *pDev;
        uint32_t x = 0, trim = 0, y = 0;
        if (w.size() < 3 || w.size() > 4 || !parseInto(w[1], 0, 65535, x) || !parseInto(w[2], 0, 65535, trim) ||
            (w.size() == 4 && !parseInto(w[3], 0, 65535, y))) {
            fail("usage: interleave OFFSETX TRIM [OFFSETY]");
            return;
        }
        d.bInterleave = true;
        d.uInterleaveOffsetX = x;
        d.uInterleaveTrim = trim;
        d.uInterleaveOffsetY = y;
    }

    void faultLine(const std::vector<std::string>& w) {
        long long v = 0;
        int f = w.size() == 3 ? faultIndex(w[1].c_str()) : -1;
        if (f < 0) {
            fail("usage: fault NAME VALUE, with NAME one of busy, setconfig_eperm, open_fail, unplug, "
                 "read_timeout, short_reply, wrong_code, abort, device_abort, jam, write_fail, oom, comm_error, "
                 "bad_status, not_record, stall, unplug_lines");
            return;
        }
        if (!parseNumber(w[2], -1000000000LL, 1000000000LL, v) || !faultValueValid(f, v)) {
            fail("bad value for fault " + w[1]);
            return;
        }
        pDev->faults[f] = static_cast<int>(v);
    }

    void replugLine(const std::vector<std::string>& w) {
        int n = 0;
        if (w.size() != 4 || !parseInto(w[1], 0, 1000000000, n) || !validName(w[2]) || !validName(w[3])) {
            fail("usage: replug_after N BUS FILE");
            return;
        }
        pDev->iReplugAfter = n;
        pDev->szReplugBus = w[2];
        pDev->szReplugFile = w[3];
        addBus(w[2]);
    }
};

}  // namespace

DeviceConfig::DeviceConfig() {
    for (int i = 0; i < FAULT_COUNT; ++i) faults[i] = FAULTS[i].iOff;
}

int faultIndex(const char* szName) {
    if (!szName) return -1;
    for (int i = 0; i < FAULT_COUNT; ++i)
        if (std::strcmp(szName, FAULTS[i].szName) == 0) return i;
    return -1;
}

const char* faultName(int iFault) { return iFault >= 0 && iFault < FAULT_COUNT ? FAULTS[iFault].szName : "?"; }

int faultOffValue(int iFault) { return iFault >= 0 && iFault < FAULT_COUNT ? FAULTS[iFault].iOff : 0; }

bool faultValueValid(int iFault, long long llValue) {
    return iFault >= 0 && iFault < FAULT_COUNT && llValue >= FAULTS[iFault].llMin && llValue <= FAULTS[iFault].llMax;
}

bool validName(const std::string& s) {
    if (s.empty() || s.size() > static_cast<size_t>(MAX_NAME)) return false;
    for (unsigned char c : s)
        if (c <= ' ' || c >= 0x7F) return false;
    return true;
}

int parseScenario(const std::string& text, Scenario& out, std::string& errors) {
    Parser p(out, errors);
    std::istringstream in(text);
    std::string raw;
    int n = 0;
    while (std::getline(in, raw)) p.line(++n, raw);
    return p.errorCount();
}

}  // namespace usbsim
