#include "zmtp_fake.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace {

// Reads n bytes, or false when the peer left or the fake is stopped.
bool read_n(int fd, void* buf, size_t n, const std::atomic<bool>& stop) {
    for (size_t got = 0; got < n;) {
        pollfd p{fd, POLLIN, 0};
        if (stop || poll(&p, 1, 100) < 0) return false;
        if (p.revents == 0) continue;
        ssize_t r = recv(fd, static_cast<char*>(buf) + got, n - got, 0);
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool write_all(int fd, const std::string& s) {
    return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size());
}

// One ZMTP frame: flags (MORE 1, LONG 2, COMMAND 4) and size, then body.
std::string frame(const std::string& body, bool more, bool command = false) {
    std::string f(1, static_cast<char>((more ? 1 : 0) | (command ? 4 : 0)));
    f += static_cast<char>(body.size());
    return f + body;
}

std::string long_header(uint64_t size, bool more) {
    std::string f(1, static_cast<char>(2 | (more ? 1 : 0)));
    for (int i = 7; i >= 0; i--) f += static_cast<char>(size >> (8 * i));
    return f;
}

// Reads one message; its parts but the last are the envelope.
bool read_message(int fd, std::vector<std::string>& envelope, const std::atomic<bool>& stop) {
    envelope.clear();
    for (;;) {
        unsigned char flags, len[8];
        if (!read_n(fd, &flags, 1, stop) || !read_n(fd, len, (flags & 2) ? 8 : 1, stop)) return false;
        uint64_t size = 0;
        for (int i = 0; i < ((flags & 2) ? 8 : 1); i++) size = size << 8 | len[i];
        std::string body(size, '\0');
        if (size > 65536 || !read_n(fd, body.data(), size, stop)) return false;
        if (flags & 4) continue;  // a command (READY)
        if (!(flags & 1)) return true;
        envelope.push_back(body);
    }
}

void serve(zmtp_fake& z, int fd) {
    char greeting[64];
    std::string g(64, '\0');
    g[0] = '\xff', g[9] = '\x7f', g[10] = 3, g.replace(12, 4, "NULL");
    std::string ready = "\x05READY\x0bSocket-Type" + std::string("\0\0\0", 3) +
                        static_cast<char>(z.type.size()) + z.type;
    if (z.m == zmtp_fake::no_zmtp) {
        while (read_n(fd, greeting, 1, z.stop)) {
        }
        return;
    }
    std::vector<std::string> env;
    if (!write_all(fd, g) || !read_n(fd, greeting, 64, z.stop) ||
        !write_all(fd, frame(ready, false, true)))
        return;
    while (read_message(fd, env, z.stop)) {
        z.messages++;
        if (z.m == zmtp_fake::mute) continue;
        std::string out;
        for (const std::string& e : env) out += frame(e, true);
        std::string packet(8240, '\0');
        if (z.m == zmtp_fake::huge_frame) {
            out += long_header(600u << 20, false);
        } else if (z.m == zmtp_fake::many_packets) {
            for (int i = 0; i < 17; i++) out += long_header(8240, i < 16) + packet;
        }
        if (!write_all(fd, out)) return;
        while (z.m == zmtp_fake::endless_parts && !z.stop &&
               write_all(fd, long_header(8240, true) + packet)) {
        }
    }
}

}  // namespace

zmtp_fake::zmtp_fake(mode mode_, const char* socket_type) : m(mode_), type(socket_type) {
    listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    bind(listen_fd, reinterpret_cast<sockaddr*>(&a), len);
    listen(listen_fd, 16);
    getsockname(listen_fd, reinterpret_cast<sockaddr*>(&a), &len);
    ep = "tcp://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    th = std::thread([this] {
        std::vector<std::thread> conns;
        while (!stop) {
            pollfd p{listen_fd, POLLIN, 0};
            if (poll(&p, 1, 100) == 1) {
                int fd = accept(listen_fd, nullptr, nullptr);
                timeval t{1, 0};  // a peer that stops reading ends the stream
                setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
                conns.emplace_back([this, fd] {
                    serve(*this, fd);
                    close(fd);
                });
            }
        }
        for (std::thread& c : conns) c.join();
    });
}

zmtp_fake::~zmtp_fake() {
    stop = true;
    th.join();
    close(listen_fd);
}
