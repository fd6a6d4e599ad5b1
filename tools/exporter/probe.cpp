// One probe: a ZeroMQ socket to the board (new, or kept from its last
// probe), every request sent at once, the replies matched by a tag, and the
// figures rendered.
//
// The socket is a DEALER that speaks the REQ envelope: [tag, empty, frame].
// The daemon's REP workers hand the envelope back unchanged, so replies may
// arrive in any order and still find their request, and the board's workers
// serve one probe's requests side by side.
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "exporter.h"
#include "vireo_client.h"

namespace {

using clock_type = std::chrono::steady_clock;

// The files a probe asks for fit one packet; a board's plug-in might answer
// in several, up to 128 KiB. Lists (processes, crash reports) are up to
// 1 MiB: 128 packets.
constexpr size_t max_file_packets = 16;
constexpr size_t max_list_packets = 128;
constexpr int handshake_ms = 1000;

struct request {
    uint32_t code = 0, id = 0;
    std::vector<uint8_t> payload;
    size_t max_packets = max_file_packets;
    bool done = false;
    client_reply reply;
};

// What a probe has in flight, and how it ended.
class probe_session {
public:
    probe_session(const target_conf& t, clock_type::time_point deadline)
        : target(t), deadline(deadline) {}
    ~probe_session();

    int open();
    // Queues and sends one request; returns its index.
    size_t send(const cmd_ref& ref, const std::vector<uint8_t>& payload,
                size_t max_packets = max_file_packets);
    // Waits for every sent request, or until the deadline or a failure.
    // Returns false with reason and why set on a failure.
    bool wait_all(const std::function<void(size_t)>& on_reply);

    const target_conf& target;
    clock_type::time_point deadline;
    board_link link;
    void*& sock = link.sock;
    void*& mon = link.mon;
    std::vector<request> reqs;
    size_t pending = 0;
    int client_fd = -1;  // the HTTP client's connection, watched for its end
    probe_reason reason = reason_none;
    std::string why;

private:
    void fail(probe_reason r, const std::string& text) {
        if (reason == reason_none) {
            reason = r;
            why = text;
        }
    }
    void read_monitor();
    void fail_refused(conn_verdict v);
    // Reads one queued reply: the index of the request it completes, or -1.
    int read_reply();
    // A new socket and its monitor, connecting to the board.
    int open_link();
    conn_watch& watch = link.watch;
};

std::atomic<unsigned> monitor_serial{0};

// Links of boards between probes, at most max_per_key per board and
// max_idle in all, each closed after idle_time unused by a timer thread. The
// lock is held only to take, give or sweep.
class link_pool {
public:
    link_pool() {
        rlimit r{};
        getrlimit(RLIMIT_NOFILE, &r);
        // A link costs about three descriptors (TCP, socket mailbox, reaper).
        max_idle = std::min<size_t>(1024, static_cast<size_t>(r.rlim_cur) / 8);
        std::thread(&link_pool::sweeper, this).detach();
    }
    // An idle link to key, or false.
    bool take(const std::string& key, board_link& out) {
        std::lock_guard<std::mutex> g(lock);
        auto it = idle.find(key);
        if (it == idle.end()) {
            return false;
        }
        out = it->second;
        idle.erase(it);
        return true;
    }
    void give(const std::string& key, board_link l) {
        {
            std::lock_guard<std::mutex> g(lock);
            if (idle.size() < max_idle && idle.count(key) < max_per_key) {
                l.idle_since = clock_type::now();
                idle.emplace(key, l);
                return;
            }
        }
        close_link(l);
    }
    std::atomic<int64_t> idle_ms{120000};
    std::atomic<bool> trim_wanted{false};  // a failed link may have held much memory

private:
    [[noreturn]] void sweeper() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        for (;;) {
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::clamp<int64_t>(idle_ms / 4, 10, 1000)));
            std::vector<board_link> stale;
            {
                std::lock_guard<std::mutex> g(lock);
                const auto oldest = clock_type::now() - std::chrono::milliseconds(idle_ms);
                for (auto it = idle.begin(); it != idle.end();) {
                    if (it->second.idle_since < oldest) {
                        stale.push_back(it->second);
                        it = idle.erase(it);
                    } else {
                        ++it;
                    }
                }
            }
            for (board_link& l : stale) {
                close_link(l);
            }
            // libzmq frees a dropped link's queued parts on its own thread;
            // the heap they grew is handed back here, not at each probe.
            if (trim_wanted.exchange(false)) {
                malloc_trim(0);
            }
        }
    }
    static constexpr size_t max_per_key = 4;
    size_t max_idle = 1024;
    std::mutex lock;
    std::unordered_multimap<std::string, board_link> idle;
};

link_pool& pool() {
    // Never destroyed: its timer thread runs until the process ends.
    static link_pool* p = new link_pool;
    return *p;
}

// Which links may serve a target: same endpoint, same keys.
std::string link_key(const target_conf& t) {
    return t.endpoint + "\n" + t.keys.server_public + "\n" + t.keys.public_key;
}

probe_session::~probe_session() {
    // A link with nothing in flight serves the board's next probe. Its
    // monitor has done its work (the handshake succeeded) and is let go: its
    // pipes cost more memory than the link itself.
    if (sock != nullptr && pending == 0 && (reason == reason_none || reason == reason_error)) {
        if (mon != nullptr) {
            zmq_socket_monitor(sock, nullptr, 0);
            zmq_close(mon);
            mon = nullptr;
        }
        pool().give(link_key(target), link);
    } else {
        close_link(link);
        pool().trim_wanted =
            pool().trim_wanted || reason == reason_timeout || reason == reason_malformed;
    }
}

int probe_session::open() {
    if (pool().take(link_key(target), link)) {
        return 0;
    }
    return open_link();
}

int probe_session::open_link() {
    void* ctx = probe_context();
    sock = zmq_socket(ctx, ZMQ_DEALER);
    if (sock == nullptr) {
        fail(reason_error, std::string("zmq_socket: ") + zmq_strerror(errno));
        return -1;
    }
    int zero = 0;
    zmq_setsockopt(sock, ZMQ_LINGER, &zero, sizeof zero);
    // A frame longer than one packet drops the link before it is held in
    // memory. A multi-part reply without end is bounded by the probe's
    // deadline only: libzmq keeps a message's parts until its last one.
    int64_t max_frame = max_wire_frame;
    zmq_setsockopt(sock, ZMQ_MAXMSGSIZE, &max_frame, sizeof max_frame);
    // A daemon greets at once: a peer that has not finished the handshake
    // within this is not one (libzmq's default waits 30 s).
    zmq_setsockopt(sock, ZMQ_HANDSHAKE_IVL, &handshake_ms, sizeof handshake_ms);
    if (target.keys.on()) {
        const curve_keys& k = target.keys;
        if (zmq_setsockopt(sock, ZMQ_CURVE_SERVERKEY, k.server_public.c_str(), 41) != 0 ||
            zmq_setsockopt(sock, ZMQ_CURVE_PUBLICKEY, k.public_key.c_str(), 41) != 0 ||
            zmq_setsockopt(sock, ZMQ_CURVE_SECRETKEY, k.secret_key.c_str(), 41) != 0) {
            fail(reason_error, std::string("CURVE keys: ") + zmq_strerror(errno));
            return -1;
        }
    }
    // The monitor tells a refused connection or handshake from a silent board.
    std::string mon_ep = "inproc://vireo-exporter-monitor-" + std::to_string(++monitor_serial);
    if (zmq_socket_monitor(sock, mon_ep.c_str(), conn_watched_events) != 0 ||
        (mon = zmq_socket(ctx, ZMQ_PAIR)) == nullptr || zmq_connect(mon, mon_ep.c_str()) != 0) {
        fail(reason_error, std::string("socket monitor: ") + zmq_strerror(errno));
        return -1;
    }
    if (zmq_connect(sock, target.endpoint.c_str()) != 0) {
        // A host name that does not resolve ends here.
        fail(errno == EINVAL ? reason_refused : reason_error,
             "cannot connect to " + target.endpoint + ": " + zmq_strerror(errno));
        return -1;
    }
    return 0;
}

size_t probe_session::send(const cmd_ref& ref, const std::vector<uint8_t>& payload,
                           size_t max_packets) {
    request r;
    r.code = ref.code;
    r.id = ref.id;
    r.payload = payload;
    r.max_packets = max_packets;
    reqs.push_back(std::move(r));
    uint32_t tag = static_cast<uint32_t>(reqs.size() - 1);
    std::vector<uint8_t> frame = pack_request(ref.code, ref.id, payload);
    if (zmq_send(sock, &tag, sizeof tag, ZMQ_SNDMORE | ZMQ_DONTWAIT) == -1 ||
        zmq_send(sock, "", 0, ZMQ_SNDMORE | ZMQ_DONTWAIT) == -1 ||
        zmq_send(sock, frame.data(), frame.size(), ZMQ_DONTWAIT) == -1) {
        fail(reason_error, std::string("zmq_send: ") + zmq_strerror(errno));
    } else {
        pending++;
    }
    return tag;
}

void probe_session::read_monitor() {
    uint16_t event = 0;
    uint32_t value = 0;
    while (reason == reason_none && read_conn_event(mon, event, value) == 0) {
        conn_verdict v = watch.feed(event, value);
        if (v != conn_verdict::pending) {
            fail_refused(v);
        }
    }
}

void probe_session::fail_refused(conn_verdict v) {
    if (v == conn_verdict::refused) {
        fail(reason_refused, "connection to " + target.endpoint + " refused");
    } else if (v == conn_verdict::handshake_closed) {
        // The side that notices a mechanism mismatch first closes: the
        // other one sees only that.
        fail(reason_refused, target.endpoint + " closed the connection in the handshake" +
                                 (target.keys.secret_key.empty()
                                      ? " (it may use CURVE: give the target \"server-key\" and \"key\")"
                                      : " (wrong server key, or it does not use CURVE)"));
    } else if (v == conn_verdict::no_handshake) {
        fail(reason_handshake, "no ZeroMQ handshake from " + target.endpoint + " within " +
                                   std::to_string(handshake_ms) + " ms: not a vireo-monitor");
    } else if (v == conn_verdict::protocol_error) {
        fail(reason_refused, "handshake with " + target.endpoint + " failed: " +
                                 conn_protocol_reason(watch.value, !target.keys.secret_key.empty()));
    } else {
        fail(reason_refused, "key not accepted by " + target.endpoint + " (status " +
                                 std::to_string(watch.value) + ")");
    }
}

int probe_session::read_reply() {
    std::vector<std::vector<uint8_t>> parts;
    int more = 1;
    while (more != 0) {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        if (zmq_msg_recv(&msg, sock, ZMQ_DONTWAIT) == -1) {
            zmq_msg_close(&msg);
            return -1;
        }
        // The envelope's two parts and at most max_list_packets packets; the
        // rest is dropped. The request's own cap is checked below.
        if (parts.size() < 2 + max_list_packets) {
            const uint8_t* d = static_cast<const uint8_t*>(zmq_msg_data(&msg));
            parts.emplace_back(d, d + zmq_msg_size(&msg));
        } else {
            fail(reason_malformed,
                 "reply of more than " + std::to_string(max_list_packets) + " packets");
        }
        more = zmq_msg_more(&msg);
        zmq_msg_close(&msg);
    }
    uint32_t tag = 0;
    if (parts.size() < 3 || parts[0].size() != sizeof tag || !parts[1].empty()) {
        fail(reason_malformed, "reply without the request's envelope");
        return -1;
    }
    memcpy(&tag, parts[0].data(), sizeof tag);
    if (tag >= reqs.size() || reqs[tag].done) {
        fail(reason_malformed, "reply to no request of this probe");
        return -1;
    }
    request& r = reqs[tag];
    if (parts.size() - 2 > r.max_packets) {
        fail(reason_malformed, "reply of more than " + std::to_string(r.max_packets) + " packets");
        return -1;
    }
    parts.erase(parts.begin(), parts.begin() + 2);
    std::string text;
    if (parse_reply(parts, r.code, r.id, r.reply, text) != 0) {
        fail(reason_malformed, "malformed reply from " + target.endpoint + ": " + text);
        return -1;
    }
    r.done = true;
    pending--;
    return static_cast<int>(tag);
}

bool probe_session::wait_all(const std::function<void(size_t)>& on_reply) {
    while (pending > 0 && reason == reason_none) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left.count() <= 0) {
            if (mon != nullptr && watch.at_timeout() != conn_verdict::pending) {
                fail_refused(watch.at_timeout());
            }
            fail(reason_timeout, "no reply from " + target.endpoint + " in time");
            break;
        }
        zmq_pollitem_t items[] = {
            {sock, 0, ZMQ_POLLIN, 0}, {nullptr, client_fd, ZMQ_POLLIN, 0}, {mon, 0, ZMQ_POLLIN, 0}};
        int n_items = client_fd >= 0 ? 2 : 1;
        if (mon != nullptr) {
            items[n_items++] = items[2];
        }
        if (zmq_poll(items, n_items, static_cast<long>(left.count())) == -1) {
            if (errno != EINTR) {
                fail(reason_error, std::string("zmq_poll: ") + zmq_strerror(errno));
            }
            continue;
        }
        if (client_fd >= 0 && (items[1].revents & ZMQ_POLLIN)) {
            // The request is read whole: readable now means closed, or a
            // client sending more than it should (then no longer watched).
            char c;
            ssize_t got = recv(client_fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
                fail(reason_timeout, "the HTTP client went away");
                break;
            }
            client_fd = got > 0 ? -1 : client_fd;
        }
        if (mon != nullptr && (items[n_items - 1].revents & ZMQ_POLLIN)) {
            read_monitor();
        }
        // Every reply queued now; a reply may queue more requests.
        for (int got; reason == reason_none && (got = read_reply()) >= 0;) {
            on_reply(static_cast<size_t>(got));
        }
    }
    return reason == reason_none;
}

std::vector<uint8_t> pid_payload(uint32_t pid) {
    std::vector<uint8_t> p(4);
    u32_to_u8(pid, p.data());
    return p;
}

// A reply's status: 0 when the board answered with a payload or nothing.
int32_t status_of(const request& r) {
    return r.reply.header().msg_len < 0 ? r.reply.header().msg_len : 0;
}

// A system file's request, and the collector of its reply.
struct source {
    const collector& c;
    size_t idx = SIZE_MAX;
};
using source_list = source[n_system_collectors];

// Per process: the indexes of its pidfile, status and stat requests.
struct proc_reqs {
    size_t pidfile = SIZE_MAX, status = SIZE_MAX, stat = SIZE_MAX;
    uint32_t pid = 0;
    proc_miss miss = proc_miss::not_read;  // until its files are read
};

// The families of a board that answered: each file's status, what its
// collector reads from it, and the named processes.
void render_board(const probe_session& s, const source_list& sources,
                  const std::vector<proc_reqs>& procs, metric_writer& w) {
    const target_conf& t = s.target;
    w.family("vireo_command_status", "gauge",
             "Status the board answered for each system file: 0, or its negative error code.");
    for (const source& src : sources) {
        if (src.idx != SIZE_MAX) {
            w.sample("vireo_command_status", {{"command", src.c.name}}, status_of(s.reqs[src.idx]));
        }
    }
    for (const source& src : sources) {
        if (src.idx == SIZE_MAX || status_of(s.reqs[src.idx]) != 0) {
            continue;
        }
        src.c.render(s.reqs[src.idx].reply.payload, t.user_hz, w);
    }
    std::vector<process_sample> samples;
    for (size_t i = 0; i < procs.size(); i++) {
        process_sample p;
        p.name = t.processes[i].name;
        p.pid = procs[i].pid;
        const proc_reqs& r = procs[i];
        p.miss = r.miss;
        if (r.status != SIZE_MAX && s.reqs[r.status].done && s.reqs[r.stat].done &&
            status_of(s.reqs[r.status]) == 0 && status_of(s.reqs[r.stat]) == 0 &&
            parse_process(s.reqs[r.status].reply.payload, s.reqs[r.stat].reply.payload, t.user_hz,
                          p)) {
            p.miss = proc_miss::none;
        }
        samples.push_back(p);
    }
    render_processes(samples, w);
}

}  // namespace

void close_link(board_link& l) {
    if (l.mon != nullptr) {
        zmq_close(l.mon);
    }
    if (l.sock != nullptr) {
        zmq_socket_monitor(l.sock, nullptr, 0);
        zmq_close(l.sock);
    }
    l = board_link{};
}

const char* reason_text(probe_reason r) {
    switch (r) {
        case reason_timeout:
            return "timeout";
        case reason_refused:
            return "refused";
        case reason_malformed:
            return "malformed";
        case reason_error:
            return "error";
        case reason_handshake:
            return "handshake";
        default:
            return "";
    }
}

namespace {

// Sends every request of a probe and waits for the replies, asking each
// process's files once its pid is known: at once, from its pidfile, or from
// the board's process list.
void ask_board(probe_session& s, source_list& sources, std::vector<proc_reqs>& procs) {
    const target_conf& t = s.target;
    const bool per_process = t.cmds.process_status.set && t.cmds.process_stat.set;
    auto ask_process = [&](proc_reqs& p) {
        p.status = s.send(t.cmds.process_status, pid_payload(p.pid));
        p.stat = s.send(t.cmds.process_stat, pid_payload(p.pid));
    };
    for (source& src : sources) {
        if ((t.cmds.*src.c.ref).set) {
            const bool list = src.c.ref == &command_map::crash;
            src.idx = s.send(t.cmds.*src.c.ref, {}, list ? max_list_packets : max_file_packets);
        }
    }
    size_t ps = SIZE_MAX;
    for (size_t i = 0; per_process && i < procs.size(); i++) {
        const process_conf& c = t.processes[i];
        if (c.by == select_by::pid) {
            procs[i].pid = c.pid;
            ask_process(procs[i]);
        } else if (c.by == select_by::pidfile) {
            procs[i].pidfile = s.send(c.pidfile, {});
        } else if (!t.cmds.ps.set) {
            procs[i].miss = proc_miss::no_list;
        } else if (ps == SIZE_MAX) {
            ps = s.send(t.cmds.ps, {}, max_list_packets);
        }
    }
    s.wait_all([&](size_t done) {
        const bool ok = status_of(s.reqs[done]) == 0;
        if (done == ps) {
            std::vector<ps_entry> list = parse_ps(s.reqs[done].reply.payload);
            for (size_t i = 0; i < procs.size(); i++) {
                select_by by = t.processes[i].by;
                if (by != select_by::name && by != select_by::cmdline) {
                    continue;
                }
                procs[i].miss = proc_miss::no_list;
                if (ok && (procs[i].pid = select_process(t.processes[i], list, procs[i].miss))) {
                    procs[i].miss = proc_miss::not_read;
                    ask_process(procs[i]);
                }
            }
        }
        for (proc_reqs& p : procs) {
            if (p.pidfile == done) {
                p.miss = proc_miss::no_pid;
                if (ok && (p.pid = parse_pidfile(s.reqs[done].reply.payload)) != 0) {
                    p.miss = proc_miss::not_read;
                    ask_process(p);
                }
            }
        }
    });
}

}  // namespace

void run_probe(const target_conf& t, double timeout_s, probe_result& out, int client_fd) {
    const auto start = clock_type::now();
    probe_session s(t, start + std::chrono::microseconds(static_cast<int64_t>(timeout_s * 1e6)));
    s.client_fd = client_fd;
    source_list sources = {{system_collectors[0]},
                           {system_collectors[1]},
                           {system_collectors[2]},
                           {system_collectors[3]},
                           {system_collectors[4]}};
    std::vector<proc_reqs> procs(t.processes.size());
    if (s.open() == 0) {
        ask_board(s, sources, procs);
    }
    // A board that answered but refused one of the system files.
    for (const source& src : sources) {
        if (s.reason == reason_none && src.idx != SIZE_MAX && status_of(s.reqs[src.idx]) != 0) {
            s.reason = reason_error;
            s.why = std::string(src.c.name) + ": " + status_text(status_of(s.reqs[src.idx]));
        }
    }

    metric_writer w;
    w.family("vireo_up", "gauge",
             "1 when the board answered every request, else 0 with the reason.");
    if (s.reason == reason_none) {
        w.sample("vireo_up", 1);
    } else {
        w.sample("vireo_up", {{"reason", reason_text(s.reason)}}, 0);
    }
    if (s.reason == reason_none || s.reason == reason_error) {
        render_board(s, sources, procs, w);
    }
    out.reason = s.reason;
    out.why = s.why;
    out.seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    if (!s.why.empty()) {
        // Why the probe failed, for a person reading the page: a comment.
        std::string note = s.why;
        std::replace(note.begin(), note.end(), '\n', ' ');
        w.out += "# " + note + "\n";
    }
    w.family("vireo_scrape_duration_seconds", "gauge", "Seconds the probe of the board took.");
    w.sample("vireo_scrape_duration_seconds", out.seconds);
    out.text = std::move(w.out);
}

void* probe_context() {
    static void* ctx = [] {
        void* c = zmq_ctx_new();
        zmq_ctx_set(c, ZMQ_MAX_SOCKETS, 65536);
        return c;
    }();
    return ctx;
}

void set_link_idle_time(double seconds) {
    pool().idle_ms = static_cast<int64_t>(seconds * 1000);
}
