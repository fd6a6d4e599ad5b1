#include "test_util.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "wire/frame.h"

namespace fs = std::filesystem;

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/vireo-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    dir = tmpl;
}

temp_dir::~temp_dir() {
    std::error_code ec;
    fs::remove_all(dir, ec);
}

std::string temp_dir::write(const std::string& name, const std::string& content) const {
    std::string path = dir + "/" + name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
}

std::string read_text_file(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

int free_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    close(fd);
    if (!ok)
        throw std::runtime_error("cannot bind a free port");
    return ntohs(addr.sin_port);
}

std::vector<uint8_t> make_request_len(uint32_t command, uint32_t sub_command,
                                      const std::vector<uint8_t>& payload, int32_t msg_len) {
    // Without the 4 trailing bytes: the daemon must not need them.
    std::vector<uint8_t> frame = pack_request(command, sub_command, payload);
    frame.resize(frame_header_len + payload.size());
    u32_to_u8(static_cast<uint32_t>(msg_len), frame.data() + offsetof(data_struct, msg_len));
    return frame;
}

std::vector<uint8_t> make_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload) {
    return make_request_len(command, sub_command, payload, static_cast<int32_t>(payload.size()));
}

std::vector<uint8_t> pid_payload(uint32_t pid) {
    return {uint8_t(pid), uint8_t(pid >> 8), uint8_t(pid >> 16), uint8_t(pid >> 24)};
}

zmq_client::zmq_client(const std::string& endpoint, int timeout_ms, int type)
    : ctx(zmq_ctx_new()), sock(zmq_socket(ctx, type)) {
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
    if (n >= 0) {
        auto* data = static_cast<uint8_t*>(zmq_msg_data(&msg));
        out.assign(data, data + n);
        if (more != nullptr)
            *more = zmq_msg_more(&msg) != 0;
    }
    zmq_msg_close(&msg);
    return n >= 0;
}

bool zmq_client::request(const std::vector<uint8_t>& frame, std::vector<uint8_t>& reply) {
    return send(frame) && recv(reply);
}

reply_view parse_reply(const std::vector<uint8_t>& f) {
    uint8_t h[44] = {};
    memcpy(h, f.data(), std::min<size_t>(f.size(), sizeof h));
    reply_view r{};
    // clang-format off
    for (auto [off, field, n] : {std::tuple<size_t, void*, size_t>{0, &r.command, 4}, {4, &r.sub_command, 4}, {8, &r.msg_len, 4}, {12, &r.msg_type, 1},
             {14, &r.sum_packet, 2}, {16, &r.cur_packet, 2}, {18, &r.command_type, 1}, {19, &r.client_id, 1}, {24, &r.tv_sec, 8}, {32, &r.tv_usec, 8}, {40, &r.crc, 4}})
        memcpy(field, &h[off], n);
    // clang-format on
    if (r.msg_len > 0 && f.size() >= 44 + static_cast<size_t>(r.msg_len))
        r.payload.assign(reinterpret_cast<const char*>(&f[44]), static_cast<size_t>(r.msg_len));
    return r;
}

std::string daemon_path() {
    return VIREO_MONITOR_BIN;
}

std::vector<std::string> emulator_prefix() {
    std::vector<std::string> words;
#ifdef VIREO_EMULATOR
    // The build's emulator command, its words separated by '|'.
    std::istringstream in(VIREO_EMULATOR);
    for (std::string w; std::getline(in, w, '|');)
        if (!w.empty())
            words.push_back(w);
#endif
    return words;
}

std::string test_plugin_dir() {
    return VIREO_TEST_PLUGIN_DIR;
}

namespace {
// Field 22 of /proc/PID/stat, the start time: tells a registered child from a
// later process that got its pid. Only read(2) and no allocation, since the
// watchdog runs it in a child forked from a threaded process.
unsigned long long start_time(pid_t pid) {
    char path[32], buf[1024];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return 0;
    buf[n] = 0;
    const char* p = strrchr(buf, ')');  // the name may hold spaces
    for (int field = 2; p && field < 22; field++) p = strchr(p + 1, ' ');
    return p ? strtoull(p + 1, nullptr, 10) : 0;
}

struct watched { pid_t pid; unsigned long long start; };

// The watchdog: a process of its own that holds the read end of a pipe whose
// write end only the test holds. The pipe ends when the test does, for any
// reason; then every registered child still alive (same pid, same start
// time) is killed with its process group. PR_SET_PDEATHSIG cannot do this:
// it is not delivered on every kernel the suite runs on.
[[noreturn]] void watchdog(int fd) {
    static watched list[8192];
    size_t count = 0;
    watched w;
    while (read(fd, &w, sizeof w) == static_cast<ssize_t>(sizeof w))
        list[count++ % 8192] = w;
    for (size_t i = 0; i < count && i < 8192; i++)
        if (list[i].start != 0 && start_time(list[i].pid) == list[i].start) {
            kill(-list[i].pid, SIGKILL);
            kill(list[i].pid, SIGKILL);
        }
    _exit(0);
}
}  // namespace

void end_with_test(pid_t child) {
    static std::mutex lock;
    static int watch_fd = -1;
    if (child <= 0) return;
    std::lock_guard<std::mutex> hold(lock);
    if (watch_fd < 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 0), dup2(null, 1), dup2(null, 2);  // not ctest's output pipe
            dup2(fds[0], 3);
            close_range(4, ~0U, 0);  // no port or socket of the test's stays open
            watchdog(3);
        }
        close(fds[0]);
        watch_fd = fds[1];
    }
    watched w{child, 0};
    for (int i = 0; i < 100 && w.start == 0; i++)  // the child's /proc entry is there at once
        w.start = start_time(child);
    (void)!write(watch_fd, &w, sizeof w);
}

child_process::child_process(std::vector<std::string> argv, const std::string& log) {
    std::vector<char*> a;
    for (std::string& s : argv) a.push_back(s.data());
    a.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
        if (!log.empty() && freopen(log.c_str(), "w", stdout) != nullptr) dup2(1, 2);
        execvp(a[0], a.data());
        _exit(127);
    }
    end_with_test(pid);
}

child_process::~child_process() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 100 && waitpid(pid, nullptr, WNOHANG) == 0; i++) usleep(50000);
    if (kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
}

daemon_process::daemon_process(const std::vector<std::string>& args) {
    char out_tmpl[] = "/tmp/vireo-daemon-out-XXXXXX", err_tmpl[] = "/tmp/vireo-daemon-err-XXXXXX";
    int out_fd = mkstemp(out_tmpl), err_fd = mkstemp(err_tmpl);
    out_file = out_tmpl;
    err_file = err_tmpl;
    std::vector<std::string> words = emulator_prefix();
    words.push_back(daemon_path());
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    child = fork();
    if (child == 0) {
        setpgid(0, 0);  // its walkers end with it
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    setpgid(child, child);
    end_with_test(child);
    close(out_fd);
    close(err_fd);
}

daemon_process::~daemon_process() {
    if (child > 0 && !exited) {
        kill(-child, SIGKILL);
        waitpid(child, &status, 0);
    }
    unlink(out_file.c_str());
    unlink(err_file.c_str());
}

bool daemon_process::running() {
    exited = exited || waitpid(child, &status, WNOHANG) == child;
    return !exited;
}

namespace {
// Polls done every 10 ms until it holds or timeout_ms pass.
template <class F>
bool poll_until(int timeout_ms, F done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
}  // namespace

int daemon_process::wait_exit(int timeout_ms) {
    if (!poll_until(timeout_ms, [&] { return !running(); }))
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool daemon_process::wait_ready(const std::string& endpoint, int timeout_ms) {
    // Returning id 0 changes nothing and logs nothing: a silent probe.
    auto probe = make_request(0xEAEA, 2, {0});
    std::vector<uint8_t> reply;
    return poll_until(
               timeout_ms,
               [&] { return !running() || zmq_client(endpoint, 200).request(probe, reply); }) &&
           running();
}

std::vector<log_line> daemon_process::log_lines() const {
    std::vector<log_line> lines;
    std::istringstream in(stderr_text());
    for (std::string line; std::getline(in, line);) {
        std::istringstream f(line);
        std::string tag, prio, date, time, text;
        long pid = 0, tid = 0;
        std::getline(f >> tag >> prio >> date >> time >> pid >> tid >> std::ws, text);
        if (line.empty() || pid != child || tid <= 0 || prio.size() != 1) {
            lines.push_back({-1, "", line});  // not a log line: shows in a comparison
            continue;
        }
        // The logger ends every text with a newline: an empty line follows a
        // text that had its own.
        if (in.peek() == '\n')
            text += static_cast<char>(in.get());
        lines.push_back({int(std::string(" VDIWEF").find(prio[0])) + 1, tag, text});
    }
    return lines;
}

served_daemon::served_daemon(std::string cmds) {
    const std::string dir_path = dir.path(), lib = test_plugin_dir() + "/libvireo_test_plugin.so";
    for (auto [key, value] : {std::pair{"DIR", dir_path}, {"LIB", lib}})
        for (size_t at; (at = cmds.find(key)) != std::string::npos;) cmds.replace(at, 3, value);
    sub_file = dir.write("sub.json", R"({"cmd-list": [)" + cmds + "]}");
    endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    // clang-format off
    main_file = dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [
        {"class": "a", "code": "0x10", "config": ")" + sub_file + R"("}, {"class": "b", "code": "0x11", "config": ")" + sub_file + R"(", "disable": true}]})");
    // clang-format on
    daemon = std::make_unique<daemon_process>(std::vector<std::string>{"-c", main_file});
}

bool daemon_process::wait_stderr(const std::string& text, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (stderr_text().find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
