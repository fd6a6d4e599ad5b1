#include <android/log.h>
#include <errno.h>
#include <zmq.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "server_comm.h"
#include "wire/frame.h"

#define LOG_TAG "MONITOR_COMM"

namespace {
constexpr int frame_size = 8192 + 48;
}

comm_data::comm_data(void* socket)
    : socket(socket), client_id(0), timeout(0), max_send_len(8192), max_recv_len(1024) {
    // Zero-filled, so that a short first request or the unwritten gap bytes of
    // a reply never expose uninitialised memory.
    send_data = static_cast<data_struct*>(calloc(1, frame_size));
    recv_data = static_cast<data_struct*>(calloc(1, frame_size));
    if (send_data == nullptr || recv_data == nullptr) {
        __android_log_print(ANDROID_LOG_FATAL, LOG_TAG,
                            "comm_data: cannot allocate frame buffers, aborting\n");
        abort();
    }
}

comm_data::~comm_data() {
    free(send_data);
    free(recv_data);
}

int comm_data::recv_msg() {
    int n = 0;
    bool body = true;
    if (key_frame) {
        zmq_msg_t key;
        zmq_msg_init(&key);
        n = zmq_msg_recv(&key, socket, 0);
        if (n != -1) {
            peer_key.assign(static_cast<const char*>(zmq_msg_data(&key)), zmq_msg_size(&key));
            // A client that sent no frame at all: answered as an empty one.
            body = zmq_msg_more(&key) != 0;
            n = 0;
        }
        zmq_msg_close(&key);
    }
    if (n != -1 && body) {
        n = zmq_recv(socket, recv_data, static_cast<size_t>(max_recv_len + 48), 0);
    }
    // A request is one frame. Frames a client sent after it are dropped
    // here, unread by any handler: otherwise each would run as a request of
    // its own with no reply to carry its answer, and behind a CURVE endpoint
    // the next receive would take the client's frame for the key the queue
    // put in, and so the rights of another key.
    if (n != -1) {
        int more = 0;
        size_t more_size = sizeof more;
        char scrap;
        while (zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &more_size) == 0 && more != 0 &&
               zmq_recv(socket, &scrap, 0, 0) != -1) {
        }
    }
    if (n == -1) {
        int error = errno;  // for the caller, whatever logging does to it
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_recv error, %s\n",
                            zmq_strerror(error));
        errno = error;
        return -1;
    }
    // What this request did not carry must not be read from the previous
    // one: a short or empty frame leaves zeros in the header and payload,
    // not another client's request. (The 4 trailing alignment bytes mean
    // nothing and are never read.)
    const int meaningful = max_recv_len + 44;
    if (n < meaningful) {
        memset(reinterpret_cast<uint8_t*>(recv_data) + n, 0, static_cast<size_t>(meaningful - n));
    }
    gettimeofday(&recv_data->time, nullptr);

    // The checksum covers n bytes from the payload start; crc32 reads nothing.
    uint32_t c = crc32(recv_data->msg, n, crc_32_MPEG2);
    if (recv_data->crc != c) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "crc error, compute crc is %d , receive crc is %d\n",
                            static_cast<int>(crc32(recv_data->msg, n, crc_32_MPEG2)),
                            static_cast<int>(recv_data->crc));
    }

    // Clear the payload after msg_len so that handlers see zeros there. The
    // length comes from the network: outside 0..max_recv_len nothing is
    // cleared rather than writing outside the buffer.
    int32_t msg_len = recv_data->msg_len;
    if (msg_len >= 0 && msg_len <= max_recv_len) {
        memset(recv_data->msg + msg_len, 0, static_cast<size_t>(max_recv_len - msg_len));
    }
    return n;
}

int comm_data::ack_msg(int len) {
    if (max_send_len < len) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "server_comm support max len %d\n",
                            max_send_len);
        return -1;
    }
    fill_reply_header(*send_data, *recv_data, len);
    send_data->client_id = 0xFF;
    send_data->sum_packet = 0;
    send_data->cur_packet = 0;
    send_data->crc = crc32(send_data->msg, len, crc_32_MPEG2);
    gettimeofday(&send_data->time, nullptr);

    // An error code travels in msg_len and shortens the frame to len + 48
    // bytes. Below -48 that size would be negative: send the 12-byte prefix
    // (command, sub_command, msg_len) so the client still sees the code.
    int64_t size = static_cast<int64_t>(len) + 48;
    if (size < 0) {
        size = 12;
    }
    if (zmq_send(socket, send_data, static_cast<size_t>(size), 0) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_send error, %s\n",
                            zmq_strerror(errno));
        return -2;
    }
    return 0;
}

int comm_data::ack_more_msg(uint8_t* buf, int len) {
    const int32_t P = max_send_len;
    fill_reply_header(*send_data, *recv_data, len < 0 ? 0 : len);
    int32_t sum = len / P;
    if (len % P != 0) {
        sum += 1;
    }
    send_data->sum_packet = static_cast<uint16_t>(sum);

    // What each packet carries on the wire is the connection's own fields
    // from send_data onwards, not the packet prepared in send_data. Those four
    // values are copied into a zero-filled frame so nothing past this object
    // is read.
    std::vector<uint8_t> wire(static_cast<size_t>(P) + 48, 0);
    uint8_t* w = wire.data();
    memcpy(w, &send_data, sizeof send_data);
    memcpy(w + 8, &recv_data, sizeof recv_data);
    memcpy(w + 16, &max_send_len, sizeof max_send_len);
    memcpy(w + 20, &max_recv_len, sizeof max_recv_len);

    uint16_t k = 1;
    int32_t r = len;
    // The source offset is counted apart from the 16-bit packet number, which
    // wraps on replies of more than 65535 packets.
    size_t offset = 0;
    while (P < r) {
        send_data->cur_packet = k;
        memset(send_data->msg, 0, static_cast<size_t>(P));
        memcpy(send_data->msg, buf + offset, static_cast<size_t>(P));
        send_data->crc = crc32(send_data->msg, P, crc_32_MPEG2);
        gettimeofday(&send_data->time, nullptr);
        if (zmq_send(socket, w, wire.size(), ZMQ_SNDMORE) == -1) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_send error, %s\n",
                                zmq_strerror(errno));
            return -1;
        }
        k++;
        r -= P;
        offset += static_cast<size_t>(P);
    }

    send_data->cur_packet = k;
    memset(send_data->msg, 0, static_cast<size_t>(P));
    for (int32_t i = 0; i < r; i++) {
        send_data->msg[i] = buf[offset + static_cast<size_t>(i)];
    }
    send_data->crc = crc32(send_data->msg, P, crc_32_MPEG2);
    gettimeofday(&send_data->time, nullptr);
    if (zmq_send(socket, w, wire.size(), 0) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_send error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    return 0;
}

uint64_t comm_data::get_send_time_us() {
    return static_cast<uint64_t>(send_data->time.tv_sec) * 1000000 +
           static_cast<uint64_t>(send_data->time.tv_usec);
}

uint64_t comm_data::get_recv_time_us() {
    return static_cast<uint64_t>(recv_data->time.tv_sec) * 1000000 +
           static_cast<uint64_t>(recv_data->time.tv_usec);
}
