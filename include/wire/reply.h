// Replies larger than one packet, sent by the code that holds the worker's
// connection (a plug-in function, or the request handler for a whole file).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

class comm_data;

// Answers the request in c with len bytes of buf. Up to max_send_len bytes
// go into send_data's payload as they are, and the result is len: the caller
// returns it and the daemon sends the usual single-packet reply. A longer
// reply is sent here at once as one multi-part message of packets of
// max_send_len + 48 bytes each: every packet's msg_len is len, sum_packet
// the packet count, cur_packet 1, 2, ...; the last packet's payload is
// padded with zeros. The result is then max_send_len + 1, which tells the
// daemon that the reply is sent. When not even the first packet could be
// sent the result is -EIO (the daemon still answers with that status); a
// failure after it leaves the client with the packets sent.
int send_reply(comm_data* c, const uint8_t* buf, size_t len);

// The most one multi-packet reply carries, and the line that ends a reply
// cut there.
constexpr size_t max_multi_reply_len = 1 << 20;
constexpr char truncated_line[] = "... truncated\n";
constexpr size_t truncated_len = sizeof truncated_line - 1;

// Cuts the len bytes of buf back to the whole lines that leave room for
// truncated_line within cap, and appends it; returns the new length. buf
// must hold at least cap bytes. Inline: the one-threaded walker uses it
// without linking the library.
inline size_t cut_to_whole_lines(uint8_t* buf, size_t len, size_t cap) {
    size_t keep = std::min(len, cap - truncated_len);
    while (keep > 0 && buf[keep - 1] != '\n') {
        keep--;
    }
    memcpy(buf + keep, truncated_line, truncated_len);
    return keep + truncated_len;
}
