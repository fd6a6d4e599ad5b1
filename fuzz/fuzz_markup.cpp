// The markup a board sends (or whatever answers on its endpoint), as the
// host names it: no debug folder and no server, so only the parsing, the
// address-space model and the fallback names run. Every line either parses
// or is refused; nothing else may happen.
#include <cstdio>
#include <string>

#include "symbolize.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    text += '\n';  // fmemopen refuses an empty buffer
    FILE* in = fmemopen(&text[0], text.size(), "r");
    FILE* out = fopen("/dev/null", "w");
    if (in == nullptr || out == nullptr)
        __builtin_trap();
    symbolizer s(symbolize_options{{}, {}, false});
    std::string why;
    int rc = symbolize_stream(in, out, s, why);
    fclose(in);
    fclose(out);
    if (rc != 0 && (rc != symbolize_bad_markup || why.empty()))
        __builtin_trap();
    return 0;
}
