#include "connection_guard.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <errno.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <zmq.h>

#include <cstring>

#define LOG_TAG "MONITOR_COMM"

namespace {
constexpr char events_endpoint[] = "inproc://vireo-connections";

// Both ends of a TCP socket, to tell a connection from a later one that
// reuses its descriptor number.
std::string ends_of(int fd) {
    sockaddr_storage a{}, b{};
    socklen_t la = sizeof a, lb = sizeof b;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&a), &la) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr*>(&b), &lb) != 0) {
        return "";
    }
    return std::string(reinterpret_cast<char*>(&a), la) +
           std::string(reinterpret_cast<char*>(&b), lb);
}

int64_t now_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}
}  // namespace

int connection_guard::limit_from_rlimit() {
    rlimit r{};
    if (getrlimit(RLIMIT_NOFILE, &r) != 0 || r.rlim_cur == RLIM_INFINITY) {
        return 1 << 20;
    }
    return static_cast<int>(r.rlim_cur) - reserved_descriptors;
}

connection_guard::~connection_guard() {
    stopping = true;
    if (thread.joinable()) {
        thread.join();
    }
}

int connection_guard::start(void* context, void* router) {
    if (zmq_socket_monitor(router, events_endpoint, ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) !=
        0) {
        return -1;
    }
    events = zmq_socket(context, ZMQ_PAIR);
    if (events == nullptr || zmq_connect(events, events_endpoint) != 0) {
        if (events != nullptr) {
            zmq_close(events);
            events = nullptr;
        }
        return -1;
    }
    thread = std::thread(&connection_guard::run, this);
    return 0;
}

void connection_guard::touch(int fd) {
    std::lock_guard<std::mutex> lock(table_lock);
    auto it = open.find(fd);
    if (it != open.end()) {
        it->second.last_active_ms = now_ms();
    }
}

size_t connection_guard::count() {
    std::lock_guard<std::mutex> lock(table_lock);
    return open.size();
}

void connection_guard::run() {
    while (!stopping) {
        zmq_pollitem_t item = {events, 0, ZMQ_POLLIN, 0};
        int rc = zmq_poll(&item, 1, 1000);
        if (rc == -1 && errno != EINTR) {
            break;  // the context is ending
        }
        if (rc > 0) {
            take_event();
        }
    }
    zmq_close(events);
}

// An event is two frames: 2 bytes of event, 4 of value (the descriptor),
// then the endpoint.
void connection_guard::take_event() {
    uint8_t head[6];
    char endpoint[256];
    int n = zmq_recv(events, head, sizeof head, 0);
    if (n == -1 || zmq_recv(events, endpoint, sizeof endpoint, 0) == -1 || n != 6) {
        return;
    }
    uint16_t event;
    int32_t fd;
    memcpy(&event, head, 2);
    memcpy(&fd, head + 2, 4);
    std::lock_guard<std::mutex> lock(table_lock);
    if (event == ZMQ_EVENT_DISCONNECTED) {
        open.erase(fd);
        return;
    }
    open[fd] = connection{ends_of(fd), now_ms()};
    if (static_cast<int>(open.size()) > limit) {
        give_way();
    }
}

// The connection idle longest gives way: shutting its socket down makes
// ZeroMQ close it, as if the peer had gone.
void connection_guard::give_way() {
    auto oldest = open.end();
    for (auto it = open.begin(); it != open.end(); ++it) {
        if (oldest == open.end() || it->second.last_active_ms < oldest->second.last_active_ms) {
            oldest = it;
        }
    }
    // Only a socket still joining the same two ends: the descriptor may have
    // been closed and reused before its event came.
    if (!oldest->second.ends.empty() && ends_of(oldest->first) == oldest->second.ends) {
        shutdown(oldest->first, SHUT_RDWR);
    }
    given_way++;
    open.erase(oldest);
}
