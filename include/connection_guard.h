// Keeps client connections from taking every descriptor: near the limit the
// connection idle longest is closed to make room, so new clients always get
// in and ZeroMQ never spins on an accept that fails for want of one.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

class connection_guard {
public:
    // Descriptors kept for everything but client connections: ZeroMQ's own,
    // cached files, plug-ins and the probe's walkers.
    static constexpr int reserved_descriptors = 64;
    // Client connections allowed: the soft descriptor limit less the reserve.
    static int limit_from_rlimit();

    int limit = limit_from_rlimit();
    std::atomic<long> given_way{0};  // connections closed to make room

    connection_guard() = default;
    ~connection_guard();
    connection_guard(const connection_guard&) = delete;
    connection_guard& operator=(const connection_guard&) = delete;

    // Watches router's connections (through a socket monitor in context) on
    // a thread of its own. Returns 0, or -1 when the monitor cannot be made.
    int start(void* context, void* router);
    // A request came on connection fd.
    void touch(int fd);
    size_t count();

private:
    struct connection {
        std::string ends;  // local and peer address, as accepted
        int64_t last_active_ms;
    };
    void run();
    void take_event();
    void give_way();

    void* events = nullptr;
    std::mutex table_lock;
    std::unordered_map<int, connection> open;
    std::atomic<bool> stopping{false};
    std::thread thread;
};
