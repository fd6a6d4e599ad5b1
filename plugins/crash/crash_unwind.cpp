#include "crash_unwind.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace {

struct frame {
    uint64_t pc;
    bool activation;
};
using thread_frames = std::map<int, std::vector<frame>>;

constexpr int max_frames = 256;

int on_frame(Dwfl_Frame* state, void* arg) {
    auto* frames = static_cast<std::vector<frame>*>(arg);
    Dwarf_Addr pc = 0;
    bool activation = false;
    if (!dwfl_frame_pc(state, &pc, &activation))
        return DWARF_CB_ABORT;
    frames->push_back({pc, activation});
    return frames->size() >= max_frames ? DWARF_CB_ABORT : DWARF_CB_OK;
}

int on_thread(Dwfl_Thread* thread, void* arg) {
    auto* all = static_cast<thread_frames*>(arg);
    auto& frames = (*all)[static_cast<int>(dwfl_thread_tid(thread))];
    dwfl_thread_getframes(thread, on_frame, &frames);
    return DWARF_CB_OK;
}

std::string hex(uint64_t v) {
    char b[24];
    snprintf(b, sizeof b, "0x%" PRIx64, v);
    return b;
}

// The module's file as found on the board's disk (a full path), else the
// name the core gives it (the dynamic linker's, the vDSO's).
std::string module_path(Dwfl_Module* mod, const char* name) {
    Dwarf_Addr bias = 0;
    const char* file = nullptr;
    if (dwfl_module_getelf(mod, &bias) != nullptr)
        dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr, &file, nullptr);
    return file ? file : name ? name : "?";
}

std::string perms(uint32_t flags) {
    std::string p;
    if (flags & 4)
        p += 'r';
    if (flags & 2)
        p += 'w';
    if (flags & 1)
        p += 'x';
    return p;
}

struct module_ctx {
    const core_data* d;
    std::string* out;
    std::map<Dwfl_Module*, int> ids;
};

int on_module(Dwfl_Module* mod, void**, const char* name, Dwarf_Addr low, void* arg) {
    auto* m = static_cast<module_ctx*>(arg);
    int id = static_cast<int>(m->ids.size());
    m->ids[mod] = id;
    const unsigned char* bits = nullptr;
    GElf_Addr vaddr = 0;
    int n = dwfl_module_build_id(mod, &bits, &vaddr);
    std::string build_id;
    for (int i = 0; i < n; i++) {
        char b[3];
        snprintf(b, sizeof b, "%02x", bits[i]);
        build_id += b;
    }
    std::string clean = module_path(mod, name);
    std::replace(clean.begin(), clean.end(), ':', '_');
    std::replace(clean.begin(), clean.end(), '}', '_');
    *m->out += "{{{module:" + std::to_string(id) + ":" + clean + ":elf:" + build_id + "}}}\n";
    Dwarf_Addr bias = low;
    if (dwfl_module_getelf(mod, &bias) == nullptr)
        bias = low;
    Dwarf_Addr high = 0;
    dwfl_module_info(mod, nullptr, nullptr, &high, nullptr, nullptr, nullptr, nullptr);
    for (const auto& s : m->d->loads) {
        if (s.vaddr < low || s.vaddr >= high || s.memsz == 0)
            continue;
        *m->out += "{{{mmap:" + hex(s.vaddr) + ":" + hex(s.memsz) + ":load:" + std::to_string(id) +
                   ":" + perms(s.flags) + ":" + hex(s.vaddr - bias) + "}}}\n";
    }
    return DWARF_CB_OK;
}

std::string board_name(Dwfl* dwfl, uint64_t addr) {
    Dwfl_Module* mod = dwfl_addrmodule(dwfl, addr);
    if (mod == nullptr)
        return "??";
    const char* modname =
        dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    GElf_Off off = 0;
    GElf_Sym sym;
    const char* name = dwfl_module_addrinfo(mod, addr, &off, &sym, nullptr, nullptr, nullptr);
    std::string where = " (" + module_path(mod, modname) + ")";
    if (name == nullptr)
        return "??" + where;
    int status = -1;
    char* dem = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string s = status == 0 && dem ? dem : name;
    free(dem);
    return s + "+" + hex(off) + where;
}

// The child's work: everything goes to fd as text.
void unwind_child(const core_data& d, const std::string& image, const std::string& exe,
                  int crash_tid, int fd) {
    std::string out;
    elf_version(EV_CURRENT);
    Elf* elf = elf_memory(const_cast<char*>(image.data()), image.size());
    char* debuginfo_path = nullptr;
    static const Dwfl_Callbacks cb = {dwfl_build_id_find_elf, dwfl_standard_find_debuginfo,
                                      dwfl_offline_section_address, &debuginfo_path};
    Dwfl* dwfl = elf ? dwfl_begin(&cb) : nullptr;
    if (dwfl == nullptr || dwfl_core_file_report(dwfl, elf, exe.c_str()) < 0) {
        out = "frames: none (" + std::string(dwfl_errmsg(-1)) + ")\n";
        (void)!write(fd, out.data(), out.size());
        return;
    }
    dwfl_report_end(dwfl, nullptr, nullptr);
    module_ctx mc{&d, &out, {}};
    out += "{{{reset}}}\n";
    dwfl_getmodules(dwfl, on_module, &mc, 0);
    thread_frames all;
    if (dwfl_core_file_attach(dwfl, elf) < 0)
        out += "frames: none (" + std::string(dwfl_errmsg(-1)) + ")\n";
    else
        dwfl_getthreads(dwfl, on_thread, &all);
    std::vector<int> order;
    for (const auto& t : d.threads)
        if (t.tid == crash_tid)
            order.push_back(t.tid);
    for (const auto& t : d.threads)
        if (t.tid != crash_tid)
            order.push_back(t.tid);
    for (int tid : order) {
        out += "thread " + std::to_string(tid) + (tid == crash_tid ? " (crashed)" : "") + ":\n";
        const auto& frames = all[tid];
        for (size_t i = 0; i < frames.size(); i++) {
            uint64_t pc = frames[i].pc;
            bool exact = frames[i].activation;
            out += "{{{bt:" + std::to_string(i) + ":" + hex(pc) + (exact ? ":pc" : ":ra") + "}}} " +
                   board_name(dwfl, exact ? pc : pc - 1) + "\n";
        }
        if (frames.empty())
            out += "(no frames)\n";
    }
    (void)!write(fd, out.data(), out.size());
    dwfl_end(dwfl);
    elf_end(elf);
}

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int crash_unwind(const core_data& d, const std::string& image, const std::string& exe,
                 int crash_tid, int timeout_ms, std::string& out) {
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return -errno;
    pid_t child = fork();
    if (child < 0) {
        close(p[0]);
        close(p[1]);
        return -errno;
    }
    if (child == 0) {
        close(p[0]);
        unwind_child(d, image, exe, crash_tid, p[1]);
        _exit(0);
    }
    close(p[1]);
    int64_t deadline = now_ms() + timeout_ms;
    char buf[16384];
    int rc = 0;
    for (;;) {
        int64_t left = deadline - now_ms();
        pollfd pfd{p[0], POLLIN, 0};
        if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) == 0) {
            rc = -ETIME;
            break;
        }
        ssize_t n = read(p[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(p[0]);
    if (rc != 0)
        kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (rc == 0 && WIFSIGNALED(status)) {
        out += "frames: unwinder ended by signal " + std::to_string(WTERMSIG(status)) + "\n";
        rc = -EIO;
    } else if (rc == -ETIME) {
        out += "frames: unwinder stopped at the time limit\n";
    }
    return rc;
}
