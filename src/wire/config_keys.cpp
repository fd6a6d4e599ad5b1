#include "wire/config_keys.h"

#include <cerrno>
#include <stdexcept>

namespace {
constexpr int64_t any_min = 1, any_max = 0;
using S = config_scope;
using K = value_kind;

// The scope's name as a reader sees it.
const char* scope_name(config_scope scope) {
    switch (scope) {
        case S::main:
            return "main file";
        case S::group:
            return "sub-configs element";
        case S::sub:
            return "sub-configuration file";
        case S::entry:
            return "cmd-list entry";
        case S::security:
            return "security";
        case S::client:
            return "client";
    }
    return "?";
}
}  // namespace

// clang-format off
const config_key config_keys[config_key_count] = {
    {S::main, "mode", K::text, true, nullptr, any_min, any_max, "free text, kept and not interpreted"},
    {S::main, "server_ip", K::text, true, nullptr, any_min, any_max, "IP address the endpoint binds to: tcp://server_ip:port"},
    {S::main, "port", K::integer, true, nullptr, 1, 65535, "TCP port of the endpoint"},
    {S::main, "sub-configs", K::list, true, nullptr, any_min, any_max, "the groups of commands, one object each"},
    {S::group, "class", K::text, true, nullptr, any_min, any_max, "name of the group"},
    {S::group, "code", K::hex, true, nullptr, any_min, any_max, "command code of the group; the first group with a code is kept"},
    {S::group, "config", K::text, true, nullptr, any_min, any_max, "path of the group's file, opened as written"},
    {S::group, "disable", K::flag, false, nullptr, any_min, any_max, "kept only: a disabled group is still served"},
    {S::sub, "cmd-list", K::list, true, nullptr, any_min, any_max, "the group's commands"},
    {S::entry, "name", K::text, true, nullptr, any_min, any_max, "name of the command"},
    {S::entry, "id", K::hex, true, nullptr, any_min, any_max, "sub-command id; the first command with an id is kept"},
    {S::entry, "type", K::text, true, nullptr, any_min, any_max, "\"file\" or \"custom\"; any other is skipped"},
    {S::entry, "file", K::text, true, "file", any_min, any_max, "file whose contents answer; \"$pid\" is the request's pid"},
    {S::entry, "read-all", K::flag, false, "file", any_min, any_max, "the whole file, up to 1 MiB, in several packets if need be"},
    {S::entry, "lib", K::text, true, "custom", any_min, any_max, "plug-in library, passed to dlopen as written"},
    {S::entry, "symbols", K::text, true, "custom", any_min, any_max, "name of the plug-in's function"},
    {S::entry, "detach", K::flag, false, "custom", any_min, any_max, "kept only: the function runs on the worker"},
    {S::entry, "disable", K::flag, false, nullptr, any_min, any_max, "kept only: a disabled command is still served"},
    {S::main, "security", K::object, false, nullptr, any_min, any_max, "CURVE: the endpoint answers only authorized keys"},
    {S::security, "secret-key", K::text, true, nullptr, any_min, any_max, "file of the server's secret key (mode 0600)"},
    {S::security, "authorized-keys", K::text, true, nullptr, any_min, any_max, "file of \"KEY NAME CODES\" lines"},
    {S::security, "max-client-ids", K::integer, false, nullptr, 0, 254, "most client ids one key may hold (default 16)"},
    {S::main, "client", K::object, false, nullptr, any_min, any_max, "keys of vireo-client; the daemon ignores it"},
    {S::client, "server-key", K::text, false, nullptr, any_min, any_max, "the server's public key: a key file or the key"},
    {S::client, "key", K::text, false, nullptr, any_min, any_max, "the client's secret key file"},
};
// clang-format on

const config_key* find_config_key(config_scope scope, const std::string& name) {
    for (const config_key& k : config_keys) {
        if (k.scope == scope && name == k.name) {
            return &k;
        }
    }
    return nullptr;
}

std::string config_keys_text() {
    static const char* const kinds[] = {"text",       "hex code", "integer",
                                        "true/false", "array",    "object"};
    std::string out;
    for (const config_key& k : config_keys) {
        out += std::string(scope_name(k.scope)) + "\t\"" + k.name + "\"\t" +
               kinds[static_cast<int>(k.kind)] + "\t" + (k.required ? "required" : "optional");
        if (k.only_type != nullptr) {
            out += std::string(" (type \"") + k.only_type + "\")";
        }
        if (k.min <= k.max) {
            out += "\t" + std::to_string(k.min) + ".." + std::to_string(k.max);
        }
        out += std::string("\t") + k.doc + "\n";
    }
    return out;
}

uint32_t hex_code(const std::string& text) {
    return static_cast<uint32_t>(std::stoi(text, nullptr, 16));
}

int parse_hex_code(const std::string& text, uint32_t& out, size_t* used) {
    try {
        out = static_cast<uint32_t>(std::stoi(text, used, 16));
    } catch (const std::invalid_argument&) {
        return -EINVAL;
    } catch (const std::out_of_range&) {
        return -ERANGE;
    }
    return 0;
}

bool parse_hex_arg(const std::string& text, uint32_t& out) {
    size_t start = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
    if (start == text.size() || text.size() - start > 8 ||
        text.find_first_not_of("0123456789abcdefABCDEF", start) != std::string::npos) {
        return false;
    }
    out = static_cast<uint32_t>(std::stoul(text.substr(start), nullptr, 16));
    return true;
}
