// Frames on the wire, for both ends: the request a client builds, the reply
// header the daemon (or a plug-in answering itself) fills, and the checks a
// client makes on the reply it gets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common_func.h"

// Header bytes before the payload; every frame is msg_len + frame_overhead
// bytes long.
constexpr size_t frame_header_len = offsetof(data_struct, msg);
constexpr size_t frame_overhead = sizeof(data_struct);
// Command, sub-command and msg_len: all that a reply with a status far below
// zero still carries.
constexpr size_t reply_prefix_len = 12;

// Markers of a reply, in msg_type and command_type.
constexpr uint8_t reply_msg_type = 0x30;
constexpr uint8_t reply_command_type = 0x31;

// Reply payload capacity of the daemon (one packet), and the most a request
// may carry.
constexpr int max_reply_payload = 8192;
constexpr int max_request_payload = 1024;
// No frame of the daemon is longer than one packet (readers set it as
// ZMQ_MAXMSGSIZE, so libzmq drops a longer one before holding it), and a
// multi-packet reply has at most this many packets: 8 MiB of payload.
constexpr int max_reply_frame = max_reply_payload + 48;
// The ZMQ_MAXMSGSIZE a reader sets: libzmq compares it with a frame as it
// comes off the wire, before CURVE decrypts it, and CURVE adds 33 bytes to
// each frame (command name, nonce, box). The decoder still holds a
// decrypted frame to max_reply_frame.
constexpr int64_t max_wire_frame = max_reply_frame + 64;
constexpr size_t max_reply_packets = 1024;

// A reply that does not hold together (the result of parse_reply).
constexpr int wire_malformed = -74;

// A request frame: the 44-byte header (crc 0, msg_len the payload size), the
// payload, and the 4 trailing bytes every frame carries (zero).
std::vector<uint8_t> pack_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload);

// The part of a reply header that names what it answers: command and
// sub_command from the request, msg_len, and the two reply markers. The
// packet fields, client_id, time and crc are the sender's.
void fill_reply_header(data_struct& reply, const data_struct& request, int32_t msg_len);

// A reply as received. header() holds the bytes that arrived, the rest zero:
// frame_len says which fields were sent (a negative status cuts the header).
struct client_reply {
    alignas(data_struct) uint8_t head[sizeof(data_struct)] = {};
    size_t frame_len = 0;  // bytes of the first (or only) part
    size_t parts = 0;      // ZeroMQ message parts
    std::string payload;   // msg_len bytes, empty for a negative status

    const data_struct& header() const { return *reinterpret_cast<const data_struct*>(head); }
    data_struct& header() { return *reinterpret_cast<data_struct*>(head); }
    // True when all bytes of the field at offset..offset+size were sent.
    bool has(size_t offset, size_t size) const { return frame_len >= offset + size; }
};

// The header of one received part (n bytes at frame) into h, the bytes not
// sent left zero. Returns 0, or wire_malformed with the reason in why (when
// why is not null): a part shorter than the 12-byte prefix, or one answering
// another command than (command, sub_command). what names the part in why.
int read_reply_header(const uint8_t* frame, size_t n, uint32_t command, uint32_t sub_command,
                      data_struct& h, const std::string& what = "reply",
                      std::string* why = nullptr);

// Checks the parts of one reply to the request (command, sub_command) and
// fills out. Returns 0, or wire_malformed with the reason in why: a part
// shorter than 12 bytes, shorter than msg_len + 48 (a negative msg_len needs
// max(12, msg_len + 48) bytes), a reply to another command, or packets of a
// multi-packet reply that do not add up.
int parse_reply(const std::vector<std::vector<uint8_t>>& parts, uint32_t command,
                uint32_t sub_command, client_reply& out, std::string& why);

// The meaning of a negative status in a reply: the daemon's own codes (-22
// "unknown command or sub-command", -1 "operation not permitted by this
// key", ...), else the text of the negated errno a plug-in returned, e.g. -3
// "No such process"; "unknown error" when there is none.
std::string status_text(int32_t code);
