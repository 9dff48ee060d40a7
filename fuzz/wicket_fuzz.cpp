// Wicket decoding on arbitrary bytes: the band decoder (every kernel level, both
// stuffing modes, one and three planes) must agree with the plain reference
// decoder byte for byte, and the chunk decompressor must treat any ring of
// bytes without reading or writing outside its buffers.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "DecompWicket.h"
#include "Wicket.h"
#include "WicketKernels.h"

// The reference is test code; it is compiled into this target directly.
#include "../tests/support/WicketReference.cpp"

namespace {

void checkBand(const uint8_t* data, size_t size, const uint8_t* params) {
    const bool stuffing = params[0] & 1;
    const int planes = (params[0] & 2) ? 3 : 1;
    const int level = (params[0] >> 2) % 3;
    const int quality = params[1] % 102;
    const int align = stuffing ? 8 : planes == 3 ? 16 : 48;
    const int width = align * (1 + params[2] % 6), height = 8 * (1 + params[3] % 4);

    // Repeating the input makes bands long enough for the decoder's fast path.
    std::vector<uint8_t> in(data, data + size);
    if (params[0] & 0x10)
        while (!in.empty() && in.size() < 4096) in.insert(in.end(), data, data + size);

    static std::unique_ptr<Wicket> decoders[2];
    if (!decoders[stuffing]) decoders[stuffing].reset(new Wicket(stuffing ? 1 : 0));
    Wicket& w = *decoders[stuffing];
    w.SetSimdLevel(level);
    w.QualityFactor(quality);
    std::vector<uint8_t> out(size_t(width) * height * planes, 0xCD), ref(out.size(), 0xCD);
    int produced = -1, used = -1;
    int rc = planes == 3 ? w.DecompressThreePlanes(in.data(), int(in.size()), out.data(), long(out.size()), width,
                                                   height, &produced, &used)
                         : w.DecompressOnePlane(in.data(), int(in.size()), out.data(), long(out.size()), width,
                                                height, &produced, &used);
    wicketref::Decoder reference(stuffing);
    reference.setQuality(quality, quality);
    int refProduced;
    long bits;
    int refRc = reference.decode(in.data(), int(in.size()), ref.data(), width, height, planes, &refProduced, &bits);
    long refUsed = planes == 3 ? ((bits + 511) / 512) * 64 : ((bits + 511) / 64) * 512;
    if (rc != refRc || produced != refProduced || used != refUsed || out != ref) __builtin_trap();
}

void checkRing(const uint8_t* data, size_t size, const uint8_t* params) {
    static std::unique_ptr<CDecompWicket> decompressors[2];
    const int stuffing = params[0] & 1;
    if (!decompressors[stuffing]) decompressors[stuffing].reset(new CDecompWicket(stuffing));
    CDecompWicket& dec = *decompressors[stuffing];
    dec.StartDecomp(8 + params[2], 8, (params[0] & 2) ? 2 : 1, 8);
    std::vector<uint8_t> ring(data, data + size);
    std::vector<uint8_t> out(size_t(params[1]) * 64);
    for (int call = 0; call < 4; ++call) {
        int consumed = -1, produced = -1;
        dec.Decomp(ring.data(), int(ring.size()), &consumed, out.data(), int(out.size()), &produced);
        if (produced < 0 || size_t(produced) > out.size() || consumed < 0 || size_t(consumed) > ring.size())
            __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    checkBand(data + 4, size - 4, data);
    checkRing(data + 4, size - 4, data);
    return 0;
}
