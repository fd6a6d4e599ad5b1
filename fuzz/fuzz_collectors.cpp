// Every collector of the exporter on hostile /proc text. The first byte of
// an input picks the reader (the system files in table order, then a
// process's status, its stat, a pidfile, the crash list, the process list
// searched by name and by command line); the rest is the file as a board
// would send it. The seeds are the collectors' test fixtures.
#include <cstdint>
#include <string>

#include "exporter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The daemon sends at most 8192 bytes of a file, and 1 MiB of a list.
    const int pick = data[0] % 9;
    std::string text(reinterpret_cast<const char*>(data) + 1,
                     std::min<size_t>(size - 1, pick >= 7 ? 1 << 20 : 8192));
    metric_writer w;
    process_sample p;
    p.name = text.substr(0, 16);
    switch (pick) {
        case 4:
            parse_process_status(text, p);
            break;
        case 5:
            parse_process_stat(text, 100, p);
            break;
        case 6:
            p.pid = parse_pidfile(text);
            break;
        case 7:
            system_collectors[4].render(text, 100, w);
            break;
        case 8: {
            std::vector<ps_entry> list = parse_ps(text);
            process_conf by_name, by_cmdline;
            by_name.name = text.substr(0, 20);
            by_cmdline.by = select_by::cmdline;
            by_cmdline.cmdline = text.substr(0, 4);
            proc_miss miss;
            p.pid = select_process(by_name, list, miss) + select_process(by_cmdline, list, miss);
            break;
        }
        default:
            system_collectors[pick].render(text, 100, w);
            break;
    }
    p.up = true;
    render_processes({p}, w);
    // Every line of the page is a comment, or a name, a space and a value.
    for (size_t at = 0; at < w.out.size();) {
        size_t nl = w.out.find('\n', at);
        if (nl == std::string::npos || (w.out[at] != '#' && w.out.find(' ', at) >= nl)) {
            __builtin_trap();
        }
        at = nl + 1;
    }
    return 0;
}
