// What a probe request asks for, and the reply of a probe function: one
// packet or, past 8192 bytes, many.
#include <cerrno>
#include <climits>

#include "probe_common.h"
#include "server_comm.h"
#include "wire/reply.h"

int probe_parse_args(comm_data* c, probe_args& args) {
    const data_struct* req = c->recv_data;
    // The payload past msg_len is cleared only for lengths up to
    // max_recv_len: with a larger claim, bytes 4..7 may be stale.
    if (req->msg_len < 4 || req->msg_len > c->max_recv_len) {
        return -EINVAL;
    }
    uint32_t pid = u8_to_u32(req->msg);
    uint32_t tid = req->msg_len >= 8 ? u8_to_u32(req->msg + 4) : 0;
    if (pid == 0 || pid > INT32_MAX || tid > INT32_MAX) {
        return -EINVAL;
    }
    args.pid = static_cast<pid_t>(pid);
    args.tid = static_cast<pid_t>(tid);
    args.flags = req->msg_len >= 12 ? u8_to_u32(req->msg + 8) : 0;
    return 0;
}

int probe_target(comm_data* c, probe_args& args) {
    int rc = probe_parse_args(c, args);
    rc = rc != 0 ? rc : probe_check_target(args);
    return rc != 0 ? rc : probe_allowed(args.pid);
}

int probe_reply(comm_data* c, const char* text, size_t len) {
    return send_reply(c, reinterpret_cast<const uint8_t*>(text), len);
}
