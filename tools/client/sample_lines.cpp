// The lines of a probe_sample reply, read into folded-stack counts.
#include "vireo_client.h"
#include "wire/reply.h"

bool add_sample(const std::string& text, std::map<std::string, long>& counts, long& stacks) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        size_t tab = at;
        for (int k = 0; k < 3 && tab != std::string::npos; k++)
            tab = text.find('\t', tab + (k > 0));
        if (tab == std::string::npos || tab >= end)
            return text.compare(at, truncated_len, truncated_line) == 0;
        std::string stack = text.substr(tab + 1, end - tab - 1);
        if (!stack.empty()) {
            counts[stack]++;
            stacks++;
        }
        at = end + 1;
    }
    return true;
}
