// What vireo-client says, and with which exit status, when it cannot get an
// answer: a refused connection, an unknown host, a server that never answers,
// every way a CURVE handshake is refused, a full disk, a usage error; what it
// adds to a daemon's status (a missing --pid, an absent process); and its key
// pairs.
#include <sys/stat.h>
#include <zmq.h>

#include <atomic>
#include <thread>

#include "client_run.h"

#ifdef VIREO_PROBE_SO
#define VIREO_PROBE_ENTRY ", {\"name\": \"stack\", \"id\": \"3\", \"type\": \"custom\", \"lib\": \"" VIREO_PROBE_SO "\", \"symbols\": \"probe_stack\"}"
#else
#define VIREO_PROBE_ENTRY ""
#endif

namespace {
using std::string;

std::vector<string> recv_parts(void* sock) {
    std::vector<string> parts;
    for (int more = 1; more != 0 && parts.size() < 16;) {
        zmq_msg_t m;
        zmq_msg_init(&m);
        if (zmq_msg_recv(&m, sock, 0) >= 0) parts.emplace_back(static_cast<char*>(zmq_msg_data(&m)), zmq_msg_size(&m));
        more = zmq_msg_more(&m);
        zmq_msg_close(&m);
    }
    return parts;
}

void send_parts(void* sock, const std::vector<string>& parts) {
    for (size_t i = 0; i < parts.size(); i++) zmq_send(sock, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
}

// A CURVE ROUTER on a free port with its own ZAP handler, which accepts the
// one client key `accepted` (Z85) with status 200 and refuses others with
// 400. Every request is answered with the payload "ok".
struct curve_server {
    void* ctx = zmq_ctx_new();
    void* zap = zmq_socket(ctx, ZMQ_REP);
    void* router = zmq_socket(ctx, ZMQ_ROUTER);
    string endpoint = "tcp://127.0.0.1:" + std::to_string(free_port());
    char public_key[41] = {}, secret_key[41] = {};
    std::atomic<bool> done{false};
    std::thread loop;

    explicit curve_server(const string& accepted) {
        uint8_t raw[32];
        const string accepted_raw(reinterpret_cast<char*>(zmq_z85_decode(raw, accepted.c_str())), 32);
        int one = 1;
        zmq_curve_keypair(public_key, secret_key);
        zmq_bind(zap, "inproc://zeromq.zap.01");
        zmq_setsockopt(router, ZMQ_CURVE_SERVER, &one, sizeof one);
        zmq_setsockopt(router, ZMQ_CURVE_SECRETKEY, secret_key, 40);
        EXPECT_EQ(zmq_bind(router, endpoint.c_str()), 0);
        loop = std::thread([this, accepted_raw] {
            while (!done) {
                zmq_pollitem_t items[] = {{zap, 0, ZMQ_POLLIN, 0}, {router, 0, ZMQ_POLLIN, 0}};
                if (zmq_poll(items, 2, 50) <= 0) continue;
                if (items[0].revents != 0) {  // version, id, domain, address, identity, mechanism, key
                    std::vector<string> q = recv_parts(zap);
                    bool ok = q.size() == 7 && q[6] == accepted_raw;
                    send_parts(zap, {"1.0", q.size() > 1 ? q[1] : "", ok ? "200" : "400", ok ? "OK" : "no", "", ""});
                }
                std::vector<string> m = items[1].revents != 0 ? recv_parts(router) : std::vector<string>{};
                if (m.size() == 3 && m[2].size() >= 8)  // identity, empty, request: answered "ok"
                    send_parts(router, {m[0], "", m[2].substr(0, 8) + string("\2\0\0\0", 4) + string(32, '\0') + "ok" + string(4, '\0')});
            }
        });
    }
    ~curve_server() {
        done = true;
        loop.join();
        for (void* sock : {zap, router}) zmq_close(sock);
        zmq_ctx_term(ctx);
    }
};

TEST(client_failures, each_has_its_message_and_status) {
    temp_dir dir;
    const string d = dir.path();
    // Key pairs: the secret file is 0600, the public key printed is the .pub
    // file's, and neither file is ever overwritten.
    run_result made = run_client("keygen " + d + "/alice");
    ASSERT_EQ(run_client("keygen " + d + "/mallory").status + made.status, 0) << made.err;
    const string alice_pub = read_text_file(d + "/alice.pub"), alice_sec = read_text_file(d + "/alice.key");
    struct stat st {};
    EXPECT_TRUE(stat((d + "/alice.key").c_str(), &st) == 0 && (st.st_mode & 0777) == 0600) << std::oct << st.st_mode;
    EXPECT_TRUE(made.out.size() == 41 && alice_pub.substr(alice_pub.find('\n') + 1) == made.out) << alice_pub << made.out;
    expect_run("keygen " + d + "/alice", 74, "", d + "/alice.key exists already");
    // Missing folders are made, 0700 as ~/.ssh is; ~ the shell left is the home.
    run_result nested = run_client("keygen '~/.config/vireo/me'", "env HOME=" + d);
    EXPECT_TRUE(nested.status == 0 && stat((d + "/.config").c_str(), &st) == 0 && (st.st_mode & 0777) == 0700 &&
                read_text_file(d + "/.config/vireo/me.pub").find(nested.out) != string::npos) << nested.err << std::oct << st.st_mode;
    EXPECT_EQ(read_text_file(d + "/alice.key") + read_text_file(d + "/alice.pub"), alice_sec + alice_pub);
    const string alice_key = alice_pub.substr(alice_pub.find('\n') + 1, 40);
    curve_server secure(alice_key);
    dir.write("server.pub", string("# the server\n") + secure.public_key + "\n");
    zmq_client silent("", 5000, ZMQ_ROUTER);  // accepts connections, never answers
    const string quiet = "tcp://127.0.0.1:" + std::to_string(free_port()), refused = "127.0.0.1:" + std::to_string(free_port());
    ASSERT_EQ(zmq_bind(silent.socket(), quiet.c_str()), 0);
    const string s = "-e " + secure.endpoint + " --server-key " + d + "/server.pub ", alice = "--key " + d + "/alice.key ";
    // A daemon for what the client adds to a status: a "$pid" file, an echo
    // of the request's payload, the probe.
    served_daemon board(R"({"name": "status", "id": "1", "type": "file", "file": "/proc/$pid/status"},
        {"name": "echo", "id": "2", "type": "custom", "lib": "LIB", "symbols": "plugin_echo"})" VIREO_PROBE_ENTRY);
    ASSERT_TRUE(board.ready()) << board.daemon->stderr_text();
    const string b = "-c " + board.main_file + " ", bare = board.endpoint.substr(6);  // without tcp://
    const string pid_max = std::to_string(std::stol(read_text_file("/proc/sys/kernel/pid_max")));  // never a pid
    struct row { string args; int status; string out, err_has; } rows[] = {
        {b + "a.status", 1, "", "a.status: error -2 (file could not be opened): no --pid given\n"},
        {b + "a.status --pid " + pid_max, 1, "", "error -2 (file could not be opened): /proc/" + pid_max + "/status (no process " + pid_max + " on the board, or not readable by the daemon)\n"},
#ifdef VIREO_PROBE_SO
        {b + "a.stack", 1, "", "a.stack: error -5022 (probe: bad request (payload under 4 bytes, msg_len above 1024, pid 0)): no --pid given\n"},
#endif
        {"-e " + bare + " 10 1", 64, "", "endpoint \"" + bare + "\" needs the form tcp://HOST:PORT (did you mean tcp://" + bare + "?)\n"},
        {b + "a.echo --pid 258 --tid=16909060", 0, string("\2\1\0\0\4\3\2\1", 8), ""},
        {b + "a.echo --tid 3", 64, "", "--tid needs --pid: the thread id follows the process id\n"},
        {s + alice + "10 1", 0, "ok", ""},
        {s + "--key=" + d + "/mallory.key 10 1", 5, "", "key not accepted by " + secure.endpoint + " (status 400)"},
        {"-e " + secure.endpoint + " --server-key '" + alice_key + "' " + alice + "10 1", 5, "", "wrong server key"},
        {"-e " + secure.endpoint + " 10 1", 5, "", "give --server-key and --key"},
        {"-e " + quiet + " --server-key " + d + "/server.pub " + alice + "10 1", 5, "", "the server does not use CURVE"},
        {"-t 300 -e " + quiet + " 10 1", 2, "", "no reply from " + quiet + " within 300 ms"},
        {"-t 10000 -e tcp://" + refused + " 10 1", 4, "", "connection refused by " + refused + "\n"},
        {"-t 10000 -e tcp://" + refused + " profile --pid 1", 4, "", "connection refused by " + refused + "\n"},
        {"-t 10000 -e tcp://no-such-host.invalid:6600 10 1", 4, "", "unknown host no-such-host.invalid"},
        {s + alice + "crashes", 3, "", "malformed reply from " + secure.endpoint + ": not a crash list"},
        {s + "--key " + d + "/absent.key 10 1", 78, "", "key file " + d + "/absent.key: cannot be read"},
        {s + "10 1", 64, "", "needs both the server's key (--server-key) and its own (--key)"},
        {"--jsno 10 1", 64, "", "unknown option --jsno (did you mean --json?)"},
        {"take-di", 64, "", "unknown request \"take-di\" (did you mean take-id?)"},
        {"--version", 0, "vireo-client " VIREO_VERSION "\n", ""},
    };
    for (const row& r : rows) expect_run(r.args, r.status, r.out, r.err_has);
    expect_run(s + alice + "10 1", 74, "", "writing the output failed: No space left on device", "/dev/full");
}

}  // namespace
