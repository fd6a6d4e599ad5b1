// The text of a crash report, and what the crash plug-in reads back from it.
#pragma once

#include <cstdint>
#include <string>

#include "crash_core.h"

struct crash_info {
    std::string id;
    int pid = 0, tid = 0, sig = 0;  // as the kernel passed them
    int64_t time = 0;
    std::string comm, exe, cmdline, maps;
};

// Reads /proc/PID/exe, cmdline and maps, bounded, into info; what cannot be
// read stays empty (exe then falls back to the command name).
void crash_read_proc(int pid, crash_info& info);

// The report: header lines "key: value", the registers of the crashed
// thread, the frames section (crash_unwind's text) and the memory map. At
// most 1 MiB.
std::string crash_report_text(const crash_info& info, const core_data& core,
                              const std::string& frames);

// From a report's header: time, executable and signal, for a listing.
struct crash_summary {
    int64_t time = 0;
    std::string exe;
    int sig = 0;
};
void crash_report_summary(const std::string& head, crash_summary& s);
