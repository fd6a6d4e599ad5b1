// `vireo-client profile`'s reader of one sample reply ("TID\tNAME\tHELD_US\t
// STACK" lines): every stack it counts is counted once; a line read with
// the state field splits into fields without a tab, but for the stack.
#include "vireo_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::map<std::string, long> counts;
    long stacks = 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    add_sample(text, counts, stacks);
    sample_line l;
    if (read_sample_line(text, true, l) == 1 &&
        (l.tid + l.name + l.held + l.state).find('\t') != std::string::npos)
        __builtin_trap();
    long sum = 0;
    for (const auto& [stack, n] : counts) sum += n;
    if (sum != stacks)
        __builtin_trap();
    return 0;
}
