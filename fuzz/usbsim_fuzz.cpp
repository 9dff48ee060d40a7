// The simulated scanner's two parsers of untrusted input: scenario text, and
// the host's bulk writes (NPA packets, requests, scan windows).
//
// Input: scenario text up to the first NUL byte; after it, host writes, each a
// length byte followed by that many bytes. After each write a few transfers
// are read back.
//
// The fuzz build does not build sim/, so its two sources are compiled in here;
// the Wicket encoder they use is linked.
#include "../sim/Scenario.cpp"
#include "../sim/SimDevice.cpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* nul = static_cast<const uint8_t*>(memchr(data, 0, size));
    const size_t textLen = nul ? static_cast<size_t>(nul - data) : size;
    usbsim::Scenario scn;
    std::string errors;
    usbsim::parseScenario(std::string(reinterpret_cast<const char*>(data), textLen), scn, errors);
    if (scn.devices.empty() || !nul) return 0;
    usbsim::SimDevice dev(scn.devices[0], 0, nullptr, nullptr);
    unsigned char buf[4096];
    size_t pos = textLen + 1;
    while (pos < size) {
        const size_t len = std::min<size_t>(data[pos], size - pos - 1);
        dev.handleWrite(data + pos + 1, static_cast<int>(len));
        pos += 1 + len;
        for (int i = 0; i < 8 && dev.read(buf, sizeof buf) >= 0; ++i) {
        }
    }
    return 0;
}
