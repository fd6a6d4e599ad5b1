// Loading configuration files into the model: conversions, the exact log
// lines of each failure, duplicates, plug-in loading, and the shipped samples.
#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>

#include "config_parser.h"
#include "log_capture.h"
#include "server_comm.h"
#include "test_util.h"

// Bumped by libvireo_test_counting.so when it is loaded and unloaded.
extern "C" { int vireo_test_loads = 0, vireo_test_unloads = 0; }

namespace {
using std::string;

// In case texts, "@D" stands for the case's directory, "@P" for the plug-ins.
string expand(string s, const string& dir) {
    for (const auto& [key, value] : {std::make_pair("@D", dir), std::make_pair("@P", test_plugin_dir())})
        for (size_t at; (at = s.find(key)) != string::npos;) s.replace(at, 2, value);
    return s;
}

// The model on one line, groups and commands sorted:
// "mode@ip:port | code name file[ off]: id=name,kind,path-or-symbol[,detach][,off] ...".
// A "!" marks a map key that differs from the element's own code or id.
string dump(const main_config& m) {
    static const char* kinds[] = {"file", "dyn", "custom"};
    std::ostringstream os;
    os << m.mode << "@" << m.ip << ":" << m.port << std::hex;
    for (const auto& [code, sc] : std::map(m.subs_map.begin(), m.subs_map.end())) {
        os << " | " << code << (code == sc->code ? " " : "!") << sc->name << " "
           << sc->sub_file.substr(sc->sub_file.rfind('/') + 1) << (sc->enabled ? "" : " off") << ":";
        for (const auto& [id, c] : std::map(sc->cmds.begin(), sc->cmds.end()))
            os << " " << id << (id == c->id ? "=" : "!") << c->name << "," << kinds[c->type] << ","
               << (c->type == CUSTOM_TYPE ? c->cust_t.symbol + (c->cust_t.detach ? ",detach" : "") : c->file_t.mon_file)
               << (c->enabled ? "" : ",off");
    }
    return os.str();
}

// Everything logged, one line after another, must be want; all at error
// priority under MONITOR_CONFIG. A "*" in want stands for any text on one line.
void expect_log(const log_capture& log, string want) {
    string got;
    for (const log_line& l : log.lines()) {
        got += l.text;
        EXPECT_TRUE(l.priority == ANDROID_LOG_ERROR && l.tag == "MONITOR_CONFIG") << l;
    }
    size_t star = want.find('*'), any = got.size() + 1 - want.size();
    if (star != string::npos && got.size() >= want.size() && got.substr(star, any).find('\n') == string::npos)
        want.replace(star, 1, got.substr(star, any));
    EXPECT_EQ(got, want);
}

// Builders for the case files.
const string head = R"("mode": "server", "server_ip": "127.0.0.1", "port": 6600)";
string main_of(const string& groups, const string& h = head) { return "{" + h + R"(, "sub-configs": [)" + groups + "]}"; }
string G(const string& code, const string& file = "a.json", const string& extra = "") { return R"({"class": "g", "code": )" + code + R"(, "config": "@D/)" + file + "\"" + extra + "}"; }
string L(const string& entries) { return R"({"cmd-list": [)" + entries + "]}"; }
string F(const string& id, const string& path, const string& extra = "") { return R"({"name": "m", "id": )" + id + R"(, "type": "file", "file": ")" + path + "\"" + extra + "}"; }
string custom(const string& id, const string& lib, const string& sym, const string& extra = "") {
    return R"({"name": "c", "id": ")" + id + R"(", "type": "custom", "lib": ")" + lib + R"(", "symbols": ")" + sym + "\"" + extra + "}";
}
// Drops a key by renaming it: unknown keys are ignored.
string without(string text, const string& key) { return text.replace(text.find("\"" + key + "\":"), key.size() + 2, "\"" + key + "-gone\""); }

const string g10 = main_of(G(R"("10")")), meminfo = L(F(R"("1")", "/proc/meminfo"));
const string S = "server@127.0.0.1:6600", one = S + " | 10 g a.json: 1=m,file,/proc/meminfo";
const string no_file = "Exception caught: open json in @D/main.json\n";

struct load_case {
    string what, main, a;  // main.json and a.json; empty: no such file
    bool ok;
    string log, model = "", b = "";  // everything logged; dump() after success; b.json
};
void PrintTo(const load_case& c, std::ostream* os) { *os << c.what; }

std::vector<load_case> cases() {
    std::vector<load_case> c;
    for (auto [name, code] : {std::pair{"text", R"("10")"}, {"0x", R"("0x10")"}, {"number_is_hex", "10"}, {"trailing_text", R"("10zz")"}})
        c.push_back({string("code_") + name, main_of(G(code)), meminfo, true, "", one});
    c.insert(c.end(), {
        {"code_minus_one", main_of(G(R"("-1")")), meminfo, true, "", S + " | ffffffff g a.json: 1=m,file,/proc/meminfo"},
        {"port_fraction", main_of(G("10"), R"("mode": "", "server_ip": "10.0.0.1", "port": 6600.7)"), meminfo, true, "", "@10.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo"},
        {"ip_null_is_empty", main_of(G("10"), R"("mode": 1, "server_ip": null, "port": -1)"), meminfo, true, "", "1@:-1 | 10 g a.json: 1=m,file,/proc/meminfo"},
        {"no_groups", main_of(""), "", true, "", S},
        {"empty_cmd_list", g10, L(""), true, "", S + " | 10 g a.json:"},
        {"cmd_list_string", g10, R"({"cmd-list": "x"})", true, "", S + " | 10 g a.json:"},
        {"cmd_list_number", g10, R"({"cmd-list": 7})", true, "", S + " | 10 g a.json:"},
        {"command_kinds", g10, L(F(R"("1")", "/proc/meminfo") + "," + F(R"("0xA")", "/proc/$pid/status") + "," + F("11", "/tmp/a$b") + "," + custom("2", "@P/libvireo_test_plugin.so", "plugin_echo", R"(, "detach": true, "file": "x")")), true, "",
         S + " | 10 g a.json: 1=m,file,/proc/meminfo 2=c,custom,plugin_echo,detach a=m,dyn,/proc/$pid/status 11=m,dyn,/tmp/a$b"},
        {"disable_stored", main_of(G("10", "a.json", R"(, "disable": true)")), L(F("1", "/a", R"(, "disable": true)") + "," + F("2", "/b", R"(, "disable": false)")), true, "", S + " | 10 g a.json off: 1=m,file,/a,off 2=m,file,/b"},
        {"type_is_case_sensitive", g10, L(R"({"name": "x", "id": "1", "type": "File", "file": "/x"},)" + F("2", "/proc/meminfo")), true, "Not support cmd type:File, skiping\n", S + " | 10 g a.json: 2=m,file,/proc/meminfo"},
        {"first_code_and_id_win", main_of(G("10") + "," + G(R"("0x10")", "b.json")), L(F("1", "/proc/meminfo") + "," + F(R"("01")", "/proc/uptime")), true, "", one, L(F("3", "/proc/loadavg"))},
        {"dropped_group_file_opened", main_of(G("10") + "," + G("10", "b.json")), meminfo, false, "Open main config:@D/b.json failed\n" + no_file},
        {"main_missing", "", "", false, "Open main config:@D/main.json failed\n" + no_file},
        {"sub_missing", g10, "", false, "Open main config:@D/a.json failed\n" + no_file},
        {"main_syntax", R"({"mode": "server",)", "", false, "Parse main config @D/main.json failed\nException caught: Parse json in @D/main.json\n"},
        {"sub_syntax", g10, R"({"cmd-list": [})", false, "Parse main config @D/a.json failed\nException caught: Parse json in @D/main.json\n"},
        {"code_no_digits", main_of(G(R"("zz")")), meminfo, false, "Exception caught: stoi in @D/main.json\n"},
        {"code_above_int32", main_of(G(R"("80000000")")), meminfo, false, "Exception caught: stoi in @D/main.json\n"},
        {"id_above_int32", g10, L(F(R"("80000000")", "/x")), false, "Exception caught: stoi in sub config\n"},
        {"port_string", main_of(G("10"), R"("mode": "", "server_ip": "", "port": "6600")"), meminfo, false, "Exception caught: * in @D/main.json\n"},
        {"cmd_list_object", g10, R"({"cmd-list": {"a": 1}})", false, "Exception caught: * in sub config\n"},
        {"type_number", g10, L(R"({"name": "x", "id": "1", "type": 5})"), false, "Exception caught: * in sub config\n"},
    });
    // Every required key, dropped one at a time, ends the load.
    for (string key : {"mode", "server_ip", "port", "sub-configs", "class", "code", "config"})
        c.push_back({"main_without_" + key, without(g10, key), meminfo, false, "Exception caught: Not found key in @D/main.json\n"});
    for (string key : {"cmd-list", "name", "id", "type", "file", "lib", "symbols"})
        c.push_back({"sub_without_" + key, g10, without(L(F("1", "/m") + "," + custom("2", "@P/x.so", "f")), key), false, "Exception caught: Not found key in sub config\n"});
    for (load_case& k : c)
        for (char& ch : k.what) ch = isalnum(ch) ? ch : '_';
    return c;
}

class config_load : public testing::TestWithParam<load_case> {};

// Each case: parse_config's result, everything logged in order, and the model.
TEST_P(config_load, result_log_and_model) {
    const load_case& c = GetParam();
    temp_dir dir;
    for (const auto& [name, text] : {std::pair{"main.json", c.main}, {"a.json", c.a}, {"b.json", c.b}})
        if (!text.empty()) dir.write(name, expand(text, dir.path()));
    log_capture log;
    config_parser parser(dir.path() + "/main.json");
    EXPECT_EQ(parser.parse_config(), c.ok);
    expect_log(log, expand(c.log, dir.path()));
    EXPECT_EQ(c.ok && parser.mconfig ? dump(*parser.mconfig) : "", c.model);
}
INSTANTIATE_TEST_SUITE_P(cases, config_load, testing::ValuesIn(cases()), [](const auto& i) { return i.param.what; });

// A found symbol is callable; a missing symbol keeps the handle without a
// function; a missing library keeps neither; both are logged and the commands
// kept. Two commands of one library each hold it. A dropped duplicate custom
// id loads its library and releases it at once; the rest go with the parser.
TEST(config_plugins, load_outcomes) {
    temp_dir dir;
    string lib = test_plugin_dir() + "/libvireo_test_plugin.so", missing = dir.path() + "/missing.so", counting = test_plugin_dir() + "/libvireo_test_counting.so";
    dir.write("a.json", L(custom("1", lib, "plugin_len") + "," + custom("2", lib, "no_such_symbol") + "," + custom("3", missing, "plugin_len") + "," +
                          custom("4", lib, "plugin_echo") + "," + custom("01", counting, "counted") + "," + custom("5", counting, "counted")));
    int loads = vireo_test_loads, unloads = vireo_test_unloads;
    log_capture log;
    auto parser = std::make_unique<config_parser>(dir.write("main.json", expand(g10, dir.path())));
    ASSERT_TRUE(parser->parse_config());
    expect_log(log, "dlopen lib: " + lib + " symbol: no_such_symbol failed\ndlopen lib: " + missing + " symbol: plugin_len failed\n");
    EXPECT_EQ(vireo_test_loads - loads, 2);      // the duplicate, then id 5
    EXPECT_EQ(vireo_test_unloads - unloads, 1);  // the duplicate, right away
    auto& cmds = parser->mconfig->subs_map.at(0x10)->cmds;
    for (auto [id, handle, function] : {std::tuple{1, true, true}, {2, true, false}, {3, false, false}, {4, true, true}}) {
        EXPECT_EQ(cmds.at(id)->cust_t.handler != nullptr, handle) << id;
        ASSERT_EQ(cmds.at(id)->cust_t.function != nullptr, function) << id;
    }
    comm_data comm(nullptr);
    u32_to_u8(3, comm.recv_data->msg);
    ASSERT_EQ(cmds.at(1)->cust_t.function(&comm), 3);
    cmds.erase(1);  // releasing one command must leave the library loaded for the other
    comm.recv_data->msg_len = 4;
    ASSERT_EQ(cmds.at(4)->cust_t.function(&comm), 4);
    parser.reset();
    EXPECT_EQ(vireo_test_unloads - unloads, 2);
}

// The shipped samples load with nothing logged but, while the probe plug-in
// is not built, its dlopen line; main.json shows every kind of command.
TEST(config_samples, load_cleanly) {
    ASSERT_EQ(chdir(VIREO_SOURCE_DIR), 0);
    for (auto [file, want] : {std::pair{"config/sample/main.json", std::set<int>{FILE_TYPE, DYN_FILE_TYPE, CUSTOM_TYPE, -1}},
                              {"config/sample/files-only.json", {FILE_TYPE, DYN_FILE_TYPE, -1}}}) {
        log_capture log;
        config_parser parser(file);
        ASSERT_TRUE(parser.parse_config()) << file;
        for (const log_line& l : log.lines())
            EXPECT_EQ(l.text, "dlopen lib: build/lib/libvireo_probe.so symbol: probe_threads failed\n") << file;
        std::set<int> kinds;  // -1 marks a disabled entry
        for (const auto& sub : parser.mconfig->subs_map)
            for (const auto& [id, cmd] : sub.second->cmds) kinds.insert({int(cmd->type), cmd->enabled ? int(cmd->type) : -1});
        EXPECT_EQ(kinds, want) << file;
    }
}
}  // namespace
