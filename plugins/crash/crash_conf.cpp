#include "crash_conf.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

namespace {

bool parse_num(const std::string& v, int64_t lo, int64_t hi, int64_t& out) {
    if (v.empty() || v.size() > 18)
        return false;
    char* end = nullptr;
    long long n = strtoll(v.c_str(), &end, 10);
    if (*end != '\0' || n < lo || n > hi)
        return false;
    out = n;
    return true;
}

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

// Applies one key; false for an unknown key or a bad value.
bool apply(crash_conf& c, const std::string& k, const std::string& v) {
    if (k == "store") {
        if (v.empty() || v[0] != '/')
            return false;
        c.store = v;
        return true;
    }
    const struct {
        const char* name;
        int64_t lo, hi;
        int64_t* wide;
        int* narrow;
    } keys[] = {
        {"max-reports", 1, 100000, nullptr, &c.max_reports},
        {"max-total-bytes", 4096, int64_t(1) << 40, &c.max_total_bytes, nullptr},
        {"rate-per-hour", 0, 100000, nullptr, &c.rate_per_hour},
        {"time-limit-s", 1, 600, nullptr, &c.time_limit_s},
        {"core-read-limit", 4096, int64_t(1) << 40, &c.core_read_limit, nullptr},
        {"core-stack-bytes", 0, 16 << 20, &c.core_stack_bytes, nullptr},
        {"unwind-stack-bytes", 4096, 64 << 20, &c.unwind_stack_bytes, nullptr},
        {"max-threads", 1, 65536, nullptr, &c.max_threads},
    };
    for (const auto& key : keys) {
        if (k != key.name)
            continue;
        int64_t n = 0;
        if (!parse_num(v, key.lo, key.hi, n))
            return false;
        if (key.wide)
            *key.wide = n;
        else
            *key.narrow = static_cast<int>(n);
        return true;
    }
    return false;
}

}  // namespace

int crash_conf_load(const std::string& path, crash_conf& conf, std::string& err) {
    std::ifstream in(path);
    if (!in)
        return errno == ENOENT ? 0 : -(errno ? errno : EIO);
    std::string line;
    for (int no = 1; no <= 1000 && std::getline(in, line); no++) {
        line = trim(line.substr(0, line.find('#')));
        if (line.empty())
            continue;
        size_t eq = line.find('=');
        std::string k = eq == std::string::npos ? line : trim(line.substr(0, eq));
        std::string v = eq == std::string::npos ? "" : trim(line.substr(eq + 1));
        if (eq == std::string::npos || !apply(conf, k, v))
            err += path + ": line " + std::to_string(no) + ": ignored \"" + line + "\"\n";
    }
    return 0;
}
