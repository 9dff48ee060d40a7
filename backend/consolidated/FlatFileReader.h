// A model's feature file read straight into the option store:
// [INTEGERS], [DOUBLES] and [STRINGS] sections of key=value pairs.
#ifndef QUARTO_FLATFILEREADER_H
#define QUARTO_FLATFILEREADER_H

#include <cstdio>
#include <string>
#include <vector>

#include "ConfigReader.h"

class FlatFileReader : public ConfigReader {
public:
    // Line buffer of both configuration readers: 4095 characters and the terminator.
    static const int LINE_BUFFER_SIZE = 4096;

    FlatFileReader();
    ~FlatFileReader() override;
    int LoadConfig(const char* fileName) override;

    // Reads the next line (at most LINE_BUFFER_SIZE - 1 characters; the rest of a
    // longer line comes as the next line) and strips trailing, then leading white
    // space. Returns a pointer into buf, or a null pointer at end of file.
    static char* ReadTrimmedLine(FILE* file, char* buf, int size);
    // Splits at '=': a run of '=' is one separator and empty pieces are dropped.
    static std::vector<std::string> SplitAtEquals(const char* line);
};

#endif
