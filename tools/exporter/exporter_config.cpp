// The exporter's JSON configuration and the CURVE keys it names.
#include <json/json.h>
#include <sys/stat.h>
#include <zmq.h>

#include <fstream>
#include <initializer_list>
#include <stdexcept>

#include "exporter.h"
#include "vireo_client.h"

namespace {

using std::runtime_error;
using std::string;

// The key of a key file, by the daemon's rule.
string key_of_file(const string& path) {
    string key, error;
    int rc = read_key_file(path, key, error);
    if (rc == -1) {
        throw runtime_error("cannot open key file " + path + ": " + error);
    }
    if (rc != 0) {
        throw runtime_error("key file " + path + ": " + error);
    }
    return key;
}

// A server key: a 40-character Z85 literal, or a file holding one.
string server_key(const string& text) {
    struct stat st;
    if (is_z85_key(text) && stat(text.c_str(), &st) != 0) {
        return text;
    }
    return key_of_file(text);
}

cmd_ref read_ref(const Json::Value& v, const string& where) {
    cmd_ref r;
    if (v.isNull() || (v.isBool() && !v.asBool())) {
        return r;  // not asked
    }
    if (!v.isObject() || !v["code"].isString() || !v["id"].isString()) {
        throw runtime_error(where + ": expected {\"code\": \"0x..\", \"id\": \"..\"}");
    }
    try {
        r.code = hex_code(v["code"].asString());
        r.id = hex_code(v["id"].asString());
    } catch (const std::logic_error&) {
        throw runtime_error(where + ": code and id are hexadecimal text");
    }
    r.set = true;
    return r;
}

void read_commands(const Json::Value& v, command_map& m, const string& where) {
    if (!v.isObject()) {
        throw runtime_error(where + " is not an object");
    }
    struct {
        const char* key;
        cmd_ref command_map::*ref;
    } const keys[] = {{"meminfo", &command_map::meminfo},
                      {"loadavg", &command_map::loadavg},
                      {"uptime", &command_map::uptime},
                      {"stat", &command_map::stat},
                      {"crash", &command_map::crash},
                      {"ps", &command_map::ps},
                      {"process-status", &command_map::process_status},
                      {"process-stat", &command_map::process_stat}};
    for (const string& name : v.getMemberNames()) {
        bool known = false;
        for (const auto& k : keys) {
            if (name == k.key) {
                m.*k.ref = read_ref(v[name], where + "." + name);
                known = true;
            }
        }
        if (!known) {
            throw runtime_error(where + ": unknown command \"" + name + "\"");
        }
    }
}

std::vector<process_conf> read_processes(const Json::Value& v, const string& where) {
    if (!v.isArray()) {
        throw runtime_error(where + " is not a list");
    }
    std::vector<process_conf> out;
    for (Json::ArrayIndex i = 0; i < v.size(); i++) {
        const Json::Value& e = v[i];
        string at = where + "[" + std::to_string(i) + "]";
        process_conf p;
        if (!e.isObject() || !e["name"].isString() || e["name"].asString().empty()) {
            throw runtime_error(at + ": needs a \"name\"");
        }
        p.name = e["name"].asString();
        int selectors = e.isMember("pid") + e.isMember("pidfile") + e.isMember("cmdline");
        if (selectors > 1) {
            throw runtime_error(at + ": at most one of \"pid\", \"pidfile\" and \"cmdline\"");
        }
        if (e.isMember("cmdline")) {
            if (!e["cmdline"].isString() || e["cmdline"].asString().empty()) {
                throw runtime_error(at + ".cmdline is not a non-empty text");
            }
            p.by = select_by::cmdline;
            p.cmdline = e["cmdline"].asString();
        } else if (e.isMember("pid")) {
            p.by = select_by::pid;
            if (!e["pid"].isUInt() || e["pid"].asUInt() == 0) {
                throw runtime_error(at + ".pid is not a process id");
            }
            p.pid = e["pid"].asUInt();
        } else if (e.isMember("pidfile")) {
            p.by = select_by::pidfile;
            p.pidfile = read_ref(e["pidfile"], at + ".pidfile");
            if (!p.pidfile.set) {
                throw runtime_error(at + ".pidfile is not set");
            }
            p.pidfile_path = e["pidfile"].get("path", "").asString();
        }
        out.push_back(p);
    }
    return out;
}

// A misspelt key would silently fall back to a default (a missing
// "server-key" means plaintext): every key must be one of these.
void check_keys(const Json::Value& v, std::initializer_list<const char*> allowed,
                const string& where) {
    for (const string& name : v.getMemberNames()) {
        bool ok = false;
        for (const char* a : allowed) {
            ok = ok || name == a;
        }
        if (!ok) {
            throw runtime_error(where + ": unknown key \"" + name + "\"");
        }
    }
}

// Keys, commands, processes and clock rate of one target over base.
void read_target(const Json::Value& v, target_conf& t, const string& where) {
    if (v.isMember("server-key")) {
        string s = v["server-key"].asString();
        t.keys = curve_keys{};
        if (!s.empty()) {
            t.keys.server_public = server_key(s);
        }
    }
    if (v.isMember("key")) {
        t.keys.secret_key = key_of_file(v["key"].asString());
        char pub[z85_key_len + 1];
        if (zmq_curve_public(pub, t.keys.secret_key.c_str()) != 0) {
            throw runtime_error(where + ".key: no public key from it (ZeroMQ without CURVE?)");
        }
        t.keys.public_key = pub;
    }
    if (!t.keys.secret_key.empty() && !t.keys.on()) {
        throw runtime_error(where + ": \"key\" without \"server-key\"");
    }
    if (t.keys.on() && t.keys.secret_key.empty()) {
        // A key of our own for this run: accepted by a board that checks no
        // client keys.
        char pub[z85_key_len + 1], sec[z85_key_len + 1];
        if (zmq_curve_keypair(pub, sec) != 0) {
            throw runtime_error(where + ": cannot make a CURVE key pair");
        }
        t.keys.public_key = pub;
        t.keys.secret_key = sec;
    }
    if (v.isMember("commands")) {
        read_commands(v["commands"], t.cmds, where + ".commands");
    }
    if (v.isMember("processes")) {
        t.processes = read_processes(v["processes"], where + ".processes");
    }
    if (v.isMember("user-hz")) {
        if (!v["user-hz"].isNumeric() || v["user-hz"].asDouble() <= 0) {
            throw runtime_error(where + ".user-hz is not a positive number");
        }
        t.user_hz = v["user-hz"].asDouble();
    }
}

}  // namespace

exporter_config default_exporter_config() {
    exporter_config c;
    command_map& m = c.defaults.cmds;
    m.meminfo = {true, 0x10, 1};
    m.loadavg = {true, 0x10, 2};
    m.uptime = {true, 0x10, 3};
    m.stat = {true, 0x10, 4};
    m.process_status = {true, 0x20, 1};
    m.process_stat = {true, 0x20, 2};
    m.ps = {true, 0x30, 0x10};
    return c;
}

int load_exporter_config(const string& path, exporter_config& out, string& why) {
    out = default_exporter_config();
    try {
        std::ifstream in(path);
        if (!in) {
            throw runtime_error("cannot open " + path);
        }
        Json::CharReaderBuilder builder;
        Json::Value root;
        string errs;
        if (!Json::parseFromStream(builder, in, &root, &errs)) {
            throw runtime_error("cannot parse " + path + ": " + errs);
        }
        if (!root.isObject()) {
            throw runtime_error(path + " does not hold an object");
        }
        check_keys(root,
                   {"threads", "timeout", "max-targets", "link-idle-timeout", "server-key", "key",
                    "user-hz", "commands", "processes", "targets"},
                   path);
        if (root.isMember("threads")) {
            if (!root["threads"].isInt() || root["threads"].asInt() < 1 ||
                root["threads"].asInt() > 4096) {
                throw runtime_error("\"threads\" is not a number from 1 to 4096");
            }
            out.threads = root["threads"].asInt();
        }
        if (root.isMember("timeout")) {
            if (!root["timeout"].isNumeric() || !(root["timeout"].asDouble() > 0) ||
                root["timeout"].asDouble() > 3600) {
                throw runtime_error("\"timeout\" is not a number of seconds up to 3600");
            }
            out.timeout_s = root["timeout"].asDouble();
        }
        if (root.isMember("max-targets")) {
            if (!root["max-targets"].isUInt() || root["max-targets"].asUInt() < 1 ||
                root["max-targets"].asUInt() > 100000) {
                throw runtime_error("\"max-targets\" is not a number from 1 to 100000");
            }
            out.max_targets = root["max-targets"].asUInt();
        }
        if (root.isMember("link-idle-timeout")) {
            const Json::Value& v = root["link-idle-timeout"];
            if (!v.isNumeric() || !(v.asDouble() > 0) || v.asDouble() > 86400) {
                throw runtime_error("\"link-idle-timeout\" is not a number of seconds up to 86400");
            }
            out.link_idle_s = v.asDouble();
        }
        read_target(root, out.defaults, "configuration");
        const Json::Value& targets = root["targets"];
        if (!targets.isNull() && !targets.isObject()) {
            throw runtime_error("\"targets\" is not an object");
        }
        for (const string& name : targets.getMemberNames()) {
            const Json::Value& v = targets[name];
            string at = "targets." + name;
            if (!v.isObject() || !v["endpoint"].isString()) {
                throw runtime_error(at + ": needs an \"endpoint\"");
            }
            check_keys(v, {"endpoint", "server-key", "key", "user-hz", "commands", "processes"},
                       at);
            target_conf t = out.defaults;
            t.endpoint = v["endpoint"].asString();
            // Refused here, not at every probe: "127.0.0.1:6600" would
            // otherwise start and then fail each scrape.
            string key, bad;
            if (canonical_target(t.endpoint, key, bad) != 0) {
                throw runtime_error(at + ".endpoint \"" + t.endpoint + "\": " + bad);
            }
            read_target(v, t, at);
            out.targets[name] = t;
        }
    } catch (const std::exception& e) {
        why = e.what();
        return -1;
    }
    return 0;
}

int resolve_target(const exporter_config& cfg, const string& target, target_conf& out,
                   string& why) {
    auto it = cfg.targets.find(target);
    if (it != cfg.targets.end()) {
        out = it->second;
        out.label = target;
        return 0;
    }
    std::string key;
    if (canonical_target(target, key, why) != 0) {
        return -1;
    }
    if (!cfg.allow.empty() && !allowed(cfg.allow, key)) {
        why = "target " + key + " is not allowed by --probe.allow";
        return -1;
    }
    out = cfg.defaults;
    out.endpoint = key;
    out.label = key;
    return 0;
}
