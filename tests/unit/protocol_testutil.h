// Helpers shared by the protocol tests: hex literals to bytes, and requests
// built by a command object into a vector.
#ifndef QUARTO_PROTOCOL_TESTUTIL_H
#define QUARTO_PROTOCOL_TESTUTIL_H

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "ICommand.h"

namespace proto {

using Bytes = std::vector<unsigned char>;

// "1B 53 0A" -> {0x1B, 0x53, 0x0A}; blanks and '|' separate bytes.
inline Bytes hex(const std::string& text) {
    Bytes out;
    std::string digits;
    for (char c : text)
        if (std::isxdigit((unsigned char)c)) digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back((unsigned char)std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

// Result code and bytes of getCommand for the command's current id.
struct Request {
    int rc;
    int len;
    Bytes bytes;
};

inline Request build(ICommand* cmd, int id) {
    cmd->setCommandId(id);
    unsigned char* out = nullptr;
    int len = -1;
    Request r;
    r.rc = cmd->getCommand(&out, &len);
    r.len = len;
    if (r.rc == 0 && out != nullptr) r.bytes.assign(out, out + len);
    free(out);
    return r;
}

}  // namespace proto

#endif
