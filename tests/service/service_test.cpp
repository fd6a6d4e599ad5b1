// The real daemon as systemd runs it: log lines on a journal stream, and
// readiness sent to NOTIFY_SOCKET once its port is bound.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <thread>

#include "test_util.h"

namespace {

// A configuration on a free loopback port with one file command.
std::string write_config(const temp_dir& dir, int port) {
    dir.write(
        "sub.json",
        R"({"cmd-list": [{"name": "u", "id": "1", "type": "file", "file": "/proc/uptime"}]})");
    return dir.write("main.json",
                     R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
                         R"(, "sub-configs": [{"class": "s", "code": "0x10", "config": ")" +
                         dir.path() + R"(/sub.json"}]})");
}

// Runs the daemon with stderr in err_file, JOURNAL_STREAM naming that file
// (or "0:0"), until it exits or stderr holds until; returns stderr.
std::string run_daemon(const temp_dir& dir, std::vector<std::string> args, bool journal,
                       const std::string& until) {
    std::string err_file = dir.path() + "/err";
    std::vector<std::string> argv_s = emulator_prefix();
    argv_s.push_back(daemon_path());
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    unlink(err_file.c_str());  // not the last run's text
    pid_t child = fork();
    if (child == 0) {
        int fd = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        struct stat st;
        fstat(fd, &st);
        std::string stream = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
        setenv("JOURNAL_STREAM", journal ? stream.c_str() : "0:0", 1);
        dup2(fd, 2);
        std::vector<char*> argv;
        for (auto& a : argv_s) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    end_with_test(child);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline ||
            (!until.empty() && read_text_file(err_file).find(until) != std::string::npos)) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return read_text_file(err_file);
}

// Each line carries its syslog level and no empty line follows it; the
// texts are the daemon's own. Any other stderr keeps liblog's format.
TEST(journal_log, priority_prefix_and_no_empty_line) {
    temp_dir dir;
    int port = free_port();
    std::string config = write_config(dir, port);
    EXPECT_EQ(run_daemon(dir, {}, true, ""),
              "<3>VO_MONITOR: Please use '-c' to specify config file\n");
    EXPECT_EQ(run_daemon(dir, {"-c", config}, true, "listening"),
              "<6>VO_MONITOR: vireo-monitor listening 127.0.0.1:" + std::to_string(port) + "\n");
    // A warning keeps its level; each line of a text of several lines its prefix.
    char pub[41], sec[41];
    zmq_curve_keypair(pub, sec);
    std::string key = dir.write("server.key", std::string(sec) + "\n"),
                keys = dir.write("keys", "");
    chmod(key.c_str(), 0644);
    std::string text = read_text_file(config);
    std::string secure = dir.write(
        "secure.json", text.substr(0, text.rfind('}')) + R"(, "security": {"secret-key": ")" + key +
                           R"(", "authorized-keys": ")" + keys + R"("}})");
    std::string warned = run_daemon(dir, {"-c", secure}, true, "listening");
    EXPECT_EQ(warned.rfind("<4>MONITOR_CONFIG: Secret key " + key +
                               " can be read by other users: chmod 600 it\n<6>",
                           0),
              0u)
        << warned;
    std::string lines = run_daemon(dir, {"-c", dir.path() + "/no\nfile"}, true, "");
    EXPECT_NE(lines.find("\n<3>MONITOR_CONFIG: file failed\n<3>"), std::string::npos) << lines;
    std::string plain = run_daemon(dir, {}, false, "");
    EXPECT_EQ(plain.rfind("VO_MONITOR E ", 0), 0u) << plain;
    EXPECT_NE(plain.find("Please use '-c' to specify config file\n\n"), std::string::npos) << plain;
}

// READY=1 reaches NOTIFY_SOCKET with the port already bound; a port that
// cannot be bound ends the daemon without it, so the start fails.
TEST(readiness, ready_once_bound_and_never_without_the_port) {
    temp_dir dir;
    int port = free_port();
    std::string config = write_config(dir, port);
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = dir.path() + "/notify";
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    struct timeval tv = {10, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    char buf[256] = {};
    {
        daemon_process d({"-c", config});
        ASSERT_GT(recv(sock, buf, sizeof buf - 1, 0), 0);
        EXPECT_STREQ(buf, "READY=1");
        // Taking the port now fails: the daemon holds it.
        int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in in = {};
        in.sin_family = AF_INET;
        in.sin_port = htons(static_cast<uint16_t>(port));
        in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_NE(bind(probe, reinterpret_cast<sockaddr*>(&in), sizeof in), 0);
        // A second daemon on the same port exits without a word to systemd.
        daemon_process second({"-c", config});
        EXPECT_EQ(second.wait_exit(), 0);
        EXPECT_LT(recv(sock, buf, sizeof buf, MSG_DONTWAIT), 0);
        close(probe);
    }
    unsetenv("NOTIFY_SOCKET");
    close(sock);
}

}  // namespace
