// vireo-exporter: serves the figures of vireo-monitor boards in Prometheus'
// text exposition format. Each probe asks one board over its own ZeroMQ
// socket; nothing is shared between probes but the ZeroMQ context.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "wire/conn_events.h"

// A command of the board, by group code and id.
struct cmd_ref {
    bool set = false;
    uint32_t code = 0;
    uint32_t id = 0;
};

// The commands the exporter asks a board for. An unset entry is not asked.
struct command_map {
    cmd_ref meminfo, loadavg, uptime, stat;
    cmd_ref crash;                         // the crash plug-in's list: unset unless configured
    cmd_ref process_status, process_stat;  // "$pid" file commands
    cmd_ref ps;  // the probe plug-in's process list, asked when a process is chosen by name
};

// How a process is found on the board at each probe.
enum class select_by { pid, pidfile, name, cmdline };

// A process to report: a fixed pid, a pidfile on the board that a file
// command serves, or the board's process list searched for its name (the
// default) or for a piece of its command line.
struct process_conf {
    std::string name;  // the process label; also what select_by::name looks for
    select_by by = select_by::name;
    uint32_t pid = 0;
    cmd_ref pidfile;
    std::string pidfile_path;  // for messages only
    std::string cmdline;       // select_by::cmdline: a substring of the command line
};

// CURVE keys as 40-character Z85 text; all empty for plaintext.
struct curve_keys {
    std::string server_public, public_key, secret_key;
    bool on() const { return !server_public.empty(); }
};

// Everything one probe needs to know about its board.
struct target_conf {
    std::string label;  // the target label: its configured name or canonical endpoint
    std::string endpoint;
    curve_keys keys;
    command_map cmds;
    std::vector<process_conf> processes;
    double user_hz = 100;  // clock ticks per second of /proc/stat and /proc/PID/stat
};

// One entry of --probe.allow: a network (family AF_INET or AF_INET6, bits
// of net) or, with family 0, a host name.
struct allow_rule {
    int family = 0;
    unsigned char net[16] = {};
    int bits = 0;
    std::string name;
};

struct exporter_config {
    target_conf defaults;                        // tcp:// targets; base of named ones
    std::map<std::string, target_conf> targets;  // named targets
    int threads = 64;                            // HTTP worker threads = concurrent probes
    double timeout_s = 5;  // probe timeout, and the most a scrape's own header may ask
    // tcp:// targets the exporter keeps figures for in /metrics; the least
    // recently probed one is dropped for a new one.
    size_t max_targets = 1000;
    double link_idle_s = 120;       // a board's kept link is closed after this long unused
    std::vector<allow_rule> allow;  // tcp:// targets that may be probed; empty: any
};

// The longest target accepted, so that a target label is bounded too.
constexpr size_t max_target_len = 256;

// A tcp://HOST:PORT target in its one spelling: HOST an IPv4 address, an
// IPv6 address in brackets (both as inet_ntop writes them) or a lower-case
// host name; PORT 1..65535 without leading zeros. No source part (";"), no
// other transport. Returns 0 with key set, or -1 with a one-line why.
int canonical_target(const std::string& target, std::string& key, std::string& why);
// "10.0.0.0/8,192.168.1.7,[fd00::]/8,board.local" into rules; 0 or -1 with why.
int parse_allow(const std::string& list, std::vector<allow_rule>& out, std::string& why);
// True when a rule lets canonical target key be probed. Host names are
// compared as written, never resolved.
bool allowed(const std::vector<allow_rule>& rules, const std::string& key);

// The built-in configuration: plaintext and the demo configuration's commands
// (0x10: meminfo 1, loadavg 2, uptime 3, stat 4; 0x20: status 1, stat 2;
// 0x30: process list 0x10).
exporter_config default_exporter_config();

// Reads the exporter's JSON configuration over the built-in one. Returns 0,
// or -1 with why set.
int load_exporter_config(const std::string& path, exporter_config& out, std::string& why);

// The settings of target T: a configured name, or tcp://HOST:PORT with the
// defaults, checked by canonical_target and the allow rules. Returns 0, or
// -1 with a one-line why.
int resolve_target(const exporter_config& cfg, const std::string& target, target_conf& out,
                   std::string& why);

// Writes the text exposition format: HELP and TYPE once per family, then its
// samples. Families must be written whole, one after another.
class metric_writer {
public:
    void family(const char* name, const char* type, const char* help);
    // labels: name/value pairs; values are escaped here.
    void sample(const std::string& name,
                const std::vector<std::pair<const char*, std::string>>& labels, double value);
    void sample(const std::string& name, double value) { sample(name, {}, value); }
    std::string out;
};

// process_cpu_seconds_total, process_resident_memory_bytes and the other
// process_* figures of the exporter itself.
void render_self_process(metric_writer& w);

// Label value escaping of the text format: backslash, double quote, newline.
std::string escape_label(const std::string& v);
// A Prometheus name from free text: [a-zA-Z0-9_], others become '_', a
// trailing '_' dropped ("Active(anon)" -> "Active_anon").
std::string metric_name_part(const std::string& text);

// What a probe found.
enum probe_reason {
    reason_none,
    reason_timeout,
    reason_refused,
    reason_malformed,
    reason_error,
    reason_handshake,  // the peer never finished a ZeroMQ handshake: not a daemon
    reason_count
};
const char* reason_text(probe_reason r);

struct probe_result {
    probe_reason reason = reason_none;
    std::string why;   // for the exporter's log of one probe
    std::string text;  // the exposition, vireo_up and duration included
    double seconds = 0;
};

// Process-wide ZeroMQ context for the probes (thread-safe).
void* probe_context();

// A board's DEALER socket. Kept between probes of the same board (same
// endpoint and keys), so that a scrape costs no connect, CURVE handshake or
// socket teardown; used by one probe at a time, and dropped after any
// failure. A new link has a monitor until its first probe ends, to tell a
// refused connection or handshake from a silent board; a kept link has none,
// so a board that goes away between scrapes shows as a timeout once, then
// as refused.
struct board_link {
    void* sock = nullptr;
    void* mon = nullptr;  // PAIR socket receiving the monitor's events, or null
    conn_watch watch;     // what its monitor has told
    std::chrono::steady_clock::time_point idle_since;
};
void close_link(board_link& l);
// How long a kept link may stay unused before the timer closes it.
void set_link_idle_time(double seconds);

// Probes one board within timeout_s and renders its metrics. With
// client_fd >= 0 (the HTTP client's connection), the probe ends early when
// that client has gone.
void run_probe(const target_conf& t, double timeout_s, probe_result& out, int client_fd = -1);

// Collectors: each reads one file the board serves and appends its families
// to w. Text is the file's contents as the board sent it (cut at 8191 bytes
// at most: a cut last line is ignored). Malformed lines are skipped.
using render_fn = void (*)(const std::string& text, double user_hz, metric_writer& w);
void render_meminfo(const std::string& text, double user_hz, metric_writer& w);
void render_loadavg(const std::string& text, double user_hz, metric_writer& w);
void render_stat(const std::string& text, double user_hz, metric_writer& w);
void render_uptime(const std::string& text, double user_hz, metric_writer& w);

// The system files of a probe, in the order their families are written.
struct collector {
    const char* name;  // also the command_status label
    cmd_ref command_map::*ref;
    render_fn render;
};
// The collector of the crash plug-in's list: reports kept and the newest one's time.
void render_crashes(const std::string& text, double user_hz, metric_writer& w);
constexpr size_t n_system_collectors = 5;
extern const collector system_collectors[n_system_collectors];

// One line of the board's process list: PID, PPID, NAME, STATE, CMDLINE,
// tab-separated.
struct ps_entry {
    uint32_t pid = 0, ppid = 0;
    std::string_view name, cmdline;
};
// The lines of a process list that hold together; others are skipped.
std::vector<ps_entry> parse_ps(std::string_view text);
// Why a process has no figures; none when it was read.
enum class proc_miss { none, no_match, several_matches, no_pid, no_list, not_read };
const char* proc_miss_text(proc_miss m);
// The pid of p in a process list: its one match, or the one match none of
// whose ancestors match (a daemon and the workers or sessions it forked).
// Returns 0 with miss set when there is none or more than one.
uint32_t select_process(const process_conf& p, const std::vector<ps_entry>& list, proc_miss& miss);

// One named process from its /proc/PID/status and /proc/PID/stat.
struct process_sample {
    std::string name;
    bool up = false;
    uint32_t pid = 0;
    double rss_bytes = 0, cpu_seconds = 0, threads = 0;
    std::string state;  // "R", "S", ...
    proc_miss miss = proc_miss::not_read;
};
// /proc/PID/status: state, threads, VmRSS; false without a State line.
bool parse_process_status(const std::string& status, process_sample& out);
// /proc/PID/stat: CPU seconds; false when its fields are not there.
bool parse_process_stat(const std::string& stat, double user_hz, process_sample& out);
// Both; sets and returns up.
bool parse_process(const std::string& status, const std::string& stat, double user_hz,
                   process_sample& out);
void render_processes(const std::vector<process_sample>& procs, metric_writer& w);
// The pid of a pidfile's text, or 0.
uint32_t parse_pidfile(const std::string& text);
