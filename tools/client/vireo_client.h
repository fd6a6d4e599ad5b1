// Client side of the vireo-monitor wire protocol: one request/reply
// connection with a receive timeout, and the command names of the daemon's
// configuration files. Frames and replies are in wire/frame.h.
//
// Nothing here is shared between threads; each thread uses its own
// client_conn.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common_func.h"
#include "wire/config_keys.h"
#include "wire/conn_events.h"
#include "wire/frame.h"
#include "wire/keys.h"

// Results of the client functions besides 0 (success).
constexpr int client_timeout = -110;    // no reply within the timeout
constexpr int client_malformed = wire_malformed;  // reply does not hold together
constexpr int client_bad_input = -22;   // bad endpoint, bad configuration
constexpr int client_comm_error = -5;   // ZeroMQ refused a call
constexpr int client_refused = -111;    // connection refused, host unreachable or unknown
constexpr int client_handshake = -13;   // the security handshake was refused
constexpr int client_interrupted = -4;  // a signal ended the wait

// Command code of the client-id commands and their sub-commands.
constexpr uint32_t client_id_command = 0xEAEA;
constexpr uint32_t take_id_sub = 1;
constexpr uint32_t return_id_sub = 2;

// Adds one probe_sample reply ("TID\tNAME\tHELD_US\tSTACK" lines) to the
// folded-stack counts, and the stacks added to stacks. False when a line does
// not have that shape.
bool add_sample(const std::string& text, std::map<std::string, long>& counts, long& stacks);

// One thread's line of a probe_sample reply: "TID\tNAME\tHELD_US\tSTACK",
// or with_state "TID\tNAME\tHELD_US\tSTATE\tSTACK" (the state letter, when
// the request asked for it). 1 for such a line, 0 for the "... truncated"
// line that ends a cut reply, -1 for any other.
struct sample_line {
    std::string tid, name, held, state, stack;
};
int read_sample_line(const std::string& line, bool with_state, sample_line& out);

// CURVE keys of a client, 40-character Z85 texts; all empty for plaintext.
struct client_keys {
    std::string server_public;
    std::string public_key;
    std::string secret_key;
    bool curve() const { return !server_public.empty(); }
};

// One ZMQ_REQ connection with a receive timeout and linger 0. After a
// timeout the socket is discarded and a fresh one connected, because a REQ
// socket still waiting for its reply refuses the next request.
//
// A socket monitor watches the connection while a request waits, so that a
// refused connection or handshake ends the wait early with its own result:
// - a handshake refused by authentication (ZAP status) or failed on a
//   protocol error (e.g. a mechanism mismatch) ends it at once;
// - otherwise it ends after conn_watch::max_failed_attempts attempts in a row
//   failed (no TCP connection, no address for the host, or the peer closing
//   during the handshake), or at the timeout when at least one had failed.
// libzmq tells that an attempt failed but not why, so a failed TCP connection
// is then tried once more with a plain connect() to learn the errno.
class client_conn {
public:
    client_conn(const std::string& endpoint, int timeout_ms, const client_keys& keys = {});
    ~client_conn();
    client_conn(const client_conn&) = delete;
    client_conn& operator=(const client_conn&) = delete;

    // 0 when connected (ZeroMQ connects lazily: nothing is known about the
    // peer yet), else client_bad_input or client_comm_error with why set.
    int open(std::string& why);

    // Sends one request and waits for its reply. Returns 0, client_timeout,
    // client_refused, client_handshake, client_interrupted (*stop became
    // non-zero), client_malformed or client_comm_error, with the reason in why.
    int request(uint32_t command, uint32_t sub_command, const std::vector<uint8_t>& payload,
                client_reply& out, std::string& why);

    std::string endpoint;
    int timeout_ms;
    client_keys keys;
    const volatile sig_atomic_t* stop = nullptr;  // set from a signal handler
    void* ctx = nullptr;
    void* sock = nullptr;
    void* monitor = nullptr;  // ZMQ_PAIR receiving the socket's events

private:
    conn_watch watch;  // what the monitor has told about the connection attempts

    void close_socket();
    // Reads the queued monitor events; returns 0, or client_refused /
    // client_handshake with why when the connection is given up.
    int read_events(int wait_left_ms, std::string& why);
    int give_up(int wait_left_ms, std::string& why);
    // A failed ZeroMQ call: the socket is discarded (a REQ socket still
    // waiting for its reply refuses the next request); client_comm_error.
    int fail(const char* call, int err, std::string& why);
};

// 0 when endpoint names its transport (tcp://HOST:PORT), else
// client_bad_input with why.
int check_endpoint(const std::string& endpoint, std::string& why);

// One command of the configuration files.
struct client_cmd {
    std::string cls;     // "class" of its group
    std::string name;    // "name" of the command
    uint32_t code = 0;   // group "code"
    uint32_t id = 0;     // command "id"
    std::string kind;    // "file", "$pid file" or "custom"
    std::string target;  // file path, or library ":" symbol
};

// What the client needs from the daemon's configuration.
struct client_config {
    std::string ip;
    int port = 0;
    std::vector<client_cmd> cmds;  // groups in file order, then entries in order
    // The optional "client" object: {"server-key": FILE_OR_Z85, "key": FILE}.
    // The daemon ignores it; paths are opened as written but for a leading ~.
    std::string server_key;
    std::string key;
};

// Reads the main configuration and its sub-configurations as the daemon
// does (JSON only, hex codes as std::stoi base 16, first duplicate wins,
// unknown types skipped, sub-configuration paths opened as written) but
// never loads a plug-in. Returns 0, or client_bad_input with why set.
int load_client_config(const std::string& main_path, client_config& out, std::string& why);

// The command named "CLASS.NAME", or nullptr.
const client_cmd* find_cmd(const client_config& cfg, const std::string& full_name);

// path with a leading "~/" (or a lone "~") made the user's home ($HOME, else
// the password database's); other paths as they are.
std::string expand_home(const std::string& path);

// CURVE key files: '#' lines and blank lines are skipped, the first other
// line is a 40-character Z85 key. These return 0, or client_bad_input with
// why set.
//
// The server's public key: a key file (a .pub), or the key itself.
int load_server_key(const std::string& file_or_z85, std::string& key, std::string& why);
// The client's key pair from its secret key file; the public key is derived.
int load_secret_key(const std::string& path, client_keys& keys, std::string& why);
// Writes a new pair: base.key (the secret key, created 0600 and never over
// an existing file) and base.pub, creating base's missing folders 0700, as
// a folder of secret keys is kept; fills public_key.
int write_key_pair(const std::string& base, std::string& public_key, std::string& why);

// Exit statuses of vireo-client and its subcommands; 64, 74 and 78 as in
// sysexits.h (usage, output, configuration).
namespace client_exit {
constexpr int ok = 0;
constexpr int status = 1;     // the daemon answered with an error code
constexpr int timeout = 2;    // no reply in time
constexpr int malformed = 3;  // the reply does not hold together
constexpr int refused = 4;    // connection refused, host unreachable or unknown
constexpr int handshake = 5;  // the security handshake was refused
constexpr int usage = 64;
constexpr int output = 74;      // writing stdout (or a key file) failed
constexpr int config = 78;      // configuration or key file unreadable
constexpr int signalled = 128;  // plus the signal's number: 130 for Ctrl-C

// The exit status for a result of client_conn::request other than 0 and
// client_interrupted (whose status is the signal's).
inline int of_result(int result) {
    return result == client_malformed   ? malformed
           : result == client_refused   ? refused
           : result == client_handshake ? handshake
           : result == client_bad_input ? usage
                                        : timeout;
}
}  // namespace client_exit

// Subcommands whose bodies live in their own files; argv[0] is the
// subcommand's name. They return the process's exit status.
//
// `vireo-client profile ...` (argv[0] is "profile"): samples a process's
// stacks through the probe plug-in and writes folded stacks. Returns the
// exit status.
int run_profile(int argc, char** argv);
// "vireo-client check-config MAIN.json" (argv[0] is "check-config"): loads
// the configuration as the daemon would and prints every problem as
// FILE:LINE:COLUMN: error|warning: message, then a summary line. Returns 0
// when the daemon would start and serve every command (warnings allowed), 1
// when it would not, 64 on a usage error, 74 when writing the output fails,
// 78 when the main file cannot be opened.
int run_check_config(int argc, char** argv);
// "vireo-client symbolize [FILE]" (argv[0] is "symbolize"): names the frames
// of markup saved earlier on the host (symbolize_cmd.cpp).
int run_symbolize(int argc, char** argv);
// "vireo-client crashes" and "vireo-client crash ID" (argv[0] is the word):
// the board's crash reports, through its crash plug-in (crash_cmd.cpp).
int run_crash(int argc, char** argv);
