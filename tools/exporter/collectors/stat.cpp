// /proc/stat: CPU time per CPU and mode, and the system-wide counters.
#include "exporter.h"
#include "proc_text.h"

namespace {

// The columns of a "cpuN" line; guest time is also counted in user and nice.
const char* const modes[] = {"user", "nice",    "system", "idle",  "iowait",
                             "irq",  "softirq", "steal",  "guest", "guest_nice"};

struct cpu_row {
    std::string cpu;
    std::vector<double> ticks;
};

struct single {
    const char* key;
    const char* name;
    const char* type;
    const char* help;
    double value = 0;
    bool seen = false;
};

void render_cpus(const std::vector<cpu_row>& cpus, double user_hz, metric_writer& w) {
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
                     {{"cpu", c.cpu}, {"mode", i == 8 ? "user" : "nice"}}, c.ticks[i] / user_hz);
        }
    }
}

}  // namespace

void render_stat(const std::string& text, double user_hz, metric_writer& w) {
    std::vector<cpu_row> cpus;
    single singles[] = {
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
        render_cpus(cpus, user_hz, w);
    }
    for (const single& s : singles) {
        if (s.seen) {
            w.family(s.name, s.type, s.help);
            w.sample(s.name, s.value);
        }
    }
}
