// Stacks of a stripped program named on the host: vireo-client symbolize
// from debug folders and from a real debuginfod server, checked against
// llvm-symbolizer; a pprof file read back by go tool pprof.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <fstream>
#include <regex>
#include <sstream>

#include "symbolize.h"
#include "test_util.h"

namespace {
using std::string;

string sh(const string& cmd) {
    string out;
    FILE* p = popen(("timeout -s KILL 60 sh -c '" + cmd + "' 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p != nullptr)
        pclose(p);
    return out;
}

bool have(const string& tool) {
    return system(("command -v " + tool + " >/dev/null").c_str()) == 0;
}

// The board's files and markup, the host's debug files (board_and_host.sh).
struct board {
    temp_dir dir;
    string pie, nopie;  // markup files
    board() {
        sh(string(VIREO_SYM_SCRIPT " ") + dir.path() + " " VIREO_SYM_FILES);
        for (auto [name, out] : {std::pair<string, string*>{"vireo_sym_target", &pie},
                                 {"vireo_sym_target_nopie", &nopie}}) {
            *out = dir.path() + "/" + name + ".markup";
            sh("LD_LIBRARY_PATH=" + dir.path() + "/board " + dir.path() + "/board/" + name + " >" +
               *out);
        }
    }
};
board& the_board() {
    static board b;
    return b;
}

string client(const string& env, const string& args) {
    return sh("env " + env + " DEBUGINFOD_CACHE_PATH=" + the_board().dir.path() + "/cache-" +
              std::to_string(rand()) + " " VIREO_CLIENT_BIN " symbolize " + args);
}

// The board's own frames (program and library), as "FUNCTION at FILE:LINE",
// file and line left out where the output has none.
std::vector<string> board_frames(const string& out) {
    std::vector<string> frames;
    std::regex frame(R"(#\d+ +0x[0-9a-f]+ in (.*) \(/\S*/board/[^)]*\)( at (\S+:\d+))?)");
    std::istringstream in(out);
    for (string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_search(line, m, frame))
            frames.push_back(m[1].str() + (m[2].matched ? " at " + m[3].str() : ""));
    }
    return frames;
}

const std::vector<string> named = {
    "leaf_record at sym_target.cpp:83",    "int ns::worker<int>(int, int) at sym_target.cpp:103",
    "callback(int) at sym_target.cpp:110", "lib_call at sym_lib.cpp:5",
    "main at sym_target.cpp:121",          "_start",
    "leaf_record at sym_target.cpp:83",    "long ns::worker<long>(long, int) at sym_target.cpp:103"};

// Frames with the folder of each file cut off, for comparing.
std::vector<string> short_files(std::vector<string> frames) {
    for (string& f : frames) f = std::regex_replace(f, std::regex(" at \\S*/"), " at ");
    return frames;
}

void expect_named(const string& out) {
    EXPECT_EQ(short_files(board_frames(out)), named) << out;
    EXPECT_NE(out.find("leaf_record (" + the_board().dir.path()), string::npos) << out;
    EXPECT_NE(out.find("sym_target.cpp:83 [inlined]\n#1  "), string::npos) << out;
}

// Nothing named: offsets in the program, the board's own name in the library.
void expect_fallback(const string& out) {
    std::vector<string> frames = board_frames(out);
    ASSERT_EQ(frames.size(), 6u) << out;
    for (size_t i : {0, 1, 3, 4, 5})
        EXPECT_TRUE(std::regex_match(frames[i], std::regex("vireo_sym_target\\+0x[0-9a-f]+")))
            << frames[i];
    EXPECT_TRUE(std::regex_match(frames[2], std::regex("lib_call\\+0x[0-9a-f]+"))) << frames[2];
}

struct row {
    const char* name;
    string env, args;
    bool nopie, names;
};

void PrintTo(const row& r, std::ostream* os) {
    *os << r.name;
}

class symbolize_rows : public testing::TestWithParam<row> {};

TEST_P(symbolize_rows, names_frames_or_falls_back) {
    const row& r = GetParam();
    board& b = the_board();
    string args = std::regex_replace(r.args, std::regex("DIR"), b.dir.path());
    args = std::regex_replace(args, std::regex("PORT"), std::to_string(free_port()));
    string out = client(r.env, args + " " + (r.nopie ? b.nopie : b.pie));
    if (r.names)
        expect_named(out);
    else
        expect_fallback(out);
    EXPECT_NE(out.find("Thread "), string::npos) << "text lines pass through\n" << out;
    EXPECT_EQ(out.find("{{{"), string::npos) << out;
}

INSTANTIATE_TEST_SUITE_P(
    symbols, symbolize_rows,
    testing::Values(
        row{"build_id_tree", "", "--debug-dir DIR/host", false, true},
        row{"sysroot", "", "--debug-dir DIR/sysroot", false, true},
        row{"second_dir_nopie", "", "--debug-dir DIR/stripped --debug-dir DIR/host", true, true},
        row{"no_debug_files", "", "--debug-dir DIR/board", false, false},
        // Nothing listens there: the lookup fails at once. A
        // server that never answers costs at most 10 s in all.
        row{"unreachable_debuginfod", "", "--debuginfod http://127.0.0.1:PORT", false, false},
        // Another build's file at the board's path is not taken.
        row{"wrong_build_id", "", "--debug-dir DIR/wrong", false, false}),
    [](const testing::TestParamInfo<row>& i) { return string(i.param.name); });

TEST(symbols, malformed_markup_is_refused_with_its_line) {
    temp_dir d;
    // A text line holding a NUL byte passes through whole, and the lines after
    // it are still read.
    const char markup[] = "Thread 1 (a\0b):\n{{{bt:0:0x1000:ra}}}\n{{{mmap:0x1000:0:load:0:rx:0}}}\n";
    string out = sh(VIREO_CLIENT_BIN " symbolize " + d.write("m", string(markup, sizeof markup - 1)) +
                    " >" + d.path() + "/o 2>&1; echo status=$?; tr \"\\000\" @ <" + d.path() + "/o");
    EXPECT_NE(out.find("Thread 1 (a@b):\n#0  0x0000000000001000 in ??\n"), string::npos) << out;
    EXPECT_NE(out.find("line 3: malformed markup: {{{mmap:0x1000:0:"), string::npos) << out;
    EXPECT_NE(out.find("status=3"), string::npos) << out;
}


#ifdef VIREO_PROBE_PLUGIN
// The real daemon serving the probe's stack and sample (group 0x30), and
// the stripped program spinning on the board.
struct probed_board {
    temp_dir dir;
    int port = free_port();
    string cfg;
    std::unique_ptr<daemon_process> daemon;
    std::unique_ptr<child_process> target;
    explicit probed_board(const string& program) {
        string lib = string(VIREO_PROBE_PLUGIN);
        string sub = dir.write("probe.json", R"({"cmd-list": [{"name": "stack", "id": "2", "type": "custom", "lib": ")" + lib + R"(", "symbols": "probe_stack"}, {"name": "sample", "id": "4", "type": "custom", "lib": ")" + lib + R"(", "symbols": "probe_sample"}]})");
        cfg = dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1", "port": )" + std::to_string(port) + R"(, "sub-configs": [{"class": "probe", "code": "0x30", "config": ")" + sub + R"("}]})");
        daemon.reset(new daemon_process({"-c", cfg}));
        EXPECT_TRUE(daemon->wait_ready("tcp://127.0.0.1:" + std::to_string(port)));
        setenv("LD_LIBRARY_PATH", (the_board().dir.path() + "/board").c_str(), 1);
        target.reset(new child_process({the_board().dir.path() + "/board/" + program, "hold"}));
        unsetenv("LD_LIBRARY_PATH");
        // Both threads inside leaf_record: the board names none of it.
        for (int i = 0; i < 100 && count_of(ask("--raw"), "{{{bt:") < 12; i++) usleep(50000);
    }
    string ask(const string& args) {
        return sh("DEBUGINFOD_CACHE_PATH=" + dir.path() + "/cache " VIREO_CLIENT_BIN " -c " + cfg +
                  " probe.stack --pid " + std::to_string(target->pid) + " " + args);
    }
    static size_t count_of(const string& s, const string& what) {
        size_t n = 0;
        for (size_t at = 0; (at = s.find(what, at)) != string::npos; at++) n++;
        return n;
    }
};

#endif

TEST(symbols, debuginfod_server_names_the_same) {
    if (!have("debuginfod") || !have("debuginfod-find"))
        GTEST_SKIP() << "debuginfod missing (Debian package debuginfod)";
    board& b = the_board();
    string url = "http://127.0.0.1:" + std::to_string(free_port());
    child_process server({"debuginfod", "-F", b.dir.path() + "/flat", "-d", b.dir.path() + "/db.sqlite",
                  "-p", url.substr(url.rfind(':') + 1)});
    // Served once the first scan is done; each try with a fresh cache, as
    // the client remembers a miss.
    string id = sh("readelf -n " + b.dir.path() + "/board/vireo_sym_target | sed -n " +
                   "\"s/.*Build ID: *//p\"");
    id = id.substr(0, id.find('\n'));
    bool served = false;
    for (int i = 0; i < 100 && !served; i++, usleep(100000))
        served =
            system(("DEBUGINFOD_URLS=" + url + " DEBUGINFOD_CACHE_PATH=" + b.dir.path() + "/poll" +
                    std::to_string(i) + " debuginfod-find debuginfo " + id + " >/dev/null 2>&1")
                       .c_str()) == 0;
    ASSERT_TRUE(served) << id;
    expect_named(client("DEBUGINFOD_URLS=" + url, b.pie));
#ifdef VIREO_PROBE_PLUGIN
    // The daemon's markup of the spinning program, named from the server.
    std::vector<string> frames = short_files(board_frames(probed_board("vireo_sym_target").ask("--debuginfod " + url)));
    for (const string& want : {named[1], named[2], named[4], named[7]})
        EXPECT_NE(std::find(frames.begin(), frames.end(), want), frames.end()) << want;
#endif
}

// A board's module names are its own word. With ".." one would lead the
// sysroot lookup out of the debug folder to any file of this host: here this
// test program (which would name the frame), and a fifo (which would hold
// the lookup). Neither is taken.
TEST(symbols, module_names_never_leave_the_debug_folder) {
    board& b = the_board();
    string fifo = b.dir.path() + "/fifo", up = "/../../../../../../../../../..";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Dl_info self;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&expect_fallback), &self), 0);
    uint64_t fn = reinterpret_cast<uintptr_t>(&expect_fallback) - reinterpret_cast<uintptr_t>(self.dli_fbase);
    char bt[64];
    snprintf(bt, sizeof bt, "{{{bt:0:0x%" PRIx64 ":pc}}}\n", 0x100000 + fn);
    string markup = b.dir.path() + "/outside.markup";
    char exe[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    std::ofstream(markup) << "{{{reset}}}\n{{{module:0:" << up << exe << ":elf:}}}\n"
                          << "{{{mmap:0x100000:0x10000000:load:0:r-x:0x0}}}\n"
                          << "{{{module:1:" << up << fifo << ":elf:}}}\n"
                          << "{{{mmap:0x20000000:0x1000:load:1:r-x:0x0}}}\n"
                          << bt << "{{{bt:1:0x20000010:ra}}}\n";
    string out = client("", "--debug-dir " + b.dir.path() + "/host " + markup);
    EXPECT_NE(out.find(" in test_symbols+0x"), string::npos) << out;
    EXPECT_NE(out.find(" in fifo+0x10 "), string::npos) << out;
    EXPECT_EQ(out.find("expect_fallback"), string::npos) << out;
}

TEST(symbols, llvm_symbolizer_names_the_same) {
    if (!have("llvm-symbolizer-16"))
        GTEST_SKIP() << "llvm-symbolizer-16 missing (Debian package llvm-16)";
    board& b = the_board();
    string ours = client("", "--debug-dir " + b.dir.path() + "/host " + b.pie);
    string llvm = sh("llvm-symbolizer-16 --filter-markup --debug-file-directory=" + b.dir.path() +
                     "/host <" + b.pie);
    for (const string& f : board_frames(ours)) {
        size_t at = f.find(" at ");
        if (at == string::npos)
            continue;
        // There: "NAME FILE:LINE:COLUMN".
        EXPECT_NE(llvm.find(" " + f.substr(0, at) + " " + f.substr(at + 4) + ":"), string::npos)
            << f << "\n"
            << llvm;
    }
    EXPECT_EQ(board_frames(ours).size(), named.size());
}

// Samples from the markup's stacks: the worker's nine times, main's (from
// its caller on) once. The worker's leaf must lead the table.
TEST(symbols, pprof_file_read_by_go_tool_pprof) {
    if (!have("go"))
        GTEST_SKIP() << "go missing (Debian package golang-go)";
    board& b = the_board();
    pprof_profile p;
    std::vector<std::vector<uint64_t>> stacks;
    std::ifstream in(b.pie);
    for (string line; std::getline(in, line);) {
        markup_line l;
        ASSERT_EQ(parse_markup_line(line, l), 0) << line;
        apply_markup_line(l, p.space);
        if (l.kind == markup_line::bt && l.frame.index == 0)
            stacks.emplace_back();
        if (l.kind == markup_line::bt)
            stacks.back().push_back(l.frame.addr);
    }
    ASSERT_EQ(stacks.size(), 2u);
    p.samples = {{"sym-worker", stacks[1], 9},
                 {"main", std::vector<uint64_t>(stacks[0].begin() + 1, stacks[0].end()), 1}};
    p.period_ns = 10101010;
    symbolizer s(symbolize_options{{b.dir.path() + "/host"}, {}, false});
    string file = b.dir.path() + "/cpu.pb.gz", why;
    ASSERT_EQ(write_pprof(p, &s, file, why), 0) << why;
    string env = "HOME=" + b.dir.path() + " PPROF_BINARY_PATH=/nonexistent go tool pprof ";
    string top = sh(env + "-top " + file);
    size_t head = top.find(" flat ");
    ASSERT_NE(head, string::npos) << top;
    string first = top.substr(top.find('\n', head) + 1);
    first = first.substr(0, first.find('\n'));
    EXPECT_NE(first.find("leaf_record"), string::npos) << top;
    EXPECT_NE(first.find(" 90.00% "), string::npos) << top;
    EXPECT_NE(top.find("callback(int)"), string::npos) << top;
    EXPECT_NE(sh(env + "-tags " + file).find("sym-worker"), string::npos);
}

#ifdef VIREO_PROBE_PLUGIN
// The daemon's own text names none of the program's functions (the library's
// exported lib_call it may: stripped files keep dynamic symbols); the client
// names every frame of the program and the library with file:line, the
// inlined leaf as a frame of its own, and llvm-symbolizer names the same
// functions from the daemon's markup.
TEST(symbols, daemon_stacks_named_on_the_host) {
    for (const string program : {"vireo_sym_target", "vireo_sym_target_nopie"}) {
        probed_board b(program);
        string host = the_board().dir.path() + "/host";
        string text = b.ask(""), named_out = b.ask("--debug-dir " + host);
        for (const char* fn : {"leaf_record", "worker<", "callback"})
            EXPECT_EQ(text.find(fn), string::npos) << fn << "\n" << text;
        std::vector<string> frames = short_files(board_frames(named_out));
        ASSERT_GE(frames.size(), 8u) << named_out;
        for (const string& f : frames) {
            bool start = f == "_start";
            EXPECT_TRUE(start || std::regex_match(f, std::regex(".+ at \\S+\\.cpp:\\d+"))) << f;
        }
        for (const string& want : {string("leaf_record at sym_target.cpp:81"), named[1], named[2], named[3], named[4], named[7]})
            EXPECT_NE(std::find(frames.begin(), frames.end(), want), frames.end()) << want << "\n" << named_out;
        EXPECT_EQ(probed_board::count_of(named_out, "sym_target.cpp:81 [inlined]"), 2u) << named_out;
        if (have("llvm-symbolizer-16")) {
            string llvm = b.ask("--raw | llvm-symbolizer-16 --filter-markup --debug-file-directory=" + host);
            for (const char* fn : {"leaf_record", "ns::worker<int>(int, int)", "callback(int)", "lib_call", "main"})
                EXPECT_NE(llvm.find(string(" ") + fn + " "), string::npos) << fn << "\n" << llvm;
        }
        if (program == string("vireo_sym_target_nopie"))
            continue;
        // The same from the debuginfod the fixture's server would serve:
        // an unreachable one falls back to offsets.
        string off = b.ask("--debuginfod http://127.0.0.1:" + std::to_string(free_port()));
        EXPECT_NE(off.find(" in vireo_sym_target+0x"), string::npos) << off;
        // A profile named on the host: the spinning leaf in most samples,
        // and first in go tool pprof's table.
        string prof = b.dir.path() + "/p", base = VIREO_CLIENT_BIN " profile -c " + b.cfg + " --pid " + std::to_string(b.target->pid) + " --duration 1 --rate 50 --debug-dir " + host;
        sh(base + " -o " + prof + ".folded; " + base + " --format pprof -o " + prof + ".pb.gz");
        std::ifstream in(prof + ".folded");
        long hot = 0, all = 0;
        for (string line; std::getline(in, line);) {
            long n = atol(line.substr(line.rfind(' ') + 1).c_str());
            all += n;
            hot += line.find(";leaf_record ") != string::npos ? n : 0;
        }
        EXPECT_GT(all, 10);
        EXPECT_GT(hot * 2, all) << hot << " of " << all;
        if (have("go")) {
            string top = sh("HOME=" + b.dir.path() + " PPROF_BINARY_PATH=/nonexistent go tool pprof -top " + prof + ".pb.gz");
            size_t head = top.find(" flat ");
            ASSERT_NE(head, string::npos) << top;
            string first = top.substr(top.find('\n', head) + 1);
            EXPECT_NE(first.substr(0, first.find('\n')).find("leaf_record"), string::npos) << top;
        }
    }
}

// A server that takes connections and never answers: whether the client
// asked it at all. DEBUGINFOD_URLS points there in every row; only the
// rows without --no-debuginfod may connect.
TEST(symbols, no_debuginfod_asks_no_server_whatever_the_environment_says) {
    probed_board b("vireo_sym_target");
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), len), 0);
    ASSERT_EQ(listen(fd, 16), 0);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len), 0);
    const string env = "env DEBUGINFOD_TIMEOUT=1 DEBUGINFOD_URLS=http://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + " DEBUGINFOD_CACHE_PATH=" + b.dir.path() + "/cache-";
    const string pid = std::to_string(b.target->pid), markup = the_board().pie;
    struct {
        string cmd;
        bool asks;
    } rows[] = {
        {"-c " + b.cfg + " probe.stack --pid " + pid + " --no-debuginfod --debug-dir /nonexistent", false},
        {"profile -c " + b.cfg + " --pid " + pid + " --duration 0.2 --no-debuginfod --format pprof -o " + b.dir.path() + "/p.pb.gz", false},
        {"symbolize --no-debuginfod " + markup, false},
        // Its wait for an answer is cut short: the connection is the point.
        {"symbolize " + markup, true},
    };
    int n = 0;
    for (const auto& r : rows) {
        string out = sh(env + std::to_string(n++) + " timeout 2 " VIREO_CLIENT_BIN " " + r.cmd);
        int c = accept(fd, nullptr, nullptr);
        EXPECT_EQ(c >= 0, r.asks) << r.cmd << "\n" << out;
        while (c >= 0) {
            close(c);
            c = accept(fd, nullptr, nullptr);
        }
    }
    close(fd);
}
#endif

}  // namespace
