// The board's /proc files as Prometheus metrics.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "exporter.h"

namespace {

// The daemon sends at most this much of a file in one reply.
constexpr size_t file_reply_cap = 8191;

// Lines of a file reply; a last line without '\n' in a reply that filled the
// reply buffer was cut by it and is left out.
std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) {
            if (text.size() < file_reply_cap) {
                lines.push_back(text.substr(pos));
            }
            break;
        }
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return lines;
}

// Words separated by blanks; the views point into line.
std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> w;
    size_t pos = 0;
    while (true) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string_view::npos) {
            return w;
        }
        size_t end = std::min(line.find_first_of(" \t", pos), line.size());
        w.push_back(line.substr(pos, end - pos));
        pos = end;
    }
}

std::string_view first_line(const std::string& text) {
    return std::string_view(text).substr(0, text.find('\n'));
}

// A whole number or decimal, all of s; false for anything else.
bool to_double(std::string_view s, double& out) {
    auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

void append_value(std::string& out, double v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

}  // namespace

std::string escape_label(const std::string& v) {
    std::string out;
    out.reserve(v.size());
    for (char c : v) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string metric_name_part(const std::string& text) {
    std::string out;
    for (char c : text) {
        bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        out += ok ? c : '_';
    }
    while (!out.empty() && out.back() == '_') {
        out.pop_back();
    }
    return out;
}

void metric_writer::family(const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void metric_writer::sample(const std::string& name,
                           const std::vector<std::pair<const char*, std::string>>& labels,
                           double value) {
    out += name;
    if (!labels.empty()) {
        out += '{';
        for (size_t i = 0; i < labels.size(); i++) {
            out += i == 0 ? "" : ",";
            out += labels[i].first;
            out += "=\"";
            out += escape_label(labels[i].second);
            out += '"';
        }
        out += '}';
    }
    out += ' ';
    append_value(out, value);
    out += '\n';
}

void render_meminfo(const std::string& text, metric_writer& w) {
    for (std::string_view line : lines_of(text)) {
        size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        std::vector<std::string_view> v = words(line.substr(colon + 1));
        double value = 0;
        const std::string raw(line.substr(0, colon));
        std::string field = metric_name_part(raw);
        if (field.empty() || v.empty() || !to_double(v[0], value)) {
            continue;
        }
        // Sizes come in kB (KiB); the HugePages_ counts have no unit.
        bool kb = v.size() > 1 && v[1] == "kB";
        std::string name = "vireo_memory_" + field + (kb ? "_bytes" : "");
        w.family(name.c_str(), "gauge",
                 ("Field " + raw + " of /proc/meminfo" + (kb ? " in bytes." : ".")).c_str());
        w.sample(name, kb ? value * 1024 : value);
    }
}

void render_loadavg(const std::string& text, metric_writer& w) {
    // "0.20 0.18 0.12 1/80 11206": three averages, runnable/total tasks, last pid.
    std::vector<std::string_view> v = words(first_line(text));
    double l[3];
    if (v.size() < 4 || !to_double(v[0], l[0]) || !to_double(v[1], l[1]) ||
        !to_double(v[2], l[2])) {
        return;
    }
    static const char* const names[] = {"vireo_load1", "vireo_load5", "vireo_load15"};
    static const char* const helps[] = {"1-minute load average.", "5-minute load average.",
                                        "15-minute load average."};
    for (int i = 0; i < 3; i++) {
        w.family(names[i], "gauge", helps[i]);
        w.sample(names[i], l[i]);
    }
    size_t slash = v[3].find('/');
    double run = 0, total = 0;
    if (slash != std::string_view::npos && to_double(v[3].substr(0, slash), run) &&
        to_double(v[3].substr(slash + 1), total)) {
        w.family("vireo_loadavg_runnable_tasks", "gauge",
                 "Runnable kernel scheduling entities (/proc/loadavg).");
        w.sample("vireo_loadavg_runnable_tasks", run);
        w.family("vireo_loadavg_tasks", "gauge",
                 "Existing kernel scheduling entities (/proc/loadavg).");
        w.sample("vireo_loadavg_tasks", total);
    }
}

void render_stat(const std::string& text, double user_hz, metric_writer& w) {
    // The columns of a "cpuN" line; guest time is also counted in user and nice.
    static const char* const modes[] = {"user", "nice",    "system", "idle",  "iowait",
                                        "irq",  "softirq", "steal",  "guest", "guest_nice"};
    struct cpu_row {
        std::string cpu;
        std::vector<double> ticks;
    };
    std::vector<cpu_row> cpus;
    struct single {
        const char* key;
        const char* name;
        const char* type;
        const char* help;
        double value = 0;
        bool seen = false;
    } singles[] = {
        {"ctxt", "vireo_context_switches_total", "counter", "Context switches since boot."},
        {"intr", "vireo_interrupts_total", "counter", "Interrupts serviced since boot."},
        {"softirq", "vireo_softirqs_total", "counter", "Soft interrupts serviced since boot."},
        {"processes", "vireo_forks_total", "counter", "Processes and threads created since boot."},
        {"procs_running", "vireo_procs_running", "gauge", "Processes in the runnable state."},
        {"procs_blocked", "vireo_procs_blocked", "gauge", "Processes blocked waiting for I/O."},
        {"btime", "vireo_boot_time_seconds", "gauge", "Boot time, seconds since the Unix epoch."},
    };
    for (std::string_view line : lines_of(text)) {
        std::vector<std::string_view> v = words(line);
        if (v.size() < 2) {
            continue;
        }
        if (v[0].size() > 3 && v[0].compare(0, 3, "cpu") == 0) {
            cpu_row row{std::string(v[0].substr(3)), {}};
            for (size_t i = 1; i < v.size() && i <= 10; i++) {
                double t = 0;
                if (!to_double(v[i], t)) {
                    break;
                }
                row.ticks.push_back(t);
            }
            cpus.push_back(row);
            continue;
        }
        for (single& s : singles) {
            if (v[0] == s.key && to_double(v[1], s.value)) {
                s.seen = true;
            }
        }
    }
    if (!cpus.empty()) {
        w.family("vireo_cpu_seconds_total", "counter",
                 "Seconds each CPU spent in each mode (/proc/stat).");
        for (const cpu_row& c : cpus) {
            for (size_t i = 0; i < c.ticks.size() && i < 8; i++) {
                w.sample("vireo_cpu_seconds_total", {{"cpu", c.cpu}, {"mode", modes[i]}},
                         c.ticks[i] / user_hz);
            }
        }
        w.family("vireo_cpu_guest_seconds_total", "counter",
                 "Seconds each CPU spent running guests, also counted in user and nice.");
        for (const cpu_row& c : cpus) {
            for (size_t i = 8; i < c.ticks.size(); i++) {
                w.sample("vireo_cpu_guest_seconds_total",
                         {{"cpu", c.cpu}, {"mode", i == 8 ? "user" : "nice"}},
                         c.ticks[i] / user_hz);
            }
        }
    }
    for (const single& s : singles) {
        if (s.seen) {
            w.family(s.name, s.type, s.help);
            w.sample(s.name, s.value);
        }
    }
}

void render_uptime(const std::string& text, metric_writer& w) {
    std::vector<std::string_view> v = words(first_line(text));
    double up = 0, idle = 0;
    if (v.size() < 2 || !to_double(v[0], up) || !to_double(v[1], idle)) {
        return;
    }
    w.family("vireo_uptime_seconds", "gauge", "Seconds since boot (/proc/uptime).");
    w.sample("vireo_uptime_seconds", up);
    w.family("vireo_uptime_idle_seconds_total", "counter",
             "Seconds all CPUs together spent idle (/proc/uptime).");
    w.sample("vireo_uptime_idle_seconds_total", idle);
}

uint32_t parse_pidfile(const std::string& text) {
    std::vector<std::string_view> v = words(first_line(text));
    double pid = 0;
    if (v.empty() || !to_double(v[0], pid) || pid < 1 || pid > 4194304 ||
        v[0].find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return static_cast<uint32_t>(pid);
}

bool parse_process(const std::string& status, const std::string& stat, double user_hz,
                   process_sample& out) {
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
    // The name in parentheses may hold anything: fields follow the last ')'.
    // After it: state (3), ppid (4), ... utime (14) and stime (15).
    size_t paren = stat.rfind(')');
    if (!have_state || paren == std::string::npos) {
        return false;
    }
    std::vector<std::string_view> v = words(std::string_view(stat).substr(paren + 1));
    double utime = 0, stime = 0;
    if (v.size() < 13 || !to_double(v[11], utime) || !to_double(v[12], stime)) {
        return false;
    }
    out.cpu_seconds = (utime + stime) / user_hz;
    out.up = true;
    return true;
}

void render_processes(const std::vector<process_sample>& procs, metric_writer& w) {
    if (procs.empty()) {
        return;
    }
    w.family("vireo_process_up", "gauge", "1 when the named process was found and read, else 0.");
    for (const process_sample& p : procs) {
        w.sample("vireo_process_up", {{"process", p.name}}, p.up ? 1 : 0);
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
