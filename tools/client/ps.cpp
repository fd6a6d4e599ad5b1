// vireo-client ps, and --pid NAME / --name NAME: the board's processes as
// the probe's process list tells them ("PID\tPPID\tNAME\tSTATE\tCMDLINE").
#include <json/json.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "client_cli.h"

namespace {

struct ps_row {
    uint32_t pid = 0;
    uint32_t ppid = 0;
    std::string name;
    std::string state;
    std::string cmdline;
};

// The fields of one line; false unless there are five with numeric ids.
bool parse_row(const std::string& line, ps_row& row) {
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t tab; f.size() < 4 && (tab = line.find('\t', start)) != std::string::npos;
         start = tab + 1) {
        f.push_back(line.substr(start, tab - start));
    }
    f.push_back(line.substr(start));
    unsigned long pid = 0, ppid = 0;
    if (f.size() != 5 || !parse_ulong(f[0], 0x7FFFFFFF, pid) ||
        !parse_ulong(f[1], 0x7FFFFFFF, ppid) || f[3].size() != 1) {
        return false;
    }
    row = {static_cast<uint32_t>(pid), static_cast<uint32_t>(ppid), f[2], f[3], f[4]};
    return true;
}

// Asks for the list (filter: the board's pattern, empty for all) and parses
// it; client_exit::ok, else an exit status after a message naming label.
int fetch_rows(client_conn& conn, const ps_command& cmd, const std::string& filter,
               const std::string& label, std::vector<ps_row>& rows) {
    client_reply r;
    std::string why;
    int rc =
        conn.request(cmd.code, cmd.id, std::vector<uint8_t>(filter.begin(), filter.end()), r, why);
    if (rc == client_interrupted) {
        return client_exit::signalled + stop_signal;
    }
    if (rc != 0) {
        fprintf(
            stderr, "vireo-client: %s%s\n",
            rc == client_malformed ? ("malformed reply from " + conn.endpoint + ": ").c_str() : "",
            why.c_str());
        return client_exit::of_result(rc);
    }
    if (int32_t status = r.header().msg_len; status < 0) {
        fprintf(stderr, "vireo-client: %s: process list 0x%x 0x%x: error %d (%s)\n", label.c_str(),
                cmd.code, cmd.id, status, status_text(status).c_str());
        return client_exit::status;
    }
    std::istringstream in(r.payload);
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        n++;
        ps_row row;
        if (line == "... truncated") {
            continue;
        }
        if (!parse_row(line, row)) {
            fprintf(stderr,
                    "vireo-client: malformed reply from %s: line %d of the process list is not "
                    "PID PPID NAME STATE CMDLINE: %s\n",
                    conn.endpoint.c_str(), n, line.c_str());
            return client_exit::malformed;
        }
        rows.push_back(row);
    }
    return client_exit::ok;
}

std::string first_word_base(const std::string& cmdline) {
    std::string word = cmdline.substr(0, cmdline.find(' '));
    return word.substr(word.rfind('/') + 1);
}

// JSON carries text only: bytes of another encoding become '?'.
std::string json_text(std::string s) {
    if (!valid_utf8(s)) {
        for (char& ch : s) {
            ch = static_cast<unsigned char>(ch) >= 0x80 ? '?' : ch;
        }
    }
    return s;
}

int print_rows(const std::vector<ps_row>& rows, bool json) {
    if (json) {
        Json::Value list(Json::arrayValue);
        for (const ps_row& p : rows) {
            Json::Value e(Json::objectValue);
            e["pid"] = p.pid;
            e["ppid"] = p.ppid;
            e["name"] = json_text(p.name);
            e["state"] = p.state;
            e["cmdline"] = json_text(p.cmdline);
            list.append(e);
        }
        Json::StreamWriterBuilder w;
        w["indentation"] = "";
        w["emitUTF8"] = true;
        fputs((Json::writeString(w, list) + "\n").c_str(), stdout);
        return flush_output();
    }
    printf("%7s %7s %s %-15s %s\n", "PID", "PPID", "S", "NAME", "CMDLINE");
    for (const ps_row& p : rows) {
        // A kernel thread has no command line: its name in brackets, as ps shows it.
        const std::string cmd = p.cmdline.empty() ? "[" + p.name + "]" : p.cmdline;
        printf("%7u %7u %s %-15s %s\n", p.pid, p.ppid, p.state.c_str(), p.name.c_str(),
               cmd.c_str());
    }
    return flush_output();
}

}  // namespace

ps_command find_ps_command(const client_config* cfg) {
    ps_command cmd;
    if (const client_cmd* c = cfg != nullptr ? find_cmd(*cfg, "probe.ps") : nullptr) {
        cmd.code = c->code;
        cmd.id = c->id;
    }
    return cmd;
}

int check_ps_args(const options& o, std::string& why) {
    if (o.args.size() > 2) {
        why = "ps takes at most one PATTERN";
    } else if (o.payload_opts > 0 || o.watch || o.count > 0) {
        why = "ps takes none of --pid, --name, --byte, --hex, --watch and --count";
    }
    return why.empty() ? 0 : -1;
}

int run_ps(client_conn& conn, const ps_command& cmd, const options& o) {
    std::vector<ps_row> rows;
    int rc = fetch_rows(conn, cmd, o.args.size() > 1 ? o.args[1] : "", "ps", rows);
    return rc != client_exit::ok ? rc : print_rows(rows, o.json);
}

int resolve_pid_name(client_conn& conn, const ps_command& cmd, const std::string& name,
                     uint32_t& pid) {
    // The board matches shell patterns: quoted, the name matches only itself.
    std::string quoted;
    for (char ch : name) {
        quoted += std::string(ch == '*' || ch == '?' || ch == '[' || ch == '\\' ? "\\" : "") + ch;
    }
    std::vector<ps_row> rows;
    if (int rc = fetch_rows(conn, cmd, quoted, name, rows); rc != client_exit::ok) {
        return rc;
    }
    // The name (comm) first; a name longer than the kernel keeps (15 bytes)
    // is found by the command's file name.
    std::vector<const ps_row*> by_name, by_file;
    for (const ps_row& p : rows) {
        (p.name == name ? by_name : by_file).push_back(&p);
    }
    by_file.erase(
        std::remove_if(by_file.begin(), by_file.end(),
                       [&](const ps_row* p) { return first_word_base(p->cmdline) != name; }),
        by_file.end());
    const std::vector<const ps_row*>& match = by_name.empty() ? by_file : by_name;
    if (match.size() == 1) {
        pid = match[0]->pid;
        return client_exit::ok;
    }
    if (match.empty()) {
        fprintf(stderr, "vireo-client: no process %s on the board %s\n", name.c_str(),
                conn.endpoint.c_str());
        return client_exit::status;
    }
    fprintf(stderr, "vireo-client: %zu processes on the board are named %s; give one by --pid:\n",
            match.size(), name.c_str());
    for (const ps_row* p : match) {
        const std::string shown = p->cmdline.empty() ? "[" + p->name + "]" : p->cmdline;
        fprintf(stderr, "%u %s\n", p->pid, shown.c_str());
    }
    return client_exit::usage;
}
