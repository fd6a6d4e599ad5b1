// Settings of the crash handler and the crash plug-in: a small key=value
// file, '#' comments, every key optional.
#pragma once

#include <cstdint>
#include <string>

struct crash_conf {
    std::string store = "/var/lib/vireo-monitor/crashes";
    int max_reports = 50;
    int64_t max_total_bytes = 8 << 20;
    int rate_per_hour = 5;  // reports per executable in any hour
    int time_limit_s = 5;   // the kernel is never held longer
    int64_t core_read_limit = 512 << 20;
    int64_t core_stack_bytes = 0;  // stack kept per thread in the saved core; 0: no core
    int64_t unwind_stack_bytes = 256 << 10;
    int max_threads = 256;
};

// Reads path into conf. A missing file keeps the defaults (0); an unknown
// key or a value out of its range is reported in err and skipped. Returns 0,
// or -errno when the file exists but cannot be read.
int crash_conf_load(const std::string& path, crash_conf& conf, std::string& err);
