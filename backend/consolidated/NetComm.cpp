#include "NetComm.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "Image.h"
#include "ImageUtil.h"
#include "SaneConfReader.h"
#include "Wicket.h"
#include "util.h"

const int sane_size_kestrel_size_mapping[38] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                                13, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38,
                                                14, 15, 16, 17, 18, 20, 21, 22, 23, 24, 25, 26};
const int isd_sane_size_kestrel_size_mapping[32] = {0,  1,  2,  4,  5,  6,  8,  10, 11, 12, 13,
                                                    27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37,
                                                    38, 14, 18, 20, 21, 22, 23, 24, 25, 26};
const int pssd_sane_docsource_kestrel_docsource_mapping[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10};
const int isd_sane_docsource_kestrel_docsource_mapping[9] = {0, 1, 2, 3, 4, 6, 7, 8, 10};

std::map<std::string, std::string> NetComm::macToIpMap;

namespace {

// DNS message layout.
const int DNS_HEADER_LEN = 12;
const int DNS_MIN_REPLY = 13;
const int DNS_FLAGS_OFFSET = 2;
const unsigned DNS_RESPONSE_BIT = 0x80;
const int DNS_QDCOUNT_OFFSET = 4;
const int DNS_ANCOUNT_OFFSET = 6;
const int DNS_TYPE_CLASS_LEN = 4;
const int DNS_CLASS_LEN = 2;
const int DNS_TTL_LEN = 4;
const unsigned DNS_TYPE_TXT = 16;
const char SERVICE_LABEL[] = "_host-config";
// The query: header with one question, _host-config._udp.local, type 33 (SRV), class 1 (IN).
const unsigned char MDNS_QUERY[NET_QUERY_LENGTH] = {
    0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, '_',
    'h',  'o',  's',  't',  '-',  'c',  'o',  'n',  'f',  'i',  'g',  0x04, '_',  'u',
    'd',  'p',  0x05, 'l',  'o',  'c',  'a',  'l',  0x00, 0x00, 0x21, 0x00, 0x01};

// The partner brands, searched in this order after the maker's name, with the
// text each displays as. The two short forms are what some devices put in
// their identification string; they display as the brand's full name.
struct BrandName {
    const char* szSearch;
    const char* szDisplay;
};
const BrandName PARTNER_BRANDS[] = {
    {PARTNER_BRAND, PARTNER_BRAND}, {"Quindorra", "Quindorra"}, {"Ostrevin", "Ostrevin"},
    {"Brannakt", "Brannakt"},       {"VLMSK", PARTNER_BRAND},    {"BRNKT", "Brannakt"},
};
const char UNKNOWN_MANUFACTURER[] = "Unknown Manufacturer";
const char OTHER_MANUFACTURER[] = "Manufacturer";
// USB vendor identifiers of the maker and of the partner treated like it.
const uint32_t MAKER_USB_VENDOR = 0x2F4A;
const uint32_t PARTNER_USB_VENDOR = 0x3B17;
const char ETHERNET[] = "Ethernet";
const char PSEUDO_DEVICE_NAME[] = "NET_PSEUDO_PLACE_HOLDER::";
const char PSEUDO_DEVICE_MARK[] = "SPECIFY_DEVICE";
const char MAP_KEY_PREFIX[] = "libnet:";
// MACUAA: six two-digit hexadecimal numbers.
const int MAC_BYTES = 6;
const char NPA_FAMILY_WICKET[] = "1 107";

// Scan job.
const int HIGH_DPI = 1200;
const int COMPRESSION_HIGH = 6, TYPE_HIGH = 4;
const int COMPRESSION_LOW = 2, TYPE_LOW = 3;
const int BOX_ADJUSTMENT = 3;
const int SIZE_MULTI_PAGE = 15;  // a mapped original size that always has further pages
const char PAGE_FILE_SUFFIX[] = "scan.pxm";
const char PAGE_EXTENSION[] = ".pxm";
const char SIDE_EXTENSION[] = ".conf";
const char UNROTATED_FILE[] = "unrotated.pxm";
const char FAMILY_PREFIX[] = "FAMILYID=";
const char ROTATE_PREFIX[] = "ROTATE=";
const char RESOLUTION_PREFIX[] = "#QVTRES=";
// Side files and header lines are short; longer ones are not read further.
const int SIDE_LINE_SIZE = 256;
const int SIDE_MAX_LINES = 256;
const size_t HEADER_LINE_MAX = 64;
const long MAX_PAGE_DIMENSION = 1L << 20;
// Deflate turns at most 2 bits into 258 bytes: a zlib stream cannot grow by
// more than this factor, so a larger claimed page does not match its data.
const long long ZLIB_MAX_RATIO = 1032;
// Wicket band header: size (header included), lines, width, quality factor.
const int BAND_HEADER_LEN = 16;
const unsigned MAX_BAND_DIMENSION = 1u << 16;
const long long MAX_BAND_BYTES = 1LL << 26;

// A decoded page buffer: the page and one spare pixel behind it, so that the
// rotation can take the buffer over; on huge pages where the system allows.
const long ROTATION_SPARE = 3;
unsigned char* allocPageBuffer(long long bytes) {
    const size_t size = (size_t)bytes + ROTATION_SPARE;
    unsigned char* p = (unsigned char*)malloc(size);
    if (p != nullptr) utilAdviseHugePages(p, size);
    return p;
}

bool containsNoCase(const std::string& hay, const char* needle) {
    return needle != nullptr && strcasestr(hay.c_str(), needle) != nullptr;
}

// Decimal value of text, when it is one within [lo, hi].
bool parseDecimal(const char* text, long lo, long hi, long* value) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (errno != 0 || v < lo || v > hi) return false;
    *value = v;
    return end != text;
}

// TEMPDIRECTORY must be absolute, not "/", and free of empty, "." and ".."
// components, so that it names one directory and rm -rf can only reach it.
bool validTempDirectory(const char* dir) {
    if (dir == nullptr || dir[0] != '/' || dir[1] == '\0') return false;
    std::string path(dir);
    size_t start = 1;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        std::string part = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (part.empty() || part == "." || part == "..") return false;
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return true;
}

// A profile name becomes part of a file name inside TEMPDIRECTORY.
bool validProfileName(const char* profile) {
    return profile != nullptr && strchr(profile, '/') == nullptr && strstr(profile, "..") == nullptr;
}

bool trustedOwner(uid_t uid) { return uid == 0 || uid == geteuid(); }

// A directory of root or this user that others may write only with the sticky
// bit: nobody else can rename what root or this user made in it.
bool safeDirectory(const struct stat& st) {
    return S_ISDIR(st.st_mode) && trustedOwner(st.st_uid) &&
           ((st.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (st.st_mode & S_ISVTX) != 0);
}

// Every directory above path, as far as they exist, is a safe directory or a
// link of root or this user (nobody else can point it elsewhere), and the real
// directories the existing part leads to are safe directories: nobody else can
// make the path lead somewhere else, now or later.
bool safeAncestors(const std::string& path) {
    struct stat st;
    if (lstat("/", &st) != 0 || !safeDirectory(st)) return false;
    std::string existing = "/";
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (lstat(prefix.c_str(), &st) != 0) {
            if (errno == ENOENT) break;  // made afresh, by this user
            return false;
        }
        if (S_ISLNK(st.st_mode) ? !trustedOwner(st.st_uid) : !safeDirectory(st)) return false;
        existing = prefix;
    }
    char* real = realpath(existing.c_str(), nullptr);
    if (real == nullptr) return false;
    const std::string resolved = std::string(real) + "/";
    free(real);
    for (size_t slash = resolved.find('/', 1); slash != std::string::npos; slash = resolved.find('/', slash + 1))
        if (lstat(resolved.substr(0, slash).c_str(), &st) != 0 || !safeDirectory(st)) return false;
    return true;
}

// A directory only this user can change: not a link, owned by the user, not
// writable by anybody else, in a path nobody else can redirect.
bool privateDirectory(const std::string& dir) {
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return false;
    return safeAncestors(dir);
}

// Milliseconds on a clock that setting the time of day does not move.
long long monotonicMillis() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// A UDP socket with SO_BROADCAST and SO_REUSEADDR, bound to port 5353 of any
// address (and non-blocking when asked), or -1.
int openDiscoverySocket(bool nonBlocking) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (nonBlocking) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    struct sockaddr_in any;
    memset(&any, 0, sizeof(any));
    any.sin_family = AF_INET;
    any.sin_port = htons(NET_DISCOVERY_PORT);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, (struct sockaddr*)&any, sizeof(any)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The scan program's code of a list index of the front end, or -1 outside the list.
template <size_t N>
int mapIndex(const int (&table)[N], int index) {
    return index >= 0 && (size_t)index < N ? table[index] : -1;
}

int mappedSize(int boxKind, int index) {
    return boxKind != 0 ? mapIndex(isd_sane_size_kestrel_size_mapping, index)
                        : mapIndex(sane_size_kestrel_size_mapping, index);
}

// The page file's side file: its last ".pxm" replaced by ".conf".
std::string sideFileName(const std::string& page) {
    size_t at = page.rfind(PAGE_EXTENSION);
    if (at == std::string::npos) return page + SIDE_EXTENSION;
    return page.substr(0, at) + SIDE_EXTENSION + page.substr(at + strlen(PAGE_EXTENSION));
}

// Opens a regular file for reading, never through a link. The open does not
// wait: a named pipe in the file's place is refused, not read until a writer
// comes.
FILE* openRegularFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st;
    FILE* f = (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0)
                  ? fdopen(fd, "rb")
                  : nullptr;
    if (f == nullptr) close(fd);
    return f;
}

std::string formatText(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatText(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return std::string(buf, n < 0 ? 0 : (size_t)n < sizeof(buf) ? (size_t)n : sizeof(buf) - 1);
}

}  // namespace

NetComm::NetComm() { memset(cIPAddress, 0, sizeof(cIPAddress)); }

NetComm::~NetComm() {
    // A multi-page job left unfinished leaves no pages behind.
    if (counter > 0) endJob();
}

// The operations that would exchange data with a device do no I/O.
int NetComm::Write(unsigned char*, int) {
    LOG_DEBUG("Write");
    return COMM_STATUS_GOOD;
}

int NetComm::Read(unsigned char*, int* length) {
    LOG_DEBUG("Read");
    if (length != nullptr) *length = 0;
    return COMM_STATUS_GOOD;
}

int NetComm::Read(unsigned char*, int* length, long) {
    LOG_DEBUG("Read");
    if (length != nullptr) *length = 0;
    return COMM_STATUS_GOOD;
}

int NetComm::writeCommand(int, CResponse*) {
    LOG_DEBUG("writeCommand");
    return COMM_STATUS_GOOD;
}

int NetComm::clear() {
    LOG_DEBUG("clear");
    return COMM_STATUS_GOOD;
}

int NetComm::readAndDecompressData() {
    LOG_DEBUG("readAndDecompressData");
    return COMM_STATUS_GOOD;
}

int NetComm::consumeScannerData() {
    LOG_DEBUG("consumeScannerData");
    return COMM_STATUS_GOOD;
}

int NetComm::getVid() { return 0; }

int NetComm::getPid() { return 0; }

int NetComm::getProductName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    buffer[0] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::getVendorName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    buffer[0] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::setCommand(ICommand* command) {
    if (command == nullptr) return COMM_STATUS_INVALID_ARG;
    pCommand = command;
    return COMM_STATUS_GOOD;
}

ICommand* NetComm::getCommand() { return pCommand; }

int NetComm::isLocal() { return 0; }

char* NetComm::getIPAddress() { return cIPAddress; }

int NetComm::setIPAddress(const char* address) {
    if (address == nullptr) return COMM_STATUS_INVALID_ARG;
    // Keeps what fits in the field, terminated.
    size_t n = strnlen(address, sizeof(cIPAddress) - 1);
    memcpy(cIPAddress, address, n);
    cIPAddress[n] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::setConfigReader(ConfigReader* store) {
    pCfgReader = store;
    return COMM_STATUS_GOOD;
}

int NetComm::optionInt(const char* key) const { return pCfgReader ? pCfgReader->GetIntOption(key) : 0; }

const char* NetComm::optionString(const char* key) const {
    return pCfgReader ? pCfgReader->GetStringOption(key) : nullptr;
}

// ---------------------------------------------------------------- discovery

int NetComm::createMdnsPacket(unsigned char** packet) {
    if (packet == nullptr) return 0;
    *packet = (unsigned char*)malloc(sizeof(MDNS_QUERY));
    if (*packet == nullptr) return 0;
    memcpy(*packet, MDNS_QUERY, sizeof(MDNS_QUERY));
    return (int)sizeof(MDNS_QUERY);
}

std::string NetComm::extractString(const unsigned char* p, int available, unsigned short& length) {
    length = 0;
    if (p == nullptr || available < 1) return std::string();
    length = p[0];
    size_t n = (size_t)(length < available - 1 ? length : available - 1);
    const void* zero = memchr(p + 1, 0, n);
    if (zero != nullptr) n = (size_t)((const unsigned char*)zero - (p + 1));
    return std::string((const char*)p + 1, n);
}

bool NetComm::parsePacket(const unsigned char* data, int length, NValueObjects* out) {
    if (data == nullptr || out == nullptr || length < DNS_MIN_REPLY) return false;
    if ((data[DNS_FLAGS_OFFSET] & DNS_RESPONSE_BIT) == 0) return false;
    unsigned questions = readBE16(data, length, DNS_QDCOUNT_OFFSET);
    unsigned answers = readBE16(data, length, DNS_ANCOUNT_OFFSET);
    long pos = DNS_HEADER_LEN;
    // Names are skipped to the next zero byte, never past the reply's end.
    auto skipName = [&]() -> bool {
        if (pos >= length) return false;
        const void* zero = memchr(data + pos, 0, (size_t)(length - pos));
        if (zero == nullptr) return false;
        pos = (const unsigned char*)zero - data + 1;
        return true;
    };
    auto malformed = [&](const char* what) {
        LOG_DEBUG("[WARN] malformed reply (%s at %ld of %d bytes) ignored", what, pos, length);
        return false;
    };

    for (unsigned q = 0; q < questions; ++q) {
        if (!skipName()) return malformed("question");
        pos += DNS_TYPE_CLASS_LEN;
    }
    bool handled = false;
    for (; answers > 0 && !handled; --answers) {
        if (pos >= length) return malformed("answer");
        unsigned short first = 0;
        extractString(data + pos, (int)(length - pos), first);
        pos += 1 + first;
        if (pos >= length) return malformed("answer name");
        unsigned short second = 0;
        // An answer that is not a _host-config TXT record is not stepped over:
        // only the counter goes down (kept as it stands).
        const std::string label = extractString(data + pos, (int)(length - pos), second);
        if (pos + 1 + second > length) return malformed("answer label");
        if (label != SERVICE_LABEL) continue;
        if (!skipName() || pos + 2 > length) return malformed("answer type");
        if (readBE16(data, length, pos) != DNS_TYPE_TXT) continue;
        pos += 2 + DNS_CLASS_LEN + DNS_TTL_LEN;
        if (pos + 2 > length) return malformed("TXT length");
        const long dataLen = readBE16(data, length, pos);
        pos += 2;
        for (long used = 0; used < dataLen;) {
            unsigned short n = 0;
            if (pos >= length) return malformed("TXT entry");
            std::string entry = extractString(data + pos, (int)(length - pos), n);
            if (pos + 1 + n > length) return malformed("TXT entry");
            parseText(entry, out);
            used += 1 + n;
            pos += 1 + n;
        }
        handled = true;
    }
    return true;
}

void NetComm::parseText(std::string& entry, NValueObjects* out) {
    size_t blank = entry.find(' ');
    if (blank == std::string::npos || out == nullptr) return;
    const std::string key = entry.substr(0, blank);
    std::string value = entry.substr(blank + 1);
    if (key == "IPADDRESS") {
        removeQuotes(value);
        out->setIp(value);
        LOG_DEBUG("ip %s", value.c_str());
    } else if (key == "MACUAA") {
        removeQuotes(value);
        if (value.size() < 2 * MAC_BYTES) {
            LOG_DEBUG("[WARN] MACUAA value [%s] too short, ignored", value.c_str());
            return;
        }
        std::string mac;
        for (int i = 0; i < MAC_BYTES; ++i) {
            unsigned byte = 0;
            if (sscanf(value.c_str() + 2 * i, "%2x", &byte) != 1) byte = 0;
            mac += formatText("%2.2X", reverse((unsigned char)byte));
        }
        out->setMac(mac);
        LOG_DEBUG("mac is %s", mac.c_str());
    } else if (key == "1284STRID") {
        removeQuotes(value);
        out->setModel(value);
        std::string manufacturer = UNKNOWN_MANUFACTURER;
        if (value.find(MAKER_NAME) != std::string::npos) {
            manufacturer = MAKER_NAME;
        } else {
            for (const BrandName& brand : PARTNER_BRANDS) {
                if (value.find(brand.szSearch) != std::string::npos) {
                    manufacturer = brand.szDisplay;
                    break;
                }
            }
        }
        out->setManufacturer(manufacturer);
        LOG_DEBUG("model is %s", value.c_str());
        LOG_DEBUG("manufacturer is %s", manufacturer.c_str());
    } else if (key == "ADAPTERNAME") {
        // Unquoted from its first double quote on, then not used.
        size_t quote = value.find('"');
        if (quote != std::string::npos) {
            std::string name = value.substr(quote);
            removeQuotes(name);
        }
    } else if (key == "PRINTERVIDPID") {
        removeQuotes(value);
        uint64_t ids = hexStringLong(value.c_str());
        uint32_t vid = (uint32_t)(ids >> 16);
        uint32_t pid = (uint32_t)(ids & 0xFFFF);
        const char* manufacturer = vid == MAKER_USB_VENDOR     ? MAKER_NAME
                                   : vid == PARTNER_USB_VENDOR ? PARTNER_BRAND
                                                               : OTHER_MANUFACTURER;
        out->setManufacturer(manufacturer);
        out->setPid(pid);
        out->setVid(vid);
        const std::string threes(54, '3');
        LOG_DEBUG("%s", threes.c_str());
        LOG_DEBUG("%X vid %X pid", vid, pid);
        LOG_DEBUG("man is %s", manufacturer);
        LOG_DEBUG("%s", threes.c_str());
    } else if (key == "NPA_FAMILYID") {
        removeQuotes(value);
        LOG_DEBUG("NPA FAMILY ID: %s", value.c_str());
        out->setFamilyId(value == NPA_FAMILY_WICKET ? NET_FAMILY_WICKET_A : 0);
    }
    // IPNETMASK, IPGATEWAY, IPNAME, MACLAA, IPADDRSOURCE, PASSWORDSET,
    // CPDATTACHED, MDNSNAME and every other key are ignored.
}

void NetComm::removeQuotes(std::string& s) {
    size_t first = s.find('"');
    if (first == std::string::npos) return;
    size_t last = s.rfind('"');
    s = last > first ? s.substr(first + 1, last - first - 1) : std::string();
}

unsigned char NetComm::reverse(unsigned char b) {
    unsigned char r = 0;
    for (int i = 0; i < 8; ++i)
        if (b & (1u << i)) r |= (unsigned char)(0x80u >> i);
    return r;
}

uint64_t NetComm::hexStringLong(const char* s) {
    if (s == nullptr) return 0;
    uint64_t value = 0;
    int shift = 0;
    // From the last character backwards, four bits a character; characters
    // beyond the sixteenth from the end no longer fit and add nothing.
    for (size_t i = strlen(s); i > 0 && shift < 64; --i, shift += 4) {
        char c = s[i - 1];
        uint64_t nibble = (c >= '0' && c <= '9')   ? (uint64_t)(c - '0')
                          : (c >= 'A' && c <= 'F') ? (uint64_t)(c - 'A' + 10)
                          : (c >= 'a' && c <= 'f') ? (uint64_t)(c - 'a' + 10)
                                                   : 0;
        value |= nibble << shift;
    }
    return value;
}

// A model text that would reshape the device name: the separator of its
// pieces, or a control character that would garble a front end's listing.
bool NetComm::malformedModel(const std::string& model) {
    for (unsigned char c : model)
        if (c == '/' || c < 0x20 || c == 0x7F) return true;
    return false;
}

bool NetComm::acceptDevice(const NValueObjects& device, const char* manufacturer) {
    const std::string& model = device.getModel();
    if (device.getMac().empty() || device.getIp().empty() || model.empty() || manufacturer == nullptr) return false;
    // The model becomes a piece of the "/"-separated name: one holding a "/"
    // (say "…Ethernet/libusb:001:004") would list an entry naming another device.
    if (malformedModel(model)) return false;
    const bool ethernet = model.find(ETHERNET) != std::string::npos;
    if (containsNoCase(model, manufacturer) && ethernet) return true;
    // A backend configured for the maker or for the partner treated like it
    // lists only the models that name it.
    if (containsNoCase(MAKER_NAME, manufacturer) || containsNoCase(PARTNER_BRAND, manufacturer) || !ethernet)
        return false;
    for (const BrandName& brand : PARTNER_BRANDS)
        if (containsNoCase(model, brand.szSearch)) return true;
    return false;
}

ssize_t NetComm::sendQuery(int fd) {
    struct sockaddr_in to;
    memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    to.sin_port = htons(NET_DISCOVERY_PORT);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    // The constant query itself: no heap copy (createMdnsPacket's) is needed to send it.
    return sendto(fd, MDNS_QUERY, sizeof(MDNS_QUERY), 0, (struct sockaddr*)&to, sizeof(to));
}

int NetComm::getScanners(char*** list, int* count, void* conf) {
    LOG_METHOD_START();
    if (list == nullptr || count == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    SaneConfReader* reader = static_cast<SaneConfReader*>(conf);
    const char* manufacturer = reader != nullptr ? reader->GetManufacturer() : MAKER_NAME;
    *list = nullptr;
    *count = 0;
    vDevices.clear();

    int fd = openDiscoverySocket(true);
    if (fd < 0) {
        LOG_DEBUG("broadcase eror");  // spelled so on purpose
        LOG_METHOD_END_INT(COMM_STATUS_BIND_FAILED);
        return COMM_STATUS_BIND_FAILED;
    }

    int status = COMM_STATUS_GOOD;
    ssize_t sent = sendQuery(fd);
    if (sent < 1) {
        LOG_DEBUG("sendto return an error");
        status = COMM_STATUS_SEND_FAILED;
    } else {
        // One time-out for the whole collection: each wait only gets what is
        // left of the 5 seconds. The wait is a poll rather than a select, which
        // cannot watch a descriptor numbered past its fixed set (front ends
        // with many files open get such numbers).
        const long long deadline = monotonicMillis() + NET_DISCOVERY_SECONDS * 1000LL;
        for (;;) {
            long long left = deadline - monotonicMillis();
            struct pollfd readable = {fd, POLLIN, 0};
            int ret = left > 0 ? poll(&readable, 1, (int)left) : 0;
            left = deadline - monotonicMillis();
            if (left < 0) left = 0;
            LOG_DEBUG("ret is %d and timeout is %d", ret, (int)(left / 1000));
            if (ret < 1) break;
            LOG_DEBUG("reading from port ");
            unsigned char reply[NET_REPLY_SIZE];
            ssize_t n = recvfrom(fd, reply, sizeof(reply), 0, nullptr, nullptr);
            if (n > 0) {
                LOG_DEBUG("HEX DUMP RECEIVED DATA: read from port %d", NET_DISCOVERY_PORT);
                LOG_DUMP(reply, (int)n);
                NValueObjects device;
                if (parsePacket(reply, (int)n, &device)) {
                    LOG_DEBUG("parsing udp packets %s", device.getModel().c_str());
                    LOG_DEBUG("manufacturer is %s", manufacturer);
                    if (malformedModel(device.getModel()))
                        LOG_DEBUG("[WARN] model text holds '/' or a control character, device not listed");
                    if (acceptDevice(device, manufacturer)) {
                        device.setVid(NET_DEVICE_ID);
                        device.setPid(NET_DEVICE_ID);
                        if ((int)vDevices.size() < NET_MAX_DEVICES)
                            vDevices.push_back(device);
                        else
                            LOG_DEBUG("[WARN] device list full, %s not listed", device.getMac().c_str());
                    }
                }
            }
            if (left == 0) break;
        }
    }
    close(fd);
    LOG_DEBUG("list size is %d", (int)vDevices.size());

    const char* pseudo = reader != nullptr ? reader->getConfigValue("SHOW_PSEUDO_NETWORK_FLAG") : nullptr;
    if (makeDeviceList(pseudo != nullptr && strcmp(pseudo, "1") == 0, list, count) != COMM_STATUS_GOOD)
        status = COMM_STATUS_INVALID_ARG;
    LOG_METHOD_END_INT(status);
    return status;
}

int NetComm::makeDeviceList(bool placeholder, char*** list, int* count) {
    *list = nullptr;
    *count = 0;
    const int n = (int)vDevices.size() + (placeholder ? 1 : 0);
    if (n == 0) return COMM_STATUS_GOOD;
    char** names = (char**)calloc((size_t)n, sizeof(char*));
    if (names == nullptr) return COMM_STATUS_INVALID_ARG;
    int k = 0;
    if (placeholder) names[k++] = strdup(PSEUDO_DEVICE_NAME);
    const std::string separator(63, '-');
    for (const NValueObjects& device : vDevices) {
        macToIpMap[MAP_KEY_PREFIX + device.getMac()] = device.getIp();
        char* name = (char*)malloc(NET_DEVICE_NAME_SIZE);
        if (name != nullptr)
            snprintf(name, NET_DEVICE_NAME_SIZE, "%s/%s/libnet:%s/%s", device.getManufacturer().c_str(),
                     device.getModel().c_str(), device.getMac().c_str(), device.getIp().c_str());
        names[k++] = name;
        LOG_DEBUG("%s", separator.c_str());
        LOG_DEBUG("mac is %s", device.getMac().c_str());
        LOG_DEBUG("model is %s", device.getModel().c_str());
        LOG_DEBUG("ip is %s", device.getIp().c_str());
        LOG_DEBUG("man is %s", device.getManufacturer().c_str());
        LOG_DEBUG("vid is %X", device.getVid());
        LOG_DEBUG("pid is %X", device.getPid());
        LOG_DEBUG("%s", "");
        LOG_DEBUG("%s", separator.c_str());
    }
    for (int i = 0; i < n; ++i) {
        if (names[i] == nullptr) {
            for (int j = 0; j < n; ++j) free(names[j]);
            free(names);
            return COMM_STATUS_INVALID_ARG;
        }
    }
    *list = names;
    *count = n;
    return COMM_STATUS_GOOD;
}

NValueObjects* NetComm::getScanner(char* name) {
    LOG_METHOD_START();
    if (name == nullptr) return nullptr;
    int fd = openDiscoverySocket(false);
    if (fd < 0) {
        LOG_DEBUG("creating datagram socket failed");
        return nullptr;
    }
    ssize_t sent = sendQuery(fd);
    if (sent < 1) {
        LOG_DEBUG("failed to send mDNS packet");
        close(fd);
        return nullptr;
    }

    LOG_DEBUG("reading mDNS response");
    // Each receive waits at most 5 seconds, and all of them together no longer
    // either: replies that keep coming cannot hold the caller.
    // Measured on the same clock as getScanners: setting the time of day
    // cannot stretch the wait.
    const long long deadline = monotonicMillis() + NET_DISCOVERY_SECONDS * 1000LL;
    NValueObjects* found = nullptr;
    while (found == nullptr) {
        const long long left = deadline - monotonicMillis();
        if (left <= 0) break;
        struct timeval tv = {(time_t)(left / 1000), (suseconds_t)(left % 1000 * 1000)};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        unsigned char reply[NET_REPLY_SIZE];
        ssize_t n = recv(fd, reply, sizeof(reply), 0);
        if (n < 0) {
            LOG_DEBUG("[WARN] read error: %s", strerror(errno));
            break;
        }
        LOG_DEBUG("read: %d", (int)n);
        LOG_DEBUG("HEX DUMP RECEIVED DATA: mDNS Response");
        LOG_DUMP(reply, (int)n);
        NValueObjects device;
        if (!parsePacket(reply, (int)n, &device) || device.getMac().empty()) continue;
        LOG_DEBUG("Compare: %s, %s", name, device.getMac().c_str());
        if (strstr(name, device.getMac().c_str()) != nullptr) {
            LOG_DEBUG("match found");
            found = new NValueObjects(device);
        }
    }
    close(fd);
    LOG_METHOD_END();
    return found;
}

int NetComm::setDevice(char* name) {
    LOG_METHOD_START();
    if (name == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    szDeviceName = name;
    auto known = macToIpMap.find(szDeviceName);
    if (known != macToIpMap.end()) {
        setIPAddress(known->second.c_str());
    } else if (strstr(name, PSEUDO_DEVICE_MARK) == nullptr) {
        LOG_DEBUG("discovery is needed to resolve non-pseudo network device...");
        std::unique_ptr<NValueObjects> device(getScanner(name));
        if (device) {
            setIPAddress(device->getIp().c_str());
            LOG_DEBUG("matching device found for %s", name);
        } else {
            LOG_DEBUG("[WARN] matching device NOT found for %s", name);
        }
    }
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

// ----------------------------------------------------------------- scan job

int NetComm::buildScanCommand(std::string& command, std::string& pageFile, bool& morePages) {
    if (pCfgReader == nullptr) {
        LOG_DEBUG("[ERROR] config reader is null");
        return COMM_STATUS_INVALID_ARG;
    }
    const char* dir = optionString("TEMPDIRECTORY");
    const char* profile = optionString("PROFILENAME");
    const char* user = optionString("USERNAME");
    const char* binary = optionString("BINARY");
    if (!validTempDirectory(dir)) {
        LOG_DEBUG("[ERROR] TEMPDIRECTORY [%s] refused: an absolute path other than / is needed", dir ? dir : "NULL");
        return COMM_STATUS_INVALID_ARG;
    }
    if (!validProfileName(profile)) {
        LOG_DEBUG("[ERROR] PROFILENAME [%s] refused: it names a file inside TEMPDIRECTORY",
                  profile ? profile : "NULL");
        return COMM_STATUS_INVALID_ARG;
    }
    if (binary == nullptr || binary[0] == '\0') {
        LOG_DEBUG("[ERROR] no scan program (BINARY) configured");
        return COMM_STATUS_INVALID_ARG;
    }
    // Only a dotted IPv4 address goes on the command line.
    struct in_addr address;
    if (inet_pton(AF_INET, cIPAddress, &address) != 1) {
        LOG_DEBUG("[ERROR] ip address [%s] is not a dotted IPv4 address, scan refused", cIPAddress);
        return COMM_STATUS_INVALID_ARG;
    }

    const int dpi = optionInt("CURRENTDPI");
    const int depth = optionInt("COLORDEPTH");
    const int boxKind = optionInt("BOXKIND");
    const bool high = dpi > HIGH_DPI - 1 && depth != COLOR_DEPTH_BW;
    const int compression = high ? COMPRESSION_HIGH : COMPRESSION_LOW;
    const int type = high ? TYPE_HIGH : TYPE_LOW;
    pageFile = std::string(dir) + "/" + profile + PAGE_FILE_SUFFIX;

    int brightness = optionInt("BRIGHTNESS");
    int contrast = optionInt("CONTRAST");
    if (boxKind != 0) {
        brightness += BOX_ADJUSTMENT;
        contrast += BOX_ADJUSTMENT;
    }
    const int sizeIndex = optionInt("ORIGINALSIZE");
    const int sourceIndex = optionInt("DOCUMENTSOURCE");
    const int size = mappedSize(boxKind, sizeIndex);
    const int source = boxKind != 0 ? mapIndex(isd_sane_docsource_kestrel_docsource_mapping, sourceIndex)
                                    : mapIndex(pssd_sane_docsource_kestrel_docsource_mapping, sourceIndex);
    if (size < 0 || source < 0) {
        LOG_DEBUG("[ERROR] ORIGINALSIZE %d or DOCUMENTSOURCE %d outside its list", sizeIndex, sourceIndex);
        return COMM_STATUS_INVALID_ARG;
    }
    morePages = jobHasMorePages(size);

    // Every value that is not a number or the checked address is shell-quoted,
    // so the program receives exactly these arguments whatever the values hold.
    std::string args = "--filename=" + utilShellQuote(pageFile) + " --ip-address=" + cIPAddress +
                       " --interface=any --user-name=" + utilShellQuote(user ? user : "") +
                       " --profile-name=" + utilShellQuote(profile);
    args += formatText(" --content-type=%d --resolution=%d --mode=%d --original-size=%d --orientation=%d"
                       " --bkgremoval=%d --mirrorimage=%d --negativeimage=%d --scan-both-sides=%d --brightness=%d"
                       " --colordropout=%d --colordropoutthreshold=%d --compression=%d --type=%d --text-mode=0",
                       optionInt("CONTENTTYPE"), dpi, depth, size, optionInt("ORIENTATION"), optionInt("BKGREMOVAL"),
                       optionInt("MIRRORIMAGE"), optionInt("NEGATIVEIMAGE"), optionInt("SCANBOTHSIDES"), brightness,
                       optionInt("COLORDROPOUT"), optionInt("COLORDROPOUTTHRESHOLD"), compression, type);
    // Only colour jobs send a contrast.
    if (depth == COLOR_DEPTH_COLOR) args += formatText(" --contrast=%d", contrast);
    args += formatText(" --documentsource=%d --sharpness=%d --start-now=%d", source,
                       optionInt("SHARPNESS"), optionInt("SCAN_NOW"));
    command = utilShellQuote(binary) + " " + args;
    // A cut command could lose arguments or a closing quote: it is not run.
    if (args.size() >= NET_MAX_ARGUMENTS || command.size() >= NET_MAX_COMMAND) {
        LOG_DEBUG("[ERROR] scan command of %d characters is too long, scan refused", (int)command.size());
        return COMM_STATUS_INVALID_ARG;
    }
    return COMM_STATUS_GOOD;
}

bool NetComm::jobHasMorePages(int mappedSize) {
    return optionInt("SCANBOTHSIDES") == 1 || optionInt("SCAN_SOURCE") == 1 || mappedSize == SIZE_MULTI_PAGE;
}

int NetComm::prepareTempDirectory() {
    const std::string dir = optionString("TEMPDIRECTORY");
    struct stat st;
    // Nothing is made in a path that somebody else could redirect.
    if (!safeAncestors(dir)) {
        LOG_DEBUG("[ERROR] temporary directory %s lies in a path that others can change", dir.c_str());
        return COMM_STATUS_INVALID_ARG;
    }
    if (lstat(dir.c_str(), &st) != 0) {
        std::string command = "/bin/mkdir -p " + utilShellQuote(dir) + " \t\t\t\t\t 1>/dev/null 2>/dev/null";
        if (system(command.c_str()) != 0) {
            LOG_DEBUG("[ERROR] command failed");
            return COMM_STATUS_READ_FAILED;
        }
        // Made for this user alone rather than open to everybody: others must
        // not plant files or links among the pages, nor read them. Changed
        // through a descriptor, never through a link put in its place since.
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) {
            if (fstat(fd, &st) == 0 && st.st_uid == geteuid()) fchmod(fd, S_IRWXU);
            close(fd);
        }
    }
    if (!privateDirectory(dir)) {
        LOG_DEBUG("[ERROR] temporary directory %s is a link, not the user's own or writable by others", dir.c_str());
        return COMM_STATUS_INVALID_ARG;
    }
    return COMM_STATUS_GOOD;
}

int NetComm::removeDir() {
    const char* dir = optionString("TEMPDIRECTORY");
    if (!validTempDirectory(dir)) {
        LOG_DEBUG("[ERROR] failed to remove temp dir's: TEMPDIRECTORY [%s] refused", dir ? dir : "NULL");
        return 1;
    }
    struct stat st;
    if (lstat(dir, &st) != 0) return 0;
    // Only a directory of this user's own is ever removed.
    if (!privateDirectory(dir)) {
        LOG_DEBUG("[ERROR] %s is not a private directory of this user, not removed", dir);
        return 1;
    }
    std::string command = "/bin/rm -rf  " + utilShellQuote(dir);
    return system(command.c_str()) == 0 ? 0 : 1;
}

void NetComm::endJob() {
    counter = 0;
    pImageFile.reset();
    if (removeDir() != 0) LOG_DEBUG("[ERROR] failed to remove temp dir's");
}

int NetComm::openDevice() {
    LOG_METHOD_START();
    int status = counter == 0 ? scan() : nextPage();
    LOG_METHOD_END_INT(status);
    return status;
}

int NetComm::scan() {
    LOG_DEBUG("initial scanning...");
    std::string command;
    std::string page;
    bool morePages = false;
    int status = buildScanCommand(command, page, morePages);
    if (status == COMM_STATUS_GOOD) status = prepareTempDirectory();
    if (status != COMM_STATUS_GOOD) return status;
    // A new job starts from the defaults: no family, no rotation.
    iFamily = 0;
    iRotate = 0;
    if (morePages) {
        ++counter;
        LOG_DEBUG("incrementing counter to: %d", counter);
    }
    LOG_DEBUG("scaning now using %s", optionString("BINARY"));
    LOG_DEBUG("cScanCmd , launching quillrun %s", command.c_str());
    if (system(command.c_str()) != 0) {
        LOG_DEBUG("[ERROR] failed scanning using network");
        endJob();
        return COMM_STATUS_OPEN_FAILED;
    }
    return processPage(page, true);
}

int NetComm::nextPage() {
    LOG_DEBUG("scanning is both sides or scan source is ADF for Multiple Pages...");
    const char* dir = optionString("TEMPDIRECTORY");
    const char* profile = optionString("PROFILENAME");
    if (!validTempDirectory(dir) || !validProfileName(profile)) {
        LOG_DEBUG("[ERROR] TEMPDIRECTORY or PROFILENAME refused");
        endJob();
        return COMM_STATUS_INVALID_ARG;
    }
    const std::string page = std::string(dir) + "/" + profile + PAGE_FILE_SUFFIX + "." + std::to_string(counter);
    const int size = mappedSize(optionInt("BOXKIND"), optionInt("ORIGINALSIZE"));
    if (jobHasMorePages(size)) {
        ++counter;
        LOG_DEBUG("incrementing counter to: %d", counter);
    }
    struct stat st;
    if (lstat(page.c_str(), &st) != 0) {
        LOG_DEBUG("failed to stat image file");
        LOG_DEBUG("[ERROR] reading image file failed");
        // The job has no further page: it ends here and the next scan starts afresh.
        endJob();
        return COMM_STATUS_NO_MORE_PAGES;
    }
    return processPage(page, false);
}

int NetComm::processPage(const std::string& path, bool firstPage) {
    LOG_DEBUG("trying to open image file now %s", path.c_str());
    if (!openPage(path)) {
        LOG_DEBUG("[ERROR] failed to open image file");
        endJob();
        return COMM_STATUS_READ_FAILED;
    }
    LOG_DEBUG("performing post processing...");
    if (postProcess(firstPage) != 0) {
        LOG_DEBUG("[ERROR] post process failed");
        endJob();
        return COMM_STATUS_READ_FAILED;
    }
    LOG_DEBUG("ret is successfull");
    LOG_DEBUG("closing file now");
    pImageFile.reset();
    // The page is decoded and at hand: the session skips the device exchanges
    // of a USB scan (lock, start) and reads it straight away.
    return COMM_STATUS_CACHED_PAGES;
}

bool NetComm::openPage(const std::string& path) {
    szImageFile = path;
    pImageFile.reset(openRegularFile(path));
    return pImageFile != nullptr;
}

void NetComm::readSideFile(const std::string& path, bool firstPage) {
    std::unique_ptr<FILE, FileCloser> side(openRegularFile(path));
    if (!side) {
        LOG_DEBUG("Could not open %s.", path.c_str());
        if (!firstPage) LOG_DEBUG("Assuming in good faith that a config file was opened for the first page");
        return;
    }
    char line[SIDE_LINE_SIZE];
    for (int i = 0; i < SIDE_MAX_LINES && fgets(line, sizeof(line), side.get()) != nullptr; ++i) {
        LOG_DEBUG("conf line: %s", line);
        long value = 0;
        if (strncmp(line, FAMILY_PREFIX, strlen(FAMILY_PREFIX)) == 0 &&
            parseDecimal(line + strlen(FAMILY_PREFIX), 0, INT_MAX, &value))
            iFamily = (int)value;
        else if (strncmp(line, ROTATE_PREFIX, strlen(ROTATE_PREFIX)) == 0 &&
                 parseDecimal(line + strlen(ROTATE_PREFIX), 0, INT_MAX, &value))
            iRotate = (int)value;
    }
}

int NetComm::postProcess(bool firstPage) {
    LOG_METHOD_START();
    if (pCfgReader == nullptr || !pImageFile) {
        LOG_METHOD_END_INT(1);
        return 1;
    }
    const int depth = optionInt("COLORDEPTH");
    const int dpi = optionInt("CURRENTDPI");
    readSideFile(sideFileName(szImageFile), firstPage);
    int fileDpi = 0;
    int status;
    if ((iFamily == NET_FAMILY_WICKET_A || iFamily == NET_FAMILY_WICKET_B) && dpi >= HIGH_DPI &&
        depth != COLOR_DEPTH_BW) {
        LOG_DEBUG("performing wicket decompression...");
        bInterpolate = false;
        status = wicket_decompress();
        if (status != 0) LOG_DEBUG("wicket decompression error!");
    } else {
        LOG_DEBUG("taking zlib decompression path...");
        status = decodeZlibPage(&fileDpi);
    }
    if (status == 0 && depth != COLOR_DEPTH_BW && iRotate >= 1 && iRotate <= 359) status = rotatePage();
    if (status == 0 && depth != COLOR_DEPTH_BW && bInterpolate) status = interpolatePage(fileDpi, dpi);
    // The page file goes once it is decoded; removed with unlink rather than
    // a shell command, so no path is handed to a shell.
    if (status == 0) unlink(szImageFile.c_str());
    LOG_METHOD_END_INT(status);
    return status;
}

int NetComm::dumpHeaders(int* fileDpi) {
    FILE* f = pImageFile.get();
    if (f == nullptr || fileDpi == nullptr) return 1;
    // One header line, read byte by byte; a line longer than any header line
    // or a missing line end is malformed.
    auto readLine = [f](std::string& line) -> bool {
        line.clear();
        for (int c; (c = getc(f)) != EOF;) {
            if (c == '\n') return true;
            if (line.size() >= HEADER_LINE_MAX) return false;
            line += (char)c;
        }
        return false;
    };
    const int depth = optionInt("COLORDEPTH");
    static const char* const MAGIC[] = {"P4", "P5", "P6"};
    std::string line;
    if (!readLine(line) || depth < COLOR_DEPTH_BW || depth > COLOR_DEPTH_COLOR || line != MAGIC[depth]) {
        LOG_DEBUG("[ERROR] page header [%s] is not the one of colour depth %d", line.c_str(), depth);
        return 1;
    }
    long resolution = 0;
    if (!readLine(line) || line.compare(0, strlen(RESOLUTION_PREFIX), RESOLUTION_PREFIX) != 0 ||
        !parseDecimal(line.c_str() + strlen(RESOLUTION_PREFIX), 1, USHRT_MAX, &resolution)) {
        LOG_DEBUG("[ERROR] page resolution line [%s] is malformed", line.c_str());
        return 1;
    }
    *fileDpi = (int)resolution;
    LOG_DEBUG("file resolution is %d", *fileDpi);
    long width = 0;
    long height = 0;
    const char* blank = nullptr;
    if (!readLine(line) || (blank = strchr(line.c_str(), ' ')) == nullptr ||
        !parseDecimal(line.c_str(), 1, MAX_PAGE_DIMENSION, &width) ||
        !parseDecimal(blank + strspn(blank, " "), 1, MAX_PAGE_DIMENSION, &height)) {
        LOG_DEBUG("[ERROR] page size line [%s] is malformed", line.c_str());
        return 1;
    }
    iWidth = (int)width;
    iHeight = (int)height;
    pCfgReader->SetIntOption("PIXELS_PER_LINE", iWidth);
    pCfgReader->SetIntOption("LINES", iHeight);
    if ((depth == COLOR_DEPTH_GRAY || depth == COLOR_DEPTH_COLOR) && !readLine(line)) {
        LOG_DEBUG("[ERROR] page maximum value line is missing");
        return 1;
    }
    return 0;
}

int NetComm::decodeZlibPage(int* fileDpi) {
    if (dumpHeaders(fileDpi) != 0) return 1;
    FILE* f = pImageFile.get();
    const int depth = optionInt("COLORDEPTH");
    const int dpi = optionInt("CURRENTDPI");
    // The compressed data is the rest of the file, measured by the position.
    const long start = ftell(f);
    if (start < 0 || fseek(f, 0, SEEK_END) != 0) return 1;
    const long end = ftell(f);
    if (end < start || fseek(f, start, SEEK_SET) != 0) return 1;
    const long compressedLen = end - start;
    const long long bytesPerLine = depth == COLOR_DEPTH_GRAY    ? iWidth
                                   : depth == COLOR_DEPTH_COLOR ? 3LL * iWidth
                                                                : iWidth / 8;
    pCfgReader->SetIntOption("WIDTH_SCAN", iWidth);
    pCfgReader->SetIntOption("HEIGHT_SCAN", iHeight);
    pCfgReader->SetIntOption("INTER_WIDTH", 0);
    pCfgReader->SetIntOption("INTER_HEIGHT", 0);
    if (depth != COLOR_DEPTH_BW && *fileDpi < dpi) {
        LOG_DEBUG("interpolation needed");
        bInterpolate = true;
        pCfgReader->SetIntOption("INTER_WIDTH", 2 * iWidth);
        pCfgReader->SetIntOption("INTER_HEIGHT", 2 * iHeight);
    } else {
        LOG_DEBUG("interpolation not needed");
        bInterpolate = false;
        pCfgReader->SetIntOption("CURRENTDPI", *fileDpi);
    }
    pCfgReader->SetIntOption("FILE_DPI", *fileDpi);

    const long long expected = bytesPerLine * iHeight;
    if (expected <= 0 || expected > NET_MAX_PAGE_BYTES || compressedLen <= 0 ||
        expected > (long long)compressedLen * ZLIB_MAX_RATIO + ZLIB_MAX_RATIO) {
        LOG_DEBUG("[ERROR] page of %lld bytes cannot come from %ld bytes of data", expected, compressedLen);
        return 1;
    }
    // compress never makes more of a page than compressBound: a longer file is
    // not the page it announces, and its bulk is not read into memory.
    if ((unsigned long long)compressedLen > (unsigned long long)compressBound((uLong)expected)) {
        LOG_DEBUG("[ERROR] %ld bytes of data are more than a page of %lld bytes compresses to", compressedLen, expected);
        return 1;
    }
    std::unique_ptr<unsigned char, FreeDeleter> compressed((unsigned char*)malloc((size_t)compressedLen));
    std::unique_ptr<unsigned char, FreeDeleter> out(allocPageBuffer(expected));
    if (!compressed || !out || fread(compressed.get(), 1, (size_t)compressedLen, f) != (size_t)compressedLen) {
        LOG_DEBUG("[ERROR] page data not read");
        return 1;
    }
    uLongf outLen = (uLongf)expected;
    int z = uncompress(out.get(), &outLen, compressed.get(), (uLong)compressedLen);
    LOG_DEBUG("status of uncompress is %d", z);
    // A stream that ends early leaves part of the page undefined: refused.
    if (z != Z_OK || (long long)outLen != expected) return 1;
    setImage(out.release(), (long)expected, iWidth, iHeight);
    return 0;
}

void NetComm::setImage(unsigned char* data, long size, int width, int height) {
    pImage.reset(data);
    iImageSize = size;
    iImagePos = 0;
    iWidth = width;
    iHeight = height;
}

FILE* NetComm::writeDataToFile(const unsigned char* data, long length, const std::string& path) {
    // A file of that name left behind is removed first; the new one is made
    // afresh and never through a link.
    unlink(path.c_str());
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        LOG_DEBUG("writeDataToFile::Cannot open pxm file.");
        return nullptr;
    }
    // Written through the descriptor by the shared write loop, then handed out
    // as a stream at the file's start.
    if (length < 0 || (unsigned long)length > UINT_MAX || ::writeDataToFile(fd, data, (unsigned)length) != 0) {
        LOG_DEBUG("writeDataToFile::Error writing image data to file");
        close(fd);
        return nullptr;
    }
    FILE* f = fdopen(fd, "rb+");
    if (f == nullptr) {
        close(fd);
        LOG_DEBUG("writeDataToFile::Cannot open pxm file.");
        return nullptr;
    }
    if (fseek(f, 0, SEEK_SET) != 0) {
        LOG_DEBUG("writeDataToFile:: Error in fseek");
        fclose(f);
        return nullptr;
    }
    return f;
}

void NetComm::updateImageDimension(int height, int width) {
    pCfgReader->SetIntOption("PIXELS_PER_LINE", width);
    pCfgReader->SetIntOption("WIDTH_SCAN", width);
    pCfgReader->SetIntOption("LINES", height);
    pCfgReader->SetIntOption("HEIGHT_SCAN", height);
}

int NetComm::rotatePage() {
    const char* dir = optionString("TEMPDIRECTORY");
    if (!validTempDirectory(dir)) {
        LOG_DEBUG("[ERROR] TEMPDIRECTORY [%s] refused", dir ? dir : "NULL");
        return 1;
    }
    const std::string path = std::string(dir) + "/" + UNROTATED_FILE;
    std::unique_ptr<FILE, FileCloser> file(writeDataToFile(pImage.get(), iImageSize, path));
    if (!file) return 1;
    // The page is in the file now, so its buffer (which has the spare pixel)
    // takes the turned image.
    const long size = iImageSize;
    const int depth = optionInt("COLORDEPTH");
    Image image(iWidth, iHeight, depth, pImage.release());
    const bool fits = (long)image.getSize() == size;
    unsigned char* turned = fits ? image.rotateImageFromFile(file.get(), iRotate) : nullptr;
    file.reset();
    unlink(path.c_str());  // unlink rather than a shell command: no path goes to a shell
    if (turned == nullptr) {
        // An angle other than 90, 180 and 270 leaves the page as it is: the
        // buffer comes back untouched.
        LOG_DEBUG("rotation by %d not done", iRotate);
        setImage(image.releaseData(), size, iWidth, iHeight);
        return fits ? 0 : 1;
    }
    const int width = image.getWidth();
    const int height = image.getHeight();
    setImage(image.releaseData(), size, width, height);
    updateImageDimension(height, width);
    LOG_DEBUG("rotation done");
    return 0;
}

int NetComm::interpolatePage(int fileDpi, int requestedDpi) {
    LOG_DEBUG("Performing interpolation...");
    const int bytesPerPixel = optionInt("COLORDEPTH") == COLOR_DEPTH_GRAY ? 1 : 3;
    unsigned char* scaled = nullptr;
    int width = 0;
    int height = 0;
    ImageUtil::resizeNearest(pImage.get(), iWidth, iHeight, &scaled, &width, &height, (unsigned short)fileDpi,
                             (unsigned short)(requestedDpi > USHRT_MAX ? USHRT_MAX : requestedDpi),
                             (unsigned char)bytesPerPixel);
    // Without a scaled image the page would not have the announced size.
    if (scaled == nullptr) {
        LOG_DEBUG("[ERROR] interpolation failed");
        return 1;
    }
    setImage(scaled, (long)bytesPerPixel * width * height, width, height);
    pCfgReader->SetIntOption("INTER_WIDTH", width);
    pCfgReader->SetIntOption("INTER_HEIGHT", height);
    LOG_DEBUG("resized width: %d, resized height: %d", width, height);
    return 0;
}

int NetComm::wicket_decompress() {
    LOG_METHOD_START();
    FILE* f = pImageFile.get();
    const bool colour = optionInt("COLORDEPTH") == COLOR_DEPTH_COLOR;
    const long bpp = colour ? 3 : 1;
    struct stat st;
    if (f == nullptr || fstat(fileno(f), &st) != 0 || st.st_size <= 0 || st.st_size > NET_MAX_PAGE_BYTES) {
        LOG_DEBUG("Wicket Error : %d", -1);
        return 1;
    }
    const long length = (long)st.st_size;
    std::vector<unsigned char> data((size_t)length);
    if (fseek(f, 0, SEEK_SET) != 0 || fread(data.data(), 1, data.size(), f) != data.size()) {
        LOG_DEBUG("Wicket Error : %d", -1);
        return 1;
    }
    // First pass: every band must lie whole in the file and share the first
    // band's width; their lines together size the page. (The band sizes
    // summed and tripled would not bound what the bands decode to, so the
    // output is sized from the headers instead.)
    const long align = wicketLineAlign(1, colour ? 3 : 1);
    auto padded = [align](unsigned n) { return (long)((n + align - 1) / align * align); };
    unsigned width = 0;
    long long lines = 0;
    for (long pos = 0; pos < length;) {
        const unsigned char* head = data.data() + pos;
        const long avail = length - pos;
        const unsigned size = readBE32(head, avail, 0);
        const unsigned bandLines = readBE32(head, avail, 4);
        const unsigned bandWidth = readBE32(head, avail, 8);
        if (avail < BAND_HEADER_LEN || size < (unsigned)BAND_HEADER_LEN || size > (unsigned long)avail ||
            bandLines == 0 || bandLines > MAX_BAND_DIMENSION || bandWidth == 0 || bandWidth > MAX_BAND_DIMENSION ||
            (width != 0 && bandWidth != width) || padded(bandWidth) * padded(bandLines) * bpp > MAX_BAND_BYTES) {
            LOG_DEBUG("Wicket Error : %d", -1);
            return 1;
        }
        width = bandWidth;
        lines += bandLines;
        pos += size;
    }
    const long long total = (long long)width * lines * bpp;
    if (width == 0 || lines > MAX_PAGE_DIMENSION || total > NET_MAX_PAGE_BYTES) {
        LOG_DEBUG("Wicket Error : %d", -1);
        return 1;
    }
    std::unique_ptr<unsigned char, FreeDeleter> out(allocPageBuffer(total));
    if (!out) return 1;

    // Second pass: decode every band (three planes for colour, one otherwise)
    // and append its lines.
    Wicket wicket(1);
    const long rowBytes = (long)width * bpp;
    std::vector<unsigned char> band;
    long outLine = 0;
    for (long pos = 0; pos < length;) {
        const unsigned char* head = data.data() + pos;
        const unsigned size = readBE32(head, BAND_HEADER_LEN, 0);
        const unsigned bandLines = readBE32(head, BAND_HEADER_LEN, 4);
        wicket.QualityFactor((int)readBE32(head, BAND_HEADER_LEN, 12));
        const int paddedWidth = (int)padded(width);
        const int paddedLines = (int)padded(bandLines);
        band.assign((size_t)paddedWidth * (size_t)paddedLines * (size_t)bpp, 0);
        int produced = 0;
        int used = 0;
        const int codedLen = (int)size - BAND_HEADER_LEN;
        int err = colour ? wicket.DecompressThreePlanes(head + BAND_HEADER_LEN, codedLen, band.data(),
                                                        (long)band.size(), paddedWidth, paddedLines, &produced, &used)
                         : wicket.DecompressOnePlane(head + BAND_HEADER_LEN, codedLen, band.data(), (long)band.size(),
                                                     paddedWidth, paddedLines, &produced, &used);
        if (err != 0) {
            LOG_DEBUG("Wicket Error : %d", err);
            return 1;
        }
        for (unsigned l = 0; l < bandLines; ++l, ++outLine)
            memcpy(out.get() + outLine * rowBytes, band.data() + (long)l * paddedWidth * bpp, (size_t)rowBytes);
        pos += size;
    }
    setImage(out.release(), (long)total, (int)width, (int)lines);
    pCfgReader->SetIntOption("WIDTH_SCAN", iWidth);
    pCfgReader->SetIntOption("PIXELS_PER_LINE", iWidth);
    pCfgReader->SetIntOption("HEIGHT_SCAN", iHeight);
    pCfgReader->SetIntOption("LINES", iHeight);
    pCfgReader->SetIntOption("INTER_WIDTH", 0);
    pCfgReader->SetIntOption("INTER_HEIGHT", 0);
    LOG_METHOD_END_INT(0);
    return 0;
}

int NetComm::ReadImage(int* length, DataBuffer* buffer, ImageData*) {
    if (length == nullptr || buffer == nullptr) return COMM_STATUS_INVALID_ARG;
    *length = 0;
    if (pImage && iImagePos < iImageSize) {
        const long left = iImageSize - iImagePos;
        const int piece = (int)(left < NET_READ_PIECE ? left : NET_READ_PIECE);
        buffer->SetRawData(pImage.get() + iImagePos, piece);
        iImagePos += piece;
        *length = piece;
        return COMM_STATUS_GOOD;
    }
    pImage.reset();
    iImageSize = 0;
    iImagePos = 0;
    return COMM_STATUS_END_OF_DATA;
}

int NetComm::closeDevice() {
    LOG_METHOD_START();
    int status = counter == 0 ? removeDir() : COMM_STATUS_GOOD;
    LOG_METHOD_END_INT(status);
    return status;
}
