// The monitor service: the real daemon on a free loopback port, every kind
// of request with its exact reply and log lines, the client-id pool, the
// worker pool and the command line.
#include "monitor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;
using logs = std::vector<log_line>;

std::string letters(size_t n) {
    std::string s(n, 'a');
    for (size_t i = 0; i < n; i++) s[i] = static_cast<char>('a' + i % 26);
    return s;
}
bytes b(const std::string& s) {
    return {s.begin(), s.end()};
}
log_line error(const std::string& text) {
    return {6, "VO_MONITOR", text};
}
uint64_t now_us() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec * 1000000ull + tv.tv_usec;
}

// A command of a type no configuration makes is refused.
TEST(monitor, unknown_type) {
    temp_dir dir;
    std::string sub = dir.write(
        "sub.json", R"({"cmd-list": [{"name": "n", "id": "1", "type": "file", "file": "/x"}]})");
    monitor mon;
    ASSERT_TRUE(mon.parse_config(dir.write(
        "main.json",
        R"({"mode": "", "server_ip": "", "port": 1, "sub-configs": [{"class": "a", "code": "10", "config": ")" +
            sub + "\"}]}")));
    mon.configs->mconfig->subs_map.at(0x10)->cmds.at(1)->type = static_cast<cmd_type_t>(7);
    comm_data c(nullptr);
    c.recv_data->command = 0x10;
    c.recv_data->sub_command = 1;
    log_capture log;
    EXPECT_EQ(mon.handle_request(&c), -22);
    EXPECT_EQ(log.lines(), logs{error("Not support cmd type:7\n")});
}

// A worker whose context ends closes its socket and ends instead of
// retrying for ever; closing the endpoint, which waits for every socket of
// the context, then completes.
TEST(monitor, worker_ends_with_its_context) {
    monitor mon;
    mon.comm = std::make_unique<server_comm>("127.0.0.1", free_port());
    ASSERT_EQ(mon.comm->listen_connect(), 0);
    std::thread worker(worker_routine, &mon);
    for (int i = 0; i < 500 && mon.comm->get_comm_list().empty(); i++) usleep(10000);
    std::atomic<bool> closed{false};
    std::thread closer([&] { closed = mon.comm->close_connect() == 0; });
    for (int i = 0; i < 1000 && !closed; i++) usleep(10000);
    ASSERT_TRUE(closed) << "closing waits for a worker that never ends";
    closer.join();
    worker.join();
    for (comm_data* c : mon.comm->get_comm_list()) delete c;
}

class daemon_test : public ::testing::Test {
protected:
    served_daemon s{R"(
        {"name": "n", "id": "1", "type": "file", "file": "DIR/data.txt"}, {"name": "n", "id": "2", "type": "file", "file": "DIR/big.txt"},
        {"name": "n", "id": "3", "type": "file", "file": "DIR/missing.txt"}, {"name": "n", "id": "4", "type": "file", "file": "DIR/$pid.txt"},
        {"name": "n", "id": "5", "type": "file", "file": "DIR/$pid-$pid.txt"}, {"name": "n", "id": "6", "type": "file", "file": "DIR/cost$5.txt"},
        {"name": "n", "id": "7", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"}, {"name": "n", "id": "8", "type": "custom", "lib": "LIB", "symbols": "plugin_len"},
        {"name": "n", "id": "9", "type": "custom", "lib": "LIB", "symbols": "no_such_symbol"}, {"name": "n", "id": "a", "type": "file", "file": "DIR/data.txt", "disable": true},
        {"name": "n", "id": "b", "type": "file", "file": "/proc/$pid/status"}, {"name": "n", "id": "c", "type": "custom", "lib": "LIB", "symbols": "plugin_gate"})"};

    void SetUp() override {
        for (const char* name :
             {"1000.txt", "0.txt", "4294967295.txt", "42-$pid.txt", "cost$5.txt"})
            s.dir.write(name, std::string("from ") + name);
        s.dir.write("data.txt", "hello vireo\n");
        s.dir.write("big.txt", letters(10000));
        ASSERT_TRUE(s.ready()) << s.daemon->stderr_text();
    }
};

// Each request on one connection, in order: the reply repeats command and
// sub-command, carries its result in msg_len, is msg_len + 48 bytes long (12
// below -48), holds the expected payload, and the daemon logs exactly the
// lines given.
TEST_F(daemon_test, every_kind_of_request) {
    const int32_t any = INT32_MIN;  // a positive length not known in advance
    const std::string dlopen = "dlopen lib: " + test_plugin_dir() +
                               "/libvireo_test_plugin.so symbol: no_such_symbol failed\n";
    const std::string handled = "Handle request error with ";
    bytes bad_crc = make_request(0x10, 1), cut = make_request(0x12, 1);
    std::fill(bad_crc.begin() + 40, bad_crc.begin() + 44, 0xFF);
    cut.resize(10);
    // clang-format off
    struct row { const char* name; bytes request; int32_t msg_len; std::string payload; logs log; } rows[] = {
        {"file", make_request(0x10, 1), 12, "hello vireo\n", {}},
        {"file cut to the payload less one", make_request(0x10, 2), 8191, letters(8191), {}},
        {"missing file", make_request(0x10, 3), -2, "", {{6, "vireo-monitor", "read_file no such file: " + s.dir.path() + "/missing.txt\n"}, error(handled + "-2\n")}},
        {"$pid 1000", make_request(0x10, 4, {0xE8, 0x03, 0, 0}), 13, "from 1000.txt", {}},
        {"$pid absent", make_request(0x10, 4), 10, "from 0.txt", {}},
        {"$pid past msg_len 0", make_request_len(0x10, 4, {0xE8, 0x03, 0, 0}, 0), 10, "from 0.txt", {}},
        {"$pid past msg_len 2", make_request_len(0x10, 4, {0xE8, 0x03, 1, 0}, 2), 13, "from 1000.txt", {}},
        {"$pid unsigned", make_request(0x10, 4, pid_payload(0xFFFFFFFF)), 19, "from 4294967295.txt", {}},
        {"first $pid only", make_request(0x10, 5, pid_payload(42)), 16, "from 42-$pid.txt", {}},
        {"$ without pid", make_request(0x10, 6, pid_payload(1000)), 15, "from cost$5.txt", {}},
        {"/proc/$pid", make_request(0x10, 0xb, pid_payload(s.daemon->pid())), any, "\nPid:\t" + std::to_string(s.daemon->pid()) + "\n", {}},
        {"plug-in", make_request(0x10, 7, b("ping pong")), 9, "ping pong", {}},
        {"plug-in 0", make_request(0x10, 8, pid_payload(0)), 0, "", {}},
        {"plug-in 8192", make_request(0x10, 8, pid_payload(8192)), 8192, letters(8192), {}},
        {"plug-in -7", make_request(0x10, 8, pid_payload(-7)), -7, "", {error(handled + "-7\n")}},
        {"plug-in -100", make_request(0x10, 8, pid_payload(-100)), -100, "", {error(handled + "-100\n")}},
        {"plug-in answered itself", make_request(0x10, 8, pid_payload(9000)), 5, "self!", {}},
        {"no function", make_request(0x10, 9), -6, "", {error(handled + "-6\n")}},
        {"disabled command", make_request(0x10, 0xa), 12, "hello vireo\n", {}},
        {"disabled group", make_request(0x11, 1), 12, "hello vireo\n", {}},
        {"unknown command", make_request(0x12, 1), -22, "", {error("No command 0x12 in " + s.main_file + "\n"), error(handled + "-22\n")}},
        {"top command", make_request(0xFFFFFFFF, 1), -22, "", {error("No command 0xffffffff in " + s.main_file + "\n"), error(handled + "-22\n")}},
        {"unknown sub-command", make_request(0x10, 0x99), -22, "", {error("No sub-command 0x99 in " + s.sub_file + "\n"), error(handled + "-22\n")}},
        {"unknown internal", make_request(0xEAEA, 3), -22, "", {error("Not support 3 internal cmd"), error(handled + "-22\n")}},
        {"take id", make_request(0xEAEA, 1), 1, "\x01", {{4, "VO_MONITOR", "send get_client_id 1\n"}}},
        {"return id", make_request(0xEAEA, 2, {1}), 0, "", {}},
        {"take id again", make_request(0xEAEA, 1), 1, "\x01", {{4, "VO_MONITOR", "send get_client_id 1\n"}}},
        {"crc logged, answered", bad_crc, 12, "hello vireo\n", {{6, "MONITOR_COMM", "crc error, compute crc is 0 , receive crc is -1\n"}}},
        {"10-byte frame", cut, -22, "", {error("No command 0x12 in " + s.main_file + "\n"), error(handled + "-22\n")}},
        {"msg_len below 0", make_request_len(0x10, 1, {}, INT32_MIN), 12, "hello vireo\n", {}},
        {"msg_len 1025", make_request_len(0x10, 1, {}, 1025), 12, "hello vireo\n", {}},
        {"2000-byte frame", make_request_len(0x10, 7, bytes(1956, 'Z'), 2000), 1024, std::string(1024, 'Z'), {}}};
    // clang-format on
    zmq_client c(s.endpoint);
    std::vector<log_line> all = s.daemon->log_lines();
    EXPECT_EQ(
        all,
        (logs{{6, "MONITOR_CONFIG", dlopen},
              {6, "MONITOR_CONFIG", dlopen},
              {4, "VO_MONITOR", "vireo-monitor listening 127.0.0.1:" + std::to_string(s.port)}}));
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        // msg_type, gap, sum_packet, cur_packet, command_type, client_id, gap
        bytes reply, head{0x30, 0, 0, 0, 0, 0, 0x31, 0xFF, 0, 0, 0, 0};
        uint64_t before = now_us();
        ASSERT_TRUE(c.request(r.request, reply));
        reply_view v = parse_reply(reply);
        uint64_t sent = v.tv_sec * 1000000ull + v.tv_usec;
        EXPECT_EQ(bytes(reply.begin(), reply.begin() + 8),
                  bytes(r.request.begin(), r.request.begin() + 8));
        if (v.payload != "self!") {  // that frame is the plug-in's own
            head.resize(std::min<size_t>(reply.size(), 24) - 12);
            EXPECT_EQ(bytes(&reply[12], &reply[12 + head.size()]), head);
            EXPECT_TRUE(reply.size() < 40 || (sent >= before && sent <= now_us())) << sent;
            EXPECT_TRUE(reply.size() < 44 || v.crc == 0);
        }
        EXPECT_EQ(v.msg_len, r.msg_len == any ? std::max(v.msg_len, 1) : r.msg_len);
        EXPECT_EQ(reply.size(), v.msg_len < -48 ? 12u : v.msg_len + 48u);
        EXPECT_NE(v.payload.find(r.payload), std::string::npos) << v.payload;
        logs now = s.daemon->log_lines();
        EXPECT_EQ(logs(now.begin() + static_cast<long>(all.size()), now.end()), r.log);
        all = now;
    }
    // A fixed path is read through its cached descriptor, a $pid path afresh:
    // of two files replaced on disk, only the $pid one shows.
    bytes reply;
    for (const char* name : {"data.txt", "1000.txt"})
        std::rename(s.dir.write("new", "renewed").c_str(), (s.dir.path() + "/" + name).c_str());
    for (auto [sub, text] : {std::pair{1, "hello vireo\n"}, {4, "renewed"}})
        EXPECT_TRUE(c.request(make_request(0x10, sub, pid_payload(1000)), reply) &&
                    parse_reply(reply).payload == text)
            << sub;
    // The client-id pool (1 is taken above): the lowest free id up to 254,
    // then 0, each logged; a returned id comes back, 0 and 255 change nothing.
    auto take = [&] { return c.request(make_request(0xEAEA, 1), reply) ? reply[44] : -1; };
    logs want;
    for (int i = 2; i <= 258; i++) {
        const int after_full[] = {0, 3, 200, 0};
        ASSERT_EQ(take(), i < 255 ? i : after_full[i - 255]) << i;
        want.push_back({4, "VO_MONITOR", "send get_client_id " + std::to_string(reply[44]) + "\n"});
        if (i == 255)  // the pool is full
            for (uint8_t id : {200, 3, 0, 255}) c.request(make_request(0xEAEA, 2, {id}), reply);
    }
    logs now = s.daemon->log_lines();
    EXPECT_EQ(logs(now.begin() + static_cast<long>(all.size()), now.end()), want);
}

// Six requests that each hold a worker: five are inside at once, the sixth
// waits for one of them; all six are answered once released.
TEST_F(daemon_test, five_workers) {
    std::string gate = s.dir.path() + "/gate";
    ASSERT_EQ(mkdir(gate.c_str(), 0700), 0);
    auto inside = [&] {
        auto it = std::filesystem::directory_iterator(gate);
        return static_cast<int>(std::distance(it, std::filesystem::directory_iterator()));
    };
    std::atomic<int> answered{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 6; i++)
        callers.emplace_back([&] {
            zmq_client c(s.endpoint, 30000);
            bytes reply;
            answered += c.request(make_request(0x10, 0xc, b(gate)), reply) &&
                        parse_reply(reply).msg_len == 0;
        });
    int most = 0;
    for (int i = 0; i < 2000 && most < 5; i++, usleep(10000)) most = inside();
    for (int i = 0; i < 50; i++, usleep(10000))
        most = std::max(most, inside());  // a sixth would be in by now
    EXPECT_EQ(most, 5);
    s.dir.write("gate/release", "");
    for (auto& t : callers) t.join();
    EXPECT_EQ(answered, 6);
}

// Exit status, stdout and log lines of each way the command line can go; the
// last -c wins, and a taken port (the fixture's) still exits 0.
TEST_F(daemon_test, command_line) {
    std::string good = s.main_file, bad = s.dir.write("bad.json", "{\"mode\": ");
    std::string help =
        "Show process or thread callstack and status, or exec dump_server in server mode\n\t-c, "
        "main config file path\n";
    log_line dlopen{6, "MONITOR_CONFIG",
                    "dlopen lib: " + test_plugin_dir() +
                        "/libvireo_test_plugin.so symbol: no_such_symbol failed\n"};
    // clang-format off
    struct { std::vector<std::string> args; int status; std::string out; logs log; } rows[] = {
        {{"-c", good, "-h"}, 0, help, {}},
        {{"-c"}, 0, help, {}},
        {{}, 255, "", {error("Please use '-c' to specify config file\n")}},
        {{"-c", good, "-c", bad}, 255, "", {{6, "MONITOR_CONFIG", "Parse main config " + bad + " failed\n"},
                                             {6, "MONITOR_CONFIG", "Exception caught: Parse json in " + bad + "\n"}, error("monitor parse config failed\n")}},
        {{"-c", bad, "-c", good}, 0, "", {dlopen, dlopen, {4, "VO_MONITOR", "vireo-monitor listening 127.0.0.1:" + std::to_string(s.port)},
                                           {6, "MONITOR_COMM", "zmq_bind error, Address already in use\n"}, error("Connect error:-3\n")}}};
    // clang-format on
    for (const auto& r : rows) {
        SCOPED_TRACE(r.args.empty() ? "(none)" : r.args.back());
        daemon_process d(r.args);
        EXPECT_EQ(d.wait_exit(), r.status);
        EXPECT_EQ(d.stdout_text(), r.out);
        logs got;
        for (const log_line& l : d.log_lines())
            if (l.priority >= 0)
                got.push_back(l);  // getopt's own complaint is no log line
        EXPECT_EQ(got, r.log);
    }
}
}  // namespace
