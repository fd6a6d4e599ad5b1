// What a probe request asks for, and the reply of a probe function: one
// packet or, past 8192 bytes, many.
#include <sys/time.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <vector>

#include "probe_common.h"
#include "server_comm.h"

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
    return 0;
}

int probe_target(comm_data* c, probe_args& args) {
    int rc = probe_parse_args(c, args);
    rc = rc != 0 ? rc : probe_check_target(args);
    return rc != 0 ? rc : probe_allowed(args.pid);
}

int probe_reply(comm_data* c, const char* text, size_t len) {
    const size_t share = static_cast<size_t>(c->max_send_len);
    if (len <= share) {
        memcpy(c->send_data->msg, text, len);
        return static_cast<int>(len);
    }
    const size_t head = offsetof(data_struct, msg);
    const size_t count = (len + share - 1) / share;
    std::vector<uint8_t> frame(share + sizeof(data_struct));
    data_struct h{};
    h.command = c->recv_data->command;
    h.sub_command = c->recv_data->sub_command;
    h.msg_len = static_cast<int32_t>(len);
    h.msg_type = 0x30;
    h.command_type = 0x31;
    h.client_id = 0xFF;
    h.sum_packet = static_cast<uint16_t>(count);
    gettimeofday(&h.time, nullptr);
    for (size_t k = 0; k < count; k++) {
        h.cur_packet = static_cast<uint16_t>(k + 1);
        size_t n = std::min(share, len - k * share);
        std::fill(frame.begin(), frame.end(), 0);
        memcpy(frame.data(), &h, head);
        memcpy(frame.data() + head, text + k * share, n);
        if (zmq_send(c->get_socket(), frame.data(), frame.size(), k + 1 < count ? ZMQ_SNDMORE : 0) <
            0) {
            // Before the first part the daemon can still answer with the
            // code; after it, the parts sent are all the client gets.
            if (k == 0)
                return -EIO;
            break;
        }
    }
    return c->max_send_len + 1;
}
