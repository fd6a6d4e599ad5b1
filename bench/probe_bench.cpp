// Measures the probe plug-in through a running daemon against a target of
// its own (the same program in "target" mode), and eu-stack on that target:
//
//   vireo-bench-probe ENDPOINT [SECONDS]
//
// prints RESULT lines, one per measure (bench/probe turns them into the
// report):
//   samples_per_s   back-to-back probe_sample requests on an 11-thread target
//   held_us_p50     median time a sample keeps one thread stopped (and p90)
//   walk_ms_p50     median probe_stack round trip, 20 walks, interleaved with
//   eustack_ms_p50  eu-stack -p on the same target
//   work_ratio      the target's work per second while sampled at 50 Hz over
//                   its rate unsampled (medians of alternating windows); on
//                   a loaded machine the scheduler's share dominates it, so
//   work_ratio_cpu  the same per CPU second of the working thread
// or, with --threads N,N,..., only "RESULT walk_ms_threads N MS": the median
// of 10 probe_stack walks of a target with N threads, for each N.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vireo_client.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) {
    return std::chrono::duration<double>(clock_type::now() - t).count();
}

double median(std::vector<double> v, double q = 0.5) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1))];
}

// --- the target ---------------------------------------------------------------

std::atomic<unsigned long>* work_done = nullptr;

extern "C" __attribute__((noinline)) void* bench_idle(void* depth) {
    static volatile bool forever = true;
    if (auto left = reinterpret_cast<uintptr_t>(depth); left > 0) {
        return bench_idle(reinterpret_cast<void*>(left - 1));
    }
    while (forever) pause();
    return nullptr;
}

extern "C" __attribute__((noinline)) unsigned long bench_unit(unsigned long seed) {
    for (int i = 0; i < 2000; i++) {
        seed = seed * 6364136223846793005ul + 1442695040888963407ul;
        asm volatile("" : "+r"(seed));  // one step at a time, not folded
    }
    return seed;
}

// THREADS-1 threads ten calls deep in pause(), and a main thread counting
// units of work into the shared counter.
int run_target(int threads) {
    for (int i = 1; i < threads; i++) {
        pthread_t t;
        pthread_create(&t, nullptr, bench_idle, reinterpret_cast<void*>(10));
    }
    unsigned long seed = 1;
    for (;;) {
        seed = bench_unit(seed);
        work_done->fetch_add(1, std::memory_order_relaxed);
    }
}

pid_t start_target(int threads) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(run_target(threads));
    return pid;
}

// --- measures -----------------------------------------------------------------

struct probe_client {
    client_conn conn;
    explicit probe_client(const std::string& ep) : conn(ep, 10000) {}
    // The reply text, or empty on an error (reported).
    std::string ask(uint32_t sub, pid_t pid) {
        std::vector<uint8_t> payload(4);
        u32_to_u8(static_cast<uint32_t>(pid), payload.data());
        client_reply r;
        std::string why;
        int rc = conn.request(0x30, sub, payload, r, why);
        if (rc != 0 || r.header().msg_len < 0) {
            fprintf(stderr, "probe bench: request %u: %s %d\n", sub, why.c_str(),
                    r.header().msg_len);
            return "";
        }
        return r.payload;
    }
};

// The third tab-separated field of every sample line: microseconds held.
void held_times(const std::string& text, std::vector<double>& out) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        size_t t1 = text.find('\t', at),
               t2 = t1 == std::string::npos ? t1 : text.find('\t', t1 + 1);
        if (t2 != std::string::npos && t2 < end)
            out.push_back(atof(text.c_str() + t2 + 1));
        at = end + 1;
    }
}

double eu_stack_ms(pid_t target) {
    auto t = clock_type::now();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        std::string p = std::to_string(target);
        execlp("eu-stack", "eu-stack", "-p", p.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    if (!WIFEXITED(st) || WEXITSTATUS(st) == 127)
        return -1;
    return seconds_since(t) * 1000;
}

// CPU seconds the target's working thread (its main thread) has used.
double cpu_seconds(pid_t target) {
    std::string path =
        "/proc/" + std::to_string(target) + "/task/" + std::to_string(target) + "/stat";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr)
        return 0;
    char buf[1024] = "";
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    buf[n] = 0;
    const char* p = strrchr(buf, ')');
    unsigned long ut = 0, st = 0;
    // After the name: state and 10 fields, then utime and stime.
    if (p == nullptr ||
        sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &st) != 2)
        return 0;
    return static_cast<double>(ut + st) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct work {
    double per_s;    // units of work per wall-clock second
    double per_cpu;  // units per CPU second of the working thread
};

// The target's work over secs, while a thread samples it at rate Hz (0:
// not sampled).
work work_rate(const std::string& ep, pid_t target, double secs, double rate) {
    std::atomic<bool> stop{false};
    std::thread sampler([&] {
        if (rate <= 0)
            return;
        probe_client c(ep);
        auto next = clock_type::now();
        auto period = std::chrono::duration_cast<clock_type::duration>(
            std::chrono::duration<double>(1 / rate));
        while (!stop) {
            c.ask(4, target);
            next += period;
            std::this_thread::sleep_until(next);
        }
    });
    unsigned long before = work_done->load();
    double cpu = cpu_seconds(target);
    auto t = clock_type::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(secs));
    auto units = static_cast<double>(work_done->load() - before);
    work w{units / seconds_since(t), units / std::max(cpu_seconds(target) - cpu, 1e-3)};
    stop = true;
    sampler.join();
    return w;
}

int walks_by_threads(const std::string& ep, const char* list) {
    probe_client c(ep);
    for (const char* p = list; *p != 0;) {
        char* end = nullptr;
        long n = strtol(p, &end, 10);
        if (end == p || n < 1 || n > 1000)
            return 64;
        pid_t target = start_target(static_cast<int>(n));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        c.ask(2, target);  // the walker starts and loads the symbols once
        std::vector<double> ms;
        for (int i = 0; i < 10; i++) {
            auto w = clock_type::now();
            if (c.ask(2, target).empty())
                break;
            ms.push_back(seconds_since(w) * 1000);
        }
        printf("RESULT walk_ms_threads %ld %.2f\n", n, median(ms));
        fflush(stdout);
        kill(target, SIGKILL);
        waitpid(target, nullptr, 0);
        p = *end == ',' ? end + 1 : end;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: vireo-bench-probe ENDPOINT [SECONDS]\n");
        return 64;
    }
    std::string ep = argv[1];
    double secs = argc > 2 ? atof(argv[2]) : 3;
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    work_done = new (shared) std::atomic<unsigned long>(0);
    if (argc > 4 && strcmp(argv[3], "--threads") == 0)
        return walks_by_threads(ep, argv[4]);
    pid_t target = start_target(11);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    probe_client c(ep);
    c.ask(4, target);  // the walker starts and loads the symbols once

    // Samples back to back.
    std::vector<double> held;
    long samples = 0;
    auto t = clock_type::now();
    while (seconds_since(t) < secs) {
        std::string s = c.ask(4, target);
        if (s.empty())
            break;
        held_times(s, held);
        samples++;
    }
    double elapsed = seconds_since(t);
    printf("RESULT samples_per_s %.1f (%ld samples of 11 threads in %.1f s)\n", samples / elapsed,
           samples, elapsed);
    printf("RESULT held_us_p50 %.0f (p90 %.0f, %zu thread stops)\n", median(held),
           median(held, 0.9), held.size());

    // Single walks against eu-stack, interleaved.
    std::vector<double> ours, theirs;
    for (int i = 0; i < 20; i++) {
        auto w = clock_type::now();
        if (c.ask(2, target).empty())
            break;
        ours.push_back(seconds_since(w) * 1000);
        double e = eu_stack_ms(target);
        if (e >= 0)
            theirs.push_back(e);
    }
    std::vector<double> in_a_row;
    for (int i = 0; i < 20; i++) {
        auto w = clock_type::now();
        if (c.ask(2, target).empty())
            break;
        in_a_row.push_back(seconds_since(w) * 1000);
    }
    printf("RESULT walk_ms_p50 %.2f (%.2f ms back to back)\n", median(ours), median(in_a_row));
    if (theirs.empty()) {
        printf("RESULT eustack_ms_p50 n/a (eu-stack not found: install elfutils)\n");
    } else {
        printf("RESULT eustack_ms_p50 %.2f (%.1fx our walk)\n", median(theirs),
               median(theirs) / median(ours));
    }

    // The target's own work, sampled at 50 Hz against not sampled, in short
    // alternating windows so that both meet the same machine noise.
    std::vector<double> plain, sampled, plain_cpu, sampled_cpu;
    for (int i = 0; i < std::max(6, static_cast<int>(secs * 2)); i++) {
        work p = work_rate(ep, target, 0.5, 0), s = work_rate(ep, target, 0.5, 50);
        plain.push_back(p.per_s);
        sampled.push_back(s.per_s);
        plain_cpu.push_back(p.per_cpu);
        sampled_cpu.push_back(s.per_cpu);
    }
    printf(
        "RESULT work_ratio %.3f (median of %zu half-second windows each, %.3g and %.3g units/s)\n",
        median(sampled) / median(plain), plain.size(), median(sampled), median(plain));
    printf("RESULT work_ratio_cpu %.3f (units per CPU second of the working thread)\n",
           median(sampled_cpu) / median(plain_cpu));
    kill(target, SIGKILL);
    waitpid(target, nullptr, 0);
    return 0;
}
