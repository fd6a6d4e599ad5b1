// The process_* figures every Prometheus exporter gives about itself, read
// from /proc/self.
#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "exporter.h"
#include "proc_text.h"

namespace {

std::string read_all(const char* path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

double open_fds() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) {
        return 0;
    }
    double n = 0;
    while (dirent* e = readdir(d)) {
        n += e->d_name[0] != '.' ? 1 : 0;
    }
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

double boot_time() {
    const std::string text = read_all("/proc/stat");  // the views below point into it
    for (std::string_view line : lines_of(text)) {
        std::vector<std::string_view> v = words(line);
        double t = 0;
        if (v.size() == 2 && v[0] == "btime" && to_double(v[1], t)) {
            return t;
        }
    }
    return 0;
}

}  // namespace

void render_self_process(metric_writer& w) {
    // Fields after the name's last ')': utime 14, stime 15, starttime 22,
    // vsize 23, rss 24 (counted from 1 with pid first).
    std::string stat = read_all("/proc/self/stat");
    size_t paren = stat.rfind(')');
    std::vector<std::string_view> v =
        words(std::string_view(stat).substr(paren == std::string::npos ? stat.size() : paren + 1));
    double f[5] = {};
    const size_t at[5] = {11, 12, 19, 20, 21};
    for (size_t i = 0; i < 5; i++) {
        if (v.size() <= at[i] || !to_double(v[at[i]], f[i])) {
            return;
        }
    }
    const double hz = static_cast<double>(sysconf(_SC_CLK_TCK));
    const double page = static_cast<double>(sysconf(_SC_PAGESIZE));
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    const struct {
        const char* name;
        const char* type;
        const char* help;
        double value;
    } rows[] = {
        {"process_cpu_seconds_total", "counter", "Total user and system CPU time spent in seconds.",
         (f[0] + f[1]) / hz},
        {"process_open_fds", "gauge", "Number of open file descriptors.", open_fds()},
        {"process_max_fds", "gauge", "Maximum number of open file descriptors.",
         static_cast<double>(lim.rlim_cur)},
        {"process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.", f[3]},
        {"process_resident_memory_bytes", "gauge", "Resident memory size in bytes.", f[4] * page},
        {"process_start_time_seconds", "gauge",
         "Start time of the process since unix epoch in seconds.", boot_time() + f[2] / hz},
    };
    for (const auto& r : rows) {
        w.family(r.name, r.type, r.help);
        w.sample(r.name, r.value);
    }
}
