// probe_threads and probe_kstack: what /proc tells about a process's threads.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "wire/probe_codes.h"
#include "probe_common.h"
#include "server_comm.h"

namespace {

// The fields of a thread's stat line that a listing shows.
struct thread_stat {
    std::string name;
    char state = '?';
    unsigned long utime = 0;  // clock ticks
    unsigned long stime = 0;
};

// Parses "tid (comm) state ppid ...": comm may hold spaces and
// parentheses, so the fields start after the last ')'. utime and stime are
// fields 14 and 15, the 12th and 13th after comm.
bool parse_stat(const std::string& text, thread_stat& st) {
    size_t open = text.find('(');
    size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return false;
    }
    st.name = text.substr(open + 1, close - open - 1);
    std::istringstream fields(text.substr(close + 1));
    std::string f;
    for (int i = 0; i < 13 && fields >> f; i++) {
        if (i == 0)
            st.state = f[0];
        if (i == 11)
            st.utime = strtoul(f.c_str(), nullptr, 10);
        if (i == 12) {
            st.stime = strtoul(f.c_str(), nullptr, 10);
            return true;
        }
    }
    return false;
}

// Ticks as seconds with two decimals.
std::string seconds(unsigned long ticks, long hz) {
    char buf[32];
    unsigned long h = static_cast<unsigned long>(hz);
    snprintf(buf, sizeof buf, "%lu.%02lu", ticks / h, ticks % h * 100 / h);
    return buf;
}

// One line per thread, tab-separated: tid, name, state, user and system CPU
// time in seconds.
int list_threads(comm_data* c) {
    probe_args args;
    int rc = probe_target(c, args);
    if (rc != 0)
        return rc;

    std::vector<pid_t> tids =
        args.tid != 0 ? std::vector<pid_t>{args.tid} : probe_list_tasks(args.pid);
    long hz = sysconf(_SC_CLK_TCK);
    if (hz <= 0)
        hz = 100;
    // Uninitialised: only what text_out writes is read.
    std::unique_ptr<uint8_t[]> text(new uint8_t[probe_max_reply]);
    text_out out(text.get(), probe_max_reply);
    int listed = 0;
    for (pid_t tid : tids) {
        std::string text;
        thread_stat st;
        std::string base = "/proc/" + std::to_string(args.pid) + "/task/" + std::to_string(tid);
        // A thread that ends between the listing and here is left out.
        if (probe_read_file(base + "/stat", text) != 0 || !parse_stat(text, st)) {
            continue;
        }
        std::string name = probe_thread_name(args.pid, tid);
        if (name.empty())
            name = st.name;
        if (!out.printf("%d\t%s\t%c\t%s\t%s", tid, name.c_str(), st.state,
                        seconds(st.utime, hz).c_str(), seconds(st.stime, hz).c_str())) {
            break;
        }
        listed++;
    }
    if (listed == 0 && !out.truncated)
        return -ESRCH;
    return probe_reply(c, out.buf, static_cast<size_t>(out.finish()));
}

// The kernel stack of one thread (tid 0: the main thread) as the kernel
// prints it. Reading it usually takes privileges: refused is probe_refused.
int kernel_stack(comm_data* c) {
    probe_args args;
    int rc = probe_target(c, args);
    if (rc != 0)
        return rc;

    pid_t tid = args.tid != 0 ? args.tid : args.pid;
    std::string text;
    rc = probe_read_file(
        "/proc/" + std::to_string(args.pid) + "/task/" + std::to_string(tid) + "/stack", text);
    if (rc == -EACCES)
        rc = -EPERM;
    if (rc != 0)
        return rc;

    text_out out(c->send_data->msg, c->max_send_len);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        if (!out.line(text.substr(start, end - start)))
            break;
        start = end + 1;
    }
    return out.finish();
}

}  // namespace

PROBE_EXPORT int probe_threads(comm_data* c) {
    return probe_status(list_threads(c));
}

PROBE_EXPORT int probe_kstack(comm_data* c) {
    return probe_status(kernel_stack(c));
}
