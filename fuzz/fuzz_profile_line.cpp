// `vireo-client profile`'s reader of one sample reply ("TID\tNAME\tHELD_US\t
// STACK" lines): every stack it counts is counted once.
#include "vireo_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::map<std::string, long> counts;
    long stacks = 0;
    add_sample(std::string(reinterpret_cast<const char*>(data), size), counts, stacks);
    long sum = 0;
    for (const auto& [stack, n] : counts) sum += n;
    if (sum != stacks)
        __builtin_trap();
    return 0;
}
