// vireo-crash: the kernel's core_pattern pipe handler. Started as
//   |/usr/lib/<triplet>/vireo-monitor/vireo-crash [-c CONF] %P %i %s %t %e
// with the core on standard input, it writes one text report into the
// store (and, when configured, a stack-only core), within the limits of
// crash.conf. Runs as root with RLIMIT_CORE 1, which the kernel takes as
// "never pipe this process's own core": a crash here cannot recurse.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "crash_conf.h"
#include "crash_core.h"
#include "crash_report.h"
#include "crash_store.h"
#include "crash_unwind.h"

namespace {

struct args {
    std::string conf = VIREO_CRASH_SYSTEM_CONF;
    int pid = 0, tid = 0, sig = 0;
    int64_t time = 0;
    std::string comm;
};

int parse_args(int argc, char** argv, args& a) {
    int i = 1;
    if (i + 1 < argc && strcmp(argv[i], "-c") == 0) {
        a.conf = argv[i + 1];
        i += 2;
    }
    if (argc - i < 4)
        return -EINVAL;
    a.pid = atoi(argv[i]);
    a.tid = atoi(argv[i + 1]);
    a.sig = atoi(argv[i + 2]);
    a.time = strtoll(argv[i + 3], nullptr, 10);
    a.comm = argc - i > 4 ? argv[i + 4] : "";
    return a.pid > 0 ? 0 : -EINVAL;
}

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Standard input, read no later than the deadline.
struct timed_stdin {
    int64_t deadline;
    bool late = false;
};

ssize_t read_stdin(void* ctx, void* buf, size_t n) {
    auto* in = static_cast<timed_stdin*>(ctx);
    for (;;) {
        int64_t left = in->deadline - now_ms();
        pollfd p{0, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) == 0) {
            in->late = true;
            return -1;
        }
        ssize_t r = read(0, buf, n);
        if (r < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        return r;
    }
}

std::string gzip(const std::string& in) {
    z_stream z{};
    if (deflateInit2(&z, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return {};
    std::string out(deflateBound(&z, in.size()) + 32, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    int rc = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return rc == Z_STREAM_END ? out : std::string();
}

// Descriptors 1 and 2 may be closed when the kernel starts us: a file opened
// later must never become one of them.
void guard_std_fds() {
    for (int fd = 1; fd <= 2; fd++)
        if (fcntl(fd, F_GETFD) < 0) {
            int n = open("/dev/null", O_RDWR);
            if (n >= 0 && n != fd) {
                dup2(n, fd);
                close(n);
            }
        }
}

int make_dirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); i++)
        if (i == path.size() || path[i] == '/')
            if (mkdir(path.substr(0, i).c_str(), 0750) != 0 && errno != EEXIST)
                return -errno;
    return 0;
}

// The store's lock, or -errno after a log line: a report goes on without
// it (at worst the limits are passed by one report for a moment).
int locked(const std::string& store) {
    int fd = crash_store_lock(store);
    if (fd < 0)
        syslog(LOG_WARNING, "store %s not locked: %s; going on without", store.c_str(),
               strerror(-fd));
    return fd;
}

int store_report(const crash_conf& conf, const args& a, crash_info& info, const core_data& core,
                 int64_t deadline) {
    std::string image = core_build(core, 0);
    int left = static_cast<int>(deadline - now_ms());
    std::string frames;
    if (core.threads.empty())
        frames = "frames: none (no thread in the core)\n";
    else
        crash_unwind(core, image, info.exe, a.tid, left > 1000 ? left : 1000, frames);
    std::string core_gz;
    if (conf.core_stack_bytes > 0 && !core.threads.empty())
        core_gz = gzip(core_build(core, conf.core_stack_bytes));
    int lock = locked(conf.store);
    info.id = crash_store_new_id(conf.store, a.time, a.pid);
    std::string text = crash_report_text(info, core, frames);
    int rc = crash_store_write(conf.store, info.id, ".txt", text);
    if (rc == 0 && !core_gz.empty() &&
        crash_store_write(conf.store, info.id, ".core.gz", core_gz) != 0)
        syslog(LOG_ERR, "stack-only core of %s not written", info.id.c_str());
    int dropped =
        rc == 0 ? crash_store_trim(conf.store, conf.max_reports, conf.max_total_bytes, info.id) : 0;
    crash_store_unlock(lock);
    if (rc != 0) {
        syslog(LOG_ERR, "report of pid %d not written in %s: %s", a.pid, conf.store.c_str(),
               strerror(-rc));
        return 1;
    }
    syslog(LOG_INFO, "report %s: %s, pid %d, signal %d, %zu bytes, %d older dropped",
           info.id.c_str(), info.exe.c_str(), a.pid, core.sig_no ? core.sig_no : a.sig, text.size(),
           dropped);
    return 0;
}

int run(const args& a, const crash_conf& conf) {
    int64_t deadline = now_ms() + conf.time_limit_s * 1000;
    crash_info info;
    info.pid = a.pid;
    info.tid = a.tid;
    info.sig = a.sig;
    info.time = a.time;
    info.comm = a.comm;
    crash_read_proc(a.pid, info);  // before the core: /proc/PID ends with the dump
    if (make_dirs(conf.store) != 0) {
        syslog(LOG_ERR, "store %s cannot be made: %s", conf.store.c_str(), strerror(errno));
        return 1;
    }
    int lock = locked(conf.store);
    bool allowed = crash_rate_allow(conf.store, info.exe, a.time, conf.rate_per_hour);
    crash_store_unlock(lock);
    if (!allowed) {
        syslog(LOG_NOTICE, "crash of %s (pid %d) not kept: %d reports in the last hour",
               info.exe.c_str(), a.pid, conf.rate_per_hour);
        return 0;
    }
    core_limits lim;
    lim.read_limit = conf.core_read_limit;
    lim.stack_bytes = std::max(conf.unwind_stack_bytes, conf.core_stack_bytes);
    lim.max_threads = conf.max_threads;
    core_data core;
    timed_stdin in{deadline};
    int rc = core_read(read_stdin, &in, lim, core);
    close(0);  // the kernel is done with us: the rest of the core is never read
    if (in.late)
        core.problem = "time limit reached while reading";
    if (rc != 0)
        syslog(LOG_WARNING, "core of pid %d refused: %s (%llu bytes read)", a.pid,
               core.problem.c_str(), static_cast<unsigned long long>(core.bytes_read));
    return store_report(conf, a, info, core, deadline);
}

}  // namespace

int main(int argc, char** argv) {
    // RLIMIT_CORE 1 is what stops the kernel from piping our own core to a
    // second handler; 0 would not (pipes ignore the size).
    rlimit one{1, 1};
    setrlimit(RLIMIT_CORE, &one);
    guard_std_fds();
    openlog("vireo-crash", LOG_PID | LOG_PERROR, LOG_DAEMON);
    args a;
    if (parse_args(argc, argv, a) != 0) {
        syslog(LOG_ERR, "usage: vireo-crash [-c CONF] PID TID SIGNAL TIME [COMM]");
        return 2;
    }
    if (a.time <= 0)
        a.time = time(nullptr);
    crash_conf conf;
    std::string err;
    if (crash_conf_load(a.conf, conf, err) != 0)
        syslog(LOG_ERR, "%s cannot be read, defaults used", a.conf.c_str());
    if (!err.empty())
        syslog(LOG_WARNING, "%s", err.c_str());
    // A hard stop past twice the limit, whatever hangs.
    signal(SIGALRM, SIG_DFL);
    alarm(static_cast<unsigned>(conf.time_limit_s * 2 + 1));
    return run(a, conf);
}
