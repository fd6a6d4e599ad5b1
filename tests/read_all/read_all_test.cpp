// "read-all" file commands through the real daemon: the whole file, as one
// multi-packet reply past one packet, cut after whole lines past 1 MiB; one
// read, as always, without the key.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>

#include "test_util.h"
#include "wire/frame.h"

namespace {

// The static program with 800 mappings, started for the test and killed
// with it; its /proc files stay the same while it waits.
class mappings_child {
public:
    pid_t pid = -1;
    mappings_child() {
        int ready[2];
        if (pipe(ready) != 0)
            return;
        std::vector<std::string> words = emulator_prefix();
        words.push_back(READ_ALL_CHILD);
        std::vector<char*> argv;
        for (auto& w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            dup2(ready[1], 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
        end_with_test(pid);
        close(ready[1]);
        char c;
        if (pid > 0 && read(ready[0], &c, 1) != 1)
            pid = -1;
        close(ready[0]);
    }
    ~mappings_child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// size bytes of numbered lines: the first first_line bytes long, the others
// 100 (the last one cut at size).
std::string lines(size_t size, size_t first_line) {
    std::string s;
    for (size_t n = 0; s.size() < size; n++) {
        std::string line = std::to_string(n);
        line.resize((n == 0 ? first_line : 100) - 1, '.');
        s += line + "\n";
    }
    s.resize(size);
    return s;
}

// One request; every part of its reply, put together.
bool ask(zmq_client& c, uint32_t sub, uint32_t pid, client_reply& r, std::string& why) {
    if (!c.send(make_request(0x10, sub, pid_payload(pid))))
        return false;
    std::vector<std::vector<uint8_t>> parts(1);
    bool more = true;
    while (more && parts.back().empty() && c.recv(parts.back(), &more)) {
        if (more)
            parts.emplace_back();
    }
    return !parts.back().empty() && parse_reply(parts, 0x10, sub, r, why) == 0;
}

std::string hex(int v) {
    char text[16];
    snprintf(text, sizeof text, "%x", v);
    return text;
}

// Where two texts first differ, instead of a megabyte of diff.
std::string first_difference(const std::string& a, const std::string& b) {
    size_t i = std::mismatch(a.begin(), a.begin() + std::min(a.size(), b.size()), b.begin()).first -
               a.begin();
    return "sizes " + std::to_string(a.size()) + " and " + std::to_string(b.size()) +
           ", first difference at " + std::to_string(i);
}

constexpr size_t mib = 1 << 20;
const std::string marker = "... truncated\n";

TEST(read_all, whole_files_in_packets_and_cut_after_whole_lines) {
    mappings_child child;
    ASSERT_GT(child.pid, 0);
    const std::string proc = "/proc/" + std::to_string(child.pid);
    temp_dir dir;
    // A line ends exactly where the marker still fits (62 + 100 k = 1 MiB - 14).
    const std::string big = lines(10000, 100), at_cut = lines(mib + 500, (mib - 14) % 100),
                      past_cut = lines(mib + 500, 100);
    dir.write("big", big);
    dir.write("8191", lines(8191, 100));
    dir.write("8192", lines(8192, 100));
    dir.write("mib", lines(mib, 100));
    dir.write("at_cut", at_cut);
    dir.write("past_cut", past_cut);
    int port = free_port();
    std::string list;
    int id = 1;
    for (const std::string& f : std::vector<std::string>{
             "/proc/$pid/maps", "/proc/$pid/maps", proc + "/smaps", proc + "/smaps",
             dir.path() + "/big", dir.path() + "/big", dir.path() + "/8191", dir.path() + "/8192",
             dir.path() + "/mib", dir.path() + "/at_cut", dir.path() + "/past_cut"}) {
        list += std::string(id > 1 ? "," : "") + R"({"name": "f", "type": "file", "id": ")" +
                hex(id) + R"(", "file": ")" + f + R"(", "read-all": )" +
                (id % 2 == 1 && id < 7 ? "false}" : "true}");
        id++;
    }
    dir.write("sub.json", R"({"cmd-list": [)" + list + "]}");
    std::string main_file = dir.write(
        "main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) +
                         R"(, "sub-configs": [{"class": "t", "code": "10", "config": ")" +
                         dir.path() + R"(/sub.json"}]})");
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    daemon_process d({"-c", main_file});
    ASSERT_TRUE(d.wait_ready(endpoint)) << d.stderr_text();

    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    struct {
        uint32_t sub;
        std::string file;      // read before and after the request
        std::string expected;  // else exactly this
        bool whole;            // else one read: a prefix of at most a page
    } cases[] = {
        {1, proc + "/maps", "", false},
        {2, proc + "/maps", "", true},
        {3, proc + "/smaps", "", false},
        {4, proc + "/smaps", "", true},
        {5, "", big.substr(0, 8191), true},
        {6, "", big, true},
        {7, "", lines(8191, 100), true},
        {8, "", lines(8192, 100), true},
        {9, "", lines(mib, 100), true},
        {10, "", at_cut.substr(0, mib - 14) + marker, true},
        {11, "", past_cut.substr(0, (mib - 14) / 100 * 100) + marker, true},
    };
    zmq_client c(endpoint);
    for (const auto& tc : cases) {
        client_reply r;
        std::string why, before = "?", after;
        // A file read just before and just after the request, the same both
        // times, is what the daemon read (bounded tries).
        for (int i = 0; i < 5 && before != after; i++) {
            before = tc.file.empty() ? tc.expected : read_text_file(tc.file);
            ASSERT_TRUE(ask(c, tc.sub, child.pid, r, why)) << tc.sub << ": " << why;
            after = tc.file.empty() ? tc.expected : read_text_file(tc.file);
        }
        ASSERT_EQ(before, after) << tc.sub;
        if (tc.whole) {
            EXPECT_TRUE(r.payload == before)
                << tc.sub << ": " << first_difference(r.payload, before);
            EXPECT_EQ(r.parts, std::max<size_t>(1, (before.size() + 8191) / 8192)) << tc.sub;
        } else {
            EXPECT_EQ(before.compare(0, r.payload.size(), r.payload), 0) << tc.sub;
            EXPECT_LE(r.payload.size(), std::min<size_t>(page, 8191)) << tc.sub;
            EXPECT_GT(r.payload.size(), 0u) << tc.sub;
        }
        if (r.parts == 1) {  // a single packet, as ever: msg_len + 48 bytes
            EXPECT_EQ(r.frame_len, r.payload.size() + 48) << tc.sub;
        }
    }
    // The 800 mappings' smaps needed many packets.
    EXPECT_GT(read_text_file(proc + "/smaps").size(), 40u * 8192);
}

}  // namespace
