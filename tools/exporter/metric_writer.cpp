// The text exposition format's writer and name helpers.
#include <charconv>
#include <cmath>

#include "exporter.h"

namespace {

void append_value(std::string& out, double v) {
    // The text format's spellings; to_chars would write "inf" and "nan".
    if (!std::isfinite(v)) {
        out += std::isnan(v) ? "NaN" : v > 0 ? "+Inf" : "-Inf";
        return;
    }
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

}  // namespace

std::string escape_label(const std::string& v) {
    std::string out;
    out.reserve(v.size());
    for (char c : v) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string metric_name_part(const std::string& text) {
    std::string out;
    for (char c : text) {
        bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        out += ok ? c : '_';
    }
    while (!out.empty() && out.back() == '_') {
        out.pop_back();
    }
    return out;
}

void metric_writer::family(const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void metric_writer::sample(const std::string& name,
                           const std::vector<std::pair<const char*, std::string>>& labels,
                           double value) {
    out += name;
    if (!labels.empty()) {
        out += '{';
        for (size_t i = 0; i < labels.size(); i++) {
            out += i == 0 ? "" : ",";
            out += labels[i].first;
            out += "=\"";
            out += escape_label(labels[i].second);
            out += '"';
        }
        out += '}';
    }
    out += ' ';
    append_value(out, value);
    out += '\n';
}
