#include "log_capture.h"

#include <android/log.h>
#include <errno.h>

#include <mutex>

namespace {
std::mutex lines_lock;
std::vector<log_line> captured;

void capture_logger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(lines_lock);
    captured.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}
}  // namespace

std::ostream& operator<<(std::ostream& os, const log_line& l) {
    return os << "{" << l.priority << ", " << l.tag << ", \"" << l.text << "\"}";
}

log_capture::log_capture() {
    clear();
    __android_log_set_logger(capture_logger);
}

log_capture::~log_capture() {
    __android_log_set_logger(__android_log_stderr_logger);
}

std::vector<log_line> log_capture::lines() const {
    std::lock_guard<std::mutex> lock(lines_lock);
    return captured;
}

void log_capture::clear() {
    std::lock_guard<std::mutex> lock(lines_lock);
    captured.clear();
}

std::string null_tag() {
    return program_invocation_short_name;
}
