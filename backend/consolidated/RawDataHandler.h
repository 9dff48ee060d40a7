// Runs the fixed chain of in-place manipulations over the whole lines that have
// arrived in an image and marks them processed.
#ifndef QUARTO_RAWDATAHANDLER_H
#define QUARTO_RAWDATAHANDLER_H

#include <memory>
#include <vector>

#include "CLogger.h"
#include "IManipulation.h"

class ConfigReader;
class ImageData;

class RawDataHandler : public CLogger {
public:
    RawDataHandler();
    ~RawDataHandler();
    RawDataHandler(const RawDataHandler&) = delete;
    RawDataHandler& operator=(const RawDataHandler&) = delete;

    // Builds the chain from the options (any earlier chain is dropped).
    void SetUp(ConfigReader* config);
    // 1 when the bytes were handled, 0 when a chain waits for a whole line.
    int Perform(ImageData* image);
    // Points the lookup-table paths at the files of the device's scan bar.
    int CheckForMultipleScanbars(ConfigReader* config);

    int GetManipulationCount() const { return (int)IM.size(); }
    IManipulation* GetManipulation(int index) const;

private:
    std::vector<std::unique_ptr<IManipulation>> IM;
};

#endif
