// probe_stack: the user-space callstack of one thread or of every thread of
// a process, walked with libdw and symbolized as "function+offset (module)".
#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <dwarf.h>

#include <cerrno>
#include <cinttypes>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

#include "probe_common.h"
#include "server_comm.h"

namespace {

// A thread is walked under ptrace, and a thread accepts one tracer only: a
// second worker attaching to the same process would be refused, or would
// see a thread the first one stopped. Walks of one process therefore take
// turns; walks of different processes run side by side.
class pid_turns {
public:
    void acquire(pid_t pid) {
        std::unique_lock<std::mutex> hold(lock);
        free_again.wait(hold, [&] { return busy.count(pid) == 0; });
        busy.insert(pid);
    }
    void release(pid_t pid) {
        {
            std::lock_guard<std::mutex> hold(lock);
            busy.erase(pid);
        }
        free_again.notify_all();
    }

    std::mutex lock;
    std::condition_variable free_again;
    std::unordered_set<pid_t> busy;  // guarded by lock
};

pid_turns turns;

class pid_turn {
public:
    explicit pid_turn(pid_t pid) : pid(pid) { turns.acquire(pid); }
    ~pid_turn() { turns.release(pid); }
    pid_t pid;
};

// A walk past this many frames is a corrupt or endless chain.
constexpr int max_frames = 256;

// Separate debug files are looked up the standard way (build id, then
// /usr/lib/debug).
char* debuginfo_path = nullptr;
const Dwfl_Callbacks proc_callbacks = {
    dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr, &debuginfo_path};

// Owns the session: dwfl_end detaches from every thread still attached.
class dwfl_session {
public:
    dwfl_session() : dwfl(dwfl_begin(&proc_callbacks)) {}
    ~dwfl_session() {
        if (dwfl != nullptr) dwfl_end(dwfl);
    }
    dwfl_session(const dwfl_session&) = delete;
    dwfl_session& operator=(const dwfl_session&) = delete;
    Dwfl* dwfl;
};

struct walk_state {
    Dwfl* dwfl;
    text_out* out;
    int frames = 0;     // of the current thread
    int walked = 0;     // threads with at least one frame
    int refused = 0;    // threads ptrace would not stop
    int vanished = 0;   // threads that ended before the walk
};

std::string demangled(const char* sym) {
    int status = -1;
    char* plain = abi::__cxa_demangle(sym, nullptr, nullptr, &status);
    if (status != 0 || plain == nullptr) {
        free(plain);
        return sym;
    }
    std::string name = plain;
    free(plain);
    return name;
}

int frame_cb(Dwfl_Frame* frame, void* arg) {
    auto* w = static_cast<walk_state*>(arg);
    Dwarf_Addr pc = 0;
    bool activation = false;
    if (!dwfl_frame_pc(frame, &pc, &activation)) {
        return DWARF_CB_ABORT;
    }
    // A return address points past its call: look up the call itself, so a
    // call as a function's last instruction is not put in the next function.
    Dwarf_Addr at = activation ? pc : pc - 1;
    Dwfl_Module* mod = dwfl_addrmodule(w->dwfl, at);
    const char* sym = nullptr;
    const char* module = nullptr;
    GElf_Off off = 0;
    GElf_Sym s;
    if (mod != nullptr) {
        sym = dwfl_module_addrinfo(mod, at, &off, &s, nullptr, nullptr, nullptr);
        module = dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    off += pc - at;
    bool ok;
    if (sym != nullptr) {
        ok = w->out->printf("#%-2d 0x%016" PRIx64 " in %s+0x%" PRIx64 " (%s)", w->frames, pc,
                            demangled(sym).c_str(), static_cast<uint64_t>(off),
                            module != nullptr ? module : "??");
    } else {
        ok = w->out->printf("#%-2d 0x%016" PRIx64 " in ?? (%s)", w->frames, pc,
                            module != nullptr ? module : "??");
    }
    w->frames++;
    if (!ok) return DWARF_CB_ABORT;
    return w->frames < max_frames ? DWARF_CB_OK : DWARF_CB_ABORT;
}

// Walks one thread under its header line. An unwinder error after some
// frames only ends the stack (the outermost frame often has no caller
// information); without a single frame the reason is shown instead.
void walk_thread(walk_state& w, pid_t pid, pid_t tid, Dwfl_Thread* thread) {
    if (!w.out->printf("Thread %d (%s):", tid, probe_thread_name(pid, tid).c_str())) return;
    w.frames = 0;
    errno = 0;
    int rc = thread != nullptr ? dwfl_thread_getframes(thread, frame_cb, &w)
                               : dwfl_getthread_frames(w.dwfl, tid, frame_cb, &w);
    // A refused PTRACE_ATTACH leaves its errno for dwfl_errmsg to report.
    int err = errno;
    if (w.frames > 0) {
        w.walked++;
    } else if (rc == -1) {
        if (err == EPERM || err == EACCES) w.refused++;
        if (err == ESRCH) w.vanished++;
        w.out->printf("    (no frames: %s)", dwfl_errmsg(-1));
    }
}

int thread_cb(Dwfl_Thread* thread, void* arg) {
    auto* w = static_cast<walk_state*>(arg);
    walk_thread(*w, dwfl_pid(dwfl_thread_dwfl(thread)), dwfl_thread_tid(thread), thread);
    return w->out->truncated ? DWARF_CB_ABORT : DWARF_CB_OK;
}

}  // namespace

// One "Thread TID (name):" line per thread, then its frames from the
// innermost: "#N  0xPC in function+0xOFF (module)". The target is stopped
// one thread at a time, only while that thread is walked, and goes on as
// before afterwards. -1 when ptrace is refused (another tracer, no
// privilege, or the daemon's own process).
PROBE_EXPORT int probe_stack(comm_data* c) {
    probe_args args;
    int rc = probe_parse_args(c, args);
    if (rc == 0) rc = probe_check_target(args);
    if (rc != 0) return rc;

    pid_turn turn(args.pid);
    dwfl_session session;
    if (session.dwfl == nullptr) return -ENOMEM;
    rc = dwfl_linux_proc_report(session.dwfl, args.pid);
    if (rc == 0 && dwfl_report_end(session.dwfl, nullptr, nullptr) != 0) rc = EINVAL;
    if (rc == 0) rc = dwfl_linux_proc_attach(session.dwfl, args.pid, false);
    if (rc == ENOENT || rc == ESRCH) return -ESRCH;
    if (rc == EACCES || rc == EPERM) return -EPERM;
    if (rc != 0) return rc > 0 ? -rc : -EINVAL;

    text_out out(c->send_data->msg, c->max_send_len);
    walk_state w{session.dwfl, &out};
    if (args.tid != 0) {
        walk_thread(w, args.pid, args.tid, nullptr);
    } else {
        dwfl_getthreads(session.dwfl, thread_cb, &w);
    }
    if (w.walked == 0 && w.refused > 0) return -EPERM;
    if (w.walked == 0 && w.vanished > 0 && args.tid != 0) return -ESRCH;
    return out.finish();
}
