// /proc/loadavg: the three averages and the task counts.
#include "exporter.h"
#include "proc_text.h"

void render_loadavg(const std::string& text, double, metric_writer& w) {
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
