// Client side of the vireo-monitor wire protocol: request frames, reply
// validation, one request/reply connection with a receive timeout, and the
// command names of the daemon's configuration files.
//
// Nothing here is shared between threads; each thread uses its own
// client_conn.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common_func.h"

// Results of the client functions besides 0 (success).
constexpr int client_timeout = -110;    // no reply within the timeout
constexpr int client_malformed = -74;   // reply does not hold together
constexpr int client_bad_input = -22;   // bad endpoint, bad configuration
constexpr int client_comm_error = -5;   // ZeroMQ refused a call
constexpr int client_refused = -111;    // connection refused, host unreachable or unknown
constexpr int client_handshake = -13;   // the security handshake was refused
constexpr int client_interrupted = -4;  // a signal ended the wait

// Command code of the client-id commands and their sub-commands.
constexpr uint32_t client_id_command = 0xEAEA;
constexpr uint32_t take_id_sub = 1;
constexpr uint32_t return_id_sub = 2;

// Reply payload capacity of the daemon, and the most a request may carry.
constexpr int max_reply_payload = 8192;
constexpr int max_request_payload = 1024;
// No frame of the daemon is longer than one packet (set as ZMQ_MAXMSGSIZE,
// so that libzmq drops a longer one before it is held in memory), and a
// multi-packet reply has at most this many packets: 8 MiB of payload.
constexpr int max_reply_frame = max_reply_payload + 48;
constexpr size_t max_reply_packets = 1024;

// A request frame: the 44-byte header (crc 0, msg_len the payload size), the
// payload, and the 4 trailing bytes every frame carries (zero).
std::vector<uint8_t> pack_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload);

// A reply as received. header() holds the bytes that arrived, the rest zero:
// frame_len says which fields were sent (a negative status cuts the header).
struct client_reply {
    alignas(data_struct) uint8_t head[sizeof(data_struct)] = {};
    size_t frame_len = 0;  // bytes of the first (or only) part
    size_t parts = 0;      // ZeroMQ message parts
    std::string payload;   // msg_len bytes, empty for a negative status

    const data_struct& header() const { return *reinterpret_cast<const data_struct*>(head); }
    data_struct& header() { return *reinterpret_cast<data_struct*>(head); }
    // True when all bytes of the field at offset..offset+size were sent.
    bool has(size_t offset, size_t size) const { return frame_len >= offset + size; }
};

// Checks the parts of one reply to the request (command, sub_command) and
// fills out. Returns 0, or client_malformed with the reason in why: more
// than max_reply_packets parts, a part over max_reply_frame bytes, a
// single-packet msg_len over max_reply_payload, a part shorter than 12
// bytes, shorter than msg_len + 48 (a negative msg_len needs max(12,
// msg_len + 48) bytes), a reply to another command, or packets of a
// multi-packet reply that do not add up.
int parse_reply(const std::vector<std::vector<uint8_t>>& parts, uint32_t command,
                uint32_t sub_command, client_reply& out, std::string& why);

// The meaning of a negative status in a reply: the daemon's own codes (-22
// "unknown command or sub-command", -1 "operation not permitted by this
// key", ...), else the text of the negated errno a plug-in returned, e.g. -3
// "No such process"; "unknown error" when there is none.
std::string status_text(int32_t code);

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
// - otherwise it ends after max_failed_attempts connection attempts in a row
//   failed (no TCP connection, no address for the host, or the peer closing
//   during the handshake), or at the timeout when at least one had failed.
// libzmq tells that an attempt failed but not why, so a failed TCP connection
// is then tried once more with a plain connect() to learn the errno.
class client_conn {
public:
    static constexpr int max_failed_attempts = 3;

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
    // What the monitor has told about the current connection attempts.
    enum class failure { none, no_address, no_connection, handshake_closed };
    struct watch_state {
        bool closed = false;     // this attempt's TCP socket closed
        bool connected = false;  // this attempt's TCP connection was made
        bool counted = false;    // this attempt's failure is counted already
        int failed = 0;          // attempts that failed in a row
        failure last = failure::none;
    } watch;

    void close_socket();
    // Reads the queued monitor events; returns 0, or client_refused /
    // client_handshake with why when the connection is given up.
    int read_events(int wait_left_ms, std::string& why);
    int give_up(int wait_left_ms, std::string& why);
    // A failed ZeroMQ call: the socket is discarded (a REQ socket still
    // waiting for its reply refuses the next request); client_comm_error.
    int fail(const char* call, int err, std::string& why);
};

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
    // The daemon ignores it; paths are opened as written.
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

// The daemon's hex rule: std::stoi(text, nullptr, 16), stored unsigned.
// Throws std::invalid_argument or std::out_of_range like std::stoi.
uint32_t config_hex(const std::string& text);

// CURVE key files: '#' lines and blank lines are skipped, the first other
// line is a 40-character Z85 key. These return 0, or client_bad_input with
// why set.
//
// The server's public key: a key file (a .pub), or the key itself.
int load_server_key(const std::string& file_or_z85, std::string& key, std::string& why);
// The client's key pair from its secret key file; the public key is derived.
int load_secret_key(const std::string& path, client_keys& keys, std::string& why);
// Writes a new pair: base.key (the secret key, created 0600 and never over
// an existing file) and base.pub; fills public_key.
int write_key_pair(const std::string& base, std::string& public_key, std::string& why);

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
