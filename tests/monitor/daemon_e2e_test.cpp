// The real daemon binary on a free loopback port, asked over plain ZeroMQ.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <cstring>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "test_util.h"

namespace {

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
    for (size_t at; (at = s.find(from)) != std::string::npos;) s.replace(at, from.size(), to);
    return s;
}

// A configuration under command 0x10: 1 a file, 2 "/proc/$pid/status",
// 3 plugin_echo, 4 plugin_len.
std::string write_config(const temp_dir& dir, int port) {
    std::string sub = R"({"cmd-list": [
        {"name": "data", "id": "1", "type": "file", "file": "DATA"},
        {"name": "status", "id": "2", "type": "file", "file": "/proc/$pid/status"},
        {"name": "echo", "id": "3", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"},
        {"name": "len", "id": "4", "type": "custom", "lib": "LIB", "symbols": "plugin_len"}]})";
    std::string main = R"({"mode": "server", "server_ip": "127.0.0.1", "port": PORT,
        "sub-configs": [{"class": "demo", "code": "0x10", "config": "SUB"}]})";
    std::string lib = test_plugin_dir() + "/libvireo_test_plugin.so";
    sub = replace_all(replace_all(sub, "DATA", dir.write("data.txt", "hello vireo\n")), "LIB", lib);
    main = replace_all(main, "PORT", std::to_string(port));
    return dir.write("main.json", replace_all(main, "SUB", dir.write("sub.json", sub)));
}

std::string ep_of(int port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

// A log line on the daemon's stderr: "TAG P MM-DD HH:MM:SS pid tid message".
bool has_log(const daemon_process& d, const std::string& tag, char prio, const std::string& msg) {
    std::istringstream in(d.stderr_text());
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string t, p, date, time, msg_rest;
        long pid = 0, tid = 0;
        f >> t >> p >> date >> time >> pid >> tid;
        std::getline(f >> std::ws, msg_rest);
        if (t == tag && p == std::string(1, prio) && pid == d.pid() && tid > 0 &&
            date.size() == 5 && time.size() == 8 && msg_rest == msg) {
            return true;
        }
    }
    return false;
}

class daemon_test : public ::testing::Test {
protected:
    temp_dir dir;
    int port = free_port();
    std::string main_file = write_config(dir, port);
    daemon_process d{{"-c", main_file}};

    void SetUp() override { ASSERT_TRUE(d.wait_ready(ep_of(port))) << d.stderr_text(); }
};

std::string letters(int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += static_cast<char>('a' + i % 26);
    return s;
}

std::vector<uint8_t> bytes(const std::string& s) {
    return {s.begin(), s.end()};
}

// Each kind of command answered with the right frame, and its log lines.
TEST_F(daemon_test, serves_each_kind_of_command) {
    struct sleeper {
        pid_t pid = fork();
        ~sleeper() {
            if (pid > 0 && kill(pid, SIGKILL) == 0) {
                waitpid(pid, nullptr, 0);
            }
        }
    } s;
    if (s.pid == 0) {
        sleep(30);  // bounded; killed by PID when the test ends
        _exit(0);
    }
    ASSERT_GT(s.pid, 0);
    pid_t child = s.pid;
    struct {
        const char* name;
        uint32_t sub;
        std::vector<uint8_t> payload;
        size_t size;
        int32_t msg_len;
        std::string payload_has;
    } cases[] = {
        {"file", 1, {}, 60, 12, "hello vireo\n"},
        {"$pid", 2, pid_payload(child), 0, 0, "\nPid:\t" + std::to_string(child) + "\n"},
        {"echo", 3, bytes("ping pong"), 57, 9, "ping pong"},
        {"8192 bytes", 4, pid_payload(8192), 8240, 8192, letters(8192)},
        {"negative", 4, pid_payload(static_cast<uint32_t>(-7)), 41, -7, ""},
        {"answered itself", 4, pid_payload(9000), 53, 5, "self!"},
        {"file again", 1, {}, 60, 12, "hello vireo\n"},
    };
    zmq_client c(ep_of(port));
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::vector<uint8_t> reply;
        ASSERT_TRUE(c.request(make_request(0x10, tc.sub, tc.payload), reply));
        reply_view r = parse_reply(reply);
        if (tc.size != 0) {
            EXPECT_EQ(reply.size(), tc.size);
            EXPECT_EQ(r.msg_len, tc.msg_len);
        } else {
            EXPECT_EQ(reply.size(), static_cast<size_t>(r.msg_len) + 48);
        }
        EXPECT_NE(r.payload.find(tc.payload_has), std::string::npos) << r.payload;
        EXPECT_EQ(r.command, 0x10);
        EXPECT_EQ(r.sub_command, static_cast<int32_t>(tc.sub));
    }
    std::vector<uint8_t> reply;
    ASSERT_TRUE(c.request(make_request(0x12, 1), reply));
    EXPECT_EQ(reply.size(), 26u);
    EXPECT_EQ(parse_reply(reply).msg_len, -22);
    ASSERT_TRUE(c.request(make_request(0xEAEA, 1), reply));
    ASSERT_EQ(reply.size(), 49u);
    EXPECT_EQ(reply[44], 1);
    ASSERT_TRUE(d.wait_stderr("Handle request error with -22"));
    EXPECT_TRUE(
        has_log(d, "VO_MONITOR", 'I', "vireo-monitor listening 127.0.0.1:" + std::to_string(port)));
    EXPECT_TRUE(has_log(d, "VO_MONITOR", 'E', "No command 0x12 in " + main_file));
    EXPECT_TRUE(has_log(d, "VO_MONITOR", 'E', "Handle request error with -7"));
    EXPECT_TRUE(has_log(d, "VO_MONITOR", 'I', "send get_client_id 1"));
}

// Exit status, stdout and stderr of each way the command line can go.
TEST(daemon_cli, exit_statuses_and_messages) {
    temp_dir dir;
    int port = free_port();
    std::string good = write_config(dir, port);
    std::string bad = dir.write("bad.json", "{\"mode\": ");
    std::string help =
        "Show process or thread callstack and status, or exec dump_server in server mode\n"
        "\t-c, main config file path\n";
    struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } cases[] = {
        {{"-c", good, "-h"}, 0, help, ""},
        {{"-x"}, 0, help, ""},
        {{"-c"}, 0, help, ""},
        {{}, 255, "", "VO_MONITOR E"},
        {{"extra"}, 255, "", "Please use '-c' to specify config file"},
        {{"-c", bad}, 255, "", "monitor parse config failed"},
        {{"-c", good, "-c", bad}, 255, "", "monitor parse config failed"},
        {{"-c", dir.path() + "/none.json"}, 255, "", "monitor parse config failed"},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.args.empty() ? "(none)" : tc.args.back());
        daemon_process d(tc.args);
        EXPECT_EQ(d.wait_exit(), tc.status);
        EXPECT_EQ(d.stdout_text(), tc.out);
        EXPECT_NE(d.stderr_text().find(tc.err), std::string::npos) << d.stderr_text();
    }
    // The last -c wins: a bad one before a good one still serves.
    daemon_process d({"-c", bad, "-c", good});
    EXPECT_TRUE(d.wait_ready(ep_of(port))) << d.stderr_text();
}

// A port already bound (by the fixture's daemon): the endpoint fails and
// the process still exits 0.
TEST_F(daemon_test, taken_port_exits_zero) {
    daemon_process second({"-c", main_file});
    EXPECT_EQ(second.wait_exit(), 0);
    EXPECT_TRUE(has_log(second, "VO_MONITOR", 'E', "Connect error:-3")) << second.stderr_text();
    EXPECT_TRUE(d.running());
}

// Many clients at once: every reply is the one for its own request and no
// client id is handed out twice.
TEST_F(daemon_test, concurrent_clients_get_their_own_replies) {
    constexpr int clients = 8, per_client = 400, ids_per_client = 31;
    std::vector<std::vector<int>> ids(clients);
    std::vector<std::string> errors(clients);
    std::string self = "\nPid:\t" + std::to_string(getpid()) + "\n";
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; t++) {
        threads.emplace_back([&, t] {
            zmq_client c(ep_of(port));
            std::vector<uint8_t> reply;
            for (int i = 0; i < per_client && errors[t].empty(); i++) {
                std::string tag = "client " + std::to_string(t) + " request " + std::to_string(i);
                bool take_id = i % 4 == 3 && static_cast<int>(ids[t].size()) < ids_per_client;
                int kind = take_id ? 3 : i % 4 == 3 ? 0 : i % 4;
                std::vector<uint8_t> reqs[] = {
                    make_request(0x10, 1), make_request(0x10, 2, pid_payload(getpid())),
                    make_request(0x10, 3, bytes(tag)), make_request(0xEAEA, 1)};
                if (!c.request(reqs[kind], reply)) {
                    errors[t] = tag + ": no reply";
                    break;
                }
                reply_view r = parse_reply(reply);
                bool ok = reply.size() >= 8 &&
                          std::memcmp(reply.data(), reqs[kind].data(), 8) == 0 &&
                          (kind == 3   ? r.msg_len == 1
                           : kind == 1 ? r.payload.find(self) != std::string::npos
                                       : r.payload == (kind == 0 ? "hello vireo\n" : tag));
                if (kind == 3 && ok) {
                    ids[t].push_back(reply[44]);
                }
                if (!ok) {
                    errors[t] = tag + ": wrong reply " + r.payload;
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    std::set<int> distinct;
    for (int t = 0; t < clients; t++) {
        EXPECT_EQ(errors[t], "");
        EXPECT_EQ(ids[t].size(), static_cast<size_t>(ids_per_client));
        distinct.insert(ids[t].begin(), ids[t].end());
    }
    EXPECT_EQ(distinct.size(), static_cast<size_t>(clients * ids_per_client));
    EXPECT_EQ(distinct.count(0), 0u);
}

// Malformed traffic never stops the service: after each, a valid request is
// answered correctly.
TEST_F(daemon_test, survives_hostile_input) {
    const int32_t any = 1 << 30;  // reply content not predictable
    std::vector<uint8_t> unknown = make_request(0x12, 1);
    std::vector<uint8_t> big = make_request_len(0x10, 3, std::vector<uint8_t>(1956, 0x5A), 2000);
    struct hostile {
        std::string name;
        std::vector<std::vector<uint8_t>> parts;
        int32_t msg_len;
    };
    std::vector<hostile> cases = {
        {"10 bytes", {std::vector<uint8_t>(unknown.begin(), unknown.begin() + 10)}, -22},
        {"3 bytes", {{1, 2, 3}}, any},
        {"empty", {std::vector<uint8_t>{}}, any},
        {"msg_len -100", {make_request_len(0x10, 1, {}, -100)}, 12},
        {"msg_len min", {make_request_len(0x10, 1, {}, INT32_MIN)}, 12},
        {"msg_len 1025", {make_request_len(0x10, 1, {}, 1025)}, 12},
        {"msg_len 5000 echo", {make_request_len(0x10, 3, bytes("abc"), 5000)}, 1024},
        {"2000 bytes", {big}, 1024},
        {"two parts", {make_request(0x10, 1), make_request(0x12, 1)}, any},
        {"three parts", {{9}, make_request(0x10, 3, bytes("x")), {}}, any},
    };
    std::mt19937 rng(1234);
    for (int k = 0; k < 30; k++) {
        std::vector<uint8_t> f(rng() % 1500);
        for (auto& b : f) b = static_cast<uint8_t>(rng());
        cases.push_back({"random " + std::to_string(k), {f}, any});
    }
    zmq_client good(ep_of(port));
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        zmq_client bad(ep_of(port), 5000, ZMQ_DEALER);
        ASSERT_TRUE(bad.send({}, true));
        for (size_t i = 0; i < tc.parts.size(); i++) bad.send(tc.parts[i], i + 1 < tc.parts.size());
        std::vector<uint8_t> delim, reply;
        bool more = false;
        ASSERT_TRUE(bad.recv(delim, &more));
        ASSERT_TRUE(more && delim.empty());
        ASSERT_TRUE(bad.recv(reply));
        if (tc.msg_len != any) {
            reply_view r = parse_reply(reply);
            EXPECT_EQ(r.msg_len, tc.msg_len);
            if (tc.name == "2000 bytes") {
                EXPECT_TRUE(std::equal(reply.begin() + 44, reply.end() - 4, big.begin() + 44));
            }
            if (r.msg_len == 12) {
                EXPECT_EQ(r.payload, "hello vireo\n");
            }
        }
        ASSERT_TRUE(good.request(make_request(0x10, 3, bytes(tc.name)), reply));
        EXPECT_EQ(parse_reply(reply).payload, tc.name);
    }
    EXPECT_TRUE(d.running());
}

}  // namespace
