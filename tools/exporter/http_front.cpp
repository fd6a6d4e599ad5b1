// Accepting, header gathering and the worker threads of the HTTP side.
//
// Request headers are gathered by the accept thread for every connection at
// once, within header_ms: a client that sends one byte a second costs a
// descriptor and a buffer, never a worker thread. A connection goes to a
// worker only with its whole header; the worker hands httplib a stream that
// first replays what was already read.
#include "http_front.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr size_t max_header_bytes = 16384;

thread_local int serving_fd = -1;

// A connection, its client address and the bytes read from it so far.
struct conn {
    int fd = -1;
    std::string addr;
    std::string buf;
    clock_type::time_point deadline;
};

std::string peer_address(int fd, int* port) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    char host[INET6_ADDRSTRLEN] = "";
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) {
        char serv[8];
        getnameinfo(reinterpret_cast<sockaddr*>(&ss), len, host, sizeof host, serv, sizeof serv,
                    NI_NUMERICHOST | NI_NUMERICSERV);
        if (port != nullptr) {
            *port = atoi(serv);
        }
    }
    return host;
}

bool wait_fd(int fd, short events, int ms) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, ms) == 1;
}

// httplib's view of one connection (its Stream interface is virtual): the
// bytes gathered by the accept thread, then the socket, each read and write
// within io_ms.
class conn_stream : public httplib::Stream {
public:
    conn_stream(conn& c, int io_ms) : c(c), io_ms(io_ms) {}
    bool is_readable() const override {
        return replayed < c.buf.size() || wait_fd(c.fd, POLLIN, io_ms);
    }
    bool is_writable() const override { return wait_fd(c.fd, POLLOUT, io_ms); }
    ssize_t read(char* ptr, size_t size) override {
        if (replayed < c.buf.size()) {
            size_t n = std::min(size, c.buf.size() - replayed);
            memcpy(ptr, c.buf.data() + replayed, n);
            replayed += n;
            return static_cast<ssize_t>(n);
        }
        return wait_fd(c.fd, POLLIN, io_ms) ? recv(c.fd, ptr, size, 0) : -1;
    }
    ssize_t write(const char* ptr, size_t size) override {
        return wait_fd(c.fd, POLLOUT, io_ms) ? send(c.fd, ptr, size, MSG_NOSIGNAL) : -1;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = peer_address(c.fd, &port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        sockaddr_storage ss{};
        socklen_t len = sizeof ss;
        char host[INET6_ADDRSTRLEN] = "", serv[8] = "0";
        getsockname(c.fd, reinterpret_cast<sockaddr*>(&ss), &len);
        getnameinfo(reinterpret_cast<sockaddr*>(&ss), len, host, sizeof host, serv, sizeof serv,
                    NI_NUMERICHOST | NI_NUMERICSERV);
        ip = host;
        port = atoi(serv);
    }
    socket_t socket() const override { return c.fd; }

private:
    conn& c;
    int io_ms;
    size_t replayed = 0;
};

// Refuses a connection with a status line of its own, without waiting.
void refuse(int fd, const char* status, const char* why) {
    std::string body = std::string(why) + "\n";
    std::string r = std::string("HTTP/1.1 ") + status +
                    "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body;
    send(fd, r.data(), r.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd);
}

// The queue between the accept thread and the workers, and the count of
// requests being served per client address.
struct work_queue {
    std::mutex lock;
    std::condition_variable ready;
    std::deque<conn> waiting;
    std::map<std::string, size_t> serving;
    bool done = false;
};

void worker(http_front& svr, work_queue& q, int io_ms) {
    // Only the accept thread takes signals.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) {
        conn c;
        {
            std::unique_lock<std::mutex> g(q.lock);
            q.ready.wait(g, [&q] { return q.done || !q.waiting.empty(); });
            if (q.waiting.empty()) {
                return;
            }
            c = std::move(q.waiting.front());
            q.waiting.pop_front();
        }
        serving_fd = c.fd;
        conn_stream strm(c, io_ms);
        svr.serve(strm);
        serving_fd = -1;
        shutdown(c.fd, SHUT_RDWR);
        close(c.fd);
        std::lock_guard<std::mutex> g(q.lock);
        if (--q.serving[c.addr] == 0) {
            q.serving.erase(c.addr);
        }
    }
}

// Bytes of a connection's header: 1 when the header is whole, 0 when more
// is to come, -1 when the connection is done with (closed or refused).
int read_header(conn& c) {
    char buf[4096];
    ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return 0;
    }
    if (n <= 0) {
        close(c.fd);
        return -1;
    }
    c.buf.append(buf, static_cast<size_t>(n));
    if (c.buf.find("\r\n\r\n") != std::string::npos) {
        return 1;
    }
    if (c.buf.size() > max_header_bytes) {
        refuse(c.fd, "431 Request Header Fields Too Large", "request header too large");
        return -1;
    }
    return 0;
}

void dispatch(work_queue& q, const http_limits& l, conn&& c) {
    std::lock_guard<std::mutex> g(q.lock);
    auto it = q.serving.find(c.addr);
    if (it != q.serving.end() && it->second >= l.per_address) {
        refuse(c.fd, "503 Service Unavailable", "too many requests from this address at once");
    } else if (q.waiting.size() >= l.pending_total) {
        refuse(c.fd, "503 Service Unavailable", "too many requests at once");
    } else {
        q.serving[c.addr]++;
        q.waiting.push_back(std::move(c));
        q.ready.notify_one();
    }
}

// New connections; past an address's or the total share of connections
// still sending their header, the oldest such connection is closed. Returns
// -1 when the process is out of descriptors.
int accept_new(int listen_fd, const http_limits& l, std::list<conn>& pending) {
    for (int i = 0; i < 64; i++) {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return errno == EMFILE || errno == ENFILE ? -1 : 0;
        }
        conn c;
        c.fd = fd;
        c.addr = peer_address(fd, nullptr);
        c.deadline = clock_type::now() + std::chrono::milliseconds(l.header_ms);
        size_t same = 0;
        auto oldest = pending.end();
        for (auto it = pending.begin(); it != pending.end(); ++it) {
            if (it->addr == c.addr && same++ == 0) {
                oldest = it;
            }
        }
        if (same >= l.pending_per_address || pending.size() >= l.pending_total) {
            auto drop = same >= l.pending_per_address ? oldest : pending.begin();
            close(drop->fd);
            pending.erase(drop);
        }
        pending.push_back(std::move(c));
    }
    return 0;
}

}  // namespace

void http_front::serve(httplib::Stream& strm) {
    bool closed = false;
    process_request(strm, true, closed, nullptr);
}

int http_front::current_fd() {
    return serving_fd;
}

int http_front::listen_on(const std::string& host, int port, std::string& why) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* res = nullptr;
    const std::string where = host + ":" + std::to_string(port);
    // No address: every interface, IPv6 and IPv4 on one socket where the
    // host has IPv6, else IPv4's.
    hints.ai_family = host.empty() ? AF_INET6 : AF_UNSPEC;
    const char* node = host.empty() ? "::" : host.c_str();
    int rc = getaddrinfo(node, std::to_string(port).c_str(), &hints, &res);
    int one = 1, zero = 0;
    listen_fd =
        rc != 0 ? -1 : socket(res->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (host.empty() && listen_fd < 0) {
        if (rc == 0) {
            freeaddrinfo(res);
        }
        hints.ai_family = AF_INET;
        rc = getaddrinfo("0.0.0.0", std::to_string(port).c_str(), &hints, &res);
        listen_fd = rc != 0 ? -1 : socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    if (rc != 0) {
        why = "cannot listen on " + where + ": " + gai_strerror(rc);
        return -1;
    }
    if (listen_fd >= 0 && res->ai_family == AF_INET6 && host.empty()) {
        setsockopt(listen_fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
    }
    bool ok = listen_fd >= 0 &&
              setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
              bind(listen_fd, res->ai_addr, res->ai_addrlen) == 0 &&
              ::listen(listen_fd, SOMAXCONN) == 0 && pipe2(wake, O_CLOEXEC | O_NONBLOCK) == 0;
    if (!ok) {
        why = "cannot listen on " + where + ": " + strerror(errno);
    }
    freeaddrinfo(res);
    return ok ? 0 : -1;
}

void http_front::stop_serving() {
    stopping = true;
    if (write(wake[1], "x", 1) < 0) {
        // The pipe is full: the loop wakes anyway.
    }
}

int http_front::run(const http_limits& l) {
    work_queue q;
    std::vector<std::thread> pool;
    for (int i = 0; i < l.threads; i++) {
        pool.emplace_back(worker, std::ref(*this), std::ref(q), l.io_ms);
    }
    std::list<conn> pending;
    int rc = 0;
    std::vector<pollfd> fds;
    // Out of descriptors, a waiting connection stays readable: it is left
    // in the backlog for a while instead of being polled in a busy loop.
    auto accept_paused_until = clock_type::now();
    while (!stopping) {
        short accepting = clock_type::now() < accept_paused_until ? 0 : POLLIN;
        fds.assign({{listen_fd, accepting, 0}, {wake[0], POLLIN, 0}});
        for (const conn& c : pending) {
            fds.push_back({c.fd, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), 250) < 0 && errno != EINTR) {
            rc = -1;
            break;
        }
        const auto now = clock_type::now();
        size_t i = 2;
        for (auto it = pending.begin(); it != pending.end(); i++) {
            int got = fds[i].revents != 0 ? read_header(*it) : 0;
            if (got == 0 && now > it->deadline) {
                refuse(it->fd, "408 Request Timeout", "request header not sent in time");
                got = -1;
            }
            if (got == 1) {
                dispatch(q, l, std::move(*it));
            }
            it = got == 0 ? std::next(it) : pending.erase(it);
        }
        if ((fds[0].revents & POLLIN) && accept_new(listen_fd, l, pending) != 0) {
            accept_paused_until = now + std::chrono::milliseconds(100);
        }
    }
    for (conn& c : pending) {
        close(c.fd);
    }
    {
        std::lock_guard<std::mutex> g(q.lock);
        q.done = true;
    }
    q.ready.notify_all();
    for (std::thread& t : pool) {
        t.join();
    }
    return rc;
}
