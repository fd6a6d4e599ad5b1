// The probe plug-in served by the real daemon, against helper processes
// whose function and thread names are known. Replies are read with the
// client library, which reassembles multi-packet replies.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "test_util.h"
#include "vireo_client.h"

namespace {
using std::string;
enum { THREADS = 1, STACK = 2, KSTACK = 3, SAMPLE = 4 };
const char no_ptrace[] = "ptrace refused here (sandbox or emulator)";

std::vector<uint8_t> args(uint32_t pid, uint32_t tid) { auto p = pid_payload(pid), t = pid_payload(tid); p.insert(p.end(), t.begin(), t.end()); return p; }
size_t count(const string& text, const string& what) { size_t n = 0; for (size_t i = text.find(what); i != string::npos; i = text.find(what, i + 1)) n++; return n; }
bool traced(pid_t pid) { string status = read_text_file("/proc/" + std::to_string(pid) + "/status"); return !status.empty() && status.find("TracerPid:\t0\n") == string::npos; }

// A helper in a process group of its own, stdin and stdout one socket of ours;
// the group is killed by id at the end.
struct helper_process {
    pid_t pid = -1;
    int fd = -1;
    explicit helper_process(std::vector<string> argv = {}) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
        argv.insert(argv.begin(), VIREO_PROBE_HELPER);
        std::vector<char*> cargv;
        for (string& a : argv) cargv.push_back(&a[0]);
        cargv.push_back(nullptr);
        if ((pid = fork()) == 0) {
            setpgid(0, 0);
            dup2(sv[1], 0);
            dup2(sv[1], 1);
            execv(VIREO_PROBE_HELPER, cargv.data());
            _exit(127);
        }
        setpgid(pid, pid);
        end_with_test(pid);
        close(sv[1]);
        fd = sv[0];
    }
    ~helper_process() { if (pid > 0 && kill(-pid, SIGKILL) == 0) reaped(5000); close(fd); }
    // True once our wait for the helper succeeded, polled for at most ms.
    bool reaped(int ms) { for (int i = 0; i < ms && pid > 0; i++) waitpid(pid, nullptr, WNOHANG) == pid ? pid = -1 : usleep(1000); return pid < 0; }
    string read_line() { string l; char ch; for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 10000) == 1 && read(fd, &ch, 1) == 1 && ch != '\n';) l += ch; return l; }
};

// The daemon serving the four probe commands as group 0x30 from a link to the
// plug-in in a folder of its own, beside a probe.conf with these settings.
struct probe_daemon {
    temp_dir dir;
    int port = free_port();
    string ep = "tcp://127.0.0.1:" + std::to_string(port), cmds;
    std::unique_ptr<daemon_process> daemon;
    explicit probe_daemon(const string& conf) {
        string lib = dir.path() + "/libvireo_probe.so";
        EXPECT_EQ(symlink(VIREO_PROBE_PLUGIN, lib.c_str()), 0);
        dir.write("probe.conf", conf);
        for (const char* fn : {"probe_threads", "probe_stack", "probe_kstack", "probe_sample"})
            cmds += string(cmds.empty() ? "" : ",") + R"({"name": ")" + fn + R"(", "id": ")" + std::to_string(count(cmds, "{") + 1) + R"(", "type": "custom", "lib": ")" + lib + R"(", "symbols": ")" + fn + R"("})";
        string sub = dir.write("probe.json", R"({"cmd-list": [)" + cmds + "]}");
        daemon.reset(new daemon_process({"-c", dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [{"class": "probe", "code": "0x30", "config": ")" + sub + R"("}]})")}));
        EXPECT_TRUE(daemon->wait_ready(ep)) << daemon->stderr_text();
    }
    client_reply ask(int sub, const std::vector<uint8_t>& payload, int timeout_ms = 60000) {
        client_conn conn(ep, timeout_ms);
        client_reply r;
        string why;
        EXPECT_EQ(conn.request(0x30, sub, payload, r, why), 0) << why;
        return r;
    }
    int32_t code(int sub, const std::vector<uint8_t>& payload, int timeout_ms = 60000) { return ask(sub, payload, timeout_ms).header().msg_len; }
};

// Listing: one tab-separated line per thread (tid, name, state, user and
// system time), the main thread first. Bad payloads give -22, a missing
// process or thread -3, on every command. The main thread's stack shows the
// helper's calls innermost first; every thread is walked; many walks and
// samples from two clients at once leave the helper untraced and running: its
// blocked read still completes.
TEST(probe, threads_errors_and_stacks) {
    probe_daemon d("{}");
    helper_process helper;
    ASSERT_EQ(helper.read_line(), "ready");
    auto summary = [&](const string& text) {
        string out;
        std::istringstream in(text);
        for (string tid, name, state, user, sys; getline(in, tid, '\t') && getline(in, name, '\t') && getline(in, state, '\t') && getline(in, user, '\t') && getline(in, sys);)
            out += (out.empty() ? tid : "tid") + " " + name + " " + state + (user.find('.') + 3 == user.size() && sys.find('.') + 3 == sys.size() ? " x.yy\n" : " " + user + "\n");
        return out;
    };
    string listing, want = std::to_string(helper.pid) + " vireo_probe_hel S x.yy\n";
    for (int i = 0; i < 3; i++) want += "tid vh-worker-" + std::to_string(i) + " S x.yy\n";
    for (int i = 0; i < 200 && summary(listing = d.ask(THREADS, pid_payload(helper.pid)).payload) != want; i++) usleep(20000);
    ASSERT_EQ(summary(listing), want) << listing;
    EXPECT_EQ(d.ask(THREADS, args(helper.pid, helper.pid)).payload, listing.substr(0, listing.find('\n') + 1));
    EXPECT_TRUE(d.code(KSTACK, pid_payload(helper.pid)) >= -1);  // readable or refused, never another code
    uint32_t worker = std::stoi(listing.substr(listing.find('\n') + 1));
    struct { const char* name; std::vector<uint8_t> payload; int32_t code; } cases[] = {
        {"two bytes", {1, 0}, -22}, {"pid 0", args(0, 0), -22}, {"no such pid", pid_payload(0x7ffffff0), -3},
        {"a thread id is no pid", pid_payload(worker), -3}, {"tid of another process", args(helper.pid, getpid()), -3}};
    for (int sub : {THREADS, STACK, KSTACK, SAMPLE})
        for (const auto& c : cases) EXPECT_EQ(d.code(sub, c.payload), c.code) << "command " << sub << ": " << c.name;

    client_reply r = d.ask(STACK, args(helper.pid, helper.pid));
    if (r.header().msg_len == -1) GTEST_SKIP() << no_ptrace;
    EXPECT_EQ(r.payload.rfind("Thread " + std::to_string(helper.pid) + " (", 0), 0u) << r.payload;
    size_t at = 0;
    for (const char* fn : {"vireo_helper_inner+0x", "vireo_helper_middle+0x", "vireo_helper_outer+0x", " main+0x", "probe_helper"})
        ASSERT_NE(at = r.payload.find(fn, at), string::npos) << fn << " in order in\n" << r.payload;
    string every = d.ask(STACK, args(helper.pid, 0)).payload;
    EXPECT_TRUE(count(every, "Thread ") == 4 && count(every, " in vireo_helper_deep+0x") == 3) << every;
    string bad[2];
    auto walk = [&](int k) {
        for (int i = 0; i < 10; i++)
            if (string p = d.ask(i % 2 ? SAMPLE : STACK, pid_payload(helper.pid)).payload; p.find("vireo_helper_inner") == string::npos) bad[k] = p;
    };
    std::thread a(walk, 0), b(walk, 1);
    a.join(), b.join();
    EXPECT_EQ(bad[0] + bad[1], "");
    EXPECT_FALSE(traced(helper.pid));
    ASSERT_EQ(write(helper.fd, "x", 1), 1);
    EXPECT_EQ(helper.read_line(), "alive");
}

// Targets that exit while they are walked: every walk is answered, and no
// target stays traced or becomes a zombie its parent cannot reap.
TEST(probe, targets_exiting_during_walks) {
    probe_daemon d(R"({"deadline-ms": 4000})");
    helper_process first;
    ASSERT_EQ(first.read_line(), "ready");
    if (d.code(STACK, pid_payload(first.pid)) == -1) GTEST_SKIP() << no_ptrace;
    std::vector<std::thread> clients;  // four at once: walks of different targets run side by side
    for (int k = 0; k < 4; k++)
        clients.emplace_back([&, k] {
            for (int i = k; i < 500; i += 4) {
                helper_process h({"exit", std::to_string(i % 7 * 700)});
                int32_t code = d.code(i % 2 ? SAMPLE : STACK, pid_payload(h.pid));
                // A walk cut by its deadline on a loaded machine must leave no trace either.
                ASSERT_TRUE(code >= 0 || code == -3 || code == -62) << "walk " << i << ": " << code;
                ASSERT_FALSE(traced(h.pid)) << "walk " << i;
                ASSERT_TRUE(h.reaped(5000)) << "walk " << i;
            }
        });
    for (auto& c : clients) c.join();
    EXPECT_TRUE(d.daemon->running());
}

// A target stuck in an uninterruptible wait (a vfork parent) costs each walk
// its deadline, answered -62, and is sampled as "[uninterruptible]" at once;
// then all five workers answer at once again and the target is not left
// traced.
TEST(probe, wedged_target_meets_the_deadline) {
    probe_daemon d(R"({"deadline-ms": 300})");
    helper_process h({"vfork"});
    ASSERT_EQ(h.read_line(), "ready");
    auto five = [&](int sub, pid_t pid) {
        std::vector<int32_t> codes(5);
        std::vector<std::thread> t;
        for (int i = 0; i < 5; i++) t.emplace_back([&, i] { codes[i] = d.code(sub, pid_payload(pid), 2500); });
        for (auto& x : t) x.join();
        return codes;
    };
    std::vector<int32_t> codes = five(STACK, h.pid);
    if (codes[0] == -1) GTEST_SKIP() << no_ptrace;
    EXPECT_EQ(codes, std::vector<int32_t>(5, -62));
    EXPECT_NE(d.ask(SAMPLE, pid_payload(h.pid)).payload.find("\t[uninterruptible]\n"), string::npos);  // samples skip it
    for (int32_t c : five(THREADS, getpid())) EXPECT_GT(c, 0);
    EXPECT_FALSE(traced(h.pid));
}

// A walker that dies costs its request -5, and the daemon answers on.
TEST(probe, dead_walker_costs_one_request) {
    probe_daemon d(R"({"walker": "/bin/false"})");
    EXPECT_EQ(d.code(STACK, pid_payload(getpid())), -5);
    EXPECT_GT(d.code(THREADS, pid_payload(getpid())), 0);
}

// 200 threads: every stack in one multi-packet reply; 200 threads 300 calls
// deep pass 1 MiB, and only then is the reply cut with "... truncated".
TEST(probe, large_replies_come_in_packets) {
    probe_daemon d(R"({"deadline-ms": 60000})");
    for (int depth : {4, 300}) {
        helper_process h({"threads", "200", std::to_string(depth)});
        ASSERT_EQ(h.read_line(), "ready");
        for (int i = 0; i < 500 && count(d.ask(THREADS, pid_payload(h.pid)).payload, "\tS\t") < 200; i++) usleep(10000);
        client_reply r = d.ask(STACK, pid_payload(h.pid), 120000);
        if (r.header().msg_len == -1) GTEST_SKIP() << no_ptrace;
        ASSERT_EQ(r.parts, (r.payload.size() + 8191) / 8192);
        EXPECT_EQ(r.payload.find("... truncated\n") == string::npos, depth == 4);
        EXPECT_EQ(depth == 4 ? count(r.payload, " in vireo_helper_deep+0x") : r.parts, depth == 4 ? 199u * 5 : 128u);
        EXPECT_EQ(count(r.payload, "Thread ") == 200u, depth == 4);
    }
}

// A profile of a busy helper names its hot function in most samples.
TEST(probe, profile_finds_the_hot_function) {
    probe_daemon d("{}");
    helper_process h({"hot"});
    ASSERT_EQ(h.read_line(), "ready");
    string out = d.dir.path() + "/profile.folded";
    string cmd = string(VIREO_CLIENT) + " profile -e " + d.ep + " --pid " + std::to_string(h.pid) + " --duration 1 --rate 50 -o " + out;
    int rc = WEXITSTATUS(system(cmd.c_str()));
    string folded = read_text_file(out);
    if (rc == 1 && folded.empty()) GTEST_SKIP() << no_ptrace;
    ASSERT_EQ(rc, 0) << cmd;
    long hot = 0, all = 0;
    std::istringstream in(folded);
    for (string line; getline(in, line);) {
        long n = std::stol(line.substr(line.rfind(' ') + 1));
        all += n, hot += line.find(";vireo_helper_hot ") != string::npos ? n : 0;
    }
    EXPECT_TRUE(all >= 10 && hot * 2 > all) << hot << " of " << all << ":\n" << folded;
}

}  // namespace
