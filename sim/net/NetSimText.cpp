#include "NetSimText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace netsim {

bool loadStatements(const std::string& file, const char* program,
                    const std::function<std::string(const Statement&)>& apply) {
    std::ifstream in(file);
    if (!in) {
        fprintf(stderr, "%s: cannot read %s\n", program, file.c_str());
        return false;
    }
    Statement st;
    for (std::string line; std::getline(in, line);) {
        ++st.iLine;
        std::istringstream words(line);
        st.words.assign(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
        if (st.words.empty() || st.words[0][0] == '#') continue;
        const size_t key = line.find(st.words[0]);
        const size_t b = line.find_first_not_of(" \t", key + st.words[0].size());
        st.szRest = b == std::string::npos ? std::string() : line.substr(b, line.find_last_not_of(" \t\r") + 1 - b);
        const std::string error = apply(st);
        if (!error.empty()) {
            fprintf(stderr, "%s: %s: line %d: %s\n", program, file.c_str(), st.iLine, error.c_str());
            return false;
        }
    }
    return true;
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

bool writeToFile(const std::string& path, const std::string& data, bool append) {
    const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    int fd = open(path.c_str(), flags, append ? 0600 : 0644);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += (size_t)n;
    }
    close(fd);
    return done == data.size();
}

}  // namespace netsim
