// How vireo-client shows what it got: the reply header on stderr (-v), a
// reply as JSON (--json), the configured commands as a table or as JSON
// (--list).
#include <json/json.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "client_cli.h"

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

namespace {

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

// One line of JSON, UTF-8 kept as it is.
std::string json_line(const Json::Value& v) {
    Json::StreamWriterBuilder w;
    w["indentation"] = "";
    w["emitUTF8"] = true;
    return Json::writeString(w, v) + "\n";
}

}  // namespace

int flush_output() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        fprintf(stderr, "vireo-client: writing the output failed: %s\n", strerror(errno));
        return client_exit::output;
    }
    return client_exit::ok;
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
    std::string s = json_line(root);
    fwrite(s.data(), 1, s.size(), stdout);
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
        fputs(json_line(list).c_str(), stdout);
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
