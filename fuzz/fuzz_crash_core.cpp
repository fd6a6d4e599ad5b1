// The crash handler's core reading on cores cut and mangled at random: the
// input arrives in reads of varying size, as from a pipe, and is read with
// small limits so that every cut-off path runs; whatever was kept is then
// built into a core and read back.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>

#include "crash_core.h"

namespace {

struct feed {
    const uint8_t* data;
    size_t size, pos;
    uint8_t chunk;
};

ssize_t read_feed(void* ctx, void* buf, size_t n) {
    auto* f = static_cast<feed*>(ctx);
    // Short reads of 1 to 256 bytes, sized by the input itself.
    size_t want = f->chunk ? std::min<size_t>(n, f->chunk) : n;
    f->chunk = static_cast<uint8_t>(f->chunk * 31 + 7);
    want = std::min(want, f->size - f->pos);
    memcpy(buf, f->data + f->pos, want);
    f->pos += want;
    return static_cast<ssize_t>(want);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    core_limits lim;
    lim.read_limit = 1 << 20;
    lim.stack_bytes = 8192;
    lim.notes_limit = 64 << 10;
    lim.max_threads = 64;
    lim.max_segments = 512;
    lim.kept_limit = 4 << 20;
    feed f{data, size, 0, static_cast<uint8_t>(size ? data[size - 1] : 0)};
    core_data d;
    if (core_read(read_feed, &f, lim, d) != 0)
        return 0;
    std::string image = core_build(d, 4096);
    feed again{reinterpret_cast<const uint8_t*>(image.data()), image.size(), 0, 0};
    core_data back;
    core_read(read_feed, &again, lim, back);
    return 0;
}
