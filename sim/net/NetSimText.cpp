#include "NetSimText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace netsim {

std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    std::string w;
    while (in >> w) words.push_back(w);
    return words;
}

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

bool parseNumber(const std::string& text, long long lo, long long hi, long long* value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long long v = strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v < lo || v > hi) return false;
    *value = v;
    return true;
}

static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool unescape(const std::string& text, std::string* out) {
    out->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out->push_back(text[i]);
            continue;
        }
        if (++i >= text.size()) return false;
        switch (text[i]) {
            case '\\': out->push_back('\\'); break;
            case '"': out->push_back('"'); break;
            case 'n': out->push_back('\n'); break;
            case 'r': out->push_back('\r'); break;
            case 't': out->push_back('\t'); break;
            case 'x': {
                int hi = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
                int lo = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
                if (hi < 0 || lo < 0) return false;
                out->push_back((char)(hi * 16 + lo));
                i += 2;
                break;
            }
            default: return false;
        }
    }
    return true;
}

bool parseHex(const std::string& text, std::string* out) {
    out->clear();
    int pending = -1;
    for (char c : text) {
        if (c == ' ' || c == '\t') {
            if (pending >= 0) return false;
            continue;
        }
        int d = hexDigit(c);
        if (d < 0) return false;
        if (pending < 0) {
            pending = d;
        } else {
            out->push_back((char)(pending * 16 + d));
            pending = -1;
        }
    }
    return pending < 0;
}

std::string toHex(const std::string& bytes) {
    static const char DIGITS[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        s.push_back(DIGITS[c >> 4]);
        s.push_back(DIGITS[c & 15]);
    }
    return s;
}

std::string escapeArgument(const std::string& arg) {
    static const char DIGITS[] = "0123456789abcdef";
    std::string s;
    for (unsigned char c : arg) {
        if (c > 0x20 && c < 0x7F && c != '\\') {
            s.push_back((char)c);
        } else {
            s += "\\x";
            s.push_back(DIGITS[c >> 4]);
            s.push_back(DIGITS[c & 15]);
        }
    }
    return s;
}

bool appendToFile(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += (size_t)n;
    }
    close(fd);
    return done == text.size();
}

}  // namespace netsim
