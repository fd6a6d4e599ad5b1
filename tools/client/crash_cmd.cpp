// vireo-client crashes / crash ID: the crash reports a board keeps, through
// its crash plug-in: the list, one report with its frames named on this
// host, its stack-only core, and deleting it.
#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "client_cli.h"

#ifdef VIREO_HAVE_SYMBOLIZE
#include <zlib.h>

#include "symbolize.h"
#endif

namespace {

const char crash_usage[] =
    "usage: vireo-client crashes [--json] [OPTIONS]\n"
    "       vireo-client crash ID [--debug-dir DIR]... [--debuginfod URL] [--no-debuginfod]\n"
    "                             [--core FILE | --delete] [OPTIONS]\n"
    "  crashes          list the board's crash reports: id, time, signal, executable\n"
    "  crash ID         print report ID, its frames named from this host's debug files\n"
    "  --json           the list as a JSON array\n"
    "  --debug-dir DIR  debug files: a build-id tree or a sysroot (as for symbolize)\n"
    "  --debuginfod URL ask this debuginfod server (default: DEBUGINFOD_URLS, if set)\n"
    "  --no-debuginfod  ignore DEBUGINFOD_URLS (--debuginfod URLs still apply)\n"
    "  --raw            print the report as the board wrote it (no naming here)\n"
    "  --core FILE      save the report's stack-only core instead: FILE ending in .gz\n"
    "                   as the board keeps it (gzip), any other name the ELF core itself\n"
    "  --delete         delete the report (and its core) on the board\n"
    "OPTIONS: -e ENDPOINT, -c MAIN.json, -t TIMEOUT_MS, --server-key FILE_OR_Z85, --key FILE\n"
    "  as for a request, and --crash-code CODE, --crash-delete-code CODE: the groups'\n"
    "  codes (default: the \"crash\" and \"crash-delete\" classes of the configuration,\n"
    "  else 0x50 and 0x51 as the package installs them)\n"
    "exit status: 0 done, 1 the board answered an error (no such report: -2), 2 no reply\n"
    "  in time, 3 malformed reply, 4 connection refused, 5 handshake refused,\n"
    "  64 usage error, 74 writing failed, 78 configuration unreadable\n";

// Sub-commands of the two groups, as the packaged configuration numbers them.
constexpr uint32_t list_sub = 1, fetch_sub = 2, core_sub = 3, delete_sub = 1;

struct crash_options {
    options base;  // the global options: -e, -c, -t, keys
    bool list = false, json = false, raw = false, del = false;
    std::string id, core_path;
    uint32_t read_code = 0x50, delete_code = 0x51;
    bool read_code_given = false, delete_code_given = false;
#ifdef VIREO_HAVE_SYMBOLIZE
    symbolize_options names;
#endif
};

int crash_usage_error(const std::string& why) {
    fprintf(stderr, "vireo-client: %s\nTry 'vireo-client crash --help' for more information.\n",
            why.c_str());
    return client_exit::usage;
}

// One option of argv at i (advanced past its value); 0, 1 for the help, or
// -1 with why.
int parse_one(int argc, char** argv, int& i, crash_options& o, std::string& why) {
    std::string v;
    bool has_inline = false;
    const std::string arg = argv[i];
    const option_def* g = find_option(arg, v, has_inline);
    const std::string a = g != nullptr ? g->name : has_inline ? arg.substr(0, arg.find('=')) : arg;
    if (a == "-h")
        return 1;
    const bool valued = (g != nullptr && g->global) || a == "--debug-dir" || a == "--debuginfod" ||
                        a == "--core" || a == "--crash-code" || a == "--crash-delete-code";
    if (!valued) {
        bool* flag = a == "--json"     ? &o.json
                     : a == "--raw"    ? &o.raw
                     : a == "--delete" ? &o.del
                                       : nullptr;
        if (a == "--no-debuginfod") {
#ifdef VIREO_HAVE_SYMBOLIZE
            o.names.use_env_urls = false;
#endif
        } else if (flag != nullptr) {
            *flag = true;
        } else if (!is_option_word(arg) && o.id.empty() && !o.list) {
            o.id = arg;
        } else {
            why = is_option_word(arg) ? "unknown option " + arg : "one report ID at most";
            return -1;
        }
        return 0;
    }
    if (!has_inline && i + 1 >= argc) {
        why = a + " needs a value";
        return -1;
    }
    v = has_inline ? v : argv[++i];
    unsigned long ms = 0;
    if (a == "-e" || a == "-c" || a == "--server-key" || a == "--key") {
        (a == "-e"      ? o.base.endpoint
         : a == "-c"    ? o.base.config_path
         : a == "--key" ? o.base.key
                        : o.base.server_key) = v;
    } else if (a == "-t") {
        if (!parse_ulong(v, 86400000, ms) || ms == 0) {
            why = "-t needs a timeout in milliseconds, not \"" + v + "\"";
            return -1;
        }
        o.base.timeout_ms = static_cast<int>(ms);
    } else if (a == "--crash-code" || a == "--crash-delete-code") {
        bool rd = a == "--crash-code";
        if (!parse_hex_arg(v, rd ? o.read_code : o.delete_code)) {
            why = a + " needs a command code in hex, not \"" + v + "\"";
            return -1;
        }
        (rd ? o.read_code_given : o.delete_code_given) = true;
    } else if (a == "--core") {
        o.core_path = v;
#ifdef VIREO_HAVE_SYMBOLIZE
    } else {
        (a == "--debug-dir" ? o.names.debug_dirs : o.names.debuginfod_urls).push_back(v);
#endif
    }
    return 0;
}

// 0, 1 for the help, or -1 with why.
int parse(int argc, char** argv, crash_options& o, std::string& why) {
    o.list = strcmp(argv[0], "crashes") == 0;
    for (int i = 1; i < argc; i++) {
        if (int rc = parse_one(argc, argv, i, o, why); rc != 0)
            return rc;
    }
    if (!o.list && o.id.empty())
        why = "crash needs a report ID (vireo-client crashes lists them)";
    else if (o.list && (o.del || !o.core_path.empty() || o.raw))
        why = "crashes takes no --core, --delete or --raw: they go with crash ID";
    else if (!o.list && o.json)
        why = "--json goes with crashes";
    else if (o.del && !o.core_path.empty())
        why = "--core and --delete do not go together";
    return why.empty() ? 0 : -1;
}

// The codes from the configuration, the endpoint and the keys; 0, or an
// exit status after a message.
int resolve(crash_options& o, client_keys& keys) {
    constexpr char installed[] = "/etc/vireo-monitor/main.json";
    const bool implicit = o.base.config_path.empty() && access(installed, F_OK) == 0;
    const std::string path = implicit ? installed : o.base.config_path;
    client_config cfg;
    std::string why;
    const bool loaded = !path.empty() && load_client_config(path, cfg, why) == 0;
    if (!path.empty() && !loaded && !implicit) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::config;
    }
    if (loaded) {
        const client_cmd* rd = find_cmd(cfg, "crash.list");
        const client_cmd* del = find_cmd(cfg, "crash-delete.delete");
        o.read_code = rd != nullptr && !o.read_code_given ? rd->code : o.read_code;
        o.delete_code = del != nullptr && !o.delete_code_given ? del->code : o.delete_code;
    }
    const bool endpoint_from_cfg = o.base.endpoint.empty() && loaded;
    if (o.base.endpoint.empty()) {
        std::string host = loaded ? cfg.ip : "";
        if (host.empty() || host == "0.0.0.0" || host == "*")
            host = "127.0.0.1";
        o.base.endpoint = "tcp://" + host + ":" + std::to_string(loaded ? cfg.port : 6600);
    }
    const bool cfg_keys = loaded && (!implicit || endpoint_from_cfg);
    return find_keys(o.base, cfg_keys ? &cfg : nullptr, keys);
}

// Sends one request; 0 with the payload, else an exit status after a message.
int ask(client_conn& conn, uint32_t code, uint32_t sub, const std::string& id,
        std::string& payload) {
    client_reply r;
    std::string why;
    int rc = conn.request(code, sub, std::vector<uint8_t>(id.begin(), id.end()), r, why);
    if (rc == client_interrupted)
        return client_exit::signalled + stop_signal;
    if (rc != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::of_result(rc);
    }
    const int32_t status = r.header().msg_len;
    if (status < 0) {
        const std::string what = status == -2 && sub == core_sub
                                     ? "no stack-only core kept for report " + id
                                 : status == -2 ? "no report " + id + " on the board"
                                 : status == -22 && !id.empty() ? "not a report id: " + id
                                                                : status_text(status);
        fprintf(stderr, "vireo-client: %s (%d)\n", what.c_str(), status);
        return client_exit::status;
    }
    payload = r.payload;
    return client_exit::ok;
}

// The plug-in's list: "ID\tTIME\tEXE\tSIGNAL\tCORE_BYTES" lines.
struct crash_row {
    std::string id, exe;
    long long time = 0, core_bytes = 0;
    int signal = 0;
};

bool parse_list(const std::string& text, std::vector<crash_row>& rows) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            return false;
        std::vector<std::string> f;
        for (size_t s = at; s <= end;) {
            size_t t = std::min(text.find('\t', s), end);
            f.push_back(text.substr(s, t - s));
            s = t + 1;
        }
        unsigned long t = 0, sig = 0, core = 0;
        if (f.size() != 5 || f[0].empty() || !parse_ulong(f[1], 1ul << 62, t) ||
            !parse_ulong(f[3], 255, sig) || !parse_ulong(f[4], 1ul << 62, core))
            return false;
        rows.push_back({f[0], f[2], static_cast<long long>(t), static_cast<long long>(core),
                        static_cast<int>(sig)});
        at = end + 1;
    }
    return true;
}

std::string signal_name(int sig) {
    const char* n = sig > 0 ? sigabbrev_np(sig) : nullptr;
    return n != nullptr ? std::string("SIG") + n : "";
}

int print_list(const std::string& text, const crash_options& o) {
    std::vector<crash_row> rows;
    if (!parse_list(text, rows)) {
        fprintf(stderr, "vireo-client: malformed reply from %s: not a crash list\n",
                o.base.endpoint.c_str());
        return client_exit::malformed;
    }
    Json::Value all(Json::arrayValue);
    if (!o.json)
        printf("%-24s %-20s %-11s %s\n", "ID", "TIME (UTC)", "SIGNAL", "EXECUTABLE");
    for (const crash_row& r : rows) {
        char when[32] = "?";
        time_t t = static_cast<time_t>(r.time);
        struct tm tm {};
        if (gmtime_r(&t, &tm) != nullptr)
            strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
        if (!o.json) {
            std::string sig = std::to_string(r.signal) + " " + signal_name(r.signal);
            printf("%-24s %-20s %-11s %s\n", r.id.c_str(), when, sig.c_str(), r.exe.c_str());
            continue;
        }
        Json::Value v;
        v["id"] = r.id;
        v["time"] = static_cast<Json::Int64>(r.time);
        v["executable"] = r.exe;
        v["signal"] = r.signal;
        v["signal_name"] = signal_name(r.signal);
        v["core_bytes"] = static_cast<Json::Int64>(r.core_bytes);
        all.append(v);
    }
    if (o.json) {
        Json::StreamWriterBuilder w;
        w["indentation"] = "";
        w["emitUTF8"] = true;
        printf("%s\n", Json::writeString(w, all).c_str());
    }
    return flush_output();
}

// The report on stdout, its frames named here where debug files are found.
int print_report(const std::string& text, crash_options& o) {
#ifdef VIREO_HAVE_SYMBOLIZE
    if (!o.raw) {
        FILE* in = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
        if (in == nullptr) {
            fprintf(stderr, "vireo-client: %s\n", strerror(errno));
            return client_exit::output;
        }
        symbolizer s(o.names);
        std::string why;
        int rc = text.empty() ? 0 : symbolize_stream(in, stdout, s, why);
        fclose(in);
        if (rc == symbolize_bad_markup) {
            fprintf(stderr, "vireo-client: malformed report %s: %s\n", o.id.c_str(), why.c_str());
            return client_exit::malformed;
        }
        return rc == 0 ? flush_output() : client_exit::output;
    }
#endif
    fwrite(text.data(), 1, text.size(), stdout);
    return flush_output();
}

// The gzip'd core as stored, or inflated when the name has no ".gz".
int save_core(const std::string& gz, const std::string& path) {
    const bool keep = path.size() > 3 && path.compare(path.size() - 3, 3, ".gz") == 0;
    std::string data = gz;
#ifdef VIREO_HAVE_SYMBOLIZE
    if (!keep) {
        data.clear();
        z_stream z{};
        bool ok = inflateInit2(&z, 16 + MAX_WBITS) == Z_OK;
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
        z.avail_in = static_cast<uInt>(gz.size());
        int zr = Z_OK;
        char buf[65536];
        // An ELF core of stacks: bounded well below the 1 GiB checked here.
        while (ok && zr == Z_OK && data.size() < (1u << 30)) {
            z.next_out = reinterpret_cast<Bytef*>(buf);
            z.avail_out = sizeof buf;
            zr = inflate(&z, Z_NO_FLUSH);
            data.append(buf, sizeof buf - z.avail_out);
        }
        inflateEnd(&z);
        if (!ok || zr != Z_STREAM_END) {
            fprintf(stderr, "vireo-client: the board's core does not inflate (zlib %d)\n", zr);
            return client_exit::malformed;
        }
    }
#else
    if (!keep) {
        fprintf(stderr, "vireo-client: built without zlib: name the core FILE.gz\n");
        return client_exit::usage;
    }
#endif
    FILE* f = fopen(path.c_str(), "wb");
    bool ok = f != nullptr && fwrite(data.data(), 1, data.size(), f) == data.size();
    ok = f != nullptr && fclose(f) == 0 && ok;
    if (!ok) {
        fprintf(stderr, "vireo-client: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return client_exit::output;
    }
    return client_exit::ok;
}

}  // namespace

int run_crash(int argc, char** argv) {
    crash_options o;
    std::string why;
    if (int rc = parse(argc, argv, o, why); rc != 0) {
        if (rc < 0)
            return crash_usage_error(why);
        fputs(crash_usage, stdout);
        return flush_output();
    }
    client_keys keys;
    if (int rc = resolve(o, keys); rc != client_exit::ok)
        return rc;
    catch_stop_signals();
    client_conn conn(o.base.endpoint, o.base.timeout_ms, keys);
    conn.stop = &stop_signal;
    if (conn.open(why) != 0)
        return crash_usage_error(why);
    std::string payload;
    const uint32_t code = o.del ? o.delete_code : o.read_code;
    const uint32_t sub = o.list                ? list_sub
                         : o.del               ? delete_sub
                         : o.core_path.empty() ? fetch_sub
                                               : core_sub;
    if (int rc = ask(conn, code, sub, o.id, payload); rc != client_exit::ok)
        return rc;
    if (o.list)
        return print_list(payload, o);
    if (o.del)
        return client_exit::ok;
    return o.core_path.empty() ? print_report(payload, o) : save_core(payload, o.core_path);
}
