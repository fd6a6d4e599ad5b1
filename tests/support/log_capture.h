// Captures every line logged through __android_log_print, using liblog's own
// logger hook, so tests can assert the exact priority, tag and text.
#pragma once

#include <ostream>
#include <string>
#include <vector>

struct log_line {
    int priority;
    std::string tag;   // a null tag arrives as the program's name
    std::string text;  // as formatted, trailing newline included

    bool operator==(const log_line& o) const {
        return priority == o.priority && tag == o.tag && text == o.text;
    }
};

std::ostream& operator<<(std::ostream& os, const log_line& l);

// While one exists, log lines are recorded instead of written to stderr.
// Only one may exist at a time.
class log_capture {
public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<log_line> lines() const;
    void clear();
};

// The tag liblog gives a line logged with a null tag.
std::string null_tag();
