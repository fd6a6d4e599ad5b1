#include "test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/vireo-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir = tmpl;
}

temp_dir::~temp_dir() {
    std::error_code ec;
    fs::remove_all(dir, ec);
}

std::string temp_dir::write(const std::string& name, const std::string& content) const {
    std::string path = dir + "/" + name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
}

std::string read_text_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int free_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        throw std::runtime_error("cannot bind a free port");
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

std::vector<uint8_t> make_request_len(uint32_t command, uint32_t sub_command,
                                      const std::vector<uint8_t>& payload, int32_t msg_len) {
    std::vector<uint8_t> frame(44 + payload.size(), 0);
    memcpy(&frame[0], &command, 4);
    memcpy(&frame[4], &sub_command, 4);
    memcpy(&frame[8], &msg_len, 4);
    if (!payload.empty()) {
        memcpy(&frame[44], payload.data(), payload.size());
    }
    return frame;
}

std::vector<uint8_t> make_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload) {
    return make_request_len(command, sub_command, payload, static_cast<int32_t>(payload.size()));
}

std::vector<uint8_t> pid_payload(uint32_t pid) {
    return {static_cast<uint8_t>(pid), static_cast<uint8_t>(pid >> 8),
            static_cast<uint8_t>(pid >> 16), static_cast<uint8_t>(pid >> 24)};
}

zmq_client::zmq_client(const std::string& endpoint, int timeout_ms, int type) {
    ctx = zmq_ctx_new();
    sock = zmq_socket(ctx, type);
    int linger = 0;
    zmq_setsockopt(sock, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(sock, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
    zmq_setsockopt(sock, ZMQ_SNDTIMEO, &timeout_ms, sizeof timeout_ms);
    zmq_connect(sock, endpoint.c_str());
}

zmq_client::~zmq_client() {
    zmq_close(sock);
    zmq_ctx_term(ctx);
}

bool zmq_client::send(const std::vector<uint8_t>& frame, bool more) {
    return zmq_send(sock, frame.data(), frame.size(), more ? ZMQ_SNDMORE : 0) >= 0;
}

bool zmq_client::recv(std::vector<uint8_t>& out, bool* more) {
    zmq_msg_t msg;
    zmq_msg_init(&msg);
    int n = zmq_msg_recv(&msg, sock, 0);
    if (n < 0) {
        zmq_msg_close(&msg);
        return false;
    }
    auto* data = static_cast<uint8_t*>(zmq_msg_data(&msg));
    out.assign(data, data + n);
    if (more != nullptr) {
        *more = zmq_msg_more(&msg) != 0;
    }
    zmq_msg_close(&msg);
    return true;
}

bool zmq_client::request(const std::vector<uint8_t>& frame, std::vector<uint8_t>& reply) {
    return send(frame) && recv(reply);
}

reply_view parse_reply(const std::vector<uint8_t>& f) {
    reply_view r{};
    auto get = [&](size_t off, void* dst, size_t n) {
        if (off + n <= f.size()) {
            memcpy(dst, &f[off], n);
        }
    };
    get(0, &r.command, 4);
    get(4, &r.sub_command, 4);
    get(8, &r.msg_len, 4);
    get(12, &r.msg_type, 1);
    get(14, &r.sum_packet, 2);
    get(16, &r.cur_packet, 2);
    get(18, &r.command_type, 1);
    get(19, &r.client_id, 1);
    get(24, &r.tv_sec, 8);
    get(32, &r.tv_usec, 8);
    get(40, &r.crc, 4);
    if (r.msg_len > 0 && f.size() >= 44 + static_cast<size_t>(r.msg_len)) {
        r.payload.assign(reinterpret_cast<const char*>(&f[44]), static_cast<size_t>(r.msg_len));
    }
    return r;
}

std::string daemon_path() { return VIREO_MONITOR_BIN; }

std::vector<std::string> emulator_prefix() {
    std::vector<std::string> words;
#ifdef VIREO_EMULATOR
    // The build's emulator command, its words separated by '|'.
    std::string s = VIREO_EMULATOR;
    for (size_t start = 0, end; start <= s.size(); start = end + 1) {
        end = s.find('|', start);
        if (end == std::string::npos) {
            end = s.size();
        }
        if (end > start) {
            words.push_back(s.substr(start, end - start));
        }
    }
#endif
    return words;
}

std::string test_plugin_dir() { return VIREO_TEST_PLUGIN_DIR; }

daemon_process::daemon_process(const std::vector<std::string>& args) {
    char out_tmpl[] = "/tmp/vireo-daemon-out-XXXXXX";
    char err_tmpl[] = "/tmp/vireo-daemon-err-XXXXXX";
    int out_fd = mkstemp(out_tmpl);
    int err_fd = mkstemp(err_tmpl);
    out_file = out_tmpl;
    err_file = err_tmpl;
    std::vector<std::string> argv_s = emulator_prefix();
    argv_s.push_back(daemon_path());
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    child = fork();
    if (child == 0) {
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        std::vector<char*> argv;
        for (auto& a : argv_s) {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out_fd);
    close(err_fd);
}

daemon_process::~daemon_process() {
    if (child > 0 && !exited) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    unlink(out_file.c_str());
    unlink(err_file.c_str());
}

bool daemon_process::running() {
    if (exited) {
        return false;
    }
    if (waitpid(child, &status, WNOHANG) == child) {
        exited = true;
        return false;
    }
    return true;
}

int daemon_process::wait_exit(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool daemon_process::wait_ready(const std::string& endpoint, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    // Returning id 0 changes nothing and logs nothing: a silent probe.
    auto probe = make_request(0xEAEA, 2, {0});
    while (std::chrono::steady_clock::now() < deadline) {
        if (!running()) {
            return false;
        }
        zmq_client c(endpoint, 200);
        std::vector<uint8_t> reply;
        if (c.request(probe, reply)) {
            return true;
        }
    }
    return false;
}

std::string daemon_process::stderr_text() const { return read_text_file(err_file); }
std::string daemon_process::stdout_text() const { return read_text_file(out_file); }

bool daemon_process::wait_stderr(const std::string& text, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (stderr_text().find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
