// The request that the words of a command line name: CODE SUB, CLASS.NAME,
// take-id or return-id N.
#include "client_cli.h"
#include "wire/probe_codes.h"

namespace {

// Words that stand where a command name may.
const std::vector<std::string> request_words = {"take-id", "return-id", "keygen", "profile",
                                                "check-config", "ps"};

// CLASS.NAME looked up in the configuration; 0, -1 or -2 as make_spec.
int named_request(const std::string& name, const client_config* cfg, const std::string& cfg_path,
                  const std::string& cfg_error, request_spec& r, std::string& why) {
    if (name.find('.') == std::string::npos) {
        why = "\"" + name + "\" is neither CODE SUB nor CLASS.NAME";
        return -1;
    }
    if (cfg == nullptr) {
        why = cfg_error.empty() ? "a command name (" + name + ") needs -c MAIN.json" : cfg_error;
        return cfg_error.empty() ? -1 : -2;
    }
    const client_cmd* c = find_cmd(*cfg, name);
    if (c == nullptr) {
        std::vector<std::string> names;
        for (const client_cmd& k : cfg->cmds) {
            names.push_back(k.cls + "." + k.name);
        }
        why = "no command named " + name + " in " + cfg_path + did_you_mean(name, names);
        return -1;
    }
    r.command = c->code;
    r.sub_command = c->id;
    r.cmd = c;
    return 0;
}

// Does the command read a process id from the request? A "$pid" file, or a
// function of the probe plug-in, whose every request names a process.
bool reads_pid(const client_cmd* c) {
    return c != nullptr &&
           (c->kind == "$pid file" || c->target.find("vireo_probe") != std::string::npos);
}

// take-id, or return-id N; 0 or -1 as make_spec.
int id_request(const std::vector<std::string>& a, request_spec& r, std::string& why) {
    r.command = client_id_command;
    if (a[0] == "take-id") {
        r.sub_command = take_id_sub;
        r.take_id = true;
        return 0;
    }
    unsigned long id = 0;
    if (!parse_ulong(a[1], 255, id)) {
        why = "return-id needs a client id from 0 to 255, not \"" + a[1] + "\"";
        return -1;
    }
    r.sub_command = return_id_sub;
    r.payload = {static_cast<uint8_t>(id)};
    r.label += " " + a[1];
    return 0;
}

}  // namespace

int make_spec(const options& o, const client_config* cfg, const std::string& cfg_path,
              const std::string& cfg_error, request_spec& r, std::string& why) {
    const std::vector<std::string>& a = o.args;
    const bool id_cmd = a[0] == "take-id" || a[0] == "return-id";
    if (id_cmd && o.payload_opts > 0) {
        why = a[0] + " takes no --pid, --byte or --hex";
        return -1;
    }
    r.payload = o.payload;
    if (o.raw_asked()) {
        // Bytes 8..11: the probe's flags, bit 0 asking for markup.
        r.payload.resize(12, 0);
        r.payload[8] = 1;
    }
    r.label = a[0];
    if (a.size() == (a[0] == "take-id" ? 1u : 2u) && id_cmd) {
        return id_request(a, r, why);
    }
    uint32_t code = 0;
    if (!id_cmd && a[0].find('.') == std::string::npos && !parse_hex_arg(a[0], code)) {
        why = "unknown request \"" + a[0] + "\"" + did_you_mean(a[0], request_words);
        return -1;
    }
    if (a.size() == 1 && !id_cmd) {
        return named_request(a[0], cfg, cfg_path, cfg_error, r, why);
    }
    if (a.size() == 2 && !id_cmd) {
        if (!parse_hex_arg(a[0], r.command) || !parse_hex_arg(a[1], r.sub_command)) {
            why = "CODE and SUB are hexadecimal (\"0x10\", \"10\"), not \"" + a[0] + "\" \"" +
                  a[1] + "\"";
            return -1;
        }
        r.label = a[0] + " " + a[1];
        for (size_t i = 0; cfg != nullptr && i < cfg->cmds.size() && r.cmd == nullptr; i++) {
            const client_cmd& c = cfg->cmds[i];
            r.cmd = c.code == r.command && c.id == r.sub_command ? &c : nullptr;
        }
        return 0;
    }
    why = "cannot make a request of \"" + a[0] + "\"" + (a.size() > 1 ? " and what follows" : "");
    return -1;
}

std::string status_hint(const request_spec& r, int32_t status) {
    const bool pid_file = r.cmd != nullptr && r.cmd->kind == "$pid file";
    // Without a payload a "$pid" path names pid 0 and the probe refuses the
    // request: the daemon's code tells neither.
    if (r.payload.empty() &&
        (status == probe_bad_request || (reads_pid(r.cmd) && (status == -2 || status == -22)))) {
        return ": no --pid given";
    }
    const size_t at = pid_file ? r.cmd->target.find("$pid") : std::string::npos;
    if (at != std::string::npos && status == -2 && r.payload.size() >= 4) {
        const std::string pid = std::to_string(u8_to_u32(r.payload.data()));
        const std::string path = std::string(r.cmd->target).replace(at, 4, pid);
        return ": " + path + " (no process " + pid +
               " on the board, or not readable by the daemon)";
    }
    return "";
}
