// Helpers shared by the tests: temporary files, free loopback ports, a
// ZeroMQ request client with a receive timeout, and the real daemon binary
// started on a configuration.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.h"

// A fresh directory under /tmp, removed with its contents on destruction.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return dir; }
    // Writes content to name inside the directory; returns the full path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string dir;
};

std::string read_text_file(const std::string& path);

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

// A request frame: 44-byte header (crc 0), then the payload; msg_len is the
// payload size unless given.
std::vector<uint8_t> make_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload = {});
std::vector<uint8_t> make_request_len(uint32_t command, uint32_t sub_command,
                                      const std::vector<uint8_t>& payload, int32_t msg_len);
// The 4 payload bytes of a pid, little-endian.
std::vector<uint8_t> pid_payload(uint32_t pid);

// A ZMQ_REQ (or other type) socket with send and receive timeouts, linger 0.
class zmq_client {
public:
    explicit zmq_client(const std::string& endpoint, int timeout_ms = 5000, int type = 3 /*REQ*/);
    ~zmq_client();
    zmq_client(const zmq_client&) = delete;
    zmq_client& operator=(const zmq_client&) = delete;

    bool send(const std::vector<uint8_t>& frame, bool more = false);
    // One message part; false on timeout. *more tells whether parts follow.
    bool recv(std::vector<uint8_t>& out, bool* more = nullptr);
    // send then recv; false on timeout.
    bool request(const std::vector<uint8_t>& frame, std::vector<uint8_t>& reply);
    void* socket() { return sock; }

private:
    void* ctx;
    void* sock;
};

// Fields of a reply frame, read at their wire offsets (zero where the frame
// is too short).
struct reply_view {
    int32_t command, sub_command, msg_len;
    uint8_t msg_type;
    uint16_t sum_packet, cur_packet;
    uint8_t command_type, client_id;
    int64_t tv_sec, tv_usec;
    uint32_t crc;
    // The payload as text (msg_len bytes from offset 44), empty if negative.
    std::string payload;
};
reply_view parse_reply(const std::vector<uint8_t>& frame);

// The daemon binary built with the tests.
std::string daemon_path();
// The command that runs a built program in a cross build (e.g. qemu-aarch64
// -L /usr/aarch64-linux-gnu), to put before its path in an exec; empty in a
// native build.
std::vector<std::string> emulator_prefix();
// A directory of plug-ins built by the test build.
std::string test_plugin_dir();

// Registers a child that this test forked (in the parent, right after the
// fork): it and its process group are killed when the test process ends,
// however it ends (a ctest timeout sends SIGKILL, and no destructor runs
// then). A child that wants its own children ended too calls setpgid(0, 0).
void end_with_test(pid_t child);

// A program (found on PATH) run as a child of the test, its stdout and
// stderr to log when one is given; stopped by PID (TERM, then KILL) at the
// end, and with the test however it ends.
struct child_process {
    pid_t pid = -1;
    explicit child_process(std::vector<std::string> argv, const std::string& log = "");
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;
};

// The real daemon, started with args; stdout and stderr go to files. Killed
// by PID on destruction.
class daemon_process {
public:
    explicit daemon_process(const std::vector<std::string>& args);
    ~daemon_process();
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;

    // Waits (bounded) until a request on endpoint is answered.
    bool wait_ready(const std::string& endpoint, int timeout_ms = 10000);
    // Waits (bounded) for the process to exit; returns its status or -1.
    int wait_exit(int timeout_ms = 10000);
    bool running();
    std::string stderr_text() const { return read_text_file(err_file); }
    // Waits (bounded) until stderr contains text.
    bool wait_stderr(const std::string& text, int timeout_ms = 5000);
    std::string stdout_text() const { return read_text_file(out_file); }
    // The log lines on stderr ("TAG P MM-DD HH:MM:SS pid tid text"), each
    // text with the newline it was logged with; a null tag shows as the
    // program's name.
    std::vector<log_line> log_lines() const;
    pid_t pid() const { return child; }

private:
    pid_t child = -1;
    int status = -1;
    bool exited = false;
    std::string out_file, err_file;
};

// The daemon on a free port serving group 0x10, and a disabled group 0x11,
// from one sub-configuration with the given "cmd-list" entries, in which DIR
// stands for the temporary directory and LIB for the test plug-in.
struct served_daemon {
    temp_dir dir;
    int port = free_port();
    std::string endpoint, main_file, sub_file;
    std::unique_ptr<daemon_process> daemon;

    explicit served_daemon(std::string cmd_list);
    bool ready() { return daemon->wait_ready(endpoint); }
};
