// A model's feature file read straight into the option store:
// [INTEGERS], [DOUBLES] and [STRINGS] sections of key=value pairs.
#ifndef QUARTO_FLATFILEREADER_H
#define QUARTO_FLATFILEREADER_H

#include "ConfigReader.h"

class FlatFileReader : public ConfigReader {
public:
    FlatFileReader();
    ~FlatFileReader() override;
    int LoadConfig(const char* fileName) override;
};

#endif
