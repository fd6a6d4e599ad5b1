// The probe plug-in served by the real daemon, against helper processes
// whose function and thread names are known. Replies are read with the
// client library, which reassembles multi-packet replies.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <json/json.h>
#include <zmq.h>

#include <atomic>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "wire/probe_codes.h"
#include "../../plugins/probe/walker_proto.h"
#include "test_util.h"
#include "vireo_client.h"

namespace {
using std::string;
enum { THREADS = 1, STACK = 2, KSTACK = 3, SAMPLE = 4, PS = 5 };
const char no_ptrace[] = "ptrace refused here (sandbox or emulator)";
const uint32_t SYSTEM = 0x10, PROBE = 0x30;

std::vector<uint8_t> args(uint32_t pid, uint32_t tid) { auto p = pid_payload(pid), t = pid_payload(tid); p.insert(p.end(), t.begin(), t.end()); return p; }
size_t count(const string& text, const string& what) { size_t n = 0; for (size_t i = text.find(what); i != string::npos; i = text.find(what, i + 1)) n++; return n; }
// The thread ids of pid, or with what "children", its children's pids.
string d_listing(pid_t pid, const string& what = "") { string out, base = "/proc/" + std::to_string(pid) + "/task/"; if (DIR* dir = opendir(base.c_str())) { while (dirent* e = readdir(dir)) if (e->d_name[0] != '.') out += (what.empty() ? string(e->d_name) : read_text_file(base + e->d_name + "/" + what)) + " "; closedir(dir); } return out; }
bool traced(pid_t pid) { string status = read_text_file("/proc/" + std::to_string(pid) + "/status"); return !status.empty() && status.find("TracerPid:\t0\n") == string::npos; }

// A helper in a process group of its own, stdin and stdout one socket of ours;
// the group is killed by id at the end. With own_ns, it runs in a mount
// namespace of its own from ns_exe, where the helper is mounted over the
// file that ns_exe names outside. With exe, it is started by that path (a
// link to it, whose name the process then has).
struct helper_process {
    pid_t pid = -1;
    int fd = -1;
    explicit helper_process(std::vector<string> argv = {}, const string& ns_exe = "", const string& exe = VIREO_PROBE_HELPER) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
        argv.insert(argv.begin(), exe);
        std::vector<char*> cargv;
        for (string& a : argv) cargv.push_back(&a[0]);
        cargv.push_back(nullptr);
        if ((pid = fork()) == 0) {
            setpgid(0, 0);
            dup2(sv[1], 0);
            dup2(sv[1], 1);
            if (!ns_exe.empty() && (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || mount(VIREO_PROBE_HELPER, ns_exe.c_str(), nullptr, MS_BIND, nullptr) != 0)) _exit(126);
            execv(ns_exe.empty() ? exe.c_str() : ns_exe.c_str(), cargv.data());
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

// The daemon serving the five probe commands as group 0x30 from a link to the
// plug-in in a folder of its own, beside a probe.conf with these settings, and
// /proc/loadavg as command 0x10 1. With secure, behind CURVE with one client
// key allowed every code.
struct probe_daemon {
    temp_dir dir;
    int port = free_port();
    string ep = "tcp://127.0.0.1:" + std::to_string(port), cmds, security;
    std::unique_ptr<daemon_process> daemon;
    client_keys keys;
    explicit probe_daemon(const string& conf, bool secure = false) {
        char server[2][41], me[2][41];
        if (secure && zmq_curve_keypair(server[0], server[1]) == 0 && zmq_curve_keypair(me[0], me[1]) == 0) {
            keys = {server[0], me[0], me[1]};
            security = R"(, "security": {"secret-key": ")" + dir.write("server.key", string(server[1]) + "\n") + R"(", "authorized-keys": ")" + dir.write("keys", string(me[0]) + " probe *\n") + R"("})";
        }
        string lib = dir.path() + "/libvireo_probe.so";
        EXPECT_EQ(symlink(VIREO_PROBE_PLUGIN, lib.c_str()), 0);
        dir.write("probe.conf", conf);
        for (const char* fn : {"probe_threads", "probe_stack", "probe_kstack", "probe_sample", "probe_ps"})
            cmds += string(cmds.empty() ? "" : ",") + R"({"name": ")" + (fn + 6) + R"(", "id": ")" + std::to_string(count(cmds, "{") + 1) + R"(", "type": "custom", "lib": ")" + lib + R"(", "symbols": ")" + fn + R"("})";
        string sub = dir.write("probe.json", R"({"cmd-list": [)" + cmds + "]}");
        string sys = dir.write("sys.json", R"({"cmd-list": [{"name": "loadavg", "id": "1", "type": "file", "file": "/proc/loadavg"}]})");
        daemon.reset(new daemon_process({"-c", dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [{"class": "probe", "code": "0x30", "config": ")" + sub + R"("}, {"class": "system", "code": "0x10", "config": ")" + sys + R"("}])" + security + "}")}));
        bool up = !secure && daemon->wait_ready(ep);
        for (int i = 0; secure && i < 50 && !up && daemon->running(); i++) {
            client_conn conn(ep, 200, keys);
            client_reply r;
            string why;
            up = conn.request(0xEAEA, 2, {0}, r, why) == 0;
        }
        EXPECT_TRUE(up) << daemon->stderr_text();
    }
    client_reply ask(int sub, const std::vector<uint8_t>& payload, int timeout_ms = 60000, uint32_t code = PROBE) {
        client_conn conn(ep, timeout_ms, keys);
        client_reply r;
        string why;
        EXPECT_EQ(conn.request(code, sub, payload, r, why), 0) << why;
        return r;
    }
    int32_t code(int sub, const std::vector<uint8_t>& payload, int timeout_ms = 60000) { return ask(sub, payload, timeout_ms).header().msg_len; }
};

// Listing: one tab-separated line per thread (tid, name, state, user and
// system time), the main thread first. Bad payloads, a missing process or
// thread give the probe's own codes on every command, never the daemon's. The main thread's stack shows the
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
    int32_t kstack = d.code(KSTACK, pid_payload(helper.pid));
    EXPECT_TRUE(kstack >= 0 || kstack == probe_refused) << kstack;  // readable or refused, never another code
    uint32_t worker = std::stoi(listing.substr(listing.find('\n') + 1));
    struct { const char* name; std::vector<uint8_t> payload; int32_t code; } cases[] = {
        {"two bytes", {1, 0}, probe_bad_request}, {"pid 0", args(0, 0), probe_bad_request}, {"no such pid", pid_payload(0x7ffffff0), probe_no_process},
        {"a thread id is no pid", pid_payload(worker), probe_no_process}, {"tid of another process", args(helper.pid, getpid()), probe_no_process}};
    for (int sub : {THREADS, STACK, KSTACK, SAMPLE})
        for (const auto& c : cases) EXPECT_EQ(d.code(sub, c.payload), c.code) << "command " << sub << ": " << c.name;

    client_reply r = d.ask(STACK, args(helper.pid, helper.pid));
    if (r.header().msg_len == probe_refused) GTEST_SKIP() << no_ptrace;
    EXPECT_EQ(r.payload.rfind("Thread " + std::to_string(helper.pid) + " (vireo_probe_hel):\n", 0), 0u) << r.payload;
    size_t at = 0;
    for (const char* fn : {"vireo_helper_inner+0x", "vireo_helper_middle+0x", "vireo_helper_outer+0x", " main+0x", "probe_helper"})
        ASSERT_NE(at = r.payload.find(fn, at), string::npos) << fn << " in order in\n" << r.payload;
    string every = d.ask(STACK, args(helper.pid, 0)).payload;
    EXPECT_TRUE(count(every, "Thread ") == 4 && count(every, " in vireo_helper_deep+0x") == 3) << every;
    for (int i = 0; i < 3; i++) EXPECT_NE(every.find(" (vh-worker-" + std::to_string(i) + "):\n"), string::npos) << every;
    // Flags in bytes 8..11: 0 changes nothing; bit 0 asks for markup: the
    // helper's module with the build-id and its code segment's address from
    // its own file, frames as addresses only (pc, then ra), samples as
    // addresses root first.
    auto flagged = [&](int sub, uint32_t flags) { auto p = args(helper.pid, helper.pid), f = pid_payload(flags); p.insert(p.end(), f.begin(), f.end()); return d.ask(sub, p).payload; };
    EXPECT_EQ(flagged(STACK, 0), r.payload);
    string raw = flagged(STACK, 1), elf = VIREO_PROBE_HELPER;
    FILE* re = popen(("readelf -nlW " + elf + " | sed -n -e 's/.*Build ID: *//p' -e 's/^ *LOAD *0x[0-9a-f]* *0x0*\\([0-9a-f]*\\) .* R E .*/\\1/p'").c_str(), "r");
    char info[256] = "";
    size_t got = re != nullptr ? fread(info, 1, sizeof info - 1, re) : 0;
    if (re != nullptr) pclose(re);
    std::istringstream lines(string(info, got));
    string code_at, id;
    lines >> code_at >> id;
    ASSERT_EQ(id.size(), 40u) << info;
    EXPECT_EQ(raw.rfind("{{{reset}}}\n{{{module:0:", 0), 0u) << raw;
    size_t mod = raw.find(":" + elf + ":elf:" + id + "}}}\n{{{mmap:0x");
    ASSERT_NE(mod, string::npos) << elf << " " << id << "\n" << raw;
    string map = raw.substr(mod, raw.find('\n', raw.find('\n', mod) + 1) - mod);
    EXPECT_NE(map.find(":rx:0x" + code_at + "}}}"), string::npos) << map;
    EXPECT_NE(raw.find("):\n{{{bt:0:0x"), string::npos) << raw;
    EXPECT_TRUE(count(raw, ":pc}}}\n") == 1 && count(raw, "{{{bt:1:0x") == 1 && count(raw, ":ra}}}\n") >= 4) << raw;
    EXPECT_EQ(raw.find("vireo_helper"), string::npos) << raw;
    string sample = flagged(SAMPLE, 1);
    EXPECT_TRUE(std::regex_search(sample, std::regex("\n" + std::to_string(helper.pid) + "\tvireo_probe_hel\t[0-9]+\t(0x[0-9a-f]+;){4,}0x[0-9a-f]+\n$"))) << sample;
    // Bit 1: the thread's state before the frames, named or raw.
    for (string state : {flagged(SAMPLE, 2), flagged(SAMPLE, 3)})
        EXPECT_TRUE(std::regex_search(state, std::regex("(^|\n)" + std::to_string(helper.pid) + "\tvireo_probe_hel\t[0-9]+\tS\t([^\t\n]*;vireo_helper_inner;[^\t\n]*|(0x[0-9a-f]+;){4,}0x[0-9a-f]+)\n$"))) << state;
    string bad[2];
    auto walk = [&](int k) {  // a walk while the other kind runs is answered busy
        for (int i = 0; i < 10; i++)
            if (client_reply w = d.ask(i % 2 ? SAMPLE : STACK, pid_payload(helper.pid)); w.header().msg_len != probe_busy && w.payload.find("vireo_helper_inner") == string::npos) bad[k] = std::to_string(w.header().msg_len) + w.payload;
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
    probe_daemon d(R"({"deadline-ms": 4000, "max-walks": 4})");
    helper_process first;
    ASSERT_EQ(first.read_line(), "ready");
    if (d.code(STACK, pid_payload(first.pid)) == probe_refused) GTEST_SKIP() << no_ptrace;
    std::vector<std::thread> clients;  // four at once: walks of different targets run side by side
    for (int k = 0; k < 4; k++)
        clients.emplace_back([&, k] {
            for (int i = k; i < 500; i += 4) {
                helper_process h({"exit", std::to_string(i % 7 * 700)});
                int32_t code = d.code(i % 2 ? SAMPLE : STACK, pid_payload(h.pid));
                // A walk cut by its deadline on a loaded machine must leave no trace either.
                ASSERT_TRUE(code >= 0 || code == probe_no_process || code == probe_deadline) << "walk " << i << ": " << code;
                ASSERT_FALSE(traced(h.pid)) << "walk " << i;
                ASSERT_TRUE(h.reaped(5000)) << "walk " << i;
            }
        });
    for (auto& c : clients) c.join();
    EXPECT_TRUE(d.daemon->running());
}

// A target with one thread stuck in an uninterruptible wait (a vfork parent)
// and three that run, walked by 15 clients at once: each walk is answered at
// once with every thread, the stuck one reported in its place, or answered
// busy; a file command from another client is answered meanwhile; samples
// skip the stuck thread; the target is not left traced. In plaintext and
// behind CURVE.
TEST(probe, wedged_target_holds_no_worker) {
    for (bool secure : {false, true}) {
        probe_daemon d(R"({"deadline-ms": 10000})", secure);
        helper_process h({"vfork"});
        ASSERT_EQ(h.read_line(), "ready");
        if (d.code(STACK, pid_payload(h.pid)) == probe_refused) GTEST_SKIP() << no_ptrace;
        std::atomic<int> stacks{0}, busy{0}, loads{0};
        std::vector<string> bad(15);
        std::vector<std::thread> t;
        for (int i = 0; i < 15; i++)
            t.emplace_back([&, i] {
                for (int k = 0; k < 5; k++) {
                    client_reply r = d.ask(STACK, pid_payload(h.pid), 30000);
                    bool whole = count(r.payload, "Thread ") == 4 && count(r.payload, "    (not stopped: D state)\n") == 1 && count(r.payload, " in vireo_helper_deep+0x") == 3;
                    r.header().msg_len == probe_busy ? busy++ : whole ? stacks++ : (bad[i] = std::to_string(r.header().msg_len) + r.payload, 0);
                }
            });
        for (int i = 0; i < 10; i++) loads += d.ask(1, {}, 5000, SYSTEM).payload.find('/') != string::npos;
        for (auto& x : t) x.join();
        EXPECT_EQ(loads, 10) << secure;
        EXPECT_EQ(stacks + busy, 75) << testing::PrintToString(bad);
        EXPECT_GT(stacks, 0);
        EXPECT_NE(d.ask(SAMPLE, pid_payload(h.pid)).payload.find("\t[uninterruptible]\n"), string::npos);
        EXPECT_FALSE(traced(h.pid));
    }
}

// Walks hold at most max-walks workers: with walkers that never answer, two
// of four walks of different processes wait out their deadline, the other
// two are answered busy at once, and file commands are answered. In plaintext
// a request the daemon queues to a worker inside a walk waits for that walk;
// behind CURVE requests go to idle workers only, so each is answered within
// half the walk deadline.
TEST(probe, walks_hold_at_most_max_walks_workers) {
    temp_dir bin;
    string silent = bin.write("walker", "#!/bin/sh\nexec cat <&3 >/dev/null\n");
    ASSERT_EQ(chmod(silent.c_str(), 0755), 0);
    for (bool secure : {false, true}) {
        probe_daemon d(R"({"deadline-ms": 3000, "max-walks": 2, "walker": ")" + silent + R"("})", secure);
        helper_process h[3];
        for (auto& x : h) ASSERT_EQ(x.read_line(), "ready");
        pid_t targets[] = {h[0].pid, h[1].pid, h[2].pid, getpid()};
        std::vector<int32_t> codes(4);
        std::vector<std::thread> t;
        for (int i = 0; i < 4; i++) t.emplace_back([&, i] { codes[i] = d.code(STACK, pid_payload(targets[i]), 10000); });
        int loads = 0;
        for (int i = 0; i < 10; i++) loads += d.ask(1, {}, secure ? 1500 : 10000, SYSTEM).payload.find('/') != string::npos;
        for (auto& x : t) x.join();
        EXPECT_EQ(loads, 10) << secure;
        EXPECT_EQ(std::count(codes.begin(), codes.end(), probe_deadline), 2) << testing::PrintToString(codes);
        EXPECT_EQ(std::count(codes.begin(), codes.end(), probe_busy), 2) << testing::PrintToString(codes);
    }
}

// Awkward targets, each a helper, a command and what its reply holds: a
// leader that exited is walked through a live thread, a cut stack says so
// in both forms, a process in its own mount namespace is named from its own
// files, not from the file its maps path shows here.
TEST(probe, awkward_targets) {
    probe_daemon d("{}");
    temp_dir dir;
    string ns_exe = dir.write("exe", "#!/bin/sh\nnot the helper\n");
    struct { const char* name; std::vector<string> argv; string ns_exe; int sub; std::vector<string> want; } rows[] = {
        {"leader exited", {"leader-exit"}, "", STACK, {"(no frames: the thread has exited)", " in vireo_helper_deep+0x"}},
        {"cut stack", {"threads", "2", "20000"}, "", STACK, {"\n#255 0x", " in vireo_helper_deep+0x", "\n" walker_cut_line "\n"}},
        {"cut folded stack", {"threads", "2", "20000"}, "", SAMPLE, {"\t" walker_cut_root ";vireo_helper_deep;"}},
        // A name with the stat file's own delimiters, and a control character.
        {"awkward thread name", {"threads", "2", "0", "vh) R (\x01x"}, "", STACK, {" (vh) R (?x):\n#0 "}},
        {"awkward thread name sampled", {"threads", "2", "0", "vh) R (\x01x"}, "", SAMPLE, {"\tvh) R (?x\t"}},
        {"own mount namespace", {}, ns_exe, STACK, {" in vireo_helper_inner+0x", "(" + ns_exe + ")\n"}}};
    for (const auto& row : rows) {
        helper_process h(row.argv, row.ns_exe);
        string ready = h.read_line();
        if (!row.ns_exe.empty() && ready.empty()) { std::cerr << "skipped " << row.name << ": no mount namespace of its own here (unshare refused)\n"; continue; }
        ASSERT_EQ(ready, "ready") << row.name;
        client_reply r;
        auto holds = [&] { for (const string& w : row.want) if (r.payload.find(w) == string::npos) return false; return true; };
        for (int i = 0; i < 100 && (r = d.ask(row.sub, pid_payload(h.pid)), !holds()); i++) usleep(20000);
        if (r.header().msg_len == probe_refused) GTEST_SKIP() << no_ptrace;
        EXPECT_TRUE(holds()) << row.name << ": " << r.header().msg_len << "\n" << r.payload;
    }
    // Its walkers hold no capability but ptrace, reading and map_files, can gain none, and leave root.
    int walkers = 0;
    std::istringstream kids(d_listing(d.daemon->pid(), "children"));
    for (string kid; kids >> kid; walkers++) {
        string status;
        auto field = [&](const string& f) { size_t at = status.find("\n" + f + ":\t"); return at == string::npos ? ~0ull : std::stoull(status.substr(at + f.size() + 3), nullptr, 16); };
        const unsigned long long kept = 1ull << 19 | 1ull << 2 | 1ull << 40;  // CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_CHECKPOINT_RESTORE
        auto dropped = [&] { return status.find("\nName:\tvireo-walker\n") != string::npos && ((field("CapEff") | field("CapBnd")) & ~kept) == 0 && field("CapAmb") == 0 && field("NoNewPrivs") == 1 && (getuid() != 0 || status.find("\nUid:\t65534\t65534\t65534\t65534\n") != string::npos); };
        // A spare walker just started may not have dropped them yet.
        for (int i = 0; i < 50 && (status = "\n" + read_text_file("/proc/" + kid + "/status"), !dropped()); i++) usleep(20000);
        if (status == "\n") {  // an idle walker that has since ended
            walkers--;
            continue;
        }
        EXPECT_TRUE(dropped()) << status;
    }
    EXPECT_GT(walkers, 0);
}

// Codes that name the probe's own refusals: a process traced by a debugger, a
// process that probe.conf does not allow (by uid, executable or cgroup).
TEST(probe, refusals_have_codes_of_their_own) {
    helper_process h;
    ASSERT_EQ(h.read_line(), "ready");
    struct { string conf; pid_t pid; int32_t code; } rows[] = {
        {R"({"allow": {"uids": [)" + std::to_string(getuid()) + R"(], "exes": [")" VIREO_PROBE_HELPER R"("]}})", h.pid, 0},
        {R"({"allow": {"exes": [")" VIREO_PROBE_HELPER R"("]}})", getpid(), probe_not_allowed},
        {R"({"allow": {"uids": [)" + std::to_string(getuid() + 1) + "]}}", h.pid, probe_not_allowed},
        {R"({"allow": {"cgroups": ["/vireo-no-such-group"]}})", h.pid, probe_not_allowed}};
    for (const auto& row : rows) {
        probe_daemon d(row.conf);
        for (int sub : {THREADS, STACK}) {
            int32_t code = d.code(sub, pid_payload(row.pid));
            if (code == probe_refused) GTEST_SKIP() << no_ptrace;
            EXPECT_EQ(std::min(code, 0), row.code) << row.conf << " command " << sub;
        }
    }
    // A debugger holding every thread: a tracer of our own, in a child.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t tracer = fork();
    if (tracer == 0) {
        bool all = true;
        std::istringstream tids(d_listing(h.pid));
        for (int tid; tids >> tid;) all = all && ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0;
        write(ready[1], all ? "y" : "n", 1);
        pause();
        _exit(0);
    }
    char got = 0;
    EXPECT_EQ(read(ready[0], &got, 1), 1);
    probe_daemon d("{}");
    int32_t code = d.code(STACK, pid_payload(h.pid));
    kill(tracer, SIGKILL);
    waitpid(tracer, nullptr, 0);
    close(ready[0]), close(ready[1]);
    if (got != 'y') GTEST_SKIP() << no_ptrace;
    EXPECT_EQ(code, probe_traced);
}

// A walker that dies costs its request probe_walker_failed, and the daemon
// answers on.
TEST(probe, dead_walker_costs_one_request) {
    probe_daemon d(R"({"walker": "/bin/false"})");
    EXPECT_EQ(d.code(STACK, pid_payload(getpid())), probe_walker_failed);
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
        if (r.header().msg_len == probe_refused) GTEST_SKIP() << no_ptrace;
        ASSERT_EQ(r.parts, (r.payload.size() + 8191) / 8192);
        EXPECT_EQ(r.payload.find("... truncated\n") == string::npos, depth == 4);
        EXPECT_EQ(depth == 4 ? count(r.payload, " in vireo_helper_deep+0x") : r.parts, depth == 4 ? 199u * 5 : 128u);
        EXPECT_EQ(count(r.payload, "Thread ") == 200u, depth == 4);
    }
}

// The process list: helpers started by links of their own names, each in one
// line with parent and command line; a pattern payload selects; processes
// that end during the scan leave no broken line. --pid NAME resolves through
// it: one match, several (listed, 64), none; by the command's file name past
// the kernel's 15 bytes of name. probe.conf's "allow" also limits the list.
TEST(probe, ps_lists_processes_and_resolves_names) {
    probe_daemon d("{}");
    std::map<string, std::vector<std::unique_ptr<helper_process>>> hs;
    for (string name : {"vh-one", "vh-twin", "vh-twin", "vh-long-name-of-helper"}) {
        string exe = d.dir.path() + "/" + name;
        symlink(VIREO_PROBE_HELPER, exe.c_str());
        hs[name].emplace_back(new helper_process({}, "", exe));
        ASSERT_EQ(hs[name].back()->read_line(), "ready");
    }
    string one = std::to_string(hs["vh-one"][0]->pid), line = one + "\t" + std::to_string(getpid()) + "\tvh-one\tS\t" + d.dir.path() + "/vh-one\n";
    string all;
    for (int i = 0; i < 200 && (all = d.ask(PS, {}).payload).find(line) == string::npos; i++) usleep(20000);
    EXPECT_NE(all.find(line), string::npos) << all;
    string twins = d.ask(PS, {'v', 'h', '-', 't', '*'}).payload;
    EXPECT_EQ(count(twins, "\n") == 2 && count(twins, "\tvh-twin\t") == 2, true) << twins;
    EXPECT_EQ(d.code(PS, pid_payload(1)), probe_bad_request);
    pid_t churn = fork();  // short-lived processes, ending while lists are made
    if (churn == 0) for (;;) { if (pid_t p = fork(); p == 0) _exit(0); else if (p > 0) waitpid(p, nullptr, 0); }
    end_with_test(churn);
    for (int i = 0; i < 20; i++) {
        client_reply r = d.ask(PS, {});
        std::istringstream in(r.payload);
        long last = 0, n = 0;
        for (string l; getline(in, l); n++) EXPECT_TRUE(count(l, "\t") == 4 && std::stol(l) > last && (last = std::stol(l))) << l;
        EXPECT_TRUE(r.header().msg_len >= 0 && n > 4 && r.payload.find("\n" + one + "\t") != string::npos) << r.payload;
    }
    kill(churn, SIGKILL), waitpid(churn, nullptr, 0);
    string main_json = d.dir.path() + "/main.json", twin_pids = std::to_string(hs["vh-twin"][0]->pid) + " " + d.dir.path() + "/vh-twin\n" + std::to_string(hs["vh-twin"][1]->pid) + " ";
    char table_row[64];
    snprintf(table_row, sizeof table_row, "%7s %7d S %-15s ", one.c_str(), getpid(), "vh-one");
    struct { string args; int rc; string has; } rows[] = {
        {"probe.threads --pid vh-one", 0, one + "\tvh-one\tS\t"}, {"probe.threads --name vh-long-name-of-helper", 0, std::to_string(hs["vh-long-name-of-helper"][0]->pid) + "\tvh-long-name-of\t"},
        {"probe.threads --pid vh-twin", 64, "2 processes on the board are named vh-twin; give one by --pid:\n" + twin_pids}, {"probe.threads --pid vh-none", 1, "no process vh-none on the board"},
        {"ps", 0, "\n" + string(table_row) + d.dir.path() + "/vh-one\n"}};
    for (const auto& row : rows) {
        string cmd = string(VIREO_CLIENT) + " -c " + main_json + " " + row.args + " >" + d.dir.path() + "/out 2>&1";
        int rc = WEXITSTATUS(system(cmd.c_str()));
        string out = read_text_file(d.dir.path() + "/out");
        EXPECT_TRUE(rc == row.rc && out.find(row.has) != string::npos) << row.args << ": " << rc << "\n" << out;
    }
    probe_daemon only(R"({"allow": {"exes": [")" VIREO_PROBE_HELPER R"("]}})");
    all = only.ask(PS, {}).payload;
    // Helpers only: this test's four, and any that a probe test running
    // beside it has started (under the program's own name).
    std::istringstream listed(all);
    int ours = 0;
    for (string l; getline(listed, l);) {
        string name = l.substr(l.find('\t', l.find('\t') + 1) + 1);
        name = name.substr(0, name.find('\t'));
        EXPECT_TRUE(name.rfind("vh-", 0) == 0 || name == "vireo_probe_hel") << l;
        ours += name.rfind("vh-", 0) == 0;
    }
    EXPECT_EQ(ours, 4) << all;
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

// One busy thread and two in pause(): --on-cpu keeps the busy one, named as
// the root under --per-thread; speedscope gets a profile per thread; the
// achieved rate is told on stderr.
TEST(probe, on_cpu_profile_per_thread) {
    probe_daemon d("{}");
    helper_process h({"busy"});
    ASSERT_EQ(h.read_line(), "ready");
    const string base = string(VIREO_CLIENT) + " profile -e " + d.ep + " --pid " + std::to_string(h.pid) + " --duration 1 --rate 50 --on-cpu -o " + d.dir.path();
    int rc = WEXITSTATUS(system((base + "/folded --per-thread 2>" + d.dir.path() + "/err").c_str()));
    string folded = read_text_file(d.dir.path() + "/folded"), err = read_text_file(d.dir.path() + "/err");
    if (rc == 1 && folded.empty()) GTEST_SKIP() << no_ptrace;
    ASSERT_EQ(rc, 0) << err;
    EXPECT_TRUE(std::regex_match(err, std::regex("vireo-client: profile: [0-9]+\\.[0-9] samples/s of 50 asked \\([0-9]+ in [0-9]+\\.[0-9] s\\)\n"))) << err;
    long hot = 0, all = 0;
    std::istringstream in(folded);
    for (string line; getline(in, line);) {
        long n = std::stol(line.substr(line.rfind(' ') + 1));
        all += n, hot += line.find(";vireo_helper_hot ") != string::npos ? n : 0;
        EXPECT_EQ(line.rfind("vireo_probe_hel (" + std::to_string(h.pid) + ");", 0), 0u) << line;
    }
    EXPECT_TRUE(all >= 10 && hot * 10 > all * 9) << hot << " of " << all << ":\n" << folded;
    ASSERT_EQ(WEXITSTATUS(system((base + "/ss.json --format speedscope 2>/dev/null").c_str())), 0);
    Json::Value ss;
    std::istringstream json(read_text_file(d.dir.path() + "/ss.json"));
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), json, &ss, nullptr));
    const Json::Value& frames = ss["shared"]["frames"];
    long named = 0;
    for (const Json::Value& f : frames) named += f["name"].asString() == "vireo_helper_hot";
    EXPECT_EQ(named, 1) << frames;
    ASSERT_EQ(ss["profiles"].size(), 3u) << ss;
    for (const Json::Value& p : ss["profiles"])
        EXPECT_TRUE(p["type"] == "sampled" && p["samples"].size() > 0 && p["samples"].size() == p["weights"].size() && p["endValue"].asDouble() > p["startValue"].asDouble()) << p;
}

}  // namespace
