// The probe plug-in served by the real daemon, against a helper process
// whose function and thread names are known.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "server_comm.h"
#include "test_util.h"

namespace {
using std::string;
enum { THREADS = 1, STACK = 2, KSTACK = 3 };

std::vector<uint8_t> args(uint32_t pid, uint32_t tid) {
    auto p = pid_payload(pid), t = pid_payload(tid);
    p.insert(p.end(), t.begin(), t.end());
    return p;
}

// The helper, its stdin and stdout one socket of ours; killed by PID.
struct helper_process {
    pid_t pid = -1;
    int fd = -1;
    helper_process() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
        if ((pid = fork()) == 0) {
            dup2(sv[1], 0);
            dup2(sv[1], 1);
            execl(VIREO_PROBE_HELPER, VIREO_PROBE_HELPER, nullptr);
            _exit(127);
        }
        close(sv[1]);
        fd = sv[0];
    }
    ~helper_process() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        close(fd);
    }
    // One line from the helper, or what came of it within 5 s.
    string read_line() {
        string l;
        char ch;
        for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 5000) == 1 && read(fd, &ch, 1) == 1 && ch != '\n';) l += ch;
        return l;
    }
};

// The daemon with the three probe commands as group 0x30, against the helper.
// The listing: one tab-separated line per thread (tid, name, state, user and
// system time), the main thread first, then the workers by name; one line for
// one tid. Bad payloads give -22, a missing process or thread -3, on every
// command. A reply that does not fit is cut after a whole line, ending with
// "... truncated" when that fits. The main thread's stack shows the helper's
// calls innermost first, with the module; every thread is walked; many walks
// from two clients at once leave the helper untraced and running: its blocked
// read still completes.
TEST(probe, threads_errors_truncation_and_stacks) {
    temp_dir dir;
    helper_process helper;
    int port = free_port();
    string ep = "tcp://127.0.0.1:" + std::to_string(port), sub = dir.write("probe.json", R"({"cmd-list": [
        {"name": "threads", "id": "1", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_threads"},
        {"name": "stack", "id": "2", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_stack"},
        {"name": "kstack", "id": "3", "type": "custom", "lib": ")" VIREO_PROBE_PLUGIN R"(", "symbols": "probe_kstack"}]})");
    daemon_process daemon({"-c", dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
                                                            R"(, "sub-configs": [{"class": "probe", "code": "0x30", "config": ")" + sub + R"("}]})")});
    ASSERT_TRUE(daemon.wait_ready(ep)) << daemon.stderr_text();
    ASSERT_EQ(helper.read_line(), "ready");
    auto ask = [&](int sub, const std::vector<uint8_t>& payload) {
        zmq_client c(ep, 10000);
        std::vector<uint8_t> reply;
        EXPECT_TRUE(c.request(make_request(0x30, sub, payload), reply));
        return parse_reply(reply);
    };
    // Tid (the pid for the main thread), name and state of each line; "x.yy" marks both times well formed.
    auto summary = [&](const string& text) {
        string out;
        std::istringstream in(text);
        for (string tid, name, state, user, sys; getline(in, tid, '\t') && getline(in, name, '\t') && getline(in, state, '\t') && getline(in, user, '\t') && getline(in, sys);)
            out += (out.empty() ? tid : "tid") + " " + name + " " + state + (user.find('.') + 3 == user.size() && sys.find('.') + 3 == sys.size() ? " x.yy\n" : " " + user + " " + sys + "\n");
        return out;
    };
    string listing, want = std::to_string(helper.pid) + " vireo_probe_hel S x.yy\n";
    for (int i = 0; i < 3; i++) want += "tid vh-worker-" + std::to_string(i) + " S x.yy\n";
    // Polled until every thread sleeps, the workers in pause().
    for (int i = 0; i < 200 && summary(listing = ask(THREADS, pid_payload(helper.pid)).payload) != want; i++) usleep(20000);
    ASSERT_EQ(summary(listing), want) << listing;
    EXPECT_EQ(ask(THREADS, args(helper.pid, helper.pid)).payload, listing.substr(0, listing.find('\n') + 1));
    int32_t k = ask(KSTACK, pid_payload(helper.pid)).msg_len;
    EXPECT_TRUE(k >= 0 || k == -1) << k;  // readable or refused, never another code
    uint32_t worker = std::stoi(listing.substr(listing.find('\n') + 1));
    struct { const char* name; std::vector<uint8_t> payload; int32_t code; } cases[] = {
        {"two bytes", {1, 0}, -22}, {"pid 0", args(0, 0), -22}, {"no such pid", pid_payload(0x7ffffff0), -3},
        {"a thread id is no pid", pid_payload(worker), -3}, {"tid of another process", args(helper.pid, getpid()), -3}};
    for (int sub : {THREADS, STACK, KSTACK})
        for (const auto& c : cases) EXPECT_EQ(ask(sub, c.payload).msg_len, c.code) << "command " << sub << ": " << c.name;
    void* lib = dlopen(VIREO_PROBE_PLUGIN, RTLD_LAZY);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto fn = reinterpret_cast<int (*)(comm_data*)>(dlsym(lib, "probe_threads"));
    comm_data c(nullptr);
    c.recv_data->msg_len = 4;
    u32_to_u8(helper.pid, c.recv_data->msg);
    int full = static_cast<int>(listing.size());
    for (int cap : {13, 14, full - 1, full}) {  // the most whole lines that leave room for the mark
        c.max_send_len = cap;
        string want = cap >= full ? listing : (cap < 15 ? "" : listing.substr(0, listing.rfind('\n', cap - 15) + 1)) + (cap < 14 ? "" : "... truncated\n");
        EXPECT_EQ(string(reinterpret_cast<char*>(c.send_data->msg), std::max(fn(&c), 0)), want) << "cap " << cap;
    }
    dlclose(lib);

    reply_view r = ask(STACK, args(helper.pid, helper.pid));
    if (r.msg_len == -1) GTEST_SKIP() << "ptrace refused here (sandbox or emulator): no stack to check";
    EXPECT_EQ(r.payload.rfind("Thread " + std::to_string(helper.pid) + " (", 0), 0u) << r.payload;
    size_t at = 0;
    for (const char* fn : {"vireo_helper_inner+0x", "vireo_helper_middle+0x", "vireo_helper_outer+0x", " main+0x", "probe_helper"})
        ASSERT_NE(at = r.payload.find(fn, at), string::npos) << fn << " in order in\n" << r.payload;
    string every = ask(STACK, args(helper.pid, 0)).payload;
    auto count = [&](const string& w) {
        size_t n = 0;
        for (size_t i = every.find(w); i != string::npos; i = every.find(w, i + 1)) n++;
        return n;
    };
    EXPECT_TRUE(count("Thread ") == 4 && count(" in vireo_helper_worker+0x") == 3) << every;
    string bad[2];
    auto walk = [&](int k) {
        for (int i = 0; i < 10; i++)
            if (string p = ask(STACK, pid_payload(helper.pid)).payload; p.find("vireo_helper_inner") == string::npos) bad[k] = p;
    };
    std::thread a(walk, 0), b(walk, 1);
    a.join();
    b.join();
    EXPECT_EQ(bad[0] + bad[1], "");
    string status = read_text_file("/proc/" + std::to_string(helper.pid) + "/status");
    EXPECT_NE(status.find("TracerPid:\t0\n"), string::npos) << status;
    ASSERT_EQ(write(helper.fd, "x", 1), 1);
    EXPECT_EQ(helper.read_line(), "alive");
}

}  // namespace
