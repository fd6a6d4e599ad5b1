#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common_func.h"

std::unordered_map<std::string, std::shared_ptr<fd_cache>> file_cache::file_fds_cache;
std::mutex file_cache::fds_lock;

fd_cache::fd_cache(int fd) : fd(fd) {}

namespace {
// /proc and /sys files are regular files; a device, pipe or socket may never
// reach its end, so it is read once, as without read-all.
bool regular_file(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

// Reads until want bytes are in, the file ends or an error other than EINTR.
// Bytes already read are the result even when an error stops the loop: they
// are the file's content, just shorter, as a short single read would be.
ssize_t read_loop(int fd, uint8_t* buf, size_t want) {
    size_t got = 0;
    while (got < want) {
        ssize_t n = read(fd, buf + got, want - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            return got > 0 ? static_cast<ssize_t>(got) : -1;
        }
    }
    return static_cast<ssize_t>(got);
}


}  // namespace

page_buffer::~page_buffer() {
    if (data != nullptr) {
        munmap(data, size);
    }
}

uint8_t* page_buffer::map(size_t bytes) {
    if (data == nullptr) {
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) {
            data = static_cast<uint8_t*>(p);
            size = bytes;
        }
    }
    return data;
}

int file_cache::hold(const std::string& path, bool cached, held_fd& h) {
    std::lock_guard<std::mutex> map_lock(fds_lock);
    auto it = file_fds_cache.find(path);
    if (it != file_fds_cache.end()) {
        // Taken while still holding fds_lock, so seek and read of one
        // descriptor stay atomic against the other readers.
        h.entry = it->second;
        h.entry_lock = std::unique_lock<std::mutex>(h.entry->flock);
        h.fd = h.entry->fd;
        lseek(h.fd, 0, SEEK_SET);
        return 0;
    }
    h.fd = open(path.c_str(), O_RDONLY);
    if (h.fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "read_file no such file: %s\n",
                            path.c_str());
        return -2;
    }
    // A full map is not an error here: the read goes ahead uncached.
    if (cached && file_fds_cache.size() <= max_entries) {
        h.entry = std::make_shared<fd_cache>(h.fd);
        h.entry_lock = std::unique_lock<std::mutex>(h.entry->flock);
        file_fds_cache.emplace(path, h.entry);
    }
    return 0;
}

void file_cache::release(held_fd& h) {
    if (h.entry) {
        h.entry_lock.unlock();
    } else {
        close(h.fd);
    }
}

int file_cache::read_file(const std::string& path, uint8_t* buf, int len, bool cached) {
    if (len < 1) {
        errno = EINVAL;
        return -1;
    }
    held_fd h;
    if (int rc = hold(path, cached, h); rc < 0) {
        return rc;
    }
    ssize_t count = read(h.fd, buf, static_cast<size_t>(len) - 1);
    release(h);
    if (count > 0) {
        buf[count] = 0;
    }
    return static_cast<int>(count);
}

int file_cache::read_file_whole(const std::string& path, uint8_t* buf, int len, bool cached,
                                page_buffer& whole, size_t limit) {
    if (len < 1) {
        errno = EINVAL;
        return -1;
    }
    held_fd h;
    if (int rc = hold(path, cached, h); rc < 0) {
        return rc;
    }
    const size_t first = static_cast<size_t>(len) - 1;
    const bool regular = regular_file(h.fd);
    ssize_t count = regular ? read_loop(h.fd, buf, first) : read(h.fd, buf, first);
    size_t total = 0;
    // Only a full first share can have more behind it.
    const bool more = regular && count == static_cast<ssize_t>(first) && limit > first;
    if (more && whole.map(limit) != nullptr) {
        memcpy(whole.data, buf, first);
        ssize_t n = read_loop(h.fd, whole.data + first, limit - first);
        total = first + static_cast<size_t>(std::max<ssize_t>(n, 0));
    }
    release(h);
    if (more && whole.data == nullptr) {
        return -ENOMEM;
    }
    if (total > first) {
        return static_cast<int>(total);
    }
    if (count > 0) {
        buf[count] = 0;
    }
    return static_cast<int>(count);
}

int file_cache::open_and_cache(const std::string& path) {
    std::lock_guard<std::mutex> map_lock(fds_lock);
    auto it = file_fds_cache.find(path);
    if (it != file_fds_cache.end()) {
        return it->second->fd;
    }
    if (file_fds_cache.size() > max_entries) {
        return -EMFILE;
    }
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "open_and_cache no such file: %s\n",
                            path.c_str());
        return -2;
    }
    file_fds_cache.emplace(path, std::make_shared<fd_cache>(fd));
    return fd;
}

void file_cache::empty_cache_file() {
    std::lock_guard<std::mutex> map_lock(fds_lock);
    for (auto& item : file_fds_cache) {
        // Never close a descriptor in the middle of someone's read.
        std::lock_guard<std::mutex> entry_lock(item.second->flock);
        close(item.second->fd);
    }
    file_fds_cache.clear();
}
