// /proc/meminfo: one gauge per field.
#include "exporter.h"
#include "proc_text.h"

void render_meminfo(const std::string& text, double, metric_writer& w) {
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
