// The configuration model: a main file naming the endpoint and its
// sub-configurations, each a group of commands under one command code.
// Loaded once, before any worker exists; read-only (and lock-free) after.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "wire/config_keys.h"
#include "wire/keys.h"

class comm_data;

// A plug-in's entry point: called on the worker thread that received the
// request, with that worker's connection. Returns the reply payload length it
// left in send_data (0..8192), a negative error code, or above 8192 when it
// has sent its reply itself. Must be safe to run on several workers at once.
typedef int (*CUST_CALLBACK)(comm_data*);

enum cmd_type_t : uint32_t {
    FILE_TYPE = 0,      // contents of a fixed file
    DYN_FILE_TYPE = 1,  // a path with a "$" anywhere; "$pid" is replaced per request
    CUSTOM_TYPE = 2,    // result of a plug-in function
};

// One configured command. A custom command's library stays loaded for the
// command's life; several commands naming one library share it through the
// loader's reference count.
class mon_cmd {
public:
    struct {
        std::string mon_file;  // path from "file"
        int fd;                // -1; nothing opens it (files go through file_cache)
    } file_t;
    struct {
        std::string library;    // path from "lib", passed to dlopen as written
        std::string symbol;     // function name from "symbols"
        void* handler;          // dlopen handle, or null
        CUST_CALLBACK function;  // dlsym result, or null
        bool detach;            // kept only: the function always runs on the worker
    } cust_t;
    uint32_t id;      // sub-command id
    cmd_type_t type;
    std::string name;
    bool enabled;     // negation of "disable"; kept only, never consulted
    // "read-all" of a file command: answer the whole file, up to 1 MiB, in
    // several packets if need be, not one read. Off by default.
    bool read_all = false;

    // A file command; a "$" anywhere in file makes it DYN_FILE_TYPE.
    mon_cmd(const std::string& mon_name, uint32_t idx, const std::string& file);
    // A custom command; loads nothing (see load_library).
    mon_cmd(const std::string& mon_name, uint32_t idx, const std::string& lib,
            const std::string& sym, bool detach);
    // Closes the library handle of a custom command.
    ~mon_cmd();
    mon_cmd(const mon_cmd&) = delete;
    mon_cmd& operator=(const mon_cmd&) = delete;

    // dlopen(library, RTLD_LAZY) and dlsym(symbol). A failure is logged
    // ("dlopen lib: ... symbol: ... failed") and leaves function null.
    void load_library();
};

// A parsed JSON file. Throws std::runtime_error("open json") or
// ("Parse json") after logging which file failed.
class json_config {
public:
    Json::Value root;

    explicit json_config(const std::string& json);
    ~json_config() = default;
};

// One sub-configuration: the commands of one command code, keyed by id.
class sub_config : public json_config {
public:
    std::string sub_file;  // path as written in "config"
    std::string name;      // "class"
    uint32_t code;
    bool enabled = true;   // negation of "disable"; kept only, never consulted
    std::unordered_map<uint32_t, std::shared_ptr<mon_cmd>> cmds;

    sub_config(const std::string& sjson, std::string& class_name, uint32_t cd);
};

// The main configuration: the endpoint and the sub-configurations by code.
class main_config : public json_config {
public:
    std::string mode;   // free text, not interpreted
    std::string ip;     // "server_ip"
    int port = 0;
    bool enabled = true;  // unused
    std::unordered_map<uint32_t, std::shared_ptr<sub_config>> subs_map;

    // From the optional "security" object: the endpoint becomes a CURVE
    // server that answers only the keys in authorized_keys_file. Without it
    // secure is false and the rest stays empty.
    bool secure = false;
    std::string secret_key_file;       // "secret-key"
    std::string authorized_keys_file;  // "authorized-keys"
    std::string secret_key;            // the server's secret key, Z85
    key_table keys;                    // authorized keys as loaded at start-up
    file_stamp keys_stamp;             // the authorized-keys file they came from
    int max_client_ids = 16;           // "max-client-ids": most ids one key may hold

    explicit main_config(const std::string& main_json);
};

// Loads the main file and every sub-configuration. Failures are logged with
// tag MONITOR_CONFIG and reported as false; nothing escapes as an exception.
class config_parser {
public:
    std::string main_file;
    std::unique_ptr<main_config> mconfig;

    explicit config_parser(const std::string& mjson);
    ~config_parser() = default;

    // The main file and its sub-configuration files first, then the command
    // lists. On false the model may be partly filled and must not be served.
    bool parse_config();

private:
    Json::Value search_key(Json::Value& root, const std::string& key);
    bool parse_main_config();
    // Reads the key files named by "security"; logs and throws on failure.
    void parse_security(const Json::Value& security);
    bool parse_sub_config();
};
