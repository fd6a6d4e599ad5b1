// The probe plug-in served by the real daemon, against a helper process
// whose function and thread names are known.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "server_comm.h"
#include "test_util.h"

namespace {

enum { THREADS = 1, STACK = 2, KSTACK = 3 };

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

std::vector<uint8_t> args_payload(uint32_t pid, uint32_t tid) {
    auto p = pid_payload(pid), t = pid_payload(tid);
    p.insert(p.end(), t.begin(), t.end());
    return p;
}

// The helper with a pipe on each of stdin and stdout; killed by PID.
class helper_process {
public:
    helper_process() {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) return;
        pid = fork();
        if (pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            execl(VIREO_PROBE_HELPER, VIREO_PROBE_HELPER, nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to = in[1];
        from = out[0];
    }
    ~helper_process() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        close(to);
        close(from);
    }
    // One line from stdout, or "" after timeout_ms.
    std::string read_line(int timeout_ms = 5000) {
        std::string l;
        char ch;
        pollfd p{from, POLLIN, 0};
        while (poll(&p, 1, timeout_ms) == 1 && read(from, &ch, 1) == 1 && ch != '\n') l += ch;
        return l;
    }
    // Waits (bounded) until every thread sleeps: the main one in its read.
    bool wait_blocked() {
        for (int i = 0; i < 500; i++) {
            std::string all;
            for (const auto& t : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
                std::string s = read_text_file(t.path().string() + "/stat");
                all += s.substr(s.rfind(')') + 2, 1);
            }
            if (all == "SSSS") return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    pid_t pid = -1;
    int to = -1, from = -1;
};

class probe_test : public ::testing::Test {
protected:
    void SetUp() override {
        std::string sub = dir.write("probe.json", R"({"cmd-list": [
            {"name": "threads", "id": "1", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_threads"},
            {"name": "stack", "id": "2", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_stack"},
            {"name": "kstack", "id": "3", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_kstack"}]})");
        int port = free_port();
        std::string main_json = dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" +
            std::to_string(port) + R"(, "sub-configs": [{"class": "probe", "code": "0x30", "config": ")" + sub + R"("}]})");
        ep = "tcp://127.0.0.1:" + std::to_string(port);
        daemon = std::make_unique<daemon_process>(std::vector<std::string>{"-c", main_json});
        ASSERT_TRUE(daemon->wait_ready(ep)) << daemon->stderr_text();
        ASSERT_EQ(helper.read_line(), "ready");
        ASSERT_TRUE(helper.wait_blocked());
    }
    reply_view ask(int sub, const std::vector<uint8_t>& payload, int32_t msg_len = -1) {
        zmq_client c(ep, 10000);
        std::vector<uint8_t> reply;
        if (msg_len < 0) msg_len = static_cast<int32_t>(payload.size());
        EXPECT_TRUE(c.request(make_request_len(0x30, sub, payload, msg_len), reply));
        return parse_reply(reply);
    }
    temp_dir dir;
    std::string ep;
    std::unique_ptr<daemon_process> daemon;
    helper_process helper;
};

#define SKIP_WITHOUT_PTRACE(r) \
    if ((r).msg_len == -1) GTEST_SKIP() << "ptrace refused here (sandbox or emulator): no stack to check"

// Bad payloads give -22, a missing process or thread -3, on every command.
TEST_F(probe_test, refuses_bad_requests_with_their_codes) {
    pid_t worker = 0;
    for (const auto& l : lines_of(ask(THREADS, pid_payload(helper.pid)).payload))
        if (l.find("vh-worker-0") != std::string::npos) worker = std::stoi(l);
    ASSERT_GT(worker, 0);
    struct { const char* name; std::vector<uint8_t> payload; int32_t msg_len; int32_t code; } cases[] = {
        {"empty payload", {}, -1, -22},
        {"two bytes", {1, 0}, -1, -22},
        {"pid 0", args_payload(0, 0), -1, -22},
        {"msg_len above 1024", pid_payload(helper.pid), 2000, -22},
        {"no such pid", pid_payload(0x7ffffff0), -1, -3},
        {"a thread id is no pid", pid_payload(worker), -1, -3},
        {"tid of another process", args_payload(helper.pid, getpid()), -1, -3},
    };
    for (int sub : {THREADS, STACK, KSTACK})
        for (const auto& c : cases)
            EXPECT_EQ(ask(sub, c.payload, c.msg_len).msg_len, c.code) << "command " << sub << ": " << c.name;
    EXPECT_TRUE(daemon->wait_stderr("Handle request error with -3"));
}

// The listing has one tab-separated line per thread, the main thread first.
TEST_F(probe_test, lists_every_thread_with_name_state_and_times) {
    auto lines = lines_of(ask(THREADS, pid_payload(helper.pid)).payload);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].substr(0, lines[0].find('\t')), std::to_string(helper.pid));
    for (size_t i = 0; i < lines.size(); i++) {
        std::vector<std::string> f;
        std::istringstream in(lines[i]);
        for (std::string x; std::getline(in, x, '\t');) f.push_back(x);
        ASSERT_EQ(f.size(), 5u) << lines[i];
        EXPECT_EQ(f[2], "S") << lines[i];
        EXPECT_NE(f[3].find('.'), std::string::npos) << lines[i];
        if (i > 0) {
            EXPECT_EQ(f[1], "vh-worker-" + std::to_string(i - 1)) << lines[i];
        }
    }
    auto one = lines_of(ask(THREADS, args_payload(helper.pid, helper.pid)).payload);
    EXPECT_EQ(one.size(), 1u);
    int32_t k = ask(KSTACK, pid_payload(helper.pid)).msg_len;
    EXPECT_TRUE(k >= 0 || k == -1) << k;  // readable or refused, never another code
}

// A reply that does not fit is cut after a whole line, ending "... truncated".
TEST_F(probe_test, cuts_a_long_reply_at_a_line_boundary) {
    void* lib = dlopen(VIREO_PROBE_PLUGIN, RTLD_LAZY);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto fn = reinterpret_cast<int (*)(comm_data*)>(dlsym(lib, "probe_threads"));
    comm_data c(nullptr);
    c.recv_data->msg_len = 4;
    u32_to_u8(static_cast<uint32_t>(helper.pid), c.recv_data->msg);
    int full = fn(&c);
    auto whole = lines_of(std::string(reinterpret_cast<char*>(c.send_data->msg), full));
    for (int cap : {13, 14, full - 1, full}) {
        c.max_send_len = cap;
        int n = fn(&c);
        ASSERT_LE(n, cap) << "cap " << cap;
        auto got = lines_of(std::string(reinterpret_cast<char*>(c.send_data->msg), n));
        bool cut = cap < full;
        EXPECT_EQ(n == 0 || c.send_data->msg[n - 1] == '\n', true) << "cap " << cap;
        EXPECT_EQ(!got.empty() && got.back() == "... truncated", cut && cap >= 14) << "cap " << cap;
        for (size_t i = 0; i + (cut ? 1 : 0) < got.size(); i++)
            EXPECT_EQ(got[i].substr(0, got[i].find('\t')), whole[i].substr(0, whole[i].find('\t'))) << "cap " << cap;
    }
    dlclose(lib);
}

// The main thread's stack shows the helper's calls innermost first.
TEST_F(probe_test, walks_the_main_thread_in_call_order) {
    reply_view r = ask(STACK, args_payload(helper.pid, helper.pid));
    SKIP_WITHOUT_PTRACE(r);
    ASSERT_GT(r.msg_len, 0);
    EXPECT_EQ(r.payload.rfind("Thread " + std::to_string(helper.pid) + " (", 0), 0u) << r.payload;
    size_t at = 0;
    for (const char* fn : {"vireo_helper_inner+0x", "vireo_helper_middle+0x", "vireo_helper_outer+0x", " main+0x"}) {
        size_t next = r.payload.find(fn, at);
        ASSERT_NE(next, std::string::npos) << fn << " after offset " << at << " in\n" << r.payload;
        at = next;
    }
    EXPECT_NE(r.payload.find("probe_helper"), std::string::npos) << "module name missing\n" << r.payload;
}

// Every thread is walked; many walks from two clients at once leave the
// helper untraced and running: its blocked read still completes.
TEST_F(probe_test, many_walks_leave_the_process_running) {
    reply_view all = ask(STACK, args_payload(helper.pid, 0));
    SKIP_WITHOUT_PTRACE(all);
    size_t workers = 0, threads = 0;
    for (const auto& l : lines_of(all.payload)) {
        threads += l.rfind("Thread ", 0) == 0;
        workers += l.find("vireo_helper_worker+0x") != std::string::npos;
    }
    EXPECT_EQ(threads, 4u) << all.payload;
    EXPECT_EQ(workers, 3u) << all.payload;
    std::vector<std::string> bad[2];
    auto walk = [&](int k) {
        for (int i = 0; i < 10; i++) {
            reply_view r = ask(STACK, pid_payload(helper.pid));
            if (r.payload.find("vireo_helper_inner") == std::string::npos)
                bad[k].push_back(std::to_string(r.msg_len) + ": " + r.payload);
        }
    };
    std::thread a(walk, 0), b(walk, 1);
    a.join();
    b.join();
    EXPECT_TRUE(bad[0].empty() && bad[1].empty()) << (bad[0].empty() ? bad[1] : bad[0]).front();
    std::string status = read_text_file("/proc/" + std::to_string(helper.pid) + "/status");
    EXPECT_NE(status.find("TracerPid:\t0\n"), std::string::npos) << status;
    ASSERT_EQ(write(helper.to, "x", 1), 1);
    EXPECT_EQ(helper.read_line(), "alive");
}

}  // namespace
