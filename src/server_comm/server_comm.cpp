#include <android/log.h>
#include <errno.h>
#include <zmq.h>

#include <utility>

#include "connection_guard.h"
#include "server_comm.h"

#define LOG_TAG "MONITOR_COMM"

namespace {
// Part of the ZAP options but only in libzmq's draft API; libzmq 4.3 takes it.
constexpr int zap_enforce_domain = 93;

int set_int(void* socket, int option, int value) {
    return zmq_setsockopt(socket, option, &value, sizeof value);
}

// Guards that no valid request notices: a frame larger than any request
// (at most 1072 bytes are read) closes its connection instead of being
// buffered; a connection must finish its handshake in 3 s, so connections
// that never do cannot pile up; a peer that answers no heartbeat for 30 s
// is dropped, so dead clients do not hold descriptors. Per peer at most
// router_rcvhwm whole requests wait (then its connection is not read until
// they are taken, so nothing is lost) and at most router_sndhwm replies
// (further ones for a peer that does not read are dropped; a client that
// reads never gets there, since its own ZeroMQ takes replies off the wire
// whether or not it has asked for them yet). With a secret key: a CURVE
// server whose every handshake goes to the ZAP handler, and is refused if
// no handler answers.
int set_router_options(void* socket, const std::string& secret) {
    int64_t max_size = 64 * 1024;
    if (zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &max_size, sizeof max_size) != 0 ||
        set_int(socket, ZMQ_HANDSHAKE_IVL, 3000) != 0 ||
        set_int(socket, ZMQ_RCVHWM, router_rcvhwm) != 0 ||
        set_int(socket, ZMQ_SNDHWM, router_sndhwm) != 0 ||
        set_int(socket, ZMQ_HEARTBEAT_IVL, 10000) != 0 ||
        set_int(socket, ZMQ_HEARTBEAT_TIMEOUT, 30000) != 0) {
        return -1;
    }
    if (secret.empty()) {
        return 0;
    }
    const char domain[] = "vireo-monitor";
    if (set_int(socket, ZMQ_CURVE_SERVER, 1) != 0 ||
        zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, secret.c_str(), secret.size()) != 0 ||
        zmq_setsockopt(socket, ZMQ_ZAP_DOMAIN, domain, sizeof domain - 1) != 0) {
        return -1;
    }
    // Without it libzmq accepts every key when the handler is missing. An
    // older libzmq without the option still has the handler bound first.
    set_int(socket, zap_enforce_domain, 1);
    return 0;
}

// Moves one whole message (all its parts) from one socket to the other.
// Without a waiting message returns 0 at once; -1 when a socket fails. With
// user_id (router to dealer) the connection's ZAP user id goes in as a frame
// after the envelope's empty delimiter, where the worker's REP socket hands
// it over as the first frame of the request.
int forward(void* from, void* to, bool user_id, connection_guard* guard) {
    zmq_msg_t part;
    zmq_msg_init(&part);
    int flags = ZMQ_DONTWAIT;
    bool more = true, routing_id = true, inserted = !user_id;
    while (more) {
        if (zmq_msg_recv(&part, from, flags) == -1) {
            zmq_msg_close(&part);
            return flags == ZMQ_DONTWAIT && errno == EAGAIN ? 0 : -1;
        }
        more = zmq_msg_more(&part) != 0;
        bool delimiter = !routing_id && !inserted && zmq_msg_size(&part) == 0;
        std::string id;
        if (delimiter) {
            // Read before sending: sending clears a message's properties.
            const char* text = zmq_msg_gets(&part, "User-Id");
            id = text != nullptr ? text : "";
            if (guard != nullptr) {
                guard->touch(zmq_msg_get(&part, ZMQ_SRCFD));
            }
        }
        if (zmq_msg_send(&part, to, more || delimiter ? ZMQ_SNDMORE : 0) == -1 ||
            (delimiter && zmq_send(to, id.data(), id.size(), more ? ZMQ_SNDMORE : 0) == -1)) {
            zmq_msg_close(&part);
            return -1;
        }
        inserted = inserted || delimiter;
        routing_id = false;
        flags = 0;
    }
    zmq_msg_close(&part);
    return 1;
}
}  // namespace

server_comm::server_comm(std::string ip_addr, int port) : ip_addr(std::move(ip_addr)), port(port) {}

int server_comm::listen_connect() {
    std::string endpoint = "tcp://" + ip_addr + ":" + std::to_string(port);

    if (context == nullptr) {
        context = zmq_ctx_new();
    }
    if (context == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_ctx_new error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    socket = zmq_socket(context, ZMQ_ROUTER);
    if (socket == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_socket error, %s\n",
                            zmq_strerror(errno));
        return -2;
    }
    if (set_router_options(socket, curve_secret) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_setsockopt error, %s",
                            zmq_strerror(errno));
        return -2;
    }
    // libzmq wraps a port outside 0..65535 instead of refusing it, which
    // would leave the daemon listening where nobody configured it.
    int rc;
    if (port < 0 || port > 65535) {
        errno = EINVAL;
        rc = -1;
    } else {
        rc = zmq_bind(socket, endpoint.c_str());
    }
    if (rc == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_bind error, %s\n",
                            zmq_strerror(errno));
        return -3;
    }
    workers = zmq_socket(context, ZMQ_DEALER);
    if (workers == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq workers error, %s\n",
                            zmq_strerror(errno));
        return -4;
    }
    // Requests wait in the router's queues, a few KiB each at most, rather
    // than by thousands in each worker's (up to 64 KiB each): with this and
    // the workers' worker_rcvhwm, a worker holds at most two waiting.
    set_int(workers, ZMQ_SNDHWM, 1);
    // Deliberately unchecked: a fresh context always has the name free.
    zmq_bind(workers, "inproc://workers");
    return 0;
}

comm_data* server_comm::create_comm(void* socket) {
    comm_data* every_comm = new comm_data(socket);
    std::lock_guard<std::mutex> lock(comm_list_lock);
    comm_list.push_back(every_comm);
    return every_comm;
}

int server_comm::close_connect() {
    if (zmq_close(socket) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_close error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    if (zmq_close(workers) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_close error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    if (zmq_ctx_term(context) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_ctx_term error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    return 0;
}

std::vector<comm_data*> server_comm::get_comm_list() {
    std::lock_guard<std::mutex> lock(comm_list_lock);
    return comm_list;
}

int server_comm::queue_with_user_id() {
    // Bursts keep the poll calls few under load; the bound keeps one side
    // from starving the other.
    constexpr int burst = 64;
    // Requests are taken only while the dealer can pass them on, so that
    // busy workers do not hold up the replies coming back. (A send that
    // fills the workers' queues mid-burst waits until a worker takes one.)
    auto can_send = [this] {
        int events = 0;
        size_t events_size = sizeof events;
        return zmq_getsockopt(workers, ZMQ_EVENTS, &events, &events_size) == 0 &&
               (events & ZMQ_POLLOUT) != 0;
    };
    while (true) {
        bool sendable = can_send();
        zmq_pollitem_t items[2] = {
            {workers, 0, static_cast<short>(ZMQ_POLLIN | (sendable ? 0 : ZMQ_POLLOUT)), 0},
            {socket, 0, ZMQ_POLLIN, 0}};
        if (zmq_poll(items, sendable ? 2 : 1, -1) == -1) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        int rc = 0;
        for (int i = 0; i < burst && (rc = forward(workers, socket, false, nullptr)) == 1; i++) {
        }
        if (rc == 0 && sendable) {
            for (int i = 0; i < burst && (rc = forward(socket, workers, true, guard)) == 1; i++) {
            }
        }
        if (rc == -1 && errno == ETERM) {
            return -1;
        }
    }
}
