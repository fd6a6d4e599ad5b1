// Example plug-in: the system's uptime in whole seconds, as decimal text.
// A configuration command naming it (on an arm64 board):
//   { "name": "uptime", "id": "1", "type": "custom",
//     "lib": "/usr/lib/aarch64-linux-gnu/vireo-monitor/plugins/libvireo_uptime.so",
//     "symbols": "uptime_seconds" }
#include <cstdio>
#include <ctime>

#include "vireo_plugin.h"

// Called on any of the daemon's worker threads, possibly on several at once:
// it keeps no state. An optional request payload of 4 bytes (little-endian)
// is a number of seconds to subtract, read with the daemon's own helper.
VIREO_PLUGIN_EXPORT int uptime_seconds(comm_data* c) {
    timespec now{};
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return -5;  // EIO
    }
    long long seconds = now.tv_sec;
    if (c->recv_data->msg_len >= 4 && c->recv_data->msg_len <= c->max_recv_len) {
        seconds -= u8_to_u32(c->recv_data->msg);
    }
    int n = snprintf(reinterpret_cast<char*>(c->send_data->msg),
                     static_cast<size_t>(c->max_send_len), "%lld\n", seconds);
    return n < 0 || n >= c->max_send_len ? -5 : n;
}
