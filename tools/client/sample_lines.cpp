// The lines of a probe_sample reply, read into folded-stack counts.
#include <algorithm>

#include "vireo_client.h"
#include "wire/reply.h"

int read_sample_line(const std::string& line, bool with_state, sample_line& out) {
    // The frames are the last field and take the rest of the line.
    std::string* fields[] = {&out.tid, &out.name, &out.held, &out.state, &out.stack};
    const int n = with_state ? 5 : 4;
    size_t at = 0;
    out.state.clear();
    for (int k = 0; k < n; k++) {
        size_t tab = k + 1 < n ? line.find('\t', at) : line.size();
        if (tab == std::string::npos)
            return line.compare(0, truncated_len, truncated_line) == 0 ? 0 : -1;
        *fields[with_state || k < 3 ? k : 4] = line.substr(at, tab - at);
        at = tab + 1;
    }
    return 1;
}

bool add_sample(const std::string& text, std::map<std::string, long>& counts, long& stacks) {
    sample_line l;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        int rc = read_sample_line(text.substr(at, end - at), false, l);
        if (rc <= 0)
            return rc == 0;
        if (!l.stack.empty()) {
            counts[l.stack]++;
            stacks++;
        }
    }
    return true;
}
