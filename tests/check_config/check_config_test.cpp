// vireo-client check-config on broken configurations: the exact line each
// problem gets and the exit status, through the real binary.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "test_util.h"

namespace {

std::string replace_all(std::string s, const std::string& from, const std::string& to) {
    for (size_t at; (at = s.find(from)) != std::string::npos;) {
        s.replace(at, from.size(), to);
    }
    return s;
}

// One row per problem: the main file's groups (GOOD is the working group)
// and extra keys, the sub-configuration's entries (ENTRY is a working one),
// the first line printed and the exit status. Files are one line each, so a
// column is an offset; the checker runs in their directory.
TEST(check_config, reports_each_problem_where_it_is) {
    const std::string good = R"({"class": "c", "code": "10", "config": "sub.json"})";
    const std::string entry = R"({"name": "n", "id": "1", "type": "file", "file": "sub.json"})";
    const std::string lib = test_plugin_dir() + "/libvireo_test_plugin.so";
    // clang-format off
    struct { const char* groups; const char* keys; const char* entries; const char* want; int status; } rows[] = {
        {"GOOD", "", "ENTRY", "main.json: 0 errors, 0 warnings; 1 group, 1 command", 0},
        {"GOOD", "-", "ENTRY", R"(main.json:1:1: error: missing key "mode")", 1},
        {R"({"class": "c", "code": "zz", "config": "sub.json"})", "", "ENTRY", R"(main.json:1:94: error: "code": "zz" has no hexadecimal digits)", 1},
        {R"(GOOD, {"class": "d", "code": "0x10", "config": "sub.json"})", "", "ENTRY",
         R"(main.json:1:146: error: duplicate code 0x10: this group is never served (the daemon keeps the one at main.json:1:71))", 1},
        {R"({"class": "c", "code": "10", "config": "nope.json"})", "", "ENTRY", R"(main.json:1:110: error: cannot open "nope.json": No such file or directory)", 1},
        {"GOOD", "", R"({"name": "n" "id": "1"})", R"(sub.json:1:28: error: Missing ',' or '}' in object declaration)", 1},
        {"GOOD", "", "ENTRY, ENTRY", R"(sub.json:1:97: error: duplicate id 0x1: this command is never served (the daemon keeps the one at sub.json:1:15))", 1},
        {"GOOD", "", R"(ENTRY, {"name": "n", "id": "2", "type": "File"})", R"(sub.json:1:110: warning: unknown type "File": the daemon skips this command)", 0},
        {"GOOD", "", R"({"name": "n", "id": "1", "type": "file", "file": "sub.json", "read-all": "yes"})", R"(sub.json:1:88: error: "read-all": expected true or false, found a string)", 1},
        {"GOOD", "", R"({"name": "n", "id": "1", "type": "custom", "symbols": "nope", "lib": "LIB"})",
         "sub.json:1:69: error: no function \"nope\" in \"LIB\": LIB: undefined symbol: nope", 1},
        {"GOOD", R"("security": {"secret-key": "no.key", "authorized-keys": "sub.json"}, )", "ENTRY",
         R"(main.json:1:82: error: cannot open "no.key": No such file or directory)", 1},
        {"GOOD", R"("security": {"secret-key": "server.key", "authorized-keys": "twice.keys"}, )", "ENTRY",
         "twice.keys:2:1: error: key listed twice", 1},
        {"GOOD", "unreadable", "ENTRY", R"(nothing.json: error: cannot open "nothing.json": No such file or directory)", 78},
        {"GOOD", "--keys", "ENTRY", "main file\t\"mode\"\ttext\trequired\tfree text, kept and not interpreted", 0},
        // The service's copy of a root-only key: its source is checked, by the unit's LoadCredential=.
        {"GOOD", R"("security": {"secret-key": "/run/credentials/vireo-monitor.service/server.key", "authorized-keys": "one.keys"}, )", "ENTRY",
         R"(main.json:1:82: warning: "/run/credentials/vireo-monitor.service/server.key" exists only while vireo-monitor.service runs: LoadCredential= in DIR/vireo-monitor.service copies "DIR/server.key" there, checked instead)", 0},
        // The client's own keys, ~ as the home folder (HOME is the directory); faults are warnings.
        {"GOOD", R"("client": {"server-key": "~/server.key", "key": "~/server.key"}, )", "ENTRY", "main.json: 0 errors, 0 warnings; 1 group, 1 command", 0},
        {"GOOD", R"("client": {"server-key": "~/absent.pub"}, )", "ENTRY", R"(main.json:1:80: warning: cannot open "DIR/absent.pub": No such file or directory)", 0},
        {"GOOD", "LAN", "ENTRY", R"(main.json:1:28: warning: plaintext endpoint on "0.0.0.0": anyone who reaches it is answered and can exhaust the daemon's memory; add "security" or listen on 127.0.0.1)", 0}};
    // clang-format on
    for (const auto& row : rows) {
        temp_dir dir;
        std::string keys = row.keys,
                    main_file = keys == "unreadable" ? "nothing.json" : keys == "--keys" ? keys : "main.json";
        std::string head = keys == "-" ? "" : R"("mode": "m", )";
        dir.write("main.json",
                  "{" + head + R"("server_ip": ")" + (keys == "LAN" ? "0.0.0.0" : "127.0.0.1") +
                      R"(", "port": 6600, )" +
                      (keys == "-" || keys == "unreadable" || keys == "LAN" || keys == "--keys" ? "" : keys) +
                      R"("sub-configs": [)" + replace_all(row.groups, "GOOD", good) + "]}");
        dir.write("sub.json",
                  R"({"cmd-list": [)" +
                      replace_all(replace_all(row.entries, "ENTRY", entry), "LIB", lib) + "]}");
        // A valid key, and an authorized-keys file that lists it twice.
        const std::string key = "0123456789abcdefghij0123456789abcdefghij";
        chmod(dir.write("server.key", key + "\n").c_str(), 0600);
        dir.write("twice.keys", key + " a *\n" + key + " b 10\n");
        dir.write("one.keys", key + " a *\n");
        dir.write("vireo-monitor.service", "[Service]\nLoadCredential=server.key:" + dir.path() + "/server.key\n");
        std::string out = dir.path() + "/out";
        int st = system(("cd " + dir.path() + " && HOME=" + dir.path() + " SYSTEMD_UNIT_PATH=" + dir.path() +
                         " timeout -s KILL 20 " VIREO_CLIENT_BIN " check-config " + main_file +
                         " >" + out)
                            .c_str());
        std::string got = read_text_file(out);
        EXPECT_EQ(got.substr(0, got.find('\n')), replace_all(replace_all(row.want, "LIB", lib), "DIR", dir.path())) << got;
        EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, row.status) << got;
    }
}

}  // namespace
