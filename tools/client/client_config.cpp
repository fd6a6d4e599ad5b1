// Command names from the daemon's configuration files. Plug-in libraries
// are named, never loaded: the client only needs codes, ids and names.
#include <json/json.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <stdexcept>

#include "vireo_client.h"

namespace {

Json::Value parse_file(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("cannot open " + path);
    }
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errs;
    if (!Json::parseFromStream(builder, in, &root, &errs)) {
        throw std::runtime_error("cannot parse " + path + ": " + errs);
    }
    return root;
}

const Json::Value& need(const Json::Value& obj, config_key_id id, const std::string& path) {
    const char* key = key_name(id);
    if (!obj.isObject() || !obj.isMember(key)) {
        throw std::runtime_error("no key \"" + std::string(key) + "\" in " + path);
    }
    return obj[key];
}

uint32_t need_hex(const Json::Value& obj, config_key_id id, const std::string& path) {
    const char* key = key_name(id);
    std::string text = need(obj, id, path).asString();
    try {
        return hex_code(text);
    } catch (const std::logic_error&) {
        throw std::runtime_error("\"" + std::string(key) + "\": \"" + text +
                                 "\" is not a hex code in " + path);
    }
}

// Appends the commands of one sub-configuration, first id wins.
void read_group(const std::string& cls, uint32_t code, const Json::Value& root,
                const std::string& path, std::vector<client_cmd>& cmds) {
    const Json::Value& list = need(root, key_cmd_list, path);
    std::set<uint32_t> ids;
    for (Json::ArrayIndex i = 0; i < list.size(); i++) {
        const Json::Value& e = list[i];
        client_cmd c;
        c.cls = cls;
        c.code = code;
        c.name = need(e, key_entry_name, path).asString();
        c.id = need_hex(e, key_id, path);
        const Json::Value& type = need(e, key_type, path);
        if (!type.isString()) {
            throw std::runtime_error("\"type\" of " + c.name + " is not a string in " + path);
        }
        if (type.asString() == "file") {
            c.target = need(e, key_cmd_file, path).asString();
            c.kind = c.target.find('$') == std::string::npos ? "file" : "$pid file";
        } else if (type.asString() == "custom") {
            c.kind = "custom";
            c.target =
                need(e, key_lib, path).asString() + ":" + need(e, key_symbols, path).asString();
        } else {
            continue;  // the daemon skips an unknown type as well
        }
        if (ids.insert(c.id).second) {
            cmds.push_back(c);
        }
    }
}

// The optional "client" object, which only the client reads.
void read_client_keys(const Json::Value& root, const std::string& path, client_config& out) {
    if (!root.isObject() || !root.isMember(key_name(key_client))) {
        return;
    }
    const Json::Value& c = root[key_name(key_client)];
    if (!c.isObject()) {
        throw std::runtime_error("\"client\" is not an object in " + path);
    }
    for (auto [key, dest] : {std::pair{key_name(key_server_key), &out.server_key},
                             {key_name(key_client_key), &out.key}}) {
        if (c.isMember(key)) {
            if (!c[key].isString()) {
                throw std::runtime_error("\"client\": \"" + std::string(key) +
                                         "\" is not a string in " + path);
            }
            *dest = expand_home(c[key].asString());
        }
    }
}

}  // namespace

std::string expand_home(const std::string& path) {
    if (path != "~" && path.compare(0, 2, "~/") != 0) {
        return path;
    }
    const char* home = getenv("HOME");
    if (home == nullptr || *home == '\0') {
        const struct passwd* pw = getpwuid(getuid());
        home = pw != nullptr ? pw->pw_dir : nullptr;
    }
    return home != nullptr ? home + path.substr(1) : path;
}

int load_client_config(const std::string& main_path, client_config& out, std::string& why) {
    out = client_config{};
    try {
        Json::Value root = parse_file(main_path);
        out.ip = need(root, key_server_ip, main_path).asString();
        out.port = need(root, key_port, main_path).asInt();
        read_client_keys(root, main_path, out);
        const Json::Value& subs = need(root, key_sub_configs, main_path);
        std::set<uint32_t> codes;
        for (Json::ArrayIndex i = 0; i < subs.size(); i++) {
            const Json::Value& s = subs[i];
            std::string cls = need(s, key_class, main_path).asString();
            uint32_t code = need_hex(s, key_code, main_path);
            std::string sub_path = need(s, key_config, main_path).asString();
            // Parsed even when the code is a duplicate, as the daemon does,
            // so that a broken file is reported the same way.
            Json::Value sub = parse_file(sub_path);
            if (codes.insert(code).second) {
                read_group(cls, code, sub, sub_path, out.cmds);
            }
        }
    } catch (const std::exception& e) {
        why = e.what();
        return client_bad_input;
    }
    return 0;
}

const client_cmd* find_cmd(const client_config& cfg, const std::string& full_name) {
    for (const client_cmd& c : cfg.cmds) {
        if (c.cls + "." + c.name == full_name) {
            return &c;
        }
    }
    return nullptr;
}
