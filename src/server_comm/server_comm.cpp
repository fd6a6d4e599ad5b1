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

// The routing id of the index'th worker's socket on the queue's router.
std::string worker_id(int index) {
    return "worker-" + std::to_string(index);
}

// Passes one worker's reply on to its client; the worker is idle again.
// 1, 0 when no reply waits, -1 when a socket fails.
int take_reply(void* workers, void* socket, std::vector<std::string>& idle) {
    zmq_msg_t id;
    zmq_msg_init(&id);
    if (zmq_msg_recv(&id, workers, ZMQ_DONTWAIT) == -1) {
        zmq_msg_close(&id);
        return errno == EAGAIN ? 0 : -1;
    }
    bool more = zmq_msg_more(&id) != 0;
    idle.emplace_back(static_cast<const char*>(zmq_msg_data(&id)), zmq_msg_size(&id));
    zmq_msg_close(&id);
    return more ? forward(workers, socket, false, nullptr) : 1;
}

// Hands the next waiting request, user id inserted, to the idle worker last
// back (its cache is warm). A worker the router does not know yet (its
// connect still on the way) moves to unseen. 1, 0 when no request waits or
// no worker is reachable, -1 when a socket fails.
int dispatch(void* socket, void* workers, std::vector<std::string>& idle,
             std::vector<std::string>& unseen, connection_guard* guard) {
    // A router reports a message only once it holds it, so the receive
    // that follows the worker's id cannot come up empty.
    int events = 0;
    size_t events_size = sizeof events;
    if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &events_size) != 0) {
        return -1;
    }
    if ((events & ZMQ_POLLIN) == 0) {
        return 0;
    }
    while (!idle.empty()) {
        std::string id = std::move(idle.back());
        idle.pop_back();
        if (zmq_send(workers, id.data(), id.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) == -1) {
            if (errno == ETERM) {
                return -1;
            }
            unseen.push_back(std::move(id));
            continue;
        }
        return forward(socket, workers, true, guard) == -1 ? -1 : 1;
    }
    return 0;
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
    // Behind CURVE the daemon runs the queue itself and hands each request
    // to an idle worker only, so that walks holding workers delay nothing
    // else; each worker is addressed by the routing id create_comm gives it.
    bool own_queue = !curve_secret.empty();
    workers = zmq_socket(context, own_queue ? ZMQ_ROUTER : ZMQ_DEALER);
    if (workers == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq workers error, %s\n",
                            zmq_strerror(errno));
        return -4;
    }
    // Requests wait in the router's queues, a few KiB each at most, rather
    // than by thousands in each worker's (up to 64 KiB each): with this and
    // the workers' worker_rcvhwm, a worker holds at most two waiting. The
    // own queue sends only to idle workers, and learns of an unknown id.
    set_int(workers, own_queue ? ZMQ_ROUTER_MANDATORY : ZMQ_SNDHWM, 1);
    // Deliberately unchecked: a fresh context always has the name free.
    zmq_bind(workers, "inproc://workers");
    return 0;
}

comm_data* server_comm::create_comm(void* socket) {
    comm_data* every_comm = new comm_data(socket);
    std::lock_guard<std::mutex> lock(comm_list_lock);
    std::string id = worker_id(static_cast<int>(comm_list.size()));
    zmq_setsockopt(socket, ZMQ_ROUTING_ID, id.data(), id.size());
    comm_list.push_back(every_comm);
    registered.store(static_cast<int>(comm_list.size()));
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
    std::vector<std::string> idle, unseen;
    int known = 0;
    while (true) {
        for (int n = registered.load(); known < n; known++) {
            idle.push_back(worker_id(known));
        }
        // A worker not connected yet is tried again every 10 ms while no
        // other is idle; so is the list of workers before any registered.
        bool retry = idle.empty() && !unseen.empty();
        zmq_pollitem_t items[2] = {{workers, 0, ZMQ_POLLIN, 0}, {socket, 0, ZMQ_POLLIN, 0}};
        if (zmq_poll(items, idle.empty() ? 1 : 2, retry || known == 0 ? 10 : -1) == -1) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (retry) {
            idle.swap(unseen);
        }
        int rc = 0;
        for (int i = 0; i < burst && (rc = take_reply(workers, socket, idle)) == 1; i++) {
        }
        for (int i = 0; rc != -1 && i < burst && !idle.empty(); i++) {
            if ((rc = dispatch(socket, workers, idle, unseen, guard)) != 1) {
                break;
            }
        }
        if (rc == -1 && errno == ETERM) {
            return -1;
        }
    }
}
