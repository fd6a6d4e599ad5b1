#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common_func.h"
#include "log_capture.h"
#include "test_util.h"

namespace {
size_t open_fds() {
    auto it = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
}

size_t cached_count() {
    std::lock_guard<std::mutex> lock(file_cache::fds_lock);
    return file_cache::file_fds_cache.size();
}

// The result of read_file and the text it read.
std::pair<int, std::string> read_text(const std::string& path, bool cached) {
    std::vector<uint8_t> buf(4096);
    int n = file_cache::read_file(path, buf.data(), 4096, cached);
    return {n, n > 0 ? std::string(buf.begin(), buf.begin() + n) : ""};
}

// The cache is global: every test starts and ends with it empty.
class FileCache : public ::testing::Test {
protected:
    void SetUp() override { file_cache::empty_cache_file(); }
    void TearDown() override { file_cache::empty_cache_file(); }
    temp_dir dir;
};

// One read of at most len-1 bytes, zero-terminated only when bytes were read;
// a cached path is read again from offset 0.
TEST_F(FileCache, CountTerminatorAndCut) {
    struct row { size_t size; int len; int count; };
    std::string digits;
    for (int i = 0; i < 100; i++) digits += static_cast<char>('0' + i % 10);
    for (bool cached : {true, false}) {
        for (const row& r : std::vector<row>{{10, 64, 10}, {100, 16, 15}, {100, 1, 0}, {0, 64, 0}}) {
            SCOPED_TRACE("size " + std::to_string(r.size) + " len " + std::to_string(r.len) +
                         (cached ? " cached" : " uncached"));
            std::string path = dir.write("f" + std::to_string(r.size), digits.substr(0, r.size));
            for (int pass = 0; pass < 2; pass++) {
                std::vector<uint8_t> buf(80, 0xEE);
                ASSERT_EQ(file_cache::read_file(path, buf.data(), r.len, cached), r.count);
                EXPECT_EQ(std::string(buf.begin(), buf.begin() + r.count), digits.substr(0, r.count));
                EXPECT_EQ(buf[r.count], r.count > 0 ? 0 : 0xEE);
                EXPECT_EQ(buf[r.count + 1], 0xEE);
            }
        }
        file_cache::empty_cache_file();
    }
}

// A len below 1 is refused before anything is opened, logged or written.
TEST_F(FileCache, LenBelowOneRefused) {
    log_capture logs;
    for (const std::string& p : {dir.write("a", "abc"), dir.path() + "/missing"}) {
        for (int len : {0, -1, -4096}) {
            uint8_t buf[1] = {0xEE};
            errno = 0;
            EXPECT_EQ(file_cache::read_file(p, buf, len, true), -1) << p << " len " << len;
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(buf[0], 0xEE);
        }
    }
    EXPECT_EQ(cached_count(), 0u);
    EXPECT_TRUE(logs.lines().empty());
}

// A file that cannot be opened gives -2 and one untagged error line, and
// stays uncached so that a later call opens it.
TEST_F(FileCache, MissingFile) {
    log_capture logs;
    std::string path = dir.path() + "/late";
    EXPECT_EQ(read_text(path, true).first, -2);
    EXPECT_EQ(file_cache::open_and_cache(path), -2);
    EXPECT_EQ(logs.lines(),
              (std::vector<log_line>{
                  {ANDROID_LOG_ERROR, null_tag(), "read_file no such file: " + path + "\n"},
                  {ANDROID_LOG_ERROR, null_tag(), "open_and_cache no such file: " + path + "\n"}}));
    EXPECT_EQ(cached_count(), 0u);
    dir.write("late", "now here");
    EXPECT_EQ(read_text(path, true), std::make_pair(8, std::string("now here")));
}

// A cached path keeps its descriptor: in-place rewrites show, a file replaced
// on disk does not until empty_cache_file closes it; cached=false neither
// drops a cached path nor keeps what it opened itself.
TEST_F(FileCache, CachedPathKeepsItsDescriptor) {
    std::string path = dir.write("f", "old");
    ASSERT_EQ(read_text(path, true).second, "old");
    dir.write("f", "rewritten");
    EXPECT_EQ(read_text(path, true).second, "rewritten");
    std::rename(dir.write("g", "replaced").c_str(), path.c_str());
    size_t fds = open_fds();
    EXPECT_EQ(read_text(path, false).second, "rewritten");
    EXPECT_EQ(read_text(path, true).second, "rewritten");
    EXPECT_EQ(read_text(dir.write("h", "uncached"), false).second, "uncached");
    EXPECT_EQ(open_fds(), fds);
    EXPECT_EQ(cached_count(), 1u);
    int fd = file_cache::open_and_cache(path);
    ASSERT_GE(fd, 0);
    file_cache::empty_cache_file();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(cached_count(), 0u);
    EXPECT_EQ(read_text(path, true).second, "replaced");
}

// A new entry is made only while the map holds at most 300; beyond that
// read_file still reads (uncached), open_and_cache refuses with -24 before
// opening, and cached paths are still served.
TEST_F(FileCache, CapacityRule) {
    log_capture logs;
    std::vector<std::string> paths;
    for (int i = 0; i < 300; i++) {
        paths.push_back(dir.write("c" + std::to_string(i), "content " + std::to_string(i)));
        ASSERT_GE(file_cache::open_and_cache(paths.back()), 0) << paths.back();
    }
    int fd299 = file_cache::open_and_cache(paths[299]);
    std::string last = dir.write("last", "the 301st");
    EXPECT_EQ(read_text(last, true).second, "the 301st");
    ASSERT_EQ(cached_count(), 301u);
    std::string extra = dir.write("extra", "not cached");
    size_t before = open_fds();
    EXPECT_EQ(read_text(extra, true), std::make_pair(10, std::string("not cached")));
    EXPECT_EQ(open_fds(), before);
    EXPECT_EQ(file_cache::open_and_cache(extra), -24);
    EXPECT_EQ(file_cache::open_and_cache(dir.path() + "/missing"), -24);
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(read_text(dir.write("c7", "content 7 changed"), true).second, "content 7 changed");
    EXPECT_EQ(read_text(last, false).second, "the 301st");
    EXPECT_EQ(file_cache::open_and_cache(paths[299]), fd299);
    EXPECT_EQ(cached_count(), 301u);
}

// Eight threads reading the same and different files, cached and not, with
// empty_cache_file optionally closing everything under them: every read
// returns the whole content of its own file, and no descriptor leaks.
class FileCacheRace : public FileCache, public ::testing::WithParamInterface<bool> {};

TEST_P(FileCacheRace, EveryReadWholeAndUnmixed) {
    std::vector<std::string> paths, contents;
    for (int i = 0; i < 6; i++) {
        std::string name = "file" + std::to_string(i) + ";", text;
        while (text.size() < 40 + 400u * i) text += name;
        contents.push_back(text);
        paths.push_back(dir.write(name, text));
    }
    size_t fds_before = open_fds();
    std::mutex failures_lock;
    std::vector<std::string> failures;
    std::vector<std::thread> pool;
    for (int t = 0; t < 8; t++) {
        pool.emplace_back([&, t] {
            for (int n = 0; n < 2000; n++) {
                size_t f = static_cast<size_t>(t + n) % paths.size();
                auto got = read_text(paths[f], n % 4 != 0);
                if (got.second != contents[f]) {
                    std::lock_guard<std::mutex> lock(failures_lock);
                    failures.push_back(paths[f] + " gave " + std::to_string(got.first));
                }
            }
        });
    }
    if (GetParam()) {
        pool.emplace_back([] {
            for (int n = 0; n < 500; n++) {
                file_cache::empty_cache_file();
                std::this_thread::yield();
            }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(failures.size(), 0u) << (failures.empty() ? "" : failures.front());
    EXPECT_LE(cached_count(), paths.size());
    file_cache::empty_cache_file();
    EXPECT_EQ(open_fds(), fds_before);
}

INSTANTIATE_TEST_SUITE_P(Readers, FileCacheRace, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "WithEmptier" : "ReadersOnly"; });
}  // namespace
