// vireo-client: sends requests to a vireo-monitor daemon and prints replies.
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "vireo_client.h"

namespace {

// Exit statuses; 64, 74 and 78 as in sysexits.h (usage, output, configuration).
constexpr int exit_ok = 0;
constexpr int exit_status = 1;     // the daemon answered with an error code
constexpr int exit_timeout = 2;    // no reply in time
constexpr int exit_malformed = 3;  // the reply does not hold together
constexpr int exit_refused = 4;    // connection refused, host unreachable or unknown
constexpr int exit_handshake = 5;  // the security handshake was refused
constexpr int exit_usage = 64;
constexpr int exit_output = 74;  // writing stdout (or a key file) failed
constexpr int exit_config = 78;  // configuration or key file unreadable
// Interrupted by signal N: 128 + N, e.g. 130 for Ctrl-C.

// Read when no -c is given, if it exists.
constexpr char default_config[] = "/etc/vireo-monitor/main.json";

const char usage_text[] =
    "usage: vireo-client [-e tcp://HOST:PORT] [-t TIMEOUT_MS] [-c MAIN.json] [-v] [--json]\n"
    "                    [--server-key FILE_OR_Z85 --key FILE]\n"
    "                    [--watch SECONDS] [--count N] REQUEST\n"
    "       vireo-client [-c MAIN.json] [--json] --list\n"
    "       vireo-client keygen BASE\n"
    "       vireo-client profile ...  |  vireo-client check-config MAIN.json\n"
    "       vireo-client symbolize [--debug-dir DIR]... [--debuginfod URL] [FILE]\n"
    "REQUEST:\n"
    "  CODE SUB [--pid N | --byte N | --hex HEXBYTES]\n"
    "                   command code and sub-command in hex (\"0x10\", \"10\")\n"
    "  CLASS.NAME [--pid N | --byte N | --hex HEXBYTES]\n"
    "                   a command by name from the configuration\n"
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
    "  --byte N         payload: one byte N (decimal, 0..255)\n"
    "  --hex HEXBYTES   payload: these bytes, e.g. e8030000\n"
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

// The signal that asked the client to stop, or 0.
volatile sig_atomic_t stop_signal = 0;

void on_signal(int sig) {
    stop_signal = sig;
}

// Options of the command line; aliases name the same option.
struct option_def {
    const char* name;
    const char* alias;
    bool takes_value;
};
const option_def option_defs[] = {
    {"-e", "--endpoint", true}, {"-t", "--timeout", true}, {"-c", "--config", true},
    {"--watch", "", true},      {"--count", "", true},     {"--pid", "", true},
    {"--byte", "", true},       {"--hex", "", true},       {"--server-key", "", true},
    {"--key", "", true},        {"-h", "--help", false},   {"-v", "--verbose", false},
    {"--json", "", false},      {"--list", "", false},     {"--version", "", false},
};

// Words that stand where a command name may.
const std::vector<std::string> request_words = {"take-id", "return-id", "keygen", "profile",
                                                "check-config"};

struct options {
    std::string endpoint;
    int timeout_ms = 3000;
    std::string config_path;
    std::string server_key;
    std::string key;
    bool list = false;
    bool verbose = false;
    bool json = false;
    bool help = false;
    bool version = false;
    double watch_s = 0;  // 0: no pause between rounds
    long count = 0;      // 0: one round, or unbounded with --watch
    bool watch = false;
    int payload_opts = 0;
    std::vector<uint8_t> payload;
    std::vector<std::string> args;
};

// What one round sends.
struct request_spec {
    uint32_t command = 0;
    uint32_t sub_command = 0;
    std::vector<uint8_t> payload;
    bool take_id = false;
    std::string label;  // for messages
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

// " (did you mean X?)" for the first candidate one edit away, else "".
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

// Command line code or id: hex with optional "0x", the whole text.
bool parse_hex_u32(const std::string& text, uint32_t& out) {
    size_t start = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
    if (start == text.size() || text.size() - start > 8 ||
        text.find_first_not_of("0123456789abcdefABCDEF", start) != std::string::npos) {
        return false;
    }
    out = static_cast<uint32_t>(strtoul(text.c_str() + start, nullptr, 16));
    return true;
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

// The option that a (perhaps "--name=value") names, with its value split
// off into inline_value; nullptr for none.
const option_def* find_option(const std::string& a, std::string& inline_value, bool& has_inline) {
    size_t eq = a.compare(0, 2, "--") == 0 ? a.find('=') : std::string::npos;
    has_inline = eq != std::string::npos;
    const std::string name = a.substr(0, eq);
    inline_value = has_inline ? a.substr(eq + 1) : "";
    for (const option_def& d : option_defs) {
        if (name == d.name || name == d.alias) {
            return &d;
        }
    }
    return nullptr;
}

int parse_args(int argc, char** argv, options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        std::string v;
        bool has_inline = false;
        const option_def* def = find_option(arg, v, has_inline);
        if (def == nullptr) {
            if (arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9')) {
                std::vector<std::string> names;
                for (const option_def& d : option_defs) {
                    names.insert(names.end(), {d.name, d.alias});
                }
                why = "unknown option " + arg + did_you_mean(arg.substr(0, arg.find('=')), names);
                return -1;
            }
            o.args.push_back(arg);
            continue;
        }
        const std::string a = def->name;
        if (!def->takes_value && has_inline) {
            why = arg.substr(0, arg.find('=')) + " takes no value";
            return -1;
        }
        if (def->takes_value && !has_inline) {
            if (i + 1 >= argc) {
                why = arg + " needs a value";
                return -1;
            }
            v = argv[++i];
        }
        unsigned long n = 0;
        if (a == "-h") {
            o.help = true;
        } else if (a == "--version") {
            o.version = true;
        } else if (a == "-v") {
            o.verbose = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--list") {
            o.list = true;
        } else if (a == "-e") {
            o.endpoint = v;
        } else if (a == "-c") {
            o.config_path = v;
        } else if (a == "--server-key") {
            o.server_key = v;
        } else if (a == "--key") {
            o.key = v;
        } else if (a == "-t") {
            if (!parse_ulong(v, 86400000, n) || n == 0) {
                why = "-t needs a timeout in milliseconds, not \"" + v + "\"";
                return -1;
            }
            o.timeout_ms = static_cast<int>(n);
        } else if (a == "--watch") {
            char* end = nullptr;
            o.watch_s = strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(o.watch_s >= 0 && o.watch_s <= 86400)) {
                why = "--watch needs seconds, not \"" + v + "\"";
                return -1;
            }
            o.watch = true;
        } else if (a == "--count") {
            if (!parse_ulong(v, 1000000000, n) || n == 0) {
                why = "--count needs a positive number, not \"" + v + "\"";
                return -1;
            }
            o.count = static_cast<long>(n);
        } else if (a == "--pid" || a == "--byte") {
            bool pid = a == "--pid";
            if (!parse_ulong(v, pid ? 0xFFFFFFFFul : 0xFFul, n)) {
                why = a + " needs a decimal number" + (pid ? "" : " from 0 to 255") + ", not \"" +
                      v + "\"";
                return -1;
            }
            o.payload.assign(pid ? 4 : 1, 0);
            if (pid) {
                u32_to_u8(static_cast<uint32_t>(n), o.payload.data());
            } else {
                o.payload[0] = static_cast<uint8_t>(n);
            }
            o.payload_opts++;
        } else if (a == "--hex") {
            o.payload.clear();
            if (!parse_hex_bytes(v, o.payload)) {
                why = "--hex needs pairs of hex digits (at most 1024 bytes), not \"" + v + "\"";
                return -1;
            }
            o.payload_opts++;
        }
    }
    if (o.help || o.version) {
        return 0;
    }
    if (o.payload_opts > 1) {
        why = "--pid, --byte and --hex exclude each other";
        return -1;
    }
    if (o.list && !o.args.empty()) {
        why = "--list takes no request";
        return -1;
    }
    if (!o.list && o.args.empty()) {
        why = "no request given";
        return -1;
    }
    return 0;
}

// Turns the positional arguments into a request; 0, or -1 (usage) or -2 (a
// name needs the configuration that could not be read) with why. cfg is the
// configuration read (nullptr for none), cfg_error why it was not.
int make_spec(const options& o, const client_config* cfg, const std::string& cfg_path,
              const std::string& cfg_error, request_spec& r, std::string& why) {
    const std::vector<std::string>& a = o.args;
    bool id_cmd = a[0] == "take-id" || a[0] == "return-id";
    if (id_cmd && o.payload_opts > 0) {
        why = a[0] + " takes no --pid, --byte or --hex";
        return -1;
    }
    r.payload = o.payload;
    r.label = a[0];
    if (a[0] == "take-id" && a.size() == 1) {
        r.command = client_id_command;
        r.sub_command = take_id_sub;
        r.take_id = true;
        return 0;
    }
    if (a[0] == "return-id" && a.size() == 2) {
        unsigned long id = 0;
        if (!parse_ulong(a[1], 255, id)) {
            why = "return-id needs a client id from 0 to 255, not \"" + a[1] + "\"";
            return -1;
        }
        r.command = client_id_command;
        r.sub_command = return_id_sub;
        r.payload = {static_cast<uint8_t>(id)};
        r.label += " " + a[1];
        return 0;
    }
    uint32_t code = 0;
    if (!id_cmd && a[0].find('.') == std::string::npos && !parse_hex_u32(a[0], code)) {
        why = "unknown request \"" + a[0] + "\"" + did_you_mean(a[0], request_words);
        return -1;
    }
    if (a.size() == 1 && !id_cmd) {
        if (a[0].find('.') == std::string::npos) {
            why = "\"" + a[0] + "\" is neither CODE SUB nor CLASS.NAME";
            return -1;
        }
        if (cfg == nullptr) {
            why =
                cfg_error.empty() ? "a command name (" + a[0] + ") needs -c MAIN.json" : cfg_error;
            return cfg_error.empty() ? -1 : -2;
        }
        const client_cmd* c = find_cmd(*cfg, a[0]);
        if (c == nullptr) {
            std::vector<std::string> names;
            for (const client_cmd& k : cfg->cmds) {
                names.push_back(k.cls + "." + k.name);
            }
            why = "no command named " + a[0] + " in " + cfg_path + did_you_mean(a[0], names);
            return -1;
        }
        r.command = c->code;
        r.sub_command = c->id;
        return 0;
    }
    if (a.size() == 2 && !id_cmd) {
        if (!parse_hex_u32(a[0], r.command) || !parse_hex_u32(a[1], r.sub_command)) {
            why = "CODE and SUB are hexadecimal (\"0x10\", \"10\"), not \"" + a[0] + "\" \"" +
                  a[1] + "\"";
            return -1;
        }
        r.label = a[0] + " " + a[1];
        return 0;
    }
    why = "cannot make a request of \"" + a[0] + "\"" + (a.size() > 1 ? " and what follows" : "");
    return -1;
}

bool valid_utf8(const std::string& s) {
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t len = c < 0x80           ? 1
                     : (c >> 5) == 0x6  ? 2
                     : (c >> 4) == 0xE  ? 3
                     : (c >> 3) == 0x1E ? 4
                                        : 0;
        if (len == 0 || i + len > s.size()) {
            return false;
        }
        uint32_t cp = len == 1 ? c : c & (0x7F >> len);
        for (size_t k = 1; k < len; k++) {
            unsigned char cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (cc & 0x3F);
        }
        static const uint32_t min_cp[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < min_cp[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;  // overlong, beyond Unicode, or a surrogate
        }
        i += len;
    }
    return true;
}

std::string base64(const std::string& in) {
    static const char tbl[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < in.size(); i += 3) {
        uint32_t n = static_cast<uint8_t>(in[i]) << 16;
        if (i + 1 < in.size())
            n |= static_cast<uint8_t>(in[i + 1]) << 8;
        if (i + 2 < in.size())
            n |= static_cast<uint8_t>(in[i + 2]);
        out += tbl[(n >> 18) & 63];
        out += tbl[(n >> 12) & 63];
        out += i + 1 < in.size() ? tbl[(n >> 6) & 63] : '=';
        out += i + 2 < in.size() ? tbl[n & 63] : '=';
    }
    return out;
}

// Header fields with their wire offsets, so a cut header shows what is missing.
struct field_view {
    const char* name;
    size_t offset, size;
    int64_t value;
    bool hex;
};

std::vector<field_view> header_fields(const client_reply& r) {
    const data_struct& h = r.header();
    return {
        {"command", 0, 4, static_cast<uint32_t>(h.command), true},
        {"sub_command", 4, 4, static_cast<uint32_t>(h.sub_command), true},
        {"msg_len", 8, 4, h.msg_len, false},
        {"msg_type", 12, 1, h.msg_type, true},
        {"sum_packet", 14, 2, h.sum_packet, false},
        {"cur_packet", 16, 2, h.cur_packet, false},
        {"command_type", 18, 1, h.command_type, true},
        {"client_id", 19, 1, h.client_id, true},
        {"time_sec", 24, 8, h.time.tv_sec, false},
        {"time_usec", 32, 8, h.time.tv_usec, false},
        {"crc", 40, 4, h.crc, true},
    };
}

void print_verbose(const client_reply& r) {
    fprintf(stderr, "%-13s %zu bytes in %zu part%s\n", "frame", r.frame_len, r.parts,
            r.parts == 1 ? "" : "s");
    for (const field_view& f : header_fields(r)) {
        if (!r.has(f.offset, f.size)) {
            fprintf(stderr, "%-13s (not sent)\n", f.name);
        } else if (f.hex) {
            fprintf(stderr, "%-13s 0x%" PRIx64 "\n", f.name, static_cast<uint64_t>(f.value));
        } else {
            fprintf(stderr, "%-13s %" PRId64 "\n", f.name, f.value);
        }
    }
    if (r.has(24, 16)) {
        time_t t = static_cast<time_t>(r.header().time.tv_sec);
        struct tm tm_local;
        char when[64] = "";
        if (localtime_r(&t, &tm_local) != nullptr) {
            strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm_local);
        }
        fprintf(stderr, "%-13s %s.%06" PRId64 "\n", "time", when,
                static_cast<int64_t>(r.header().time.tv_usec));
    }
    if (r.header().msg_len < 0) {
        fprintf(stderr, "%-13s %d (%s)\n", "status", r.header().msg_len,
                status_text(r.header().msg_len).c_str());
    }
}

void print_json(const client_reply& r, const std::string& endpoint, bool take_id) {
    Json::Value root(Json::objectValue);
    root["endpoint"] = endpoint;
    root["frame_len"] = static_cast<Json::UInt64>(r.frame_len);
    root["parts"] = static_cast<Json::UInt64>(r.parts);
    Json::Value header(Json::objectValue);
    for (const field_view& f : header_fields(r)) {
        header[f.name] = r.has(f.offset, f.size) ? Json::Value(static_cast<Json::Int64>(f.value))
                                                 : Json::Value(Json::nullValue);
    }
    root["header"] = header;
    root["status"] = r.header().msg_len < 0 ? status_text(r.header().msg_len) : "ok";
    bool text = valid_utf8(r.payload);
    root["payload_encoding"] = text ? "text" : "base64";
    root["payload"] = text ? r.payload : base64(r.payload);
    if (take_id && r.payload.size() == 1) {
        root["id"] = static_cast<uint8_t>(r.payload[0]);
    }
    Json::StreamWriterBuilder w;
    w["indentation"] = "";
    w["emitUTF8"] = true;
    std::string s = Json::writeString(w, root) + "\n";
    fwrite(s.data(), 1, s.size(), stdout);
}

// Flushes stdout; exit_ok, or exit_output with a message when a write
// failed (a full disk, a closed pipe).
int flush_output() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        fprintf(stderr, "vireo-client: writing the output failed: %s\n", strerror(errno));
        return exit_output;
    }
    return exit_ok;
}

int one_round(client_conn& conn, const request_spec& rq, const options& o) {
    client_reply r;
    std::string why;
    int rc = conn.request(rq.command, rq.sub_command, rq.payload, r, why);
    if (rc == client_interrupted) {
        return 128 + stop_signal;
    }
    if (rc == client_malformed) {
        fprintf(stderr, "vireo-client: malformed reply from %s: %s\n", conn.endpoint.c_str(),
                why.c_str());
        return exit_malformed;
    }
    if (rc != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return rc == client_refused     ? exit_refused
               : rc == client_handshake ? exit_handshake
               : rc == client_bad_input ? exit_usage
                                        : exit_timeout;
    }
    if (o.verbose) {
        print_verbose(r);
    }
    if (r.header().msg_len >= 0 && rq.take_id && r.payload.size() != 1) {
        fprintf(stderr,
                "vireo-client: malformed reply from %s: take-id answered %zu bytes, not 1\n",
                conn.endpoint.c_str(), r.payload.size());
        return exit_malformed;
    }
    if (o.json) {
        print_json(r, conn.endpoint, rq.take_id);
    }
    if (r.header().msg_len < 0) {
        fprintf(stderr, "vireo-client: %s: error %d (%s)\n", rq.label.c_str(), r.header().msg_len,
                status_text(r.header().msg_len).c_str());
        return flush_output() != exit_ok ? exit_output : exit_status;
    }
    if (!o.json) {
        if (rq.take_id) {
            printf("%u\n", static_cast<uint8_t>(r.payload[0]));
        } else {
            fwrite(r.payload.data(), 1, r.payload.size(), stdout);
        }
    }
    return flush_output();
}

int list_commands(const client_config& cfg, bool json) {
    if (json) {
        Json::Value list(Json::arrayValue);
        for (const client_cmd& c : cfg.cmds) {
            Json::Value e(Json::objectValue);
            e["name"] = c.cls + "." + c.name;
            e["code"] = c.code;
            e["id"] = c.id;
            e["kind"] = c.kind;
            e["target"] = c.target;
            list.append(e);
        }
        Json::StreamWriterBuilder w;
        w["indentation"] = "";
        w["emitUTF8"] = true;
        fputs((Json::writeString(w, list) + "\n").c_str(), stdout);
        return flush_output();
    }
    printf("%-24s %-10s %-10s %-9s %s\n", "NAME", "CODE", "ID", "KIND", "TARGET");
    for (const client_cmd& c : cfg.cmds) {
        std::string name = c.cls + "." + c.name;
        printf("%-24s 0x%-8x 0x%-8x %-9s %s\n", name.c_str(), c.code, c.id, c.kind.c_str(),
               c.target.c_str());
    }
    return flush_output();
}

// One line saying what is wrong, and where to read more.
int usage_error(const std::string& why) {
    fprintf(stderr, "vireo-client: %s\nTry 'vireo-client --help' for more information.\n",
            why.c_str());
    return exit_usage;
}

int keygen(const options& o) {
    if (o.args.size() != 2) {
        return usage_error("keygen needs one BASE name: it writes BASE.key and BASE.pub");
    }
    std::string pub, why;
    if (write_key_pair(o.args[1], pub, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return exit_output;
    }
    printf("%s\n", pub.c_str());
    return flush_output();
}

// Sleeps up to seconds, waking early when interrupted.
void pause_for(double seconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (stop_signal == 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// The CURVE keys: options first, then the configuration's "client" object.
// 0, or an exit status after a message.
int find_keys(const options& o, const client_config* cfg, client_keys& keys) {
    std::string server_key = o.server_key, key = o.key, why;
    if (cfg != nullptr) {
        server_key = server_key.empty() ? cfg->server_key : server_key;
        key = key.empty() ? cfg->key : key;
    }
    if (server_key.empty() && key.empty()) {
        return exit_ok;
    }
    if (server_key.empty() || key.empty()) {
        return usage_error(
            "a CURVE client needs both the server's key (--server-key) and its own (--key)");
    }
    if (load_server_key(server_key, keys.server_public, why) != 0 ||
        load_secret_key(key, keys, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return exit_config;
    }
    return exit_ok;
}

}  // namespace

int run_symbolize(int argc, char** argv);  // symbolize_cmd.cpp

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "profile") == 0) {
        return run_profile(argc - 1, argv + 1);
    }
    if (argc > 1 && strcmp(argv[1], "symbolize") == 0) {
        return run_symbolize(argc - 1, argv + 1);
    }
    if (argc > 1 && strcmp(argv[1], "check-config") == 0) {
        return run_check_config(argc - 1, argv + 1);
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

    // An installed configuration is read when none is named; when it cannot
    // be read, only what needs it (names, --list) fails.
    const bool implicit = o.config_path.empty() && access(default_config, F_OK) == 0;
    const std::string cfg_path = implicit ? default_config : o.config_path;
    client_config cfg;
    std::string cfg_error;
    if (!cfg_path.empty() && load_client_config(cfg_path, cfg, cfg_error) != 0) {
        if (!implicit || o.list) {
            fprintf(stderr, "vireo-client: %s\n", cfg_error.c_str());
            return exit_config;
        }
    }
    const bool have_cfg = !cfg_path.empty() && cfg_error.empty();
    if (o.list) {
        if (!have_cfg) {
            return usage_error("--list needs -c MAIN.json");
        }
        return list_commands(cfg, o.json);
    }
    request_spec rq;
    if (int rc = make_spec(o, have_cfg ? &cfg : nullptr, cfg_path, cfg_error, rq, why); rc != 0) {
        if (rc == -2) {
            fprintf(stderr, "vireo-client: %s\n", why.c_str());
            return exit_config;
        }
        return usage_error(why);
    }
    const bool endpoint_from_cfg = o.endpoint.empty() && have_cfg;
    if (o.endpoint.empty()) {
        std::string host = cfg.ip;
        if (!have_cfg || host.empty() || host == "0.0.0.0" || host == "*") {
            host = "127.0.0.1";  // a wildcard bind is reached on loopback
        }
        int port = have_cfg ? cfg.port : 6600;
        o.endpoint = "tcp://" + host + ":" + std::to_string(port);
    }
    // The installed configuration's keys belong to its own daemon: another
    // endpoint (-e) does not get them.
    client_keys keys;
    if (int rc = find_keys(o, have_cfg && (!implicit || endpoint_from_cfg) ? &cfg : nullptr, keys);
        rc != exit_ok) {
        return rc;
    }

    // No SA_RESTART: an interrupt ends a pending wait at once.
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    client_conn conn(o.endpoint, o.timeout_ms, keys);
    conn.stop = &stop_signal;
    if (conn.open(why) != 0) {
        return usage_error(why);
    }
    const bool tty = isatty(STDOUT_FILENO) == 1;
    const bool repeat = o.watch || o.count > 0;
    int status = exit_ok;
    for (long round = 0; stop_signal == 0; round++) {
        if (o.watch && tty) {
            time_t now = time(nullptr);
            char when[64] = "";
            struct tm tm_local;
            if (localtime_r(&now, &tm_local) != nullptr) {
                strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm_local);
            }
            printf("\033[H\033[2JEvery %.1fs: %s on %s    %s\n\n", o.watch_s, rq.label.c_str(),
                   o.endpoint.c_str(), when);
        }
        status = one_round(conn, rq, o);
        if (!repeat || (o.count > 0 && round + 1 >= o.count) || status == exit_usage ||
            status == exit_output || status > 128) {
            break;
        }
        pause_for(o.watch_s);
    }
    return stop_signal != 0 && status != exit_output ? 128 + stop_signal : status;
}
