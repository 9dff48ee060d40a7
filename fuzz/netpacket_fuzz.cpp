// Discovery replies of any content: parsePacket (and through it extractString
// and parseText) reads only within the reply, and whatever it accepts is a
// device the filter and the device list handle.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "NetComm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy, so that any read past the reply is caught.
    unsigned char* reply = (unsigned char*)malloc(size ? size : 1);
    for (size_t i = 0; i < size; ++i) reply[i] = data[i];
    static NetComm net;
    NValueObjects device;
    if (net.parsePacket(reply, (int)size, &device)) {
        if (device.getMac().size() % 2 != 0) abort();
        NetComm::acceptDevice(device, "Tarvesk");
        NetComm::acceptDevice(device, "Velmarsk,Quindorra,Ostrevin,Bra");
    }
    // The whole input as one TXT entry too.
    std::string entry((const char*)reply, size);
    net.parseText(entry, &device);
    free(reply);
    return 0;
}
