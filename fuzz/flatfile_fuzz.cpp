// Feature files of any content: read into the store, then every computed key.
#include <cstddef>
#include <cstdint>

#include "FlatFileReader.h"
#include "FuzzTempFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzTempFile file("model.ini");
    FlatFileReader reader;
    if (reader.LoadConfig(file.write(data, size)) != 1) abort();
    reader.DisplayConfig();
    reader.DisplayComputedValues();
    // Network mode too, whatever the file set.
    reader.SetIntOption("CONNECTION", reader.GetIntOption("CONNECTION") == 1 ? 0 : 1);
    reader.DisplayComputedValues();
    return 0;
}
