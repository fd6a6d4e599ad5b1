#include "journal_log.h"

#include <android/log.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

// The journal stores a stream line under the syslog level of its "<N>"
// prefix (crit, err, warning, info, debug); without one, every line is info.
int syslog_level(int priority) {
    if (priority >= ANDROID_LOG_FATAL) {
        return 2;
    }
    switch (priority) {
        case ANDROID_LOG_ERROR:
            return 3;
        case ANDROID_LOG_WARN:
            return 4;
        case ANDROID_LOG_INFO:
            return 6;
        default:
            return 7;
    }
}

void journal_logger(const struct __android_logger_data* data, const char* message) {
    std::string prefix = "<" + std::to_string(syslog_level(data->priority)) + ">" +
                         (data->tag ? data->tag : program_invocation_short_name) + ": ";
    std::string text = message ? message : "";
    // Most texts end in a newline of their own: one more would be stored as
    // an empty entry. A text of several lines keeps its level on each.
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::string out;
    size_t start = 0;
    do {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        out += prefix;
        out.append(text, start, end - start);
        out += '\n';
        start = end + 1;
    } while (start <= text.size());
    // One write per message, so lines of concurrent threads never mix.
    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
        ssize_t n = write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // nowhere else to report it
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

bool journal_log_install() {
    // systemd sets JOURNAL_STREAM to "DEV:INODE" of the stream it connects to
    // standard error; a redirected stderr keeps the variable but not the inode.
    const char* stream = getenv("JOURNAL_STREAM");
    unsigned long long dev, ino;
    struct stat st;
    if (stream == nullptr || sscanf(stream, "%llu:%llu", &dev, &ino) != 2 ||
        fstat(STDERR_FILENO, &st) != 0 || st.st_dev != dev || st.st_ino != ino) {
        return false;
    }
    __android_log_set_logger(journal_logger);
    return true;
}
