// Each collector on /proc text kept as fixtures: exact series and values.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "exporter.h"
#include "test_util.h"

namespace {
using std::string;

string fixture(const string& name) {
    return read_text_file(VIREO_SOURCE_DIR "/tests/exporter/fixtures/" + name);
}

// Samples by series ("name{labels}"); every family's HELP and TYPE precede it once.
std::map<string, double> samples(const string& text) {
    std::map<string, double> out;
    std::istringstream in(text);
    std::map<string, int> typed;
    for (string line; std::getline(in, line);) {
        if (line.rfind("# TYPE ", 0) == 0) {
            EXPECT_EQ(++typed[line.substr(7, line.find(' ', 7) - 7)], 1) << line;
        }
        if (line.empty() || line[0] == '#')
            continue;
        size_t sp = line.rfind(' ');
        EXPECT_TRUE(out.emplace(line.substr(0, sp), std::stod(line.substr(sp + 1))).second) << line;
    }
    return out;
}

struct row {
    const char* fixture;
    render_fn render;
    size_t series;
    std::map<string, double> want;
    size_t cut_series = 0;  // of the text's first 2 bytes
};

const row rows[] = {
    {"meminfo",
     render_meminfo,
     54,
     {{"vireo_memory_MemTotal_bytes", 24684084.0 * 1024},
      {"vireo_memory_Active_anon_bytes", 1900.0 * 1024},
      {"vireo_memory_VmallocTotal_bytes", 34359738367.0 * 1024},
      {"vireo_memory_HugePages_Total", 0}}},
    {"meminfo_hugepages",
     render_meminfo,
     44,
     {{"vireo_memory_HugePages_Total", 64},
      {"vireo_memory_HugePages_Free", 60},
      {"vireo_memory_HugePages_Rsvd", 3},
      {"vireo_memory_HugePages_Surp", 1},
      {"vireo_memory_Hugepagesize_bytes", 2048.0 * 1024},
      {"vireo_memory_CmaFree_bytes", 61432.0 * 1024}}},
    {"loadavg",
     render_loadavg,
     5,
     {{"vireo_load1", 12.02},
      {"vireo_load5", 4.86},
      {"vireo_load15", 1.84},
      {"vireo_loadavg_runnable_tasks", 14},
      {"vireo_loadavg_tasks", 199}}},
    {"uptime",
     render_uptime,
     2,
     {{"vireo_uptime_seconds", 329.82}, {"vireo_uptime_idle_seconds_total", 185.22}}},
    // cpu0 and cpu1 (not the sum line) of 8 modes and 2 guest columns, 7 counters.
    {"stat",
     render_stat,
     2 * 10 + 7,
     {{"vireo_cpu_seconds_total{cpu=\"0\",mode=\"user\"}", 156.13},
      {"vireo_cpu_seconds_total{cpu=\"1\",mode=\"iowait\"}", 5.15},
      {"vireo_cpu_seconds_total{cpu=\"0\",mode=\"steal\"}", 0.49},
      {"vireo_cpu_guest_seconds_total{cpu=\"1\",mode=\"nice\"}", 0},
      {"vireo_context_switches_total", 901267},
      {"vireo_interrupts_total", 365102},
      {"vireo_softirqs_total", 303120},
      {"vireo_forks_total", 26642},
      {"vireo_procs_running", 15},
      {"vireo_procs_blocked", 0},
      {"vireo_boot_time_seconds", 1795499126}}},
    // Three reports and a truncation line; no label per executable.
    {"crash_list",
     render_crashes,
     2,
     {{"vireo_crash_reports", 3}, {"vireo_crash_newest_report_timestamp_seconds", 1795503000}},
     1},
};

TEST(collectors, fixtures_give_exact_series) {
    for (const row& r : rows) {
        metric_writer w;
        r.render(fixture(r.fixture), 100, w);
        std::map<string, double> got = samples(w.out);
        EXPECT_EQ(got.size(), r.series) << r.fixture << "\n" << w.out;
        for (const auto& [series, v] : r.want)
            EXPECT_NEAR(got.count(series) ? got[series] : -1, v, 1e-9 * (1 + v))
                << r.fixture << " " << series;
    }
}

// The name holds ") " and "(": fields are counted from the last ')'. A cut
// or empty text gives nothing rather than wrong figures.
TEST(collectors, process_files) {
    process_sample p;
    ASSERT_TRUE(parse_process(fixture("process_status"), fixture("process_stat"), 100, p));
    EXPECT_EQ(p.state, "R");
    EXPECT_EQ(p.threads, 3);
    EXPECT_EQ(p.rss_bytes, 13908.0 * 1024);
    EXPECT_NEAR(p.cpu_seconds, 0.15, 1e-12);
    string stat = fixture("process_stat");
    process_sample q;
    EXPECT_FALSE(parse_process_stat(stat.substr(0, stat.find(" 2 0 15 ")), 100, q));
    EXPECT_FALSE(parse_process_status("Name:\tx\n", q));
    for (const row& r : rows) {
        metric_writer w;
        r.render(fixture(r.fixture).substr(0, 2), 100, w);
        EXPECT_TRUE(r.cut_series != 0 || w.out.empty()) << r.fixture << w.out;
        EXPECT_EQ(samples(w.out).size(), r.cut_series) << r.fixture;
    }
    EXPECT_EQ(parse_pidfile("1234\n"), 1234u);
    EXPECT_EQ(parse_pidfile("12a\n"), 0u);
}

// A process found in the board's list by name (15 characters kept by the
// kernel) or by a piece of its command line: the one match, or the one
// whose ancestors do not match (a daemon and its sessions or workers).
TEST(collectors, process_list_selection) {
    const string text = fixture("ps");
    std::vector<ps_entry> list = parse_ps(text);
    ASSERT_EQ(list.size(), 10u);
    EXPECT_EQ(list[7].cmdline, "worker --queue\ta b");
    EXPECT_EQ(list[1].cmdline, "");
    struct {
        select_by by;
        string text;
        uint32_t pid;
        proc_miss miss;
    } rows[] = {{select_by::name, "sshd", 310, proc_miss::none},
                {select_by::name, "systemd", 1, proc_miss::none},
                {select_by::name, "gunicorn", 500, proc_miss::none},
                {select_by::name, "worker", 0, proc_miss::several_matches},
                {select_by::name, "very-long-name-of-a-daemon", 700, proc_miss::none},
                {select_by::name, "very-long", 0, proc_miss::no_match},
                {select_by::name, "bad", 0, proc_miss::no_match},
                {select_by::cmdline, "ann@pts", 415, proc_miss::none},
                {select_by::cmdline, "[listener]", 310, proc_miss::none},
                {select_by::cmdline, "app:web", 500, proc_miss::none},
                {select_by::cmdline, "--queue", 0, proc_miss::several_matches},
                {select_by::cmdline, "nginx", 0, proc_miss::no_match}};
    for (auto& r : rows) {
        process_conf c;
        c.by = r.by;
        (r.by == select_by::name ? c.name : c.cmdline) = r.text;
        proc_miss miss = proc_miss::not_read;
        EXPECT_EQ(select_process(c, list, miss), r.pid) << r.text;
        EXPECT_EQ(miss, r.miss) << r.text;
    }
}

}  // namespace
