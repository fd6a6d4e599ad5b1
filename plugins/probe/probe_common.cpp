#include "probe_common.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::string proc_path(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

}  // namespace

int probe_check_target(const probe_args& args) {
    // /proc/TID answers for any thread, so a thread's id would pass for a
    // process: the status file's Tgid tells the leader apart.
    std::string status;
    if (probe_read_file(proc_path(args.pid) + "/status", status) != 0) {
        return -ESRCH;
    }
    size_t at = status.find("\nTgid:");
    if (at == std::string::npos || atol(status.c_str() + at + 6) != args.pid) {
        return -ESRCH;
    }
    if (args.tid != 0) {
        std::string task = proc_path(args.pid) + "/task/" + std::to_string(args.tid);
        if (access(task.c_str(), F_OK) != 0) {
            return -ESRCH;
        }
    }
    return 0;
}

std::vector<pid_t> probe_list_tasks(pid_t pid) {
    std::vector<pid_t> tids;
    DIR* dir = opendir((proc_path(pid) + "/task").c_str());
    if (dir == nullptr) {
        return tids;
    }
    // readdir_r is deprecated; readdir on a stream of our own is thread-safe.
    while (dirent* e = readdir(dir)) {
        char* end = nullptr;
        long tid = strtol(e->d_name, &end, 10);
        if (tid > 0 && *end == '\0') {
            tids.push_back(static_cast<pid_t>(tid));
        }
    }
    closedir(dir);
    std::sort(tids.begin(), tids.end());
    return tids;
}

int probe_read_file(const std::string& path, std::string& out, int chunks) {
    out.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    char chunk[4096];
    for (int i = 0; i < chunks; i++) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            int err = errno;
            close(fd);
            return -err;
        }
        if (n == 0) {
            break;
        }
        out.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    return 0;
}

std::string probe_thread_name(pid_t pid, pid_t tid) {
    std::string name;
    probe_read_file(proc_path(pid) + "/task/" + std::to_string(tid) + "/comm", name);
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    return probe_printable_name(name);
}

std::string probe_printable_name(std::string name) {
    for (char& ch : name) {
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f) {
            ch = '?';
        }
    }
    return name;
}

bool text_out::line(const std::string& s) {
    int n = static_cast<int>(s.size()) + 1;
    if (truncated || n > cap - len) {
        truncated = true;
        return false;
    }
    memcpy(buf + len, s.data(), s.size());
    buf[len + n - 1] = '\n';
    len += n;
    return true;
}

bool text_out::printf(const char* fmt, ...) {
    char small[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(small, sizeof small, fmt, ap);
    va_end(ap);
    if (n < 0) {
        return line("");
    }
    if (n < static_cast<int>(sizeof small)) {
        return line(std::string(small, static_cast<size_t>(n)));
    }
    // Long C++ names: format again into a buffer of the right size.
    std::string big(static_cast<size_t>(n) + 1, '\0');
    va_start(ap, fmt);
    vsnprintf(&big[0], big.size(), fmt, ap);
    va_end(ap);
    big.pop_back();
    return line(big);
}

int text_out::finish() {
    if (!truncated) {
        return len;
    }
    if (cap >= static_cast<int>(truncated_len)) {
        len = static_cast<int>(cut_to_whole_lines(reinterpret_cast<uint8_t*>(buf),
                                                  static_cast<size_t>(len), static_cast<size_t>(cap)));
    }
    return len;
}
