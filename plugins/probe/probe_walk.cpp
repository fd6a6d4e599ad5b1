// probe_stack and probe_sample: callstacks walked by the vireo-walker
// program, never inside the daemon. One walker per target process stays
// alive for a while after its last request, so that repeated walks find
// the modules and symbol tables loaded. Every request waits for its walker
// with a deadline; past it the walker is killed (its death detaches every
// thread it holds) and the request answers probe_deadline. A walker that
// dies costs its one request: probe_walker_failed. Walks hold at most
// max-walks of the daemon's five workers; a walk of a process that is
// already being walked shares that walk's answer, or is answered
// probe_busy at once.
#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <json/json.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "wire/probe_codes.h"
#include "probe_common.h"
#include "server_comm.h"
#include "walker_proto.h"

extern char** environ;

namespace {

const char log_tag[] = "vireo-probe";
using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

// --- settings -----------------------------------------------------------------

struct settings {
    int deadline_ms = 2000;  // per request, waiting for the walker included
    int idle_ms = 3000;      // a walker's life after its last request
    int max_idle = 8;        // idle walkers kept at most
    int max_walks = 2;       // workers inside walks at once
    std::string walker;      // the program; empty: found next to the plug-in
    // Who may be walked: every list given must match (empty: anyone).
    std::vector<uid_t> uids;            // every uid of the process
    std::vector<std::string> exes;      // its executable: a path or a "dir/" prefix
    std::vector<std::string> cgroups;   // its cgroup (v2): that one or below it
};

std::string dir_of(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// The plug-in's path as the configuration names it ("lib"), and the file
// it really is (through symbolic links).
void own_paths(std::string& named, std::string& real) {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&own_paths), &info) == 0 || info.dli_fname == nullptr)
        return;
    named = info.dli_fname;
    char buf[PATH_MAX];
    real = realpath(info.dli_fname, buf) != nullptr ? buf : named;
}

// "allow": {"uids": [...], "exes": [...], "cgroups": [...]}. A list of
// the wrong type allows nothing, so that a typing error does not open the
// whole board.
void load_allow(const Json::Value& allow, const std::string& path, settings& s) {
    if (allow.isNull())
        return;
    if (!allow.isObject()) {
        __android_log_print(ANDROID_LOG_ERROR, log_tag, "%s: allow is not an object: nothing allowed",
                            path.c_str());
        s.uids = {static_cast<uid_t>(-1)};
        return;
    }
    auto list = [&](const char* key, auto add) {
        const Json::Value& l = allow[key];
        if (l.isNull())
            return;
        bool ok = l.isArray();
        for (Json::ArrayIndex i = 0; ok && i < l.size(); i++) ok = add(l[i]);
        if (!ok) {
            __android_log_print(ANDROID_LOG_ERROR, log_tag,
                                "%s: allow.%s is not a list of the right kind: nothing allowed",
                                path.c_str(), key);
            s.uids = {static_cast<uid_t>(-1)};
        }
    };
    s.uids.clear();
    list("uids", [&](const Json::Value& e) {
        bool ok = e.isUInt() && e.asUInt() != static_cast<uid_t>(-1);
        if (ok)
            s.uids.push_back(e.asUInt());
        return ok;
    });
    if (allow.isMember("uids") && s.uids.empty())
        s.uids = {static_cast<uid_t>(-1)};  // an empty list allows no uid
    for (auto [key, out] : {std::pair<const char*, std::vector<std::string>*>{"exes", &s.exes},
                            {"cgroups", &s.cgroups}}) {
        list(key, [&](const Json::Value& e) {
            bool ok = e.isString() && e.asString().rfind('/', 0) == 0;
            if (ok)
                out->push_back(e.asString());
            return ok;
        });
        if (allow.isMember(key) && out->empty())
            out->push_back("\n");  // matches no path
    }
}

// probe.conf in the folder the configuration loads the plug-in from, else
// the system one: a JSON object with any of "deadline-ms", "idle-ms",
// "max-idle-walkers", "max-walks", "walker" and "allow". A key that is
// missing or out of range keeps its default.
settings load_settings() {
    settings s;
    std::string named, real;
    own_paths(named, real);
    for (const std::string& path :
         {dir_of(named) + "/probe.conf", std::string(VIREO_PROBE_SYSTEM_CONF)}) {
        std::ifstream in(path);
        if (!in)
            continue;
        Json::CharReaderBuilder rb;
        Json::Value v;
        std::string errs;
        if (!Json::parseFromStream(rb, in, &v, &errs) || !v.isObject()) {
            __android_log_print(ANDROID_LOG_ERROR, log_tag,
                                "%s is not a JSON object, defaults used", path.c_str());
            break;
        }
        auto number = [&](const char* key, int lo, int hi, int& out) {
            if (v[key].isInt() && v[key].asInt() >= lo && v[key].asInt() <= hi)
                out = v[key].asInt();
        };
        number("deadline-ms", 10, 600000, s.deadline_ms);
        number("idle-ms", 0, 3600000, s.idle_ms);
        number("max-idle-walkers", 0, 1000, s.max_idle);
        number("max-walks", 1, 5, s.max_walks);
        if (v["walker"].isString())
            s.walker = v["walker"].asString();
        load_allow(v["allow"], path, s);
        break;
    }
    if (s.walker.empty()) {
        // In the build tree the walker sits next to the plug-in; installed,
        // it is in the library folder, at a fixed place relative to it.
        std::string here = dir_of(real) + "/vireo-walker";
        s.walker =
            access(here.c_str(), X_OK) == 0 ? here : dir_of(real) + "/" VIREO_WALKER_FROM_PLUGIN;
    }
    return s;
}

// Never destroyed, like the pool below: the janitor thread may still run
// while the daemon's exit destroys static objects.
const settings& config() {
    static const settings& s = *new settings(load_settings());
    return s;
}

// --- walker processes -----------------------------------------------------------

struct walker_proc {
    pid_t pid = -1;
    int fd = -1;
};

// SIGKILL, then the exit collected within a second; a walker stuck in the
// kernel longer is collected by the janitor.
void kill_walker(walker_proc& p);

// Starts a walker for target, or a spare one for a target named later
// (target 0).
int spawn_walker(pid_t target, walker_proc& out) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        return -errno;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    // dup2 onto 3 clears close-on-exec, unless the end already is 3.
    int child_end = sv[1] == walker_fd ? fcntl(sv[1], F_DUPFD_CLOEXEC, walker_fd + 1) : sv[1];
    posix_spawn_file_actions_adddup2(&fa, child_end, walker_fd);
    posix_spawn_file_actions_addclosefrom_np(&fa, walker_fd + 1);
    std::string pid_text = std::to_string(target);
    const std::string& path = config().walker;
    char* argv[] = {const_cast<char*>("vireo-walker"), target > 0 ? &pid_text[0] : nullptr,
                    nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, path.c_str(), &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (child_end != sv[1])
        close(child_end);
    close(sv[1]);
    if (rc != 0) {
        close(sv[0]);
        __android_log_print(ANDROID_LOG_ERROR, log_tag, "cannot start %s: %s", path.c_str(),
                            strerror(rc));
        return -EIO;
    }
    out.pid = pid;
    out.fd = sv[0];
    return 0;
}

// Walkers still to be collected after a kill that did not finish at once.
std::mutex& zombies_lock = *new std::mutex;
std::vector<pid_t>& zombies = *new std::vector<pid_t>;

void kill_walker(walker_proc& p) {
    if (p.pid > 0) {
        // The exit is awaited on a pidfd where the kernel has them.
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, p.pid, 0));
        kill(p.pid, SIGKILL);
        auto until = steady::now() + milliseconds(1000);
        bool reaped = false;
        for (;;) {
            int st;
            pid_t r = waitpid(p.pid, &st, WNOHANG);
            if ((reaped = r == p.pid || (r < 0 && errno != EINTR)))
                break;
            auto left = std::chrono::duration_cast<milliseconds>(until - steady::now()).count();
            if (left <= 0)
                break;
            pollfd pf{pidfd, POLLIN, 0};
            if (pidfd < 0 || poll(&pf, 1, static_cast<int>(left)) < 0)
                usleep(1000);
        }
        if (pidfd >= 0)
            close(pidfd);
        if (!reaped) {
            std::lock_guard<std::mutex> hold(zombies_lock);
            zombies.push_back(p.pid);
        }
    }
    if (p.fd >= 0)
        close(p.fd);
    p = walker_proc{};
}

// One request and its reply within the deadline. 0 with status and text,
// -ETIME when the deadline passed, -EPIPE when the walker was gone before
// the request, -EIO when it died or spoke nonsense during it.
int exchange(walker_proc& p, const walker_request& req, steady::time_point deadline,
             walker_reply& rep, std::string& text) {
    if (send(p.fd, &req, sizeof req, MSG_NOSIGNAL | MSG_DONTWAIT) !=
        static_cast<ssize_t>(sizeof req)) {
        return -EPIPE;
    }
    return walker_read_reply(p.fd, deadline, rep, text);
}

// --- the pool: one walker per target, one request per target at a time ---------

struct slot {
    bool busy = false;
    walker_request req{};  // the walk in progress
    uint64_t walks = 0;    // walks ended
    int waiters = 0;       // requests waiting to share the walk's answer
    int rc = 0;            // the last walk's answer, kept while some wait
    std::shared_ptr<const std::string> text;
    walker_proc idle;  // pid -1: none kept
    steady::time_point last;
};

std::mutex& pool_lock = *new std::mutex;
std::condition_variable& pool_changed = *new std::condition_variable;
std::unordered_map<pid_t, slot>& pool =
    *new std::unordered_map<pid_t, slot>;  // guarded by pool_lock
// A walker started ahead, bound to the next new target: a program start
// and libdw's loading cost more than most walks. Guarded by pool_lock.
walker_proc spare;
bool spare_wanted = false;

// Walkers idle past idle-ms are ended, and killed walkers collected, by a
// thread of the plug-in's own, so that nothing waits for the next request.
void janitor() {
    for (;;) {
        std::vector<walker_proc> expired;
        {
            std::unique_lock<std::mutex> hold(pool_lock);
            pool_changed.wait_for(hold, milliseconds(std::max(config().idle_ms / 2, 50)));
            auto now = steady::now();
            for (auto it = pool.begin(); it != pool.end();) {
                slot& s = it->second;
                if (s.idle.pid > 0 && now - s.last >= milliseconds(config().idle_ms)) {
                    expired.push_back(s.idle);
                    s.idle = walker_proc{};
                }
                bool unused = !s.busy && s.idle.pid < 0 && s.waiters == 0;
                it = unused ? pool.erase(it) : std::next(it);
            }
        }
        for (walker_proc& p : expired) kill_walker(p);
        bool start_spare;
        {
            std::lock_guard<std::mutex> hold(pool_lock);
            start_spare = spare_wanted && spare.pid < 0;
        }
        walker_proc p;
        if (start_spare) {
            // A walker that cannot start is tried again after the next walk.
            bool started = spawn_walker(0, p) == 0;
            std::lock_guard<std::mutex> hold(pool_lock);
            spare = p;
            spare_wanted = started;
        }
        std::lock_guard<std::mutex> hold(zombies_lock);
        for (auto it = zombies.begin(); it != zombies.end();) {
            int st;
            it = waitpid(*it, &st, WNOHANG) == 0 ? std::next(it) : zombies.erase(it);
        }
    }
}

enum { turn_ours = 0, turn_shared = 1 };

// Takes the turn for target (a thread accepts one tracer), never waiting
// for it: turn_ours with target's idle walker, if any. When the same walk is
// already running, waits at most until deadline for its answer
// (turn_shared, with rc and text), else -ETIME; when another walk of
// target runs, -EBUSY at once.
int take_turn(pid_t target, const walker_request& req, steady::time_point deadline,
              walker_proc& idle, int& rc, std::shared_ptr<const std::string>& text) {
    static std::once_flag started;
    std::call_once(started, [] { std::thread(janitor).detach(); });
    std::unique_lock<std::mutex> hold(pool_lock);
    slot& s = pool[target];  // stays in place: a slot with waiters is not erased
    if (!s.busy) {
        s.busy = true;
        s.req = req;
        idle = s.idle;
        s.idle = walker_proc{};
        return turn_ours;
    }
    if (s.req.op != req.op || s.req.tid != req.tid || s.req.flags != req.flags)
        return -EBUSY;
    uint64_t seen = s.walks;
    s.waiters++;
    bool ended = pool_changed.wait_until(hold, deadline, [&] { return s.walks != seen; });
    if (ended) {
        rc = s.rc;
        text = s.text;
    }
    if (--s.waiters == 0)
        s.text.reset();  // the last to share it: the slot keeps no reply text
    return ended ? turn_shared : -ETIME;
}

// Ends the turn, keeping p (when it has a pid) as target's idle walker and
// the walk's answer for the requests that wait for it. The least recently
// used idle walkers beyond max-idle-walkers are ended.
void end_turn(pid_t target, walker_proc p, int rc, const std::string& text) {
    std::vector<walker_proc> evicted;
    {
        std::lock_guard<std::mutex> hold(pool_lock);
        slot& s = pool[target];
        s.busy = false;
        s.walks++;
        s.rc = rc;
        s.text = s.waiters > 0 ? std::make_shared<const std::string>(text) : nullptr;
        s.idle = p;
        s.last = steady::now();
        for (;;) {
            int idle = 0;
            slot* oldest = nullptr;
            for (auto& e : pool) {
                if (e.second.idle.pid < 0)
                    continue;
                idle++;
                if (oldest == nullptr || e.second.last < oldest->last)
                    oldest = &e.second;
            }
            if (idle <= config().max_idle)
                break;
            evicted.push_back(oldest->idle);
            oldest->idle = walker_proc{};
        }
    }
    pool_changed.notify_all();
    for (walker_proc& e : evicted) kill_walker(e);
}

// A walker for target: the spare one when it is ready, else a new one.
int start_walker(pid_t target, walker_proc& p) {
    {
        std::lock_guard<std::mutex> hold(pool_lock);
        p = spare;
        spare = walker_proc{};
        spare_wanted = true;
    }
    pool_changed.notify_all();  // the janitor starts the next spare
    walker_request bind{walker_bind, target, 0};
    if (p.pid > 0 && send(p.fd, &bind, sizeof bind, MSG_NOSIGNAL | MSG_DONTWAIT) == sizeof bind)
        return 0;
    kill_walker(p);
    return spawn_walker(target, p);
}

// Workers inside walks now, shared walks included: at most max-walks, so
// that the daemon's other commands always find a worker.
std::atomic<int> walking{0};

struct walk_admission {
    bool in = walking.fetch_add(1) < config().max_walks;
    ~walk_admission() { walking.fetch_sub(1); }
};

// Milliseconds since the daemon received c's request (by its receive stamp).
long request_age_ms(comm_data* c) {
    timeval now;
    gettimeofday(&now, nullptr);
    const timeval& got = c->recv_data->time;
    long ms = (now.tv_sec - got.tv_sec) * 1000L + (now.tv_usec - got.tv_usec) / 1000;
    return std::max(ms, 0L);  // a clock set back
}

// One walk of the request's target; the reply text in text.
int walk(comm_data* c, walker_op op, std::string& text) {
    probe_args args;
    int rc = probe_target(c, args);
    if (rc != 0)
        return rc;
    walk_admission admitted;
    if (!admitted.in)
        return -EBUSY;
    // The deadline runs from the request's arrival: a request older than
    // that has a client that has given up, and is not walked.
    long left_ms = config().deadline_ms - request_age_ms(c);
    if (left_ms <= 0)
        return -ECANCELED;
    auto deadline = steady::now() + milliseconds(left_ms);
    // A thread that does not stop within half the time left is reported in
    // its place, so that the other threads' stacks still come back.
    if (args.flags & probe_flag_raw)
        op = op == walker_stack ? walker_stack_raw : walker_sample_raw;
    walker_request req{
        op, args.tid, static_cast<int32_t>(std::clamp(left_ms / 2, 1L, 1000L)),
        walker_op_sample(op) && (args.flags & probe_flag_state) ? walker_flag_state : 0u};
    walker_proc p;
    std::shared_ptr<const std::string> shared;
    int shared_rc = 0;
    rc = take_turn(args.pid, req, deadline, p, shared_rc, shared);
    if (rc == turn_shared) {
        text = shared != nullptr ? *shared : std::string();
        return shared_rc;
    }
    if (rc != turn_ours)
        return rc;
    walker_reply rep{};
    bool fresh = p.pid < 0;
    for (;;) {
        if (p.pid < 0) {
            fresh = true;
            rc = start_walker(args.pid, p);
            if (rc != 0)
                break;
        }
        rc = exchange(p, req, deadline, rep, text);
        // A kept walker that died while idle: a fresh one takes the request.
        if (rc != -EPIPE || fresh)
            break;
        kill_walker(p);
    }
    if (rc == -EPIPE)
        rc = -EIO;
    if (rc == -ETIME) {
        __android_log_print(ANDROID_LOG_ERROR, log_tag,
                            "walk of pid %d passed its deadline of %d ms", args.pid,
                            config().deadline_ms);
    } else if (rc == -EIO) {
        __android_log_print(ANDROID_LOG_ERROR, log_tag, "walker of pid %d ended during the walk",
                            args.pid);
    }
    // A walker is kept only after a clean answer about a live process, and
    // when it is not ending.
    if (rc != 0 || rep.status == -ESRCH || rep.ending != 0)
        kill_walker(p);
    rc = rc != 0 ? rc : rep.status;
    end_turn(args.pid, p, rc, text);
    return rc;
}

// A path equal to rule, or below it: rule is a folder, or ends with '/'.
bool path_matches(const std::string& path, const std::vector<std::string>& rules) {
    for (const std::string& r : rules) {
        if (path.compare(0, r.size(), r) == 0 &&
            (path.size() == r.size() || r.back() == '/' || path[r.size()] == '/'))
            return true;
    }
    return false;
}

}  // namespace

int probe_allowed(pid_t pid) {
    const settings& s = config();
    std::string proc = "/proc/" + std::to_string(pid), text;
    if (!s.uids.empty()) {
        // Real, effective, saved and file-system uid: all must be allowed, so
        // that a set-user-id program run by an allowed user is not.
        probe_read_file(proc + "/status", text);
        size_t at = text.find("\nUid:");
        unsigned long id[4];
        if (at == std::string::npos ||
            sscanf(text.c_str() + at + 5, "%lu %lu %lu %lu", &id[0], &id[1], &id[2], &id[3]) != 4)
            return -EPROTONOSUPPORT;
        for (unsigned long u : id) {
            if (std::find(s.uids.begin(), s.uids.end(), static_cast<uid_t>(u)) == s.uids.end())
                return -EPROTONOSUPPORT;
        }
    }
    if (!s.exes.empty()) {
        char buf[PATH_MAX];
        ssize_t n = readlink((proc + "/exe").c_str(), buf, sizeof buf - 1);
        if (n <= 0 || !path_matches(std::string(buf, static_cast<size_t>(n)), s.exes))
            return -EPROTONOSUPPORT;
    }
    if (!s.cgroups.empty()) {
        // The unified hierarchy's line: "0::/path".
        probe_read_file(proc + "/cgroup", text);
        size_t at = text.rfind("0::/", 0) == 0 ? 0 : text.find("\n0::/");
        if (at == std::string::npos)
            return -EPROTONOSUPPORT;
        at = text.find('/', at);
        size_t end = text.find('\n', at);
        if (!path_matches(text.substr(at, end == std::string::npos ? end : end - at), s.cgroups))
            return -EPROTONOSUPPORT;
    }
    return 0;
}

// One "Thread TID (name):" line per thread, then its frames from the
// innermost: "#N  0xPC in function+0xOFF (module)".
PROBE_EXPORT int probe_stack(comm_data* c) {
    std::string text;
    int rc = walk(c, walker_stack, text);
    return probe_status(rc != 0 ? rc : probe_reply(c, text.data(), text.size()));
}

// One line per thread: tid, name, microseconds stopped, and the frames
// root first as "frame;frame;...;leaf", separated by tabs.
PROBE_EXPORT int probe_sample(comm_data* c) {
    std::string text;
    int rc = walk(c, walker_sample, text);
    return probe_status(rc != 0 ? rc : probe_reply(c, text.data(), text.size()));
}
