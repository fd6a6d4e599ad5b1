// vireo-client profile: samples a process's stacks through the probe
// plug-in's sample command at a fixed rate and writes them as folded stacks,
// "frame;frame;...;leaf COUNT" root first, the input of flame-graph tools
// and speedscope; or as pprof or speedscope files.
#include "profile.h"

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
    "                            [--on-cpu] [--per-thread] [--format F]\n"
    "  --pid P          the process to sample\n"
    "  --tid T          only this thread of it (default: every thread)\n"
    "  --duration S     seconds to sample (default 10)\n"
    "  --rate HZ        samples per second (default 99, at most 1000)\n"
    "  -o FILE          write the folded stacks here (default: standard output)\n"
    "  --debug-dir DIR  sample raw and name the frames here from debug files under DIR\n"
    "                   (repeatable; a build-id tree or a sysroot)\n"
    "  --debuginfod URL the same, from this debuginfod server (or DEBUGINFOD_URLS)\n"
    "  --no-debuginfod  ignore DEBUGINFOD_URLS (--debuginfod URLs still apply)\n"
    "  --format F       folded (default), pprof (gzipped profile.proto, needs -o;\n"
    "                   samples raw, named here where debug files are found),\n"
    "                   or speedscope (JSON, a timeline per thread, needs -o)\n"
    "  --on-cpu         only samples of threads that were running or runnable (R)\n"
    "  --per-thread     the thread, \"NAME (TID)\", as the root frame of its stacks\n"
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
    bool pprof = false, speedscope = false, on_cpu = false, per_thread = false;
    bool use_env_urls = true;
    // Samples asked raw and named here.
    bool raw() const { return pprof || !debug_dirs.empty() || !debuginfod_urls.empty(); }
};

// What sampling has collected.
struct samples {
    // Raw samples keep "CTX\t0xROOT;...;0xLEAF" as the stack until they are
    // named, CTX an index into contexts.
    profile_data d;
    std::map<std::string, int32_t> stack_ids;  // index into d.stacks
    long requests = 0, stacks = 0, errors = 0;
    int32_t last_error = 0;             // the daemon's last error status, 0 for none
    std::vector<std::string> contexts;  // each distinct markup context the board sent
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
        o.speedscope = v == "speedscope";
        why = o.pprof || o.speedscope || v == "folded"
                  ? ""
                  : "--format is folded, pprof or speedscope, not \"" + v + "\"";
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
        if (a == "--on-cpu" || a == "--per-thread" || a == "--no-debuginfod") {
            if (a == "--no-debuginfod")
                o.use_env_urls = false;
            else
                (a == "--on-cpu" ? o.on_cpu : o.per_thread) = true;
            continue;
        }
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
    if ((o.pprof || o.speedscope) && o.out_path.empty()) {
        why = std::string("--format ") + (o.pprof ? "pprof" : "speedscope") + " needs -o FILE";
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

// One sample reply: each thread's line as an event of the last request,
// its stack interned (a raw reply's markup context first, kept once in
// s.contexts). False when a line does not have the shape asked for.
bool add_reply(const std::string& text, const profile_options& o, samples& s) {
    size_t at = 0;
    std::string ctx;
    if (o.raw()) {
        while (text.compare(at, 3, "{{{") == 0 && text.find('\n', at) != std::string::npos)
            at = text.find('\n', at) + 1;
        auto it = std::find(s.contexts.begin(), s.contexts.end(), text.substr(0, at));
        ctx = std::to_string(it - s.contexts.begin()) + "\t";
        if (it == s.contexts.end())
            s.contexts.push_back(text.substr(0, at));
    }
    const uint32_t request = static_cast<uint32_t>(s.d.times.size()) - 1;
    sample_line l;
    for (size_t end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        int rc = read_sample_line(text.substr(at, end - at), o.on_cpu, l);
        if (rc <= 0)
            return rc == 0;
        const pid_t tid = static_cast<pid_t>(atol(l.tid.c_str()));
        if (l.stack.empty())
            continue;
        s.d.names[tid] = l.name;
        int32_t id = -1;
        if (!o.on_cpu || l.state == "R") {
            auto it = s.stack_ids.emplace(ctx + l.stack, static_cast<int32_t>(s.d.stacks.size()));
            if (it.second)
                s.d.stacks.push_back(it.first->first);
            id = it.first->second;
            s.stacks++;
            s.d.counts[{tid, id}]++;
        }
        if (o.speedscope)
            s.d.events.push_back(profile_event{request, tid, id});
    }
    return true;
}

// One sample request; -1 to go on, else the exit status that ends sampling.
int take_sample(client_conn& conn, const profile_options& o, const std::vector<uint8_t>& payload,
                samples& s, bool progress) {
    client_reply r;
    std::string why;
    if (o.speedscope)
        s.d.times.push_back(s.d.end);
    int rc = conn.request(o.code, o.sub, payload, r, why);
    s.requests++;
    if (stop_signal != 0)
        return client_exit::ok;
    if (rc == client_malformed ||
        (rc == 0 && r.header().msg_len >= 0 && !add_reply(r.payload, o, s))) {
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
    std::vector<uint8_t> payload(o.raw() || o.on_cpu ? 12 : o.tid != 0 ? 8 : 4);
    u32_to_u8(o.pid, payload.data());
    if (payload.size() == 12)  // the probe's flags: markup, thread states
        u32_to_u8((o.raw() ? 1u : 0u) | (o.on_cpu ? 2u : 0u), payload.data() + 8);
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
        s.d.end = std::chrono::duration<double>(clock::now() - start).count();
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
    s.d.end = std::chrono::duration<double>(clock::now() - start).count();
    if (progress)
        fputc('\n', stderr);
    // A board or link slower than the rate asked shows here, not only as a
    // thin profile.
    fprintf(stderr, "vireo-client: profile: %.1f samples/s of %g asked (%ld in %.1f s)\n",
            s.d.end > 0 ? static_cast<double>(s.requests) / s.d.end : 0.0, o.rate, s.requests,
            s.d.end);
    if (s.stacks == 0 && s.last_error != 0 && status <= 0) {
        fprintf(stderr, "vireo-client: profile: %s (%d)\n", status_text(s.last_error).c_str(),
                s.last_error);
        return client_exit::status;
    }
    return status < 0 ? client_exit::ok : status;
}

// The folded stacks and their counts; under --per-thread below each
// thread's root frame.
std::map<std::string, long> fold_counts(const profile_options& o, const profile_data& d) {
    std::map<std::string, long> counts;
    for (const auto& e : d.counts) {
        const std::string& stack = d.stacks[static_cast<size_t>(e.first.second)];
        counts[(o.per_thread ? thread_root(d, e.first.first) + ";" : "") + stack] += e.second;
    }
    return counts;
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
markup_context parse_context(const std::string& text) {
    markup_context ctx;
    for (const std::string& line : markup_split(text, '\n')) {
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

// The raw samples named here: each stack folded in place, and the pprof
// file written when asked for; an exit status.
int name_samples(const profile_options& o, samples& s) {
    symbolize_options so;
    so.debug_dirs = o.debug_dirs;
    so.debuginfod_urls = o.debuginfod_urls;
    so.use_env_urls = o.use_env_urls;
    symbolizer namer(so);
    std::vector<markup_context> ctx;
    for (const std::string& c : s.contexts) ctx.push_back(parse_context(c));
    std::vector<std::vector<uint64_t>> leaf_first(s.d.stacks.size());
    for (size_t id = 0; id < s.d.stacks.size(); id++) {
        std::vector<std::string> f = markup_split(s.d.stacks[id], '\t');
        const markup_context& c = ctx[std::stoul(f[0])];
        std::vector<std::string> addrs = markup_split(f[1], ';');
        std::string folded;
        for (size_t i = 0; i < addrs.size(); i++) {
            uint64_t a = strtoull(addrs[i].c_str(), nullptr, 16);
            const bool leaf = i + 1 == addrs.size();
            folded += (i > 0 ? ";" : "") + (a == 0 ? addrs[i] : fold_address(c, a, !leaf, namer));
            if (a != 0)
                leaf_first[id].insert(leaf_first[id].begin(), a);
        }
        s.d.stacks[id] = folded;
    }
    if (!o.pprof)
        return client_exit::ok;
    pprof_profile p;
    p.space = ctx.empty() ? markup_context{} : ctx.back();
    p.period_ns = static_cast<int64_t>(1e9 / o.rate);
    p.duration_ns = static_cast<int64_t>(s.d.end * 1e9);
    p.time_ns = static_cast<int64_t>(time(nullptr) - static_cast<time_t>(s.d.end)) * 1000000000;
    for (const auto& e : s.d.counts)
        p.samples.push_back(
            pprof_sample{s.d.names[e.first.first], leaf_first[e.first.second], e.second});
    std::string why;
    if (write_pprof(p, &namer, o.out_path, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::output;
    }
    return client_exit::ok;
}
#else
int name_samples(const profile_options&, samples&) {
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
    int status = sample_loop(conn, o, s);
    if (o.raw()) {
        if (int nrc = name_samples(o, s); nrc != client_exit::ok)
            return nrc;
    }
    int wrc = client_exit::ok;
    if (o.speedscope &&
        write_speedscope(s.d, "pid " + std::to_string(o.pid), o.out_path, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        wrc = client_exit::output;
    } else if (!o.pprof && !o.speedscope) {
        wrc = write_folded(fold_counts(o, s.d), o.out_path);
    }
    if (wrc != client_exit::ok)
        return wrc;
    return stop_signal != 0 ? client_exit::signalled + stop_signal : status;
}
