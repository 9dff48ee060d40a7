// quarto-netsim: a simulated network scanner's discovery side. It listens on
// UDP port 5353 and answers each discovery query (the 41-byte DNS question for
// _host-config._udp.local, type SRV, class IN) with the reply packets of a
// scenario: DNS responses whose TXT record carries "KEY value" strings, or raw
// bytes for malformed replies. Built from the wire format alone; see
// sim/README.md, "The simulated network scanner".
//
//   quarto-netsim [--port N] [--log FILE] [--lifetime SECONDS] SCENARIO
//
// It ends after the lifetime (600 s by default), on SIGTERM, or when the
// process that started it ends.
// Run it only inside a network namespace made for the purpose.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "NetSimText.h"

namespace {

// The query every reply answers: header (id 0, flags 0, one question), the
// name _host-config._udp.local in labels, type 33 (SRV), class 1 (IN).
const unsigned char QUERY[] = {0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0C,
                               '_',  'h',  'o',  's',  't',  '-',  'c',  'o',  'n',  'f',  'i',  'g',  0x04,
                               '_',  'u',  'd',  'p',  0x05, 'l',  'o',  'c',  'a',  'l',  0x00, 0x00, 0x21,
                               0x00, 0x01};
const size_t QUESTION_OFFSET = 12;

const int DNS_TYPE_TXT = 16;
const int DNS_CLASS_IN_FLUSH = 0x8001;
const unsigned TXT_TTL = 4500;
const int MAX_LABEL = 63;
const int MAX_TXT_STRING = 255;
const size_t MAX_PACKET = 65000;
const long long MAX_DELAY_MS = 60000;

struct Reply {
    long long llDelayMs = 0;
    bool bRaw = false;
    std::string szRaw;
    std::string szName = "Quarto";
    std::vector<std::string> vTxt;
    long long llFlags = 0x8400;
    long long llQuestions = 0;
    long long llAnswers = -1;   // -1: one, the TXT record
    long long llRdLength = -1;  // -1: the length of the TXT data
    long long llTruncate = -1;  // -1: the whole packet
};

void putBE16(std::string& s, unsigned v) {
    s.push_back((char)((v >> 8) & 0xFF));
    s.push_back((char)(v & 0xFF));
}

void putLabel(std::string& s, const std::string& label) {
    s.push_back((char)label.size());
    s += label;
}

std::string buildPacket(const Reply& r) {
    if (r.bRaw) return r.szRaw;
    std::string p;
    putBE16(p, 0);
    putBE16(p, (unsigned)r.llFlags);
    putBE16(p, (unsigned)r.llQuestions);
    putBE16(p, (unsigned)(r.llAnswers < 0 ? 1 : r.llAnswers));
    putBE16(p, 0);
    putBE16(p, 0);
    for (long long i = 0; i < r.llQuestions; ++i)
        p.append(reinterpret_cast<const char*>(QUERY) + QUESTION_OFFSET, sizeof(QUERY) - QUESTION_OFFSET);
    putLabel(p, r.szName);
    putLabel(p, "_host-config");
    putLabel(p, "_udp");
    putLabel(p, "local");
    p.push_back('\0');
    putBE16(p, DNS_TYPE_TXT);
    putBE16(p, DNS_CLASS_IN_FLUSH);
    putBE16(p, TXT_TTL >> 16);
    putBE16(p, TXT_TTL & 0xFFFF);
    std::string data;
    for (const std::string& t : r.vTxt) putLabel(data, t);
    putBE16(p, (unsigned)(r.llRdLength < 0 ? (long long)data.size() : r.llRdLength));
    p += data;
    if (r.llTruncate >= 0 && (size_t)r.llTruncate < p.size()) p.resize((size_t)r.llTruncate);
    return p;
}

// "delay=MS" as the first word after the statement, if present.
bool takeDelay(std::vector<std::string>& words, Reply* r) {
    if (words.size() > 1 && words[1].compare(0, 6, "delay=") == 0) {
        if (!netsim::parseNumber(words[1].substr(6), 0, MAX_DELAY_MS, &r->llDelayMs)) return false;
        words.erase(words.begin() + 1);
    }
    return true;
}

// One statement into the replies; "" when it is good, else what is wrong.
std::string applyStatement(const netsim::Statement& st, std::vector<Reply>* replies) {
    std::vector<std::string> w = st.words;
    const std::string key = w[0];
    if (key == "reply" || key == "raw") {
        Reply r;
        if (!takeDelay(w, &r)) return "bad delay";
        if (key == "raw") {
            r.bRaw = true;
            std::string hex;
            for (size_t k = 1; k < w.size(); ++k) hex += w[k] + " ";
            if (!netsim::parseHex(hex, &r.szRaw) || r.szRaw.size() > MAX_PACKET) return "bad raw bytes";
        } else if (w.size() != 1) {
            return "reply takes only delay=MS";
        }
        replies->push_back(r);
        return "";
    }
    if (replies->empty() || replies->back().bRaw) return key + " outside a reply";
    Reply& r = replies->back();
    std::string text;
    long long v = 0;
    if (key == "txt" || key == "name") {
        if (!netsim::unescape(st.szRest, &text)) return "bad escape";
        if (key == "name" && (text.empty() || text.size() > MAX_LABEL)) return "name must be 1-63 bytes";
        if (text.size() > MAX_TXT_STRING) return "TXT string longer than 255 bytes";
        if (key == "txt")
            r.vTxt.push_back(text);
        else
            r.szName = text;
        return "";
    }
    const long long max = key == "truncate" ? (long long)MAX_PACKET : key == "questions" ? 100 : 0xFFFF;
    if (w.size() != 2 || !netsim::parseNumber(w[1], 0, max, &v)) return "unknown statement or bad value: " + key;
    if (key == "flags") r.llFlags = v;
    else if (key == "questions") r.llQuestions = v;
    else if (key == "answers") r.llAnswers = v;
    else if (key == "rdlength") r.llRdLength = v;
    else if (key == "truncate") r.llTruncate = v;
    else return "unknown statement: " + key;
    return "";
}

bool loadScenario(const std::string& file, std::vector<Reply>* replies) {
    return netsim::loadStatements(file, "netsim",
                                  [&](const netsim::Statement& st) { return applyStatement(st, replies); });
}

std::string addressText(const sockaddr_in& a) {
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a.sin_addr, ip, sizeof(ip));
    return std::string(ip) + ":" + std::to_string(ntohs(a.sin_port));
}

void sleepMs(long long ms) {
    timespec ts{(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + ts.tv_nsec / 1e9;
}

int usage() {
    fprintf(stderr, "usage: quarto-netsim [--port N] [--log FILE] [--lifetime SECONDS] SCENARIO\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    long long port = 5353, lifetime = 600;
    std::string logFile, scenario;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        bool hasValue = i + 1 < argc;
        if (a == "--port" && hasValue) {
            if (!netsim::parseNumber(argv[++i], 1, 65535, &port)) return usage();
        } else if (a == "--lifetime" && hasValue) {
            if (!netsim::parseNumber(argv[++i], 1, 86400, &lifetime)) return usage();
        } else if (a == "--log" && hasValue) {
            logFile = argv[++i];
        } else if (scenario.empty() && !a.empty() && a[0] != '-') {
            scenario = a;
        } else {
            return usage();
        }
    }
    if (scenario.empty()) return usage();
    std::vector<Reply> replies;
    if (!loadScenario(scenario, &replies)) return 2;
    std::vector<std::string> packets;
    for (const Reply& r : replies) packets.push_back(buildPacket(r));

    auto log = [&](const std::string& line) {
        if (logFile.empty())
            fprintf(stdout, "%s\n", line.c_str()), fflush(stdout);
        else
            netsim::writeToFile(logFile, line + "\n", true);
    };

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        perror("netsim: socket");
        return 1;
    }
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons((uint16_t)port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof(any)) != 0) {
        perror("netsim: bind");
        return 1;
    }
    log("listening port=" + std::to_string(port) + " replies=" + std::to_string(packets.size()));

    // A test that starts the responder may be killed without a chance to stop
    // it: the responder ends when the process that started it has gone.
    const pid_t parent = getppid();
    const double end = now() + (double)lifetime;
    std::vector<char> buf(MAX_PACKET);
    while (now() < end && getppid() == parent) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        sockaddr_in from{};
        socklen_t fromLen = sizeof(from);
        ssize_t n = recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (n < 0) continue;
        const std::string packet(buf.data(), (size_t)n);
        const bool isQuery = packet.size() == sizeof(QUERY) && memcmp(packet.data(), QUERY, sizeof(QUERY)) == 0;
        log("packet from=" + addressText(from) + " len=" + std::to_string(n) + " query=" + (isQuery ? "1" : "0") +
            " data=" + netsim::toHex(packet));
        if (!isQuery) continue;
        for (size_t i = 0; i < packets.size(); ++i) {
            if (replies[i].llDelayMs > 0) sleepMs(replies[i].llDelayMs);
            ssize_t sent = sendto(fd, packets[i].data(), packets[i].size(), 0, reinterpret_cast<sockaddr*>(&from),
                                  sizeof(from));
            log("reply n=" + std::to_string(i + 1) + " len=" + std::to_string(packets[i].size()) +
                " sent=" + std::to_string(sent) + " to=" + addressText(from));
        }
    }
    close(fd);
    return 0;
}
