// vireo-client check-config MAIN.json: loads a configuration the way the
// daemon does and reports every problem as FILE:LINE:COLUMN: severity:
// message. Errors are what stops the daemon from starting or leaves a
// command unserved; warnings are what it accepts but probably should not.
// Nothing is started; plug-in libraries are loaded (RTLD_LAZY, like the
// daemon) to see that they and their functions are there.
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "vireo_client.h"

namespace {

constexpr int exit_problems = 1;  // the daemon would not start or not serve every command

const char usage_line[] = "usage: vireo-client check-config MAIN.json | --keys\n";

// One parsed JSON file and its text, to turn offsets into lines and columns.
struct source {
    std::string path;
    std::string text;
    Json::Value root;

    std::string at(ptrdiff_t offset) const {
        size_t line = 1, col = 1;
        for (size_t i = 0; i < text.size() && i < static_cast<size_t>(offset); i++) {
            if (text[i] == '\n') {
                line++;
                col = 1;
            } else {
                col++;
            }
        }
        return path + ":" + std::to_string(line) + ":" + std::to_string(col);
    }
    std::string at(const Json::Value& v) const { return at(v.getOffsetStart()); }
};

// a and b differ by one inserted, removed or replaced character, or by two
// neighbours swapped: typos worth a "did you mean".
bool near_miss(const std::string& a, const std::string& b) {
    if (a.size() > b.size()) {
        return near_miss(b, a);
    }
    if (b.size() - a.size() > 1) {
        return false;
    }
    size_t i = 0;
    while (i < a.size() && a[i] == b[i]) {
        i++;
    }
    if (a.size() < b.size()) {
        return a.compare(i, a.npos, b, i + 1, b.npos) == 0;
    }
    if (i == a.size()) {
        return false;
    }
    bool swapped = i + 1 < a.size() && a[i] == b[i + 1] && a[i + 1] == b[i] &&
                   a.compare(i + 2, a.npos, b, i + 2, b.npos) == 0;
    return swapped || a.compare(i + 1, a.npos, b, i + 1, b.npos) == 0;
}

const char* json_kind(const Json::Value& v) {
    switch (v.type()) {
        case Json::nullValue:
            return "null";
        case Json::booleanValue:
            return "a boolean";
        case Json::stringValue:
            return "a string";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
        default:
            return "a number";
    }
}

enum class key_kind { secret, server_public, authorized };

// Folders systemd reads units from, most important first.
const char* const unit_dirs[] = {"/etc/systemd/system", "/run/systemd/system",
                                 "/usr/local/lib/systemd/system", "/lib/systemd/system",
                                 "/usr/lib/systemd/system"};
constexpr char credentials_dir[] = "/run/credentials/";

// The source of credential name in the unit's LoadCredential= lines
// (NAME:PATH; the last wins, as systemd takes it), its unit file and any
// drop-ins, searched in $SYSTEMD_UNIT_PATH when set (as systemd does) or
// in unit_dirs. "" when no line names it; unit_file is the first file read.
std::string credential_source(const std::string& unit, const std::string& name,
                              std::string& unit_file) {
    std::vector<std::string> dirs(std::begin(unit_dirs), std::end(unit_dirs));
    if (const char* env = getenv("SYSTEMD_UNIT_PATH"); env != nullptr && *env != '\0') {
        dirs.clear();
        std::istringstream list(env);
        for (std::string d; std::getline(list, d, ':');) {
            dirs.push_back(d);
        }
    }
    std::vector<std::string> files;
    for (const std::string& d : dirs) {
        if (unit_file.empty() && access((d + "/" + unit).c_str(), F_OK) == 0) {
            unit_file = d + "/" + unit;
            files.push_back(unit_file);
        }
        glob_t g{};
        if (glob((d + "/" + unit + ".d/*.conf").c_str(), 0, nullptr, &g) == 0) {
            files.insert(files.end(), g.gl_pathv, g.gl_pathv + g.gl_pathc);
        }
        globfree(&g);
    }
    std::string source;
    const std::string key = "LoadCredential=" + name + ":";
    for (const std::string& f : files) {
        std::ifstream in(f);
        for (std::string line; std::getline(in, line);) {
            if (line.compare(0, key.size(), key) == 0) {
                source = line.substr(key.size());
            }
        }
    }
    return source;
}

class checker {
public:
    int errors = 0, warnings = 0;
    size_t groups = 0, commands = 0;  // what the daemon would serve
    std::vector<void*> libraries;

    ~checker() {
        for (void* h : libraries) {
            dlclose(h);
        }
    }

    // Faults that stop nothing of the daemon's (the client's own object) are
    // reported as warnings while this is set.
    bool soft = false;

    void error(const std::string& where, const std::string& msg) {
        if (soft) {
            warning(where, msg);
            return;
        }
        printf("%s: error: %s\n", where.c_str(), msg.c_str());
        errors++;
    }
    void warning(const std::string& where, const std::string& msg) {
        printf("%s: warning: %s\n", where.c_str(), msg.c_str());
        warnings++;
    }

    // Reads and parses path into src. A file that cannot be opened is
    // reported at from (where it was named), a syntax error where it is.
    // Returns 0, the errno of the open when it fails, or -1 for bad JSON.
    int load(const std::string& path, const std::string& from, source& src) {
        src.path = path;
        errno = 0;
        std::ifstream in(path);
        if (!in) {
            int err = errno != 0 ? errno : EIO;
            error(from, "cannot open \"" + path + "\": " + strerror(err));
            return err;
        }
        std::ostringstream text;
        text << in.rdbuf();  // sets failbit on an empty file, which parses as an error
        src.text = text.str();
        Json::CharReaderBuilder builder;  // the daemon's settings
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string errs;
        if (!reader->parse(src.text.data(), src.text.data() + src.text.size(), &src.root, &errs)) {
            // JsonCpp's first error reads "* Line L, Column C\n  message\n".
            int line = 1, col = 1, used = 0;
            sscanf(errs.c_str(), "* Line %d, Column %d\n  %n", &line, &col, &used);
            std::string msg = errs.substr(static_cast<size_t>(used));
            msg = msg.substr(0, msg.find('\n'));
            error(path + ":" + std::to_string(line) + ":" + std::to_string(col), msg);
            return -1;
        }
        return 0;
    }

    // Is v an object? (The daemon's key look-up throws on anything else.)
    bool object(const source& src, const Json::Value& v, const char* what) {
        if (v.isObject()) {
            return true;
        }
        error(src.at(v), std::string("expected an object (") + what + "), found " + json_kind(v));
        return false;
    }

    // Keys the daemon does not read in this scope (the client's own object
    // is not the daemon's, but it is no typo either).
    void unknown_keys(const source& src, const Json::Value& obj, config_scope scope) {
        for (auto it = obj.begin(); it != obj.end(); ++it) {
            std::string key = it.name(), hint;
            bool found = find_config_key(scope, key) != nullptr;
            for (const config_key& k : config_keys) {
                if (k.scope == scope && hint.empty() && near_miss(key, k.name)) {
                    hint = std::string(" (did you mean \"") + k.name + "\"?)";
                }
            }
            if (!found) {
                warning(src.at(*it), "unknown key \"" + key + "\" is ignored" + hint);
            }
        }
    }

    // The member id of obj, or null (reported when required).
    const Json::Value* member(const source& src, const Json::Value& obj, config_key_id id) {
        const char* key = key_name(id);
        const Json::Value* v = obj.find(key, key + strlen(key));
        if (v == nullptr && config_keys[id].required) {
            error(src.at(obj), std::string("missing key \"") + key + "\"");
        }
        return v;
    }

    // A whole number within the key's range.
    void integer(const source& src, const Json::Value& obj, config_key_id id) {
        const config_key& k = config_keys[id];
        if (const Json::Value* v = member(src, obj, id);
            v != nullptr && (!v->isInt() || v->asInt() < k.min || v->asInt() > k.max)) {
            error(src.at(*v), std::string("\"") + k.name + "\": expected a number from " +
                                  std::to_string(k.min) + " to " + std::to_string(k.max));
        }
    }

    // Text as asString() gives it: arrays and objects stop the daemon;
    // numbers, booleans and null are turned into text.
    bool text(const source& src, const Json::Value& obj, config_key_id id, std::string& out,
              bool quiet = false) {
        const char* key = key_name(id);
        const Json::Value* v = member(src, obj, id);
        if (v == nullptr) {
            return false;
        }
        if (v->isArray() || v->isObject()) {
            error(src.at(*v),
                  std::string("\"") + key + "\": expected a string, found " + json_kind(*v));
            return false;
        }
        out = v->asString();
        if (!v->isString() && !quiet) {
            warning(src.at(*v), std::string("\"") + key + "\": expected a string; " +
                                    json_kind(*v) + " is read as \"" + out + "\"");
        }
        return true;
    }

    // A command code or id: text, then std::stoi base 16 (trailing text
    // ignored, int32 range), stored unsigned.
    bool hex(const source& src, const Json::Value& obj, config_key_id id, uint32_t& out) {
        std::string t;
        if (!text(src, obj, id, t, true)) {
            return false;
        }
        const char* key = key_name(id);
        const Json::Value& v = obj[key];
        std::string name = std::string("\"") + key + "\": ";
        size_t used = 0;
        if (int rc = parse_hex_code(t, out, &used); rc != 0) {
            error(src.at(v),
                  name + "\"" + t +
                      (rc == -EINVAL ? "\" has no hexadecimal digits"
                                     : "\" is out of range (-0x80000000 to 0x7fffffff)"));
            return false;
        }
        char hexed[16];
        snprintf(hexed, sizeof hexed, "0x%x", out);
        if (!v.isString()) {
            warning(src.at(v), name + "expected a string; " + json_kind(v) + " is read as \"" + t +
                                   "\", that is " + hexed);
        } else if (used < t.size()) {
            warning(src.at(v), name + "\"" + t + "\" is read as " + hexed + "; \"" +
                                   t.substr(used) + "\" is ignored");
        }
        return true;
    }

    // A flag as asBool() takes it: strings, arrays and objects stop the
    // daemon; numbers and null are taken as their truth value.
    void flag(const source& src, const Json::Value& obj, config_key_id id) {
        const char* key = key_name(id);
        const Json::Value* v = member(src, obj, id);
        if (v == nullptr || v->isBool()) {
            return;
        }
        std::string name = std::string("\"") + key + "\": expected true or false";
        if (v->isString() || v->isArray() || v->isObject()) {
            error(src.at(*v), name + ", found " + json_kind(*v));
        } else {
            warning(src.at(*v), name + "; " + json_kind(*v) + " is read as " +
                                    (v->asBool() ? "true" : "false"));
        }
    }

    // A list the daemon walks by index: a non-empty object stops it, other
    // non-arrays read as empty.
    const Json::Value* list(const source& src, const Json::Value& obj, config_key_id id) {
        const char* key = key_name(id);
        const Json::Value* v = member(src, obj, id);
        if (v == nullptr || v->isArray()) {
            return v;
        }
        std::string name = std::string("\"") + key + "\": expected an array";
        if (v->isObject() && v->size() > 0) {
            error(src.at(*v), name + ", found an object");
        } else {
            warning(src.at(*v), name + "; " + json_kind(*v) + " is read as an empty list");
        }
        return nullptr;
    }

    void main_file(const source& src);
    void group(const source& src, const Json::Value& g, std::map<uint32_t, std::string>& codes);
    void command_list(const source& src);
    void entry(const source& src, const Json::Value& e, std::map<uint32_t, std::string>& ids);
    void monitored_file(const std::string& where, const std::string& path);
    void plugin(const source& src, const Json::Value& e, const std::string& lib,
                const std::string& sym);
    void security(const source& src, const Json::Value& sec);
    void client(const source& src, const Json::Value& cl);
    void key_file(const std::string& from, const std::string& path, key_kind kind);
    bool credential(const std::string& from, std::string& path);
};

void checker::main_file(const source& src) {
    if (!object(src, src.root, "the main configuration")) {
        return;
    }
    unknown_keys(src, src.root, config_scope::main);
    std::string t;
    text(src, src.root, key_mode, t);  // required; its value means nothing
    text(src, src.root, key_server_ip, t);
    integer(src, src.root, key_port);
    std::map<uint32_t, std::string> codes;  // code -> where the kept group is
    if (const Json::Value* subs = list(src, src.root, key_sub_configs)) {
        for (const Json::Value& g : *subs) {
            group(src, g, codes);
        }
    }
    if (const Json::Value* cl = member(src, src.root, key_client)) {
        client(src, *cl);
    }
    if (const Json::Value* sec = member(src, src.root, key_security)) {
        security(src, *sec);
    } else if (const Json::Value* ip = member(src, src.root, key_server_ip);
               ip != nullptr && ip->isString() && ip->asString().rfind("127.", 0) != 0 &&
               ip->asString() != "localhost" && ip->asString() != "::1") {
        // Nothing bounds what a plaintext peer can make the daemon hold.
        warning(src.at(*ip), "plaintext endpoint on \"" + ip->asString() +
                                 "\": anyone who reaches it is answered and can exhaust the "
                                 "daemon's memory; add \"security\" or listen on 127.0.0.1");
    }
}

void checker::group(const source& src, const Json::Value& g,
                    std::map<uint32_t, std::string>& codes) {
    if (!object(src, g, "a sub-configuration")) {
        return;
    }
    unknown_keys(src, g, config_scope::group);
    std::string cls, path;
    uint32_t code = 0;
    text(src, g, key_class, cls);
    bool has_code = hex(src, g, key_code, code);
    bool has_path = text(src, g, key_config, path);
    flag(src, g, key_group_disable);
    // The daemon opens and parses a duplicate's file too, but never reads
    // its commands.
    source sub;
    bool loaded = has_path && load(path, src.at(g[key_name(key_config)]), sub) == 0;
    bool kept = has_code;
    if (has_code && code == client_id_command) {
        error(src.at(g[key_name(key_code)]),
              "\"code\": 0xeaea is the built-in client-id group; this group is never served");
        kept = false;
    } else if (has_code && !codes.emplace(code, src.at(g)).second) {
        char msg[64];
        snprintf(msg, sizeof msg, "duplicate code 0x%x: ", code);
        error(src.at(g[key_name(key_code)]),
              msg + std::string("this group is never served (the daemon keeps the one at ") +
                  codes[code] + ")");
        kept = false;
    }
    if (kept) {
        groups++;
    }
    if (loaded && kept) {
        command_list(sub);
    }
}

void checker::command_list(const source& src) {
    if (!object(src, src.root, "a sub-configuration file")) {
        return;
    }
    unknown_keys(src, src.root, config_scope::sub);
    std::map<uint32_t, std::string> ids;
    if (const Json::Value* cmds = list(src, src.root, key_cmd_list)) {
        for (const Json::Value& e : *cmds) {
            entry(src, e, ids);
        }
    }
}

void checker::entry(const source& src, const Json::Value& e, std::map<uint32_t, std::string>& ids) {
    if (!object(src, e, "a command")) {
        return;
    }
    unknown_keys(src, e, config_scope::entry);
    std::string name, target, sym;
    uint32_t id = 0;
    text(src, e, key_entry_name, name);
    bool has_id = hex(src, e, key_id, id);
    const Json::Value* type = member(src, e, key_type);
    if (type != nullptr && !type->isString()) {
        error(src.at(*type),
              std::string("\"type\": expected \"file\" or \"custom\", found ") + json_kind(*type));
        type = nullptr;
    }
    if (type != nullptr && type->asString() == "file") {
        if (text(src, e, key_cmd_file, target)) {
            monitored_file(src.at(e[key_name(key_cmd_file)]), target);
        }
        flag(src, e, key_read_all);
    } else if (type != nullptr && type->asString() == "custom") {
        bool has_lib = text(src, e, key_lib, target);
        if (text(src, e, key_symbols, sym) && has_lib) {
            plugin(src, e, target, sym);
        }
        flag(src, e, key_detach);
        if (const Json::Value* all = member(src, e, key_read_all)) {
            warning(src.at(*all), "\"read-all\" has no effect on a custom command");
        }
    } else if (type != nullptr) {
        warning(src.at(*type),
                "unknown type \"" + type->asString() + "\": the daemon skips this command");
        return;
    }
    flag(src, e, key_disable);
    if (!has_id || type == nullptr) {
        return;
    }
    if (ids.emplace(id, src.at(e)).second) {
        commands++;
    } else {
        char msg[64];
        snprintf(msg, sizeof msg, "duplicate id 0x%x: ", id);
        error(src.at(e[key_name(key_id)]),
              msg + std::string("this command is never served (the daemon keeps the one at ") +
                  ids[id] + ")");
    }
}

// A fixed path must open now. A "$pid" path is tried with this process's
// id: other ids may differ, so failing is only a warning.
void checker::monitored_file(const std::string& where, const std::string& path) {
    std::string tried = path;
    size_t at = tried.find("$pid");
    if (at != std::string::npos) {
        tried.replace(at, 4, std::to_string(getpid()));
    }
    // O_NONBLOCK: a FIFO or device must not hang the check.
    int fd = open(tried.c_str(), O_RDONLY | O_NONBLOCK);
    int err = errno;
    struct stat st {};
    bool dir = fd >= 0 && fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
    if (fd >= 0) {
        close(fd);
    }
    if (fd >= 0 && !dir) {
        return;
    }
    std::string why = dir ? "is a directory" : strerror(err);
    if (at == std::string::npos) {
        error(where, "cannot read \"" + path + "\": " + why);
    } else {
        warning(where, "cannot read \"" + tried + "\" (\"$pid\" as this process's id): " + why);
    }
}

void checker::plugin(const source& src, const Json::Value& e, const std::string& lib,
                     const std::string& sym) {
    dlerror();
    void* h = dlopen(lib.c_str(), RTLD_LAZY);
    if (h == nullptr) {
        const char* why = dlerror();
        error(src.at(e[key_name(key_lib)]),
              "cannot load \"" + lib + "\": " + (why ? why : "unknown reason"));
        return;
    }
    libraries.push_back(h);
    dlerror();
    if (dlsym(h, sym.c_str()) == nullptr) {
        const char* why = dlerror();
        error(src.at(e[key_name(key_symbols)]), "no function \"" + sym + "\" in \"" + lib +
                                                    "\": " + (why ? why : "its address is null"));
    }
}

void checker::security(const source& src, const Json::Value& sec) {
    if (!object(src, sec, "\"security\"")) {
        return;
    }
    unknown_keys(src, sec, config_scope::security);
    if (zmq_has("curve") == 0) {
        error(src.at(sec), "\"security\": this libzmq has no CURVE support");
    }
    std::string path;
    if (text(src, sec, key_secret_key, path)) {
        const std::string from = src.at(sec[key_name(key_secret_key)]);
        if (credential(from, path)) {
            key_file(from, path, key_kind::secret);
        }
    }
    if (text(src, sec, key_authorized_keys, path)) {
        key_file(src.at(sec[key_name(key_authorized_keys)]), path, key_kind::authorized);
    }
    integer(src, sec, key_max_client_ids);
}

// A path under /run/credentials/UNIT/ exists only while UNIT runs, as
// systemd's copy of a root-only file (LoadCredential=): outside the service
// the file it copies is checked instead, path then naming it. False when
// nothing is left to check (reported here).
bool checker::credential(const std::string& from, std::string& path) {
    const size_t unit_end = path.find('/', sizeof credentials_dir - 1);
    if (path.compare(0, sizeof credentials_dir - 1, credentials_dir) != 0 ||
        unit_end == std::string::npos || access(path.c_str(), F_OK) == 0) {
        return true;
    }
    const std::string unit =
        path.substr(sizeof credentials_dir - 1, unit_end - (sizeof credentials_dir - 1));
    const std::string name = path.substr(unit_end + 1);
    std::string unit_file;
    const std::string host = credential_source(unit, name, unit_file);
    const std::string only = "\"" + path + "\" exists only while " + unit + " runs";
    if (host.empty()) {
        error(from,
              only + ", and " +
                  (unit_file.empty() ? "no unit file " + unit + " is installed"
                                     : unit_file + " has no LoadCredential=" + name + ":FILE") +
                  " to fill it");
        return false;
    }
    if (access(host.c_str(), F_OK) != 0) {
        error(from, only + ": cannot open \"" + host + "\" that LoadCredential= in " + unit_file +
                        " copies there: " + strerror(errno));
        return false;
    }
    const bool readable = access(host.c_str(), R_OK) == 0;
    warning(from, only + ": LoadCredential= in " + unit_file + " copies \"" + host + "\" there, " +
                      (readable ? "checked instead" : "which this user cannot read (check it as root)"));
    path = host;
    return readable;
}

// The client's own keys, each path with ~ as the client reads it. The
// daemon ignores the object, so its faults are warnings.
void checker::client(const source& src, const Json::Value& cl) {
    if (!object(src, cl, "\"client\"")) {
        return;
    }
    soft = true;
    unknown_keys(src, cl, config_scope::client);
    std::string path;
    if (text(src, cl, key_server_key, path) &&
        (!is_z85_key(path) || access(path.c_str(), F_OK) == 0)) {
        key_file(src.at(cl[key_name(key_server_key)]), expand_home(path), key_kind::server_public);
    }
    if (text(src, cl, key_client_key, path)) {
        key_file(src.at(cl[key_name(key_client_key)]), expand_home(path), key_kind::secret);
    }
    soft = false;
}

// A key file, or an authorized-keys file, by the daemon's readers: each
// fault at its line and column.
void checker::key_file(const std::string& from, const std::string& path, key_kind kind) {
    const bool secret = kind == key_kind::secret;
    std::ifstream in(path);
    if (!in) {
        error(from, "cannot open \"" + path + "\": " + strerror(errno));
        return;
    }
    struct stat st {};
    if (secret && stat(path.c_str(), &st) == 0 && (st.st_mode & 077) != 0) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", st.st_mode & 0777);
        warning(from, "\"" + path + "\" is open to other users (mode " + mode + ", expected 0600)");
    }
    if (kind != key_kind::authorized) {
        std::string key, why;
        int line = 0;
        if (read_key_text(in, key, why, line) != 0) {
            if (line > 0) {
                error(path + ":" + std::to_string(line) + ":1", why);
            } else {
                error(from, "no key in \"" + path + "\"");
            }
        }
        return;
    }
    key_table keys;
    std::vector<key_problem> problems;
    parse_authorized_keys(in, keys, problems);
    for (const key_problem& p : problems) {
        error(path + ":" + std::to_string(p.line) + ":" + std::to_string(p.column), p.message);
    }
}

std::string count(size_t n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

}  // namespace

int run_check_config(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(usage_line, stdout);
        return fflush(stdout) == 0 && !ferror(stdout) ? client_exit::ok : client_exit::output;
    }
    if (argc != 2) {
        fprintf(stderr, "vireo-client: check-config takes one file; %s", usage_line);
        return client_exit::usage;
    }
    if (strcmp(argv[1], "--keys") == 0) {  // every key the daemon and the client read
        fputs(config_keys_text().c_str(), stdout);
        return fflush(stdout) == 0 && !ferror(stdout) ? client_exit::ok : client_exit::output;
    }
    checker ck;
    source main_src;
    int loaded = ck.load(argv[1], argv[1], main_src);
    if (loaded == 0) {
        ck.main_file(main_src);
    }
    printf("%s: %s, %s; %s, %s\n", argv[1], count(static_cast<size_t>(ck.errors), "error").c_str(),
           count(static_cast<size_t>(ck.warnings), "warning").c_str(),
           count(ck.groups, "group").c_str(), count(ck.commands, "command").c_str());
    if (fflush(stdout) != 0 || ferror(stdout)) {
        return client_exit::output;
    }
    if (loaded > 0) {
        return client_exit::config;
    }
    return ck.errors > 0 ? exit_problems : client_exit::ok;
}
