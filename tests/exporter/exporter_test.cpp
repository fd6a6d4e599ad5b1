// The real vireo-exporter between real daemons and Prometheus' own tools.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <zmq.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "test_util.h"
#include "zmtp_fake.h"

namespace {
using std::string;


bool have(const string& tool) {
    return system(("command -v " + tool + " >/dev/null").c_str()) == 0;
}

// GET path from 127.0.0.1:port, retried (bounded) until it answers 200.
string get(int port, const string& path, const httplib::Headers& h = {}, int tries = 100) {
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(10, 0);
    for (int i = 0; i < tries; i++, usleep(100000))
        if (auto r = c.Get(path.c_str(), h); r && r->status == 200)
            return r->body;
    return "";
}

// One GET: status and body (status 0 when nothing answered).
std::pair<int, string> fetch(int port, const string& path, const httplib::Headers& h = {}) {
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(10, 0);
    auto r = c.Get(path.c_str(), h);
    return r ? std::make_pair(r->status, r->body) : std::make_pair(0, string());
}

#ifdef VIREO_SANITIZED
// Shadow memory and the quarantine of freed blocks (never trimmed) leave
// only a runaway to catch.
constexpr long rss_ceiling_kib = 4096 * 1024;
#else
constexpr long rss_ceiling_kib = 64 * 1024;
#endif

// Resident set of a process in KiB.
long rss_kib(pid_t pid) {
    string s = read_text_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = s.find("VmRSS:");
    return at == string::npos ? -1 : std::stol(s.substr(at + 6));
}

size_t open_fds(pid_t pid) {
    size_t n = 0;
    for (auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        n += e.exists() ? 1 : 0;
    return n;
}

// The value of the sample line that starts with "name " (labels included).
double value(const string& text, const string& name) {
    size_t at = text.find("\n" + name + " ");
    return at == string::npos ? -1 : std::stod(text.substr(at + name.size() + 2));
}

// A daemon on a free port with the demo's system (0x10) and process (0x20)
// groups, and 0x11 serving a pidfile that holds the daemon's pid (1), a
// process list of several packets (2) and a crash list (3).
struct board {
    temp_dir dir;
    int port = free_port();
    string ep = "tcp://127.0.0.1:" + std::to_string(port), demo = VIREO_SOURCE_DIR "/config/demo/";
    string sub(const char* cls, const char* code, const string& path) {
        return R"({"class": ")" + string(cls) + R"(", "code": ")" + code + R"(", "config": ")" +
               path + R"("})";
    }
    string pid = dir.write("pid.json",
                           R"({"cmd-list": [{"name": "d", "id": "1", "type": "file", "file": ")" +
                               dir.path() + R"(/d.pid"}, {"name": "ps", "id": "2", "type": "file",
                               "read-all": true, "file": ")" +
                               dir.path() + R"(/ps"},
                               {"name": "crash", "id": "3", "type": "file", "file": ")" +
                               VIREO_SOURCE_DIR "/tests/exporter/fixtures/crash_list\"}]}");
    daemon_process d{
        {"-c", dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" +
                                          std::to_string(port) + R"(, "sub-configs": [)" +
                                          sub("system", "0x10", demo + "system.json") + "," +
                                          sub("process", "0x20", demo + "process.json") + "," +
                                          sub("pid", "0x11", pid) + "]}")}};
    board() {
        dir.write("d.pid", std::to_string(d.pid()) + "\n");
        // The daemon, a child of the same name, two unrelated "twin"s and
        // kernel threads enough for 3 packets, by pid.
        std::map<uint32_t, string> ps = {
            {d.pid(), "1\tvireo-monitor\tS\tvireo-monitor -c main.json"},
            {4000001, std::to_string(d.pid()) + "\tvireo-monitor\tS\tvireo-monitor worker"},
            {4000002, "1\ttwin\tS\ttwin"},
            {4000003, "1\ttwin\tS\ttwin"}};
        for (uint32_t i = 2; i < 1000; i++)
            ps.emplace(i, "2\tkworker/" + std::to_string(i) + "\tI\t");
        string text;
        for (auto& [pid, rest] : ps) text += std::to_string(pid) + "\t" + rest + "\n";
        dir.write("ps", text);
        EXPECT_TRUE(d.wait_ready(ep)) << d.stderr_text();
    }
};

// The exporter on a free port, with a configuration naming processes and
// the given named targets.
struct exporter {
    temp_dir dir;
    int port = free_port();
    std::unique_ptr<child_process> c;
    explicit exporter(const string& targets = "{}", const string& extra = "",
                      std::vector<string> args = {}) {
        args.insert(args.begin(),
                    {VIREO_EXPORTER_BIN, "--listen", "127.0.0.1:" + std::to_string(port), "-c",
                     dir.write("e.json", R"({"targets": )" + targets + extra + R"(, "processes": [
        {"name": "daemon", "pidfile": {"path": "d.pid", "code": "0x11", "id": "1"}}, {"name": "gone", "pid": 4194304},
        {"name": "vireo-monitor"}, {"name": "web", "cmdline": "-c main.json"}, {"name": "twin"}, {"name": "sshd"}],
        "commands": {"ps": {"code": "0x11", "id": "2"}, "crash": {"code": "0x11", "id": "3"}}})")});
        c.reset(new child_process(args, dir.path() + "/log"));
        EXPECT_NE(get(port, "/"), "") << read_text_file(dir.path() + "/log");
    }
    string probe(const string& target, const string& timeout = "5") {
        return get(port, "/probe?target=" + target,
                   {{"X-Prometheus-Scrape-Timeout-Seconds", timeout}}, 1);
    }
};

TEST(exporter, promtool_accepts_and_values_match) {
    if (!have("promtool"))
        GTEST_SKIP() << "promtool missing (Debian package prometheus)";
    board b;
    exporter e(R"({"plain": {"endpoint": ")" + b.ep +
               R"(", "commands": {"crash": null, "ps": null}}})");
    string text = e.probe(b.ep), plain = e.probe("plain");
    temp_dir t;
    string in = t.write("m.prom", text), out = t.path() + "/lint";
    int st = system(("promtool check metrics <" + in + " >" + out + " 2>&1").c_str());
    // Exit 3 is lint advice only: the /proc/meminfo field names keep their case.
    EXPECT_TRUE(WEXITSTATUS(st) == 0 || WEXITSTATUS(st) == 3) << read_text_file(out);
    std::istringstream lint(read_text_file(out));
    for (string line; std::getline(lint, line);)
        EXPECT_TRUE(line.rfind("vireo_memory_", 0) == 0 && line.find("camelCase") != string::npos)
            << line;
    // The exporter's own page passes without advice.
    in = t.write("own.prom", get(e.port, "/metrics"));
    st = system(("promtool check metrics <" + in + " >" + out + " 2>&1").c_str());
    EXPECT_EQ(WEXITSTATUS(st), 0) << read_text_file(out);
    // Its process_* figures are its own.
    string own = read_text_file(in);
    rlimit fds{};
    getrlimit(RLIMIT_NOFILE, &fds);
    EXPECT_EQ(value(own, "process_max_fds"), double(fds.rlim_cur)) << own;
    EXPECT_NEAR(value(own, "process_open_fds"), double(open_fds(e.c->pid)), 8) << own;
    EXPECT_NEAR(value(own, "process_resident_memory_bytes"), rss_kib(e.c->pid) * 1024.0, 8 << 20);
    EXPECT_GT(value(own, "process_virtual_memory_bytes"),
              value(own, "process_resident_memory_bytes"));
    EXPECT_NEAR(value(own, "process_start_time_seconds"), double(time(nullptr)), 60) << own;
    EXPECT_GE(value(own, "process_cpu_seconds_total"), 0);
    std::ifstream mi("/proc/meminfo");
    string key;
    double kb = 0;
    mi >> key >> kb;
    EXPECT_EQ(key, "MemTotal:");
    EXPECT_EQ(value(text, "vireo_memory_MemTotal_bytes"), kb * 1024) << text;
    struct {
        string sample;
        double want;
    } rows[] = {{"vireo_up", 1},
                {"vireo_process_up{process=\"daemon\"}", 1},
                {"vireo_process_up{process=\"gone\",reason=\"not_read\"}", 0},
                {"vireo_process_pid{process=\"vireo-monitor\"}", double(b.d.pid())},
                {"vireo_process_up{process=\"web\"}", 1},
                {"vireo_process_pid{process=\"web\"}", double(b.d.pid())},
                {"vireo_process_up{process=\"twin\",reason=\"several_matches\"}", 0},
                {"vireo_process_up{process=\"sshd\",reason=\"no_match\"}", 0},
                {"vireo_crash_reports", 3},
                {"vireo_crash_newest_report_timestamp_seconds", 1795503000},
                {"vireo_command_status{command=\"crash\"}", 0},
                {"vireo_process_pid{process=\"daemon\"}", double(b.d.pid())},
                {"vireo_process_state{process=\"daemon\",state=\"S\"}", 1},
                {"vireo_command_status{command=\"stat\"}", 0}};
    for (auto& r : rows) EXPECT_EQ(value(text, r.sample), r.want) << r.sample << "\n" << text;
    EXPECT_GE(value(text, "vireo_process_threads{process=\"daemon\"}"), 7);
    // Without a crash or process list command: no crash series, and why.
    EXPECT_EQ(value(plain, "vireo_crash_reports"), -1) << plain;
    EXPECT_EQ(value(plain, "vireo_process_up{process=\"twin\",reason=\"no_list\"}"), 0) << plain;
    EXPECT_EQ(value(plain, "vireo_process_up{process=\"daemon\"}"), 1) << plain;
    EXPECT_GT(value(text, "vireo_cpu_seconds_total{cpu=\"0\",mode=\"idle\"}"), 0);
}

// A down target answers vireo_up 0 with its reason, while a probe of a live
// board started after it completes first.
TEST(exporter, down_target_does_not_delay_others) {
    board b;
    // A board asked for a command it does not have (-22 unknown sub-command).
    exporter e(R"({"odd": {"endpoint": ")" + b.ep +
               R"(", "commands": {"meminfo": {"code": "0x10", "id": "7f"}}}})");
    zmtp_fake mute(zmtp_fake::mute, "ROUTER"), not_zmq(zmtp_fake::no_zmtp, "ROUTER");
    struct {
        string target, reason;
    } rows[] = {{"tcp://127.0.0.1:" + std::to_string(free_port()), "refused"},
                {mute.ep, "timeout"},
                {"odd", "error"},
                {not_zmq.ep, "handshake"},
                {"tcp://127.0.0.1:" + std::to_string(e.port), "handshake"}};
    for (auto& r : rows) {
        auto down = std::async(std::launch::async, [&] { return e.probe(r.target, "2"); });
        usleep(100000);
        string live = e.probe(b.ep, "2");
        bool down_still_running =
            down.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
        string text = down.get();
        EXPECT_EQ(value(text, "vireo_up{reason=\"" + r.reason + "\"}"), 0) << text;
        EXPECT_EQ(value(live, "vireo_up"), 1) << live;
        EXPECT_TRUE(down_still_running || r.reason != "timeout");
        EXPECT_EQ(value(text, "vireo_command_status{command=\"meminfo\"}"),
                  r.reason == "error" ? -22 : -1)
            << text;
    }
    string own = get(e.port, "/metrics");
    EXPECT_EQ(value(own, "vireo_exporter_probe_errors_total{target=\"" + rows[1].target +
                             "\",reason=\"timeout\"}"),
              1)
        << own;
    EXPECT_EQ(value(own, "vireo_exporter_probes_total{target=\"" + b.ep + "\"}"), 5) << own;
}

TEST(exporter, prometheus_scrapes_two_boards) {
    if (!have("prometheus"))
        GTEST_SKIP() << "prometheus missing (Debian package prometheus)";
    board b1, b2;
    exporter e;
    temp_dir t;
    int port = free_port();
    string cfg = t.write("p.yml", R"(global: {scrape_interval: 1s, scrape_timeout: 1s}
scrape_configs:
- {job_name: vireo, metrics_path: /probe, static_configs: [{targets: [')" +
                                      b1.ep + "', '" + b2.ep + R"(']}],
   relabel_configs: [{source_labels: [__address__], target_label: __param_target},
     {source_labels: [__param_target], target_label: instance}, {target_label: __address__, replacement: '127.0.0.1:)" +
                                      std::to_string(e.port) + "'}]}\n");
    child_process p({"prometheus", "--config.file=" + cfg, "--storage.tsdb.path=" + t.path() + "/data",
             "--web.listen-address=127.0.0.1:" + std::to_string(port)},
            t.path() + "/log");
    std::set<string> instances;
    for (int i = 0; i < 120 && instances.size() < 2; i++, usleep(250000)) {
        Json::Value v;
        std::istringstream in(get(port, "/api/v1/query?query=vireo_memory_MemTotal_bytes", {}, 1));
        if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr))
            continue;
        for (const Json::Value& r : v["data"]["result"])
            instances.insert(r["metric"]["instance"].asString());
    }
    EXPECT_EQ(instances, (std::set<string>{b1.ep, b2.ep})) << read_text_file(t.path() + "/log");
}

// A failed probe says on its page what was wrong: a board that speaks no
// ZeroMQ, and CURVE keys against a plaintext board (no key was refused).
TEST(exporter, failed_probes_say_why) {
    board b;
    zmtp_fake not_zmq(zmtp_fake::no_zmtp, "ROUTER");
    char pub[41], sec[41];
    zmq_curve_keypair(pub, sec);
    temp_dir t;
    exporter e(R"({"curved": {"endpoint": ")" + b.ep + R"(", "server-key": ")" + pub +
               R"(", "key": ")" + t.write("me.key", string(sec) + "\n") + R"("}})");
    for (auto [target, line] :
         {std::pair{string("curved"), string("does not use CURVE")},  // whichever side noticed first
          {not_zmq.ep, "# no ZeroMQ handshake from " + not_zmq.ep + " within 1000 ms: not a vireo-monitor\n"}}) {
        string text = e.probe(target, "5");  // room for a loaded machine: both fail on their own
        EXPECT_NE(text.find(line), string::npos) << text;
    }
}

// Configurations the exporter refuses, with the reason on stderr (exit 78).
TEST(exporter, refuses_bad_configurations) {
    temp_dir t;
    struct {
        string json, err;
    } rows[] = {{R"({"server_key": "k"})", "unknown key \"server_key\""},
                {R"({"server-key": "short"})", "cannot open key file short"},
                {R"({"commands": {"meminfo": {"code": "zz", "id": "1"}}})", "hexadecimal"},
                {R"({"processes": [{"name": "a", "pid": 1, "cmdline": "a"}]})", "at most one of"},
                {R"({"processes": [{"name": "a", "cmdline": ""}]})", "cmdline is not"},
                {R"({"targets": {"a": {"server-key": ""}}})", "targets.a: needs an \"endpoint\""},
                {R"({"targets": {"a": {"endpoint": "127.0.0.1:6600"}}})",
                 "targets.a.endpoint \"127.0.0.1:6600\": target is neither tcp://HOST:PORT"}};
    for (auto& r : rows) {
        string cfg = t.write("c.json", r.json), err = t.path() + "/err";
        int st =
            system((VIREO_EXPORTER_BIN " --listen 127.0.0.1:1 -c " + cfg + " 2>" + err).c_str());
        EXPECT_EQ(WEXITSTATUS(st), 78) << r.json;
        EXPECT_NE(read_text_file(err).find(r.err), string::npos) << r.json << "\n"
                                                                 << read_text_file(err);
    }
}

}  // namespace

namespace {

// Bad spellings of a board get 400 and one line; 2,000 long targets and more
// names than max-targets leave /metrics bounded: 3 targets of 20 series, each
// line under 400 bytes (targets are at most 256 characters).
TEST(exporter_attack, targets_checked_and_metrics_bounded) {
    board b;
    string p = std::to_string(b.port), named;
    for (int i = 0; i < 5; i++)
        named += string(i ? "," : "") + "\"" + string(200, 'n') + std::to_string(i) +
                 "\": {\"endpoint\": \"" + b.ep + "\"}";
    exporter e("{" + named + "}", R"(, "max-targets": 3)");
    struct {
        string target, why;
    } rows[] = {{"tcp://127.0.0.9:555;127.0.0.1:" + p, "source address"},
                {"tcp://127.0.0.1:000" + p, "port"},
                {"tcp://127.0.0.1:" + std::to_string(b.port + 65536), "port"},
                {"tcp://127.0.0.1:0", "port"},
                {"tcp://127.1:" + p, "host"},
                {"tcp://0x7f.0.0.1:" + p, "host"},
                {"tcp://[::1:" + p, "host"},
                {"udp://127.0.0.1:" + p, "neither"},
                {"tcp://" + string(300, 'a') + ":1", "longer than 256"}};
    for (auto& r : rows) {
        auto [status, body] = fetch(e.port, "/probe?target=" + r.target);
        EXPECT_EQ(status, 400) << r.target;
        EXPECT_NE(body.find(r.why), string::npos) << r.target << ": " << body;
        EXPECT_EQ(body.find('\n'), body.size() - 1) << body;
    }
    for (int i = 0; i < 2000; i++)
        EXPECT_EQ(
            fetch(e.port, "/probe?target=tcp://127.0.0.1:" + string(240, '0') + std::to_string(i))
                .first,
            400);
    EXPECT_EQ(value(e.probe(b.ep), "vireo_up"), 1);
    EXPECT_EQ(value(e.probe("tcp://LocalHost.:" + p), "vireo_up"), 1);
    string refused = "tcp://127.0.0.1:" + std::to_string(free_port());
    EXPECT_EQ(value(e.probe(refused), "vireo_up{reason=\"refused\"}"), 0);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(value(e.probe(string(200, 'n') + std::to_string(i)), "vireo_up"), 1);
    string own = get(e.port, "/metrics");
    EXPECT_LT(own.size(), 3 * 20 * 400 + 2000u) << own;
    EXPECT_LT(rss_kib(e.c->pid), rss_ceiling_kib);
    for (string t : {b.ep, string("tcp://localhost:") + p, refused, string(200, 'n') + "1"})
        EXPECT_EQ(value(own, "vireo_exporter_probes_total{target=\"" + t + "\"}"), -1) << t;
    EXPECT_EQ(value(own, "vireo_exporter_probes_total{target=\"" + string(200, 'n') + "4\"}"), 1);
    exporter only10("{}", "", {"--probe.allow", "10.0.0.0/8,board.lan"});
    auto [status, body] = fetch(only10.port, "/probe?target=" + b.ep);
    EXPECT_EQ(status, 400);
    EXPECT_EQ(body, "target " + b.ep + " is not allowed by --probe.allow\n");
}

// Hostile HTTP clients against 4 threads: absurd timeout headers are refused,
// a huge one is clamped to the configured timeout, probes whose client left
// end, and 100 connections stuck in their header hold no thread. After each,
// the board is probed fine.
TEST(exporter_attack, http_clients_cannot_hold_threads) {
    board b;
    zmtp_fake silent(zmtp_fake::mute, "ROUTER");
    exporter e("{}", R"(, "threads": 4, "timeout": 1)");
    for (const char* h : {"inf", "nan", "1e300", "1e13", "1000000", "-1", "0", "5s"}) {
        auto [status, body] =
            fetch(e.port, "/probe?target=" + b.ep, {{"X-Prometheus-Scrape-Timeout-Seconds", h}});
        EXPECT_EQ(status, 400) << h;
        EXPECT_NE(body.find("not a number of seconds"), string::npos) << h << ": " << body;
    }
    // Three at once: the thread that answered the last 400 may not have
    // counted itself free yet.
    std::vector<std::future<string>> held;
    for (int i = 0; i < 3; i++)
        held.push_back(std::async(std::launch::async, [&] { return e.probe(silent.ep, "3600"); }));
    for (auto& f : held) EXPECT_EQ(value(f.get(), "vireo_up{reason=\"timeout\"}"), 0);
    EXPECT_EQ(value(e.probe(b.ep), "vireo_up"), 1);

    // Two probes that wait on two mute boards hold this address's share of
    // 2 threads: a third request is refused until their clients leave.
    exporter slow("{}", R"(, "threads": 2, "timeout": 60)");
    zmtp_fake mute1(zmtp_fake::mute, "ROUTER"), mute2(zmtp_fake::mute, "ROUTER");  // none linked before
    std::vector<std::thread> leaving;
    std::vector<std::unique_ptr<httplib::Client>> waiting;  // leave when stopped, not on a timer
    for (zmtp_fake* f : {&mute1, &mute2}) {  // one after the other: each holds its thread
        waiting.push_back(std::make_unique<httplib::Client>("127.0.0.1", slow.port));
        waiting.back()->set_read_timeout(60, 0);
        leaving.emplace_back([c = waiting.back().get(), f] { c->Get(("/probe?target=" + f->ep).c_str()); });
        for (int i = 0; i < 1000 && f->messages < 1; i++) usleep(10000);
    }
    auto [status, body] = fetch(slow.port, "/metrics");
    EXPECT_EQ(status, 503) << "boards reached: " << mute1.messages << " " << mute2.messages;
    EXPECT_EQ(body, "too many requests from this address at once\n");
    for (auto& c : waiting) c->stop();
    for (auto& t : leaving) t.join();
    EXPECT_EQ(value(get(slow.port, "/probe?target=" + b.ep), "vireo_up"), 1);
    string own = get(slow.port, "/metrics");
    for (zmtp_fake* f : {&mute1, &mute2})
        EXPECT_EQ(value(own, "vireo_exporter_probe_errors_total{target=\"" + f->ep +
                                 "\",reason=\"timeout\"}"),
                  1)
            << own;

    std::vector<int> stuck;
    for (int i = 0; i < 100; i++) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{AF_INET, htons(e.port), {htonl(INADDR_LOOPBACK)}, {}};
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
            send(fd, "GET /probe?tar", 14, MSG_NOSIGNAL);
        stuck.push_back(fd);
    }
    EXPECT_EQ(value(e.probe(b.ep), "vireo_up"), 1);
    EXPECT_LT(open_fds(e.c->pid), 64u);
    // The newest stuck one is answered 408 at its header deadline.
    timeval tv{10, 0};
    setsockopt(stuck.back(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char reply[13] = {};
    recv(stuck.back(), reply, 12, MSG_WAITALL);
    EXPECT_STREQ(reply, "HTTP/1.1 408");
    for (int fd : stuck) close(fd);
}

// A second exporter on a busy port says so and exits non-zero, whichever
// of the two listens on every interface (":PORT").
TEST(exporter_attack, one_exporter_per_port) {
    exporter e;
    temp_dir t;
    int any = free_port();
    child_process all({VIREO_EXPORTER_BIN, "--listen", ":" + std::to_string(any)}, t.path() + "/log");
    EXPECT_NE(get(any, "/"), "") << read_text_file(t.path() + "/log");
    for (string second : {"127.0.0.1:" + std::to_string(e.port), ":" + std::to_string(e.port),
                          "127.0.0.1:" + std::to_string(any)}) {
        string err = t.path() + "/err";
        int st = system((VIREO_EXPORTER_BIN " --listen " + second + " 2>" + err).c_str());
        EXPECT_EQ(WEXITSTATUS(st), 1);
        EXPECT_EQ(read_text_file(err),
                  "vireo-exporter: cannot listen on " + second + ": Address already in use\n");
    }
}

// Hostile boards cost bounded memory: a 600 MB frame, a reply of more
// packets than a file takes, a multi-part reply without end.
TEST(exporter_attack, hostile_boards_cost_bounded_memory) {
    board b;
    exporter e("{}", R"(, "timeout": 1)");
    struct {
        zmtp_fake::mode m;
        string reason;
    } rows[] = {{zmtp_fake::huge_frame, "timeout"},
                {zmtp_fake::many_packets, "malformed"},
                {zmtp_fake::endless_parts, "timeout"}};
    for (auto& r : rows) {
        zmtp_fake fake(r.m, "ROUTER");
        string text = e.probe(fake.ep);
        EXPECT_EQ(value(text, "vireo_up{reason=\"" + r.reason + "\"}"), 0) << r.m << text;
        EXPECT_EQ(value(e.probe(b.ep), "vireo_up"), 1);
    }
    // Freed memory goes back to the system on the exporter's next timer tick.
    for (int i = 0; i < 50 && rss_kib(e.c->pid) >= rss_ceiling_kib; i++) usleep(100000);
    EXPECT_LT(rss_kib(e.c->pid), rss_ceiling_kib);
}

// Descriptors of an exporter once they stop falling: closed links free
// theirs on libzmq's own thread, a moment after the probe.
size_t settled_fds(pid_t pid, size_t want) {
    size_t now = 0;
    for (int i = 0; i < 50 && (now = open_fds(pid)) > want; i++) usleep(100000);
    return now;
}

// 20 probes of one board at once keep at most 4 links; idle ones are closed
// on a timer, without another probe. (The ZeroMQ context's threads take 4
// descriptors at the first socket.)
TEST(exporter_attack, links_capped_and_swept) {
    board b;
    exporter kept, swept("{}", R"(, "link-idle-timeout": 0.5)");
    for (exporter* e : {&kept, &swept}) {
        size_t before = open_fds(e->c->pid) + 4;
        std::vector<std::future<string>> probes;
        for (int i = 0; i < 20; i++)
            probes.push_back(std::async(std::launch::async, [&] { return e->probe(b.ep); }));
        for (auto& f : probes) EXPECT_EQ(value(f.get(), "vireo_up"), 1);
        size_t links = e == &kept ? 4 : 0;
        EXPECT_LE(settled_fds(e->c->pid, before + links * 3), before + links * 3);
    }
}

}  // namespace
