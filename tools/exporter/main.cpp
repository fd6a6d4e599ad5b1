// vireo-exporter: Prometheus' probing exporter for vireo-monitor boards.
//   GET /probe?target=T   one board's figures (T: tcp://HOST:PORT or a name)
//   GET /metrics          the exporter's own figures
#include <httplib.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <list>
#include <mutex>
#include <thread>

#include "exporter.h"
#include "http_front.h"

#ifndef VIREO_VERSION
#define VIREO_VERSION "unknown"
#endif

namespace {

constexpr int exit_usage = 64;
constexpr int exit_config = 78;
constexpr int exit_listen = 1;

// Outside Prometheus' exporter range (9100-9999), which is fully allocated;
// below Linux's ephemeral ports, so no outgoing connection holds it.
#define DEFAULT_LISTEN ":16600"

const char usage_text[] =
    "usage: vireo-exporter [--listen [ADDR]:PORT] [-c FILE] [--probe.allow LIST]\n"
    "  --listen [ADDR]:PORT  HTTP address to serve /probe and /metrics on;\n"
    "                      :PORT means every interface (default " DEFAULT_LISTEN
    ")\n"
    "  --probe.allow LIST  tcp:// targets that may be probed: networks, addresses\n"
    "                      and host names, comma-separated (10.0.0.0/8,board.lan);\n"
    "                      without it, any tcp://HOST:PORT is\n"
    "  -c FILE             exporter configuration (JSON): keys, commands, processes,\n"
    "                      named targets; without it tcp:// targets are probed in\n"
    "                      plaintext with the demo configuration's commands\n"
    "  -h, --help          print this text\n";

const char content_type[] = "text/plain; version=0.0.4; charset=utf-8";

// Prometheus' scrape timeout less this, so that the answer arrives in time.
constexpr double timeout_margin_s = 0.25;
constexpr double min_timeout_s = 0.05;

// Probe latency buckets, seconds.
constexpr double buckets[] = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};
constexpr size_t n_buckets = sizeof buckets / sizeof buckets[0];

// The exporter's own figures per target, updated after each probe.
struct target_stats {
    uint64_t probes = 0;
    uint64_t failures[reason_count] = {};  // by probe_reason
    uint64_t bucket_counts[n_buckets] = {};
    double seconds_sum = 0;
};

// The figures of the most recently probed targets, at most max_targets of
// them: HTTP clients choose the targets, so the page's size is bounded by
// the count and by max_target_len.
struct stats_table {
    std::mutex lock;  // held only to update or copy the figures
    size_t max_targets = 1000;
    std::list<std::string> recent;  // most recently probed first
    std::map<std::string, std::pair<target_stats, std::list<std::string>::iterator>> by_target;
};
stats_table stats;

void record(const std::string& target, const probe_result& r) {
    std::lock_guard<std::mutex> g(stats.lock);
    auto it = stats.by_target.find(target);
    if (it == stats.by_target.end()) {
        // Nothing answered: a typo or a scan leaves no figures behind.
        if (r.reason == reason_refused) {
            return;
        }
        if (stats.by_target.size() >= stats.max_targets) {
            stats.by_target.erase(stats.recent.back());
            stats.recent.pop_back();
        }
        stats.recent.push_front(target);
        it = stats.by_target.emplace(target, std::make_pair(target_stats{}, stats.recent.begin()))
                 .first;
    } else {
        stats.recent.splice(stats.recent.begin(), stats.recent, it->second.second);
    }
    target_stats& s = it->second.first;
    s.probes++;
    s.failures[r.reason]++;
    s.seconds_sum += r.seconds;
    for (size_t i = 0; i < n_buckets; i++) {
        s.bucket_counts[i] += r.seconds <= buckets[i] ? 1 : 0;
    }
}

std::string own_metrics() {
    std::map<std::string, target_stats> copy;
    {
        std::lock_guard<std::mutex> g(stats.lock);
        for (const auto& [t, s] : stats.by_target) {
            copy.emplace(t, s.first);
        }
    }
    metric_writer w;
    render_self_process(w);
    w.family("vireo_exporter_build_info", "gauge", "Version of vireo-exporter, value 1.");
    w.sample("vireo_exporter_build_info", {{"version", VIREO_VERSION}}, 1);
    w.family("vireo_exporter_probes_total", "counter", "Probes of each target.");
    for (const auto& [t, s] : copy) {
        w.sample("vireo_exporter_probes_total", {{"target", t}}, static_cast<double>(s.probes));
    }
    w.family("vireo_exporter_probe_errors_total", "counter",
             "Probes of each target that ended with vireo_up 0, by reason.");
    for (const auto& [t, s] : copy) {
        for (int r = reason_timeout; r < reason_count; r++) {
            w.sample("vireo_exporter_probe_errors_total",
                     {{"target", t}, {"reason", reason_text(static_cast<probe_reason>(r))}},
                     static_cast<double>(s.failures[r]));
        }
    }
    w.family("vireo_exporter_probe_duration_seconds", "histogram", "Seconds each probe took.");
    for (const auto& [t, s] : copy) {
        const std::string h = "vireo_exporter_probe_duration_seconds";
        for (size_t i = 0; i < n_buckets; i++) {
            char le[32];
            snprintf(le, sizeof le, "%g", buckets[i]);
            w.sample(h + "_bucket", {{"target", t}, {"le", le}},
                     static_cast<double>(s.bucket_counts[i]));
        }
        w.sample(h + "_bucket", {{"target", t}, {"le", "+Inf"}}, static_cast<double>(s.probes));
        w.sample(h + "_sum", {{"target", t}}, s.seconds_sum);
        w.sample(h + "_count", {{"target", t}}, static_cast<double>(s.probes));
    }
    return w.out;
}

// The probe's time budget: Prometheus' header less a margin, at most the
// configured timeout. Returns -1 for a header that is not a number of
// seconds from 0 to a day (inf, nan, 1e300...).
double probe_timeout(const httplib::Request& req, double configured) {
    std::string h = req.get_header_value("X-Prometheus-Scrape-Timeout-Seconds");
    if (h.empty()) {
        return configured;
    }
    char* end = nullptr;
    double v = strtod(h.c_str(), &end);
    if (*end != '\0' || !std::isfinite(v) || !(v > 0) || v > 86400) {
        return -1;
    }
    return std::min(configured, std::max(min_timeout_s, v - timeout_margin_s));
}

// True when the request's Accept-Encoding lists gzip (without q=0).
bool accepts_gzip(const httplib::Request& req) {
    std::string a = req.get_header_value("Accept-Encoding");
    for (char& c : a) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    size_t at = a.find("gzip");
    if (at == std::string::npos) {
        return false;
    }
    size_t end = a.find(',', at);
    std::string params =
        a.substr(at + 4, end == std::string::npos ? std::string::npos : end - at - 4);
    params.erase(std::remove(params.begin(), params.end(), ' '), params.end());
    return params.rfind(";q=0", 0) != 0 ||
           params.find_first_of("123456789", 4) != std::string::npos;
}

// A page, gzip-compressed when the scraper takes it (Prometheus does). The
// compressor is ours, with a 4 KiB window and a small hash, about 30 KiB of
// state: the library's would take 256 KiB per page being sent (or several
// MiB for brotli), which a fleet's simultaneous scrapes multiply. The
// library is kept from compressing again by taking Accept-Encoding out of
// the request, whose object it owns and does not hold const.
void send_page(const httplib::Request& req, httplib::Response& res, const std::string& text) {
    bool gzip = accepts_gzip(req);
    const_cast<httplib::Request&>(req).headers.erase("Accept-Encoding");
    z_stream z{};
    if (!gzip || deflateInit2(&z, 1, Z_DEFLATED, 12 + 16, 4, Z_DEFAULT_STRATEGY) != Z_OK) {
        res.set_content(text, content_type);
        return;
    }
    std::string out(deflateBound(&z, text.size()), '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    int rc = deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    if (rc != Z_STREAM_END) {
        res.set_content(text, content_type);
        return;
    }
    res.set_header("Content-Encoding", "gzip");
    res.set_content(out, content_type);
}

bool split_listen(const std::string& text, std::string& host, int& port) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    std::string p = text.substr(colon + 1);
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    port = std::stoi(p);
    return port > 0 && port < 65536;
}

int usage_error(const std::string& why) {
    fprintf(stderr, "vireo-exporter: %s\n%s", why.c_str(), usage_text);
    return exit_usage;
}

// /probe, /metrics and an index page.
void add_routes(http_front& svr, const exporter_config& cfg) {
    // Headers and body go out in separate writes: no Nagle delay between them.
    svr.set_tcp_nodelay(true);
    svr.set_payload_max_length(0);  // GET only: no request body is read
    svr.Get("/probe", [&cfg](const httplib::Request& req, httplib::Response& res) {
        std::string target = req.get_param_value("target"), err;
        target_conf conf;
        if (target.empty() || resolve_target(cfg, target, conf, err) != 0) {
            res.status = 400;
            res.set_content((target.empty() ? "no target given" : err) + "\n", "text/plain");
            return;
        }
        double timeout = probe_timeout(req, cfg.timeout_s);
        if (timeout < 0) {
            res.status = 400;
            res.set_content(
                "X-Prometheus-Scrape-Timeout-Seconds is not a number of seconds up to 86400\n",
                "text/plain");
            return;
        }
        probe_result r;
        run_probe(conf, timeout, r, http_front::current_fd());
        record(conf.label, r);
        send_page(req, res, r.text);
    });
    svr.Get("/metrics", [](const httplib::Request& req, httplib::Response& res) {
        send_page(req, res, own_metrics());
    });
    svr.Get("/", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(
            "vireo-exporter\n  /probe?target=tcp://HOST:PORT  one board's figures\n"
            "  /metrics                       the exporter's own figures\n",
            "text/plain");
    });
}

}  // namespace

int main(int argc, char** argv) {
    std::string listen = DEFAULT_LISTEN, config_path, allow;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            fputs(usage_text, stdout);
            return 0;
        }
        if ((a == "--listen" || a == "-c" || a == "--probe.allow") && i + 1 < argc) {
            (a == "-c" ? config_path : a == "--listen" ? listen : allow) = argv[++i];
        } else {
            return usage_error("unexpected argument \"" + a + "\"");
        }
    }
    std::string host;
    int port = 0;
    if (!split_listen(listen, host, port)) {
        return usage_error("--listen takes [ADDR]:PORT, not \"" + listen + "\"");
    }
    exporter_config cfg = default_exporter_config();
    std::string why;
    if (!config_path.empty() && load_exporter_config(config_path, cfg, why) != 0) {
        fprintf(stderr, "vireo-exporter: %s\n", why.c_str());
        return exit_config;
    }
    if (!allow.empty() && parse_allow(allow, cfg.allow, why) != 0) {
        return usage_error(why);
    }
    stats.max_targets = cfg.max_targets;
    set_link_idle_time(cfg.link_idle_s);

    // Signals are taken by one thread, which stops the server cleanly.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);
    signal(SIGPIPE, SIG_IGN);
    probe_context();
    // One malloc arena per thread would grow the resident set with the pool
    // size; probes allocate little, so two arenas serve them all.
    mallopt(M_ARENA_MAX, 2);
    // Freed memory stays in the heap for the next probe: handing it back to
    // the system after each one (brk, madvise) and faulting it in again
    // cost a third of a probe's CPU.
    mallopt(M_TRIM_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_MMAP_THRESHOLD, 1024 * 1024);

    http_front svr;
    add_routes(svr, cfg);
    if (svr.listen_on(host, port, why) != 0) {
        fprintf(stderr, "vireo-exporter: %s\n", why.c_str());
        return exit_listen;
    }
    fprintf(stderr, "vireo-exporter listening %s\n", listen.c_str());
    std::thread stopper([&svr, sigs] {
        int sig = 0;
        sigwait(&sigs, &sig);
        svr.stop_serving();
    });
    http_limits limits;
    limits.threads = cfg.threads;
    // Prometheus scrapes a whole fleet from one address: that address may
    // use all but a sixteenth of the threads.
    limits.per_address = static_cast<size_t>(std::max(1, cfg.threads - cfg.threads / 16));
    // ... and opens those scrapes' connections all at once: they are accepted
    // together before any header is read, so as many may be pending from it.
    limits.pending_per_address = std::max(limits.pending_per_address, limits.per_address);
    int rc = svr.run(limits);
    if (!svr.stopping) {
        pthread_kill(stopper.native_handle(), SIGTERM);
    }
    stopper.join();
    return rc == 0 ? 0 : exit_listen;
}
