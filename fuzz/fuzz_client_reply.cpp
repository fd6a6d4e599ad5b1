// The client's reply parser on hostile replies. One input is the parts of a
// ZeroMQ message, each as a 2-byte little-endian length and its bytes (a
// length past the end takes what is left); the request answered is command
// 0x10, sub-command 2. Parts may be up to 65535 bytes: longer than libzmq's
// ZMQ_MAXMSGSIZE lets through, so the parser's own bounds are exercised.
#include <cstdint>
#include <string>
#include <vector>

#include "vireo_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::vector<uint8_t>> parts;
    size_t at = 0;
    while (at + 2 <= size && parts.size() <= max_reply_packets + 1) {
        size_t len = data[at] | static_cast<size_t>(data[at + 1]) << 8;
        at += 2;
        len = std::min(len, size - at);
        parts.emplace_back(data + at, data + at + len);
        at += len;
    }
    client_reply out;
    std::string why;
    if (parse_reply(parts, 0x10, 2, out, why) == 0) {
        // A parsed reply's payload is what msg_len says, never more than
        // the packets carried.
        size_t carried = 0;
        for (const auto& p : parts) carried += p.size();
        if (out.payload.size() > carried)
            __builtin_trap();
    } else if (why.empty()) {
        __builtin_trap();
    }
    return 0;
}
