// Page headers and side files of any content: the PXM header readers (the
// utility's and the network transport's) and the side-file reader stay within
// their buffers and keep only plausible sizes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ConfigReader.h"
#include "FuzzTempFile.h"
#include "ImageUtil.h"
#include "NetComm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzTempFile file("page.pxm");
    if (size < 1) return 0;
    const char* path = file.write(data + 1, size - 1);

    FILE* f = fopen(path, "rb");
    if (f == nullptr) abort();
    IMAGE_HEADER header;
    ImageUtil::readPxmHeader(f, &header);
    fclose(f);
    if (strnlen(header.extra, sizeof(header.extra)) >= sizeof(header.extra)) abort();

    ConfigReader store;
    store.SetIntOption("COLORDEPTH", data[0] % 4);
    NetComm net;
    net.setConfigReader(&store);
    if (!net.openPage(path)) abort();
    int dpi = 0;
    if (net.dumpHeaders(&dpi) == 0) {
        if (dpi < 1 || dpi > 65535 || net.getImageWidth() < 1 || net.getImageHeight() < 1) abort();
    }
    net.readSideFile(path, (data[0] & 4) != 0);
    return 0;
}
