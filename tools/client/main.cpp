// vireo-client: sends requests to a vireo-monitor daemon and prints replies.
// This file picks the job a command line asks for: a subcommand (profile,
// check-config), the help or version, keygen, --list, or a request.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "client_cli.h"
#include "remote_table.h"

namespace {

// Read when no -c is given, if it exists.
constexpr char default_config[] = "/etc/vireo-monitor/main.json";

// The configuration a request reads: -c, else the installed one if it exists.
// When the installed one cannot be read, only what needs it (names, --list)
// fails.
struct config_state {
    client_config cfg;
    std::string path;   // empty: none
    std::string error;  // why it could not be read
    bool implicit = false;
    bool loaded = false;
};

// Returns client_exit::config, without a word, when the configuration the
// request depends on cannot be read.
int load_config(const options& o, config_state& c) {
    c.implicit = o.config_path.empty() && access(default_config, F_OK) == 0;
    c.path = c.implicit ? default_config : o.config_path;
    if (!c.path.empty() && load_client_config(c.path, c.cfg, c.error) != 0 &&
        (!c.implicit || o.list)) {
        return client_exit::config;
    }
    c.loaded = !c.path.empty() && c.error.empty();
    return client_exit::ok;
}

// The main file was read, though a sub-configuration was not: its endpoint
// and keys still hold.
bool main_file_read(const config_state& c) {
    return !c.loaded && c.cfg.port != 0;
}

std::string default_endpoint(const config_state& c) {
    const bool from_cfg = c.loaded || main_file_read(c);
    std::string host = from_cfg ? c.cfg.ip : "";
    if (host.empty() || host == "0.0.0.0" || host == "*") {
        host = "127.0.0.1";  // a wildcard bind is reached on loopback
    }
    return "tcp://" + host + ":" + std::to_string(from_cfg ? c.cfg.port : 6600);
}

// When no local configuration resolves (none given, or its sub-configuration
// paths do not resolve from here), a board that serves its own command table
// answers --list and names. Asked only where the board is known: -e, or the
// endpoint of a main file that was read. True when c holds the board's table.
bool load_board_table(options& o, config_state& c) {
    if (c.loaded || (o.endpoint.empty() && !main_file_read(c))) {
        return false;
    }
    const std::string endpoint = o.endpoint.empty() ? default_endpoint(c) : o.endpoint;
    client_keys keys;
    std::string why;
    if (find_keys(o, main_file_read(c) ? &c.cfg : nullptr, keys) != client_exit::ok ||
        load_remote_config(endpoint, o.timeout_ms, keys, c.cfg, why) != 0) {
        return false;
    }
    c.loaded = true;
    c.implicit = false;  // the keys go with the board's endpoint
    c.path = endpoint;   // where names were looked up, for messages
    c.error.clear();
    o.endpoint = endpoint;
    return true;
}

// Names, --list, and the process list's command for ps and --pid NAME.
bool needs_names(const options& o) {
    return o.list || (o.args.size() == 1 && o.args[0].find('.') != std::string::npos) ||
           (!o.args.empty() && o.args[0] == "ps") || !o.pid_name.empty();
}

// --list, or a request sent once or in rounds; the exit status.
int run_request(options& o) {
    if (std::string why; !o.endpoint.empty() && check_endpoint(o.endpoint, why) != 0) {
        return usage_error(why);
    }
    config_state c;
    int rc = load_config(o, c);
    if (!c.loaded && needs_names(o) && load_board_table(o, c)) {
        rc = client_exit::ok;
    }
    if (rc != client_exit::ok) {
        fprintf(stderr, "vireo-client: %s\n", c.error.c_str());
        return rc;
    }
    if (o.list) {
        return c.loaded ? list_commands(c.cfg, o.json)
                        : usage_error("--list needs -c MAIN.json, or -e of a board that serves its table");
    }
    request_spec rq;
    std::string why;
    const bool ps = o.args[0] == "ps";
    if (int rc = ps ? check_ps_args(o, why)
                    : make_spec(o, c.loaded ? &c.cfg : nullptr, c.path, c.error, rq, why);
        rc != 0) {
        if (rc == -2) {
            fprintf(stderr, "vireo-client: %s\n", why.c_str());
            return client_exit::config;
        }
        return usage_error(why);
    }
    const bool endpoint_from_cfg = o.endpoint.empty() && c.loaded;
    if (o.endpoint.empty()) {
        o.endpoint = default_endpoint(c);
    }
    // The installed configuration's keys belong to its own daemon: another
    // endpoint (-e) does not get them.
    client_keys keys;
    const bool cfg_keys = c.loaded && (!c.implicit || endpoint_from_cfg);
    if (int rc = find_keys(o, cfg_keys ? &c.cfg : nullptr, keys); rc != client_exit::ok) {
        return rc;
    }
    catch_stop_signals();
    client_conn conn(o.endpoint, o.timeout_ms, keys);
    conn.stop = &stop_signal;
    if (conn.open(why) != 0) {
        return usage_error(why);
    }
    const ps_command psc = find_ps_command(c.loaded ? &c.cfg : nullptr);
    if (ps) {
        return run_ps(conn, psc, o);
    }
    if (!o.pid_name.empty()) {
        uint32_t pid = 0;
        if (int rc = resolve_pid_name(conn, psc, o.pid_name, pid); rc != client_exit::ok) {
            return rc;
        }
        rq.payload.resize(std::max<size_t>(rq.payload.size(), 4));  // --tid's bytes 4..7 stay
        u32_to_u8(pid, rq.payload.data());
    }
    return run_rounds(conn, rq, o);
}

// Where the subcommand word (profile, check-config) stands in argv: the first
// word that is neither an option nor an option's value; 0 when that is no
// subcommand, or when an unknown option or the help comes first (the request
// parser reports those).
int find_subcommand(int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        std::string v;
        bool has_inline = false;
        const option_def* d = find_option(argv[i], v, has_inline);
        if (d != nullptr && (strcmp(d->name, "-h") == 0 || strcmp(d->name, "--version") == 0)) {
            return 0;
        }
        if (d != nullptr) {
            i += d->takes_value && !has_inline ? 1 : 0;
        } else if (is_option_word(argv[i])) {
            return 0;
        } else {
            for (const char* sub : {"profile", "check-config", "symbolize", "crashes", "crash"}) {
                if (strcmp(argv[i], sub) == 0) {
                    return i;
                }
            }
            return 0;
        }
    }
    return 0;
}

// Runs the subcommand at argv[at]. The global options before it go in front
// of its own, so that its own win where both name one.
int run_subcommand(int argc, char** argv, int at) {
    const std::string name = argv[at];
    const bool takes_globals = name == "profile" || name == "crash" || name == "crashes";
    if (!takes_globals && at > 1) {
        return usage_error(name + " takes none of the request options");
    }
    std::vector<std::string> args{name};
    for (int i = 1; i < at; i++) {
        std::string v;
        bool has_inline = false;
        const option_def* d = find_option(argv[i], v, has_inline);
        if (d == nullptr || !d->global) {
            return usage_error("only -c, -e, -t, --server-key and --key may stand before " + name +
                               ", not " + argv[i]);
        }
        args.insert(args.end(), {d->name, has_inline ? v : argv[++i]});
    }
    args.insert(args.end(), argv + at + 1, argv + argc);
    std::vector<char*> sub_argv;
    for (std::string& a : args) {
        sub_argv.push_back(&a[0]);
    }
    sub_argv.push_back(nullptr);
    const int sub_argc = static_cast<int>(args.size());
    return name == "profile"                        ? run_profile(sub_argc, sub_argv.data())
           : name == "symbolize"                    ? run_symbolize(sub_argc, sub_argv.data())
           : name == "crash" || name == "crashes" ? run_crash(sub_argc, sub_argv.data())
                                                    : run_check_config(sub_argc, sub_argv.data());
}

}  // namespace

int main(int argc, char** argv) {
    if (int at = find_subcommand(argc, argv); at > 0) {
        return run_subcommand(argc, argv, at);
    }
    options o;
    std::string why;
    if (parse_args(argc, argv, o, why) != 0) {
        return usage_error(why);
    }
    if (o.help || o.version) {
        fputs(o.help ? usage_text : "vireo-client " VIREO_VERSION "\n", stdout);
        return flush_output();
    }
    if (!o.args.empty() && o.args[0] == "keygen") {
        return keygen(o);
    }
    return run_request(o);
}
