// vireo-crash and the crash plug-in. Cores come from the kernel through the
// real core_pattern pipe (the fixture sets kernel.core_pattern and
// kernel.core_pipe_limit and puts both back however the test ends), broken
// cores are fed on standard input the same way, and reports are listed,
// fetched and deleted through the real daemon with rights per key.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>
#include <zmq.h>

#include <chrono>
#include <fstream>
#include <random>
#include <regex>
#include <thread>

#include "client_run.h"
#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

std::string sysctl_read(const char* path) {
    std::string s = read_text_file(path);
    return s.substr(0, s.find('\n'));
}

bool sysctl_write(const char* path, const std::string& v) {
    std::ofstream f(path);
    return static_cast<bool>(f << v << "\n" << std::flush);
}

// Sets the kernel's core handler to ours for the life of the object. A
// watcher process, out of the test's process group, puts the old values
// back when the pipe to it closes: on destruction, or when the test process
// dies in any way. A lock file held by both (the watcher until it has put
// them back) makes test processes of other build trees wait their turn, so
// none saves another's handler as the value to restore.
class core_pattern_override {
public:
    explicit core_pattern_override(const std::string& pattern) {
        lock = open("/tmp/vireo-core-pattern.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        int tries = 0;
        while (lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) != 0 && ++tries < 3000)
            usleep(100 * 1000);  // 300 s at most
        if (lock < 0 || tries == 3000)
            return;
        old_pattern = sysctl_read(pattern_file);
        old_limit = sysctl_read(limit_file);
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0)  // no program the test starts holds it open
            return;
        watcher = fork();
        if (watcher == 0) {
            setsid();
            close(p[1]);
            char c;
            while (read(p[0], &c, 1) != 0 && errno == EINTR) {
            }
            sysctl_write(pattern_file, old_pattern);
            sysctl_write(limit_file, old_limit);
            _exit(0);
        }
        close(p[0]);
        hold = p[1];
        // A handler that is waited for: the crashed process is reaped only
        // once its handler let go of the core.
        ok = watcher > 0 && sysctl_write(limit_file, "16") && sysctl_write(pattern_file, pattern);
    }
    ~core_pattern_override() {
        close(hold);
        int st;
        if (watcher > 0)
            waitpid(watcher, &st, 0);
        if (lock >= 0)
            close(lock);
    }
    bool ok = false;

private:
    static constexpr const char* pattern_file = "/proc/sys/kernel/core_pattern";
    static constexpr const char* limit_file = "/proc/sys/kernel/core_pipe_limit";
    std::string old_pattern, old_limit;
    pid_t watcher = -1;
    int hold = -1, lock = -1;
};

// Runs argv with stdin from the file in, waits; the exit status.
// Runs argv with the file in on stdin, or with its bytes in a pipe that
// stays open until argv ends (a core that never ends); the exit status.
int run(const std::vector<std::string>& argv, const std::string& in, const std::string& err,
        bool hold) {
    int p[2] = {-1, -1};
    if (hold && pipe(p) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int fd = hold ? p[0] : open(in.c_str(), O_RDONLY),
            e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 0);
        dup2(e, 2);
        if (hold)
            close(p[1]);
        std::vector<char*> v;
        for (const auto& a : argv) v.push_back(const_cast<char*>(a.c_str()));
        v.push_back(nullptr);
        execv(v[0], v.data());
        _exit(127);
    }
    end_with_test(pid);
    if (hold) {
        close(p[0]);
        std::string bytes = read_text_file(in);
        EXPECT_EQ(write(p[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    int st = -1;
    waitpid(pid, &st, 0);
    if (hold)
        close(p[1]);
    return st;
}

bool handler_running() {
    DIR* d = opendir("/proc");
    bool found = false;
    char buf[4096];
    while (dirent* e = d ? readdir(d) : nullptr) {
        ssize_t n = readlink(("/proc/" + std::string(e->d_name) + "/exe").c_str(), buf, sizeof buf);
        found = found || (n > 0 && std::string(buf, static_cast<size_t>(n)) == VIREO_CRASH);
    }
    if (d)
        closedir(d);
    return found;
}

void wait_handlers() {
    for (int i = 0; i < 3000 && handler_running(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

std::vector<std::string> reports(const std::string& store, const char* suffix = ".txt") {
    std::vector<std::string> out;
    DIR* d = opendir(store.c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
        std::string n = e->d_name;
        if (n[0] != '.' && n.size() > strlen(suffix) &&
            n.compare(n.size() - strlen(suffix), std::string::npos, suffix) == 0)
            out.push_back(store + "/" + n);
    }
    if (d)
        closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

std::string gunzip(const std::string& path) {
    gzFile f = gzopen(path.c_str(), "rb");
    std::string out;
    char buf[65536];
    int n;
    while (f && (n = gzread(f, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    if (f)
        gzclose(f);
    return out;
}

std::string shell(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char buf[4096];
    size_t n;
    while (p && (n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    if (p)
        pclose(p);
    return out;
}

class crash_test : public ::testing::Test {
protected:
    temp_dir dir;
    std::string store = dir.path() + "/store", conf = dir.path() + "/crash.conf";

    void write_conf(const std::string& extra) {
        dir.write("crash.conf", "store = " + store + "\n" + extra);
    }
    // One crash of exe in mode; its pid. The handler has finished on return.
    pid_t crash(const std::string& exe, const char* mode) {
        pid_t pid = fork();
        if (pid == 0) {
            execl(exe.c_str(), exe.c_str(), mode, nullptr);
            _exit(127);
        }
        end_with_test(pid);
        int st;
        waitpid(pid, &st, 0);
        wait_handlers();
        return pid;
    }
    // The daemon serving the store with the crash plug-in (plaintext), for
    // the client; its -c option.
    std::unique_ptr<daemon_process> daemon;
    std::string serve_store() {
        std::string d = dir.path(), lib = d + "/libvireo_crash.so";
        symlink(VIREO_CRASH_PLUGIN, lib.c_str());
        int port = free_port();
        dir.write("read.json", R"({"cmd-list": [{"name": "list", "id": "1", "type": "custom", "lib": ")" + lib +
                                   R"(", "symbols": "crash_list"}, {"name": "fetch", "id": "2", "type": "custom", "lib": ")" +
                                   lib + R"(", "symbols": "crash_fetch"}, {"name": "core", "id": "3", "type": "custom", "lib": ")" +
                                   lib + R"(", "symbols": "crash_core"}]})");
        dir.write("serve.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
                                    R"(, "sub-configs": [{"class": "crash", "code": "50", "config": ")" + d + R"(/read.json"}]})");
        daemon = std::make_unique<daemon_process>(std::vector<std::string>{"-c", d + "/serve.json"});
        EXPECT_TRUE(daemon->wait_ready("tcp://127.0.0.1:" + std::to_string(port)));
        return "-c " + d + "/serve.json ";
    }
    std::string report_of(pid_t pid) {
        for (const auto& r : reports(store)) {
            std::string t = read_text_file(r);
            if (t.find("\npid: " + std::to_string(pid) + "\n") != std::string::npos)
                return t;
        }
        return "";
    }
};

// Changes kernel.core_pattern and core_pipe_limit, and restores them.
class crash_core_pattern_restored_test : public crash_test {
protected:
    std::unique_ptr<core_pattern_override> pattern;
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "setting kernel.core_pattern needs root";
        pattern = std::make_unique<core_pattern_override>(std::string("|") + VIREO_CRASH + " -c " +
                                                          conf + " %P %i %s %t %e");
        if (!pattern->ok)
            GTEST_SKIP() << "kernel.core_pattern cannot be set here";
    }
    // The daemon inherited the watcher's pipe: it ends before the watcher.
    void TearDown() override { daemon.reset(); }
};

TEST_F(crash_core_pattern_restored_test, reports_signal_address_and_the_crashed_thread_first) {
    write_conf("core-stack-bytes = 16384\n");
    struct {
        const char* mode;
        const char* signal;
        const char* fault;  // nullptr: no address line
        const char* function;
        size_t threads;
    } rows[] = {
        {"segv", "signal: 11 SIGSEGV\n", "fault address: 0x0000000000001234\n", "crash_here+", 1},
        {"abort", "signal: 6 SIGABRT\n", nullptr, "abort_here+", 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        pid_t pid = crash(VIREO_CRASHER, row.mode);
        std::string text = report_of(pid);
        ASSERT_NE(text, "") << "no report for pid " << pid;
        EXPECT_NE(text.find(row.signal), std::string::npos) << text;
        EXPECT_EQ(text.find("fault address: ") != std::string::npos, row.fault != nullptr);
        if (row.fault) {
            EXPECT_NE(text.find(row.fault), std::string::npos);
        }
        EXPECT_NE(text.find("threads: " + std::to_string(row.threads) + "\n"), std::string::npos);
        EXPECT_NE(text.find("command line: " + std::string(VIREO_CRASHER) + " " + row.mode + "\n"),
                  std::string::npos);
        // The first thread listed is the one the kernel named, with its
        // registers; the abort came from a thread that is not the main one.
        size_t tid_at = text.find("\ntid: ") + 6;
        std::string tid = text.substr(tid_at, text.find('\n', tid_at) - tid_at);
        EXPECT_EQ(tid != std::to_string(pid), row.threads == 2);
        size_t first = text.find("\nthread ");
        ASSERT_NE(first, std::string::npos);
        EXPECT_EQ(text.substr(first + 8, tid.size() + 11), tid + " (crashed):");
        EXPECT_NE(text.find("registers (thread " + tid + "):"), std::string::npos);
        size_t next = text.find("\nthread ", first + 1);
        EXPECT_LT(text.find(row.function, first), next) << text;
        EXPECT_TRUE(
            std::regex_search(text, std::regex(R"(\{\{\{module:\d+:)" + std::string(VIREO_CRASHER) +
                                               R"(:elf:[0-9a-f]{40}\}\}\})")));
        EXPECT_NE(text.find("{{{bt:0:0x"), std::string::npos);
        EXPECT_LT(text.size(), 64u << 10);
    }
}

// The stack-only core, decompressed, is read by gdb and eu-stack, which
// name the crashed function from a stripped executable and a host debug
// folder holding its debug file under its build-id.
TEST_F(crash_core_pattern_restored_test, stack_only_core_unwinds_in_gdb_and_eu_stack) {
    if (shell("for t in gdb eu-stack objcopy; do command -v $t; done | wc -l") != "3\n")
        GTEST_SKIP() << "gdb, eu-stack or objcopy missing";
    write_conf("core-stack-bytes = 8192\n");
    std::string exe = dir.path() + "/crasher", debug = dir.path() + "/debug";
    std::string id =
        shell("eu-readelf -n " + std::string(VIREO_CRASHER) + " | sed -n 's/.*Build ID: //p'");
    ASSERT_GT(id.size(), 3u);
    std::string keep = "mkdir -p " + debug + "/.build-id/" + id.substr(0, 2) +
                       " && objcopy --only-keep-debug " + VIREO_CRASHER + " " + debug +
                       "/.build-id/" + id.substr(0, 2) + "/" + id.substr(2, id.size() - 3) +
                       ".debug && objcopy --strip-all " + VIREO_CRASHER + " " + exe;
    ASSERT_EQ(system(keep.c_str()), 0);
    EXPECT_EQ(shell("nm " + exe + " 2>&1 | grep -c _here"), "0\n");
    // The abort is named only by unwinding through the C library, which the
    // debuggers find through the dynamic linker's list kept in the core.
    std::vector<std::pair<std::string, std::string>> ids;  // report, function
    for (const char* mode : {"segv", "abort"}) {
        SCOPED_TRACE(mode);
        std::string fn = mode == std::string("segv") ? "crash_here" : "abort_here";
        pid_t pid = crash(VIREO_CRASHER, mode);
        std::string gz;
        for (const auto& c : reports(store, ".core.gz"))
            if (c.find("-" + std::to_string(pid) + ".core.gz") != std::string::npos)
                gz = c;
        ASSERT_NE(gz, "") << report_of(pid);
        EXPECT_LT(std::ifstream(gz, std::ios::ate).tellg(), 64 << 10);
        std::string core = dir.write("core", gunzip(gz));
        std::string gdb =
            shell("timeout 60 gdb -nx -batch -iex 'set debug-file-directory " + debug +
                  "' -ex 'thread apply all bt' " + exe + " " + core + " 2>&1");
        EXPECT_NE(gdb.find(" in " + fn + " ("), std::string::npos) << gdb;
        std::string eu = shell("timeout 60 eu-stack --core=" + core + " -e " + exe +
                               " --debuginfo-path=" + debug + " 2>&1");
        EXPECT_NE(eu.find(" " + fn + "\n"), std::string::npos) << eu;
        std::string id = gz.substr(gz.rfind('/') + 1, gz.size() - gz.rfind('/') - 9);
        std::rename(core.c_str(), (core + "-" + id).c_str());
        ids.push_back({id, fn});
    }
    // The client names the reports' frames from the debug folder (the source
    // line is in no board name), and saves the cores inflated.
    const std::string c = serve_store();
    for (const auto& r : ids) {
        run_result named = run_client(c + "crash " + r.first + " --no-debuginfod --debug-dir " + debug);
        EXPECT_EQ(named.status, 0) << named.err;
        EXPECT_TRUE(std::regex_search(
            named.out, std::regex(R"(#\d+ +0x[0-9a-f]+ in )" + r.second + R"( \(.*\) at .*crasher\.cpp:\d+)")))
            << named.out;
        EXPECT_EQ(run_client(c + "crash " + r.first + " --core " + dir.path() + "/saved").status, 0);
        EXPECT_EQ(read_text_file(dir.path() + "/saved"), read_text_file(dir.path() + "/core-" + r.first));
    }
}

TEST_F(crash_core_pattern_restored_test, twenty_crashes_keep_count_size_and_rate) {
    struct {
        const char* conf;
        size_t reports;       // expected in the store afterwards
        int64_t total_bound;  // bytes, all reports together
        size_t newest_kept;   // the last this many crashes are in the store
    } rows[] = {{"max-reports = 50\nrate-per-hour = 5\n", 10, 1 << 30, 0},
                {"max-reports = 4\nrate-per-hour = 100\n", 4, 1 << 30, 4},
                {"max-reports = 50\nrate-per-hour = 100\nmax-total-bytes = 40000\n", 0, 40000, 1}};
    std::string exes[] = {dir.path() + "/crasher-a", dir.path() + "/crasher-b"};
    for (const auto& exe : exes)
        ASSERT_EQ(system(("cp " + std::string(VIREO_CRASHER) + " " + exe).c_str()), 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.conf);
        ASSERT_EQ(system(("rm -rf " + store + " " + store + ".lock " + store + ".rate").c_str()), 0);
        write_conf(row.conf);
        std::vector<pid_t> pids;
        for (int i = 0; i < 20; i++) pids.push_back(crash(exes[i % 2], "segv"));
        auto all = reports(store);
        if (row.reports) {
            EXPECT_EQ(all.size(), row.reports);
        }
        int64_t total = 0;
        for (const auto& f : reports(store, ""))
            total += static_cast<int64_t>(read_text_file(f).size());
        EXPECT_LE(total, row.total_bound);
        EXPECT_GT(total, 0);
        for (size_t k = 0; k < row.newest_kept; k++)
            EXPECT_NE(report_of(pids[19 - k]), "") << "crash " << 19 - k << " dropped";
    }
}

// Broken cores on standard input, the process still present (the test's
// own): a short report, never a crash of the handler, nor a wait past its
// time limit.
TEST_F(crash_test, truncated_and_random_cores_never_crash_the_handler) {
    write_conf("time-limit-s = 1\n");
    std::string seed = read_text_file(VIREO_CRASH_SEED), noise(65536, '\0');
    std::mt19937 rng(26);
    for (char& c : noise) c = static_cast<char>(rng());
    std::string flipped = seed;
    for (int i = 0; i < 200; i++) flipped[rng() % flipped.size()] = static_cast<char>(rng());
    struct {
        const char* name;
        std::string core;
        const char* expect;  // in the report
        bool hold = false;   // the stream stays open: the time limit ends it
    } rows[] = {{"empty", "", "not a 64-bit little-endian ELF core"},
                {"never ends", seed.substr(0, 400), "time limit reached while reading", true},
                {"header only", seed.substr(0, 64), "cut in its program headers"},
                {"cut in the notes", seed.substr(0, 400), "cut in its notes"},
                {"cut in the stack", seed.substr(0, seed.size() - 100), "cut in its memory"},
                {"random bytes", noise, "not a 64-bit little-endian ELF core"},
                {"bytes flipped", flipped, "core: "}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(system(("rm -rf " + store + " " + store + ".lock " + store + ".rate").c_str()), 0);
        std::string in = dir.write("in", row.core), err = dir.path() + "/err";
        int st = run({VIREO_CRASH, "-c", conf, std::to_string(getpid()), std::to_string(getpid()),
                      "11", "1700000000", "test"},
                     in, err, row.hold);
        ASSERT_TRUE(WIFEXITED(st)) << "handler ended by signal " << WTERMSIG(st);
        EXPECT_EQ(WEXITSTATUS(st), 0) << read_text_file(err);
        auto all = reports(store);
        ASSERT_EQ(all.size(), 1u);
        std::string text = read_text_file(all[0]);
        EXPECT_NE(text.find(row.expect), std::string::npos) << text;
        EXPECT_NE(text.find("pid: " + std::to_string(getpid()) + "\n"), std::string::npos);
    }
}

// The service's group may write the store: what it leaves there (a link,
// a hard link, a fifo or a folder at the names a handler might use) is
// never written through or waited on, and a lock held elsewhere delays a
// report instead of losing it.
TEST_F(crash_test, planted_entries_and_a_held_lock_lose_no_report) {
    write_conf("time-limit-s = 5\nrate-per-hour = 5\n");
    const std::string pid = std::to_string(getpid()), outside = dir.path() + "/outside";
    const char* kinds[] = {"symlink", "hard link", "fifo", "folder", "lock held"};
    for (const char* kind : kinds) {
        for (const char* name : {".tmp-1700000000-PID.txt", ".rate.tmp", ".rate", ".lock"}) {
            SCOPED_TRACE(std::string(name) + " " + kind);
            ASSERT_EQ(system(("rm -rf " + store + " " + store + ".lock " + store + ".rate").c_str()), 0);
            mkdir(store.c_str(), 0700);
            dir.write("outside", "outside\n");
            std::string at = store + "/" + std::regex_replace(name, std::regex("PID"), pid);
            int held = -1;
            if (kind == kinds[4]) {
                held = open((store + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                ASSERT_EQ(flock(held, LOCK_EX), 0);
            } else {
                int rc = kind == kinds[0]   ? symlink(outside.c_str(), at.c_str())
                         : kind == kinds[1] ? link(outside.c_str(), at.c_str())
                         : kind == kinds[2] ? mkfifo(at.c_str(), 0600)
                                            : mkdir(at.c_str(), 0700);
                ASSERT_EQ(rc, 0);
            }
            std::string err = dir.path() + "/err";
            int st = run({VIREO_CRASH, "-c", conf, pid, pid, "11", "1700000000", "test"},
                         VIREO_CRASH_SEED, err, false);
            if (held >= 0)
                close(held);
            ASSERT_TRUE(WIFEXITED(st)) << "handler ended by signal " << WTERMSIG(st);
            EXPECT_EQ(reports(store).size(), 1u) << read_text_file(err);
            EXPECT_EQ(read_text_file(outside), "outside\n");
            if (kind == kinds[4])
                break;  // one name is enough
        }
    }
}

// The plug-in in the real daemon with CURVE keys: "reader" may use the
// reading group 0x40 only, "admin" the deleting group 0x41 too.
TEST_F(crash_test, list_fetch_delete_with_rights_per_key_and_hostile_ids) {
    char spub[41], ssec[41], rpub[41], rsec[41], apub[41], asec[41];
    zmq_curve_keypair(spub, ssec);
    zmq_curve_keypair(rpub, rsec);
    zmq_curve_keypair(apub, asec);
    std::string d = dir.path(), lib = d + "/libvireo_crash.so";
    ASSERT_EQ(symlink(VIREO_CRASH_PLUGIN, lib.c_str()), 0);
    write_conf("");
    mkdir(store.c_str(), 0700);
    std::string big(20000, 'x');
    dir.write("store/1700000000-10.txt",
              "vireo-crash report 1\ntime: 1700000000\nexecutable: /bin/a\nsignal: 11 SIGSEGV\n");
    dir.write(
        "store/1700000001-11.txt",
        "vireo-crash report 1\ntime: 1700000001\nexecutable: /bin/b\nsignal: 6 SIGABRT\n" + big);
    dir.write("secret.txt", "not a report");
    ASSERT_EQ(symlink((d + "/secret.txt").c_str(), (store + "/1700000002-12.txt").c_str()), 0);
    int port = free_port();
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    // clang-format off
    dir.write("read.json", R"({"cmd-list": [{"name": "list", "id": "1", "type": "custom", "lib": ")" + lib + R"(", "symbols": "crash_list"},
        {"name": "fetch", "id": "2", "type": "custom", "lib": ")" + lib + R"(", "symbols": "crash_fetch"}]})");
    dir.write("delete.json", R"({"cmd-list": [{"name": "delete", "id": "1", "type": "custom", "lib": ")" + lib + R"(", "symbols": "crash_delete"}]})");
    dir.write("server.key", std::string(ssec) + "\n");
    dir.write("keys", std::string(rpub) + " reader 0x40\n" + apub + " admin 0x40,0x41\n");
    dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [
        {"class": "crash", "code": "40", "config": ")" + d + R"(/read.json"}, {"class": "crash-delete", "code": "41", "config": ")" + d + R"(/delete.json"}],
        "security": {"secret-key": ")" + d + R"(/server.key", "authorized-keys": ")" + d + R"(/keys"}})");
    // clang-format on
    daemon_process daemon({"-c", d + "/main.json"});
    // The reply's msg_len and whole payload (packets joined), or -1000 when
    // nothing came.
    auto ask = [&](const char* pub, const char* sec, uint32_t code, uint32_t sub,
                   const std::string& id) {
        void *ctx = zmq_ctx_new(), *sock = zmq_socket(ctx, ZMQ_REQ);
        int ms = 3000, zero = 0;
        zmq_setsockopt(sock, ZMQ_RCVTIMEO, &ms, sizeof ms);
        zmq_setsockopt(sock, ZMQ_LINGER, &zero, sizeof zero);
        zmq_setsockopt(sock, ZMQ_CURVE_SERVERKEY, spub, 40);
        zmq_setsockopt(sock, ZMQ_CURVE_PUBLICKEY, pub, 40);
        zmq_setsockopt(sock, ZMQ_CURVE_SECRETKEY, sec, 40);
        zmq_connect(sock, endpoint.c_str());
        std::pair<int, std::string> out{-1000, ""};
        bytes req = make_request(code, sub, bytes(id.begin(), id.end())), part(8192 + 48);
        int more = zmq_send(sock, req.data(), req.size(), 0) == static_cast<int>(req.size());
        size_t more_len = sizeof more;
        while (more) {
            int n = zmq_recv(sock, part.data(), part.size(), 0);
            if (n < 0)
                break;
            reply_view v = parse_reply(bytes(part.begin(), part.begin() + n));
            out.first = v.msg_len;
            out.second +=
                v.msg_len > 8192 ? std::string(part.begin() + 44, part.begin() + n) : v.payload;
            zmq_getsockopt(sock, ZMQ_RCVMORE, &more, &more_len);
        }
        zmq_close(sock);
        zmq_ctx_term(ctx);
        out.second.resize(std::min<size_t>(out.second.size(), std::max(out.first, 0)));
        return out;
    };
    for (int i = 0; i < 100 && ask(rpub, rsec, 0x40, 1, "").first == -1000; i++) {
    }
    auto list = ask(rpub, rsec, 0x40, 1, "");
    EXPECT_EQ(
        list.second,
        "1700000000-10\t1700000000\t/bin/a\t11\t0\n1700000001-11\t1700000001\t/bin/b\t6\t0\n");
    auto big_one = ask(rpub, rsec, 0x40, 2, "1700000001-11");
    EXPECT_EQ(big_one.first, 20075);
    EXPECT_EQ(big_one.second.substr(big_one.second.size() - 5), "xxxxx");
    struct {
        const char* who;
        uint32_t code, sub;
        std::string id;
        int expect;
    } rows[] = {{"reader", 0x40, 2, "../secret", -22},
                {"reader", 0x40, 2, d + "/secret.txt", -22},
                {"reader", 0x40, 2, "1700000002-12", -22},
                {"reader", 0x40, 2, "1700000009-1", -2},
                {"reader", 0x40, 2, "", -22},
                {"reader", 0x41, 1, "1700000000-10", -1},
                {"admin", 0x41, 1, "../secret", -22},
                {"admin", 0x41, 1, "1700000002-12", -22},
                {"admin", 0x41, 1, "1700000000-10", 0},
                {"admin", 0x41, 1, "1700000000-10", -2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.who) + " " + std::to_string(row.code) + " " + row.id);
        bool admin = std::string(row.who) == "admin";
        EXPECT_EQ(ask(admin ? apub : rpub, admin ? asec : rsec, row.code, row.sub, row.id).first,
                  row.expect);
    }
    EXPECT_EQ(read_text_file(d + "/secret.txt"), "not a report");
    EXPECT_EQ(ask(rpub, rsec, 0x40, 1, "").second, "1700000001-11\t1700000001\t/bin/b\t6\t0\n");
    // The client finds both groups' codes by class in main.json.
    dir.write("reader.key", std::string(rsec) + "\n");
    dir.write("admin.key", std::string(asec) + "\n");
    dir.write("server.pub", std::string(spub) + "\n");
    const std::string c = "-c " + d + "/main.json --server-key " + d + "/server.pub --key " + d + "/";
    struct {
        std::string args;
        int status;
        std::string out, err;  // out exactly, err a piece of it
    } client_rows[] = {
        {"reader.key crashes --json", 0,
         R"([{"core_bytes":0,"executable":"/bin/b","id":"1700000001-11","signal":6,"signal_name":"SIGABRT","time":1700000001}])"
         "\n", ""},
        {"reader.key crashes", 0,
         "ID                       TIME (UTC)           SIGNAL      EXECUTABLE\n"
         "1700000001-11            2023-11-14T22:13:21Z 6 SIGABRT   /bin/b\n", ""},
        {"reader.key crash 1700000001-11 --raw", 0, read_text_file(store + "/1700000001-11.txt"), ""},
        {"reader.key crash 1700000009-1", 1, "", "no report 1700000009-1 on the board (-2)\n"},
        {"reader.key crash ../secret", 1, "", "not a report id: ../secret (-22)\n"},
        {"reader.key crash 1700000001-11 --delete", 1, "", "(-1)\n"},
        {"admin.key crash 1700000001-11 --delete", 0, "", ""},
        {"admin.key crashes --json", 0, "[]\n", ""}};
    for (const auto& row : client_rows) expect_run(c + row.args, row.status, row.out, row.err);
}

}  // namespace
