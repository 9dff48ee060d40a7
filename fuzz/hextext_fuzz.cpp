// Hexadecimal texts of any content.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    int count = -1;
    unsigned char* bytes = utilCreateBytesFromText(text.c_str(), &count);
    if (count < 0 || (size_t)count > size / 2) abort();
    free(bytes);

    size_t len = strlen(text.c_str());
    std::vector<unsigned char> out(len / 2 + 1);
    if ((size_t)utilCopyMacTextToBytes(text.c_str(), out.data()) != len) abort();

    long value = 0;
    utilCreateByteFromTwoChars(text.c_str(), &value);
    return 0;
}
