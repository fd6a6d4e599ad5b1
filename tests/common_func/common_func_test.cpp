#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <utility>
#include <vector>

#include "common_func.h"

namespace {
using bytes = std::vector<uint8_t>;

// 32-bit values travel little-endian, 64-bit values big-endian, at any
// alignment and writing only their own bytes; read across, halves swap.
TEST(ByteOrder, PairsKeepTheirOwnOrder) {
    bytes b(11, 0xEE);
    u32_to_u8(0x12345678, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0x78, 0x56, 0x34, 0x12, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u32(&b[1]), 0x12345678u);
    EXPECT_EQ(u8_to_u32(bytes{0x01, 0, 0, 0xFF}.data()), 0xFF000001u);
    u64_to_u8(0x0102030405060708ull, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 1, 2, 3, 4, 5, 6, 7, 8, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u64(&b[1]), 0x0102030405060708ull);
    EXPECT_EQ(u8_to_u32(&b[1]), 0x04030201u);
    EXPECT_EQ(u8_to_u32(&b[5]), 0x08070605u);
    u64_to_u8(0xF000000000000001ull, &b[1]);
    EXPECT_EQ(b, (bytes{0xEE, 0xF0, 0, 0, 0, 0, 0, 0, 1, 0xEE, 0xEE}));
    EXPECT_EQ(u8_to_u64(&b[1]), 0xF000000000000001ull);
}

// Bit i lands on bit 7-i (31-i), and reversing twice restores the value.
TEST(ByteOrder, BitReversal) {
    for (auto [in, out] : std::vector<std::pair<int, int>>{{0x01, 0x80}, {0x80, 0x01}, {0x00, 0x00},
                                                           {0xFF, 0xFF}, {0x35, 0xAC}}) {
        EXPECT_EQ(reverse8(static_cast<uint8_t>(in)), out) << "reverse8 " << in;
    }
    EXPECT_EQ(reverse32(0x04C11DB7u), 0xEDB88320u);
    for (int i = 0; i < 32; i++) {
        EXPECT_EQ(reverse32(1u << i), 1u << (31 - i)) << "bit " << i;
    }
    for (uint32_t x : {0u, 0x12345678u, 0x80000001u, 0xFFFFFFFEu, 0xDEADBEEFu}) {
        EXPECT_EQ(reverse32(reverse32(x)), x) << std::hex << x;
    }
}

// The frame checksum is off: 0 for every input, addr never dereferenced.
TEST(Crc32, AlwaysZeroAndNeverReads) {
    uint8_t text[] = "123456789";
    for (const CRC_32& preset : {crc_32, crc_32_MPEG2}) {
        EXPECT_EQ(crc32(text, 9, preset), 0u);
        EXPECT_EQ(crc32(nullptr, 0, preset), 0u);
        EXPECT_EQ(crc32(nullptr, -1, preset), 0u);
        EXPECT_EQ(crc32(nullptr, 1 << 20, preset), 0u);
    }
}

// Fields written through the struct land at their wire offsets; gaps untouched.
TEST(DataStruct, FieldsAtWireOffsets) {
    alignas(data_struct) uint8_t frame[52];
    memset(frame, 0xAA, sizeof frame);
    auto* d = reinterpret_cast<data_struct*>(frame);
    d->command = 0x01020304;
    d->sub_command = -2;
    d->msg_len = 0x0A0B0C0D;
    d->msg_type = 0x30;
    d->sum_packet = 0x1112;
    d->cur_packet = 0x2122;
    d->command_type = 0x31;
    d->client_id = 0xFF;
    d->time.tv_sec = 0x3132333435363738;
    d->time.tv_usec = 0x4142434445464748;
    d->crc = 0x51525354;
    d->msg[0] = 0x61;
    const bytes want{4, 3, 2, 1, 0xFE, 0xFF, 0xFF, 0xFF, 0x0D, 0x0C, 0x0B, 0x0A,
                     0x30, 0xAA, 0x12, 0x11, 0x22, 0x21, 0x31, 0xFF, 0xAA, 0xAA, 0xAA, 0xAA,
                     0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31,
                     0x48, 0x47, 0x46, 0x45, 0x44, 0x43, 0x42, 0x41,
                     0x54, 0x53, 0x52, 0x51, 0x61, 0xAA};
    EXPECT_EQ(bytes(frame, frame + want.size()), want);
}

// Scales by 1024 to one decimal rounded half up from the last remainder only;
// a carry is not rescaled, and a unit past T prints no letter.
TEST(ShowByUnit, RoundingCarryAndUnits) {
    struct row { uint64_t val; uint8_t off; const char* text; };
    const uint64_t k = 1024;
    for (const row& r : std::vector<row>{
             {0, 0, "0.0B"}, {1023, 0, "1023.0B"}, {1024, 0, "1.0K"}, {1536, 0, "1.5K"},
             {1075, 0, "1.0K"}, {1076, 0, "1.1K"}, {1048575, 0, "1024.0K"}, {1049599, 0, "1.0M"},
             {2048, 1, "2.0M"}, {10 * k * k * k * k, 0, "10.0T"}, {1023, 4, "1023.0T"},
             {k * k * k * k * k, 0, "1.0"}, {7, 5, "7.0"}, {1, 255, "1.0"}, {UINT64_MAX, 0, "16.0"}}) {
        std::ostringstream os;
        show_by_unit(r.val, os, r.off);
        EXPECT_EQ(os.str(), r.text) << "val=" << r.val << " off=" << int(r.off);
    }
    // One insertion: a field width pads the whole text, not its first piece.
    std::ostringstream os;
    os << std::setw(8);
    show_by_unit(1536, os, 0);
    EXPECT_EQ(os.str(), "    1.5K");
}

// Each part truncates toward zero by itself; an end before start wraps.
TEST(TimeDiff, SignedPartsAndWrap) {
    struct row { timeval start, end; uint64_t ms, us; };
    for (const row& r : std::vector<row>{
             {{1, 999999}, {2, 0}, 1, 1}, {{0, 500}, {1, 400}, 1000, 999900}, {{5, 0}, {5, 0}, 0, 0},
             {{5, 10}, {5, 9}, 0, UINT64_MAX}, {{5, 0}, {4, 999999}, UINT64_MAX, UINT64_MAX},
             {{10, 0}, {7, 500000}, 0 - 2500ull, 0 - 2500000ull}, {{3, 1500}, {3, 0}, UINT64_MAX, 0 - 1500ull}}) {
        SCOPED_TRACE(std::to_string(r.start.tv_sec) + "." + std::to_string(r.start.tv_usec) + " -> " +
                     std::to_string(r.end.tv_sec) + "." + std::to_string(r.end.tv_usec));
        EXPECT_EQ(time_diff(r.start, r.end), r.ms);
        EXPECT_EQ(time_diff_us(r.start, r.end), r.us);
    }
}
}  // namespace
