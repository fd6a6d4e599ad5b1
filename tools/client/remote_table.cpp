#include "remote_table.h"

#include <sstream>

namespace {

// The fields of one line; false when there are not exactly six.
bool split_tabs(const std::string& line, std::vector<std::string>& f) {
    f.clear();
    size_t start = 0;
    for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
        f.push_back(line.substr(start, tab - start));
    }
    f.push_back(line.substr(start));
    return f.size() == 6;
}

}  // namespace

int parse_remote_table(const std::string& text, std::vector<client_cmd>& cmds, std::string& why) {
    cmds.clear();
    std::istringstream in(text);
    std::vector<std::string> f;
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        n++;
        if (line.empty() || line[0] == '#' || line == "... truncated") {
            continue;
        }
        client_cmd c;
        if (!split_tabs(line, f) || !parse_hex_arg(f[0], c.code) || !parse_hex_arg(f[1], c.id) ||
            (f[2] != "file" && f[2] != "$pid file" && f[2] != "custom")) {
            why = "line " + std::to_string(n) + " of the board's command table is not " +
                  "CODE ID KIND CLASS NAME TARGET: " + line;
            return client_malformed;
        }
        c.kind = f[2];
        c.cls = f[3];
        c.name = f[4];
        c.target = f[5];
        cmds.push_back(c);
    }
    return 0;
}

int fetch_remote_table(client_conn& conn, client_config& cfg, std::string& why, uint32_t code,
                       uint32_t id) {
    client_reply r;
    if (int rc = conn.request(code, id, {}, r, why); rc != 0) {
        return rc;
    }
    int32_t status = r.header().msg_len;
    if (status < 0) {
        why = "the board gave no command table: " + std::to_string(status) + " (" +
              status_text(status) + ")";
        return remote_no_table;
    }
    return parse_remote_table(r.payload, cfg.cmds, why);
}

int load_remote_config(const std::string& endpoint, int timeout_ms, const client_keys& keys,
                       client_config& cfg, std::string& why, uint32_t code, uint32_t id) {
    client_conn conn(endpoint, timeout_ms, keys);
    if (int rc = conn.open(why); rc != 0) {
        return rc;
    }
    return fetch_remote_table(conn, cfg, why, code, id);
}
