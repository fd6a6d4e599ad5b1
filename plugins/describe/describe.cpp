// describe_commands: the daemon's command table, so that a client needs no
// copy of the board's configuration files to know what the board serves.
//
// The daemon keeps its tables to itself, so the plug-in reads the same files
// again: the main configuration named by the daemon's -c (from
// /proc/self/cmdline), then its sub-configurations, by the daemon's rules
// (first code and first id win, unknown types skipped, paths as written,
// relative to the same working directory). It does so once, when the daemon
// loads it: the daemon has then just read all those files itself, so the
// text describes what it loaded even if the files are edited later.
#include <android/log.h>
#include <json/json.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "server_comm.h"
#include "wire/config_keys.h"
#include "wire/reply.h"

namespace {

const char log_tag[] = "VIREO_DESCRIBE";

Json::Value parse_file(const std::string& path) {
    std::ifstream in(path);
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errs;
    if (!in || !Json::parseFromStream(builder, in, &root, &errs)) {
        throw std::runtime_error("cannot read " + path);
    }
    return root;
}

const Json::Value& need(const Json::Value& obj, config_key_id id) {
    if (!obj.isMember(key_name(id))) {
        throw std::runtime_error(std::string("no key ") + key_name(id));
    }
    return obj[key_name(id)];
}

// A field never breaks its line: tabs, newlines and other control
// characters become '?'.
std::string field(std::string s) {
    for (char& ch : s) {
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f) {
            ch = '?';
        }
    }
    return s;
}

std::string hex(uint32_t v) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", v);
    return text;
}

// The lines of one group, first id wins.
std::string group_lines(const std::string& cls, uint32_t code, const Json::Value& sub) {
    const Json::Value& list = need(sub, key_cmd_list);
    std::set<uint32_t> ids;
    std::string out;
    for (Json::ArrayIndex i = 0; i < list.size(); i++) {
        const Json::Value& e = list[i];
        std::string name = need(e, key_entry_name).asString();
        uint32_t id = hex_code(need(e, key_id).asString());
        std::string type = need(e, key_type).asString(), kind, target;
        if (type == "file") {
            target = need(e, key_cmd_file).asString();
            kind = target.find('$') == std::string::npos ? "file" : "$pid file";
        } else if (type == "custom") {
            kind = "custom";
            target = need(e, key_lib).asString() + ":" + need(e, key_symbols).asString();
        } else {
            continue;
        }
        if (ids.insert(id).second) {
            out += hex(code) + "\t" + hex(id) + "\t" + kind + "\t" + field(cls) + "\t" +
                   field(name) + "\t" + field(target) + "\n";
        }
    }
    return out;
}

// The -c argument as the daemon's getopt("c:") takes it: the last one wins.
std::string config_from_cmdline() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> args;
    for (std::string a; std::getline(in, a, '\0');) {
        args.push_back(a);
    }
    std::string path;
    for (size_t i = 1; i < args.size() && args[i] != "--"; i++) {
        if (args[i].compare(0, 2, "-c") != 0) {
            continue;
        }
        if (args[i].size() > 2) {
            path = args[i].substr(2);
        } else if (i + 1 < args.size()) {
            path = args[++i];
        }
    }
    return path;
}

// The table's text, or why there is none.
struct table {
    std::string text;
    std::string error;
};

table read_table() {
    table t;
    std::string main_file = config_from_cmdline();
    if (main_file.empty()) {
        t.error = "no -c on the daemon's command line";
        return t;
    }
    try {
        Json::Value root = parse_file(main_file);
        const Json::Value& subs = need(root, key_sub_configs);
        std::set<uint32_t> codes;
        for (Json::ArrayIndex i = 0; i < subs.size(); i++) {
            std::string cls = need(subs[i], key_class).asString();
            uint32_t code = hex_code(need(subs[i], key_code).asString());
            Json::Value sub = parse_file(need(subs[i], key_config).asString());
            if (codes.insert(code).second) {
                t.text += group_lines(cls, code, sub);
            }
        }
    } catch (const std::exception& e) {
        t.text.clear();
        t.error = std::string(e.what()) + " in " + main_file;
    }
    if (t.text.size() > max_multi_reply_len) {
        t.text.resize(cut_to_whole_lines(reinterpret_cast<uint8_t*>(&t.text[0]), t.text.size(),
                                         max_multi_reply_len));
    }
    return t;
}

// Read while the daemon loads its configuration, before any worker exists.
const table loaded = read_table();

}  // namespace

// One line per command, in the order of the files: code, id, kind ("file",
// "$pid file" or "custom"), class, name, target (path, or library:symbol),
// separated by tabs. -5 (EIO, logged) when the files could not be read.
extern "C" __attribute__((visibility("default"))) int describe_commands(comm_data* c) {
    if (!loaded.error.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, log_tag, "command table: %s\n",
                            loaded.error.c_str());
        return -EIO;
    }
    return send_reply(c, reinterpret_cast<const uint8_t*>(loaded.text.data()), loaded.text.size());
}
