// Escape-header removal over arbitrary chunk sequences, for every strip size
// and strip min, drained the way the USB reader drains it. A call that asks to
// go on without consuming anything would hang the reader: trapped.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "DataBuffer.h"
#include "ICommand.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4 || size > 1 << 16) return 0;
    static const int VERSIONS[4] = {326, 401, 402, 500};
    std::unique_ptr<ICommand> cmd(ICommand::createCmdInstance(VERSIONS[data[0] & 3], 1, 0));
    if (data[0] & 4) {
        cmd->setStripSize(data[1]);
        cmd->setStripMin((int8_t)data[2]);
    }
    const unsigned char* stream = data + 4;
    size_t left = size - 4;
    unsigned chunkSeed = data[3] | 1u;

    DataBuffer buf;
    std::vector<unsigned char> out;
    size_t delivered = 0;
    size_t fed = 0;
    while (left > 0) {
        // Chunk lengths from a small generator seeded by the input.
        chunkSeed = chunkSeed * 1103515245u + 12345u;
        size_t n = 1 + (chunkSeed >> 16) % 64;
        if (n > left) n = left;
        buf.SetRawData(stream, (int)n);
        stream += n;
        left -= n;
        fed += n;
        int more;
        do {
            int before = buf.GetAllDataSize() - buf.GetProcessedDataSize();
            more = cmd->removeESC(&buf);
            int after = buf.GetAllDataSize() - buf.GetProcessedDataSize();
            if (more && after >= before) __builtin_trap();
            out.resize((size_t)buf.GetProcessedDataSize());
            delivered += (size_t)buf.GetProcessedData(out.data(), (int)out.size());
        } while (more);
    }
    if (delivered + (size_t)buf.GetAllDataSize() > fed) __builtin_trap();
    (void)cmd->getESCDataSize(const_cast<unsigned char*>(data), (int)size);
    return 0;
}
