#include "common_func.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <thread>
#include <tuple>

#include "log_capture.h"
#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

// 32-bit values travel little-endian, 64-bit big-endian, at any alignment and
// writing only their own bytes; bits reverse end to end; the checksum is 0
// and never reads its input.
TEST(ByteOrder, PairsReversalAndChecksum) {
    bytes b(11, 0xEE);
    u32_to_u8(0x12345678, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0x78, 0x56, 0x34, 0x12, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u32(&b[1]), 0x12345678u);
    u64_to_u8(0xF102030405060708ull, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0xF1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u64(&b[1]), 0xF102030405060708ull);
    EXPECT_EQ(reverse8(0x35), 0xAC);
    EXPECT_EQ(reverse32(0x04C11DB7u), 0xEDB88320u);
    for (const CRC_32& preset : {crc_32, crc_32_MPEG2})
        EXPECT_EQ(crc32(nullptr, 1 << 20, preset), 0u);
}

// A wire frame read through the struct gives each field, at its width and
// in host order, from its offset.
TEST(DataStruct, FieldsAtWireOffsets) {
    bytes f(48);
    for (size_t i = 0; i < f.size(); i++) f[i] = static_cast<uint8_t>(i);
    data_struct d;
    memcpy(&d, f.data(), sizeof d);
    // clang-format off
    EXPECT_EQ(std::make_tuple(d.command, d.sub_command, d.msg_len, +d.msg_type, +d.sum_packet, +d.cur_packet, +d.command_type, +d.client_id, d.time.tv_sec, d.time.tv_usec, d.crc, +d.msg[0]),
              std::make_tuple(0x03020100, 0x07060504, 0x0B0A0908, 12, 0x0F0E, 0x1110, 0x12, 0x13, 0x1F1E1D1C1B1A1918L, 0x2726252423222120L, 0x2B2A2928u, 0x2C));
    // clang-format on
}

// Scales by 1024 to one decimal rounded half up from the last remainder only;
// a carry is not rescaled, a unit past T prints no letter, and the text is one
// insertion (a field width pads all of it).
TEST(ShowByUnit, RoundingCarryAndUnits) {
    // clang-format off
    for (auto [val, off, text] : std::vector<std::tuple<uint64_t, uint8_t, std::string>>{{1023, 0, "1023.0B"}, {1024, 0, "1.0K"}, {1536, 0, "1.5K"}, {1075, 0, "1.0K"},
             {1076, 0, "1.1K"}, {1048575, 0, "1024.0K"}, {1049599, 0, "1.0M"}, {2048, 1, "2.0M"}, {1023, 4, "1023.0T"}, {1ull << 50, 0, "1.0"}, {1, 255, "1.0"}}) {
        // clang-format on
        std::ostringstream os;
        show_by_unit(val, os, off);
        EXPECT_EQ(os.str(), text) << "val=" << val << " off=" << int(off);
    }
    std::ostringstream os;
    show_by_unit(1536, os << std::setw(8), 0);
    EXPECT_EQ(os.str(), "    1.5K");
}

// Each part truncates toward zero by itself; an end before start wraps.
TEST(TimeDiff, SignedPartsAndWrap) {
    // clang-format off
    for (auto [s, e, ms, us] : std::vector<std::tuple<timeval, timeval, uint64_t, uint64_t>>{{{1, 999999}, {2, 0}, 1, 1}, {{0, 500}, {1, 400}, 1000, 999900},
             {{5, 10}, {5, 9}, 0, UINT64_MAX}, {{5, 0}, {4, 999999}, UINT64_MAX, UINT64_MAX}, {{10, 0}, {7, 500000}, 0 - 2500ull, 0 - 2500000ull}, {{3, 1500}, {3, 0}, UINT64_MAX, 0 - 1500ull}}) {
        // clang-format on
        EXPECT_EQ(std::make_pair(time_diff(s, e), time_diff_us(s, e)), std::make_pair(ms, us))
            << s.tv_sec << "." << s.tv_usec << " -> " << e.tv_sec << "." << e.tv_usec;
    }
}

size_t open_fds() {
    auto it = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
}

size_t cached_count() {
    std::lock_guard<std::mutex> lock(file_cache::fds_lock);
    return file_cache::file_fds_cache.size();
}

std::string read_text(const std::string& path, bool cached) {
    std::vector<uint8_t> buf(4096);
    int n = file_cache::read_file(path, buf.data(), 4096, cached);
    return n >= 0 ? std::string(buf.begin(), buf.begin() + n) : "error " + std::to_string(n);
}

// The cache is global: every test starts and ends with it empty.
class FileCache : public ::testing::Test {
protected:
    void SetUp() override { file_cache::empty_cache_file(); }
    void TearDown() override { file_cache::empty_cache_file(); }
    temp_dir dir;
};

// One read of at most len-1 bytes, zero-terminated only when bytes were read,
// a cached path read again from offset 0; a len below 1 touches nothing.
TEST_F(FileCache, CountTerminatorAndCut) {
    std::string digits = "0123456789012345678901234";
    log_capture logs;
    for (bool cached : {true, false}) {
        // clang-format off
        for (auto [size, len, count] : std::vector<std::tuple<size_t, int, int>>{{10, 64, 10}, {20, 16, 15}, {20, 1, 0}, {0, 64, 0}, {20, 0, -1}, {20, -4096, -1}}) {
            SCOPED_TRACE("size " + std::to_string(size) + " len " + std::to_string(len) + (cached ? " cached" : ""));
            // clang-format on
            std::string path = dir.write("f" + std::to_string(size), digits.substr(0, size));
            for (int pass = 0; pass < 2; pass++) {
                bytes buf(40, 0xEE);
                ASSERT_EQ(file_cache::read_file(path, buf.data(), len, cached), count);
                size_t n = static_cast<size_t>(std::max(count, 0));
                EXPECT_EQ(std::string(buf.begin(), buf.begin() + n), digits.substr(0, n));
                EXPECT_EQ(bytes(buf.begin() + n, buf.begin() + n + 2),
                          (bytes{uint8_t(n > 0 ? 0 : 0xEE), 0xEE}));
            }
        }
        EXPECT_EQ(cached_count(), cached ? 3u : 0u);
        file_cache::empty_cache_file();
    }
    EXPECT_TRUE(logs.lines().empty());
}

// A file that cannot be opened gives -2 and one untagged error line, and
// stays uncached so that a later call opens it.
TEST_F(FileCache, MissingFile) {
    log_capture logs;
    std::string path = dir.path() + "/late";
    EXPECT_EQ(read_text(path, true), "error -2");
    EXPECT_EQ(file_cache::open_and_cache(path), -2);
    // clang-format off
    EXPECT_EQ(logs.lines(), (std::vector<log_line>{{6 /* error */, null_tag(), "read_file no such file: " + path + "\n"},
                                                   {6 /* error */, null_tag(), "open_and_cache no such file: " + path + "\n"}}));
    // clang-format on
    dir.write("late", "now here");
    EXPECT_EQ(read_text(path, true), "now here");
}

// A cached path keeps its descriptor (a file replaced on disk is not seen)
// until empty_cache_file drops it; an uncached read keeps no descriptor.
TEST_F(FileCache, CachedPathKeepsItsDescriptor) {
    std::string path = dir.write("f", "old");
    ASSERT_EQ(read_text(path, true), "old");
    std::rename(dir.write("g", "replaced").c_str(), path.c_str());
    size_t fds = open_fds();
    EXPECT_EQ(read_text(path, false), "old");
    EXPECT_EQ(read_text(dir.write("h", "uncached"), false), "uncached");
    EXPECT_EQ(open_fds(), fds);
    file_cache::empty_cache_file();
    EXPECT_EQ(read_text(path, true), "replaced");
}

// A new entry only while the map holds at most 300: beyond that read_file
// reads uncached, open_and_cache refuses with -24 before opening, and cached
// paths are still served.
TEST_F(FileCache, CapacityRule) {
    std::vector<std::string> paths;
    for (int i = 0; i <= 300; i++)
        paths.push_back(dir.write("c" + std::to_string(i), "content " + std::to_string(i)));
    std::string extra = dir.write("extra", "not cached");
    for (bool via_read : {true, false}) {  // the 301st entry made by either call
        SCOPED_TRACE(via_read ? "read_file" : "open_and_cache");
        for (int i = 0; i < 300; i++) ASSERT_GE(file_cache::open_and_cache(paths[i]), 0) << i;
        if (via_read) {
            EXPECT_EQ(read_text(paths[300], true), "content 300");
        } else {
            EXPECT_GE(file_cache::open_and_cache(paths[300]), 0);
        }
        EXPECT_EQ(cached_count(), 301u);
        size_t before = open_fds();
        EXPECT_EQ(read_text(extra, true), "not cached");
        EXPECT_EQ(open_fds(), before);
        EXPECT_EQ(file_cache::open_and_cache(extra), -24);
        EXPECT_EQ(file_cache::open_and_cache(dir.path() + "/missing"), -24);
        EXPECT_EQ(read_text(paths[7], true), "content 7");
        file_cache::empty_cache_file();
    }
}

// Eight threads reading the same and different files, cached and not, while
// empty_cache_file closes everything under them: every read returns the whole
// content of its own file, and no descriptor leaks.
TEST_F(FileCache, RacingReadersWholeAndUnmixed) {
    std::vector<std::string> paths, contents;
    for (int i = 0; i < 6; i++) {  // a length and a letter of its own
        contents.push_back(std::string(40 + 400u * i, static_cast<char>('a' + i)));
        paths.push_back(dir.write(contents.back().substr(0, 1), contents.back()));
    }
    size_t fds_before = open_fds();
    std::atomic<int> failures{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < 8; t++) {
        pool.emplace_back([&, t] {
            for (int n = 0; n < 2000; n++) {
                size_t f = static_cast<size_t>(t + n) % paths.size();
                failures += read_text(paths[f], n % 4 != 0) != contents[f];
            }
        });
    }
    for (int n = 0; n < 500; n++, std::this_thread::yield()) file_cache::empty_cache_file();
    for (auto& th : pool) th.join();
    EXPECT_EQ(failures, 0);
    file_cache::empty_cache_file();
    EXPECT_EQ(open_fds(), fds_before);
}
}  // namespace
