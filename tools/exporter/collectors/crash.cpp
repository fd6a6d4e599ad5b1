// The crash plug-in's list: one line per report kept on the board, "id
// time exe signal core_bytes" tab-separated. Counted, never labelled by
// executable: that would be a series per program that ever crashed.
#include <algorithm>

#include "exporter.h"
#include "proc_text.h"

void render_crashes(const std::string& text, double, metric_writer& w) {
    double reports = 0, newest = 0;
    for (std::string_view line : lines_of(text)) {
        size_t tab = line.find('\t');
        if (tab == 0 || tab == std::string_view::npos) {
            continue;  // "... truncated" and anything else that is no report
        }
        std::string_view rest = line.substr(tab + 1);
        double t = 0;
        if (!to_double(rest.substr(0, rest.find('\t')), t)) {
            continue;
        }
        reports++;
        newest = std::max(newest, t);
    }
    w.family("vireo_crash_reports", "gauge",
             "Crash reports kept on the board (the oldest are dropped at the store's limits).");
    w.sample("vireo_crash_reports", reports);
    if (reports > 0) {
        w.family("vireo_crash_newest_report_timestamp_seconds", "gauge",
                 "Unix time of the newest crash report on the board.");
        w.sample("vireo_crash_newest_report_timestamp_seconds", newest);
    }
}
