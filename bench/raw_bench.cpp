// Raw (markup) samples against named ones, through a running daemon that
// serves probe_sample as 0x30 4, on a target of this program's own:
//
//   vireo-bench-raw ENDPOINT DAEMON_PID walker-cpu   walker CPU per sample of an
//                                                    11-thread target, raw over named:
//                                                    threads idle (names cached after
//                                                    one sample), then busy in 2048
//                                                    functions (new addresses), and
//                                                    the first sample of fresh targets
//   vireo-bench-raw ENDPOINT DAEMON_PID work         the target's work sampled raw at
//                                                    99 Hz over its work unsampled
//   vireo-bench-raw ENDPOINT DAEMON_PID maps         raw samples/s reached at 99 Hz
//                                                    asked, on a target with 64000 mappings
//
// Each prints one JSON line {"kind": "raw", "key", "value", "goal", "note"}.
#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "vireo_client.h"

namespace {

using clock_type = std::chrono::steady_clock;

std::atomic<unsigned long>* work_done = nullptr;

extern "C" __attribute__((noinline)) void raw_bench_idle(int depth) {
    static volatile bool forever = true;
    if (depth > 0)
        return raw_bench_idle(depth - 1);
    while (forever) pause();
}

// A busy C++ program's code, in small: 2048 functions whose names take
// demangling, through which busy threads keep moving, so that a sample
// stops them at addresses a named walk has not seen before.
namespace busy {
template <class T, int N>
struct stage {
    __attribute__((noinline)) static T run(T x) {
        for (int i = 0; i < 64; i++) x = x * 31 + static_cast<T>(N + i);
        return x;
    }
};
using fn = unsigned long (*)(unsigned long);
template <size_t... I>
constexpr std::array<fn, sizeof...(I)> table(std::index_sequence<I...>) {
    return {&stage<unsigned long, static_cast<int>(I)>::run...};
}
const auto stages = table(std::make_index_sequence<2048>());
__attribute__((noinline)) void loop(unsigned seed) {
    unsigned long x = seed;
    for (size_t i = seed;; i = i * 1103515245 + 12345) x = stages[(i >> 8) % stages.size()](x);
}
}  // namespace busy

// Ten threads (idle, eight frames deep, or busy through busy::stages) and
// a main thread that works; with mappings > 0, then that many separate
// mappings (every other page read-only, so that none merge).
pid_t start_target(int mappings, bool busy_threads = false) {
    work_done = static_cast<std::atomic<unsigned long>*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (unsigned i = 0; i < 10; i++)
        std::thread([=] { busy_threads ? busy::loop(i + 1) : raw_bench_idle(8); }).detach();
    if (mappings > 0) {
        size_t page = 4096, len = page * 2 * static_cast<size_t>(mappings);
        auto* p = static_cast<char*>(
            mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t i = 0; p != MAP_FAILED && i < len; i += 2 * page)
            mprotect(p + i, page, PROT_READ);
    }
    for (;;) work_done->fetch_add(1, std::memory_order_relaxed);
}

// CPU nanoseconds of each of the daemon's walker processes (started by any
// of its threads), by pid.
std::map<pid_t, long long> walker_cpu(pid_t daemon) {
    std::map<pid_t, long long> ns;
    std::string all, dir = "/proc/" + std::to_string(daemon) + "/task/";
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::ifstream one(dir + e->d_name + "/children");
            all += std::string(std::istreambuf_iterator<char>(one), {}) + " ";
        }
        closedir(d);
    }
    std::istringstream tasks(all);
    for (pid_t child; tasks >> child;) {
        std::ifstream comm("/proc/" + std::to_string(child) + "/comm"),
            stat("/proc/" + std::to_string(child) + "/schedstat");
        std::string name;
        long long run = 0;
        if (comm >> name && name == "vireo-walker" && stat >> run)
            ns[child] = run;
    }
    return ns;
}

// What walkers alive now have run since before (walkers ended meanwhile
// are lost, so measure before their target ends).
long long walker_cpu_since(pid_t daemon, const std::map<pid_t, long long>& before) {
    long long sum = 0;
    for (auto [pid, ns] : walker_cpu(daemon)) {
        auto it = before.find(pid);
        sum += ns - (it != before.end() ? it->second : 0);
    }
    return sum;
}

struct sampler {
    client_conn conn;
    std::vector<uint8_t> payload;
    sampler(const std::string& ep, pid_t pid, bool raw) : conn(ep, 10000), payload(raw ? 12 : 4) {
        u32_to_u8(static_cast<uint32_t>(pid), payload.data());
        if (raw)
            payload[8] = 1;
        std::string why;
        conn.open(why);
    }
    bool one() {
        client_reply r;
        std::string why;
        return conn.request(0x30, 4, payload, r, why) == 0 && r.header().msg_len >= 0;
    }
};

void emit(const char* key, double value, const char* goal, const std::string& note) {
    value = value == value && value < 1e12 ? value : -1;  // JSON has no NaN
    printf(
        "{\"kind\": \"raw\", \"key\": \"%s\", \"value\": %.3f, \"goal\": \"%s\", \"note\": "
        "\"%s\"}\n",
        key, value, goal, note.c_str());
}

// Samples at hz for seconds (back to back when hz is 0); the count that
// succeeded.
long sample_for(sampler& s, double hz, double seconds) {
    auto start = clock_type::now(), next = start;
    auto stop = start + std::chrono::duration<double>(seconds);
    long ok = 0;
    while (clock_type::now() < stop) {
        ok += s.one() ? 1 : 0;
        if (hz > 0) {
            next += std::chrono::duration_cast<clock_type::duration>(
                std::chrono::duration<double>(1 / hz));
            std::this_thread::sleep_until(next);
        }
    }
    return ok;
}

int walker_cpu_steady(const std::string& ep, pid_t daemon, pid_t target, bool busy_threads) {
    sampler named(ep, target, false), raw(ep, target, true);
    named.one(), raw.one();  // a warm walker, modules loaded, names cached
    long long ns[2] = {0, 0};
    long n[2] = {0, 0};
    for (int round = 0; round < 6; round++) {
        sampler& s = round % 2 ? raw : named;
        auto before = walker_cpu(daemon);
        for (int i = 0; i < 200; i++) n[round % 2] += s.one() ? 1 : 0;
        ns[round % 2] += walker_cpu_since(daemon, before);
    }
    double per[2] = {ns[0] / 1e3 / std::max(n[0], 1L), ns[1] / 1e3 / std::max(n[1], 1L)};
    std::ostringstream note;
    note << "walker CPU per sample: raw " << per[1] << " us, named " << per[0] << " us (" << n[1]
         << " and " << n[0] << " samples, 11 threads, "
         << (busy_threads ? "10 busy through 2048 C++ functions" : "10 idle") << ")";
    emit(busy_threads ? "walker_cpu_raw_over_named_busy" : "walker_cpu_raw_over_named",
         per[1] / per[0], "<= 0.7", note.str());
    return 0;
}

// The first sample of fresh targets, where the named walk loads symbol
// tables and demangles every frame once and the raw one does not.
int walker_cpu_first(const std::string& ep, pid_t daemon) {
    long long ns[2] = {0, 0};
    for (int round = 0; round < 10; round++) {
        pid_t target = start_target(0);
        usleep(100000);
        sampler s(ep, target, round % 2 == 1);
        auto before = walker_cpu(daemon);
        s.one();
        ns[round % 2] += walker_cpu_since(daemon, before);
        kill(target, SIGKILL);
        waitpid(target, nullptr, 0);
    }
    std::ostringstream note;
    note << "first sample of 5 fresh 11-thread targets each: raw " << ns[1] / 5e3 << " us, named "
         << ns[0] / 5e3 << " us of walker CPU";
    emit("walker_cpu_first_sample_raw_over_named", static_cast<double>(ns[1]) / ns[0], "<= 0.7",
         note.str());
    return 0;
}

int work(const std::string& ep, pid_t target) {
    sampler raw(ep, target, true);
    double done[2] = {0, 0};
    for (int round = 0; round < 6; round++) {
        unsigned long before = work_done->load();
        if (round % 2)
            sample_for(raw, 99, 1.0);
        else
            std::this_thread::sleep_for(std::chrono::seconds(1));
        done[round % 2] += static_cast<double>(work_done->load() - before);
    }
    emit("work_sampled_raw_99hz_over_unsampled", done[1] / done[0], ">= 0.9",
         "the target's counter increments in 3 s sampled over 3 s not (alternating 1 s windows)");
    return 0;
}

int maps(const std::string& ep, pid_t target) {
    sampler raw(ep, target, true);
    for (int i = 0; i < 200 && !raw.one(); i++) usleep(50000);  // mapped and walked once
    auto start = clock_type::now();
    long ok = sample_for(raw, 99, 4.0);
    double secs = std::chrono::duration<double>(clock_type::now() - start).count();
    emit("samples_per_s_64k_mappings", ok / secs, ">= 90",
         "raw samples, 99 asked, 4 s, 64000 mappings");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: vireo-bench-raw ENDPOINT DAEMON_PID walker-cpu|work|maps\n");
        return 64;
    }
    std::string ep = argv[1], what = argv[3];
    pid_t daemon = atoi(argv[2]);
    pid_t target = start_target(what == "maps" ? 64000 : 0);
    usleep(200000);
    int rc = what == "walker-cpu"
                 ? walker_cpu_steady(ep, daemon, target, false) + walker_cpu_first(ep, daemon)
             : what == "work" ? work(ep, target)
                              : maps(ep, target);
    kill(target, SIGKILL);
    waitpid(target, nullptr, 0);
    if (what == "walker-cpu") {
        target = start_target(0, true);
        usleep(200000);
        rc += walker_cpu_steady(ep, daemon, target, true);
        kill(target, SIGKILL);
        waitpid(target, nullptr, 0);
    }
    return rc;
}
