#include "wire/reply.h"

#include <sys/time.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "server_comm.h"
#include "wire/frame.h"

int send_reply(comm_data* c, const uint8_t* buf, size_t len) {
    const size_t share = static_cast<size_t>(c->max_send_len);
    if (len <= share) {
        memcpy(c->send_data->msg, buf, len);
        return static_cast<int>(len);
    }
    // msg_len and sum_packet cannot say more.
    const size_t count = (len + share - 1) / share;
    if (len > INT32_MAX || count > UINT16_MAX) {
        return -EMSGSIZE;
    }
    std::vector<uint8_t> frame(share + frame_overhead);
    data_struct h{};
    fill_reply_header(h, *c->recv_data, static_cast<int32_t>(len));
    h.client_id = 0xFF;
    h.sum_packet = static_cast<uint16_t>(count);
    gettimeofday(&h.time, nullptr);
    for (size_t k = 0; k < count; k++) {
        h.cur_packet = static_cast<uint16_t>(k + 1);
        size_t n = std::min(share, len - k * share);
        std::fill(frame.begin(), frame.end(), 0);
        memcpy(frame.data(), &h, frame_header_len);
        memcpy(frame.data() + frame_header_len, buf + k * share, n);
        if (zmq_send(c->get_socket(), frame.data(), frame.size(), k + 1 < count ? ZMQ_SNDMORE : 0) <
            0) {
            // Before the first part the daemon can still answer with the
            // code; after it, the parts sent are all the client gets.
            if (k == 0) {
                return -EIO;
            }
            break;
        }
    }
    return c->max_send_len + 1;
}
