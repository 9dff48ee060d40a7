// The USB scan data stream as IOComm reads it: records, escape-framed blocks,
// exact-length messages and compressed Wicket bands, all from the device.
//
// Input: byte 0 selects the command version (bits 0-1), compressed mode
// (bit 2), colour (bit 3) and exact-length message reads (bit 4); byte 1 is the
// line width in pixels less one, byte 2 the height in lines less three. The
// rest are device transfers, each a length byte followed by that many bytes.
//
// The fuzz build has no simulator: FakeUsb.h is the libusb.
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "FakeUsb.h"

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "ICommand.h"
#include "IOComm.h"
#include "ImageData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    static const int VERSIONS[4] = {326, 401, 402, 500};
    const int version = VERSIONS[data[0] & 3];
    const bool compressed = (data[0] & 4) != 0;  // with 500 only when its own rules say so
    queueTransfers(data + 3, size - 3);

    ConfigReader store;
    store.SetIntOption("CONNECTION", 1);
    store.SetIntOption("COMPRESSION", compressed ? 1 : 0);
    store.SetIntOption("COLORDEPTH", (data[0] & 8) ? 2 : 1);
    store.SetIntOption("PIXELS_PER_LINE", data[1] + 1);
    store.SetIntOption("LINES", data[2] + 3);
    FakeDevice device = openFakeDevice(version, store);
    if (!device.comm) return 0;
    IOComm& comm = *device.comm;

    DataBuffer out;
    ImageData image;
    int n = 0;
    if (data[0] & 16) {
        // Exact-length messages until the transfers run out.
        unsigned char* msg = nullptr;
        unsigned int len = 0;
        while (comm.fetchMessage(&msg, &len) == 0) free(msg);
        return 0;
    }
    // Compressed mode collects the bands first (ReadImage decodes them); otherwise this
    // returns at once and ReadImage reads the framed stream.
    if (comm.readAndDecompressData() != 0) return 0;
    while (comm.ReadImage(&n, &out, &image) == 0) {
        if (out.GetRawDataSize() > 65536) out.Reset();
    }
    return 0;
}
