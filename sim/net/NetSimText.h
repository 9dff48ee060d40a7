// Small text helpers shared by the simulated network scanner's two programs.
#ifndef QUARTO_NETSIMTEXT_H
#define QUARTO_NETSIMTEXT_H

#include <functional>
#include <string>
#include <vector>

namespace netsim {

// One statement of a scenario or job file: its line number, its words, and the
// text after the first word with blanks at both ends removed.
struct Statement {
    int iLine = 0;
    std::vector<std::string> words;
    std::string szRest;
};
// Applies every line of the file that has a word and is not a comment (first
// word starting with '#'); apply returns "" or what is wrong with the
// statement. The first fault, or an unreadable file, is reported on standard
// error as "PROGRAM: FILE: line N: ..." and ends the reading with false.
bool loadStatements(const std::string& file, const char* program,
                    const std::function<std::string(const Statement&)>& apply);
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
// Writes data to a file, never through a symbolic link: appended (a new file
// is made 0600) or replacing what the file held (a new file is made 0644).
bool writeToFile(const std::string& path, const std::string& data, bool append);

}  // namespace netsim

#endif
