// The folder of crash reports. A report ID.txt, and its stack-only core
// ID.core.gz where one was kept; ID is "<unix time>-<pid>", with "-N"
// appended when that name was taken. Beside the folder (DIR.rate, DIR.lock,
// where the folder's group cannot write): the recent reports per
// executable, and the lock that serialises handlers that run at once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct crash_entry {
    std::string id;
    int64_t time = 0;
    int64_t bytes = 0;       // the report and its core together
    int64_t written_ns = 0;  // the report's modification time
};

// True for the names the store gives its reports, and nothing else: no
// slash, no dot, no empty name, at most 40 characters.
bool crash_id_valid(const std::string& id);

// The store's reports, oldest first. -errno when the folder is unreadable.
int crash_store_list(const std::string& dir, std::vector<crash_entry>& out);

// Reads dir/ID+suffix into out, at most max bytes: -EINVAL for an id that
// is not one, -ENOENT when missing, -ELOOP for a link, -EFBIG when larger.
int crash_store_read(const std::string& dir, const std::string& id, const char* suffix,
                     std::string& out, size_t max);

// Removes a report and its core. -EINVAL, -ENOENT as for reading.
int crash_store_delete(const std::string& dir, const std::string& id);

// Writes data under a temporary name, then renames it to dir/ID+suffix.
int crash_store_write(const std::string& dir, const std::string& id, const char* suffix,
                      const std::string& data);

// A fresh id for a report of pid at time t.
std::string crash_store_new_id(const std::string& dir, int64_t t, int pid);

// Drops the oldest reports until at most max_reports remain and they take
// at most max_bytes together; keep is never dropped. Returns how many went.
int crash_store_trim(const std::string& dir, int max_reports, int64_t max_bytes,
                     const std::string& keep);

// Records a report of exe at t and returns true, or returns false when exe
// already had per_hour reports in the hour before t.
bool crash_rate_allow(const std::string& dir, const std::string& exe, int64_t t, int per_hour);

// An exclusive lock on the store, held until crash_store_unlock; -errno,
// -EWOULDBLOCK when another holder kept it for two seconds.
int crash_store_lock(const std::string& dir);
void crash_store_unlock(int fd);
