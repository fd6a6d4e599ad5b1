// vireo-client profile: samples a process's stacks through the probe
// plug-in's sample command at a fixed rate and writes them as folded stacks,
// "frame;frame;...;leaf COUNT" root first, the input of flame-graph tools
// and speedscope.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <thread>

#include "client_cli.h"
#include "wire/probe_codes.h"
#ifdef VIREO_HAVE_SYMBOLIZE
#include "symbolize.h"
#endif

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
    "  --debug-dir DIR  sample raw and name the frames here from debug files under DIR\n"
    "                   (repeatable; a build-id tree or a sysroot)\n"
    "  --debuginfod URL the same, from this debuginfod server (or DEBUGINFOD_URLS)\n"
    "  --format F       folded (default) or pprof (gzipped profile.proto, needs -o;\n"
    "                   samples raw, named here where debug files are found)\n"
    "  -e ENDPOINT      daemon endpoint (default tcp://127.0.0.1:6600, or the -c one)\n"
    "  -c MAIN.json     the daemon's configuration: endpoint and the probe_sample command\n"
    "  -t TIMEOUT_MS    wait this long for each sample (default 3000)\n"
    "  --command CODE SUB  the sample command (default 0x30 4, or found by -c)\n"
    "  --server-key FILE_OR_Z85, --key FILE\n"
    "                   CURVE keys, as for a single request (or the -c file's \"client\")\n"
    "-e, -c, -t and the keys may also stand before \"profile\".\n"
    "Ctrl-C ends sampling early; what was collected is still written.\n"
    "exit status: 0 written, 1 the daemon answered only errors, 2 no reply in time,\n"
    "  3 malformed reply, 4 connection refused or host unreachable or unknown,\n"
    "  5 handshake refused, 64 usage error, 74 writing failed, 78 configuration unreadable,\n"
    "  130 interrupted (written all the same)\n";

struct profile_options {
    uint32_t pid = 0, tid = 0;
    double duration = 10, rate = 99;
    std::string out_path, endpoint, config_path, server_key, key;
    int timeout_ms = 3000;
    uint32_t code = 0x30, sub = 4;
    bool command_given = false;
    std::vector<std::string> debug_dirs, debuginfod_urls;
    bool pprof = false;
    // Samples asked raw and named here.
    bool raw() const { return pprof || !debug_dirs.empty() || !debuginfod_urls.empty(); }
};

// What sampling has collected.
struct samples {
    std::map<std::string, long> counts;  // by folded stack
    long requests = 0, stacks = 0, errors = 0;
    int32_t last_error = 0;  // the daemon's last error status, 0 for none
    // Raw samples: each distinct markup context the board sent, and the
    // counts by context index, thread name and address stack (root first).
    std::vector<std::string> contexts;
    std::map<std::string, long> raw_counts;
};

bool number(const std::string& text, double lo, double hi, double& out) {
    char* end = nullptr;
    double v = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(v >= lo && v <= hi))
        return false;
    out = v;
    return true;
}

// Stores the value v of option a (a global option by its first name);
// false with why when the value is no good.
bool set_option(const std::string& a, const std::string& v, const std::string& sub,
                profile_options& o, std::string& why) {
    double d = 0;
    if (a == "--pid" || a == "--tid") {
        if (!number(v, 1, 2147483647, d) || d != static_cast<uint32_t>(d)) {
            why = a + " needs a process or thread id, not \"" + v + "\"";
            return false;
        }
        (a == "--pid" ? o.pid : o.tid) = static_cast<uint32_t>(d);
    } else if (a == "--duration" && !number(v, 0.01, 86400, o.duration)) {
        why = "--duration needs seconds, not \"" + v + "\"";
    } else if (a == "--rate" && !number(v, 0.01, 1000, o.rate)) {
        why = "--rate needs samples per second up to 1000, not \"" + v + "\"";
    } else if (a == "-t") {
        if (!number(v, 1, 86400000, d)) {
            why = "-t needs a timeout in milliseconds, not \"" + v + "\"";
            return false;
        }
        o.timeout_ms = static_cast<int>(d);
    } else if (a == "--command") {
        o.command_given = parse_hex_arg(v, o.code) && parse_hex_arg(sub, o.sub);
        why = o.command_given ? "" : "--command needs CODE and SUB in hex";
    } else if (a == "--debug-dir" || a == "--debuginfod") {
        (a == "--debug-dir" ? o.debug_dirs : o.debuginfod_urls).push_back(v);
    } else if (a == "--format") {
        o.pprof = v == "pprof";
        why = v == "pprof" || v == "folded" ? "" : "--format is folded or pprof, not \"" + v + "\"";
    } else if (a == "-o" || a == "-e" || a == "-c") {
        (a == "-o" ? o.out_path : a == "-e" ? o.endpoint : o.config_path) = v;
    } else if (a == "--server-key" || a == "--key") {
        (a == "--key" ? o.key : o.server_key) = v;
    }
    return why.empty();
}

// 0, 1 for the help, or -1 with why. The client's global options go by any
// of their names, and every option takes "--opt=VALUE" as well.
int parse(int argc, char** argv, profile_options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        std::string v;
        bool has_inline = false;
        const option_def* g = find_option(arg, v, has_inline);  // splits any "--name=value"
        const bool global = g != nullptr && g->global;
        const std::string typed = has_inline ? arg.substr(0, arg.find('=')) : arg;
        const std::string a = global ? g->name : typed;
        if (a == "-h" || a == "--help")
            return 1;
        const bool known = global || a == "--pid" || a == "--tid" || a == "--duration" ||
                           a == "--rate" || a == "-o" || a == "--command" || a == "--debug-dir" ||
                           a == "--debuginfod" || a == "--format";
        const int values = (has_inline ? 0 : 1) + (a == "--command" ? 1 : 0);
        if (!known || i + values >= argc) {
            why = known ? typed + " needs a value" : "unknown option " + arg;
            return -1;
        }
        v = has_inline ? v : argv[++i];
        const std::string sub = a == "--command" ? argv[++i] : "";
        if (!set_option(a, v, sub, o, why))
            return -1;
    }
    if (o.pid == 0) {
        why = "profile needs --pid";
        return -1;
    }
    if (o.pprof && o.out_path.empty()) {
        why = "--format pprof needs -o FILE";
        return -1;
    }
    return 0;
}

// The -c configuration's endpoint, sample command and keys where the command
// line leaves them open; 0, or an exit status after a message.
int apply_config(profile_options& o) {
    client_config cfg;
    std::string why;
    if (load_client_config(o.config_path, cfg, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::config;
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
    return client_exit::ok;
}

// 0, or an exit status after a message.
int load_keys(const profile_options& o, client_keys& keys) {
    std::string why;
    if (o.server_key.empty() != o.key.empty()) {
        fprintf(stderr,
                "vireo-client: profile: a CURVE client needs both --server-key and --key\n");
        return client_exit::usage;
    }
    if (!o.key.empty() && (load_server_key(o.server_key, keys.server_public, why) != 0 ||
                           load_secret_key(o.key, keys, why) != 0)) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::config;
    }
    return client_exit::ok;
}

// A raw sample reply: its markup context (kept once in s.contexts), then
// lines as add_sample reads them, but counted by context, thread name and
// addresses ("CTX\tNAME\t0xROOT;...;0xLEAF"). False when a line does not
// have that shape.
bool add_raw_sample(const std::string& text, samples& s) {
    size_t at = 0;
    while (text.compare(at, 3, "{{{") == 0 && text.find('\n', at) != std::string::npos)
        at = text.find('\n', at) + 1;
    const std::string ctx = text.substr(0, at);
    size_t i = std::find(s.contexts.begin(), s.contexts.end(), ctx) - s.contexts.begin();
    if (i == s.contexts.size())
        s.contexts.push_back(ctx);
    std::map<std::string, long> got;
    long n = 0;
    std::string lines;
    for (size_t end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        size_t name_at = line.find('\t') + 1, held_at = line.find('\t', name_at);
        size_t stack_at = held_at != std::string::npos ? line.find('\t', held_at + 1) : held_at;
        if (name_at == 0 || stack_at == std::string::npos || stack_at + 1 == line.size()) {
            lines += line + "\n";  // add_sample judges it as it is
            continue;
        }
        lines += line.substr(0, stack_at + 1) + std::to_string(i) + "\t" +
                 line.substr(name_at, held_at - name_at) + "\t" + line.substr(stack_at + 1) + "\n";
    }
    if (!add_sample(lines, got, n))
        return false;
    for (const auto& e : got) s.raw_counts[e.first] += e.second;
    s.stacks += n;
    return true;
}

// One sample request; -1 to go on, else the exit status that ends sampling.
int take_sample(client_conn& conn, const profile_options& o, const std::vector<uint8_t>& payload,
                samples& s, bool progress) {
    client_reply r;
    std::string why;
    int rc = conn.request(o.code, o.sub, payload, r, why);
    s.requests++;
    if (stop_signal != 0)
        return client_exit::ok;
    if (rc == client_malformed ||
        (rc == 0 && r.header().msg_len >= 0 &&
         !(o.raw() ? add_raw_sample(r.payload, s) : add_sample(r.payload, s.counts, s.stacks)))) {
        fprintf(stderr, "%svireo-client: malformed reply from %s: %s\n", progress ? "\n" : "",
                o.endpoint.c_str(), rc != 0 ? why.c_str() : "not a stack sample");
        return client_exit::malformed;
    }
    if (rc != 0) {
        fprintf(stderr, "%svireo-client: %s\n", progress ? "\n" : "", why.c_str());
        return client_exit::of_result(rc);
    }
    if (r.header().msg_len < 0) {
        s.errors++;
        s.last_error = r.header().msg_len;
        if (s.last_error == probe_no_process)
            return client_exit::ok;  // the process is gone: nothing more to sample
    }
    return -1;
}

// Samples at o.rate until o.duration has passed, a signal comes or a request
// fails; the exit status so far.
int sample_loop(client_conn& conn, const profile_options& o, samples& s) {
    std::vector<uint8_t> payload(o.raw() ? 12 : o.tid != 0 ? 8 : 4);
    u32_to_u8(o.pid, payload.data());
    if (o.raw())
        payload[8] = 1;  // the probe's flags: markup
    if (o.tid != 0)
        u32_to_u8(o.tid, payload.data() + 4);
    using clock = std::chrono::steady_clock;
    const bool progress = isatty(STDERR_FILENO) == 1;
    const auto start = clock::now();
    const auto stop = start + std::chrono::duration<double>(o.duration);
    const auto period =
        std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(1 / o.rate));
    int status = -1;
    for (auto next = start; status < 0 && stop_signal == 0 && clock::now() < stop;) {
        status = take_sample(conn, o, payload, s, progress);
        if (status < 0 && progress) {
            double t = std::chrono::duration<double>(clock::now() - start).count();
            fprintf(stderr, "\rprofile: pid %u, %.1f/%.1f s, %ld samples, %ld stacks, %ld errors ",
                    o.pid, t, o.duration, s.requests, s.stacks, s.errors);
        }
        // A late reply does not make the next ones come in a burst.
        next = std::max(next + period, clock::now());
        while (status < 0 && stop_signal == 0 && clock::now() < next) {
            std::this_thread::sleep_for(
                std::min<clock::duration>(next - clock::now(), std::chrono::milliseconds(50)));
        }
    }
    if (progress)
        fputc('\n', stderr);
    if (s.stacks == 0 && s.last_error != 0 && status <= 0) {
        fprintf(stderr, "vireo-client: profile: %s (%d)\n", status_text(s.last_error).c_str(),
                s.last_error);
        return client_exit::status;
    }
    return status < 0 ? client_exit::ok : status;
}

int write_folded(const std::map<std::string, long>& counts, const std::string& path) {
    FILE* f = path.empty() ? stdout : fopen(path.c_str(), "w");
    if (f == nullptr) {
        fprintf(stderr, "vireo-client: cannot write %s\n", path.c_str());
        return client_exit::output;
    }
    bool ok = true;
    for (const auto& e : counts) ok = fprintf(f, "%s %ld\n", e.first.c_str(), e.second) > 0 && ok;
    ok = fflush(f) == 0 && ok;
    if (f != stdout)
        ok = fclose(f) == 0 && ok;
    if (!ok) {
        fprintf(stderr, "vireo-client: writing %s failed\n",
                path.empty() ? "the profile" : path.c_str());
        return client_exit::output;
    }
    return client_exit::ok;
}

#ifdef VIREO_HAVE_SYMBOLIZE
std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t end; (end = text.find(sep, at)) != std::string::npos; at = end + 1)
        out.push_back(text.substr(at, end - at));
    out.push_back(text.substr(at));
    return out;
}

markup_context parse_context(const std::string& text) {
    markup_context ctx;
    for (const std::string& line : split(text, '\n')) {
        markup_line l;
        if (parse_markup_line(line, l) == 0)
            apply_markup_line(l, ctx);
    }
    return ctx;
}

// One address of a sample as folded frames, outermost first (inlined calls
// after the function they were inlined into): names from debug files, else
// "module+0xOFF", "??" outside every module. Never a ';'.
std::string fold_address(const markup_context& ctx, uint64_t addr, bool ret, symbolizer& s) {
    const markup_mmap* m = ctx.find(addr);
    auto mod = m != nullptr ? ctx.modules.find(m->module_id) : ctx.modules.end();
    if (mod == ctx.modules.end())
        return "??";
    uint64_t rel = addr - m->start + m->module_addr;
    std::vector<frame_name> names;
    s.name(mod->second, rel - (ret && rel > 0 ? 1 : 0), names);
    std::string out;
    for (size_t i = names.size(); i-- > 0;) {
        if (!names[i].function.empty())
            out += (out.empty() ? "" : ";") + names[i].function;
    }
    if (out.empty()) {
        const std::string& path = mod->second.name;
        char off[32];
        snprintf(off, sizeof off, "+0x%llx", static_cast<unsigned long long>(rel));
        out = path.substr(path.rfind('/') + 1) + off;
    }
    return out;
}

// The raw samples named here: folded stacks into s.counts, or the pprof
// file; an exit status.
int name_samples(const profile_options& o, samples& s, double seconds) {
    symbolize_options so;
    so.debug_dirs = o.debug_dirs;
    so.debuginfod_urls = o.debuginfod_urls;
    symbolizer namer(so);
    std::vector<markup_context> ctx;
    for (const std::string& c : s.contexts) ctx.push_back(parse_context(c));
    pprof_profile p;
    p.space = ctx.empty() ? markup_context{} : ctx.back();
    p.period_ns = static_cast<int64_t>(1e9 / o.rate);
    p.duration_ns = static_cast<int64_t>(seconds * 1e9);
    p.time_ns = static_cast<int64_t>(time(nullptr) - static_cast<time_t>(seconds)) * 1000000000;
    for (const auto& e : s.raw_counts) {
        std::vector<std::string> f = split(e.first, '\t');
        const markup_context& c = ctx[std::stoul(f[0])];
        std::vector<std::string> addrs = split(f[2], ';');
        std::string folded;
        pprof_sample ps{f[1], {}, e.second};
        for (size_t i = 0; i < addrs.size(); i++) {
            uint64_t a = strtoull(addrs[i].c_str(), nullptr, 16);
            const bool leaf = i + 1 == addrs.size();
            std::string name = a == 0 ? addrs[i] : fold_address(c, a, !leaf, namer);
            folded += (i > 0 ? ";" : "") + name;
            if (a != 0)
                ps.addrs.insert(ps.addrs.begin(), a);
        }
        s.counts[folded] += e.second;
        p.samples.push_back(std::move(ps));
    }
    if (!o.pprof)
        return client_exit::ok;
    std::string why;
    if (write_pprof(p, &namer, o.out_path, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::output;
    }
    return client_exit::ok;
}
#else
int name_samples(const profile_options&, samples&, double) {
    fputs("vireo-client: built without elfutils' libdw: no naming on this host\n", stderr);
    return client_exit::usage;
}
#endif

}  // namespace

int run_profile(int argc, char** argv) {
    profile_options o;
    std::string why;
    int prc = parse(argc, argv, o, why);
    if (prc != 0) {
        if (prc < 0)
            fprintf(stderr, "vireo-client: %s\n", why.c_str());
        fputs(profile_usage, prc < 0 ? stderr : stdout);
        return prc < 0 ? client_exit::usage : client_exit::ok;
    }
    if (!o.config_path.empty()) {
        if (int rc = apply_config(o); rc != client_exit::ok)
            return rc;
    }
    if (o.endpoint.empty())
        o.endpoint = "tcp://127.0.0.1:6600";
    client_keys keys;
    if (int rc = load_keys(o, keys); rc != client_exit::ok)
        return rc;
    catch_stop_signals();
    client_conn conn(o.endpoint, o.timeout_ms, keys);
    conn.stop = &stop_signal;
    if (conn.open(why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::usage;
    }
    samples s;
    const auto started = std::chrono::steady_clock::now();
    int status = sample_loop(conn, o, s);
    if (o.raw()) {
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
        if (int nrc = name_samples(o, s, took.count()); nrc != client_exit::ok)
            return nrc;
        if (o.pprof)
            return stop_signal != 0 ? client_exit::signalled + stop_signal : status;
    }
    int wrc = write_folded(s.counts, o.out_path);
    if (wrc != client_exit::ok)
        return wrc;
    return stop_signal != 0 ? client_exit::signalled + stop_signal : status;
}
