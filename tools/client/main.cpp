// vireo-client: sends requests to a vireo-monitor daemon and prints replies.
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "vireo_client.h"

namespace {

// Exit statuses; 64 and 78 as in sysexits.h (usage, configuration).
constexpr int exit_ok = 0;
constexpr int exit_status = 1;     // the daemon answered with an error code
constexpr int exit_timeout = 2;    // no reply in time
constexpr int exit_malformed = 3;  // the reply does not hold together
constexpr int exit_usage = 64;
constexpr int exit_config = 78;    // -c file unreadable

const char usage_text[] =
    "usage: vireo-client [-e tcp://HOST:PORT] [-t TIMEOUT_MS] [-c MAIN.json] [-v] [--json]\n"
    "                    [--watch SECONDS] [--count N] REQUEST\n"
    "       vireo-client -c MAIN.json --list\n"
    "REQUEST:\n"
    "  CODE SUB [--pid N | --byte N | --hex HEXBYTES]\n"
    "                   command code and sub-command in hex (\"0x10\", \"10\")\n"
    "  CLASS.NAME [--pid N | --byte N | --hex HEXBYTES]\n"
    "                   a command by name from the -c configuration\n"
    "  take-id          take a client id and print it in decimal\n"
    "  return-id N      give client id N (0..255) back\n"
    "options:\n"
    "  -e ENDPOINT      daemon endpoint (default tcp://127.0.0.1:6600, or the\n"
    "                   server_ip:port of the -c configuration)\n"
    "  -t TIMEOUT_MS    wait this long for a reply (default 3000)\n"
    "  -c MAIN.json     the daemon's main configuration, for names and --list\n"
    "  --list           print every configured command with code, id, kind, target\n"
    "  --pid N          payload: process id N as 4 little-endian bytes (decimal)\n"
    "  --byte N         payload: one byte N (decimal, 0..255)\n"
    "  --hex HEXBYTES   payload: these bytes, e.g. e8030000\n"
    "  -v               print the reply header on stderr\n"
    "  --json           print header and payload as one JSON object\n"
    "  --watch SECONDS  repeat the request every SECONDS until interrupted\n"
    "  --count N        stop after N requests\n"
    "  -h, --help       print this text\n"
    "exit status: 0 reply, 1 error code in the reply, 2 no reply in time,\n"
    "  3 malformed reply, 64 usage error, 78 configuration unreadable\n";

volatile sig_atomic_t stop_requested = 0;

void on_signal(int) { stop_requested = 1; }

struct options {
    std::string endpoint;
    int timeout_ms = 3000;
    std::string config_path;
    bool list = false;
    bool verbose = false;
    bool json = false;
    bool help = false;
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

int parse_args(int argc, char** argv, options& o, std::string& why) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        auto value = [&](std::string& v) {
            if (i + 1 >= argc) {
                why = a + " needs a value";
                return false;
            }
            v = argv[++i];
            return true;
        };
        std::string v;
        unsigned long n = 0;
        if (a == "-h" || a == "--help") {
            o.help = true;
        } else if (a == "-v") {
            o.verbose = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--list") {
            o.list = true;
        } else if (a == "-e") {
            if (!value(o.endpoint)) return -1;
        } else if (a == "-c") {
            if (!value(o.config_path)) return -1;
        } else if (a == "-t") {
            if (!value(v)) return -1;
            if (!parse_ulong(v, 86400000, n) || n == 0) {
                why = "-t needs a timeout in milliseconds, not \"" + v + "\"";
                return -1;
            }
            o.timeout_ms = static_cast<int>(n);
        } else if (a == "--watch") {
            if (!value(v)) return -1;
            char* end = nullptr;
            o.watch_s = strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(o.watch_s >= 0 && o.watch_s <= 86400)) {
                why = "--watch needs seconds, not \"" + v + "\"";
                return -1;
            }
            o.watch = true;
        } else if (a == "--count") {
            if (!value(v)) return -1;
            if (!parse_ulong(v, 1000000000, n) || n == 0) {
                why = "--count needs a positive number, not \"" + v + "\"";
                return -1;
            }
            o.count = static_cast<long>(n);
        } else if (a == "--pid" || a == "--byte") {
            if (!value(v)) return -1;
            bool pid = a == "--pid";
            if (!parse_ulong(v, pid ? 0xFFFFFFFFul : 0xFFul, n)) {
                why = a + " needs a decimal number" + (pid ? "" : " from 0 to 255") + ", not \"" + v + "\"";
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
            if (!value(v)) return -1;
            o.payload.clear();
            if (!parse_hex_bytes(v, o.payload)) {
                why = "--hex needs pairs of hex digits (at most 1024 bytes), not \"" + v + "\"";
                return -1;
            }
            o.payload_opts++;
        } else if (a.size() > 1 && a[0] == '-' && !(a.size() > 1 && a[1] >= '0' && a[1] <= '9')) {
            why = "unknown option " + a;
            return -1;
        } else {
            o.args.push_back(a);
        }
    }
    if (o.help) {
        return 0;
    }
    if (o.payload_opts > 1) {
        why = "--pid, --byte and --hex exclude each other";
        return -1;
    }
    if (o.list && (o.config_path.empty() || !o.args.empty())) {
        why = "--list needs -c MAIN.json and no request";
        return -1;
    }
    if (!o.list && o.args.empty()) {
        why = "no request given";
        return -1;
    }
    return 0;
}

// Turns the positional arguments into a request; 0 or -1 with why.
int make_spec(const options& o, const client_config* cfg, request_spec& r, std::string& why) {
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
    if (a.size() == 1 && !id_cmd) {
        if (a[0].find('.') == std::string::npos) {
            why = "\"" + a[0] + "\" is neither CODE SUB nor CLASS.NAME";
            return -1;
        }
        if (cfg == nullptr) {
            why = "a command name (" + a[0] + ") needs -c MAIN.json";
            return -1;
        }
        const client_cmd* c = find_cmd(*cfg, a[0]);
        if (c == nullptr) {
            why = "no command named " + a[0] + " in " + o.config_path;
            return -1;
        }
        r.command = c->code;
        r.sub_command = c->id;
        return 0;
    }
    if (a.size() == 2 && !id_cmd) {
        if (!parse_hex_u32(a[0], r.command) || !parse_hex_u32(a[1], r.sub_command)) {
            why = "CODE and SUB are hexadecimal (\"0x10\", \"10\"), not \"" + a[0] + "\" \"" + a[1] + "\"";
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
        size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
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
        if (i + 1 < in.size()) n |= static_cast<uint8_t>(in[i + 1]) << 8;
        if (i + 2 < in.size()) n |= static_cast<uint8_t>(in[i + 2]);
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
        fprintf(stderr, "%-13s %s\n", "status", status_text(r.header().msg_len).c_str());
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

int one_round(client_conn& conn, const request_spec& rq, const options& o) {
    client_reply r;
    std::string why;
    int rc = conn.request(rq.command, rq.sub_command, rq.payload, r, why);
    if (rc == client_timeout) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return exit_timeout;
    }
    if (rc == client_bad_input) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return exit_usage;
    }
    if (rc == client_malformed) {
        fprintf(stderr, "vireo-client: malformed reply from %s: %s\n", conn.endpoint.c_str(), why.c_str());
        return exit_malformed;
    }
    if (rc != 0) {
        fprintf(stderr, "vireo-client: %s: %s\n", conn.endpoint.c_str(), why.c_str());
        return exit_timeout;
    }
    if (o.verbose) {
        print_verbose(r);
    }
    if (r.header().msg_len >= 0 && rq.take_id && r.payload.size() != 1) {
        fprintf(stderr, "vireo-client: malformed reply from %s: take-id answered %zu bytes, not 1\n",
                conn.endpoint.c_str(), r.payload.size());
        return exit_malformed;
    }
    if (o.json) {
        print_json(r, conn.endpoint, rq.take_id);
    }
    if (r.header().msg_len < 0) {
        fprintf(stderr, "vireo-client: %s: %s (%d)\n", rq.label.c_str(),
                status_text(r.header().msg_len).c_str(), r.header().msg_len);
        return exit_status;
    }
    if (!o.json) {
        if (rq.take_id) {
            printf("%u\n", static_cast<uint8_t>(r.payload[0]));
        } else {
            fwrite(r.payload.data(), 1, r.payload.size(), stdout);
        }
    }
    return exit_ok;
}

int list_commands(const client_config& cfg) {
    printf("%-24s %-10s %-10s %-9s %s\n", "NAME", "CODE", "ID", "KIND", "TARGET");
    for (const client_cmd& c : cfg.cmds) {
        std::string name = c.cls + "." + c.name;
        printf("%-24s 0x%-8x 0x%-8x %-9s %s\n", name.c_str(), c.code, c.id, c.kind.c_str(),
               c.target.c_str());
    }
    return exit_ok;
}

int usage_error(const std::string& why) {
    fprintf(stderr, "vireo-client: %s\n%s", why.c_str(), usage_text);
    return exit_usage;
}

// Sleeps up to seconds, waking early when interrupted.
void pause_for(double seconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (stop_requested == 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "profile") return run_profile(argc - 1, argv + 1);
    options o;
    std::string why;
    if (parse_args(argc, argv, o, why) != 0) {
        return usage_error(why);
    }
    if (o.help) {
        fputs(usage_text, stdout);
        return exit_ok;
    }
    client_config cfg;
    if (!o.config_path.empty() && load_client_config(o.config_path, cfg, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return exit_config;
    }
    if (o.list) {
        return list_commands(cfg);
    }
    request_spec rq;
    if (make_spec(o, o.config_path.empty() ? nullptr : &cfg, rq, why) != 0) {
        return usage_error(why);
    }
    if (o.endpoint.empty()) {
        std::string host = cfg.ip;
        if (o.config_path.empty() || host.empty() || host == "0.0.0.0" || host == "*") {
            host = "127.0.0.1";  // a wildcard bind is reached on loopback
        }
        int port = o.config_path.empty() ? 6600 : cfg.port;
        o.endpoint = "tcp://" + host + ":" + std::to_string(port);
    }

    // No SA_RESTART: an interrupt ends a pending receive at once.
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    client_conn conn(o.endpoint, o.timeout_ms);
    if (conn.open(why) != 0) {
        return usage_error(why);
    }
    const bool tty = isatty(STDOUT_FILENO) == 1;
    const bool repeat = o.watch || o.count > 0;
    int status = exit_ok;
    for (long round = 0; stop_requested == 0; round++) {
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
        fflush(stdout);
        if (!repeat || (o.count > 0 && round + 1 >= o.count) || status == exit_usage) {
            break;
        }
        pause_for(o.watch_s);
    }
    return status;
}
