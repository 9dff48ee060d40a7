// The multi-page reader of feeder jobs over arbitrary record streams: the
// job into the page cache, then every cached page handed out one per session,
// then the transport destroyed with its job directory.
//
// Input: byte 0 selects the command version (bits 0-1), the progress display
// flag (bit 2; no display is ever there, so nothing is started), a compressed
// job whose cached pages are band streams (bit 3; versions 326 to 402, which
// take compression from the option) and colour (bit 4). The rest are device
// transfers, each a length byte followed by that many bytes.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "FakeUsb.h"

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "ICommand.h"
#include "IOComm.h"
#include "ImageData.h"

namespace {

// A private TMPDIR for the job directories, removed at exit.
char g_tmp[] = "/tmp/quarto-fuzz-XXXXXX";

void removeTmp() { rmdir(g_tmp); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    unsetenv("DISPLAY");
    if (mkdtemp(g_tmp) != nullptr) {
        setenv("TMPDIR", g_tmp, 1);
        atexit(removeTmp);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    static const int VERSIONS[4] = {326, 401, 402, 500};
    queueTransfers(data + 1, size - 1);

    ConfigReader store;
    store.SetIntOption("CONNECTION", 1);
    store.SetIntOption("USB_MULTIPAGE_FLAG", 1);
    store.SetIntOption("SCAN_SOURCE", 1);
    store.SetIntOption("READ_STATUS_DISPLAY_FLAG", (data[0] & 4) ? 1 : 0);
    store.SetStringOption("DISPLAYBINARY", "/nonexistent/quarto-progress");
    store.SetIntOption("COMPRESSION", (data[0] & 8) ? 1 : 0);
    store.SetIntOption("COLORDEPTH", (data[0] & 16) ? 2 : 1);
    store.SetIntOption("PIXELS_PER_LINE", 37);
    store.SetIntOption("LINES", 21);
    FakeDevice device = openFakeDevice(VERSIONS[data[0] & 3], store);
    if (!device.comm) return 0;
    IOComm& comm = *device.comm;
    comm.consumeScannerData();
    for (int session = 0; session < 1000; ++session) {
        if (session > 0 && comm.openDevice() != 19) break;
        DataBuffer out;
        ImageData image;
        int n = 0;
        if (comm.ReadImage(&n, &out, &image) != 0) break;
    }
    return 0;
}
