// The status codes of the probe plug-in's replies and what they mean. They
// lie in -5001..-5999, apart from the daemon's own codes (-1, -2, -6, -22,
// -24) and from the negated errno values other plug-ins answer, so that a
// client can tell a probe refusal from a daemon one: a probe code is -5000
// minus the errno value that best describes it. Header-only: the plug-in
// and the client both include it.
#pragma once

#include <cerrno>
#include <cstdint>

constexpr int32_t probe_code_base = -5000;
constexpr int32_t probe_code_last = -5999;

enum probe_code : int32_t {
    probe_refused = probe_code_base - EPERM,                // -5001
    probe_no_process = probe_code_base - ESRCH,             // -5003
    probe_walker_failed = probe_code_base - EIO,            // -5005
    probe_unreadable = probe_code_base - EACCES,            // -5013
    probe_busy = probe_code_base - EBUSY,                   // -5016
    probe_bad_request = probe_code_base - EINVAL,           // -5022
    probe_deadline = probe_code_base - ETIME,               // -5062
    probe_not_allowed = probe_code_base - EPROTONOSUPPORT,  // -5093
    probe_traced = probe_code_base - EALREADY,              // -5114
    probe_expired = probe_code_base - ECANCELED,            // -5125
};

constexpr bool probe_code_p(int32_t code) {
    return code <= probe_code_base - 1 && code >= probe_code_last;
}

// A probe function's internal result (0, a length, or a negated errno) as
// its reply status: negated errno values move into the probe's range.
constexpr int probe_status(int rc) {
    return rc < 0 && rc > probe_code_last - probe_code_base ? probe_code_base + rc : rc;
}

// The text of a probe code; nullptr for one without a text of its own (the
// client then names the errno value it was made from).
inline const char* probe_code_text(int32_t code) {
    switch (code) {
        case probe_refused:
            return "probe: ptrace or reading refused";
        case probe_no_process:
            return "probe: no such process or thread";
        case probe_walker_failed:
            return "probe: the stack walker died or could not start";
        case probe_unreadable:
            return "probe: the target's memory map is not readable";
        case probe_busy:
            return "probe: busy, another walk of this process or too many walks at once";
        case probe_bad_request:
            return "probe: bad request (payload under 4 bytes, msg_len above 1024, pid 0)";
        case probe_deadline:
            return "probe: deadline passed: the walk did not finish in time";
        case probe_not_allowed:
            return "probe: process not allowed by probe.conf";
        case probe_traced:
            return "probe: the process is traced by another tracer (a debugger)";
        case probe_expired:
            return "probe: request too old, not walked";
        default:
            return nullptr;
    }
}
