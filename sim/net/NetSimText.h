// Small text helpers shared by the simulated network scanner's two programs.
#ifndef QUARTO_NETSIMTEXT_H
#define QUARTO_NETSIMTEXT_H

#include <string>
#include <vector>

namespace netsim {

// Words of a line, split at blanks and tabs.
std::vector<std::string> splitWords(const std::string& line);
// Text after the first n words, blanks at both ends removed.
std::string restAfterWords(const std::string& line, int n);
// Decimal or 0x hexadecimal number within [lo, hi]; false when it is not one.
bool parseNumber(const std::string& text, long long lo, long long hi, long long* value);
// C-style escapes \\ \" \n \r \t \xHH decoded; false on a malformed escape.
bool unescape(const std::string& text, std::string* out);
// Hex digits (blanks allowed between bytes) to bytes; false on odd or bad digits.
bool parseHex(const std::string& text, std::string* out);
// Every byte as two lower-case hex digits.
std::string toHex(const std::string& bytes);
// Bytes outside 0x21..0x7E, and the backslash, written as \xHH.
std::string escapeArgument(const std::string& arg);
// Appends text to a file that must not be a symbolic link (created 0600).
bool appendToFile(const std::string& path, const std::string& text);

}  // namespace netsim

#endif
