// The probe plug-in's reading of a request's arguments, fed request frames
// as a worker holds them after recv_msg: the bytes received, then, for a
// msg_len of 0..1024, zeros up to payload byte 1024. Accepted arguments
// must name a process (pid 1..INT32_MAX) and a thread (0..INT32_MAX), and
// must be the little-endian numbers in payload bytes 0..3 and 4..7.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "probe_common.h"
#include "server_comm.h"

// The harness never looks at processes: every pid is allowed.
int probe_allowed(pid_t) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static comm_data* c = new comm_data(nullptr);
    const size_t frame = sizeof(data_struct) + static_cast<size_t>(c->max_recv_len);
    size_t n = size < frame ? size : frame;
    memset(c->recv_data, 0xA5, frame);  // stale bytes of an earlier request
    memcpy(c->recv_data, data, n);
    int32_t len = c->recv_data->msg_len;
    if (len >= 0 && len <= c->max_recv_len)
        memset(c->recv_data->msg + len, 0, static_cast<size_t>(c->max_recv_len - len));
    probe_args args;
    if (probe_parse_args(c, args) != 0)
        return 0;
    uint32_t pid = u8_to_u32(c->recv_data->msg);
    uint32_t tid = len >= 8 ? u8_to_u32(c->recv_data->msg + 4) : 0;
    if (len < 4 || len > c->max_recv_len || args.pid <= 0 || args.tid < 0 ||
        static_cast<uint32_t>(args.pid) != pid || static_cast<uint32_t>(args.tid) != tid)
        abort();
    return 0;
}
