// One request/reply connection to the daemon, watched by a socket monitor.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "vireo_client.h"

namespace {

// A reply of more parts than this is not the daemon's (8 MiB of packets).
constexpr size_t max_parts = max_reply_packets;
// How long one wait for the socket lasts before the stop flag is looked at.
constexpr int poll_slice_ms = 100;
// The most the closing connect() of a failed connection may take.
constexpr int diagnose_ms = 1000;

// host and port of "tcp://HOST:PORT" (or "tcp://SOURCE;HOST:PORT", HOST
// perhaps "[v6]"); false for other transports.
bool split_tcp(const std::string& endpoint, std::string& host, std::string& port) {
    if (endpoint.compare(0, 6, "tcp://") != 0) {
        return false;
    }
    std::string rest = endpoint.substr(6);
    if (size_t semi = rest.find(';'); semi != std::string::npos) {
        rest = rest.substr(semi + 1);
    }
    size_t colon = rest.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    host = rest.substr(0, colon);
    port = rest.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return true;
}

// Why a TCP connection to endpoint fails, found with one connect() of our
// own that waits at most wait_ms: the name lookup's error, or the errno.
std::string diagnose_connect(const std::string& endpoint, int wait_ms) {
    std::string host, port;
    if (!split_tcp(endpoint, host, port)) {
        return "cannot connect to " + endpoint;
    }
    const std::string where = host + ":" + port;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &res); rc != 0) {
        return "unknown host " + host + " (" + gai_strerror(rc) + ")";
    }
    int err = ETIMEDOUT;
    int fd = socket(res->ai_family, res->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        err = errno;
    } else if (connect(fd, res->ai_addr, res->ai_addrlen) == 0) {
        err = 0;
    } else if (errno != EINPROGRESS) {
        err = errno;
    } else {
        pollfd p{fd, POLLOUT, 0};
        socklen_t len = sizeof err;
        if (poll(&p, 1, wait_ms) == 1) {
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        }
    }
    if (fd >= 0) {
        close(fd);
    }
    freeaddrinfo(res);
    switch (err) {
        case ECONNREFUSED:
            return "connection refused by " + where;
        case EHOSTUNREACH:
        case ENETUNREACH:
        case EADDRNOTAVAIL:
            return "host " + host + " unreachable (" + strerror(err) + ")";
        case 0:
            return "connection to " + where + " failed, but it accepts connections now";
        default:
            return "cannot connect to " + where + " (" + strerror(err) + ")";
    }
}

// The reason for a handshake failed on a protocol error, with what to do
// when the server uses CURVE and this client does not.
std::string protocol_reason(uint32_t code, bool curve) {
    const bool needs_keys = code == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH && !curve;
    return conn_protocol_reason(code, curve) + (needs_keys ? " (give --server-key and --key)" : "");
}

int ms_left(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

client_conn::client_conn(const std::string& ep, int timeout, const client_keys& k)
    : endpoint(ep), timeout_ms(timeout), keys(k) {}

client_conn::~client_conn() {
    close_socket();
    if (ctx != nullptr) {
        zmq_ctx_term(ctx);
    }
}

void client_conn::close_socket() {
    if (sock != nullptr) {
        zmq_socket_monitor(sock, nullptr, 0);
        zmq_close(sock);
        sock = nullptr;
    }
    if (monitor != nullptr) {
        zmq_close(monitor);
        monitor = nullptr;
    }
    watch = conn_watch{};
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
    zmq_setsockopt(sock, ZMQ_SNDTIMEO, &timeout_ms, sizeof timeout_ms);
    // A longer frame drops the connection before it is held in memory. A
    // multi-part reply without end is bounded by the timeout only: libzmq
    // keeps the parts of a message until its last one.
    int64_t max_frame = max_wire_frame;
    zmq_setsockopt(sock, ZMQ_MAXMSGSIZE, &max_frame, sizeof max_frame);
    if (keys.curve() &&
        (zmq_setsockopt(sock, ZMQ_CURVE_SERVERKEY, keys.server_public.data(), 40) != 0 ||
         zmq_setsockopt(sock, ZMQ_CURVE_PUBLICKEY, keys.public_key.data(), 40) != 0 ||
         zmq_setsockopt(sock, ZMQ_CURVE_SECRETKEY, keys.secret_key.data(), 40) != 0)) {
        why = std::string("CURVE keys refused: ") + zmq_strerror(errno);
        close_socket();
        return client_bad_input;
    }
    // The monitor's PAIR is connected before the socket is, so that no event
    // of the first attempt is lost. Each socket gets its own address.
    static std::atomic<unsigned> seq{0};
    std::string addr = "inproc://vireo-client-monitor-" + std::to_string(seq++);
    if (zmq_socket_monitor(sock, addr.c_str(), conn_watched_events) != 0 ||
        (monitor = zmq_socket(ctx, ZMQ_PAIR)) == nullptr ||
        zmq_setsockopt(monitor, ZMQ_LINGER, &linger, sizeof linger) != 0 ||
        zmq_connect(monitor, addr.c_str()) != 0) {
        why = std::string("socket monitor: ") + zmq_strerror(errno);
        close_socket();
        return client_comm_error;
    }
    if (check_endpoint(endpoint, why) != 0) {
        close_socket();
        return client_bad_input;
    }
    if (zmq_connect(sock, endpoint.c_str()) != 0) {
        why = "cannot connect to " + endpoint + ": " + zmq_strerror(errno);
        close_socket();
        return client_bad_input;
    }
    return 0;
}

int check_endpoint(const std::string& endpoint, std::string& why) {
    // libzmq says only "Invalid argument" for an address without its
    // transport, the commonest slip.
    if (endpoint.find("://") != std::string::npos) {
        return 0;
    }
    why =
        "endpoint \"" + endpoint + "\" needs the form tcp://HOST:PORT" +
        (endpoint.find(':') != std::string::npos ? " (did you mean tcp://" + endpoint + "?)" : "");
    return client_bad_input;
}

int client_conn::fail(const char* call, int err, std::string& why) {
    close_socket();
    why = std::string(call) + ": " + zmq_strerror(err);
    return client_comm_error;
}

int client_conn::give_up(int wait_left_ms, std::string& why) {
    conn_verdict verdict = watch.at_timeout();
    close_socket();
    if (verdict == conn_verdict::handshake_closed) {
        why = "handshake with " + endpoint + " failed: the server closed the connection (" +
              (keys.curve() ? "wrong server key, or the server does not use CURVE)"
                            : "security mismatch: the server may use CURVE; give --server-key "
                              "and --key)");
        return client_handshake;
    }
    // At the timeout, the closing connect() still gets a short while.
    why =
        diagnose_connect(endpoint, std::min(std::max(wait_left_ms, diagnose_ms / 10), diagnose_ms));
    return client_refused;
}

int client_conn::read_events(int wait_left_ms, std::string& why) {
    uint16_t event = 0;
    uint32_t value = 0;
    while (read_conn_event(monitor, event, value) == 0) {
        switch (watch.feed(event, value)) {
            case conn_verdict::pending:
                break;
            case conn_verdict::auth_refused:
                close_socket();
                why = (keys.curve() ? "key not accepted by " : "authentication refused by ") +
                      endpoint + " (status " + std::to_string(value) + ")";
                return client_handshake;
            case conn_verdict::protocol_error:
                close_socket();
                why = "handshake with " + endpoint +
                      " failed: " + protocol_reason(value, keys.curve());
                return client_handshake;
            default:
                return give_up(wait_left_ms, why);
        }
    }
    return 0;
}

int client_conn::request(uint32_t command, uint32_t sub_command,
                         const std::vector<uint8_t>& payload, client_reply& out, std::string& why) {
    if (int rc = open(why); rc != 0) {
        return rc;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::vector<uint8_t> frame = pack_request(command, sub_command, payload);
    if (zmq_send(sock, frame.data(), frame.size(), 0) == -1) {
        return fail("zmq_send", errno, why);
    }
    for (;;) {
        if (stop != nullptr && *stop != 0) {
            close_socket();
            why = "interrupted";
            return client_interrupted;
        }
        int left = ms_left(deadline);
        if (int rc = read_events(left, why); rc != 0) {
            return rc;
        }
        if (left == 0) {
            if (watch.at_timeout() != conn_verdict::pending) {
                return give_up(0, why);
            }
            close_socket();
            why = "no reply from " + endpoint + " within " + std::to_string(timeout_ms) + " ms";
            return client_timeout;
        }
        zmq_pollitem_t items[] = {{sock, 0, ZMQ_POLLIN, 0}, {monitor, 0, ZMQ_POLLIN, 0}};
        int n = zmq_poll(items, 2, std::min(left, poll_slice_ms));
        if (n == -1 && errno != EINTR) {
            return fail("zmq_poll", errno, why);
        }
        if (n > 0 && (items[0].revents & ZMQ_POLLIN) != 0) {
            break;
        }
    }

    // The whole message has arrived: its parts are read without waiting.
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
        if (zmq_msg_recv(&msg, sock, ZMQ_DONTWAIT) == -1) {
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
