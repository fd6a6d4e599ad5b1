// The board's process list, and a configured process found in it.
#include <unordered_map>
#include <unordered_set>

#include "exporter.h"
#include "proc_text.h"

namespace {

// The kernel keeps 15 characters of a process name.
constexpr size_t comm_len = 15;

bool to_pid(std::string_view s, uint32_t& out) {
    double v = 0;
    if (s.empty() || s.find_first_not_of("0123456789") != std::string_view::npos ||
        !to_double(s, v) || v > 4194304) {
        return false;
    }
    out = static_cast<uint32_t>(v);
    return true;
}

bool matches(const process_conf& p, const ps_entry& e) {
    if (p.by == select_by::cmdline) {
        return e.cmdline.find(p.cmdline) != std::string_view::npos;
    }
    std::string_view want = p.name;
    return e.name == want || (want.size() > comm_len && e.name == want.substr(0, comm_len));
}

}  // namespace

std::vector<ps_entry> parse_ps(std::string_view text) {
    std::vector<ps_entry> out;
    for (std::string_view line : lines_of(text)) {
        std::string_view f[5];
        size_t n = 0;
        // The command line is the rest of the line, tabs and all.
        while (n < 4) {
            size_t tab = line.find('\t');
            if (tab == std::string_view::npos) {
                break;
            }
            f[n++] = line.substr(0, tab);
            line.remove_prefix(tab + 1);
        }
        ps_entry e;
        if (n < 4 || !to_pid(f[0], e.pid) || e.pid == 0 || !to_pid(f[1], e.ppid) || f[2].empty()) {
            continue;
        }
        e.name = f[2];
        e.cmdline = line;
        out.push_back(e);
    }
    return out;
}

const char* proc_miss_text(proc_miss m) {
    switch (m) {
        case proc_miss::no_match:
            return "no_match";
        case proc_miss::several_matches:
            return "several_matches";
        case proc_miss::no_pid:
            return "no_pid";
        case proc_miss::no_list:
            return "no_list";
        case proc_miss::not_read:
            return "not_read";
        default:
            return "";
    }
}

uint32_t select_process(const process_conf& p, const std::vector<ps_entry>& list, proc_miss& miss) {
    std::unordered_map<uint32_t, uint32_t> parent;
    std::unordered_set<uint32_t> hits;
    for (const ps_entry& e : list) {
        parent.emplace(e.pid, e.ppid);
        if (matches(p, e)) {
            hits.insert(e.pid);
        }
    }
    uint32_t root = 0;
    size_t roots = 0;
    for (uint32_t pid : hits) {
        bool below_hit = false;
        // At most one step per listed process: a list with a cycle ends too.
        uint32_t at = pid;
        for (size_t i = 0; i < list.size() && !below_hit; i++) {
            auto it = parent.find(at);
            if (it == parent.end() || it->second == 0 || it->second == at) {
                break;
            }
            at = it->second;
            below_hit = hits.count(at) != 0;
        }
        if (!below_hit) {
            root = pid;
            roots++;
        }
    }
    miss = roots == 1     ? proc_miss::none
           : hits.empty() ? proc_miss::no_match
                          : proc_miss::several_matches;
    return roots == 1 ? root : 0;
}
