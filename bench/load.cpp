// Load generator for the daemon and the baseline server: N client threads,
// each with its own socket, M requests each, closed loop. With --pipeline K
// above 1 a client is a DEALER that keeps K requests in flight (each sent
// behind the empty delimiter frame a REQ socket would add); otherwise it is a
// plain REQ socket. Every reply is checked against its request (command,
// sub-command, frame size = msg_len + 48, msg_len positive or the expected
// length). Every receive has a timeout and the whole run a deadline.
//
// Prints one machine-readable line starting with "RESULT " (key=value pairs)
// and one line for people. Exit status 0 when every request got a right
// reply, 1 when some were lost or wrong, 2 on bad usage.
//
// vireo-bench-load --free-port prints a TCP port of 127.0.0.1 that was free
// a moment ago; --keypair prints a new CURVE key pair, "PUBLIC SECRET" in Z85.
// With --server-key (the server's public key), --client-public and
// --client-secret every client is a CURVE client with that key pair.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common_func.h"
#include "wire/frame.h"

namespace {

using clock_type = std::chrono::steady_clock;

struct options {
    std::string endpoint;
    int clients = 1;
    long requests = 1000;  // per client
    int pipeline = 1;
    uint32_t command = 0x10;
    uint32_t sub_command = 1;
    long pid = -1;          // payload: 4-byte little-endian pid when >= 0
    long expect_len = -1;   // exact reply payload length when >= 0
    int timeout_ms = 2000;  // per receive
    double max_seconds = 120;
    long warmup = 50;  // per client, not measured
    int io_threads = 1;
    std::string label = "run";
    std::string server_key, client_public, client_secret;  // Z85; CURVE when set
};

struct client_result {
    std::vector<uint32_t> rtt_ns;
    long ok = 0;
    long lost = 0;
    long wrong = 0;
    long unsent = 0;
};

// All clients connect and warm up, then start measuring together.
struct start_gate {
    std::mutex m;
    std::condition_variable cv;
    int ready = 0;
    bool open = false;
};

struct in_flight {
    uint32_t command;
    uint32_t sub_command;
    clock_type::time_point sent;
};

constexpr size_t reply_capacity = 8192 + 48 + 64;

std::vector<uint8_t> make_frame(const options& o) {
    std::vector<uint8_t> payload;
    if (o.pid >= 0) {
        payload.resize(4);
        u32_to_u8(static_cast<uint32_t>(o.pid), payload.data());
    }
    return pack_request(o.command, o.sub_command, payload);
}

// True when frame (n bytes as ZeroMQ reported them) answers command/sub with
// a payload, and is exactly as long as its msg_len says.
bool reply_ok(const options& o, const uint8_t* frame, int n, uint32_t command,
              uint32_t sub_command) {
    data_struct h;
    if (n < 0 || static_cast<size_t>(n) > reply_capacity ||
        read_reply_header(frame, static_cast<size_t>(n), command, sub_command, h) != 0) {
        return false;
    }
    if (h.msg_len <= 0 || n != h.msg_len + 48) {
        return false;
    }
    return o.expect_len < 0 || h.msg_len == o.expect_len;
}

void* open_socket(void* ctx, const options& o) {
    void* s = zmq_socket(ctx, o.pipeline > 1 ? ZMQ_DEALER : ZMQ_REQ);
    if (s == nullptr) {
        return nullptr;
    }
    int linger = 0;
    zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(s, ZMQ_RCVTIMEO, &o.timeout_ms, sizeof o.timeout_ms);
    zmq_setsockopt(s, ZMQ_SNDTIMEO, &o.timeout_ms, sizeof o.timeout_ms);
    if (!o.server_key.empty()) {
        zmq_setsockopt(s, ZMQ_CURVE_SERVERKEY, o.server_key.data(), o.server_key.size());
        zmq_setsockopt(s, ZMQ_CURVE_PUBLICKEY, o.client_public.data(), o.client_public.size());
        zmq_setsockopt(s, ZMQ_CURVE_SECRETKEY, o.client_secret.data(), o.client_secret.size());
    }
    if (zmq_connect(s, o.endpoint.c_str()) != 0) {
        zmq_close(s);
        return nullptr;
    }
    return s;
}

// REQ client: one request at a time. A lost reply ends the client, since a
// REQ socket cannot send again before it has received.
void run_req(void* s, const options& o, long count, bool record, clock_type::time_point deadline,
             client_result& res) {
    std::vector<uint8_t> request = make_frame(o);
    std::vector<uint8_t> reply(reply_capacity);
    for (long i = 0; i < count; i++) {
        if (clock_type::now() > deadline) {
            res.unsent += count - i;
            return;
        }
        auto t0 = clock_type::now();
        if (zmq_send(s, request.data(), request.size(), 0) < 0) {
            res.unsent += count - i;
            return;
        }
        int n = zmq_recv(s, reply.data(), reply.size(), 0);
        auto t1 = clock_type::now();
        if (n < 0) {
            res.lost += 1;
            res.unsent += count - i - 1;
            return;
        }
        if (!reply_ok(o, reply.data(), n, o.command, o.sub_command)) {
            res.wrong++;
            continue;
        }
        res.ok++;
        if (record) {
            res.rtt_ns.push_back(static_cast<uint32_t>(std::min<int64_t>(
                UINT32_MAX,
                std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count())));
        }
    }
}

// One reply on a DEALER socket: the empty delimiter part, then the frame
// (n its size, -1 when the message is not shaped so); further parts are
// drained. False when nothing came before the receive timeout.
bool recv_dealer_reply(void* s, std::vector<uint8_t>& reply, int& n) {
    char delim[8];
    int d = zmq_recv(s, delim, sizeof delim, 0);
    if (d < 0) {
        return false;
    }
    int more = 0;
    size_t more_size = sizeof more;
    zmq_getsockopt(s, ZMQ_RCVMORE, &more, &more_size);
    n = -1;
    if (d == 0 && more) {
        n = zmq_recv(s, reply.data(), reply.size(), 0);
        zmq_getsockopt(s, ZMQ_RCVMORE, &more, &more_size);
    }
    for (int guard = 0; more && guard < 64; guard++) {
        if (zmq_recv(s, delim, sizeof delim, 0) < 0) {
            break;
        }
        zmq_getsockopt(s, ZMQ_RCVMORE, &more, &more_size);
    }
    return true;
}

// The oldest request in flight that the reply (n bytes) answers, or
// pending.size() when none.
size_t match_reply(const std::vector<in_flight>& pending, const uint8_t* reply, int n) {
    for (size_t i = 0; n >= 0 && i < pending.size(); i++) {
        data_struct h;
        if (read_reply_header(reply, static_cast<size_t>(n), pending[i].command,
                              pending[i].sub_command, h) == 0) {
            return i;
        }
    }
    return pending.size();
}

// DEALER client: keeps up to o.pipeline requests in flight. Replies may come
// back out of order (five workers); each is matched to the oldest request in
// flight with the same command and sub-command.
void run_dealer(void* s, const options& o, long count, bool record, clock_type::time_point deadline,
                client_result& res) {
    std::vector<uint8_t> request = make_frame(o);
    std::vector<uint8_t> reply(reply_capacity);
    std::vector<in_flight> pending;
    long sent = 0;

    auto send_one = [&]() -> bool {
        pending.push_back({o.command, o.sub_command, clock_type::now()});
        if (zmq_send(s, nullptr, 0, ZMQ_SNDMORE) < 0 ||
            zmq_send(s, request.data(), request.size(), 0) < 0) {
            pending.pop_back();
            return false;
        }
        sent++;
        return true;
    };

    while (sent < count && static_cast<long>(pending.size()) < o.pipeline) {
        if (!send_one()) {
            break;
        }
    }
    while (!pending.empty()) {
        if (clock_type::now() > deadline) {
            break;
        }
        int n = 0;
        if (!recv_dealer_reply(s, reply, n)) {
            break;  // timeout: everything in flight is lost
        }
        auto t1 = clock_type::now();
        size_t match = match_reply(pending, reply.data(), n);
        if (match == pending.size()) {
            // Answers nothing we asked: retire the oldest so the run goes on.
            res.wrong++;
            pending.erase(pending.begin());
        } else {
            in_flight f = pending[match];
            pending.erase(pending.begin() + static_cast<long>(match));
            if (reply_ok(o, reply.data(), n, f.command, f.sub_command)) {
                res.ok++;
                if (record) {
                    res.rtt_ns.push_back(static_cast<uint32_t>(std::min<int64_t>(
                        UINT32_MAX,
                        std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - f.sent)
                            .count())));
                }
            } else {
                res.wrong++;
            }
        }
        if (sent < count && clock_type::now() <= deadline) {
            send_one();
        }
    }
    res.lost += static_cast<long>(pending.size());
    res.unsent += count - sent;
}

void client_thread(void* ctx, const options& o, start_gate& gate, clock_type::time_point deadline,
                   client_result& res) {
    void* s = open_socket(ctx, o);
    if (s == nullptr) {
        fprintf(stderr, "load: socket/connect %s: %s\n", o.endpoint.c_str(), zmq_strerror(errno));
        res.unsent = o.requests;
    } else {
        client_result warm;
        if (o.pipeline > 1) {
            run_dealer(s, o, o.warmup, false, deadline, warm);
        } else {
            run_req(s, o, o.warmup, false, deadline, warm);
        }
        res.lost += warm.lost;
        res.wrong += warm.wrong;
        if (warm.lost > 0 || warm.unsent > 0) {
            // The server is not answering: do not hold the others up.
            res.unsent += o.requests;
            zmq_close(s);
            s = nullptr;
        }
    }
    {
        std::unique_lock<std::mutex> lock(gate.m);
        gate.ready++;
        gate.cv.notify_all();
        gate.cv.wait(lock, [&] { return gate.open; });
    }
    if (s == nullptr) {
        return;
    }
    res.rtt_ns.reserve(static_cast<size_t>(o.requests));
    if (o.pipeline > 1) {
        run_dealer(s, o, o.requests, true, deadline, res);
    } else {
        run_req(s, o, o.requests, true, deadline, res);
    }
    zmq_close(s);
}

double percentile_us(const std::vector<uint32_t>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    size_t rank = static_cast<size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
    rank = std::min(std::max<size_t>(rank, 1), sorted.size());
    return sorted[rank - 1] / 1000.0;
}

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

void usage(const char* argv0) {
    fprintf(stderr,
            "usage: %s --endpoint tcp://127.0.0.1:PORT [--clients N] [--requests M]\n"
            "          [--pipeline K] [--command C] [--sub S] [--pid P] [--expect-len L]\n"
            "          [--timeout-ms T] [--max-seconds S] [--warmup W] [--io-threads I]\n"
            "          [--label TEXT] [--server-key Z85 --client-public Z85 --client-secret Z85]\n"
            "       %s --free-port\n"
            "       %s --keypair\n",
            argv0, argv0, argv0);
}

// Whole-string numbers only (base 0: 0x.. is hexadecimal); false otherwise.
bool parse_long(const char* text, long& out) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0') {
        return false;
    }
    out = v;
    return true;
}

bool parse_args(int argc, char* argv[], options& o) {
    for (int i = 1; i < argc; i++) {
        std::string key = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        const char* val = argv[++i];
        long v = 0;
        if (key == "--endpoint") {
            o.endpoint = val;
            continue;
        }
        if (key == "--label") {
            o.label = val;
            continue;
        }
        if (key == "--server-key") {
            o.server_key = val;
            continue;
        }
        if (key == "--client-public") {
            o.client_public = val;
            continue;
        }
        if (key == "--client-secret") {
            o.client_secret = val;
            continue;
        }
        if (key == "--max-seconds") {
            o.max_seconds = atof(val);
            continue;
        }
        if (!parse_long(val, v)) {
            return false;
        }
        if (key == "--clients") {
            o.clients = static_cast<int>(v);
        } else if (key == "--requests") {
            o.requests = v;
        } else if (key == "--pipeline") {
            o.pipeline = static_cast<int>(v);
        } else if (key == "--command") {
            o.command = static_cast<uint32_t>(v);
        } else if (key == "--sub") {
            o.sub_command = static_cast<uint32_t>(v);
        } else if (key == "--pid") {
            o.pid = v;
        } else if (key == "--expect-len") {
            o.expect_len = v;
        } else if (key == "--timeout-ms") {
            o.timeout_ms = static_cast<int>(v);
        } else if (key == "--warmup") {
            o.warmup = v;
        } else if (key == "--io-threads") {
            o.io_threads = static_cast<int>(v);
        } else {
            return false;
        }
    }
    return !o.endpoint.empty() && o.clients >= 1 && o.clients <= 1024 && o.requests >= 1 &&
           o.pipeline >= 1 && o.pipeline <= 1000 && o.timeout_ms >= 1 && o.warmup >= 0 &&
           o.max_seconds > 0 && o.io_threads >= 1 &&
           (o.server_key.empty() || (o.client_public.size() == 40 && o.client_secret.size() == 40));
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc == 2 && std::string(argv[1]) == "--free-port") {
        int port = free_port();
        if (port < 0) {
            return 1;
        }
        printf("%d\n", port);
        return 0;
    }
    if (argc == 2 && std::string(argv[1]) == "--keypair") {
        char pub[41], sec[41];
        if (zmq_curve_keypair(pub, sec) != 0) {
            return 1;
        }
        printf("%s %s\n", pub, sec);
        return 0;
    }
    options o;
    if (!parse_args(argc, argv, o)) {
        usage(argv[0]);
        return 2;
    }

    void* ctx = zmq_ctx_new();
    zmq_ctx_set(ctx, ZMQ_IO_THREADS, o.io_threads);
    auto deadline =
        clock_type::now() + std::chrono::milliseconds(static_cast<long>(o.max_seconds * 1000));

    start_gate gate;
    std::vector<client_result> results(static_cast<size_t>(o.clients));
    std::vector<std::thread> threads;
    for (int i = 0; i < o.clients; i++) {
        threads.emplace_back(client_thread, ctx, std::cref(o), std::ref(gate), deadline,
                             std::ref(results[static_cast<size_t>(i)]));
    }
    clock_type::time_point start;
    {
        std::unique_lock<std::mutex> lock(gate.m);
        // Bounded by the receive timeouts and the deadline of each client.
        gate.cv.wait(lock, [&] { return gate.ready == o.clients; });
        start = clock_type::now();
        gate.open = true;
        gate.cv.notify_all();
    }
    for (auto& t : threads) {
        t.join();
    }
    double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    zmq_ctx_term(ctx);

    std::vector<uint32_t> all;
    long ok = 0, lost = 0, wrong = 0, unsent = 0;
    for (auto& r : results) {
        all.insert(all.end(), r.rtt_ns.begin(), r.rtt_ns.end());
        ok += r.ok;
        lost += r.lost;
        wrong += r.wrong;
        unsent += r.unsent;
    }
    std::sort(all.begin(), all.end());
    double rps = seconds > 0 ? static_cast<double>(ok) / seconds : 0;
    double p50 = percentile_us(all, 50), p90 = percentile_us(all, 90);
    double p99 = percentile_us(all, 99), pmax = all.empty() ? 0 : all.back() / 1000.0;

    printf(
        "RESULT label=%s clients=%d pipeline=%d requests=%ld ok=%ld lost=%ld wrong=%ld "
        "unsent=%ld seconds=%.3f rps=%.0f p50_us=%.1f p90_us=%.1f p99_us=%.1f max_us=%.1f\n",
        o.label.c_str(), o.clients, o.pipeline, o.requests * o.clients, ok, lost, wrong, unsent,
        seconds, rps, p50, p90, p99, pmax);
    printf(
        "%s: %d client(s) x %ld request(s)%s: %.0f req/s, round trip p50 %.1f us, p90 %.1f us, "
        "p99 %.1f us, max %.1f us; %ld lost, %ld wrong, %ld unsent\n",
        o.label.c_str(), o.clients, o.requests,
        o.pipeline > 1 ? (", " + std::to_string(o.pipeline) + " in flight").c_str() : "", rps, p50,
        p90, p99, pmax, lost, wrong, unsent);
    return (lost == 0 && wrong == 0 && unsent == 0) ? 0 : 1;
}
