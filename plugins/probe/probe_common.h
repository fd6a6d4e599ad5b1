// Shared by the probe functions: the request's arguments, the target checks,
// small /proc readers, and the reply text cut at a line boundary.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "wire/reply.h"

class comm_data;

// Entry points are the only functions of the plug-in that it exports.
#define PROBE_EXPORT extern "C" __attribute__((visibility("default")))

// What a probe request names: payload bytes 0..3 the pid, bytes 4..7 the
// thread (both little-endian); a thread of 0, or a payload of 4 to 7 bytes,
// means every thread. Bytes 8..11, when there, are flags (probe_flag_*);
// other bits are ignored.
struct probe_args {
    pid_t pid = 0;
    pid_t tid = 0;
    uint32_t flags = 0;
};

// Stacks and samples as raw addresses with the modules' build-ids
// (symbolizer markup), for naming on another machine; no symbol lookups.
constexpr uint32_t probe_flag_raw = 1;
// Sample lines with each thread's state letter (R, S, D, ...).
constexpr uint32_t probe_flag_state = 2;

// Reads the arguments of c's request. Returns 0, or -22 (EINVAL) when the
// payload is shorter than 4 bytes, longer than a request may be, names pid
// 0, or holds an id above INT32_MAX.
int probe_parse_args(comm_data* c, probe_args& args);

// 0 when args.pid is a running process (a thread group leader, not merely
// some thread's id) and args.tid, if given, is one of its threads; -3
// (ESRCH) otherwise.
int probe_check_target(const probe_args& args);

// 0 when probe.conf's "allow" lets pid be walked (by its uids, executable
// and cgroup), else -EPROTONOSUPPORT.
int probe_allowed(pid_t pid);

// All of the above: the request's target, parsed, found running and allowed.
int probe_target(comm_data* c, probe_args& args);

// The thread ids of a process, ascending; empty when it is gone.
std::vector<pid_t> probe_list_tasks(pid_t pid);

// Reads a small file whole (/proc files report no size). Returns 0 or a
// negated errno value.
// At most chunks reads of 4 KiB are made: the bound keeps a misbehaving
// file from growing without limit.
int probe_read_file(const std::string& path, std::string& out, int chunks = 64);

// The name of a thread (its comm) with control characters replaced, so that
// a name can never break a reply line; empty when unreadable.
std::string probe_thread_name(pid_t pid, pid_t tid);

// The same rule for a name taken from elsewhere (the "(comm)" of a stat file).
std::string probe_printable_name(std::string name);

// The most text a reply carries; longer text is cut and marked as
// text_out does.
constexpr int probe_max_reply = static_cast<int>(max_multi_reply_len);

// Answers c's request with len bytes of text. Up to the reply buffer's
// capacity (8192 bytes) the text is copied there and its length returned,
// for the daemon to send as usual. A longer text is sent here as one
// multi-packet reply: one message part per 8192 payload bytes, each a full
// frame of 8192 + 48 bytes whose header holds the total length, the packet
// count and the packet's number from 1 (the last one zero-padded). Then the
// result is above 8192, so the daemon sends nothing more. -5 (EIO) when
// nothing could be sent.
int probe_reply(comm_data* c, const char* text, size_t len);

// Reply text built line by line in the reply payload. Whole lines only:
// when a line does not fit, nothing more is taken, and finish() ends the
// text with the line "... truncated", dropping earlier lines if needed to
// make room for it. The length never exceeds cap.
class text_out {
public:
    text_out(uint8_t* buf, int cap) : buf(reinterpret_cast<char*>(buf)), cap(cap) {}

    // Appends s and a newline. False when it did not fit (or an earlier line
    // did not): the caller stops producing text.
    bool line(const std::string& s);
    bool printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // Adds the truncation line where needed; returns the text's length.
    int finish();

    char* buf;
    int cap;
    int len = 0;
    bool truncated = false;
};
