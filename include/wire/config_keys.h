// The keys of the daemon's configuration files, in one table: the daemon's
// loader, the client's reading of them and its check-config all take names,
// kinds and requirements from here. And the rule by which hexadecimal text
// becomes a command code.
#pragma once

#include <cstdint>
#include <string>

// Command codes and ids are hexadecimal text, with or without "0x"; trailing
// text is ignored; no digits or a value outside int32 throws "stoi"
// (std::invalid_argument or std::out_of_range, as std::stoi).
uint32_t hex_code(const std::string& text);
// The same rule without exceptions: 0, -EINVAL (no digits) or -ERANGE.
// used (if not null) gets the count of characters read.
int parse_hex_code(const std::string& text, uint32_t& out, size_t* used = nullptr);
// A code on a command line: "0x" optional, then 1 to 8 hexadecimal digits
// and nothing else.
bool parse_hex_arg(const std::string& text, uint32_t& out);

// The object a key belongs to.
enum class config_scope : uint8_t {
    main,      // the main file
    group,     // an element of "sub-configs"
    sub,       // a sub-configuration file
    entry,     // an element of "cmd-list"
    security,  // the main file's "security" object
    client,    // the main file's "client" object (only the client reads it)
};

// How a value is read.
enum class value_kind : uint8_t {
    text,     // asString(): numbers and booleans become text
    hex,      // text, then hex_code
    integer,  // asInt()
    flag,     // asBool()
    list,     // an array walked by index
    object,   // an object of its own keys
};

struct config_key {
    config_scope scope;
    const char* name;
    value_kind kind;
    bool required;
    // An entry key read only for this "type" ("file" or "custom"), else null.
    const char* only_type;
    // The accepted range of an integer (min > max: any).
    int64_t min, max;
    const char* doc;
};

// Every key, in the order the daemon reads them.
enum config_key_id : uint8_t {
    key_mode,
    key_server_ip,
    key_port,
    key_sub_configs,
    key_class,
    key_code,
    key_config,
    key_group_disable,
    key_cmd_list,
    key_entry_name,
    key_id,
    key_type,
    key_cmd_file,
    key_read_all,
    key_lib,
    key_symbols,
    key_detach,
    key_disable,
    key_security,
    key_secret_key,
    key_authorized_keys,
    key_max_client_ids,
    key_client,
    key_server_key,
    key_client_key,
    config_key_count
};

extern const config_key config_keys[config_key_count];

inline const char* key_name(config_key_id id) {
    return config_keys[id].name;
}

// The key called name in scope, or null when the daemon does not read it.
const config_key* find_config_key(config_scope scope, const std::string& name);

// The table as text, one key per line: scope, name, kind, required or
// optional, range, and its line of documentation.
std::string config_keys_text();
