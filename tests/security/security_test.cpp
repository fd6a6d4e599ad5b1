// The real daemon with and without "security", asked through raw ZeroMQ
// sockets: CURVE handshakes, rights per key, revocation while running, the
// always-on guards, and start-up with bad key files.
#include <gtest/gtest.h>
#include <zmq.h>

#include <chrono>
#include <memory>
#include <thread>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

struct keypair {
    char pub[41], sec[41];
    keypair() { zmq_curve_keypair(pub, sec); }
};

// A REQ socket, plaintext unless given the server's public key and a pair.
class client {
public:
    void *ctx = zmq_ctx_new(), *sock = zmq_socket(ctx, ZMQ_REQ);
    client(const std::string& endpoint, const char* server_pub = nullptr,
           const keypair* me = nullptr, int timeout_ms = 1500) {
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
    // The reply's msg_len (an error code or the payload size), or 1000000
    // when nothing came in time.
    int ask(const bytes& frame, std::string* payload = nullptr) {
        bytes reply(9000);
        if (zmq_send(sock, frame.data(), frame.size(), 0) < 0)
            return 1000000;
        int n = zmq_recv(sock, reply.data(), reply.size(), 0);
        if (n < 0)
            return 1000000;
        reply.resize(static_cast<size_t>(n));
        reply_view v = parse_reply(reply);
        if (payload != nullptr)
            *payload = v.payload;
        return v.msg_len;
    }
};

constexpr int no_reply = 1000000;

// Group 0x10 (data.txt) and 0x20 (other.txt); keys: "alice" may use all,
// "bob" only 0x10, "carol" is not listed.
class security_test : public ::testing::Test {
protected:
    temp_dir dir;
    keypair server, alice, bob, carol;
    int port = free_port();
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    std::unique_ptr<daemon_process> daemon;

    std::string keys_text(bool with_alice) {
        return std::string("# clients\n") +
               (with_alice ? alice.pub + std::string(" alice *\n") : "") + bob.pub +
               " bob 0x10,30\n";
    }
    std::string main_json(bool secure) {
        std::string security = R"(, "security": {"secret-key": ")" + dir.path() +
                               R"(/server.key", "authorized-keys": ")" + dir.path() + R"(/keys"})";
        return R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
               R"(, "sub-configs": [{"class": "a", "code": "0x10", "config": ")" + dir.path() +
               R"(/a.json"}, {"class": "b", "code": "0x20", "config": ")" + dir.path() +
               R"(/b.json"}])" + (secure ? security : "") + "}";
    }
    void write_files(bool secure) {
        dir.write("data.txt", "data");
        dir.write("other.txt", "other");
        for (auto [name, file] : {std::pair{"a.json", "data.txt"}, {"b.json", "other.txt"}})
            dir.write(name, R"({"cmd-list": [{"name": "n", "id": "1", "type": "file", "file": ")" +
                                dir.path() + "/" + file + "\"}]}");
        dir.write("server.key", std::string("# server\n") + server.sec + "\n");
        dir.write("keys", keys_text(true));
        dir.write("main.json", main_json(secure));
    }
    void start(bool secure) {
        write_files(secure);
        daemon = std::make_unique<daemon_process>(
            std::vector<std::string>{"-c", dir.path() + "/main.json"});
        for (int i = 0; i < 40 && daemon->running(); i++) {
            client c(endpoint, secure ? server.pub : nullptr, &alice, 250);
            if (c.ask(make_request(0xEAEA, 2, {0})) == 0)
                return;
        }
        FAIL() << "daemon not ready: " << daemon->stderr_text();
    }
};

TEST_F(security_test, only_accepted_keys_complete_the_handshake) {
    start(true);
    keypair wrong_server;
    struct row {
        const char* what;
        const char* server_pub;
        const keypair* me;
        int msg_len;
    } rows[] = {{"accepted key", server.pub, &alice, 4},
                {"unknown key", server.pub, &carol, no_reply},
                {"wrong server key", wrong_server.pub, &alice, no_reply},
                {"plaintext client", nullptr, nullptr, no_reply}};
    for (const row& r : rows) {
        client c(endpoint, r.server_pub, r.me);
        EXPECT_EQ(c.ask(make_request(0x10, 1)), r.msg_len) << r.what;
    }
    EXPECT_TRUE(daemon->wait_stderr(std::string("Refused key ") +
                                    std::string(carol.pub).substr(0, 10) + " from 127.0.0.1"));
}

TEST_F(security_test, rights_per_key_follow_the_file_while_running) {
    start(true);
    client a(endpoint, server.pub, &alice), b(endpoint, server.pub, &bob);
    struct row {
        client* c;
        uint32_t command;
        int msg_len;
    } rows[] = {{&b, 0x10, 4}, {&b, 0x20, -1}, {&b, 0xEAEA, 0}, {&a, 0x20, 5}, {&a, 0x30, -22}};
    for (const row& r : rows)
        EXPECT_EQ(r.c->ask(make_request(r.command, r.command == 0xEAEA ? 2 : 1, {0})), r.msg_len)
            << std::hex << r.command;
    EXPECT_TRUE(daemon->wait_stderr("Key " + std::string(bob.pub).substr(0, 10) +
                                    " (bob) may not use command 0x20"));

    // Revoked: the open connection is refused within the reload period, a
    // new one gets nothing; bob is still answered.
    dir.write("keys", keys_text(false));
    int answer = 0;
    for (int i = 0; i < 30 && (answer = a.ask(make_request(0x10, 1))) != -1; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(answer, -1);
    EXPECT_TRUE(daemon->wait_stderr("(revoked) may not use command 0x10"));
    client again(endpoint, server.pub, &alice);
    EXPECT_EQ(again.ask(make_request(0x10, 1)), no_reply);
    EXPECT_EQ(b.ask(make_request(0x10, 1)), 4);
}

// The guards hold with and without security: an empty frame reads as
// command 0, not as the request a worker served before; a 1 MiB message
// costs its sender the connection and nobody else anything.
TEST_F(security_test, guards_hold_in_both_modes) {
    for (bool secure : {false, true}) {
        SCOPED_TRACE(secure ? "CURVE" : "plaintext");
        port = free_port();
        endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        start(secure);
        const char* pub = secure ? server.pub : nullptr;
        client a(endpoint, pub, &alice), b(endpoint, pub, &alice), big(endpoint, pub, &alice);
        for (int i = 0; i < 10; i++) {
            std::string data;
            ASSERT_EQ(a.ask(make_request(0x10, 1, {1, 2, 3, 4}), &data), 4);
            bytes empty_reply(64);
            ASSERT_EQ(zmq_send(b.sock, "", 0, 0), 0);
            ASSERT_EQ(zmq_recv(b.sock, empty_reply.data(), empty_reply.size(), 0), 26);
            reply_view v = parse_reply(empty_reply);
            EXPECT_EQ(v.command, 0);
            EXPECT_EQ(v.msg_len, -22);
        }
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
        EXPECT_TRUE(daemon->running());
    }
}

TEST_F(security_test, bad_key_files_stop_the_start_with_255) {
    struct row {
        const char* file;
        const char* content;  // nullptr: the file is missing
        const char* log;
    } rows[] = {
        {"server.key", "# only a comment\n", "Secret key @/server.key: holds no key"},
        {"server.key", "not-a-key\n", "Secret key @/server.key: not a 40-character Z85 key"},
        {"server.key", nullptr, "Secret key @/server.key: cannot be read"},
        {"keys", nullptr, "Authorized keys @/keys: cannot be read"},
        {"keys", "# x\n\nshort alice *\n", "Authorized keys @/keys: line 3: not a 40-character"},
        {"keys", "~ alice 0x10,zz\n", "Authorized keys @/keys: line 1: bad codes \"0x10,zz\""},
        {"keys", "~ alice\n", "Authorized keys @/keys: line 1: expected <key> <name> <codes>"},
        {"keys", "~ a *\n~ b *\n", "Authorized keys @/keys: line 2: key listed twice"},
    };
    for (const row& r : rows) {
        write_files(true);
        std::string path = dir.path() + "/" + r.file, content = r.content ? r.content : "";
        for (size_t at; (at = content.find('~')) != std::string::npos;)
            content.replace(at, 1, alice.pub);
        if (r.content != nullptr)
            dir.write(r.file, content);
        else
            std::remove(path.c_str());
        daemon_process d({"-c", dir.path() + "/main.json"});
        std::string log = r.log;
        log.replace(log.find('@'), 1, dir.path());
        EXPECT_EQ(d.wait_exit(), 255) << r.log;
        EXPECT_NE(d.stderr_text().find(log), std::string::npos) << d.stderr_text();
        EXPECT_NE(d.stderr_text().find("monitor parse config failed"), std::string::npos);
    }
}
}  // namespace
