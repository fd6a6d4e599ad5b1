// monitor::handle_request against configurations loaded from real files, with
// a connection whose request frame is filled by hand.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "log_capture.h"
#include "monitor.h"
#include "test_util.h"

namespace {

constexpr int E = 6, I = 4;  // log priorities: error, info

struct request_case {
    const char* name;
    uint32_t command, sub_command;
    std::vector<uint8_t> payload;
    int result;
    std::string reply;  // expected first bytes of the reply payload
    std::vector<log_line> logs;
};

class handle_request_test : public ::testing::Test {
protected:
    temp_dir dir;
    std::string sub_file, main_file;
    monitor mon;

    void SetUp() override {
        for (const char* name :
             {"1000.txt", "0.txt", "4294967295.txt", "42-$pid.txt", "cost$5.txt"}) {
            dir.write(name, std::string("from ") + name);
        }
        dir.write("data.txt", "hello vireo\n");
        dir.write("empty.txt", "");
        dir.write("big.txt", big());
        // @ stands for the directory, LIB for the test plug-in.
        std::string sub = R"({"cmd-list": [
            {"name": "n", "id": "1", "type": "file", "file": "@/data.txt"},
            {"name": "n", "id": "2", "type": "file", "file": "@/big.txt"},
            {"name": "n", "id": "3", "type": "file", "file": "@/missing.txt"},
            {"name": "n", "id": "4", "type": "file", "file": "@/$pid.txt"},
            {"name": "n", "id": "5", "type": "file", "file": "@/$pid-$pid.txt"},
            {"name": "n", "id": "6", "type": "file", "file": "@/cost$5.txt"},
            {"name": "n", "id": "7", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"},
            {"name": "n", "id": "8", "type": "custom", "lib": "LIB", "symbols": "plugin_len"},
            {"name": "n", "id": "9", "type": "custom", "lib": "LIB", "symbols": "no_such_symbol"},
            {"name": "n", "id": "a", "type": "file", "file": "@/data.txt", "disable": true},
            {"name": "n", "id": "b", "type": "file", "file": "@/empty.txt"},
            {"name": "n", "id": "c", "type": "file", "file": "@/data.txt"}]})";
        sub_file =
            dir.write("sub.json", replace_all(replace_all(sub, "@", dir.path()), "LIB",
                                              test_plugin_dir() + "/libvireo_test_plugin.so"));
        main_file = dir.write("main.json", replace_all(R"({"mode": "m", "server_ip": "127.0.0.1",
            "port": 1, "sub-configs": [{"class": "a", "code": "0x10", "config": "SUB"},
            {"class": "b", "code": "0x11", "config": "SUB", "disable": true}]})",
                                                       "SUB", sub_file));
        log_capture quiet;  // the missing symbol is reported while loading
        ASSERT_TRUE(mon.parse_config(main_file));
        // No configuration yields an unknown type: forge one.
        mon.configs->mconfig->subs_map.at(0x10)->cmds.at(0xc)->type = static_cast<cmd_type_t>(7);
    }

    static std::string replace_all(std::string s, const std::string& from, const std::string& to) {
        for (size_t at; (at = s.find(from)) != std::string::npos;) s.replace(at, from.size(), to);
        return s;
    }

    static std::string big() {
        std::string s(10000, 'x');
        for (size_t i = 0; i < s.size(); i++) s[i] = static_cast<char>('0' + i % 10);
        return s;
    }

    // Runs one request on a fresh connection (buffers zero-filled, as after a
    // receive that cleared the payload).
    int run(comm_data& c, uint32_t command, uint32_t sub, const std::vector<uint8_t>& payload) {
        std::memset(c.recv_data, 0, 48 + 1024);
        c.recv_data->command = static_cast<int32_t>(command);
        c.recv_data->sub_command = static_cast<int32_t>(sub);
        c.recv_data->msg_len = static_cast<int32_t>(payload.size());
        if (!payload.empty())
            std::memcpy(c.recv_data->msg, payload.data(), payload.size());
        return mon.handle_request(&c);
    }
};

std::vector<uint8_t> le32(int32_t v) {
    return pid_payload(static_cast<uint32_t>(v));
}

std::string letters(int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += static_cast<char>('a' + i % 26);
    return s;
}

// Every result of the dispatch, its reply bytes and its exact log lines.
TEST_F(handle_request_test, results_table) {
    auto err = [](const std::string& text) {
        return std::vector<log_line>{{E, "VO_MONITOR", text}};
    };
    std::string no_file = "read_file no such file: " + dir.path() + "/missing.txt\n";
    // clang-format off
    std::vector<request_case> cases = {
        {"file", 0x10, 1, {}, 12, "hello vireo\n", {}},
        {"file over capacity", 0x10, 2, {}, 8191, big().substr(0, 8191) + '\0', {}},
        {"missing file", 0x10, 3, {}, -2, "", {{E, null_tag(), no_file}}},
        {"pid 1000", 0x10, 4, {0xE8, 0x03, 0, 0}, 13, "from 1000.txt", {}},
        {"pid absent", 0x10, 4, {}, 10, "from 0.txt", {}},
        {"pid unsigned", 0x10, 4, le32(-1), 19, "from 4294967295.txt", {}},
        {"first $pid only", 0x10, 5, le32(42), 16, "from 42-$pid.txt", {}},
        {"$ without pid", 0x10, 6, le32(1000), 15, "from cost$5.txt", {}},
        {"plug-in echo", 0x10, 7, {'p', 'i', 'n', 'g'}, 4, "ping", {}},
        {"plug-in 0", 0x10, 8, le32(0), 0, "", {}},
        {"plug-in 8192", 0x10, 8, le32(8192), 8192, letters(8192), {}},
        {"plug-in negative", 0x10, 8, le32(-7), -7, "", {}},
        {"plug-in answered itself", 0x10, 8, le32(9000), 9000, "", {}},
        {"no function", 0x10, 9, {}, -6, "", {}},
        {"disabled command", 0x10, 0xa, {}, 12, "hello vireo\n", {}},
        {"disabled group", 0x11, 1, {}, 12, "hello vireo\n", {}},
        {"empty file", 0x10, 0xb, {}, 0, "", {}},
        {"unknown type", 0x10, 0xc, {}, -22, "", err("Not support cmd type:7\n")},
        {"unknown command", 0x12, 1, {}, -22, "", err("No command 0x12 in " + main_file + "\n")},
        {"unknown sub", 0x10, 0x99, {}, -22, "", err("No sub-command 0x99 in " + sub_file + "\n")},
        {"unknown internal", 0xEAEA, 3, {}, -22, "", err("Not support 3 internal cmd")},
        {"top", 0xFFFFFFFF, 1, {}, -22, "", err("No command 0xffffffff in " + main_file + "\n")},
    };
    // clang-format on
    size_t groups = mon.configs->mconfig->subs_map.size();
    size_t cmds = mon.configs->mconfig->subs_map.at(0x10)->cmds.size();
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        comm_data c(nullptr);
        log_capture logs;
        EXPECT_EQ(run(c, tc.command, tc.sub_command, tc.payload), tc.result);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(c.send_data->msg), tc.reply.size()),
                  tc.reply);
        EXPECT_EQ(logs.lines(), tc.logs);
    }
    // Failed look-ups never add entries.
    EXPECT_EQ(mon.configs->mconfig->subs_map.size(), groups);
    EXPECT_EQ(mon.configs->mconfig->subs_map.at(0x10)->cmds.size(), cmds);
}

// Ids 1..254 lowest free first, then 0; a returned id comes back; returning
// 0 or 255 changes nothing.
TEST_F(handle_request_test, client_id_pool) {
    comm_data c(nullptr);
    log_capture logs;
    std::vector<log_line> expect;
    for (int i = 1; i <= 255; i++) {
        int id = i == 255 ? 0 : i;
        ASSERT_EQ(run(c, 0xEAEA, 1, {}), 1) << i;
        ASSERT_EQ(c.send_data->msg[0], id) << i;
        expect.push_back({I, "VO_MONITOR", "send get_client_id " + std::to_string(id) + "\n"});
    }
    EXPECT_EQ(logs.lines(), expect);
    for (uint8_t id : {3, 200, 5}) EXPECT_EQ(run(c, 0xEAEA, 2, {id}), 0);
    for (int id : {3, 5, 200, 0}) {
        run(c, 0xEAEA, 1, {});
        EXPECT_EQ(c.send_data->msg[0], id);
    }
    for (uint8_t id : {0, 255}) {
        EXPECT_EQ(run(c, 0xEAEA, 2, {id}), 0);
        EXPECT_FALSE(mon.id_map[0].load());
        for (int i = 1; i < 255; i++) ASSERT_TRUE(mon.id_map[i].load()) << i;
    }
    mon.back_client_id(-1);
    mon.back_client_id(1000);
    for (int i = 1; i < 255; i++) ASSERT_TRUE(mon.id_map[i].load()) << i;
}

// The configuration `make run` serves loads cleanly from the repository root
// and reaches this machine's files.
TEST(demo_config, loads_and_serves) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(VIREO_SOURCE_DIR), 0);
    monitor mon;
    log_capture logs;
    bool ok = mon.parse_config("config/demo/main.json");
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_TRUE(ok);
    // Only a probe plug-in that this build left out may be reported.
    for (const auto& l : logs.lines()) EXPECT_NE(l.text.find("libvireo_probe.so symbol: "), std::string::npos) << l;
    const auto& subs = mon.configs->mconfig->subs_map;
    EXPECT_EQ(mon.configs->mconfig->port, 6600);
    EXPECT_EQ(mon.configs->mconfig->ip, "127.0.0.1");
    ASSERT_EQ(subs.size(), 3u);
    EXPECT_EQ(subs.at(0x30)->cmds.size(), 3u);
    EXPECT_EQ(subs.at(0x10)->cmds.size(), 5u);
    EXPECT_EQ(subs.at(0x20)->cmds.size(), 4u);
    for (auto& kv : subs.at(0x20)->cmds) EXPECT_EQ(kv.second->type, DYN_FILE_TYPE) << kv.first;
    comm_data c(nullptr);
    c.recv_data->command = 0x10;
    c.recv_data->sub_command = 5;
    EXPECT_GT(mon.handle_request(&c), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(c.send_data->msg), 6), "Linux ");
    c.recv_data->command = 0x20;
    c.recv_data->sub_command = 1;
    std::memcpy(c.recv_data->msg, pid_payload(getpid()).data(), 4);
    ASSERT_GT(mon.handle_request(&c), 0);
    std::string status(reinterpret_cast<char*>(c.send_data->msg));
    EXPECT_NE(status.find("\nPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos);
}

}  // namespace
