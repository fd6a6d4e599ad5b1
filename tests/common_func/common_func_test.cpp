// Byte order, the checksum entry point, size and time formatting, and the
// file cache on real files.
#include "common_func.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>
#include <tuple>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

// 32-bit values travel little-endian, 64-bit big-endian, at any alignment and
// writing only their own bytes; the checksum is 0 and never reads its input.
// A size shows its last division's first decimal rounded half up (remainder
// 52 of 1024 is .1), a carry not rescaled; time_diff counts a second as 1000
// and truncates the microseconds by themselves (1000 - 999).
TEST(common_func, byte_order_checksum_sizes_and_times) {
    bytes b(11, 0xEE);
    u32_to_u8(0x12345678, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0x78, 0x56, 0x34, 0x12, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u32(&b[1]), 0x12345678u);
    u64_to_u8(0xF102030405060708ull, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0xF1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u64(&b[1]), 0xF102030405060708ull);
    EXPECT_EQ(std::make_pair(+reverse8(0x35), reverse32(0x04C11DB7u)),
              std::make_pair(0xAC, 0xEDB88320u));
    for (const CRC_32& preset : {crc_32, crc_32_MPEG2})
        EXPECT_EQ(crc32(nullptr, 1 << 20, preset), 0u);
    std::ostringstream sizes;
    for (uint64_t n : {1076ull, 1048575ull}) show_by_unit(n, sizes, 0);
    EXPECT_EQ(sizes.str(), "1.1K1024.0K");
    EXPECT_EQ(time_diff(timeval{1, 999999}, timeval{2, 0}), 1u);
}

// Callers inside read() per descriptor, and the most seen at once on one.
std::atomic<int> readers[1024], most_readers{0};
}  // namespace

// Every read of the file cache comes here first (the program's own definition
// wins over the C library's) and stays a moment, so that two reads of one
// descriptor at once would show.
extern "C" ssize_t read(int fd, void* buf, size_t n) {
    int inside = fd >= 0 && fd < 1024 ? ++readers[fd] : 0;
    for (int m = most_readers; inside > m && !most_readers.compare_exchange_weak(m, inside);) {
    }
    std::this_thread::yield();
    ssize_t r = syscall(SYS_read, fd, buf, n);
    if (inside > 0)
        --readers[fd];
    return r;
}

namespace {
size_t open_fds() {
    auto it = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
}

std::string read_text(const std::string& path, bool cached = true) {
    bytes buf(4096);
    int n = file_cache::read_file(path, buf.data(), 4096, cached);
    return n >= 0 ? std::string(buf.begin(), buf.begin() + n) : "error " + std::to_string(n);
}

// The cache is global: every test starts and ends with it empty.
class file_cache_test : public ::testing::Test {
protected:
    void SetUp() override { file_cache::empty_cache_file(); }
    void TearDown() override { file_cache::empty_cache_file(); }
    temp_dir dir;
};

// One read of at most len-1 bytes from the start, zero-terminated only when
// bytes were read, the same again from a cached descriptor; a len below 1
// touches nothing.
TEST_F(file_cache_test, count_terminator_and_rewind) {
    std::string digits = "0123456789012345678901234";
    log_capture logs;
    for (bool cached : {true, false}) {
        // clang-format off
        for (auto [size, len, count] : std::vector<std::tuple<size_t, int, int>>{{10, 64, 10}, {20, 16, 15}, {20, 1, 0}, {0, 64, 0}, {20, 0, -1}}) {
            // clang-format on
            std::string path = dir.write("f" + std::to_string(size), digits.substr(0, size));
            for (int pass = 0; pass < 2; pass++) {
                bytes buf(40, 0xEE), want(digits.begin(), digits.begin() + std::max(count, 0));
                want.resize(40, 0xEE);
                if (count > 0)
                    want[count] = 0;
                EXPECT_EQ(file_cache::read_file(path, buf.data(), len, cached), count)
                    << size << " " << len;
                EXPECT_EQ(buf, want) << size << " " << len << " pass " << pass;
            }
        }
        EXPECT_EQ(file_cache::file_fds_cache.size(), cached ? 3u : 0u);
        file_cache::empty_cache_file();
    }
    EXPECT_TRUE(logs.lines().empty());
}

// A file that cannot be opened gives -2 and one untagged error line and stays
// uncached. A cached path keeps its descriptor, so a file replaced on disk is
// not seen, until empty_cache_file; an uncached read keeps no descriptor.
TEST_F(file_cache_test, descriptors) {
    log_capture logs;
    std::string path = dir.path() + "/f";
    EXPECT_EQ(read_text(path), "error -2");
    EXPECT_EQ(file_cache::open_and_cache(path), -2);
    EXPECT_EQ(logs.lines(), (std::vector<log_line>{
                                {6, null_tag(), "read_file no such file: " + path + "\n"},
                                {6, null_tag(), "open_and_cache no such file: " + path + "\n"}}));
    dir.write("f", "old");
    ASSERT_EQ(read_text(path), "old");
    std::rename(dir.write("g", "replaced").c_str(), path.c_str());
    size_t fds = open_fds();
    EXPECT_EQ(read_text(path, false), "old");
    EXPECT_EQ(read_text(dir.write("h", "uncached"), false), "uncached");
    EXPECT_EQ(open_fds(), fds);
    file_cache::empty_cache_file();
    EXPECT_EQ(open_fds(), fds - 1);
    EXPECT_EQ(read_text(path), "replaced");
}

// A new entry only while the map holds at most 300: beyond that read_file
// reads uncached, open_and_cache refuses with -24 before opening, and cached
// paths are still served.
TEST_F(file_cache_test, capacity) {
    std::vector<std::string> paths;
    for (int i = 0; i <= 300; i++)
        paths.push_back(dir.write(std::to_string(i), "content " + std::to_string(i)));
    std::string extra = dir.write("extra", "not cached");
    for (bool via_read : {true, false}) {  // the 301st entry made by either call
        for (int i = 0; i < 300; i++) ASSERT_GE(file_cache::open_and_cache(paths[i]), 0) << i;
        EXPECT_TRUE(via_read ? read_text(paths[300]) == "content 300"
                             : file_cache::open_and_cache(paths[300]) >= 0);
        EXPECT_EQ(file_cache::file_fds_cache.size(), 301u);
        size_t before = open_fds();
        EXPECT_EQ(read_text(extra), "not cached");
        EXPECT_EQ(open_fds(), before);
        EXPECT_EQ(file_cache::open_and_cache(extra), -24);
        EXPECT_EQ(file_cache::open_and_cache(dir.path() + "/missing"), -24);
        EXPECT_EQ(read_text(paths[7]), "content 7");
        file_cache::empty_cache_file();
    }
}

// Eight threads reading the same and different files, cached and not, while
// empty_cache_file closes everything under them: every read returns the whole
// content of its own file, no descriptor is read by two at once, and none
// leaks.
TEST_F(file_cache_test, racing_readers) {
    std::vector<std::string> paths, contents;
    for (int i = 0; i < 6; i++) {
        contents.push_back(std::string(40 + 400u * i, static_cast<char>('a' + i)));
        paths.push_back(dir.write(contents.back().substr(0, 1), contents.back()));
    }
    size_t fds = open_fds();
    std::atomic<int> failures{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < 8; t++)
        pool.emplace_back([&, t] {
            for (size_t n = 0; n < 2000; n++)
                failures += read_text(paths[(t + n) % 6], n % 4 != 0) != contents[(t + n) % 6];
        });
    for (int n = 0; n < 500; n++, std::this_thread::yield()) file_cache::empty_cache_file();
    for (auto& th : pool) th.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(most_readers, 1);
    file_cache::empty_cache_file();
    EXPECT_EQ(open_fds(), fds);
}
}  // namespace
