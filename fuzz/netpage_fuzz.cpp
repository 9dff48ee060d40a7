// Network pages of any content through the whole post-processing: the zlib
// path (header, uncompress, rotation through a file, interpolation) and the
// Wicket band path, chosen by the first two bytes; the decoded page, if any,
// has exactly the size its geometry says, and ReadImage hands all of it out.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "FuzzTempFile.h"
#include "NetComm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzTempFile file("Defaultscan.pxm");
    static const int DPI[] = {75, 150, 300, 600, 1200};
    static const int ROTATE[] = {0, 90, 180, 270, 45};
    if (size < 2) return 0;
    const int depth = data[0] % 3;
    const int dpi = DPI[(data[0] >> 2) % 5];
    const int family = (data[1] & 1) ? 14 : 0;
    const int rotate = ROTATE[(data[1] >> 1) % 5];
    const std::string side = "FAMILYID=" + std::to_string(family) + "\nROTATE=" + std::to_string(rotate) + "\n";
    file.writeSibling("Defaultscan.conf", (const uint8_t*)side.data(), side.size());
    const char* path = file.write(data + 2, size - 2);

    ConfigReader store;
    store.SetIntOption("COLORDEPTH", depth);
    store.SetIntOption("CURRENTDPI", dpi);
    store.SetStringOption("TEMPDIRECTORY", file.dir().c_str());
    NetComm net;
    net.setConfigReader(&store);
    if (!net.openPage(path)) abort();
    if (net.postProcess(true) != 0) return 0;
    const long bpp = depth == 2 ? 3 : 1;
    const long want = depth == 0 ? (long)(net.getImageWidth() / 8) * net.getImageHeight()
                                 : bpp * net.getImageWidth() * net.getImageHeight();
    if (net.getImageSize() != want) abort();
    DataBuffer buffer;
    long total = 0;
    for (int n = 0; net.ReadImage(&n, &buffer, nullptr) == 0; total += n) buffer.Reset();
    if (total != want) abort();
    return 0;
}
