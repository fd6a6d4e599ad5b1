// Unwinding every thread of a core with libdwfl, in a child process: a
// fault or a hang in the unwinder, on a hostile core, costs the frames of a
// report and never the report.
#pragma once

#include <string>

#include "crash_core.h"

// Writes the modules (symbolizer markup: module and mmap elements) and each
// thread's frames (bt elements, each followed by the board's own name where
// it has one) to out, the thread crash_tid first. image is core_build's
// output, exe the crashed executable's path. Returns 0, -ETIME when the
// unwinder did not finish within timeout_ms (out then holds what it wrote),
// or -EIO when it died; out then says how.
int crash_unwind(const core_data& d, const std::string& image, const std::string& exe,
                 int crash_tid, int timeout_ms, std::string& out);
