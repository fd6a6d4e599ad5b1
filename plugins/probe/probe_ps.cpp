// probe_ps: the board's processes, so that a client can find one by name.
#include <dirent.h>
#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "probe_common.h"
#include "server_comm.h"
#include "wire/probe_codes.h"

namespace {

// The longest command line a row shows: one read of /proc/PID/cmdline. A
// program's options fit; a listing of many processes stays well below the
// reply's limit.
constexpr int cmdline_chunks = 1;

// What one row shows.
struct ps_row {
    pid_t pid = 0;
    long ppid = 0;
    std::string name;
    char state = '?';
    std::string cmdline;
};

// A control character (tabs and newlines included) would break the row.
void clean(std::string& s) {
    for (char& ch : s) {
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f)
            ch = '?';
    }
}

// The running processes (thread group leaders: /proc lists no other
// thread), ascending.
std::vector<pid_t> list_pids() {
    std::vector<pid_t> pids;
    DIR* dir = opendir("/proc");
    if (dir == nullptr)
        return pids;
    while (dirent* e = readdir(dir)) {
        char* end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (pid > 0 && *end == '\0')
            pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

// Reads one process's row; false when it ended meanwhile. The name comes
// from the stat line ("pid (comm) state ppid ..."), whose comm may hold
// spaces and parentheses: the fields go on after the last ')'.
bool read_row(pid_t pid, ps_row& row) {
    std::string proc = "/proc/" + std::to_string(pid), stat;
    if (probe_read_file(proc + "/stat", stat, 1) != 0)
        return false;
    size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open ||
        close + 4 > stat.size())
        return false;
    row.pid = pid;
    row.name = stat.substr(open + 1, close - open - 1);
    row.state = stat[close + 2];
    row.ppid = strtol(stat.c_str() + close + 4, nullptr, 10);
    clean(row.name);
    // A kernel thread or a zombie has an empty command line; a process that
    // is gone has none at all.
    if (probe_read_file(proc + "/cmdline", row.cmdline, cmdline_chunks) != 0 &&
        probe_read_file(proc + "/stat", stat, 1) != 0)
        return false;
    while (!row.cmdline.empty() && row.cmdline.back() == '\0') row.cmdline.pop_back();
    std::replace(row.cmdline.begin(), row.cmdline.end(), '\0', ' ');
    clean(row.cmdline);
    return true;
}

// The file name of the command line's first word.
std::string first_word_base(const std::string& cmdline) {
    std::string word = cmdline.substr(0, cmdline.find(' '));
    size_t slash = word.rfind('/');
    return slash == std::string::npos ? word : word.substr(slash + 1);
}

// The filter matches the name, the first word's file name, or the whole
// command line, as a shell pattern (fnmatch: '*', '?', '[...]', '\' quotes).
bool selected(const ps_row& row, const std::string& filter) {
    if (filter.empty())
        return true;
    const char* p = filter.c_str();
    return fnmatch(p, row.name.c_str(), 0) == 0 ||
           fnmatch(p, first_word_base(row.cmdline).c_str(), 0) == 0 ||
           fnmatch(p, row.cmdline.c_str(), 0) == 0;
}

// The request's payload is the filter, possibly ending in zero bytes; a
// payload with a control character is no name (a pid sent by habit).
int parse_filter(comm_data* c, std::string& filter) {
    const data_struct* req = c->recv_data;
    if (req->msg_len < 0 || req->msg_len > c->max_recv_len)
        return -EINVAL;
    filter.assign(reinterpret_cast<const char*>(req->msg), static_cast<size_t>(req->msg_len));
    while (!filter.empty() && filter.back() == '\0') filter.pop_back();
    for (char ch : filter) {
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f)
            return -EINVAL;
    }
    return 0;
}

// One line per process, by pid: PID, PPID, NAME, STATE, CMDLINE.
int list_processes(comm_data* c) {
    std::string filter;
    if (int rc = parse_filter(c, filter); rc != 0)
        return rc;
    // Uninitialised: only what text_out writes is read.
    std::unique_ptr<uint8_t[]> text(new uint8_t[probe_max_reply]);
    text_out out(text.get(), probe_max_reply);
    for (pid_t pid : list_pids()) {
        ps_row row;
        // Left out: a process that ended since the listing, and one that
        // probe.conf's "allow" keeps from being probed, so that a name never
        // resolves to a process the other commands refuse.
        if (!read_row(pid, row) || !selected(row, filter) || probe_allowed(pid) != 0)
            continue;
        if (!out.printf("%d\t%ld\t%s\t%c\t%s", row.pid, row.ppid, row.name.c_str(), row.state,
                        row.cmdline.c_str()))
            break;
    }
    return probe_reply(c, out.buf, static_cast<size_t>(out.finish()));
}

}  // namespace

PROBE_EXPORT int probe_ps(comm_data* c) {
    return probe_status(list_processes(c));
}
