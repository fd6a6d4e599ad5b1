// vireo-client profile: samples a process's stacks through the probe
// plug-in's sample command at a fixed rate and writes them as folded stacks,
// "frame;frame;...;leaf COUNT" root first, the input of flame-graph tools
// and speedscope.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "vireo_client.h"
#include "../../plugins/probe/probe_codes.h"

namespace {

const char profile_usage[] =
    "usage: vireo-client profile --pid P [--tid T] [--duration S] [--rate HZ] [-o FILE]\n"
    "                            [-e tcp://HOST:PORT] [-c MAIN.json] [-t TIMEOUT_MS]\n"
    "                            [--command CODE SUB] [--server-key FILE_OR_Z85 --key FILE]\n"
    "  --pid P          the process to sample\n"
    "  --tid T          only this thread of it (default: every thread)\n"
    "  --duration S     seconds to sample (default 10)\n"
    "  --rate HZ        samples per second (default 99, at most 1000)\n"
    "  -o FILE          write the folded stacks here (default: standard output)\n"
    "  -e ENDPOINT      daemon endpoint (default tcp://127.0.0.1:6600, or the -c one)\n"
    "  -c MAIN.json     the daemon's configuration: endpoint and the probe_sample command\n"
    "  -t TIMEOUT_MS    wait this long for each sample (default 3000)\n"
    "  --command CODE SUB  the sample command (default 0x30 4, or found by -c)\n"
    "  --server-key FILE_OR_Z85, --key FILE\n"
    "                   CURVE keys, as for a single request (or the -c file's \"client\")\n"
    "Ctrl-C ends sampling early; what was collected is still written.\n"
    "exit status: 0 written, 1 the daemon answered only errors, 2 no reply in time,\n"
    "  3 malformed reply, 64 usage error, 74 writing failed, 78 configuration unreadable,\n"
    "  130 interrupted (written all the same)\n";

volatile sig_atomic_t interrupted = 0;
void on_interrupt(int) {
    interrupted = 1;
}

struct profile_options {
    uint32_t pid = 0, tid = 0;
    double duration = 10, rate = 99;
    std::string out_path, endpoint, config_path, server_key, key;
    int timeout_ms = 3000;
    uint32_t code = 0x30, sub = 4;
    bool command_given = false;
};

bool number(const char* text, double lo, double hi, double& out) {
    char* end = nullptr;
    double v = strtod(text, &end);
    if (end == text || *end != '\0' || !(v >= lo && v <= hi))
        return false;
    out = v;
    return true;
}

bool hex(const char* text, uint32_t& out) {
    try {
        size_t used = 0;
        unsigned long v = std::stoul(text, &used, 16);
        if (text[used] != '\0' || v > 0xFFFFFFFFul)
            return false;
        out = static_cast<uint32_t>(v);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

int parse(int argc, char** argv, profile_options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        double d = 0;
        if (a == "-h" || a == "--help")
            return 1;
        if (v == nullptr || (a == "--command" && i + 2 >= argc)) {
            why = a == "--pid" || a == "--tid" || a == "--duration" || a == "--rate" || a == "-o" ||
                          a == "-e" || a == "-c" || a == "-t" || a == "--command" ||
                          a == "--server-key" || a == "--key"
                      ? a + " needs a value"
                      : "unknown option " + a;
            return -1;
        }
        i++;
        if (a == "--pid" || a == "--tid") {
            if (!number(v, 1, 2147483647, d) || d != static_cast<uint32_t>(d)) {
                why = a + " needs a process or thread id, not \"" + v + "\"";
                return -1;
            }
            (a == "--pid" ? o.pid : o.tid) = static_cast<uint32_t>(d);
        } else if (a == "--duration" && !number(v, 0.01, 86400, o.duration)) {
            why = std::string("--duration needs seconds, not \"") + v + "\"";
            return -1;
        } else if (a == "--rate" && !number(v, 0.01, 1000, o.rate)) {
            why = std::string("--rate needs samples per second up to 1000, not \"") + v + "\"";
            return -1;
        } else if (a == "-t") {
            if (!number(v, 1, 86400000, d)) {
                why = std::string("-t needs a timeout in milliseconds, not \"") + v + "\"";
                return -1;
            }
            o.timeout_ms = static_cast<int>(d);
        } else if (a == "--command") {
            if (!hex(v, o.code) || !hex(argv[++i], o.sub)) {
                why = "--command needs CODE and SUB in hex";
                return -1;
            }
            o.command_given = true;
        } else if (a == "-o" || a == "-e" || a == "-c") {
            (a == "-o" ? o.out_path : a == "-e" ? o.endpoint : o.config_path) = v;
        } else if (a == "--server-key" || a == "--key") {
            (a == "--key" ? o.key : o.server_key) = v;
        } else if (a != "--duration" && a != "--rate") {
            why = "unknown option " + a;
            return -1;
        }
    }
    if (o.pid == 0) {
        why = "profile needs --pid";
        return -1;
    }
    return 0;
}

// Adds one sample reply ("TID\tNAME\tHELD_US\tSTACK" lines) to the counts.
// False when a line does not have that shape.
bool add_sample(const std::string& text, std::map<std::string, long>& counts, long& stacks) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        size_t tab = at;
        for (int k = 0; k < 3 && tab != std::string::npos; k++)
            tab = text.find('\t', tab + (k > 0));
        if (tab == std::string::npos || tab >= end)
            return text.compare(at, 14, "... truncated\n") == 0;
        std::string stack = text.substr(tab + 1, end - tab - 1);
        if (!stack.empty()) {
            counts[stack]++;
            stacks++;
        }
        at = end + 1;
    }
    return true;
}

int write_folded(const std::map<std::string, long>& counts, const std::string& path) {
    FILE* f = path.empty() ? stdout : fopen(path.c_str(), "w");
    if (f == nullptr) {
        fprintf(stderr, "vireo-client: cannot write %s\n", path.c_str());
        return 74;
    }
    bool ok = true;
    for (const auto& e : counts) ok = fprintf(f, "%s %ld\n", e.first.c_str(), e.second) > 0 && ok;
    ok = fflush(f) == 0 && ok;
    if (f != stdout)
        ok = fclose(f) == 0 && ok;
    if (!ok) {
        fprintf(stderr, "vireo-client: writing %s failed\n",
                path.empty() ? "the profile" : path.c_str());
        return 74;
    }
    return 0;
}

}  // namespace

int run_profile(int argc, char** argv) {
    profile_options o;
    std::string why;
    int prc = parse(argc, argv, o, why);
    if (prc != 0) {
        if (prc < 0)
            fprintf(stderr, "vireo-client: %s\n", why.c_str());
        fputs(profile_usage, prc < 0 ? stderr : stdout);
        return prc < 0 ? 64 : 0;
    }
    if (!o.config_path.empty()) {
        client_config cfg;
        if (load_client_config(o.config_path, cfg, why) != 0) {
            fprintf(stderr, "vireo-client: %s\n", why.c_str());
            return 78;
        }
        for (const client_cmd& c : cfg.cmds) {
            const std::string sym = ":probe_sample";
            bool is_sample = c.target.size() > sym.size() &&
                             c.target.compare(c.target.size() - sym.size(), sym.size(), sym) == 0;
            if (is_sample && !o.command_given) {
                o.code = c.code;
                o.sub = c.id;
                break;
            }
        }
        o.server_key = o.server_key.empty() ? cfg.server_key : o.server_key;
        o.key = o.key.empty() ? cfg.key : o.key;
        if (o.endpoint.empty()) {
            bool wildcard = cfg.ip.empty() || cfg.ip == "0.0.0.0" || cfg.ip == "*";
            o.endpoint = "tcp://" + (wildcard ? std::string("127.0.0.1") : cfg.ip) + ":" +
                         std::to_string(cfg.port);
        }
    }
    if (o.endpoint.empty())
        o.endpoint = "tcp://127.0.0.1:6600";

    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    std::vector<uint8_t> payload(o.tid != 0 ? 8 : 4);
    u32_to_u8(o.pid, payload.data());
    if (o.tid != 0)
        u32_to_u8(o.tid, payload.data() + 4);

    client_keys keys;
    if (o.server_key.empty() != o.key.empty()) {
        fprintf(stderr,
                "vireo-client: profile: a CURVE client needs both --server-key and --key\n");
        return 64;
    }
    if (!o.key.empty() && (load_server_key(o.server_key, keys.server_public, why) != 0 ||
                           load_secret_key(o.key, keys, why) != 0)) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return 78;
    }
    client_conn conn(o.endpoint, o.timeout_ms, keys);
    if (conn.open(why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return 64;
    }
    using clock = std::chrono::steady_clock;
    const bool progress = isatty(STDERR_FILENO) == 1;
    const auto start = clock::now();
    const auto stop = start + std::chrono::duration<double>(o.duration);
    const auto period =
        std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(1 / o.rate));
    std::map<std::string, long> counts;
    long requests = 0, stacks = 0, errors = 0;
    int32_t last_error = 0;
    int status = 0;
    auto next = start;
    while (interrupted == 0 && clock::now() < stop) {
        client_reply r;
        int rc = conn.request(o.code, o.sub, payload, r, why);
        requests++;
        if (interrupted != 0)
            break;
        if (rc == client_malformed ||
            (rc == 0 && r.header().msg_len >= 0 && !add_sample(r.payload, counts, stacks))) {
            fprintf(stderr, "%svireo-client: malformed reply from %s: %s\n", progress ? "\n" : "",
                    o.endpoint.c_str(), rc != 0 ? why.c_str() : "not a stack sample");
            status = 3;
            break;
        }
        if (rc != 0) {
            fprintf(stderr, "%svireo-client: %s\n", progress ? "\n" : "", why.c_str());
            status = 2;
            break;
        }
        if (r.header().msg_len < 0) {
            errors++;
            last_error = r.header().msg_len;
            if (last_error == probe_no_process)
                break;  // the process is gone: nothing more to sample
        }
        if (progress) {
            double t = std::chrono::duration<double>(clock::now() - start).count();
            fprintf(stderr, "\rprofile: pid %u, %.1f/%.1f s, %ld samples, %ld stacks, %ld errors ",
                    o.pid, t, o.duration, requests, stacks, errors);
        }
        // A late reply does not make the next ones come in a burst.
        next = std::max(next + period, clock::now());
        while (interrupted == 0 && clock::now() < next) {
            std::this_thread::sleep_for(
                std::min<clock::duration>(next - clock::now(), std::chrono::milliseconds(50)));
        }
    }
    if (progress)
        fputc('\n', stderr);
    if (stacks == 0 && last_error != 0 && status == 0) {
        fprintf(stderr, "vireo-client: profile: %s (%d)\n", status_text(last_error).c_str(),
                last_error);
        status = 1;
    }
    int wrc = write_folded(counts, o.out_path);
    if (wrc != 0)
        return wrc;
    return interrupted != 0 ? 130 : status;
}
