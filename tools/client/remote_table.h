// The command table a board serves itself (the describe plug-in's reply),
// for a client that has no copy of the board's configuration files.
#pragma once

#include <string>
#include <vector>

#include "vireo_client.h"

// Where the shipped configurations serve the table: group "board", command
// "commands".
constexpr uint32_t describe_code = 0xDE5C;
constexpr uint32_t describe_id = 1;
// The board answered the table request with a negative status (ENODATA).
constexpr int remote_no_table = -61;

// Parses the reply text: one line per command, code, id, kind, class, name
// and target separated by tabs, codes and ids in hexadecimal; lines starting
// with '#' and a last "... truncated" line are skipped. Returns 0 with cmds
// in the board's order, or client_malformed with why naming the first bad
// line.
int parse_remote_table(const std::string& text, std::vector<client_cmd>& cmds, std::string& why);

// Asks the board on conn for its table (command code.id) and fills
// cfg.cmds; the rest of cfg is left as it is. Returns 0; a result of
// client_conn::request; client_malformed; or remote_no_table when the board
// answers with a negative status (-22: it serves no such command), which
// why names.
int fetch_remote_table(client_conn& conn, client_config& cfg, std::string& why,
                       uint32_t code = describe_code, uint32_t id = describe_id);

// The same on a connection of its own to endpoint, for --list and command
// names when no local configuration resolves. Returns 0, a result of
// client_conn::open, or one of fetch_remote_table.
int load_remote_config(const std::string& endpoint, int timeout_ms, const client_keys& keys,
                       client_config& cfg, std::string& why, uint32_t code = describe_code,
                       uint32_t id = describe_id);
