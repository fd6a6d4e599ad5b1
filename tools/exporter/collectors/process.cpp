// A named process: its pidfile, /proc/PID/status and /proc/PID/stat.
#include "exporter.h"
#include "proc_text.h"

uint32_t parse_pidfile(const std::string& text) {
    std::vector<std::string_view> v = words(first_line(text));
    double pid = 0;
    if (v.empty() || !to_double(v[0], pid) || pid < 1 || pid > 4194304 ||
        v[0].find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return static_cast<uint32_t>(pid);
}

bool parse_process_status(const std::string& status, process_sample& out) {
    bool have_state = false;
    for (std::string_view line : lines_of(status)) {
        std::vector<std::string_view> v = words(line);
        if (v.size() < 2) {
            continue;
        }
        if (v[0] == "State:") {
            out.state = std::string(v[1]);
            have_state = true;
        } else if (v[0] == "Threads:") {
            to_double(v[1], out.threads);
        } else if (v[0] == "VmRSS:") {  // absent for kernel threads: 0
            to_double(v[1], out.rss_bytes);
            out.rss_bytes *= 1024;
        }
    }
    return have_state;
}

bool parse_process_stat(const std::string& stat, double user_hz, process_sample& out) {
    // The name in parentheses may hold anything: fields follow the last ')'.
    // After it: state (3), ppid (4), ... utime (14) and stime (15).
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos) {
        return false;
    }
    std::vector<std::string_view> v = words(std::string_view(stat).substr(paren + 1));
    double utime = 0, stime = 0;
    if (v.size() < 13 || !to_double(v[11], utime) || !to_double(v[12], stime)) {
        return false;
    }
    out.cpu_seconds = (utime + stime) / user_hz;
    return true;
}

bool parse_process(const std::string& status, const std::string& stat, double user_hz,
                   process_sample& out) {
    out.up = parse_process_status(status, out) && parse_process_stat(stat, user_hz, out);
    return out.up;
}

void render_processes(const std::vector<process_sample>& procs, metric_writer& w) {
    if (procs.empty()) {
        return;
    }
    w.family("vireo_process_up", "gauge",
             "1 when the named process was found and read, else 0 with the reason.");
    for (const process_sample& p : procs) {
        if (p.up) {
            w.sample("vireo_process_up", {{"process", p.name}}, 1);
        } else {
            w.sample("vireo_process_up", {{"process", p.name}, {"reason", proc_miss_text(p.miss)}},
                     0);
        }
    }
    struct fam {
        const char* name;
        const char* type;
        const char* help;
        double process_sample::*field;
    } fams[] = {
        {"vireo_process_resident_memory_bytes", "gauge", "Resident set size (VmRSS) in bytes.",
         &process_sample::rss_bytes},
        {"vireo_process_cpu_seconds_total", "counter", "User and system CPU seconds (utime+stime).",
         &process_sample::cpu_seconds},
        {"vireo_process_threads", "gauge", "Threads of the process.", &process_sample::threads},
    };
    for (const fam& f : fams) {
        w.family(f.name, f.type, f.help);
        for (const process_sample& p : procs) {
            if (p.up) {
                w.sample(f.name, {{"process", p.name}}, p.*f.field);
            }
        }
    }
    w.family("vireo_process_state", "gauge",
             "1, with the process state letter of /proc/PID/status (R, S, D, Z, T, ...).");
    for (const process_sample& p : procs) {
        if (p.up) {
            w.sample("vireo_process_state", {{"process", p.name}, {"state", p.state}}, 1);
        }
    }
    w.family("vireo_process_pid", "gauge", "Process id the figures were read for.");
    for (const process_sample& p : procs) {
        if (p.pid != 0) {
            w.sample("vireo_process_pid", {{"process", p.name}}, p.pid);
        }
    }
}
