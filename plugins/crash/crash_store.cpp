#include "crash_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <sstream>

namespace {

const char* const suffixes[] = {".txt", ".core.gz"};

int read_fd(int fd, std::string& out, size_t max) {
    char buf[16384];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -errno;
        if (n == 0)
            return 0;
        if (out.size() + static_cast<size_t>(n) > max)
            return -EFBIG;
        out.append(buf, static_cast<size_t>(n));
    }
}

int write_all(int fd, const std::string& s) {
    size_t done = 0;
    while (done < s.size()) {
        ssize_t n = write(fd, s.data() + done, s.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -(n < 0 ? errno : EIO);
        done += static_cast<size_t>(n);
    }
    return 0;
}

// A new file of our own, named path plus a random suffix (path is set to
// the name): the service's group may write the store, and a name it cannot
// guess leaves it no link, fifo or folder to put there first.
int create_fresh(std::string& path) {
    path += ".XXXXXX";
    int fd = mkostemp(&path[0], O_CLOEXEC);  // O_EXCL: never an existing name
    if (fd < 0)
        return -errno;
    if (fchmod(fd, 0640) != 0) {
        int e = errno;
        close(fd);
        unlink(path.c_str());
        return -e;
    }
    return fd;
}

// Temporary files a handler left when its time limit ended it mid-write;
// one younger than ten minutes may still be on its way.
void drop_stale_temps(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr)
        return;
    const time_t old = time(nullptr) - 600;
    struct stat st;
    while (dirent* e = readdir(d)) {
        if (strncmp(e->d_name, ".tmp-", 5) == 0 &&
            fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_mtime < old)
            unlinkat(dirfd(d), e->d_name, 0);
    }
    closedir(d);
}

// dir's own state files (.rate, .lock) stand beside it, in its parent
// folder, which the group that may write the store cannot write.
std::string beside(std::string dir, const char* suffix) {
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    return dir + suffix;
}

}  // namespace

bool crash_id_valid(const std::string& id) {
    if (id.empty() || id.size() > 40 || id[0] < '0' || id[0] > '9')
        return false;
    return std::all_of(id.begin(), id.end(),
                       [](char c) { return (c >= '0' && c <= '9') || c == '-'; });
}

int crash_store_list(const std::string& dir, std::vector<crash_entry>& out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr)
        return -errno;
    std::map<std::string, crash_entry> found;
    int fd = dirfd(d);
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        for (const char* sfx : suffixes) {
            size_t n = strlen(sfx);
            if (name.size() <= n || name.compare(name.size() - n, n, sfx) != 0)
                continue;
            std::string id = name.substr(0, name.size() - n);
            struct stat st;
            if (!crash_id_valid(id) || fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
                !S_ISREG(st.st_mode))
                break;
            crash_entry& c = found[id];
            c.id = id;
            c.time = strtoll(id.c_str(), nullptr, 10);
            c.bytes += st.st_size;
            if (strcmp(sfx, ".txt") == 0)
                c.written_ns = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
            break;
        }
    }
    closedir(d);
    out.clear();
    for (auto& kv : found) out.push_back(kv.second);
    std::stable_sort(out.begin(), out.end(), [](const crash_entry& a, const crash_entry& b) {
        return a.time != b.time ? a.time < b.time : a.written_ns < b.written_ns;
    });
    return 0;
}

int crash_store_read(const std::string& dir, const std::string& id, const char* suffix,
                     std::string& out, size_t max) {
    if (!crash_id_valid(id))
        return -EINVAL;
    int fd =
        open((dir + "/" + id + suffix).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return -errno;
    struct stat st;
    int rc = fstat(fd, &st) != 0 ? -errno : !S_ISREG(st.st_mode) ? -EINVAL : 0;
    if (rc == 0 && static_cast<uint64_t>(st.st_size) > max)
        rc = -EFBIG;
    if (rc == 0)
        rc = read_fd(fd, out, max);
    close(fd);
    return rc;
}

int crash_store_delete(const std::string& dir, const std::string& id) {
    if (!crash_id_valid(id))
        return -EINVAL;
    std::string report = dir + "/" + id + ".txt";
    struct stat st;
    if (lstat(report.c_str(), &st) != 0)
        return -errno;
    if (!S_ISREG(st.st_mode))
        return -EINVAL;
    unlink((dir + "/" + id + ".core.gz").c_str());
    return unlink(report.c_str()) == 0 ? 0 : -errno;
}

int crash_store_write(const std::string& dir, const std::string& id, const char* suffix,
                      const std::string& data) {
    std::string tmp = dir + "/.tmp-" + id + suffix;
    int fd = create_fresh(tmp);
    if (fd < 0)
        return fd;
    int rc = write_all(fd, data);
    if (rc == 0 && fsync(fd) != 0)
        rc = -errno;
    close(fd);
    if (rc == 0 && rename(tmp.c_str(), (dir + "/" + id + suffix).c_str()) != 0)
        rc = -errno;
    if (rc != 0)
        unlink(tmp.c_str());
    return rc;
}

std::string crash_store_new_id(const std::string& dir, int64_t t, int pid) {
    std::string base = std::to_string(t) + "-" + std::to_string(pid);
    std::string id = base;
    struct stat st;
    for (int n = 2; n < 1000 && lstat((dir + "/" + id + ".txt").c_str(), &st) == 0; n++)
        id = base + "-" + std::to_string(n);
    return id;
}

int crash_store_trim(const std::string& dir, int max_reports, int64_t max_bytes,
                     const std::string& keep) {
    drop_stale_temps(dir);
    std::vector<crash_entry> all;
    if (crash_store_list(dir, all) != 0)
        return 0;
    int64_t total = 0;
    for (const auto& e : all) total += e.bytes;
    int dropped = 0;
    size_t count = all.size();
    for (const auto& e : all) {
        if (count <= static_cast<size_t>(max_reports) && total <= max_bytes)
            break;
        if (e.id == keep)
            continue;
        if (crash_store_delete(dir, e.id) == 0) {
            dropped++;
            count--;
            total -= e.bytes;
        }
    }
    return dropped;
}

bool crash_rate_allow(const std::string& dir, const std::string& exe, int64_t t, int per_hour) {
    std::string old;
    const std::string rate = beside(dir, ".rate");
    int fd = open(rate.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        if (read_fd(fd, old, 1 << 20) != 0)
            old.clear();
        close(fd);
    }
    // Lines "<time> <executable>"; only the last hour is kept.
    std::istringstream in(old);
    std::string line, kept;
    int seen = 0;
    while (std::getline(in, line)) {
        size_t sp = line.find(' ');
        if (sp == std::string::npos)
            continue;
        int64_t when = strtoll(line.c_str(), nullptr, 10);
        if (when <= t - 3600 || when > t)
            continue;
        kept += line + "\n";
        if (line.compare(sp + 1, std::string::npos, exe) == 0)
            seen++;
    }
    bool allow = seen < per_hour;
    if (allow)
        kept += std::to_string(t) + " " + exe + "\n";
    std::string tmp = rate;
    fd = create_fresh(tmp);
    if (fd >= 0) {
        bool ok = write_all(fd, kept) == 0;
        close(fd);
        if (!ok || rename(tmp.c_str(), rate.c_str()) != 0)
            unlink(tmp.c_str());
    }
    return allow;
}

int crash_store_lock(const std::string& dir) {
    int fd = open(beside(dir, ".lock").c_str(),
                  O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0640);
    if (fd < 0)
        return -errno;
    // Handlers hold it for a write and a trim: a holder that keeps it
    // longer is stuck or hostile, and is not worth a lost report.
    for (int i = 0; i < 200; i++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return fd;
        if (errno != EWOULDBLOCK && errno != EINTR)
            break;
        usleep(10 * 1000);
    }
    int e = errno == EINTR ? EWOULDBLOCK : errno;
    close(fd);
    return -e;
}

void crash_store_unlock(int fd) {
    if (fd >= 0)
        close(fd);
}
