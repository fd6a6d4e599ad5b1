// Loading configuration files into the model: conversions, the exact log
// lines of each failure, duplicates, plug-in loading, and the shipped samples.
#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "config_parser.h"
#include "log_capture.h"
#include "server_comm.h"
#include "test_util.h"

// Bumped by libvireo_test_counting.so when it is loaded and unloaded.
extern "C" {
int vireo_test_loads = 0;
int vireo_test_unloads = 0;
}

namespace {
using text_list = std::vector<std::string>;

// In case texts, "@D" stands for the case's directory, "@P" for the plug-ins.
std::string expand(std::string s, const std::string& dir) {
    for (const auto& [key, value] : {std::make_pair("@D", dir), std::make_pair("@P", test_plugin_dir())}) {
        for (size_t at; (at = s.find(key)) != std::string::npos;) s.replace(at, 2, value);
    }
    return s;
}

// The model on one line, groups and commands sorted:
// "mode@ip:port | code name file[ off]: id=name,kind,path-or-symbol[,detach][,off] ...".
// A "!" marks a map key that differs from the element's own code or id.
std::string dump(const main_config& m) {
    static const char* kinds[] = {"file", "dyn", "custom"};
    std::ostringstream os;
    os << m.mode << "@" << m.ip << ":" << m.port << std::hex;
    for (const auto& [code, sc] : std::map<uint32_t, std::shared_ptr<sub_config>>(m.subs_map.begin(), m.subs_map.end())) {
        os << " | " << code << (code == sc->code ? " " : "!") << sc->name << " "
           << sc->sub_file.substr(sc->sub_file.rfind('/') + 1) << (sc->enabled ? "" : " off") << ":";
        for (const auto& [id, c] : std::map<uint32_t, std::shared_ptr<mon_cmd>>(sc->cmds.begin(), sc->cmds.end())) {
            bool custom = c->type == CUSTOM_TYPE;
            os << " " << id << (id == c->id ? "=" : "!") << c->name << "," << kinds[c->type] << ","
               << (custom ? c->cust_t.symbol : c->file_t.mon_file) << (custom && c->cust_t.detach ? ",detach" : "")
               << (c->enabled ? "" : ",off");
        }
    }
    return os.str();
}

// An expected text may hold one "*": any text on the same line.
bool line_matches(const std::string& want, const std::string& got) {
    size_t star = want.find('*');
    if (star == std::string::npos) return want == got;
    std::string pre = want.substr(0, star), post = want.substr(star + 1);
    return got.size() > pre.size() + post.size() && got.compare(0, pre.size(), pre) == 0 &&
           got.compare(got.size() - post.size(), post.size(), post) == 0 && got.find('\n') == got.size() - 1;
}

void expect_lines(const log_capture& log, const text_list& want) {
    std::vector<log_line> got = log.lines();
    std::ostringstream all;
    for (const log_line& l : got) all << "\n  " << l;
    ASSERT_EQ(got.size(), want.size()) << "logged:" << all.str();
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_TRUE(got[i].priority == ANDROID_LOG_ERROR && got[i].tag == "MONITOR_CONFIG" &&
                    line_matches(want[i], got[i].text))
            << "line " << i << " wanted \"" << want[i] << "\", logged:" << all.str();
    }
}

// Builders for the case files.
const std::string head = R"("mode": "server", "server_ip": "127.0.0.1", "port": 6600)";
std::string main_of(const std::string& groups, const std::string& h = head) {
    return "{" + h + R"(, "sub-configs": [)" + groups + "]}";
}
std::string group(const std::string& code, const std::string& file = "a.json", const std::string& extra = "") {
    return R"({"class": "g", "code": )" + code + R"(, "config": "@D/)" + file + "\"" + extra + "}";
}
std::string cmd_list(const std::string& entries) { return R"({"cmd-list": [)" + entries + "]}"; }
std::string file_cmd(const std::string& id, const std::string& path, const std::string& extra = "") {
    return R"({"name": "m", "id": )" + id + R"(, "type": "file", "file": ")" + path + "\"" + extra + "}";
}
const std::string custom_cmd =
    R"({"name": "c", "id": "2", "type": "custom", "lib": "@P/libvireo_test_plugin.so", "symbols": "plugin_echo"})";
// Drops a key by renaming it: unknown keys are ignored.
std::string without(std::string text, const std::string& key) {
    return text.replace(text.find("\"" + key + "\":"), key.size() + 2, "\"" + key + "-gone\"");
}

const std::string meminfo = cmd_list(file_cmd(R"("1")", "/proc/meminfo"));
const std::string one_group = "server@127.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo";
const std::string main_fail = "Exception caught: * in @D/main.json\n";
const std::string sub_fail = "Exception caught: * in sub config\n";

struct load_case {
    std::string what;
    std::string main;                          // main.json; empty: no such file
    std::map<std::string, std::string> subs;   // more files of the case
    bool ok;
    text_list lines;                           // every line logged, in order
    std::string model = "";                    // dump() after a successful load
};

void PrintTo(const load_case& c, std::ostream* os) { *os << c.what; }

std::vector<load_case> cases() {
    std::vector<load_case> c = {
        {"code_text", main_of(group(R"("10")")), {{"a.json", meminfo}}, true, {}, one_group},
        {"code_0x", main_of(group(R"("0x10")")), {{"a.json", meminfo}}, true, {}, one_group},
        {"code_number_is_hex", main_of(group("10")), {{"a.json", meminfo}}, true, {}, one_group},
        {"code_trailing_text", main_of(group(R"("10zz")")), {{"a.json", meminfo}}, true, {}, one_group},
        {"code_minus_one", main_of(group(R"("-1")")), {{"a.json", meminfo}}, true, {},
         "server@127.0.0.1:6600 | ffffffff g a.json: 1=m,file,/proc/meminfo"},
        {"port_fraction_truncated", main_of(group(R"("10")"), R"("mode": "", "server_ip": "10.0.0.1", "port": 6600.7)"),
         {{"a.json", meminfo}}, true, {}, "@10.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo"},
        {"ip_null_is_empty", main_of(group(R"("10")"), R"("mode": 1, "server_ip": null, "port": -1)"),
         {{"a.json", meminfo}}, true, {}, "1@:-1 | 10 g a.json: 1=m,file,/proc/meminfo"},
        {"no_groups", main_of(""), {}, true, {}, "server@127.0.0.1:6600"},
        {"empty_cmd_list", main_of(group(R"("10")")), {{"a.json", cmd_list("")}}, true, {}, "server@127.0.0.1:6600 | 10 g a.json:"},
        {"cmd_list_string", main_of(group(R"("10")")), {{"a.json", R"({"cmd-list": "x"})"}}, true, {},
         "server@127.0.0.1:6600 | 10 g a.json:"},
        {"cmd_list_number", main_of(group(R"("10")")), {{"a.json", R"({"cmd-list": 7})"}}, true, {},
         "server@127.0.0.1:6600 | 10 g a.json:"},
        {"command_kinds", main_of(group(R"("10")")),
         {{"a.json", cmd_list(file_cmd(R"("1")", "/proc/meminfo") + "," + file_cmd(R"("0xA")", "/proc/$pid/status") + "," +
                              file_cmd("11", "/tmp/a$b") + "," + custom_cmd.substr(0, custom_cmd.size() - 1) +
                              R"(, "detach": true, "file": "ignored"})")}},
         true, {},
         "server@127.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo 2=c,custom,plugin_echo,detach a=m,dyn,/proc/$pid/status "
         "11=m,dyn,/tmp/a$b"},
        {"disable_stored", main_of(group(R"("10")", "a.json", R"(, "disable": true)")),
         {{"a.json", cmd_list(file_cmd(R"("1")", "/a", R"(, "disable": true)") + "," +
                              file_cmd(R"("2")", "/b", R"(, "disable": false)"))}},
         true, {}, "server@127.0.0.1:6600 | 10 g a.json off: 1=m,file,/a,off 2=m,file,/b"},
        {"type_is_case_sensitive", main_of(group(R"("10")")),
         {{"a.json", cmd_list(R"({"name": "x", "id": "1", "type": "File", "file": "/x"},)" +
                              file_cmd(R"("2")", "/proc/meminfo"))}},
         true, {"Not support cmd type:File, skiping\n"}, "server@127.0.0.1:6600 | 10 g a.json: 2=m,file,/proc/meminfo"},
        {"first_code_and_id_win", main_of(group(R"("10")") + "," + group(R"("0x10")", "b.json")),
         {{"a.json", cmd_list(file_cmd(R"("1")", "/proc/meminfo") + "," + file_cmd(R"("01")", "/proc/uptime"))},
          {"b.json", cmd_list(file_cmd(R"("3")", "/proc/loadavg"))}},
         true, {}, one_group},
        {"dropped_group_file_missing", main_of(group(R"("10")") + "," + group(R"("10")", "b.json")),
         {{"a.json", meminfo}}, false, {"Open main config:@D/b.json failed\n", "Exception caught: open json in @D/main.json\n"}},
        {"main_missing", "", {}, false,
         {"Open main config:@D/main.json failed\n", "Exception caught: open json in @D/main.json\n"}},
        {"sub_missing", main_of(group(R"("10")")), {}, false,
         {"Open main config:@D/a.json failed\n", "Exception caught: open json in @D/main.json\n"}},
        {"main_syntax", R"({"mode": "server",)", {}, false,
         {"Parse main config @D/main.json failed\n", "Exception caught: Parse json in @D/main.json\n"}},
        {"sub_syntax", main_of(group(R"("10")")), {{"a.json", R"({"cmd-list": [})"}}, false,
         {"Parse main config @D/a.json failed\n", "Exception caught: Parse json in @D/main.json\n"}},
        {"code_no_digits", main_of(group(R"("zz")")), {{"a.json", meminfo}}, false,
         {"Exception caught: stoi in @D/main.json\n"}},
        {"code_above_int32", main_of(group(R"("80000000")")), {{"a.json", meminfo}}, false,
         {"Exception caught: stoi in @D/main.json\n"}},
        {"id_no_digits", main_of(group(R"("10")")), {{"a.json", cmd_list(file_cmd(R"("zz")", "/x"))}}, false,
         {"Exception caught: stoi in sub config\n"}},
        {"id_above_int32", main_of(group(R"("10")")), {{"a.json", cmd_list(file_cmd(R"("80000000")", "/x"))}}, false,
         {"Exception caught: stoi in sub config\n"}},
        {"port_string", main_of(group(R"("10")"), R"("mode": "", "server_ip": "", "port": "6600")"),
         {{"a.json", meminfo}}, false, {main_fail}},
        {"group_not_object", main_of(R"("a.json")"), {{"a.json", meminfo}}, false, {main_fail}},
        {"cmd_list_object", main_of(group(R"("10")")), {{"a.json", R"({"cmd-list": {"a": 1}})"}}, false, {sub_fail}},
        {"type_number", main_of(group(R"("10")")), {{"a.json", R"({"cmd-list": [{"name": "x", "id": "1", "type": 5}]})"}},
         false, {sub_fail}},
    };
    // Every required key, dropped one at a time, ends the load.
    std::string full_main = main_of(group(R"("10")"));
    for (std::string key : {"mode", "server_ip", "port", "sub-configs", "class", "code", "config"}) {
        c.push_back({"main_without_" + key, without(full_main, key), {{"a.json", meminfo}}, false,
                     {"Exception caught: Not found key in @D/main.json\n"}});
    }
    std::string full_sub = cmd_list(file_cmd(R"("1")", "/proc/meminfo") + "," + custom_cmd);
    for (std::string key : {"cmd-list", "name", "id", "type", "file", "lib", "symbols"}) {
        c.push_back({"sub_without_" + key, full_main, {{"a.json", without(full_sub, key)}}, false,
                     {"Exception caught: Not found key in sub config\n"}});
    }
    return c;
}

class config_load : public testing::TestWithParam<load_case> {};

// Each case: parse_config's result, every line logged in order, and the model.
TEST_P(config_load, result_lines_and_model) {
    const load_case& c = GetParam();
    temp_dir dir;
    if (!c.main.empty()) dir.write("main.json", expand(c.main, dir.path()));
    for (const auto& [name, text] : c.subs) dir.write(name, expand(text, dir.path()));
    text_list want;
    for (const std::string& line : c.lines) want.push_back(expand(line, dir.path()));
    log_capture log;
    config_parser parser(dir.path() + "/main.json");
    EXPECT_EQ(parser.parse_config(), c.ok);
    expect_lines(log, want);
    if (c.ok) {
        ASSERT_TRUE(parser.mconfig);
        EXPECT_EQ(dump(*parser.mconfig), c.model);
    }
}

INSTANTIATE_TEST_SUITE_P(cases, config_load, testing::ValuesIn(cases()),
                         [](const testing::TestParamInfo<load_case>& i) {
                             std::string name = i.param.what;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// Writes a main file with one group 0x10 whose commands are entries.
std::string write_group(const temp_dir& dir, const std::string& entries) {
    dir.write("a.json", expand(cmd_list(entries), dir.path()));
    return dir.write("main.json", expand(main_of(group(R"("10")")), dir.path()));
}
std::string custom(const std::string& id, const std::string& lib, const std::string& sym) {
    return R"({"name": "c", "id": ")" + id + R"(", "type": "custom", "lib": ")" + lib + R"(", "symbols": ")" + sym + "\"}";
}

// A found symbol is callable; a missing symbol keeps the library without a
// function; a missing library leaves both null; both failures are logged and
// the commands kept. Two commands of one library each hold a reference.
TEST(config_plugins, load_outcomes) {
    temp_dir dir;
    std::string lib = test_plugin_dir() + "/libvireo_test_plugin.so", missing = dir.path() + "/missing.so";
    std::string main = write_group(dir, custom("1", lib, "plugin_len") + "," + custom("2", lib, "no_such_symbol") + "," +
                                            custom("3", missing, "plugin_len") + "," + custom("4", lib, "plugin_echo"));
    log_capture log;
    config_parser parser(main);
    ASSERT_TRUE(parser.parse_config());
    expect_lines(log, {"dlopen lib: " + lib + " symbol: no_such_symbol failed\n",
                       "dlopen lib: " + missing + " symbol: plugin_len failed\n"});
    auto& cmds = parser.mconfig->subs_map.at(0x10)->cmds;
    struct outcome { uint32_t id; bool handle, function; };
    for (const outcome& o : {outcome{1, true, true}, outcome{2, true, false}, outcome{3, false, false},
                             outcome{4, true, true}}) {
        EXPECT_EQ(cmds.at(o.id)->cust_t.handler != nullptr, o.handle) << o.id;
        ASSERT_EQ(cmds.at(o.id)->cust_t.function != nullptr, o.function) << o.id;
    }
    comm_data comm(nullptr);
    u32_to_u8(3, comm.recv_data->msg);
    ASSERT_EQ(cmds.at(1)->cust_t.function(&comm), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(comm.send_data->msg), 3), "abc");
    // Releasing one command must leave the library loaded for the other.
    cmds.erase(1);
    memcpy(comm.recv_data->msg, "wxyz", 4);
    comm.recv_data->msg_len = 4;
    ASSERT_EQ(cmds.at(4)->cust_t.function(&comm), 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(comm.send_data->msg), 4), "wxyz");
}

// A dropped duplicate custom id still loads its library and releases it at
// once; the kept commands' libraries go with the parser.
TEST(config_plugins, duplicate_id_loads_and_releases) {
    temp_dir dir;
    std::string plugin = test_plugin_dir() + "/libvireo_test_plugin.so";
    std::string counting = test_plugin_dir() + "/libvireo_test_counting.so";
    std::string main = write_group(dir, custom("1", plugin, "plugin_len") + "," + custom("01", counting, "counted") +
                                            "," + custom("2", counting, "counted"));
    int loads = vireo_test_loads, unloads = vireo_test_unloads;
    log_capture log;
    auto parser = std::make_unique<config_parser>(main);
    ASSERT_TRUE(parser->parse_config());
    expect_lines(log, {});
    EXPECT_EQ(parser->mconfig->subs_map.at(0x10)->cmds.at(1)->cust_t.symbol, "plugin_len");
    EXPECT_EQ(vireo_test_loads - loads, 2);      // the duplicate, then id 2
    EXPECT_EQ(vireo_test_unloads - unloads, 1);  // the duplicate, right away
    parser.reset();
    EXPECT_EQ(vireo_test_loads - loads, 2);
    EXPECT_EQ(vireo_test_unloads - unloads, 2);
}

// The shipped samples load with nothing logged but, while the probe plug-in
// is not built, its dlopen line; main.json shows every kind of command.
TEST(config_samples, load_cleanly) {
    ASSERT_EQ(chdir(VIREO_SOURCE_DIR), 0);
    struct sample { const char* file; std::set<int> kinds; bool disabled; };
    for (const sample& s : {sample{"config/sample/main.json", {FILE_TYPE, DYN_FILE_TYPE, CUSTOM_TYPE}, true},
                            sample{"config/sample/files-only.json", {FILE_TYPE, DYN_FILE_TYPE}, true}}) {
        log_capture log;
        config_parser parser(s.file);
        ASSERT_TRUE(parser.parse_config()) << s.file;
        for (const log_line& l : log.lines()) {
            EXPECT_EQ(l.text, "dlopen lib: build/lib/libvireo_probe.so symbol: probe_threads failed\n") << s.file;
        }
        EXPECT_EQ(parser.mconfig->ip + ":" + std::to_string(parser.mconfig->port), "127.0.0.1:6601") << s.file;
        std::set<int> kinds;
        bool disabled = false;
        for (const auto& sub : parser.mconfig->subs_map) {
            for (const auto& cmd : sub.second->cmds) {
                kinds.insert(cmd.second->type);
                disabled |= !cmd.second->enabled;
            }
        }
        EXPECT_EQ(kinds, s.kinds) << s.file;
        EXPECT_EQ(disabled, s.disabled) << s.file;
    }
}
}  // namespace
