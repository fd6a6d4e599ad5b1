#include "common_func.h"

#include <string>

FILE* logFile = nullptr;

void u32_to_u8(uint32_t num, uint8_t* u8_array) {
    for (int i = 0; i < 4; i++) {
        u8_array[i] = static_cast<uint8_t>(num >> (8 * i));
    }
}

uint32_t u8_to_u32(const uint8_t* buf) {
    return static_cast<uint32_t>(buf[0]) | static_cast<uint32_t>(buf[1]) << 8 |
           static_cast<uint32_t>(buf[2]) << 16 | static_cast<uint32_t>(buf[3]) << 24;
}

uint64_t u8_to_u64(const uint8_t* data) {
    uint64_t value = 0;
    for (int i = 0; i < 8; i++) {
        value = (value << 8) | data[i];
    }
    return value;
}

void u64_to_u8(uint64_t value, uint8_t* data) {
    for (int i = 0; i < 8; i++) {
        data[i] = static_cast<uint8_t>(value >> (56 - 8 * i));
    }
}

uint8_t reverse8(uint8_t data) {
    uint8_t out = 0;
    for (int i = 0; i < 8; i++) {
        if (data & (1u << i)) {
            out |= static_cast<uint8_t>(1u << (7 - i));
        }
    }
    return out;
}

uint32_t reverse32(uint32_t data) {
    uint32_t out = 0;
    for (int i = 0; i < 32; i++) {
        if (data & (1u << i)) {
            out |= 1u << (31 - i);
        }
    }
    return out;
}

// The protocol has every reply carry crc 0 and accepts exactly the requests
// with crc 0, so the checksum stays off: nothing is read.
uint32_t crc32(uint8_t* /*addr*/, int /*num*/, CRC_32 /*type*/) { return 0; }

void show_by_unit(uint64_t val, std::ostream& os, uint8_t off) {
    static const char unit[5] = {'B', 'K', 'M', 'G', 'T'};
    uint32_t frac = 0;
    while (val >= 1024) {
        // Only the last division's remainder is shown, rounded half up.
        frac = static_cast<uint32_t>(((val % 1024) * 10 + 512) / 1024);
        val /= 1024;
        off++;
    }
    if (frac == 10) {
        // The carry is not rescaled: 1048575 bytes read 1024.0K.
        val++;
        frac = 0;
    }
    std::string text = std::to_string(val) + "." + std::to_string(frac);
    if (off < sizeof(unit)) {
        text += unit[off];
    }
    os << text;
}

uint64_t time_diff(const struct timeval& start, const struct timeval& end) {
    uint64_t delta_sec =
        (static_cast<uint64_t>(end.tv_sec) - static_cast<uint64_t>(start.tv_sec)) * 1000;
    // Signed and truncated toward zero by itself, as the two parts are.
    int64_t usec = static_cast<int64_t>(static_cast<uint64_t>(end.tv_usec) -
                                        static_cast<uint64_t>(start.tv_usec));
    int64_t delta_us = usec / 1000;
    return delta_sec + static_cast<uint64_t>(delta_us);
}

uint64_t time_diff_us(const struct timeval& start, const struct timeval& end) {
    return (static_cast<uint64_t>(end.tv_sec) - static_cast<uint64_t>(start.tv_sec)) * 1000000 +
           (static_cast<uint64_t>(end.tv_usec) - static_cast<uint64_t>(start.tv_usec));
}
