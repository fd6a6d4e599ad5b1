

// The real daemon under load: concurrent clients, clients that vanish or
// never read, and its memory and descriptors before and after. With
// VIREO_SOAK_SECONDS set (tests/hardening/soak) the load runs that long.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;
using clock_type = std::chrono::steady_clock;
#ifdef VIREO_SANITIZED
constexpr long rss_growth_kib = 128 * 1024;  // sanitizer runtimes grow on their own
#else
constexpr long rss_growth_kib = 8 * 1024;
#endif

// Resident memory in KiB and open descriptors of a process.
std::pair<long, long> figures_of(pid_t pid) {
    long rss = -1;
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string key; in >> key;)
        if (key == "VmRSS:")
            in >> rss;
    std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
    return {rss, std::distance(fds, std::filesystem::directory_iterator{})};
}

class hardening : public ::testing::Test {
protected:
    served_daemon s{R"(
        {"name": "n", "id": "1", "type": "file", "file": "DIR/status"}, {"name": "n", "id": "2", "type": "file", "file": "/proc/$pid/stat"},
        {"name": "n", "id": "3", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"},
        {"name": "n", "id": "4", "type": "custom", "lib": "LIB", "symbols": "plugin_len"})"};

    void SetUp() override {
        s.dir.write("status", "state: serving\n");
        // A small quarantine keeps a sanitized daemon's figures about the daemon.
        const char* asan = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS",
               ((asan ? std::string(asan) + ":" : "") + "quarantine_size_mb=4").c_str(), 1);
        ASSERT_TRUE(s.ready()) << s.daemon->stderr_text();
    }
};

std::atomic<bool> id_held[256];

// One client's share: plug-in, file, $pid and client-id requests in turn,
// each reply checked against its own request; the client holds one client id
// at a time. Adds up to 3 failures.
long client_load(const std::string& ep, int t, long count, clock_type::time_point until,
                 std::vector<std::string>& failures, std::mutex& m) {
    zmq_client c(ep);
    long i = 0, failed = 0;
    int held = 0;  // the client id this client holds
    bytes reply;
    for (; i < count && clock_type::now() < until && failed < 3; i++) {
        std::string tag = "client " + std::to_string(t) + "-" + std::to_string(i);
        // clang-format off
        std::pair<bytes, std::string> kinds[] = {{make_request(0x10, 3, {tag.begin(), tag.end()}), tag}, {make_request(0x10, 1), "state: serving\n"},
            {make_request(0x10, 2, pid_payload(getpid())), std::to_string(getpid()) + " ("}, {make_request(0xEAEA, 1), ""}};
        // clang-format on
        int kind = std::min(3, static_cast<int>((i + t) % 8));  // most of them client ids
        auto& [req, head] = kinds[kind];
        bool ok = c.request(req, reply) && reply.size() >= 8 &&
                  std::equal(req.begin(), req.begin() + 8, reply.begin());
        reply_view r = parse_reply(reply);
        ok = ok && reply.size() == r.msg_len + 48u &&
             r.payload.compare(0, head.size(), head) == 0 &&
             (kind == 2 ? r.msg_len > 0 : r.msg_len == int32_t(head.size()) + (kind == 3));
        if (ok && kind == 3) {  // a new client id, never held by another client; the old one back
            int id = reply[44];
            ok = id != 0 && !id_held[id].exchange(true);
            id_held[held] = false;  // before the daemon can hand it out again
            ok = c.request(make_request(0xEAEA, 2, {static_cast<uint8_t>(held)}), reply) && ok;
            held = ok ? id : 0;
        }
        if (!ok && ++failed) {
            std::lock_guard<std::mutex> lock(m);
            failures.push_back(tag + ": reply of " + std::to_string(reply.size()) + " bytes '" +
                               r.payload + "'");
        }
    }
    id_held[held] = false;
    c.request(make_request(0xEAEA, 2, {static_cast<uint8_t>(held)}), reply);
    return i - failed;
}

// 16 clients get exactly their own replies while other clients vanish
// mid-request or never read; afterwards the daemon's memory and descriptors
// have not grown.
TEST_F(hardening, concurrent_clients_get_their_own_replies_under_faults) {
    const char* soak_env = getenv("VIREO_SOAK_SECONDS");
    const long soak = soak_env ? atol(soak_env) : 0, clients = 16, per_client = 300;
    const auto until = clock_type::now() + std::chrono::seconds(soak > 0 ? soak : 600);
    std::mutex m;
    std::vector<std::string> failures;
    std::vector<std::thread> threads;
    std::atomic<long> served{0};
    auto run_clients = [&](long n) {
        for (int t = 0; t < clients; t++)
            threads.emplace_back(
                [&, t, n] { served += client_load(s.endpoint, t, n, until, failures, m); });
    };
    run_clients(20);  // the daemon reaches its working size before the first figures
    for (auto& t : threads) t.join();
    threads.clear();
    const auto before = figures_of(s.daemon->pid());
    served = 0;
    run_clients(soak > 0 ? LONG_MAX : per_client);
    void* ctx = zmq_ctx_new();
    // Clients that never read (a DEALER sends 100 requests) and clients that
    // close their socket right after sending.
    std::vector<void*> silent;
    for (long i = 0; i < 200 || (soak > 0 && clock_type::now() < until);
         i++, usleep(soak > 0 ? 20000 : 0)) {
        void* q = zmq_socket(ctx, i < 8 ? ZMQ_DEALER : ZMQ_REQ);
        int zero = 0;
        zmq_setsockopt(q, ZMQ_LINGER, &zero, sizeof zero);
        zmq_connect(q, s.endpoint.c_str());
        for (int k = 0; k < (i < 8 ? 100 : 1); k++) {
            if (i < 8)
                zmq_send(q, "", 0, ZMQ_SNDMORE);  // the delimiter a REQ socket adds
            zmq_send(q, make_request(0x10, 3, {'s'}).data(), 45, 0);
        }
        if (i < 8)
            silent.push_back(q);
        else
            zmq_close(q);
    }
    for (auto& t : threads) t.join();
    for (void* q : silent) zmq_close(q);
    zmq_ctx_term(ctx);
    auto after = figures_of(s.daemon->pid());  // closed connections leave asynchronously
    for (int i = 0; i < 100 && after.second > before.second + 2; i++, usleep(50000))
        after = figures_of(s.daemon->pid());
    printf("load: clients=%ld requests=%ld errors=%zu rss_kib=%ld->%ld fds=%ld->%ld\n", clients,
           served.load(), failures.size(), before.first, after.first, before.second, after.second);
    for (size_t i = 0; i < failures.size() && i < 10; i++) ADD_FAILURE() << failures[i];
    EXPECT_TRUE(soak > 0 || served == clients * per_client) << served;
    EXPECT_TRUE(s.daemon->running());
    EXPECT_LE(after.second, before.second + 2);
    EXPECT_LE(after.first - before.first, rss_growth_kib);
}
}  // namespace

namespace {
// The most the daemon's resident memory grows (KiB) while attack runs,
// sampled every 10 ms.
template <class F>
long peak_growth(pid_t pid, F attack) {
    const long before = figures_of(pid).first;
    std::atomic<long> peak{before};
    std::atomic<bool> done{false};
    std::thread sampler([&] {
        for (; !done; usleep(10000)) peak = std::max(peak.load(), figures_of(pid).first);
    });
    attack();
    peak = std::max(peak.load(), figures_of(pid).first);
    done = true;
    sampler.join();
    return peak - before;
}

// Raw ZMTP 3.0 peers: each sends a greeting naming mechanism, then frames of
// 60 KiB with the MORE flag and never a last one, up to total bytes or until
// the daemon stops taking them.
void unfinished_messages(int port, const char* mechanism, int peers, size_t total) {
    std::vector<std::thread> threads;
    for (int p = 0; p < peers; p++)
        threads.emplace_back([=] {
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(static_cast<uint16_t>(port));
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            int fd = -1;
            for (int i = 0; i < 100 && fd < 0; i++, usleep(50000)) {  // until it is bound
                fd = socket(AF_INET, SOCK_STREAM, 0);
                if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
                    fd = (close(fd), -1);
            }
            timeval limit{5, 0};
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            bytes greeting(64, 0), frame(9 + 60 * 1024, 'x');
            greeting[0] = 0xFF, greeting[9] = 0x7F, greeting[10] = 3;
            std::copy(mechanism, mechanism + strlen(mechanism), greeting.begin() + 12);
            frame[0] = 0x03;  // MORE, 8-byte size
            for (int i = 0; i < 8; i++) frame[1 + i] = uint8_t((frame.size() - 9) >> (56 - 8 * i));
            bool ok = send(fd, greeting.data(), 64, MSG_NOSIGNAL) == 64;
            for (size_t sent = 0; ok && sent < total; sent += frame.size())
                ok = send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == ssize_t(frame.size());
            close(fd);
        });
    for (auto& t : threads) t.join();
}
}  // namespace

// What one peer can make the daemon hold. Without an accepted key nothing
// is queued before the CURVE handshake, so 16 peers sending 32 MiB each in
// one unfinished message cost at most one frame and libzmq's buffers each
// (128 KiB a connection). A peer that pipelines 50,000 requests for 8 KiB
// replies and never reads (52 MB held when nothing bounded it) keeps at most
// router_sndhwm replies queued; the rest of its cost is replies on their way
// from the workers, which the queue drops as they come.
TEST_F(hardening, memory_per_peer_has_a_ceiling) {
    char pub[41], sec[41];
    zmq_curve_keypair(pub, sec);
    std::string text = read_text_file(s.main_file), port = std::to_string(s.port);
    int curve_port = free_port();
    text.replace(text.find(port), port.size(), std::to_string(curve_port));
    text = text.substr(0, text.rfind('}')) + R"(, "security": {"secret-key": ")" +
           s.dir.write("server.key", std::string(sec) + "\n") + R"(", "authorized-keys": ")" +
           s.dir.write("keys", "") + R"("}})";
    daemon_process curve({"-c", s.dir.write("curve.json", text)});
    ASSERT_TRUE(curve.wait_stderr("CURVE server key")) << curve.stderr_text();
    long curve_kib =
        peak_growth(curve.pid(), [&] { unfinished_messages(curve_port, "CURVE", 16, 32u << 20); });
    long pipelined_kib = peak_growth(s.daemon->pid(), [&] {
        void *ctx = zmq_ctx_new(), *dealer = zmq_socket(ctx, ZMQ_DEALER);
        int one = 1, small = 4096, zero = 0, wait_ms = 10000;
        for (auto [option, value] : {std::pair{ZMQ_RCVHWM, &one},
                                     {ZMQ_RCVBUF, &small},
                                     {ZMQ_LINGER, &zero},
                                     {ZMQ_SNDTIMEO, &wait_ms}})
            zmq_setsockopt(dealer, option, value, sizeof(int));
        zmq_connect(dealer, s.endpoint.c_str());
        int sent = 0;
        for (bytes r; sent <= 50000; sent++) {
            r = make_request(0x10, 4, pid_payload(sent < 50000 ? 8192 : -7));
            if (zmq_send(dealer, "", 0, ZMQ_SNDMORE) != 0 ||
                zmq_send(dealer, r.data(), 48, 0) != 48)
                break;
        }
        EXPECT_EQ(sent, 50000 + 1);
        EXPECT_TRUE(s.daemon->wait_stderr("Handle request error with -7\n", 30000));
        zmq_close(dealer);
        zmq_ctx_term(ctx);
    });
    printf("memory: curve_peers_kib=%ld pipelined_kib=%ld\n", curve_kib, pipelined_kib);
#ifndef VIREO_SANITIZED  // ASan's quarantine keeps every freed reply resident
    EXPECT_LE(curve_kib, 16 * 128);
    EXPECT_LE(pipelined_kib, 24 * 1024);
#endif
    EXPECT_TRUE(curve.running());
}

// 150 clients that each ask once and then idle, against a daemon with 128
// descriptors (room for 64 connections): each is answered in its turn, since
// the connections idle longest give way, and the daemon stays under its
// limit instead of refusing everyone after it.
TEST_F(hardening, connections_cannot_shut_others_out) {
    std::string text = read_text_file(s.main_file), port = std::to_string(s.port);
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(free_port());
    text.replace(text.find(port), port.size(), endpoint.substr(endpoint.rfind(':') + 1));
    rlimit old{}, low{};
    getrlimit(RLIMIT_NOFILE, &old);
    low = {128, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    daemon_process d({"-c", s.dir.write("few.json", text)});
    setrlimit(RLIMIT_NOFILE, &old);
    ASSERT_TRUE(d.wait_ready(endpoint)) << d.stderr_text();
    void* ctx = zmq_ctx_new();
    std::vector<void*> clients;
    int answered = 0;
    for (int i = 0; i < 150 && answered == i; i++) {
        void* c = clients.emplace_back(zmq_socket(ctx, ZMQ_REQ));
        int zero = 0, never = -1, wait_ms = 3000;
        for (auto [option, value] :
             {std::pair{ZMQ_LINGER, &zero}, {ZMQ_RECONNECT_IVL, &never}, {ZMQ_RCVTIMEO, &wait_ms}})
            zmq_setsockopt(c, option, value, sizeof(int));
        zmq_connect(c, endpoint.c_str());
        bytes reply(100), req = make_request(0x10, 1);
        answered += zmq_send(c, req.data(), req.size(), 0) == int(req.size()) &&
                    zmq_recv(c, reply.data(), reply.size(), 0) == 48 + 15;
    }
    EXPECT_EQ(answered, 150);
    EXPECT_LE(figures_of(d.pid()).second, 128);
    EXPECT_TRUE(d.running());
    for (void* c : clients) zmq_close(c);
    zmq_ctx_term(ctx);
}
