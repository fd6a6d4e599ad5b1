// /proc/uptime: seconds since boot and idle seconds.
#include "exporter.h"
#include "proc_text.h"

void render_uptime(const std::string& text, double, metric_writer& w) {
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
