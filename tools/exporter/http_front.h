// The exporter's HTTP side: its own listening socket and accept loop in
// front of cpp-httplib's request handling, so that no HTTP client can hold
// the exporter's threads or share its port.
#pragma once

#include <httplib.h>

#include <atomic>
#include <string>

struct http_limits {
    int threads = 64;                 // requests served at once
    size_t per_address = 16;          // of them, from one client address
    size_t pending_per_address = 32;  // connections of one address still sending their header
    size_t pending_total = 1024;      // connections still sending their header
    int header_ms = 3000;             // for the whole request header
    int io_ms = 10000;                // for each later read or write
};

// Handlers are registered with Get() as on httplib::Server; only its
// request handling is used (process_request), never its listen or threads.
class http_front : public httplib::Server {
public:
    // Binds with SO_REUSEADDR and without SO_REUSEPORT: a second exporter on
    // a busy port fails here instead of taking half of the scrapes. Returns 0,
    // or -1 with why.
    int listen_on(const std::string& host, int port, std::string& why);
    // Serves until stop_serving(); returns 0, or -1 when polling failed.
    int run(const http_limits& limits);
    void stop_serving();
    // One request on strm, through httplib's parsing and handlers.
    void serve(httplib::Stream& strm);
    // The connection of the request that the calling thread serves, or -1.
    static int current_fd();

    int listen_fd = -1;
    int wake[2] = {-1, -1};
    std::atomic<bool> stopping{false};
};
