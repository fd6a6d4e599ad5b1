// Client side of the vireo-monitor wire protocol: request frames, reply
// validation, one request/reply connection with a receive timeout, and the
// command names of the daemon's configuration files.
//
// Nothing here is shared between threads; each thread uses its own
// client_conn.
#pragma once

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

// Command code of the client-id commands and their sub-commands.
constexpr uint32_t client_id_command = 0xEAEA;
constexpr uint32_t take_id_sub = 1;
constexpr uint32_t return_id_sub = 2;

// Reply payload capacity of the daemon, and the most a request may carry.
constexpr int max_reply_payload = 8192;
constexpr int max_request_payload = 1024;

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
// fills out. Returns 0, or client_malformed with the reason in why: a part
// shorter than 12 bytes, shorter than msg_len + 48 (a negative msg_len needs
// max(12, msg_len + 48) bytes), a reply to another command, or packets of a
// multi-packet reply that do not add up.
int parse_reply(const std::vector<std::vector<uint8_t>>& parts, uint32_t command,
                uint32_t sub_command, client_reply& out, std::string& why);

// The meaning of a negative status in a reply, e.g. -22 "unknown command or
// sub-command"; other codes give "error N".
std::string status_text(int32_t code);

// One ZMQ_REQ connection with a receive timeout and linger 0. After a
// timeout the socket is discarded and a fresh one connected, because a REQ
// socket still waiting for its reply refuses the next request.
class client_conn {
public:
    client_conn(const std::string& endpoint, int timeout_ms);
    ~client_conn();
    client_conn(const client_conn&) = delete;
    client_conn& operator=(const client_conn&) = delete;

    // 0 when connected (ZeroMQ connects lazily: nothing is known about the
    // peer yet), else client_bad_input or client_comm_error with why set.
    int open(std::string& why);

    // Sends one request and waits for its reply. Returns 0, client_timeout,
    // client_malformed or client_comm_error, with the reason in why.
    int request(uint32_t command, uint32_t sub_command, const std::vector<uint8_t>& payload,
                client_reply& out, std::string& why);

    std::string endpoint;
    int timeout_ms;
    void* ctx = nullptr;
    void* sock = nullptr;

private:
    void close_socket();
    // A failed send or receive: the socket is discarded (a REQ socket still
    // waiting for its reply refuses the next request) and the error is
    // client_timeout for EAGAIN, else client_comm_error, with why set.
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

// `vireo-client profile ...` (argv[0] is "profile"): samples a process's
// stacks through the probe plug-in and writes folded stacks. Returns the
// exit status.
int run_profile(int argc, char** argv);
