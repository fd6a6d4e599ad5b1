// Splitting /proc text into lines, words and numbers.
#include "proc_text.h"

#include <algorithm>
#include <charconv>

namespace {

// The daemon sends at most this much of a file in one reply.
constexpr size_t file_reply_cap = 8191;

}  // namespace

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) {
            if (text.size() < file_reply_cap) {
                lines.push_back(text.substr(pos));
            }
            break;
        }
        lines.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return lines;
}

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> w;
    size_t pos = 0;
    while (true) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string_view::npos) {
            return w;
        }
        size_t end = std::min(line.find_first_of(" \t", pos), line.size());
        w.push_back(line.substr(pos, end - pos));
        pos = end;
    }
}

std::string_view first_line(std::string_view text) {
    return text.substr(0, text.find('\n'));
}

bool to_double(std::string_view s, double& out) {
    auto r = std::from_chars(s.data(), s.data() + s.size(), out);
    return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}
