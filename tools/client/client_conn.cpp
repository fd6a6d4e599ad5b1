// One request/reply connection to the daemon.
#include <zmq.h>

#include <cerrno>

#include "vireo_client.h"

namespace {

// A reply of more parts than this is not the daemon's (8 MiB of packets).
constexpr size_t max_parts = 1024;

}  // namespace

client_conn::client_conn(const std::string& ep, int timeout) : endpoint(ep), timeout_ms(timeout) {}

client_conn::~client_conn() {
    close_socket();
    if (ctx != nullptr) {
        zmq_ctx_term(ctx);
    }
}

void client_conn::close_socket() {
    if (sock != nullptr) {
        zmq_close(sock);
        sock = nullptr;
    }
}

int client_conn::open(std::string& why) {
    if (sock != nullptr) {
        return 0;
    }
    if (ctx == nullptr && (ctx = zmq_ctx_new()) == nullptr) {
        why = std::string("zmq_ctx_new: ") + zmq_strerror(errno);
        return client_comm_error;
    }
    sock = zmq_socket(ctx, ZMQ_REQ);
    if (sock == nullptr) {
        why = std::string("zmq_socket: ") + zmq_strerror(errno);
        return client_comm_error;
    }
    // Linger 0: an unanswered request must not hold the process at exit.
    int linger = 0;
    zmq_setsockopt(sock, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(sock, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
    zmq_setsockopt(sock, ZMQ_SNDTIMEO, &timeout_ms, sizeof timeout_ms);
    if (zmq_connect(sock, endpoint.c_str()) != 0) {
        why = "cannot connect to " + endpoint + ": " + zmq_strerror(errno);
        close_socket();
        return client_bad_input;
    }
    return 0;
}

int client_conn::fail(const char* call, int err, std::string& why) {
    close_socket();
    if (err == EAGAIN) {
        why = "no reply from " + endpoint + " within " + std::to_string(timeout_ms) + " ms";
        return client_timeout;
    }
    why = std::string(call) + ": " + zmq_strerror(err);
    return client_comm_error;
}

int client_conn::request(uint32_t command, uint32_t sub_command,
                         const std::vector<uint8_t>& payload, client_reply& out,
                         std::string& why) {
    if (int rc = open(why); rc != 0) {
        return rc;
    }
    std::vector<uint8_t> frame = pack_request(command, sub_command, payload);
    if (zmq_send(sock, frame.data(), frame.size(), 0) == -1) {
        return fail("zmq_send", errno, why);
    }

    std::vector<std::vector<uint8_t>> parts;
    int more = 1;
    while (more != 0) {
        if (parts.size() == max_parts) {
            // The rest of the message is still queued: the socket is unusable.
            close_socket();
            why = "reply has more than " + std::to_string(max_parts) + " parts";
            return client_malformed;
        }
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        if (zmq_msg_recv(&msg, sock, 0) == -1) {
            int err = errno;
            zmq_msg_close(&msg);
            return fail("zmq_msg_recv", err, why);
        }
        const uint8_t* data = static_cast<const uint8_t*>(zmq_msg_data(&msg));
        parts.emplace_back(data, data + zmq_msg_size(&msg));
        more = zmq_msg_more(&msg);
        zmq_msg_close(&msg);
    }
    return parse_reply(parts, command, sub_command, out, why);
}
