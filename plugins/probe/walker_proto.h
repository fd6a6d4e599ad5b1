// What the probe plug-in and its walker program say to each other over the
// stream socket the walker inherits as file descriptor 3. One request, then
// one reply, at a time; both sides run on the same machine, so the structs
// travel in host byte order.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

// The walker's end of the socket.
constexpr int walker_fd = 3;

// The largest reply text: a longer one is cut at a whole line and ends
// with "... truncated".
constexpr uint32_t walker_max_text = 1u << 20;

enum walker_op : uint32_t {
    // "Thread TID (name):" and "#N  0xPC in function+0xOFF (module)" lines.
    walker_stack = 1,
    // One line per thread: TID, name, microseconds the thread was stopped,
    // and its frames root first as "frame;frame;...;leaf", tab-separated.
    walker_sample = 2,
    // No reply: from now on the walker serves process tid. The first
    // request of a walker started without a PID, which the plug-in keeps
    // ready so that a new target does not wait for a program start.
    walker_bind = 3,
    // walker_stack and walker_sample without symbol lookups, for naming on
    // another machine: the process's modules with their build-ids and
    // executable mappings as symbolizer markup first, then per frame its
    // address only (a "bt" element in a stack, "0xADDR" in a sample line).
    walker_stack_raw = 4,
    walker_sample_raw = 5,
};

inline bool walker_op_raw(uint32_t op) {
    return op == walker_stack_raw || op == walker_sample_raw;
}
inline bool walker_op_sample(uint32_t op) {
    return op == walker_sample || op == walker_sample_raw;
}

struct walker_reply {
    int32_t status;  // 0, or a negated errno value (then len is 0)
    uint32_t len;    // text bytes that follow
    // 1: the walker ends after this reply, for it holds a thread that did
    // not stop and that only its exit lets go; 0 otherwise.
    uint32_t ending;
};

struct walker_request {
    uint32_t op;
    int32_t tid;  // 0: every thread of the walker's process
    // Milliseconds a thread may take to stop before it is reported as not
    // stopped and the walk goes on with the next one (at least 1).
    int32_t stop_ms;
    uint32_t flags = 0;  // walker_flag_*
};

// Sample lines carry the thread's state letter, as /proc read it just
// before the thread was stopped, as a field between the held time and the
// frames: "TID\tNAME\tHELD_US\tSTATE\tFRAMES".
constexpr uint32_t walker_flag_state = 1;

// A walk deeper than this many frames is cut: the text reply ends the
// thread's frames with walker_cut_line, a folded stack starts with
// walker_cut_root.
constexpr unsigned walker_max_frames = 256;
#define walker_cut_line "    ... (cut at 256 frames)"
#define walker_cut_root "[cut]"
#define walker_cut_raw_line "    (stack cut: at 256 frames)"

// A request the walker serves: a known op, a thread id that is not negative
// and, but for walker_bind, a stop time of 1 ms to 10 minutes.
inline bool walker_request_valid(const walker_request& r) {
    if (r.op == walker_bind)
        return r.tid > 0;
    return r.op != walker_bind && r.op >= walker_stack && r.op <= walker_sample_raw && r.tid >= 0 &&
           r.stop_ms >= 1 && r.stop_ms <= 600000;
}

// A reply header the plug-in accepts: a status of 0 with up to
// walker_max_text bytes of text, or a negative status without text.
inline bool walker_reply_valid(const walker_reply& r) {
    return (r.status == 0 ? r.len <= walker_max_text : r.status < 0 && r.len == 0) && r.ending <= 1;
}

// The plug-in's end: one reply header and its text from fd by deadline. 0
// with rep and text; -ETIME when the deadline passed; -EIO at end of file,
// on an error, or for a header walker_reply_valid refuses.
int walker_read_reply(int fd, std::chrono::steady_clock::time_point deadline, walker_reply& rep,
                      std::string& text);

// The walker's end: the next request from fd, blocking. 1 for a request
// walker_request_valid accepts, 0 for another, -1 when the plug-in closed.
int walker_read_request(int fd, walker_request& req);
