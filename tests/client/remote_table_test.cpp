// The command table through the real daemon and the real describe plug-in,
// for a client without the board's files: the same commands as a local
// reading of them gives for --list.
#include "remote_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>

#include "client_run.h"

namespace {

// The daemon runs in the folder of its files, named by relative paths, which
// do not resolve from the test's folder.
TEST(remote_table, what_the_board_serves) {
    temp_dir dir;
    int port = free_port();
    const std::string ep = "tcp://127.0.0.1:" + std::to_string(port);
    dir.write("a.json", R"({"cmd-list": [
        {"name": "meminfo", "id": "1", "type": "file", "file": "/proc/meminfo"},
        {"name": "status", "id": "0x2", "type": "file", "file": "/proc/$pid/status", "read-all": true},
        {"name": "again", "id": "01", "type": "file", "file": "/dev/null"},
        {"name": "odd", "id": "3", "type": "pipe", "file": "/dev/null"},
        {"name": "tab	name", "id": "a", "type": "custom", "lib": "absent.so", "symbols": "f"}]})");
    dir.write(
        "b.json",
        R"({"cmd-list": [{"name": "shadowed", "id": "1", "type": "file", "file": "/dev/null"}]})");
    dir.write(
        "board.json",
        R"({"cmd-list": [{"name": "commands", "id": "1", "type": "custom", "lib": ")" VIREO_DESCRIBE_SO
        R"(", "symbols": "describe_commands"}]})");
    dir.write("main.json", R"({"mode": "m", "server_ip": "127.0.0.1", "port": )" +
                               std::to_string(port) + R"(, "sub-configs": [
        {"class": "sys", "code": "10", "config": "a.json"}, {"class": "dup", "code": "0x10", "config": "b.json"},
        {"class": "board", "code": "DE5C", "config": "board.json", "disable": true}]})");
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    daemon_process d({"-c", "main.json"});
    client_config local;
    std::string why;
    int local_rc = load_client_config("main.json", local, why);
    ASSERT_EQ(chdir(here), 0);
    ASSERT_EQ(local_rc, 0) << why;
    ASSERT_TRUE(d.wait_ready(ep)) << d.stderr_text();
    client_config none;
    EXPECT_NE(load_client_config(dir.path() + "/main.json", none, why), 0);  // as --list: 78

    client_config remote;
    ASSERT_EQ(load_remote_config(ep, 5000, {}, remote, why), 0) << why;
    ASSERT_EQ(remote.cmds.size(), 4u);
    EXPECT_EQ(remote.cmds[2].name, "tab?name");
    EXPECT_EQ(remote.cmds[2].target, "absent.so:f");
    ASSERT_EQ(local.cmds.size(), remote.cmds.size());
    for (size_t i = 0; i < local.cmds.size(); i++) {
        const client_cmd &l = local.cmds[i], &r = remote.cmds[i];
        EXPECT_EQ(l.cls + "." + (i == 2 ? "tab?name" : l.name) + " " + l.kind + " " + l.target,
                  r.cls + "." + r.name + " " + r.kind + " " + r.target);
        EXPECT_EQ(l.code, r.code) << i;
        EXPECT_EQ(l.id, r.id) << i;
    }
    // The client without the board's files: --list and names from the board,
    // found through -e or through a main file whose sub-configurations do
    // not resolve from here.
    const std::string listed = "sys.meminfo              0x10       0x1        file      /proc/meminfo\n";
    for (const std::string& where : {"-e " + ep, "-c " + dir.path() + "/main.json"}) {
        run_result got = run_client(where + " --list");
        EXPECT_TRUE(got.status == 0 && got.out.find(listed) != std::string::npos) << where << got.err;
        got = run_client(where + " sys.meminfo");
        EXPECT_TRUE(got.status == 0 && got.out.rfind("MemTotal:", 0) == 0) << where << got.err;
    }
    expect_run("-e " + ep + " sys.nothing", 64, "", "no command named sys.nothing in " + ep);
    // A board without the command says so with its status.
    EXPECT_EQ(load_remote_config(ep, 5000, {}, remote, why, 0x77, 1), remote_no_table);
    EXPECT_NE(why.find("-22"), std::string::npos) << why;
    EXPECT_EQ(parse_remote_table("0x10\t0x1\tfile\ta\tb\t/x\n0x10\t1\tfile\n", remote.cmds, why),
              client_malformed);
    EXPECT_NE(why.find("line 2"), std::string::npos) << why;
}

}  // namespace
