#include "crash_report.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

namespace {

constexpr size_t max_report = 1 << 20;
constexpr size_t max_maps = 256 << 10;
constexpr size_t max_frames_text = 640 << 10;

std::string read_small(const std::string& path, size_t max) {
    std::string out;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return out;
    char buf[8192];
    ssize_t n;
    while (out.size() < max && (n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(fd);
    if (out.size() > max)
        out.resize(max);
    return out;
}

// One line, no control characters: a file name or argument cannot forge a
// header line.
std::string one_line(std::string s) {
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = ' ';
    return s;
}

std::string hex(uint64_t v) {
    char b[24];
    snprintf(b, sizeof b, "0x%016" PRIx64, v);
    return b;
}

// Cut at the last newline before max, marked.
std::string cut(const std::string& s, size_t max) {
    if (s.size() <= max)
        return s;
    size_t nl = s.rfind('\n', max);
    return s.substr(0, nl == std::string::npos ? 0 : nl + 1) + "... truncated\n";
}

std::string registers(const core_data& core, int tid) {
    const core_thread* t = core.threads.empty() ? nullptr : &core.threads[0];
    for (const auto& th : core.threads)
        if (th.tid == tid)
            t = &th;
    if (t == nullptr)
        return "registers: none\n";
    auto names = core_reg_names(core.machine);
    std::string out = "registers (thread " + std::to_string(t->tid) + "):\n";
    for (size_t i = 0; i < t->regs.size() && i < names.size(); i++) {
        char b[48];
        snprintf(b, sizeof b, "%8s %s", names[i], hex(t->regs[i]).c_str());
        out += b;
        out += (i % 4 == 3 || i + 1 == t->regs.size()) ? "\n" : "  ";
    }
    return out;
}

}  // namespace

void crash_read_proc(int pid, crash_info& info) {
    std::string dir = "/proc/" + std::to_string(pid);
    char buf[4096];
    ssize_t n = readlink((dir + "/exe").c_str(), buf, sizeof buf - 1);
    if (n > 0)
        info.exe.assign(buf, static_cast<size_t>(n));
    std::string cmd = read_small(dir + "/cmdline", 4096);
    while (!cmd.empty() && cmd.back() == '\0') cmd.pop_back();
    std::replace(cmd.begin(), cmd.end(), '\0', ' ');
    info.cmdline = one_line(cmd);
    info.maps = read_small(dir + "/maps", max_maps + 1);
    if (info.exe.empty())
        info.exe = info.comm;
}

std::string crash_report_text(const crash_info& info, const core_data& core,
                              const std::string& frames) {
    std::ostringstream o;
    char when[64] = "";
    time_t t = static_cast<time_t>(info.time);
    tm utc;
    if (gmtime_r(&t, &utc))
        strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
    int sig = core.have_siginfo ? core.sig_no : info.sig;
    const char* abbrev = sigabbrev_np(sig);
    o << "vireo-crash report 1\n"
      << "id: " << info.id << "\n"
      << "time: " << info.time << " " << when << "\n"
      << "pid: " << info.pid << "\n"
      << "tid: " << info.tid << "\n"
      << "executable: " << one_line(info.exe) << "\n"
      << "command line: " << info.cmdline << "\n"
      << "signal: " << sig << " " << (abbrev ? std::string("SIG") + abbrev : "?") << "\n";
    if (core.have_siginfo)
        o << "code: " << core.sig_code << "\n";
    // Only these signals carry an address; for the others the field holds a
    // sender's pid and uid.
    if (core.have_siginfo &&
        (sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE || sig == SIGTRAP))
        o << "fault address: " << hex(core.fault_addr) << "\n";
    o << "threads: " << core.threads.size() << "\n"
      << "core: " << core.bytes_read << " bytes read"
      << (core.problem.empty() ? "" : ", " + core.problem) << "\n\n"
      << registers(core, info.tid) << "\n"
      << "frames:\n"
      << cut(frames, max_frames_text) << "\n"
      << "memory map:\n"
      << cut(info.maps, max_maps);
    return cut(o.str(), max_report);
}

void crash_report_summary(const std::string& head, crash_summary& s) {
    std::istringstream in(head);
    std::string line;
    for (int i = 0; i < 20 && std::getline(in, line); i++) {
        if (line.rfind("time: ", 0) == 0)
            s.time = strtoll(line.c_str() + 6, nullptr, 10);
        else if (line.rfind("executable: ", 0) == 0)
            s.exe = line.substr(12);
        else if (line.rfind("signal: ", 0) == 0)
            s.sig = atoi(line.c_str() + 8);
    }
}
