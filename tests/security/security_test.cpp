// The real daemon with and without "security", asked through raw ZeroMQ
// sockets: CURVE handshakes, rights per key, revocation while running, the
// always-on guards, and start-up with bad key files.
#include <gtest/gtest.h>
#include <zmq.h>

#include <memory>
#include <regex>
#include <thread>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;
constexpr int no_reply = 1000000;

struct keypair {
    char pub[41], sec[41];
    keypair() { zmq_curve_keypair(pub, sec); }
};

// A REQ socket, plaintext unless given the server's public key and a pair.
struct client {
    void *ctx = zmq_ctx_new(), *sock = zmq_socket(ctx, ZMQ_REQ);
    client(const std::string& endpoint, const char* server_pub, const keypair* me,
           int timeout_ms = 1500) {
        int zero = 0;
        zmq_setsockopt(sock, ZMQ_LINGER, &zero, sizeof zero);
        zmq_setsockopt(sock, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
        if (server_pub != nullptr) {
            zmq_setsockopt(sock, ZMQ_CURVE_SERVERKEY, server_pub, 40);
            zmq_setsockopt(sock, ZMQ_CURVE_PUBLICKEY, me->pub, 40);
            zmq_setsockopt(sock, ZMQ_CURVE_SECRETKEY, me->sec, 40);
        }
        zmq_connect(sock, endpoint.c_str());
    }
    ~client() {
        zmq_close(sock);
        zmq_ctx_term(ctx);
    }
    bytes reply;
    // The reply's command and msg_len, or no_reply when nothing came in time.
    std::pair<int, int> ask2(const bytes& frame) {
        reply.assign(9000, 0);
        int n = zmq_send(sock, frame.data(), frame.size(), 0) < 0
                    ? -1
                    : zmq_recv(sock, reply.data(), reply.size(), 0);
        if (n < 0)
            return {no_reply, no_reply};
        reply.resize(static_cast<size_t>(n));
        reply_view v = parse_reply(reply);
        return {v.command, n == v.msg_len + 48 ? v.msg_len : -no_reply};
    }
    int ask(const bytes& frame) { return ask2(frame).second; }
    // Takes a client id (sub 1) or returns id (sub 2): the id taken, or msg_len.
    int id(int sub, uint8_t id = 0) {
        int len = ask(make_request(0xEAEA, sub, {id}));
        return sub == 1 && len == 1 ? reply[44] : len;
    }
};

// Groups 0x10 (4 bytes) and 0x20 (5 bytes); "alice" may use all codes, "bob"
// 0x10 and 0x30, "dave" 0x10 and the client ids, at most 2 of them; "carol"
// is not listed.
class security_test : public ::testing::Test {
protected:
    temp_dir dir;
    keypair server, alice, bob, carol, dave;
    int port = 0;
    std::string endpoint;
    std::unique_ptr<daemon_process> daemon;

    std::string keys_text(bool with_alice) {
        return "# clients\n" + (with_alice ? alice.pub + std::string(" alice *\n") : "") + bob.pub +
               " bob 0x10,30\n" + dave.pub + " dave 0x10,eaea\n";
    }
    void write_files(bool secure) {
        port = free_port();
        endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        std::string d = dir.path(), subs;
        // clang-format off
        for (auto [code, text] : {std::pair{"10", "data"}, {"20", "other"}}) {
            dir.write(code + std::string(".txt"), text);
            dir.write(code + std::string(".json"), R"({"cmd-list": [{"name": "n", "id": "1", "type": "file", "file": ")" + d + "/" + code + R"(.txt"}]})");
            subs += std::string(subs.empty() ? "" : ",") + R"({"class": "c", "code": ")" + code + R"(", "config": ")" + d + "/" + code + R"(.json"})";
        }
        dir.write("server.key", std::string("# server\n") + server.sec + "\n");
        dir.write("keys", keys_text(true));
        dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [)" + subs + "]" +
                               (secure ? R"(, "security": {"secret-key": ")" + d + R"(/server.key", "authorized-keys": ")" + d + R"(/keys", "max-client-ids": 2})" : "") + "}");
        // clang-format on
    }
    void start(bool secure) {
        write_files(secure);
        daemon = std::make_unique<daemon_process>(
            std::vector<std::string>{"-c", dir.path() + "/main.json"});
        for (int i = 0; i < 40 && daemon->running(); i++) {
            if (client(endpoint, secure ? server.pub : nullptr, &alice, 250)
                    .ask(make_request(0xEAEA, 2, {0})) == 0)
                return;
        }
        FAIL() << "daemon not ready: " << daemon->stderr_text();
    }
    // A log line of exactly this text: the logger adds the newline.
    bool logged(const std::string& text, int timeout_ms = 5000) {
        if (!daemon->wait_stderr(text, timeout_ms))
            return false;
        for (const log_line& l : daemon->log_lines())
            if (l.text == text)
                return true;
        return false;
    }
};

TEST_F(security_test, only_accepted_keys_complete_the_handshake) {
    start(true);
    keypair wrong_server;
    struct {
        const char* what;
        const char* server_pub;
        const keypair* me;
        int msg_len;
    } rows[] = {{"accepted key", server.pub, &alice, 4},
                {"unknown key", server.pub, &carol, no_reply},
                {"wrong server key", wrong_server.pub, &alice, no_reply},
                {"plaintext client", nullptr, nullptr, no_reply}};
    for (const auto& r : rows)
        EXPECT_EQ(client(endpoint, r.server_pub, r.me).ask(make_request(0x10, 1)), r.msg_len)
            << r.what;
    // A flood of refused handshakes: one line, then one line with the count.
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(client(endpoint, server.pub, &carol, 100).ask(make_request(0x10, 1)), no_reply);
    EXPECT_TRUE(logged("Refused key " + std::string(carol.pub, 10) + " from 127.0.0.1"));
    ASSERT_TRUE(daemon->wait_stderr(" more refused keys in the last 10 s\n", 15000));
    int refused = 0, counted = 0;
    const std::regex count("[1-9][0-9]* more refused keys in the last 10 s");
    for (const log_line& l : daemon->log_lines()) {
        refused += l.text.rfind("Refused key ", 0) == 0;
        counted += std::regex_match(l.text, count);
    }
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(counted, 1);
}

TEST_F(security_test, rights_per_key_follow_the_file_while_running) {
    start(true);
    client a(endpoint, server.pub, &alice), b(endpoint, server.pub, &bob),
        d(endpoint, server.pub, &dave);
    struct {
        client* c;
        uint32_t command;
        int msg_len;
    } rows[] = {{&b, 0x10, 4}, {&b, 0x20, -1}, {&b, 0xEAEA, -1}, {&a, 0x20, 5}, {&a, 0x30, -22}};
    for (const auto& r : rows)
        EXPECT_EQ(r.c->ask(make_request(r.command, r.command == 0xEAEA ? 2 : 1, {0})), r.msg_len)
            << std::hex << r.command;
    EXPECT_TRUE(logged("Key " + std::string(bob.pub, 10) + " (bob) may not use command 0x20"));

    // Client ids belong to the key that took them, at most 2 per key: the id
    // taken (sub-command 1) or the reply's msg_len (2, returning one).
    struct {
        client* c;
        int sub, id, answer;
    } ids[] = {{&a, 1, 0, 1}, {&d, 1, 0, 2}, {&d, 2, 1, 0}, {&d, 1, 0, 3}, {&d, 1, 0, 0},
               {&a, 2, 1, 0}, {&d, 2, 2, 0}, {&a, 1, 0, 1}, {&a, 1, 0, 2}, {&d, 2, 3, 0}};
    for (const auto& r : ids)
        EXPECT_EQ(r.c->id(r.sub, static_cast<uint8_t>(r.id)), r.answer) << r.sub << " " << r.id;

    // Frames after the request are dropped, never read as a key of their own:
    // bob cannot borrow alice's rights by sending her public key along.
    bytes first = make_request(0x10, 1, {0}), key(alice.pub, alice.pub + 40);
    zmq_send(b.sock, first.data(), first.size(), ZMQ_SNDMORE);
    zmq_send(b.sock, key.data(), key.size(), ZMQ_SNDMORE);
    EXPECT_EQ(b.ask2(make_request(0x20, 1, {0})), std::make_pair(0x10, 4));

    // Revoked: the open connection is refused within the reload period, a
    // new one gets nothing; bob is still answered.
    dir.write("keys", keys_text(false));
    int answer = 0;
    for (int i = 0; i < 30 && (answer = a.ask(make_request(0x10, 1))) != -1; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(answer, -1);
    EXPECT_TRUE(
        logged("Key " + std::string(alice.pub, 10) + " (revoked) may not use command 0x10"));
    EXPECT_EQ(client(endpoint, server.pub, &alice).ask(make_request(0x10, 1)), no_reply);
    EXPECT_EQ(b.ask(make_request(0x10, 1)), 4);
    EXPECT_EQ(d.id(1), 1);  // alice's ids went with her key

    // A file broken while running refuses every key rather than keep the last ones.
    dir.write("keys", "short bob *\n");
    for (int i = 0; i < 30 && (answer = b.ask(make_request(0x10, 1))) != -1; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(answer, -1);
    EXPECT_TRUE(
        logged("Authorized keys " + dir.path() +
               "/keys: line 1: not a 40-character Z85 key, no key accepted until it is fixed"));
}

// In both modes an empty frame reads as command 0, not as the request a
// worker served before; frames after a request's first are dropped; a 1 MiB
// message costs its sender the connection and nobody else anything.
TEST_F(security_test, guards_hold_in_both_modes) {
    for (bool secure : {false, true}) {
        SCOPED_TRACE(secure ? "CURVE" : "plaintext");
        start(secure);
        const char* pub = secure ? server.pub : nullptr;
        client a(endpoint, pub, &alice), b(endpoint, pub, &alice), big(endpoint, pub, &alice);
        for (int i = 0; i < 10; i++) {
            ASSERT_EQ(a.ask(make_request(0x10, 1, {1, 2, 3, 4})), 4);
            EXPECT_EQ(b.ask2({}), std::make_pair(0, -22));
        }
        // Three request frames in one message run one handler: one id taken.
        bytes take = make_request(0xEAEA, 1);
        for (int i = 0; i < 2; i++) zmq_send(a.sock, take.data(), take.size(), ZMQ_SNDMORE);
        EXPECT_EQ(a.id(1), 1);
        EXPECT_EQ(a.id(1), 2);
        ASSERT_EQ(zmq_socket_monitor(big.sock, "inproc://big", ZMQ_EVENT_DISCONNECTED), 0);
        void* events = zmq_socket(big.ctx, ZMQ_PAIR);
        int timeout = 5000;
        zmq_setsockopt(events, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        zmq_connect(events, "inproc://big");
        EXPECT_EQ(big.ask(bytes(1 << 20, 0x10)), no_reply);
        bytes event(64);
        EXPECT_EQ(zmq_recv(events, event.data(), event.size(), 0), 6) << "no disconnect";
        zmq_close(events);
        EXPECT_EQ(a.ask(make_request(0x20, 1)), 5);
    }
}

TEST_F(security_test, bad_key_files_stop_the_start_with_255) {
    struct {
        const char* file;
        const char* content;  // nullptr: the file is missing; '~' stands for a key
        const char* log;
    } rows[] = {
        {"server.key", "not-a-key\n", "Secret key @/server.key: not a 40-character Z85 key"},
        {"server.key", nullptr,
         "Secret key @/server.key: cannot be read: No such file or directory"},
        {"keys", nullptr, "Authorized keys @/keys: cannot be read: No such file or directory"},
        {"keys", "# x\n\nshort alice *\n",
         "Authorized keys @/keys: line 3: not a 40-character Z85 key"},
        {"keys", "~ alice 0x10,zz\n", "Authorized keys @/keys: line 1: bad codes \"0x10,zz\""},
        {"keys", "~ a *\n~ b *\n", "Authorized keys @/keys: line 2: key listed twice"},
    };
    for (const auto& r : rows) {
        write_files(true);
        std::string content = r.content ? r.content : "", log = r.log;
        for (size_t at; (at = content.find('~')) != std::string::npos;)
            content.replace(at, 1, alice.pub);
        if (r.content != nullptr)
            dir.write(r.file, content);
        else
            std::remove((dir.path() + "/" + r.file).c_str());
        daemon_process d({"-c", dir.path() + "/main.json"});
        log.replace(log.find('@'), 1, dir.path());
        EXPECT_EQ(d.wait_exit(), 255) << r.log;
        EXPECT_NE(d.stderr_text().find(log + "\n"), std::string::npos) << d.stderr_text();
        EXPECT_NE(d.stderr_text().find("monitor parse config failed\n"), std::string::npos);
    }
}
}  // namespace
