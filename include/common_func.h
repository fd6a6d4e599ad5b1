// Common helpers shared by every module of vireo-monitor: the wire frame,
// byte order, the checksum entry point, the file cache, size formatting and
// time differences.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <unordered_map>

// One frame as it travels on the wire: the host's memory image on a
// little-endian 64-bit system, no field converted. A frame is always sent as
// msg_len + 48 bytes (the 44-byte header, the payload, and the 4 bytes of
// trailing alignment, which carry no meaning). Offsets 13 and 20..23 are
// alignment gaps that the daemon never writes.
struct data_struct {
    int32_t command;       // command code, or 0xEAEA for the client-id commands
    int32_t sub_command;   // sub-command within the group
    int32_t msg_len;       // payload length; a negative value is an error code
    uint8_t msg_type;      // 0x30 in replies
    uint16_t sum_packet;   // packets in a multi-packet reply, 0 otherwise
    uint16_t cur_packet;   // number of this packet from 1, 0 otherwise
    uint8_t command_type;  // 0x31 in replies
    uint8_t client_id;     // 0xFF in single-packet replies
    struct timeval time;   // receive time (requests) or send time (replies)
    uint32_t crc;          // checksum of the payload (always 0, see crc32)
    uint8_t msg[];         // payload
};

// The layout is the wire format: a change here must fail the build.
static_assert(offsetof(data_struct, command) == 0, "command offset");
static_assert(offsetof(data_struct, sub_command) == 4, "sub_command offset");
static_assert(offsetof(data_struct, msg_len) == 8, "msg_len offset");
static_assert(offsetof(data_struct, msg_type) == 12, "msg_type offset");
static_assert(offsetof(data_struct, sum_packet) == 14, "sum_packet offset");
static_assert(offsetof(data_struct, cur_packet) == 16, "cur_packet offset");
static_assert(offsetof(data_struct, command_type) == 18, "command_type offset");
static_assert(offsetof(data_struct, client_id) == 19, "client_id offset");
static_assert(offsetof(data_struct, time) == 24, "time offset");
static_assert(sizeof(((data_struct*)nullptr)->time.tv_sec) == 8, "64-bit tv_sec");
static_assert(sizeof(((data_struct*)nullptr)->time.tv_usec) == 8, "64-bit tv_usec");
static_assert(offsetof(data_struct, crc) == 40, "crc offset");
static_assert(offsetof(data_struct, msg) == 44, "msg offset");
static_assert(sizeof(data_struct) == 48, "frame overhead");

// Parameters of a CRC-32 computation.
struct CRC_32 {
    uint32_t poly;       // generator polynomial, most-significant-bit first
    uint32_t InitValue;  // initial register value
    uint32_t xorr;       // xored into the final register
    bool InputReverse;   // each input byte taken bit-reversed
    bool OutputReverse;  // final register bit-reversed before the xor
};

constexpr CRC_32 crc_32 = {0x04C11DB7, 0xFFFFFFFF, 0xFFFFFFFF, true, true};
constexpr CRC_32 crc_32_MPEG2 = {0x04C11DB7, 0xFFFFFFFF, 0x00000000, false, false};

// 32-bit values are little-endian in buffers, 64-bit values big-endian. Both
// work byte by byte, so buffers need no alignment.
void u32_to_u8(uint32_t num, uint8_t* u8_array);
uint32_t u8_to_u32(const uint8_t* buf);
uint64_t u8_to_u64(const uint8_t* data);
void u64_to_u8(uint64_t value, uint8_t* data);

uint8_t reverse8(uint8_t data);
uint32_t reverse32(uint32_t data);

// The frame checksum is switched off at its source: returns 0 for every input
// and never reads addr. Clients pass the check by sending crc 0.
uint32_t crc32(uint8_t* addr, int num, CRC_32 type);

// One cached descriptor; flock is held while it is seeked and read.
// Destroying an fd_cache does not close fd.
class fd_cache {
public:
    int fd;
    std::mutex flock;

    explicit fd_cache(int fd);
};

// Anonymous memory for one long read, mapped on first use: only the pages
// written become resident, and all go back to the system on destruction (a
// freed malloc block of a megabyte may stay with the thread's arena).
class page_buffer {
public:
    page_buffer() = default;
    ~page_buffer();
    page_buffer(const page_buffer&) = delete;
    page_buffer& operator=(const page_buffer&) = delete;

    // Maps bytes bytes unless mapped already; data, or null on failure.
    uint8_t* map(size_t bytes);

    uint8_t* data = nullptr;
    size_t size = 0;
};

// Descriptors of monitored files, kept open so that a polled file costs one
// seek and one read. Thread-safe: fds_lock guards the map and is always taken
// before an entry's flock. Entries are never evicted or re-opened: a cached
// path goes on reading the file that was open when it was cached until
// empty_cache_file.
class file_cache {
public:
    // A new entry is added only while the map holds at most this many.
    static constexpr size_t max_entries = 300;

    // Reads at most len - 1 bytes of path into buf with one read and puts a
    // zero byte after them when at least one was read. With cached true a
    // newly opened descriptor is kept for later calls; a path already cached
    // always uses its descriptor. Returns the count, -1 when the read fails,
    // -2 when the file cannot be opened. A len below 1 is refused with -1
    // (errno EINVAL) before anything is opened, read or written.
    static int read_file(const std::string& path, uint8_t* buf, int len, bool cached);

    // A file longer than one reply, for a "read-all" command that answers
    // the whole file. The first len - 1 bytes are read on until they are in
    // or the file ends (a regular file; a device or pipe gets one read),
    // retrying EINTR; an error after some bytes returns those bytes, an error
    // before any byte -1. When the file ends there, the result is read_file's
    // (the count, in buf, a zero byte after it) and whole stays unmapped. A
    // regular file that fills them is read on into whole, mapped with limit
    // bytes (limit > len - 1), its content from offset 0, until it ends or
    // whole is full (so a result of limit means "or longer"); the result is
    // then that count, above len - 1, or -12 (ENOMEM) when whole could not
    // be mapped. The descriptor is held (its flock, for a cached one) for the
    // whole read, so the bytes are one reading of the file.
    static int read_file_whole(const std::string& path, uint8_t* buf, int len, bool cached,
                               page_buffer& whole, size_t limit);

    // Returns the cached descriptor of path, opening and caching it if
    // needed; -2 when it cannot be opened, -24 when the map is full.
    static int open_and_cache(const std::string& path);

    // Closes every cached descriptor and empties the map.
    static void empty_cache_file();

    static std::unordered_map<std::string, std::shared_ptr<fd_cache>> file_fds_cache;
    static std::mutex fds_lock;

private:
    // A descriptor taken for one read: a cached entry, locked, or one opened
    // for this read only (entry null).
    struct held_fd {
        int fd = -1;
        std::shared_ptr<fd_cache> entry;
        std::unique_lock<std::mutex> entry_lock;
    };
    // The cached descriptor of path, seeked to 0, or a new one (cached when
    // asked and there is room). 0, or -2 (logged) when path cannot be opened.
    static int hold(const std::string& path, bool cached, held_fd& h);
    // Unlocks a cached descriptor, closes an uncached one.
    static void release(held_fd& h);
};

// Writes val, given in unit "BKMGT"[off], scaled by 1024 to one decimal, e.g.
// "1.5K". A unit past T prints no letter.
void show_by_unit(uint64_t val, std::ostream& os, uint8_t off);

// Interval from start to end in milliseconds and in microseconds; unsigned
// arithmetic, so an end before start wraps.
uint64_t time_diff(const struct timeval& start, const struct timeval& end);
uint64_t time_diff_us(const struct timeval& start, const struct timeval& end);

// Reserved for a log file; nothing opens it.
extern FILE* logFile;
