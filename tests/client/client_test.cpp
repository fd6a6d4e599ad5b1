// The real vireo-client binary against the real daemon and against a fake
// server that answers with hand-made frames.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>

#include "common_func.h"
#include "test_util.h"

namespace {

struct run_result { int status; std::string out, err; };

// Runs vireo-client with args; killed by PID if it outlives 20 s.
run_result run_client(const std::vector<std::string>& args, const std::string& cwd = ".") {
    temp_dir io;
    std::string out = io.path() + "/out", err = io.path() + "/err";
    // Built before fork: the child of a threaded process must not allocate.
    std::vector<char*> argv{const_cast<char*>(VIREO_CLIENT_BIN)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t child = fork();
    if (child == 0) {
        int o = open(out.c_str(), O_WRONLY | O_CREAT, 0600), e = open(err.c_str(), O_WRONLY | O_CREAT, 0600);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 || chdir(cwd.c_str()) != 0) _exit(127);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int st = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (waitpid(child, &st, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline && kill(child, SIGKILL) == 0) {
            waitpid(child, &st, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, read_text_file(out), read_text_file(err)};
}

// Runs the client and checks its exit status, exact stdout and a piece of stderr.
void expect_run(const std::vector<std::string>& args, int status, const std::string& out,
                const std::string& err_has, const std::string& label) {
    run_result got = run_client(args);
    EXPECT_EQ(got.status, status) << label << "\n" << got.err;
    EXPECT_EQ(got.out, out) << label;
    EXPECT_NE(got.err.find(err_has), std::string::npos) << label << "\n" << got.err;
}

// The daemon on a free port with one group, code 0x10, of every kind of
// command, started once for the tests of this file.
struct demo_daemon {
    temp_dir dir;
    int port = free_port();
    std::string ep = "tcp://127.0.0.1:" + std::to_string(port), d = dir.path(), main_json;
    std::unique_ptr<daemon_process> proc;
    bool ready = false;

    demo_daemon() {
        dir.write("data.txt", "hello vireo\n");
        dir.write("4242.txt", "pid 4242\n");
        dir.write("bin.dat", std::string("\xff\xfe\x00\x01", 4));
        std::string sub = dir.write("sub.json", R"({"cmd-list": [
            {"name": "data", "id": "1", "type": "file", "file": ")" + d + R"(/data.txt"},
            {"name": "missing", "id": "2", "type": "file", "file": ")" + d + R"(/none.txt"},
            {"name": "bypid", "id": "0x3", "type": "file", "file": ")" + d + R"(/$pid.txt"},
            {"name": "nofn", "id": "4", "type": "custom", "lib": ")" + test_plugin_dir() + R"(/absent.so", "symbols": "f"},
            {"name": "bin", "id": "A", "type": "file", "file": ")" + d + R"(/bin.dat"},
            {"name": "again", "id": "1", "type": "file", "file": "/dev/null"},
            {"name": "odd", "id": "6", "type": "File", "file": "/dev/null"}]})");
        main_json = dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" +
                                               std::to_string(port) + R"(, "sub-configs": [
            {"class": "demo", "code": "10", "config": ")" + sub + R"("}]})");
        proc = std::make_unique<daemon_process>(std::vector<std::string>{"-c", main_json});
        ready = proc->wait_ready(ep);
    }
};

demo_daemon& demo() {
    static demo_daemon shared;
    return shared;
}

// Requests by number and by name, pid payloads, client ids, --watch bounded
// by --count, and the exit status of every kind of failure; rows run in
// order (ids are handed out 1, 2).
TEST(client_e2e, requests_and_exit_statuses) {
    demo_daemon& dm = demo();
    ASSERT_TRUE(dm.ready) << dm.proc->stderr_text();
    const std::string &ep = dm.ep, &main_json = dm.main_json;
    const std::string silent = "tcp://127.0.0.1:" + std::to_string(free_port());
    struct row {
        std::vector<std::string> args;
        int status;
        std::string out, err_has;
    } rows[] = {
        {{"-e", ep, "0x10", "1"}, 0, "hello vireo\n", ""},
        {{"-c", main_json, "demo.data"}, 0, "hello vireo\n", ""},
        {{"-c", main_json, "demo.bypid", "--pid", "4242"}, 0, "pid 4242\n", ""},
        {{"-e", ep, "10", "3", "--hex", "92100000"}, 0, "pid 4242\n", ""},
        {{"-e", ep, "take-id"}, 0, "1\n", ""},
        {{"-e", ep, "take-id"}, 0, "2\n", ""},
        {{"-e", ep, "return-id", "1"}, 0, "", ""},
        {{"-c", main_json, "--watch", "0.05", "--count", "3", "demo.data"}, 0, "hello vireo\nhello vireo\nhello vireo\n", ""},
        {{"-e", ep, "take-id"}, 0, "1\n", ""},
        {{"-e", ep, "0x12", "1"}, 1, "", "0x12 1: unknown command or sub-command (-22)"},
        {{"-c", main_json, "demo.missing"}, 1, "", "file could not be opened (-2)"},
        {{"-c", main_json, "demo.nofn"}, 1, "", "custom command without function (-6)"},
        {{"-t", "300", "-e", silent, "10", "1"}, 2, "", "no reply from " + silent + " within 300 ms"},
        {{"-e", ep}, 64, "", "no request given\nusage: vireo-client"},
        {{"-e", ep, "0x10", "1zz"}, 64, "", "CODE and SUB are hexadecimal"},
        {{"-c", main_json, "demo.odd"}, 64, "", "no command named demo.odd"},
        {{"-e", ep, "10", "3", "--pid", "1", "--byte", "2"}, 64, "", "exclude each other"},
        {{"-c", dm.d + "/absent.json", "demo.data"}, 78, "", "cannot open"},
    };
    for (const row& r : rows) {
        expect_run(r.args, r.status, r.out, r.err_has, r.args.back());
    }
    run_result help = run_client({"-h"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: vireo-client", 0), 0u) << help.out;
}

// --json: one object a script can parse; text payloads as text, binary ones
// as base64, a cut header's missing fields as null.
TEST(client_e2e, json_output_parses_back) {
    demo_daemon& dm = demo();
    ASSERT_TRUE(dm.ready) << dm.proc->stderr_text();
    struct row {
        std::vector<std::string> req;
        int status, msg_len;
        std::string encoding, payload, status_text;
        bool has_time;
    } rows[] = {
        {{"demo.data"}, 0, 12, "text", "hello vireo\n", "ok", true},
        {{"demo.bin"}, 0, 4, "base64", "//4AAQ==", "ok", true},
        {{"demo.missing"}, 1, -2, "text", "", "file could not be opened", true},
        {{"10", "6"}, 1, -22, "text", "", "unknown command or sub-command", false},
    };
    for (const row& r : rows) {
        std::vector<std::string> args{"-c", dm.main_json, "--json"};
        args.insert(args.end(), r.req.begin(), r.req.end());
        run_result got = run_client(args);
        const std::string& name = r.req[0];
        EXPECT_EQ(got.status, r.status) << name << got.err;
        Json::Value v;
        std::istringstream in(got.out);
        ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr)) << name << ": " << got.out;
        EXPECT_EQ(v["header"]["command"].asInt(), 0x10) << name;
        EXPECT_EQ(v["header"]["msg_len"].asInt(), r.msg_len) << name;
        EXPECT_EQ(v["header"]["time_sec"].isNull(), !r.has_time) << name;
        EXPECT_EQ(v["payload_encoding"].asString(), r.encoding) << name;
        EXPECT_EQ(v["payload"].asString(), r.payload) << name;
        EXPECT_EQ(v["status"].asString(), r.status_text) << name;
    }
}

// --list names every command once, first id wins, unknown types are left
// out, and ids are normalised to hex; the sample configuration lists too.
TEST(client_e2e, list_prints_every_command) {
    demo_daemon& dm = demo();
    ASSERT_TRUE(dm.ready) << dm.proc->stderr_text();
    run_result got = run_client({"-c", dm.main_json, "--list"});
    ASSERT_EQ(got.status, 0) << got.err;
    const std::string& d = dm.d;
    std::string expected = "NAME                     CODE       ID         KIND      TARGET\n"
        "demo.data                0x10       0x1        file      " + d + "/data.txt\n"
        "demo.missing             0x10       0x2        file      " + d + "/none.txt\n"
        "demo.bypid               0x10       0x3        $pid file " + d + "/$pid.txt\n"
        "demo.nofn                0x10       0x4        custom    " + test_plugin_dir() + "/absent.so:f\n"
        "demo.bin                 0x10       0xa        file      " + d + "/bin.dat\n";
    EXPECT_EQ(got.out, expected);
    run_result sample = run_client({"-c", "config/sample/main.json", "--list"}, VIREO_SOURCE_DIR);
    EXPECT_EQ(sample.status, 0) << sample.err;
    EXPECT_NE(sample.out.find("system.meminfo           0x10       0x1        file      /proc/meminfo\n"),
              std::string::npos) << sample.out;
    EXPECT_NE(sample.out.find(" custom "), std::string::npos) << sample.out;
}

// One reply part as a fake server sends it: msg_len, total size, packet
// numbers, and an offset on the command the reply claims to answer.
struct fake_part { int32_t msg_len; size_t size; uint16_t sum, cur; int32_t cmd_delta; };

std::vector<uint8_t> make_part(const std::vector<uint8_t>& req, const fake_part& p) {
    std::vector<uint8_t> f(std::max<size_t>(p.size, 48), 'x');
    u32_to_u8(u8_to_u32(req.data()) + p.cmd_delta, f.data());
    memcpy(f.data() + 4, req.data() + 4, 4);
    memcpy(f.data() + 8, &p.msg_len, 4);
    memcpy(f.data() + 14, &p.sum, 2);
    memcpy(f.data() + 16, &p.cur, 2);
    f.resize(p.size);
    return f;
}

// Reply validation: short, cut and inconsistent frames exit 3 saying what
// was wrong; frames the daemon legitimately sends are accepted.
TEST(client_fake_server, validates_hand_made_replies) {
    struct row {
        std::vector<fake_part> parts;
        int status;
        std::string out, err_has;
    } rows[] = {
        {{{5, 53, 0, 0, 0}}, 0, "xxxxx", ""},
        {{{5, 52, 0, 0, 0}}, 3, "", "reply of 52 bytes is shorter than the 53 bytes that a msg_len of 5 takes"},
        {{{-22, 26, 0, 0, 0}}, 1, "", "(-22)"},
        {{{-22, 25, 0, 0, 0}}, 3, "", "shorter than the 26 bytes that a status of -22 takes"},
        {{{-100, 12, 0, 0, 0}}, 1, "", "error -100 (-100)"},
        {{{0, 11, 0, 0, 0}}, 3, "", "reply of 11 bytes is shorter than the 12-byte header prefix"},
        {{{0, 48, 0, 0, 1}}, 3, "", "answers command 0x11 sub-command 0x2, not the request's 0x10 0x2"},
        {{{8200, 8240, 2, 1, 0}, {8200, 8240, 2, 2, 0}}, 0, std::string(8200, 'x'), ""},
        {{{8200, 8240, 2, 1, 0}, {8200, 8240, 2, 1, 0}}, 3, "", "packet 2 of 2 says msg_len 8200, packet 1 of 2"},
        {{{100, 8240, 2, 1, 0}, {100, 8240, 2, 2, 0}}, 3, "", "msg_len 100 does not fit a reply of 2 packets"},
    };
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    int timeout = 5000, linger = 0;
    zmq_setsockopt(rep, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    zmq_setsockopt(rep, ZMQ_LINGER, &linger, sizeof linger);
    ASSERT_EQ(zmq_bind(rep, "tcp://127.0.0.1:*"), 0);
    char ep[256];
    size_t ep_len = sizeof ep;
    zmq_getsockopt(rep, ZMQ_LAST_ENDPOINT, ep, &ep_len);
    std::thread server([&] {
        for (const row& r : rows) {
            std::vector<uint8_t> req(2048);
            int n = zmq_recv(rep, req.data(), req.size(), 0);
            if (n < 8) return;  // receive timeout: the client never asked
            for (size_t i = 0; i < r.parts.size(); i++) {
                std::vector<uint8_t> part = make_part(req, r.parts[i]);
                zmq_send(rep, part.data(), part.size(), i + 1 < r.parts.size() ? ZMQ_SNDMORE : 0);
            }
        }
    });
    for (size_t i = 0; i < std::size(rows); i++) {
        expect_run({"-e", ep, "10", "2"}, rows[i].status, rows[i].out, rows[i].err_has, "row " + std::to_string(i));
    }
    server.join();
    zmq_close(rep);
    zmq_ctx_term(ctx);
}

}  // namespace
