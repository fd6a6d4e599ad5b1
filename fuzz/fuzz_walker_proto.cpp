// The two ends of the probe's walker socket, each fed what a broken or
// hostile other end could send. The first input byte picks the end: even,
// the plug-in reading a walker's reply; odd, the walker reading the
// plug-in's requests. The rest is written into a socket pair whose writing
// end is then shut, so every read ends. A reply taken as good must be one
// walker_reply_valid accepts with exactly its text; a request served must
// be one walker_request_valid accepts.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "walker_proto.h"

namespace {

// The socket's send buffer holds the largest input libFuzzer makes here
// (-max_len stays below it by default), so the write never blocks.
bool feed(int fd, const uint8_t* data, size_t size) {
    int big = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return shutdown(fd, SHUT_WR) == 0;
}

void read_replies(int fd, const uint8_t* data, size_t size) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    size_t used = 0;
    for (;;) {
        walker_reply rep{};
        std::string text;
        int rc = walker_read_reply(fd, deadline, rep, text);
        if (rc == -ETIME)
            abort();  // the input was all there: only its end stops a read
        if (rc != 0)
            return;
        if (!walker_reply_valid(rep) || text.size() != rep.len ||
            used + sizeof rep + rep.len > size ||
            memcmp(text.data(), data + used + sizeof rep, rep.len) != 0)
            abort();
        used += sizeof rep + rep.len;
    }
}

void read_requests(int fd) {
    walker_request req{};
    for (int got; (got = walker_read_request(fd, req)) >= 0;) {
        if ((got == 1) != walker_request_valid(req))
            abort();
        if (got == 1 && req.op != walker_bind && (req.stop_ms < 1 || req.tid < 0))
            abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        abort();
    if (feed(sv[1], data + 1, size - 1)) {
        if (data[0] % 2 == 0)
            read_replies(sv[0], data + 1, size - 1);
        else
            read_requests(sv[0]);
    }
    close(sv[0]);
    close(sv[1]);
    return 0;
}
