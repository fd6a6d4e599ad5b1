// monitor::handle_request against configurations in real files, and the real
// daemon binary on a free loopback port asked over plain ZeroMQ.
#include "monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zmq.h>

#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "log_capture.h"
#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
    for (size_t at; (at = s.find(from)) != std::string::npos;) s.replace(at, from.size(), to);
    return s;
}

std::string letters(size_t n) {
    std::string s(n, 'a');
    for (size_t i = 0; i < n; i++) s[i] = static_cast<char>('a' + i % 26);
    return s;
}

bytes b(const std::string& s) {
    return {s.begin(), s.end()};
}

// A configuration in a temporary directory: group 0x10 (and a disabled group
// 0x11 from the same file) with files, "$pid" files and the test plug-in.
class monitor_test : public ::testing::Test {
protected:
    temp_dir dir;
    int port = free_port();
    std::string sub_file = dir.path() + "/sub.json", main_file = dir.path() + "/main.json";

    void SetUp() override {
        for (const char* name :
             {"1000.txt", "0.txt", "4294967295.txt", "42-$pid.txt", "cost$5.txt"})
            dir.write(name, std::string("from ") + name);
        dir.write("data.txt", "hello vireo\n");
        dir.write("empty.txt", "");
        dir.write("big.txt", letters(10000));
        std::string lib = test_plugin_dir() + "/libvireo_test_plugin.so";
        // clang-format off
        dir.write("sub.json", replace_all(replace_all(R"({"cmd-list": [
            {"name": "n", "id": "1", "type": "file", "file": "@/data.txt"}, {"name": "n", "id": "2", "type": "file", "file": "@/big.txt"},
            {"name": "n", "id": "3", "type": "file", "file": "@/missing.txt"}, {"name": "n", "id": "4", "type": "file", "file": "@/$pid.txt"},
            {"name": "n", "id": "5", "type": "file", "file": "@/$pid-$pid.txt"}, {"name": "n", "id": "6", "type": "file", "file": "@/cost$5.txt"},
            {"name": "n", "id": "7", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"}, {"name": "n", "id": "8", "type": "custom", "lib": "LIB", "symbols": "plugin_len"},
            {"name": "n", "id": "9", "type": "custom", "lib": "LIB", "symbols": "no_such_symbol"}, {"name": "n", "id": "a", "type": "file", "file": "@/data.txt", "disable": true},
            {"name": "n", "id": "b", "type": "file", "file": "@/empty.txt"}, {"name": "n", "id": "c", "type": "file", "file": "@/data.txt"},
            {"name": "n", "id": "d", "type": "file", "file": "/proc/$pid/status"}]})", "@", dir.path()), "LIB", lib));
        dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [
            {"class": "a", "code": "0x10", "config": ")" + sub_file + R"("}, {"class": "b", "code": "0x11", "config": ")" + sub_file + R"(", "disable": true}]})");
        // clang-format on
    }
};

// Runs one request as received (payload area zero-filled past msg_len).
int run(monitor& mon, comm_data& c, uint32_t command, uint32_t sub, const bytes& payload) {
    std::memset(c.recv_data, 0, 48 + 1024);
    c.recv_data->command = static_cast<int32_t>(command);
    c.recv_data->sub_command = static_cast<int32_t>(sub);
    c.recv_data->msg_len = static_cast<int32_t>(payload.size());
    std::copy(payload.begin(), payload.end(), c.recv_data->msg);
    return mon.handle_request(&c);
}

class handle_request_test : public monitor_test {
protected:
    monitor mon;
    comm_data c{nullptr};

    void SetUp() override {
        monitor_test::SetUp();
        log_capture quiet;  // the missing symbol is reported while loading
        ASSERT_TRUE(mon.parse_config(main_file));
        // No configuration yields an unknown type: forge one.
        mon.configs->mconfig->subs_map.at(0x10)->cmds.at(0xc)->type = static_cast<cmd_type_t>(7);
    }
};

// Every result of the dispatch, its reply bytes and its exact log lines; a
// failed look-up adds no entry.
TEST_F(handle_request_test, results_table) {
    // clang-format off
    auto err = [](const std::string& text) { return std::vector<log_line>{{6 /* error */, "VO_MONITOR", text}}; };
    struct request_case { const char* name; uint32_t command, sub_command; bytes payload; int result; std::string reply; std::vector<log_line> logs; };
    for (const request_case& tc : std::vector<request_case>{
        {"file", 0x10, 1, {}, 12, "hello vireo\n", {}},
        {"file over capacity", 0x10, 2, {}, 8191, letters(8191) + '\0', {}},
        {"missing file", 0x10, 3, {}, -2, "", {{6, null_tag(), "read_file no such file: " + dir.path() + "/missing.txt\n"}}},
        {"pid 1000", 0x10, 4, {0xE8, 0x03, 0, 0}, 13, "from 1000.txt", {}},
        {"pid absent", 0x10, 4, {}, 10, "from 0.txt", {}},
        {"pid unsigned", 0x10, 4, pid_payload(0xFFFFFFFF), 19, "from 4294967295.txt", {}},
        {"first $pid only", 0x10, 5, pid_payload(42), 16, "from 42-$pid.txt", {}},
        {"$ without pid", 0x10, 6, pid_payload(1000), 15, "from cost$5.txt", {}},
        {"plug-in echo", 0x10, 7, b("ping"), 4, "ping", {}},
        {"plug-in 0", 0x10, 8, pid_payload(0), 0, "", {}},
        {"plug-in 8192", 0x10, 8, pid_payload(8192), 8192, letters(8192), {}},
        {"plug-in negative", 0x10, 8, pid_payload(-7), -7, "", {}},
        {"plug-in answered itself", 0x10, 8, pid_payload(9000), 9000, "", {}},
        {"no function", 0x10, 9, {}, -6, "", {}},
        {"disabled command", 0x10, 0xa, {}, 12, "hello vireo\n", {}},
        {"disabled group", 0x11, 1, {}, 12, "hello vireo\n", {}},
        {"empty file", 0x10, 0xb, {}, 0, "", {}},
        {"unknown type", 0x10, 0xc, {}, -22, "", err("Not support cmd type:7\n")},
        {"unknown command", 0x12, 1, {}, -22, "", err("No command 0x12 in " + main_file + "\n")},
        {"unknown sub", 0x10, 0x99, {}, -22, "", err("No sub-command 0x99 in " + sub_file + "\n")},
        {"unknown internal", 0xEAEA, 3, {}, -22, "", err("Not support 3 internal cmd")},
        {"top", 0xFFFFFFFF, 1, {}, -22, "", err("No command 0xffffffff in " + main_file + "\n")}}) {
        // clang-format on
        SCOPED_TRACE(tc.name);
        log_capture logs;
        EXPECT_EQ(run(mon, c, tc.command, tc.sub_command, tc.payload), tc.result);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(c.send_data->msg), tc.reply.size()),
                  tc.reply);
        EXPECT_EQ(logs.lines(), tc.logs);
    }
    EXPECT_EQ(mon.configs->mconfig->subs_map.size(), 2u);
    EXPECT_EQ(mon.configs->mconfig->subs_map.at(0x10)->cmds.size(), 13u);
}

// Ids 1..254 lowest free first, then 0; a returned id comes back; returning
// 0, 255 or anything outside the pool changes nothing.
TEST_F(handle_request_test, client_id_pool) {
    log_capture logs;
    std::vector<log_line> expect;
    auto next_id = [&] { return run(mon, c, 0xEAEA, 1, {}) == 1 ? c.send_data->msg[0] : -1; };
    for (int i = 1; i <= 255; i++) {
        ASSERT_EQ(next_id(), i % 255) << i;
        expect.push_back(
            {4 /* info */, "VO_MONITOR", "send get_client_id " + std::to_string(i % 255) + "\n"});
    }
    EXPECT_EQ(logs.lines(), expect);
    for (uint8_t id : {3, 200, 5, 0, 255}) EXPECT_EQ(run(mon, c, 0xEAEA, 2, {id}), 0);
    mon.back_client_id(-1);
    mon.back_client_id(1000);
    for (int id : {3, 5, 200, 0, 0}) EXPECT_EQ(next_id(), id);
}

// The configuration `make run` serves loads from the repository root (only a
// probe plug-in this build left out may be reported) and reaches this
// machine's process files.
TEST(demo_config, loads_and_serves) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(VIREO_SOURCE_DIR), 0);
    monitor mon;
    log_capture logs;
    bool ok = mon.parse_config("config/demo/main.json");
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_TRUE(ok);
    for (const auto& l : logs.lines())
        EXPECT_NE(l.text.find("libvireo_probe.so symbol: "), std::string::npos) << l;
    comm_data c(nullptr);
    ASSERT_GT(run(mon, c, 0x20, 1, pid_payload(getpid())), 0);
    EXPECT_NE(std::string(reinterpret_cast<char*>(c.send_data->msg))
                  .find("\nPid:\t" + std::to_string(getpid())),
              std::string::npos);
}

std::string ep_of(int port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

// A line "TAG P MM-DD HH:MM:SS pid tid message" on the daemon's stderr.
bool has_log(const daemon_process& d, const std::string& tag_prio, const std::string& msg) {
    std::istringstream in(d.stderr_text());
    for (std::string line; std::getline(in, line);) {
        std::istringstream f(line);
        std::string tag, prio, date, time, rest;
        long pid = 0, tid = 0;
        std::getline(f >> tag >> prio >> date >> time >> pid >> tid >> std::ws, rest);
        // clang-format off
        if (tag + " " + prio == tag_prio && date.size() == 5 && time.size() == 8 && pid == d.pid() && tid > 0 && rest == msg) return true;
        // clang-format on
    }
    return false;
}

// The real daemon on that configuration.
class daemon_test : public monitor_test {
protected:
    std::unique_ptr<daemon_process> d;

    void SetUp() override {
        monitor_test::SetUp();
        d = std::make_unique<daemon_process>(std::vector<std::string>{"-c", main_file});
        ASSERT_TRUE(d->wait_ready(ep_of(port))) << d->stderr_text();
    }
};

// Each kind of command answered with the right frame, and its log lines.
TEST_F(daemon_test, serves_each_kind_of_command) {
    // clang-format off
    std::string status = "\nPid:\t" + std::to_string(d->pid()) + "\n";  // of a process this test started
    struct { const char* name; uint32_t command, sub; bytes payload; size_t size; int32_t msg_len; std::string has; } cases[] = {
        {"file", 0x10, 1, {}, 60, 12, "hello vireo\n"},
        {"$pid", 0x10, 0xd, pid_payload(d->pid()), 0 /* msg_len + 48 */, 0, status},
        {"echo", 0x10, 7, b("ping pong"), 57, 9, "ping pong"},
        {"8192 bytes", 0x10, 8, pid_payload(8192), 8240, 8192, letters(8192)},
        {"negative", 0x10, 8, pid_payload(-7), 41, -7, ""},
        {"answered itself", 0x10, 8, pid_payload(9000), 53, 5, "self!"},
        {"unknown", 0x12, 1, {}, 26, -22, ""}};
    // clang-format on
    zmq_client c(ep_of(port));
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        bytes reply;
        ASSERT_TRUE(c.request(make_request(tc.command, tc.sub, tc.payload), reply));
        reply_view r = parse_reply(reply);
        EXPECT_EQ(std::make_tuple(r.command, r.sub_command),
                  std::make_tuple(int32_t(tc.command), int32_t(tc.sub)));
        EXPECT_EQ(reply.size(), tc.size ? tc.size : r.msg_len + 48u);
        EXPECT_EQ(r.msg_len, tc.size ? tc.msg_len : r.msg_len);
        EXPECT_NE(r.payload.find(tc.has), std::string::npos) << r.payload;
    }
    ASSERT_TRUE(d->wait_stderr("Handle request error with -22"));
    EXPECT_TRUE(
        has_log(*d, "VO_MONITOR I", "vireo-monitor listening 127.0.0.1:" + std::to_string(port)));
    EXPECT_TRUE(has_log(*d, "VO_MONITOR E", "No command 0x12 in " + main_file));
    EXPECT_TRUE(has_log(*d, "VO_MONITOR E", "Handle request error with -7"));
}

// Exit status, stdout and stderr of each way the command line can go; the
// last -c wins, and a taken port still exits 0.
TEST_F(monitor_test, command_line_exit_statuses_and_messages) {
    std::string good = main_file, bad = dir.write("bad.json", "{\"mode\": ");
    daemon_process last_wins({"-c", bad, "-c", good});
    ASSERT_TRUE(last_wins.wait_ready(ep_of(port))) << last_wins.stderr_text();
    // clang-format off
    std::string help = "Show process or thread callstack and status, or exec dump_server in server mode\n\t-c, main config file path\n";
    struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
        {{"-c", good, "-h"}, 0, help, ""},
        {{"-x"}, 0, help, ""},
        {{"-c"}, 0, help, ""},
        {{}, 255, "", "VO_MONITOR E"},
        {{"extra"}, 255, "", "Please use '-c' to specify config file"},
        {{"-c", bad}, 255, "", "monitor parse config failed"},
        {{"-c", good, "-c", bad}, 255, "", "monitor parse config failed"},
        {{"-c", dir.path() + "/none.json"}, 255, "", "monitor parse config failed"},
        {{"-c", good}, 0, "", "Connect error:-3"}};
    // clang-format on
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.args.empty() ? "(none)" : tc.args.back());
        daemon_process d(tc.args);
        EXPECT_EQ(d.wait_exit(), tc.status);
        EXPECT_EQ(d.stdout_text(), tc.out);
        EXPECT_NE(d.stderr_text().find(tc.err), std::string::npos) << d.stderr_text();
    }
    EXPECT_TRUE(last_wins.running());
}

// Eight clients at once, mixing file, $pid, plug-in and client-id requests:
// every reply is the one for its own request and no client id is handed out
// twice.
TEST_F(daemon_test, concurrent_clients_get_their_own_replies) {
    constexpr int clients = 8, per_client = 400, ids_per_client = 31;
    std::vector<std::vector<int>> ids(clients);
    std::vector<std::string> errors(clients);
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; t++) {
        threads.emplace_back([&, t] {
            zmq_client c(ep_of(port));
            bytes reply;
            for (int i = 0; i < per_client && errors[t].empty(); i++) {
                std::string tag =
                    "client " + std::to_string(t) + " request " + std::to_string(i) + ";";
                int kind = i % 4 == 3 && i >= 4 * ids_per_client ? 0 : i % 4;
                // clang-format off
                bytes reqs[] = {make_request(0x10, 1), make_request(0x10, 0xd, pid_payload(getpid())), make_request(0x10, 7, b(tag)), make_request(0xEAEA, 1)};
                std::string want[] = {"hello vireo\n", "\nPid:\t" + std::to_string(getpid()) + "\n", tag, ""};
                // clang-format on
                // the reply repeats its request's command and sub-command, then its own payload
                bool ok = c.request(reqs[kind], reply) && reply.size() >= 48 &&
                          std::equal(reply.begin(), reply.begin() + 8, reqs[kind].begin());
                reply_view r = parse_reply(reply);
                if (!ok || r.payload.find(want[kind]) == std::string::npos ||
                    (kind == 3 && r.msg_len != 1))
                    errors[t] = tag + ": wrong or no reply " + r.payload;
                else if (kind == 3)
                    ids[t].push_back(reply[44]);
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

// Malformed traffic never stops the service: short frames, msg_len negative
// or above 1024, 2000-byte frames, multi-part messages and random bytes; after
// each, a valid request is answered correctly.
TEST_F(daemon_test, survives_hostile_input) {
    const int32_t any = 1 << 30;  // reply content not predictable
    bytes unknown = make_request(0x12, 1);
    bytes big = make_request_len(0x10, 7, bytes(1956, 0x5A), 2000);
    // clang-format off
    std::vector<std::tuple<std::string, std::vector<bytes>, int32_t>> cases = {
        {"10 bytes", {bytes(unknown.begin(), unknown.begin() + 10)}, -22},
        {"3 bytes", {{1, 2, 3}}, any},
        {"empty", {bytes{}}, any},
        {"msg_len min", {make_request_len(0x10, 1, {}, INT32_MIN)}, 12},
        {"msg_len 1025", {make_request_len(0x10, 1, {}, 1025)}, 12},
        {"msg_len 5000 echo", {make_request_len(0x10, 7, b("abc"), 5000)}, 1024},
        {"2000 bytes", {big}, 1024},
        {"two parts", {make_request(0x10, 1), make_request(0x12, 1)}, any},
        {"three parts", {{9}, make_request(0x10, 7, b("x")), {}}, any}};
    // clang-format on
    std::mt19937 rng(1234);
    for (int k = 0; k < 30; k++) {
        bytes f(rng() % 1500);
        for (auto& byte : f) byte = static_cast<uint8_t>(rng());
        cases.push_back({"random " + std::to_string(k), {f}, any});
    }
    zmq_client good(ep_of(port));
    for (const auto& [name, parts, msg_len] : cases) {
        SCOPED_TRACE(name);
        zmq_client bad(ep_of(port), 5000, ZMQ_DEALER);
        ASSERT_TRUE(bad.send({}, true));  // the empty delimiter a REQ socket would send
        for (size_t i = 0; i < parts.size(); i++) bad.send(parts[i], i + 1 < parts.size());
        bytes delim, reply;
        ASSERT_TRUE(bad.recv(delim) && bad.recv(reply));
        reply_view r = parse_reply(reply);
        EXPECT_TRUE(msg_len == any || r.msg_len == msg_len) << r.msg_len;
        EXPECT_TRUE(name != "2000 bytes" ||
                    (reply.size() == 1072 &&
                     std::equal(reply.begin() + 44, reply.end() - 4, big.begin() + 44)));
        EXPECT_TRUE(msg_len != 12 || r.payload == "hello vireo\n") << r.payload;
        ASSERT_TRUE(good.request(make_request(0x10, 7, b(name)), reply));
        EXPECT_EQ(parse_reply(reply).payload, name);
    }
    EXPECT_TRUE(d->running());
}
}  // namespace
