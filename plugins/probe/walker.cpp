// vireo-walker: the ptrace and libdw work of the probe plug-in, in a process
// of its own, so that a fault in the unwinder or a target that never stops
// costs one request and never the daemon. Started by the plug-in as
// "vireo-walker PID" with a stream socket as file descriptor 3; answers the
// requests of walker_proto.h for that one process until the socket closes.
// Started without a PID, it waits for a walker_bind request naming one.
//
// Each thread is stopped only while its registers are read and its stack
// unwound (PTRACE_SEIZE, PTRACE_INTERRUPT, ..., PTRACE_DETACH): seizing never
// sends the target a signal, a thread in a group-stop stays stopped, and a
// signal that arrives meanwhile is delivered on detach. Symbols are looked
// up after the thread runs again. The process's modules and the symbol
// tables stay loaded between requests and are reported again only when
// /proc/PID/maps changes. When this process dies, the kernel detaches every
// thread it still holds.
#include <cxxabi.h>
#include <dwarf.h>
#include <elf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <libelf.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <grp.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "probe_common.h"
#include "walker_proto.h"

namespace {

// A walk past walker_max_frames frames is a corrupt or endless chain, or a
// deep recursion: it is cut, and the reply says so.
constexpr size_t max_frames = walker_max_frames;

int find_module_elf(Dwfl_Module* mod, void** userdata, const char* name, Dwarf_Addr base,
                    char** file_name, Elf** elfp);

char* debuginfo_path = nullptr;
const Dwfl_Callbacks proc_callbacks = {find_module_elf, dwfl_standard_find_debuginfo, nullptr,
                                       &debuginfo_path};

struct frame {
    Dwarf_Addr pc;
    bool activation;
};

// One line of /proc/PID/maps that maps a file.
struct mapping {
    uint64_t start = 0, end = 0;
    unsigned major = 0, minor = 0;
    uint64_t inode = 0;
    bool exec = false;
    std::string path;
};

// Stack memory read while a thread is stopped, a page at a time: an unwind
// reads a few neighbouring words per frame.
struct page_cache {
    static constexpr size_t page = 4096, slots = 16;
    uint64_t base[slots];
    uint8_t data[slots][page];
    void clear() {
        for (uint64_t& b : base) b = 1;  // never page-aligned: empty
    }
};

struct walker {
    pid_t pid = 0;
    // A live thread whose /proc entry stands for the process: the leader,
    // or another thread once the leader has exited (its maps are empty).
    pid_t view = 0;
    Dwfl* dwfl = nullptr;
    std::string maps;  // the text the modules were reported from
    std::vector<mapping> files;  // its lines that map files
    // The modules and executable mappings as markup for raw replies, made
    // once per change of the maps (empty: not yet).
    std::string context;
    // Samples re-read the maps at a bounded rate, or sooner once a frame
    // fell outside every module: with many mappings the read costs more
    // than the unwind.
    int64_t maps_read_us = 0;
    bool stale = false;
    // A thread was seized but did not stop in time: it cannot be let go
    // before it stops, so this walker ends after its reply (its exit
    // detaches the thread).
    bool stuck = false;
    // Frame names for samples and "function+offset (module)" for stacks, by
    // frame_key: symbol lookup and demangling cost more than the unwind.
    std::unordered_map<uint64_t, std::string> names, places;
    pid_t tid = 0;  // the thread being unwound
    Dwarf_Word regs[32] = {};
    Dwarf_Word pc = 0;
    bool peek = false;  // process_vm_readv refused: read word by word
    page_cache cache;
    std::vector<pid_t> unreaped;  // threads that died while held
#ifdef __aarch64__
    // Pointer authentication: the bits of a code address that hold a
    // signature. libdw 0.188 does not strip them, so a signed return
    // address would match no module and end the walk after one frame.
    uint64_t pac_mask = 0;
    bool pac_read = false;
#endif
};

bool fill_page(walker& w, uint64_t base, uint8_t* out) {
    if (!w.peek) {
        iovec local{out, page_cache::page};
        iovec remote{reinterpret_cast<void*>(base), page_cache::page};
        ssize_t n = process_vm_readv(w.view, &local, 1, &remote, 1, 0);
        if (n == static_cast<ssize_t>(page_cache::page))
            return true;
        if (n >= 0 || (errno != ENOSYS && errno != EPERM))
            return false;
        w.peek = true;  // a seccomp filter or an old kernel: ptrace still works
    }
    for (size_t i = 0; i < page_cache::page; i += sizeof(long)) {
        errno = 0;
        long v = ptrace(PTRACE_PEEKDATA, w.tid, base + i, nullptr);
        if (errno != 0)
            return false;
        memcpy(out + i, &v, sizeof v);
    }
    return true;
}

bool read_memory(walker& w, uint64_t addr, void* out, size_t n) {
    auto* dst = static_cast<uint8_t*>(out);
    while (n > 0) {
        uint64_t base = addr & ~static_cast<uint64_t>(page_cache::page - 1);
        size_t slot = (base / page_cache::page) % page_cache::slots;
        if (w.cache.base[slot] != base) {
            if (!fill_page(w, base, w.cache.data[slot]))
                return false;
            w.cache.base[slot] = base;
        }
        size_t off = addr - base, take = std::min(n, page_cache::page - off);
        memcpy(dst, w.cache.data[slot] + off, take);
        dst += take;
        addr += take;
        n -= take;
    }
    return true;
}

#ifdef __aarch64__
// A signed return address carries its signature in pac_mask's bits. Only a
// value that then falls into a module is taken for one: a saved data
// register with those bits set stays as it was.
Dwarf_Word strip_pac(walker& w, Dwarf_Word v) {
    if ((v & w.pac_mask) == 0)
        return v;
    Dwarf_Word stripped = v & ~w.pac_mask;
    if (dwfl_addrmodule(w.dwfl, v) == nullptr && dwfl_addrmodule(w.dwfl, stripped) != nullptr) {
        return stripped;
    }
    return v;
}
#endif

// --- the thread state libdw unwinds from ------------------------------------

pid_t cb_next_thread(Dwfl*, void*, void**) {
    return 0;
}  // threads are listed from /proc

bool cb_get_thread(Dwfl*, pid_t tid, void* arg, void** thread_arg) {
    *thread_arg = arg;
    return tid == static_cast<walker*>(arg)->tid;
}

bool cb_memory_read(Dwfl*, Dwarf_Addr addr, Dwarf_Word* result, void* arg) {
    auto& w = *static_cast<walker*>(arg);
    if (!read_memory(w, addr, result, sizeof *result))
        return false;
#ifdef __aarch64__
    *result = strip_pac(w, *result);
#endif
    return true;
}

bool cb_set_initial_registers(Dwfl_Thread* thread, void* arg) {
    auto& w = *static_cast<walker*>(arg);
#if defined(__x86_64__)
    // DWARF 0..16: rax rdx rcx rbx rsi rdi rbp rsp r8..r15, rip.
    return dwfl_thread_state_registers(thread, 0, 17, w.regs);
#elif defined(__aarch64__)
    // DWARF 0..31: x0..x30, sp; the pc apart.
    if (!dwfl_thread_state_registers(thread, 0, 32, w.regs))
        return false;
    dwfl_thread_state_register_pc(thread, w.pc);
    return true;
#else
#error "vireo-walker reads registers on x86_64 and aarch64 only"
#endif
}

const Dwfl_Thread_Callbacks thread_callbacks = {
    cb_next_thread, cb_get_thread, cb_memory_read, cb_set_initial_registers, nullptr, nullptr};

// Registers of the stopped thread w.tid, in libdw's order.
int read_registers(walker& w) {
#if defined(__x86_64__)
    user_regs_struct r;
    if (ptrace(PTRACE_GETREGS, w.tid, nullptr, &r) != 0)
        return -errno;
    const unsigned long long order[17] = {r.rax, r.rdx, r.rcx, r.rbx, r.rsi, r.rdi,
                                          r.rbp, r.rsp, r.r8,  r.r9,  r.r10, r.r11,
                                          r.r12, r.r13, r.r14, r.r15, r.rip};
    for (int i = 0; i < 17; i++) w.regs[i] = order[i];
    w.pc = r.rip;
#elif defined(__aarch64__)
    user_regs_struct r;
    iovec io{&r, sizeof r};
    if (ptrace(PTRACE_GETREGSET, w.tid, NT_PRSTATUS, &io) != 0)
        return -errno;
    for (int i = 0; i < 31; i++) w.regs[i] = r.regs[i];
    w.regs[31] = r.sp;
    w.pc = r.pc;
    if (!w.pac_read) {
        // Without pointer authentication the kernel refuses the set: mask 0.
        struct {
            uint64_t data_mask, insn_mask;
        } pac{};
        iovec pio{&pac, sizeof pac};
        if (ptrace(PTRACE_GETREGSET, w.tid, NT_ARM_PAC_MASK, &pio) == 0)
            w.pac_mask = pac.insn_mask;
        w.pac_read = true;
    }
    w.regs[30] = strip_pac(w, w.regs[30]);  // the link register of a leaf
#endif
    return 0;
}

// --- stopping a thread --------------------------------------------------------

void reap_later(walker& w, pid_t tid) {
    int st;
    if (waitpid(tid, &st, __WALL | WNOHANG) == 0)
        w.unreaped.push_back(tid);
}

// A thread we held may have died (SIGKILL, exit_group): its exit is reported
// to us as its tracer, and until we collect it the parent cannot reap it.
void reap_pending(walker& w) {
    std::vector<pid_t> left;
    for (pid_t tid : w.unreaped) {
        int st;
        pid_t r = waitpid(tid, &st, __WALL | WNOHANG);
        if (r == 0 || (r < 0 && errno == EINTR))
            left.push_back(tid);
    }
    w.unreaped.swap(left);
}

int64_t now_us() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Waits for a state change of tid for at most stop_ms. SIGCHLD, which a
// tracee's stop sends us, is blocked from the start, so none is missed
// between the poll and the wait. -EAGAIN when the time passed.
int wait_thread(pid_t tid, int stop_ms, int& st) {
    int64_t until = now_us() + int64_t{stop_ms} * 1000;
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    for (;;) {
        pid_t r = waitpid(tid, &st, __WALL | WNOHANG);
        if (r == tid)
            return 0;
        if (r < 0 && errno != EINTR)
            return -errno;
        int64_t left = until - now_us();
        if (left <= 0)
            return -EAGAIN;
        timespec ts{static_cast<time_t>(left / 1000000), static_cast<long>(left % 1000000) * 1000};
        sigtimedwait(&chld, nullptr, &ts);
    }
}

// Stops tid for the walk, waiting at most stop_ms. 0 with *signal the
// signal to hand back on detach, or a negated errno (-ESRCH: the thread is
// gone; -EAGAIN: it did not stop in time and stays seized, w.stuck).
int stop_thread(walker& w, pid_t tid, int stop_ms, int* signal) {
    *signal = 0;
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0)
        return -errno;
    if (ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0) {
        // Only a thread on its way out refuses the interrupt: its exit
        // comes to us to collect.
        int err = errno;
        if (ptrace(PTRACE_DETACH, tid, nullptr, nullptr) != 0)
            reap_later(w, tid);
        return -err;
    }
    for (;;) {
        int st = 0;
        int rc = wait_thread(tid, stop_ms, st);
        if (rc == -EAGAIN)
            w.stuck = true;
        if (rc != 0)
            return rc;
        if (WIFEXITED(st) || WIFSIGNALED(st))
            return -ESRCH;  // collected: nothing held
        if (!WIFSTOPPED(st))
            continue;
        // A signal that arrived before our interrupt stops the thread first:
        // it goes back with the detach. Our own stop is an event stop.
        if ((st >> 16) != PTRACE_EVENT_STOP)
            *signal = WSTOPSIG(st);
        return 0;
    }
}

void resume_thread(walker& w, pid_t tid, int signal) {
    if (ptrace(PTRACE_DETACH, tid, nullptr, signal) != 0)
        reap_later(w, tid);
}

int collect_frame(Dwfl_Frame* state, void* arg) {
    auto& frames = *static_cast<std::vector<frame>*>(arg);
    frame f;
    if (!dwfl_frame_pc(state, &f.pc, &f.activation))
        return DWARF_CB_ABORT;
    frames.push_back(f);
    // One frame more than is kept tells a cut stack from one just as deep.
    return frames.size() <= max_frames ? DWARF_CB_OK : DWARF_CB_ABORT;
}

// The frames of one thread, innermost first, at most max_frames (cut when
// there were more), and how long it was held (microseconds). 0, or a
// negated errno with no frames; why says what ended a walk that found none.
int walk_thread(walker& w, pid_t tid, int stop_ms, std::vector<frame>& frames, bool& cut,
                int64_t& held_us, std::string& why) {
    frames.clear();
    int64_t start = now_us();
    int signal = 0;
    int rc = stop_thread(w, tid, stop_ms, &signal);
    if (rc != 0) {
        why = rc == -EAGAIN ? "not stopped in time" : strerror(-rc);
        return rc;
    }
    w.tid = tid;
    w.cache.clear();
    rc = read_registers(w);
    if (rc == 0 && dwfl_getthread_frames(w.dwfl, tid, collect_frame, &frames) != 0 &&
        frames.empty()) {
        why = dwfl_errmsg(-1);
    }
    resume_thread(w, tid, signal);
    cut = frames.size() > max_frames;
    if (cut)
        frames.resize(max_frames);
    held_us = now_us() - start;
    if (rc != 0)
        why = strerror(-rc);
    return rc;
}

// --- modules and symbols ------------------------------------------------------

// The walker's own executable: it tells libdw the architecture (the
// target's is the same), where a target's files may be gone as it exits.
Elf* own_elf() {
    static Elf* elf = [] {
        elf_version(EV_CURRENT);
        int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
        return fd < 0 ? nullptr : elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    }();
    return elf;
}

// What a reply says of a thread besides its frames.
struct task_view {
    char state = 0;
    std::string name;
};

char thread_state(pid_t pid, pid_t tid);

bool live(char state) {
    return state != 0 && state != 'Z' && state != 'X';
}

// The leader while it runs, else the first live thread: a process whose
// main thread called pthread_exit() keeps its mappings, files and memory,
// but its leader's /proc entry shows none of them.
pid_t live_view(pid_t pid) {
    if (live(thread_state(pid, pid)))
        return pid;
    for (pid_t tid : probe_list_tasks(pid)) {
        if (live(thread_state(pid, tid)))
            return tid;
    }
    return pid;
}

std::vector<mapping> file_mappings(const std::string& maps) {
    std::vector<mapping> out;
    size_t at = 0;
    while (at < maps.size()) {
        size_t end = maps.find('\n', at);
        if (end == std::string::npos)
            end = maps.size();
        std::string line = maps.substr(at, end - at);
        at = end + 1;
        mapping m;
        unsigned long long start, stop, inode;
        char perms[8] = "";
        int path_at = 0;
        if (sscanf(line.c_str(), "%llx-%llx %7s %*x %x:%x %llu %n", &start, &stop, perms, &m.major,
                   &m.minor, &inode, &path_at) < 6 ||
            inode == 0 || path_at <= 0 || line[static_cast<size_t>(path_at)] != '/') {
            continue;
        }
        m.start = start, m.end = stop, m.inode = inode;
        m.exec = strchr(perms, 'x') != nullptr;
        m.path = line.substr(static_cast<size_t>(path_at));
        out.push_back(std::move(m));
    }
    return out;
}

// Opens the file the target maps at m, never a file found by its path text
// in our own mount namespace: through /proc/VIEW/map_files/ (which takes
// CAP_CHECKPOINT_RESTORE or CAP_SYS_ADMIN), else by the path in the
// target's own root, taken only when it is the very inode mapped, so that
// a file the target swapped in at that path is not parsed.
int open_mapped(const walker& w, const mapping& m, std::string& path) {
    char buf[96];
    snprintf(buf, sizeof buf, "/proc/%d/map_files/%" PRIx64 "-%" PRIx64, w.view, m.start, m.end);
    path = buf;
    int fd = open(buf, O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        return fd;
    path = "/proc/" + std::to_string(w.view) + "/root" + m.path;
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_ino != m.inode ||
                    major(st.st_dev) != m.major || minor(st.st_dev) != m.minor)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

walker* the_walker = nullptr;  // the one walker of this process, for libdw's callback

// libdw's file lookup for a reported module: the file the target maps
// there; the vDSO and other memory-only modules as libdw reads them.
int find_module_elf(Dwfl_Module* mod, void** userdata, const char* name, Dwarf_Addr base,
                    char** file_name, Elf** elfp) {
    if (name == nullptr || name[0] != '/')
        return dwfl_linux_proc_find_elf(mod, userdata, name, base, file_name, elfp);
    Dwarf_Addr low = 0, high = 0;
    dwfl_module_info(mod, nullptr, &low, &high, nullptr, nullptr, nullptr, nullptr);
    for (const mapping& m : the_walker->files) {
        if (m.path != name || m.start < low || m.start >= high)
            continue;
        std::string path;
        int fd = open_mapped(*the_walker, m, path);
        if (fd >= 0)
            *file_name = strdup(path.c_str());
        return fd;
    }
    return -1;
}

// How often a sample re-reads the maps: at least once a second, and when a
// frame fell outside every module at most every 200 ms (a JIT's code never
// falls into one).
constexpr int64_t maps_period_us = 1000000, stale_period_us = 200000;

// Reports the process's modules when its mappings changed (and on first
// use). 0 or a negated errno: -EACCES when the maps are not readable.
// A sample (bounded) reads the maps only as often as above.
int refresh_modules(walker& w, bool bounded) {
    std::string maps;
    int64_t now = now_us();
    if (bounded && w.dwfl != nullptr && !w.maps.empty() &&
        now - w.maps_read_us < (w.stale ? stale_period_us : maps_period_us))
        return 0;
    w.maps_read_us = now;
    w.stale = false;
    w.view = live_view(w.pid);
    // Up to 64 MiB: a process with many mappings (a JIT, a large C++
    // program) has maps far beyond a status file's size.
    int rc = probe_read_file("/proc/" + std::to_string(w.view) + "/maps", maps, 16384);
    if (rc == -EACCES || rc == -EPERM)
        return -EACCES;
    if (rc != 0 || maps.empty())
        return -ESRCH;
    if (w.dwfl != nullptr && maps == w.maps)
        return 0;
    w.files = file_mappings(maps);
    if (w.dwfl == nullptr && (w.dwfl = dwfl_begin(&proc_callbacks)) == nullptr)
        return -ENOMEM;
    FILE* f = fmemopen(&maps[0], maps.size(), "r");
    if (f == nullptr)
        return -ENOMEM;
    dwfl_report_begin(w.dwfl);
    rc = dwfl_linux_proc_maps_report(w.dwfl, f);
    fclose(f);
    if (dwfl_report_end(w.dwfl, nullptr, nullptr) != 0 || rc != 0) {
        return -EINVAL;
    }
    w.names.clear();
    w.places.clear();
    w.context.clear();
    w.maps = maps;
    if (dwfl_pid(w.dwfl) < 0 &&
        !dwfl_attach_state(w.dwfl, own_elf(), w.pid, &thread_callbacks, &w)) {
        w.maps.clear();
        return -EINVAL;
    }
    return 0;
}

// --- raw replies: symbolizer markup -------------------------------------------

struct context_builder {
    walker* w;
    std::string text;
    int next_id = 0;
};

// One module element and its executable mappings' mmap elements. The
// build-id comes from the file libdw opened: the one the target maps. Each
// mapping's module-relative address is its start less the load bias.
int add_module(Dwfl_Module* mod, void**, const char* name, Dwarf_Addr low, void* arg) {
    auto& b = *static_cast<context_builder*>(arg);
    if (name == nullptr || name[0] != '/' || strpbrk(name, "{}\n") != nullptr)
        return DWARF_CB_OK;
    Dwarf_Addr bias = 0;
    if (dwfl_module_getelf(mod, &bias) == nullptr)
        return DWARF_CB_OK;
    Dwarf_Addr high = 0;
    dwfl_module_info(mod, nullptr, nullptr, &high, nullptr, nullptr, nullptr, nullptr);
    const unsigned char* bits = nullptr;
    GElf_Addr note_at = 0;
    int n = dwfl_module_build_id(mod, &bits, &note_at);
    std::string id;
    static const char hex[] = "0123456789abcdef";
    for (int i = 0; i < n; i++) {
        id += hex[bits[i] >> 4];
        id += hex[bits[i] & 15];
    }
    char line[160];
    std::string maps;
    for (const mapping& m : b.w->files) {
        if (!m.exec || m.path != name || m.start < low || m.start >= high)
            continue;
        snprintf(line, sizeof line,
                 "{{{mmap:0x%" PRIx64 ":0x%" PRIx64 ":load:%d:rx:0x%" PRIx64 "}}}\n", m.start,
                 m.end - m.start, b.next_id, m.start - bias);
        maps += line;
    }
    if (maps.empty())
        return DWARF_CB_OK;
    b.text += "{{{module:" + std::to_string(b.next_id++) + ":" + name + ":elf:" + id + "}}}\n";
    b.text += maps;
    return DWARF_CB_OK;
}

// The markup that opens every raw reply: a reset, then the modules.
const std::string& markup_context(walker& w) {
    if (w.context.empty()) {
        context_builder b{&w, "{{{reset}}}\n"};
        dwfl_getmodules(w.dwfl, add_module, &b, 0);
        w.context = std::move(b.text);
    }
    return w.context;
}

void print_raw_stack(const std::vector<frame>& frames, bool cut, text_out& out) {
    for (size_t i = 0; i < frames.size(); i++) {
        if (!out.printf("{{{bt:%zu:0x%" PRIx64 ":%s}}}", i, frames[i].pc,
                        frames[i].activation ? "pc" : "ra"))
            return;
    }
    if (cut)
        out.line(walker_cut_raw_line);
}

// A frame outside every module: the maps changed since they were read, or
// the thread runs code no file maps. Samples then read them again soon.
void note_strays(walker& w, const std::vector<frame>& frames) {
    for (const frame& f : frames) {
        if (dwfl_addrmodule(w.dwfl, f.activation ? f.pc : f.pc - 1) == nullptr) {
            w.stale = true;
            return;
        }
    }
}

std::string demangled(const char* sym) {
    int status = -1;
    char* plain = abi::__cxa_demangle(sym, nullptr, nullptr, &status);
    std::string name = status == 0 && plain != nullptr ? plain : sym;
    free(plain);
    return name;
}

// The innermost frame's pc is looked up as it is, a return address one byte
// back: the same value means another place in the two cases.
uint64_t frame_key(const frame& f) {
    return f.pc ^ (f.activation ? 1ull << 63 : 0);
}

struct symbol {
    const char* name = nullptr;  // nullptr: none
    const char* module = nullptr;
    uint64_t offset = 0;
};

// The function a frame is in. A return address points past its call: the
// call itself is looked up, so a call as a function's last instruction is
// not put in the next function.
symbol lookup(walker& w, const frame& f) {
    symbol s;
    Dwarf_Addr at = f.activation ? f.pc : f.pc - 1;
    Dwfl_Module* mod = dwfl_addrmodule(w.dwfl, at);
    if (mod == nullptr)
        return s;
    GElf_Off off = 0;
    GElf_Sym sym;
    s.name = dwfl_module_addrinfo(mod, at, &off, &sym, nullptr, nullptr, nullptr);
    s.module = dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    s.offset = off + (f.pc - at);
    return s;
}

// A frame's name in a folded stack: the function, else "[module]", else
// "??"; never a ';', which separates frames.
const std::string& folded_name(walker& w, const frame& f) {
    auto it = w.names.find(frame_key(f));
    if (it != w.names.end())
        return it->second;
    symbol s = lookup(w, f);
    std::string name;
    if (s.name != nullptr) {
        name = demangled(s.name);
    } else if (s.module != nullptr) {
        const char* base = strrchr(s.module, '/');
        name = std::string("[") + (base != nullptr ? base + 1 : s.module) + "]";
    } else {
        name = "??";
    }
    for (char& ch : name) {
        if (ch == ';' || static_cast<unsigned char>(ch) < 0x20)
            ch = ':';
    }
    return w.names.emplace(frame_key(f), std::move(name)).first->second;
}

// --- requests ---------------------------------------------------------------

struct counts {
    int walked = 0;    // threads with at least one frame
    int refused = 0;   // threads ptrace would not stop
    int vanished = 0;  // threads that ended before their walk
};

void note(counts& n, int rc, size_t frames) {
    if (frames > 0)
        n.walked++;
    if (rc == -EPERM || rc == -EACCES || rc == -ENOSYS)  // ENOSYS: an emulator without ptrace
        n.refused++;
    if (rc == -ESRCH)
        n.vanished++;
}

void print_stack(walker& w, pid_t tid, const task_view& task, const std::vector<frame>& frames,
                 bool cut, const std::string& why, bool raw, text_out& out) {
    if (!out.printf("Thread %d (%s):", tid, task.name.c_str()))
        return;
    if (frames.empty()) {
        if (why.rfind("not stopped", 0) == 0)
            out.printf("    (%s)", why.c_str());
        else
            out.printf("    (no frames: %s)", why.c_str());
        return;
    }
    if (raw) {
        print_raw_stack(frames, cut, out);
        return;
    }
    int n = 0;
    for (const frame& f : frames) {
        auto it = w.places.find(frame_key(f));
        if (it == w.places.end()) {
            symbol s = lookup(w, f);
            const char* module = s.module != nullptr ? s.module : "??";
            char off[32];
            snprintf(off, sizeof off, "+0x%" PRIx64, s.offset);
            std::string place = s.name != nullptr ? demangled(s.name) + off : "??";
            it = w.places.emplace(frame_key(f), place + " (" + module + ")").first;
        }
        if (!out.printf("#%-2d 0x%016" PRIx64 " in %s", n++, f.pc, it->second.c_str()))
            return;
    }
    if (cut)
        out.line(walker_cut_line);
}

// A sample line's fields before the frames: "TID\tNAME\tHELD_US\t", with
// the state letter after the held time when the request asks for it.
std::string sample_head(const walker_request& req, pid_t tid, const task_view& task,
                        int64_t held_us) {
    std::string head = std::to_string(tid) + "\t" + task.name + "\t" + std::to_string(held_us) + "\t";
    if (req.flags & walker_flag_state)
        head += std::string(1, task.state != 0 ? task.state : '?') + "\t";
    return head;
}

void print_sample(walker& w, std::string line, const std::vector<frame>& frames, bool cut, bool raw,
                  text_out& out) {
    // The outermost frame kept is not the stack's root: a profile must not
    // count the stack under it.
    if (cut)
        line += walker_cut_root ";";
    char addr[24];
    for (size_t i = frames.size(); i-- > 0;) {
        if (raw) {
            snprintf(addr, sizeof addr, "0x%" PRIx64, frames[i].pc);
            line += addr;
        } else {
            line += folded_name(w, frames[i]);
        }
        if (i > 0)
            line += ';';
    }
    out.line(line);
}

// A thread's state letter and name from its one stat file: a sample reads
// no other file per thread. State 0 and no name when it is gone.
task_view read_task(pid_t pid, pid_t tid) {
    task_view t;
    std::string stat;
    std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat";
    if (probe_read_file(path, stat) != 0)
        return t;
    // The name may hold ')' itself: it ends at the last one.
    size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return t;
    t.name = probe_printable_name(stat.substr(open + 1, close - open - 1));
    t.state = close + 2 < stat.size() ? stat[close + 2] : 0;
    return t;
}

// The state letter of a thread (or of the process, for tid == pid); 0 when
// it is gone.
char thread_state(pid_t pid, pid_t tid) {
    return read_task(pid, tid).state;
}

// True when pid is gone or becomes a zombie within a few milliseconds.
bool ending(pid_t pid) {
    for (int i = 0; i < 20; i++) {
        char state = thread_state(pid, pid);
        if (state == 0 || state == 'Z' || state == 'X')
            return true;
        usleep(1000);
    }
    return false;
}

// True when another tracer (a debugger) holds the process.
bool traced_by_other(pid_t pid) {
    std::string status;
    probe_read_file("/proc/" + std::to_string(pid) + "/status", status);
    size_t at = status.find("\nTracerPid:");
    return at != std::string::npos && atol(status.c_str() + at + 11) != 0;
}

// A thread not worth seizing: in an uninterruptible sleep it may never
// stop (and ptrace cannot let go of a thread that has not stopped), and an
// exited leader never stops. Its line stands in its place; true when so.
bool skip_thread(walker& w, const walker_request& req, pid_t tid, const task_view& task, counts& n,
                 text_out& out) {
    if (task.state == 'D') {
        n.walked++;
        if (walker_op_sample(req.op)) {
            out.line(sample_head(req, tid, task, 0) + "[uninterruptible]");
        } else {
            out.printf("Thread %d (%s):", tid, task.name.c_str());
            out.line("    (not stopped: D state)");
        }
        return true;
    }
    if (!live(task.state) && tid == w.pid && w.view != w.pid) {
        if (!walker_op_sample(req.op)) {
            out.printf("Thread %d (%s):", tid, task.name.c_str());
            out.line("    (no frames: the thread has exited)");
        }
        return true;
    }
    return false;
}

int handle(walker& w, const walker_request& req, text_out& out) {
    reap_pending(w);
    const bool raw = walker_op_raw(req.op), sample = walker_op_sample(req.op);
    int rc = refresh_modules(w, sample);
    if (rc != 0)
        return ending(w.pid) ? -ESRCH : rc;
    // The context comes first, so that a reply cut at 1 MiB still names.
    if (raw)
        out.line(markup_context(w).substr(0, w.context.size() - 1));
    std::vector<pid_t> tids = req.tid != 0 ? std::vector<pid_t>{req.tid} : probe_list_tasks(w.pid);
    if (tids.empty())
        return -ESRCH;
    counts n;
    std::vector<frame> frames;
    for (pid_t tid : tids) {
        int64_t held_us = 0;
        std::string why;
        bool cut = false;
        // The state as the thread ran, before the walk stops it.
        const task_view task = read_task(w.pid, tid);
        if (skip_thread(w, req, tid, task, n, out))
            continue;
        rc = walk_thread(w, tid, req.stop_ms, frames, cut, held_us, why);
        note(n, rc, frames.size());
        if (sample)
            note_strays(w, frames);
        if (rc == -EAGAIN) {
            n.walked++;
            char now = thread_state(w.pid, tid);
            why = std::string("not stopped: ") + (now != 0 ? now : '?') + " state";
        }
        if (!sample) {
            print_stack(w, tid, task, frames, cut, why, raw, out);
        } else if (rc == 0) {
            print_sample(w, sample_head(req, tid, task, held_us), frames, cut, raw, out);
        } else if (rc == -EAGAIN) {
            out.line(sample_head(req, tid, task, 0) + "[not stopped]");
        }
        if (out.truncated)
            break;
    }
    // Threads on their way out refuse ptrace as well: a process that is
    // ending is gone, not refused.
    if (n.walked == 0 && n.refused > 0)
        return ending(w.pid) ? -ESRCH : traced_by_other(w.pid) ? -EALREADY : -EPERM;
    if (n.walked == 0 && n.vanished == static_cast<int>(tids.size()))
        return -ESRCH;
    return 0;
}

// Moves n bytes with io (a read or a send of up to k bytes at p), retrying
// after signals; false at end of file or on an error.
template <class Io>
bool move_all(Io io, uint8_t* p, size_t n) {
    while (n > 0) {
        ssize_t r = io(p, n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool write_all(int fd, const void* buf, size_t n) {
    // send only reads from p: the cast serves the shared loop.
    return move_all([fd](uint8_t* p, size_t k) { return send(fd, p, k, MSG_NOSIGNAL); },
                    const_cast<uint8_t*>(static_cast<const uint8_t*>(buf)), n);
}

// An unprivileged identity for a walker started by root ("nobody"): root's
// own files, which root may write without any capability, stay out of
// reach of a walker that libdw's parsing went wrong in.
constexpr uid_t unprivileged_id = 65534;

// Keeps only the capabilities a walk uses: ptrace, reading the target's
// files whoever owns them, and opening them through map_files. What libdw
// parses can then no longer use any other privilege the daemon had, nor
// gain one through an exec. Run as root, the walker also leaves uid 0.
void drop_privileges() {
    uint64_t keep = 1ull << CAP_SYS_PTRACE | 1ull << CAP_DAC_READ_SEARCH;
#ifdef CAP_CHECKPOINT_RESTORE
    keep |= 1ull << CAP_CHECKPOINT_RESTORE;
#endif
    // The bounding set first: dropping from it takes CAP_SETPCAP, which
    // goes with the rest below.
    for (int cap = 0; cap < 64; cap++) {
        if ((keep >> cap & 1) == 0)
            prctl(PR_CAPBSET_DROP, cap, 0, 0, 0);
    }
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    if (geteuid() == 0) {
        // The permitted set survives the change of uid; the effective one
        // is restored from it below.
        prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
        if (setgroups(0, nullptr) != 0 ||
            setresgid(unprivileged_id, unprivileged_id, unprivileged_id) != 0 ||
            setresuid(unprivileged_id, unprivileged_id, unprivileged_id) != 0) {
            fprintf(stderr, "vireo-walker: cannot leave uid 0: %s\n", strerror(errno));
        }
    }
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &head, data) == 0) {
        for (int i = 0; i < 2; i++) {
            uint32_t mask = static_cast<uint32_t>(keep >> (32 * i));
            data[i].permitted &= mask;
            data[i].effective = data[i].permitted;
            data[i].inheritable = 0;
        }
        syscall(SYS_capset, &head, data);
    }
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    long pid = argc == 2 ? strtol(argv[1], &end, 10) : 0;
    if (argc > 2 || (argc == 2 && (pid <= 0 || *end != '\0'))) {
        fprintf(stderr, "usage: vireo-walker [PID]  (run by the probe plug-in, socket on fd 3)\n");
        return 64;
    }
    // Never outlive the daemon, even in the middle of a walk. (A daemon
    // gone before this line closed the socket: the first read ends us.)
    pid_t parent = getppid();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        return 0;
    signal(SIGPIPE, SIG_IGN);
    // Stops of traced threads are awaited with sigtimedwait (wait_thread).
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, nullptr);
    drop_privileges();
    // A change of uid clears the parent-death signal: set it again.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        return 0;

    static walker w;  // the page cache is large for a stack
    the_walker = &w;
    w.pid = static_cast<pid_t>(pid);
    std::vector<uint8_t> text(walker_max_text);
    for (;;) {
        // Held threads that died are collected promptly even when idle.
        pollfd p{walker_fd, POLLIN, 0};
        if (poll(&p, 1, w.unreaped.empty() ? -1 : 20) == 0) {
            reap_pending(w);
            continue;
        }
        walker_request req;
        int got = walker_read_request(walker_fd, req);
        if (got < 0)
            return 0;  // the plug-in closed
        if (req.op == walker_bind && w.pid == 0 && got == 1) {
            w.pid = req.tid;
            continue;
        }
        text_out out(text.data(), static_cast<int>(text.size()));
        walker_reply rep{};
        bool known = w.pid > 0 && req.op != walker_bind && got == 1;
        rep.status = known ? handle(w, req, out) : -EINVAL;
        rep.len = rep.status == 0 ? static_cast<uint32_t>(out.finish()) : 0;
        rep.ending = w.stuck ? 1 : 0;
        if (!write_all(walker_fd, &rep, sizeof rep) ||
            !write_all(walker_fd, text.data(), rep.len) || w.stuck) {
            return 0;
        }
    }
}
