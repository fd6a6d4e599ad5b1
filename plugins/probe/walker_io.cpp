// Both ends of the walker's socket: the plug-in reads replies, the walker
// reads requests. Apart from the rest so that each can be fuzzed alone.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "walker_proto.h"

namespace {

// n bytes from fd by deadline: 0, -ETIME, or -EIO at end of file or error.
int receive(int fd, std::chrono::steady_clock::time_point deadline, void* buf, size_t n) {
    auto* at = static_cast<uint8_t*>(buf);
    while (n > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        pollfd pf{fd, POLLIN, 0};
        int ready = left > 0 ? poll(&pf, 1, static_cast<int>(left) + 1) : 0;
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0)
            return -ETIME;
        ssize_t r = recv(fd, at, n, MSG_DONTWAIT);
        if (r < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (r <= 0)
            return -EIO;
        at += r;
        n -= static_cast<size_t>(r);
    }
    return 0;
}

}  // namespace

int walker_read_reply(int fd, std::chrono::steady_clock::time_point deadline, walker_reply& rep,
                      std::string& text) {
    text.clear();
    int rc = receive(fd, deadline, &rep, sizeof rep);
    if (rc == 0 && !walker_reply_valid(rep))
        rc = -EIO;
    if (rc == 0 && rep.len > 0) {
        text.resize(rep.len);
        rc = receive(fd, deadline, &text[0], rep.len);
    }
    return rc;
}

int walker_read_request(int fd, walker_request& req) {
    auto* at = reinterpret_cast<uint8_t*>(&req);
    for (size_t n = sizeof req; n > 0;) {
        ssize_t r = read(fd, at, n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return -1;
        at += r;
        n -= static_cast<size_t>(r);
    }
    return walker_request_valid(req) ? 1 : 0;
}
