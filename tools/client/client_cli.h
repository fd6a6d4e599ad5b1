// The vireo-client program's parts, one job per file: the command line
// (options.cpp), the request it names (request.cpp), output formats
// (output.cpp), rounds under --watch (watch.cpp), keys (keys.cpp), and the
// choice of job (main.cpp). The library underneath is vireo_client.h.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "vireo_client.h"

// An option of the command line; alias names the same option. Global options
// are also accepted before a subcommand, which gets them in front of its own.
struct option_def {
    const char* name;
    const char* alias;
    bool takes_value;
    bool global;
};

// The option that arg (perhaps "--name=value") names, with its value split
// off into inline_value; nullptr for none.
const option_def* find_option(const std::string& arg, std::string& inline_value, bool& has_inline);
// True when arg reads as an option rather than a word ("-5" is a word).
bool is_option_word(const std::string& arg);

// What the command line asks of a request run (and of keygen and --list).
struct options {
    std::string endpoint;  // empty: from the configuration, else the default
    int timeout_ms = 3000;
    std::string config_path;
    std::string server_key;
    std::string key;
    bool list = false;
    bool verbose = false;
    bool json = false;
    bool help = false;
    bool version = false;
    double watch_s = 0;  // 0: no pause between rounds
    long count = 0;      // 0: one round, or unbounded with --watch
    bool watch = false;
    int payload_opts = 0;  // how many of --pid, --byte, --hex were given
    bool pid_given = false;
    bool tid_given = false;  // --tid: bytes 4..7, after the --pid
    uint32_t tid = 0;
    std::vector<uint8_t> payload;
    std::string pid_name;           // --pid NAME, --name NAME: resolved on the board
    std::vector<std::string> args;  // the words that are no options
    // A probe stack or sample asked raw (symbolizer markup) and named here
    // from debug files, or printed as it came with --raw.
    bool raw = false;
    std::vector<std::string> debug_dirs, debuginfod_urls;
    bool no_debuginfod = false;  // DEBUGINFOD_URLS ignored
    bool raw_asked() const { return raw || !debug_dirs.empty() || !debuginfod_urls.empty(); }
};

extern const char usage_text[];

// Reads the command line into o; 0, or -1 with why (a usage error).
int parse_args(int argc, char** argv, options& o, std::string& why);
// Decimal text, the whole of it, up to max.
bool parse_ulong(const std::string& text, unsigned long max, unsigned long& out);
// " (did you mean X?)" for the first candidate one edit away, else "".
std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates);
// One line saying what is wrong, and where to read more; client_exit::usage.
int usage_error(const std::string& why);

// What one round sends.
struct request_spec {
    uint32_t command = 0;
    uint32_t sub_command = 0;
    std::vector<uint8_t> payload;
    bool take_id = false;
    std::string label;                // for messages
    const client_cmd* cmd = nullptr;  // the configured command it names, if known
};

// Turns the words of the command line into a request; 0, or -1 (usage) or
// -2 (a name needs the configuration that could not be read) with why. cfg
// is the configuration read (nullptr for none), cfg_error why it was not.
int make_spec(const options& o, const client_config* cfg, const std::string& cfg_path,
              const std::string& cfg_error, request_spec& r, std::string& why);

// What the client can add to an error status of the daemon about this
// request ("" for nothing): a missing --pid, a process that is not there.
std::string status_hint(const request_spec& r, int32_t status);

// Flushes stdout; client_exit::ok, or client_exit::output with a message
// when a write failed (a full disk, a closed pipe).
int flush_output();
// The reply header, field by field, on stderr (-v).
void print_verbose(const client_reply& r);
// The whole reply as one line of JSON on stdout (--json).
void print_json(const client_reply& r, const std::string& endpoint, bool take_id);
// The configured commands as a table or a JSON array (--list); exit status.
int list_commands(const client_config& cfg, bool json);

// The signal that asked the client to stop, or 0.
extern volatile sig_atomic_t stop_signal;
// Makes SIGINT and SIGTERM set stop_signal and end a pending wait.
void catch_stop_signals();
// Sends rq once, or repeatedly under --watch / --count, printing each
// reply; the exit status of the last round, or of the signal that ended it.
int run_rounds(client_conn& conn, const request_spec& rq, const options& o);

// The board's process list (the probe's "ps" command): where it is served,
// by class "probe" and name "ps" in cfg (nullptr: none), else 0x30 0x10.
struct ps_command {
    uint32_t code = 0x30;
    uint32_t id = 0x10;
};
ps_command find_ps_command(const client_config* cfg);
// ps [PATTERN]: 0, or -1 with why (a usage error).
int check_ps_args(const options& o, std::string& why);
// Prints the board's processes, a table or JSON; the exit status.
int run_ps(client_conn& conn, const ps_command& cmd, const options& o);
// The pid of the one process name names on the board: its name (comm)
// exactly, else the file name of its command line's first word.
// client_exit::ok, or an exit status after a message: usage when several
// match (listed), status when none does.
int resolve_pid_name(client_conn& conn, const ps_command& cmd, const std::string& name,
                     uint32_t& pid);
// True when s is UTF-8 that JSON can carry as it is.
bool valid_utf8(const std::string& s);
// Names the frames of raw probe text (markup) from o's debug folders and
// servers and prints it; client_exit::ok or a failure's exit status.
int print_named_markup(const std::string& text, const options& o);

// keygen BASE: writes a key pair and prints its public key; exit status.
int keygen(const options& o);
// The CURVE keys: options first, then the configuration's "client" object
// (cfg may be nullptr). client_exit::ok, or an exit status after a message.
int find_keys(const options& o, const client_config* cfg, client_keys& keys);
