// Loading configuration files into the model: hexadecimal codes, duplicates,
// the exact log lines of each failure, plug-in loading, and the shipped
// configurations.
#include "config_parser.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "server_comm.h"
#include "test_util.h"

// Bumped by libvireo_test_counting.so when it is loaded and unloaded.
extern "C" {
int vireo_test_loads = 0, vireo_test_unloads = 0;
}

namespace {
using std::string;

// The model on one line, groups and commands sorted by code:
// "ip:port | code name file: id=name,kind,path-or-symbol ...".
string dump(const main_config& m) {
    static const char* kinds[] = {"file", "dyn", "custom"};
    std::ostringstream os;
    os << m.ip << ":" << m.port << std::hex;
    for (const auto& [code, sc] : std::map(m.subs_map.begin(), m.subs_map.end())) {
        os << " | " << code << " " << sc->name << " "
           << sc->sub_file.substr(sc->sub_file.rfind('/') + 1) << ":";
        for (const auto& [id, c] : std::map(sc->cmds.begin(), sc->cmds.end()))
            os << " " << id << "=" << c->name << "," << kinds[c->type] << ","
               << (c->type == CUSTOM_TYPE ? c->cust_t.symbol : c->file_t.mon_file);
    }
    return os.str();
}

// Builders for the case files; "@" stands for the case's directory.
string main_of(const string& groups) {
    return R"({"mode": "m", "server_ip": "127.0.0.1", "port": 6600, "sub-configs": [)" + groups +
           "]}";
}
string G(const string& code, const string& file = "a.json") {
    return R"({"class": "g", "code": )" + code + R"(, "config": "@/)" + file + "\"}";
}
string L(const string& entries) {
    return R"({"cmd-list": [)" + entries + "]}";
}
string F(const string& id, const string& path) {
    return R"({"name": "m", "id": )" + id + R"(, "type": "file", "file": ")" + path + "\"}";
}
string C(const string& id, const string& lib, const string& sym) {
    return R"({"name": "c", "id": ")" + id + R"(", "type": "custom", "lib": ")" + lib +
           R"(", "symbols": ")" + sym + "\"}";
}
string expand(string s, const string& dir) {
    for (size_t at; (at = s.find('@')) != string::npos;) s.replace(at, 1, dir);
    return s;
}
// Drops a key by renaming it: unknown keys are ignored.
string without(string text, const string& key) {
    return text.replace(text.find("\"" + key + "\":"), key.size() + 2, "\"-\"");
}

const string g10 = main_of(G(R"("10")")), meminfo = L(F(R"("1")", "/proc/meminfo"));
const string one = "127.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo";

struct load_case {
    string main, a;  // main.json and a.json; empty: no such file
    string log;      // every line logged, all errors under MONITOR_CONFIG
    string model;    // dump() after a successful load, empty after a failed one
    string b = "";   // b.json
};

// Each case: every line logged, in order, and the model.
TEST(config_parser, loads) {
    // clang-format off
    std::vector<load_case> cases = {
        {main_of(G(R"("0x10")")), meminfo, "", one}, {main_of(G("10")), meminfo, "", one}, {main_of(G(R"("10zz")")), meminfo, "", one},
        {main_of(G(R"("-1")")), meminfo, "", "127.0.0.1:6600 | ffffffff g a.json: 1=m,file,/proc/meminfo"},
        {g10, L(F(R"("1")", "/proc/meminfo") + "," + F(R"("0xA")", "/proc/$pid/status") + "," + F("11", "/tmp/a$b") + "," + C("2", "@/none.so", "f")),
         "dlopen lib: @/none.so symbol: f failed\n", "127.0.0.1:6600 | 10 g a.json: 1=m,file,/proc/meminfo 2=c,custom,f a=m,dyn,/proc/$pid/status 11=m,dyn,/tmp/a$b"},
        {g10, L(R"({"name": "x", "id": "1", "type": "File", "file": "/x"},)" + F("2", "/y")), "Not support cmd type:File, skiping\n", "127.0.0.1:6600 | 10 g a.json: 2=m,file,/y"},
        {main_of(G("10") + "," + G(R"("0x10")", "b.json")), L(F("1", "/proc/meminfo") + "," + F(R"("01")", "/y")), "", one, L(F("3", "/z"))},
        {main_of(G("10") + "," + G("10", "b.json")), meminfo, "Open main config:@/b.json failed\nException caught: open json in @/main.json\n", ""},
        {"", "", "Open main config:@/main.json failed\nException caught: open json in @/main.json\n", ""},
        {g10, R"({"cmd-list": [})", "Parse main config @/a.json failed\nException caught: Parse json in @/main.json\n", ""},
        {main_of(G(R"("zz")")), meminfo, "Exception caught: stoi in @/main.json\n", ""},
        {main_of(G(R"("80000000")")), meminfo, "Exception caught: stoi in @/main.json\n", ""},
        {g10, L(F(R"("80000000")", "/x")), "Exception caught: stoi in sub config\n", ""},
        {g10, L(R"({"name": "x", "id": "1", "type": 5})"), "Exception caught: in Json::Value::asCString(): requires stringValue in sub config\n", ""}};
    // clang-format on
    for (string key : {"mode", "server_ip", "port", "sub-configs", "class", "code", "config"})
        cases.push_back(
            {without(g10, key), meminfo, "Exception caught: Not found key in @/main.json\n", ""});
    for (string key : {"cmd-list", "name", "id", "type", "file", "lib", "symbols"})
        cases.push_back({g10, without(L(F("1", "/m") + "," + C("2", "/x.so", "f")), key),
                         "Exception caught: Not found key in sub config\n", ""});
    for (size_t k = 0; k < cases.size(); k++) {
        temp_dir dir;
        const load_case& c = cases[k];
        for (const auto& [name, text] :
             {std::pair{"main.json", c.main}, {"a.json", c.a}, {"b.json", c.b}})
            if (!text.empty())
                dir.write(name, expand(text, dir.path()));
        log_capture log;
        config_parser parser(dir.path() + "/main.json");
        EXPECT_EQ(parser.parse_config(), !c.model.empty()) << "case " << k;
        string got;
        for (const log_line& l : log.lines())
            got += (l.priority == 6 && l.tag == "MONITOR_CONFIG" ? "" : "?") + l.text;
        EXPECT_EQ(got, expand(c.log, dir.path())) << "case " << k;
        EXPECT_EQ(c.model.empty() ? "" : dump(*parser.mconfig), c.model) << "case " << k;
    }
}

// Found symbols are callable; a missing library keeps no handle. Two
// commands of one library each hold it. A dropped duplicate id loads its library and releases it at
// once; the rest go with the parser.
TEST(config_parser, plugins) {
    temp_dir dir;
    string lib = test_plugin_dir() + "/libvireo_test_plugin.so",
           counting = test_plugin_dir() + "/libvireo_test_counting.so";
    dir.write("a.json", L(C("1", lib, "plugin_len") + "," + C("2", lib, "no_such_symbol") + "," +
                          C("3", "/none.so", "f") + "," + C("4", lib, "plugin_echo") + "," +
                          C("01", counting, "counted") + "," + C("5", counting, "counted")));
    int loads = vireo_test_loads, unloads = vireo_test_unloads;
    auto parser = std::make_unique<config_parser>(dir.write("main.json", expand(g10, dir.path())));
    ASSERT_TRUE(parser->parse_config());
    EXPECT_EQ(vireo_test_loads - loads, 2);      // the duplicate, then id 5
    EXPECT_EQ(vireo_test_unloads - unloads, 1);  // the duplicate, right away
    auto& cmds = parser->mconfig->subs_map.at(0x10)->cmds;
    EXPECT_EQ(cmds.at(3)->cust_t.handler, nullptr);
    comm_data comm(nullptr);
    u32_to_u8(3, comm.recv_data->msg);
    ASSERT_EQ(cmds.at(1)->cust_t.function(&comm), 3);
    cmds.erase(1);  // releasing one command leaves the library loaded for the other
    comm.recv_data->msg_len = 4;
    ASSERT_EQ(cmds.at(4)->cust_t.function(&comm), 4);
    parser.reset();
    EXPECT_EQ(vireo_test_unloads - unloads, 2);
}

// The shipped configurations load from the repository root with nothing
// logged but the lines of the demo's plug-ins (build/lib) that a build in
// another folder has not made.
TEST(config_parser, shipped_configurations) {
    ASSERT_EQ(chdir(VIREO_SOURCE_DIR), 0);
    for (const char* file :
         {"config/sample/main.json", "config/sample/files-only.json", "config/demo/main.json"}) {
        log_capture log;
        config_parser parser(file);
        EXPECT_TRUE(parser.parse_config()) << file;
        for (const log_line& l : log.lines())
            EXPECT_NE(l.text.find("dlopen lib: build/lib/libvireo_"), string::npos) << file << l;
    }
}
}  // namespace
