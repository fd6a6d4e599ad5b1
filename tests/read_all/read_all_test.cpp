// "read-all" file commands through the real daemon: /proc files that hand
// out about a page per read come back whole (up to 8191 bytes) only when the
// command asks for it; regular files read the same either way.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "test_util.h"

namespace {

// A child that maps 400 separate pages (alternating protections keep the
// kernel from merging them) and then waits to be killed, so its maps and
// smaps are long and do not change while they are read.
class many_mappings {
public:
    pid_t pid = -1;
    many_mappings() {
        int ready[2];
        if (pipe(ready) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            const long page = sysconf(_SC_PAGESIZE);
            char* area = static_cast<char*>(
                mmap(nullptr, 800 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
            for (int i = 0; area != MAP_FAILED && i < 800; i += 2)
                mprotect(area + i * page, page, PROT_READ);
            (void)!write(ready[1], "r", 1);
            for (;;) pause();
        }
        char c;
        end_with_test(pid);
        close(ready[1]);
        if (pid > 0 && read(ready[0], &c, 1) != 1)
            pid = -1;
        close(ready[0]);
    }
    ~many_mappings() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// The counters of smaps (Rss, Pss, Shared_Dirty...) move between two reads
// as the parent writes to pages it shares with the child: digits on field
// lines are masked, the layout (fixed-width numbers) and everything else
// must match byte for byte.
std::string masked(std::string s) {
    for (size_t i = 0, line = 0; i < s.size(); i++) {
        if (s[i] == '\n') {
            line = i + 1;
        } else if (isupper(static_cast<unsigned char>(s[line])) &&
                   isdigit(static_cast<unsigned char>(s[i]))) {
            s[i] = '#';
        }
    }
    return s;
}

// One request per command: /proc files of the child with and without
// "read-all" ($pid and fixed paths), and a regular file of 10000 bytes.
TEST(read_all, proc_files_whole_only_when_asked) {
    many_mappings child;
    ASSERT_GT(child.pid, 0);
    const std::string proc = "/proc/" + std::to_string(child.pid);
    temp_dir dir;
    std::string big(10000, 'x');
    for (size_t i = 0; i < big.size(); i++) big[i] = static_cast<char>('a' + i % 26);
    dir.write("big.txt", big);
    int port = free_port();
    // clang-format off
    dir.write("sub.json", R"({"cmd-list": [
        {"name": "maps", "id": "1", "type": "file", "file": "/proc/$pid/maps"},
        {"name": "maps", "id": "2", "type": "file", "file": "/proc/$pid/maps", "read-all": true},
        {"name": "smaps", "id": "3", "type": "file", "file": ")" + proc + R"(/smaps"},
        {"name": "smaps", "id": "4", "type": "file", "file": ")" + proc + R"(/smaps", "read-all": true},
        {"name": "big", "id": "5", "type": "file", "file": ")" + dir.path() + R"(/big.txt", "read-all": false},
        {"name": "big", "id": "6", "type": "file", "file": ")" + dir.path() + R"(/big.txt", "read-all": true}]})");
    std::string main_file = dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
        R"(, "sub-configs": [{"class": "t", "code": "10", "config": ")" + dir.path() + R"(/sub.json"}]})");
    // clang-format on
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    daemon_process d({"-c", main_file});
    ASSERT_TRUE(d.wait_ready(endpoint)) << d.stderr_text();

    const std::string maps = read_text_file(proc + "/maps"),
                      smaps = read_text_file(proc + "/smaps");
    ASSERT_GT(maps.size(), 8191u);
    ASSERT_GT(smaps.size(), 8191u);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    struct {
        uint32_t sub;
        const std::string& content;
        bool whole;  // up to 8191 bytes, else one read: a prefix of at most a page
    } cases[] = {{1, maps, false}, {2, maps, true}, {3, smaps, false},
                 {4, smaps, true}, {5, big, true},  {6, big, true}};
    zmq_client c(endpoint);
    for (const auto& tc : cases) {
        std::vector<uint8_t> reply;
        ASSERT_TRUE(c.request(make_request(0x10, tc.sub, pid_payload(child.pid)), reply)) << tc.sub;
        reply_view r = parse_reply(reply);
        if (tc.whole) {
            EXPECT_EQ(masked(r.payload), masked(tc.content.substr(0, 8191))) << tc.sub;
        } else {
            EXPECT_EQ(masked(r.payload), masked(tc.content.substr(0, r.payload.size()))) << tc.sub;
            EXPECT_LE(r.payload.size(), std::min<size_t>(page, 8191)) << tc.sub;
            EXPECT_GT(r.payload.size(), 0u) << tc.sub;
        }
    }
}

}  // namespace
