#include "FlatFileReader.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

enum Section { SECTION_NONE, SECTION_INTEGERS, SECTION_DOUBLES, SECTION_STRINGS };

const char SECTION_INTEGERS_HEADER[] = "[INTEGERS]";
const char SECTION_DOUBLES_HEADER[] = "[DOUBLES]";
const char SECTION_STRINGS_HEADER[] = "[STRINGS]";

}  // namespace

FlatFileReader::FlatFileReader() = default;

FlatFileReader::~FlatFileReader() = default;

char* FlatFileReader::ReadTrimmedLine(FILE* file, char* buf, int size) {
    if (fgets(buf, size, file) == nullptr) return nullptr;
    size_t len = strlen(buf);
    while (len > 0 && isspace((unsigned char)buf[len - 1])) buf[--len] = '\0';
    char* p = buf;
    while (isspace((unsigned char)*p)) ++p;
    return p;
}

std::vector<std::string> FlatFileReader::SplitAtEquals(const char* line) {
    std::vector<std::string> pieces;
    const char* p = line;
    while (p != nullptr && *p) {
        while (*p == '=') ++p;
        if (*p == '\0') break;
        const char* end = strchr(p, '=');
        if (end == nullptr) end = p + strlen(p);
        pieces.emplace_back(p, (size_t)(end - p));
        p = end;
    }
    return pieces;
}

int FlatFileReader::LoadConfig(const char* fileName) {
    LOG_METHOD_START();
    struct stat st;
    if (fileName == nullptr || stat(fileName, &st) != 0) {
        LOG_DEBUG("%s: The file %s does not exist.", "virtual int FlatFileReader::LoadConfig(const char*)",
                  fileName ? fileName : "(null)");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    FILE* file = fopen(fileName, "r");
    if (file == nullptr) {
        // Names the fixed path whatever file was asked for: intended.
        LOG_DEBUG("Error opening %s file.", "/tmp/Temp.conf");
        LOG_METHOD_END_INT(0);
        return 0;
    }

    Section section = SECTION_NONE;
    char buf[LINE_BUFFER_SIZE];
    char* line;
    while ((line = ReadTrimmedLine(file, buf, sizeof(buf))) != nullptr) {
        if (strcmp(line, SECTION_INTEGERS_HEADER) == 0) {
            section = SECTION_INTEGERS;
            continue;
        }
        if (strcmp(line, SECTION_DOUBLES_HEADER) == 0) {
            section = SECTION_DOUBLES;
            continue;
        }
        if (strcmp(line, SECTION_STRINGS_HEADER) == 0) {
            section = SECTION_STRINGS;
            continue;
        }
        if (section == SECTION_NONE || line[0] == '\0' || line[0] == '#') continue;

        // Pieces are taken in pairs, each pair stored at once; blanks stay part of
        // key and value, and a trailing key without a value stores nothing.
        std::vector<std::string> pieces = SplitAtEquals(line);
        for (size_t i = 0; i + 1 < pieces.size(); i += 2) {
            const char* key = pieces[i].c_str();
            const char* value = pieces[i + 1].c_str();
            LOG_DEBUG("szCurrentKey = %s", key);
            if (section == SECTION_INTEGERS) {
                int v = atoi(value);
                LOG_DEBUG("iKeyValue = %d", v);
                SetIntOption(key, v);
            } else if (section == SECTION_DOUBLES) {
                double v = atof(value);
                LOG_DEBUG("iKeyValue = %.3f", v);
                SetDoubleOption(key, v);
            } else {
                LOG_DEBUG("szKeyValue = %s", value);
                SetStringOption(key, value);
            }
        }
    }
    fclose(file);
    LOG_METHOD_END_INT(1);
    return 1;
}
