// The command line of vireo-client: its options, their values, and the help.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "client_cli.h"

const char usage_text[] =
    "usage: vireo-client [-e tcp://HOST:PORT] [-t TIMEOUT_MS] [-c MAIN.json] [-v] [--json]\n"
    "                    [--server-key FILE_OR_Z85 --key FILE]\n"
    "                    [--watch SECONDS] [--count N] REQUEST\n"
    "       vireo-client [-c MAIN.json] [--json] --list\n"
    "       vireo-client keygen BASE\n"
    "       vireo-client profile ...  |  vireo-client check-config MAIN.json\n"
    "       vireo-client symbolize [--debug-dir DIR]... [--debuginfod URL] [FILE]\n"
    "       vireo-client crashes [--json]  |  vireo-client crash ID [--core FILE | --delete]\n"
    "REQUEST:\n"
    "  CODE SUB [--pid N [--tid T] | --byte N | --hex HEXBYTES]\n"
    "                   command code and sub-command in hex (\"0x10\", \"10\")\n"
    "  CLASS.NAME [--pid N [--tid T] | --byte N | --hex HEXBYTES]\n"
    "                   a command by name from the configuration\n"
    "  ps [PATTERN]     the board's processes: pid, parent, state, name, command\n"
    "  take-id          take a client id and print it in decimal\n"
    "  return-id N      give client id N (0..255) back\n"
    "keygen BASE        write a CURVE key pair: BASE.key (secret, mode 0600) and\n"
    "                   BASE.pub; print the public key. Never overwrites.\n"
    "options (--opt=VALUE works as well as --opt VALUE):\n"
    "  -e, --endpoint ENDPOINT\n"
    "                   daemon endpoint (default tcp://127.0.0.1:6600, or the\n"
    "                   server_ip:port of the configuration)\n"
    "  -t, --timeout MS wait this long for a reply (default 3000)\n"
    "  -c, --config MAIN.json\n"
    "                   the daemon's main configuration, for names, --list and\n"
    "                   keys (default /etc/vireo-monitor/main.json if it exists)\n"
    "  --server-key FILE_OR_Z85\n"
    "                   the server's CURVE public key: a .pub file or the key\n"
    "  --key FILE       this client's CURVE secret key file (BASE.key)\n"
    "  --list           print every configured command with code, id, kind, target\n"
    "  --pid N          payload: process id N as 4 little-endian bytes (decimal)\n"
    "  --tid T          with --pid: thread id T as 4 more bytes (payload bytes 4..7)\n"
    "  --pid NAME, --name NAME\n"
    "                   the pid of the one process the board's ps names NAME (its\n"
    "                   name, else its command's file name)\n"
    "  --byte N         payload: one byte N (decimal, 0..255)\n"
    "  --hex HEXBYTES   payload: these bytes, e.g. e8030000\n"
    "  --debug-dir DIR  ask a probe stack or sample raw and name its frames here from\n"
    "                   debug files under DIR (repeatable; a build-id tree or a sysroot)\n"
    "  --debuginfod URL the same, from this debuginfod server (or DEBUGINFOD_URLS)\n"
    "  --no-debuginfod  ignore DEBUGINFOD_URLS (--debuginfod URLs still apply)\n"
    "  --raw            ask a probe stack or sample raw and print its markup\n"
    "  -v, --verbose    print the reply header on stderr\n"
    "  --json           print the reply (or the --list) as JSON\n"
    "  --watch SECONDS  repeat the request every SECONDS until interrupted\n"
    "  --count N        stop after N requests\n"
    "  -h, --help       print this text\n"
    "  --version        print the version\n"
    "exit status: 0 reply, 1 error code in the reply, 2 no reply in time,\n"
    "  3 malformed reply, 4 connection refused or host unreachable or unknown,\n"
    "  5 handshake refused (key not accepted, wrong server key, security mismatch),\n"
    "  64 usage error, 74 output failed, 78 configuration or key file unreadable,\n"
    "  130 interrupted\n";

namespace {

// In the order "did you mean" tries them.
const option_def option_defs[] = {
    {"-e", "--endpoint", true, true}, {"-t", "--timeout", true, true},
    {"-c", "--config", true, true},   {"--watch", "", true, false},
    {"--count", "", true, false},     {"--pid", "", true, false},
    {"--byte", "", true, false},      {"--hex", "", true, false},
    {"--server-key", "", true, true}, {"--key", "", true, true},
    {"-h", "--help", false, false},   {"-v", "--verbose", false, false},
    {"--json", "", false, false},     {"--list", "", false, false},
    {"--version", "", false, false},  {"--tid", "", true, false},
    {"--name", "", true, false},      {"--raw", "", false, false},
    {"--debuginfod", "", true, false}, {"--debug-dir", "", true, false},
    {"--no-debuginfod", "", false, false},
};

// True when b is a one edit away from a: a character inserted, deleted or
// replaced, or two neighbours swapped.
bool one_edit_apart(const std::string& a, const std::string& b) {
    const size_t la = a.size(), lb = b.size();
    if (a == b || la > lb + 1 || lb > la + 1) {
        return false;
    }
    size_t i = 0;
    while (i < la && i < lb && a[i] == b[i]) {
        i++;
    }
    if (la == lb) {
        return a.compare(i + 1, std::string::npos, b, i + 1, std::string::npos) == 0 ||
               (i + 1 < la && a[i] == b[i + 1] && a[i + 1] == b[i] &&
                a.compare(i + 2, std::string::npos, b, i + 2, std::string::npos) == 0);
    }
    const std::string& longer = la > lb ? a : b;
    const std::string& shorter = la > lb ? b : a;
    return longer.compare(i + 1, std::string::npos, shorter, i, std::string::npos) == 0;
}

bool parse_hex_bytes(const std::string& text, std::vector<uint8_t>& out) {
    if (text.size() % 2 != 0 || text.size() / 2 > max_request_payload ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    for (size_t i = 0; i < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

std::string unknown_option(const std::string& arg) {
    std::vector<std::string> names;
    for (const option_def& d : option_defs) {
        names.insert(names.end(), {d.name, d.alias});
    }
    return "unknown option " + arg + did_you_mean(arg.substr(0, arg.find('=')), names);
}

// --pid NAME or --name NAME: resolved on the board before the request.
bool set_pid_name(const std::string& a, const std::string& v, options& o, std::string& why) {
    auto control = [](char ch) { return iscntrl(static_cast<unsigned char>(ch)) != 0; };
    if (v.empty() || v.size() > 255 || std::any_of(v.begin(), v.end(), control)) {
        why = a + " needs a process name of 1 to 255 printable characters";
        return false;
    }
    o.pid_name = v;
    o.payload.clear();
    o.payload_opts++;
    return true;
}

// --pid N, --pid NAME, --name NAME or --byte N: the payload they stand for.
bool set_number_payload(const std::string& a, const std::string& v, options& o, std::string& why) {
    const bool pid = a == "--pid";
    // Anything that cannot start a number is a process name.
    const unsigned char first = v.empty() ? '0' : static_cast<unsigned char>(v[0]);
    if (a == "--name" ||
        (pid && !isdigit(first) && !isspace(first) && first != '-' && first != '+')) {
        return set_pid_name(a, v, o, why);
    }
    unsigned long n = 0;
    if (!parse_ulong(v, pid ? 0xFFFFFFFFul : 0xFFul, n)) {
        why = a + " needs a decimal number" + (pid ? "" : " from 0 to 255") + ", not \"" + v + "\"";
        return false;
    }
    o.payload.assign(pid ? 4 : 1, 0);
    if (pid) {
        u32_to_u8(static_cast<uint32_t>(n), o.payload.data());
    } else {
        o.payload[0] = static_cast<uint8_t>(n);
    }
    o.payload_opts++;
    return true;
}

// Stores the value v of the option named a (its first name); false with why
// when the value is no good.
bool set_value(const std::string& a, const std::string& v, options& o, std::string& why) {
    unsigned long n = 0;
    if (a == "-e" || a == "-c" || a == "--server-key" || a == "--key") {
        (a == "-e"      ? o.endpoint
         : a == "-c"    ? o.config_path
         : a == "--key" ? o.key
                        : o.server_key) = v;
    } else if (a == "-t") {
        if (!parse_ulong(v, 86400000, n) || n == 0) {
            why = "-t needs a timeout in milliseconds, not \"" + v + "\"";
            return false;
        }
        o.timeout_ms = static_cast<int>(n);
    } else if (a == "--watch") {
        char* end = nullptr;
        o.watch_s = strtod(v.c_str(), &end);
        if (v.empty() || *end != '\0' || !(o.watch_s >= 0 && o.watch_s <= 86400)) {
            why = "--watch needs seconds, not \"" + v + "\"";
            return false;
        }
        o.watch = true;
    } else if (a == "--count") {
        if (!parse_ulong(v, 1000000000, n) || n == 0) {
            why = "--count needs a positive number, not \"" + v + "\"";
            return false;
        }
        o.count = static_cast<long>(n);
    } else if (a == "--pid" || a == "--byte" || a == "--name") {
        o.pid_given = o.pid_given || a != "--byte";
        return set_number_payload(a, v, o, why);
    } else if (a == "--debug-dir" || a == "--debuginfod") {
        (a == "--debug-dir" ? o.debug_dirs : o.debuginfod_urls).push_back(v);
    } else if (a == "--tid") {
        if (!parse_ulong(v, 0xFFFFFFFFul, n)) {
            why = "--tid needs a decimal thread id, not \"" + v + "\"";
            return false;
        }
        o.tid_given = true;
        o.tid = static_cast<uint32_t>(n);
    } else if (a == "--hex") {
        o.payload.clear();
        if (!parse_hex_bytes(v, o.payload)) {
            why = "--hex needs pairs of hex digits (at most 1024 bytes), not \"" + v + "\"";
            return false;
        }
        o.payload_opts++;
    }
    return true;
}

void set_flag(const std::string& a, options& o) {
    (a == "-h"          ? o.help
     : a == "--version" ? o.version
     : a == "-v"        ? o.verbose
     : a == "--json"    ? o.json
     : a == "--raw"     ? o.raw
     : a == "--list"    ? o.list
                        : o.no_debuginfod) = true;
}

// What the options say together; 0, or -1 with why.
int check_together(const options& o, std::string& why) {
    if (o.help || o.version) {
        return 0;
    }
    if (o.payload_opts > 1) {
        why = o.pid_name.empty() ? "--pid, --byte and --hex exclude each other"
                                 : "--pid, --name, --byte and --hex exclude each other";
    } else if (o.tid_given && !o.pid_given) {
        why = "--tid needs --pid: the thread id follows the process id";
    } else if (o.raw_asked() && o.pid_name.empty() && o.payload.size() != 4 &&
               o.payload.size() != 8) {
        why = "--raw, --debug-dir and --debuginfod need --pid (or --hex of a pid and a tid)";
    } else if (o.raw_asked() && o.json) {
        why = "--raw, --debug-dir and --debuginfod exclude --json";
    } else if (o.list && !o.args.empty()) {
        why = "--list takes no request";
    } else if (!o.list && o.args.empty()) {
        why = "no request given";
    }
    return why.empty() ? 0 : -1;
}

}  // namespace

const option_def* find_option(const std::string& arg, std::string& inline_value, bool& has_inline) {
    size_t eq = arg.compare(0, 2, "--") == 0 ? arg.find('=') : std::string::npos;
    has_inline = eq != std::string::npos;
    const std::string name = arg.substr(0, eq);
    inline_value = has_inline ? arg.substr(eq + 1) : "";
    for (const option_def& d : option_defs) {
        if (name == d.name || name == d.alias) {
            return &d;
        }
    }
    return nullptr;
}

bool is_option_word(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9');
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates) {
    for (const std::string& c : candidates) {
        if (one_edit_apart(word, c)) {
            return " (did you mean " + c + "?)";
        }
    }
    return "";
}

bool parse_ulong(const std::string& text, unsigned long max, unsigned long& out) {
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v > max) {
        return false;
    }
    out = static_cast<unsigned long>(v);
    return true;
}

int parse_args(int argc, char** argv, options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        std::string v;
        bool has_inline = false;
        const option_def* def = find_option(arg, v, has_inline);
        if (def == nullptr) {
            if (is_option_word(arg)) {
                why = unknown_option(arg);
                return -1;
            }
            o.args.push_back(arg);
            continue;
        }
        if (!def->takes_value) {
            if (has_inline) {
                why = arg.substr(0, arg.find('=')) + " takes no value";
                return -1;
            }
            set_flag(def->name, o);
            continue;
        }
        if (!has_inline) {
            if (i + 1 >= argc) {
                why = arg + " needs a value";
                return -1;
            }
            v = argv[++i];
        }
        if (!set_value(def->name, v, o, why)) {
            return -1;
        }
    }
    if (check_together(o, why) != 0) {
        return -1;
    }
    if (o.tid_given) {
        o.payload.resize(8);
        u32_to_u8(o.tid, o.payload.data() + 4);
    }
    return 0;
}

int usage_error(const std::string& why) {
    fprintf(stderr, "vireo-client: %s\nTry 'vireo-client --help' for more information.\n",
            why.c_str());
    return client_exit::usage;
}
