#include "wire/frame.h"

#include <algorithm>
#include <cstring>

#include "wire/probe_codes.h"  // the probe plug-in's status codes

namespace {

std::string hex(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

std::string n_bytes(size_t n) {
    return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

int malformed(std::string* why, std::string text) {
    if (why != nullptr) {
        *why = std::move(text);
    }
    return wire_malformed;
}

// What no daemon sends, whatever the fields say: more packets than a reply
// may have, or a frame longer than one packet.
int check_bounds(const std::vector<std::vector<uint8_t>>& parts, std::string& why) {
    if (parts.size() > max_reply_packets) {
        why = "reply of " + std::to_string(parts.size()) + " packets, over " +
              std::to_string(max_reply_packets);
        return wire_malformed;
    }
    for (const std::vector<uint8_t>& p : parts) {
        if (p.size() > static_cast<size_t>(max_reply_frame)) {
            why = "frame of " + n_bytes(p.size()) + " is over one packet (" +
                  std::to_string(max_reply_frame) + " bytes)";
            return wire_malformed;
        }
    }
    return 0;
}

int parse_packets(const std::vector<std::vector<uint8_t>>& parts, uint32_t command,
                  uint32_t sub_command, client_reply& out, std::string& why) {
    const size_t count = parts.size();
    const int64_t len = out.header().msg_len;
    const int64_t cap = max_reply_payload;
    if (len <= (static_cast<int64_t>(count) - 1) * cap || len > static_cast<int64_t>(count) * cap) {
        why = "msg_len " + std::to_string(len) + " does not fit a reply of " +
              std::to_string(count) + " packets";
        return wire_malformed;
    }
    for (size_t i = 0; i < count; i++) {
        std::string what = "packet " + std::to_string(i + 1) + " of " + std::to_string(count);
        data_struct h;
        if (int rc = read_reply_header(parts[i].data(), parts[i].size(), command, sub_command, h,
                                       what, &why);
            rc != 0) {
            return rc;
        }
        if (parts[i].size() < static_cast<size_t>(cap) + frame_overhead) {
            why = what + " is " + n_bytes(parts[i].size()) + ", not " +
                  std::to_string(cap + frame_overhead);
            return wire_malformed;
        }
        if (h.msg_len != out.header().msg_len || h.sum_packet != count || h.cur_packet != i + 1) {
            why = what + " says msg_len " + std::to_string(h.msg_len) + ", packet " +
                  std::to_string(h.cur_packet) + " of " + std::to_string(h.sum_packet);
            return wire_malformed;
        }
        size_t share =
            static_cast<size_t>(std::min<int64_t>(cap, len - static_cast<int64_t>(i) * cap));
        out.payload.append(reinterpret_cast<const char*>(parts[i].data() + frame_header_len),
                           share);
    }
    return 0;
}

}  // namespace

std::vector<uint8_t> pack_request(uint32_t command, uint32_t sub_command,
                                  const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> frame(frame_overhead + payload.size(), 0);
    u32_to_u8(command, frame.data() + offsetof(data_struct, command));
    u32_to_u8(sub_command, frame.data() + offsetof(data_struct, sub_command));
    u32_to_u8(static_cast<uint32_t>(payload.size()), frame.data() + offsetof(data_struct, msg_len));
    // crc stays 0: the daemon's checksum of any payload is 0.
    std::copy(payload.begin(), payload.end(), frame.begin() + frame_header_len);
    return frame;
}

void fill_reply_header(data_struct& reply, const data_struct& request, int32_t msg_len) {
    reply.command = request.command;
    reply.sub_command = request.sub_command;
    reply.msg_len = msg_len;
    reply.msg_type = reply_msg_type;
    reply.command_type = reply_command_type;
}

int read_reply_header(const uint8_t* frame, size_t n, uint32_t command, uint32_t sub_command,
                      data_struct& h, const std::string& what, std::string* why) {
    if (n < reply_prefix_len) {
        return malformed(why, what + " of " + n_bytes(n) + " is shorter than the " +
                                  std::to_string(reply_prefix_len) +
                                  "-byte header prefix (command, sub_command, msg_len)");
    }
    memset(&h, 0, sizeof h);
    memcpy(&h, frame, std::min(n, frame_header_len));
    if (static_cast<uint32_t>(h.command) != command ||
        static_cast<uint32_t>(h.sub_command) != sub_command) {
        return malformed(why, what + " answers command " + hex(h.command) + " sub-command " +
                                  hex(h.sub_command) + ", not the request's " + hex(command) + " " +
                                  hex(sub_command));
    }
    return 0;
}

int parse_reply(const std::vector<std::vector<uint8_t>>& parts, uint32_t command,
                uint32_t sub_command, client_reply& out, std::string& why) {
    out = client_reply{};
    out.parts = parts.size();
    if (parts.empty()) {
        why = "empty reply";
        return wire_malformed;
    }
    if (int rc = check_bounds(parts, why); rc != 0) {
        return rc;
    }
    const std::vector<uint8_t>& first = parts[0];
    out.frame_len = first.size();
    const std::string what =
        parts.size() == 1 ? "reply" : "packet 1 of " + std::to_string(parts.size());
    if (int rc = read_reply_header(first.data(), first.size(), command, sub_command, out.header(),
                                   what, &why);
        rc != 0) {
        return rc;
    }
    const int64_t len = out.header().msg_len;
    if (parts.size() > 1) {
        return parse_packets(parts, command, sub_command, out, why);
    }
    if (len > max_reply_payload) {
        why = "msg_len " + std::to_string(len) + " is over one packet's " +
              std::to_string(max_reply_payload) + " bytes";
        return wire_malformed;
    }
    // A status travels in msg_len and cuts the frame to msg_len + 48 bytes,
    // but never below the prefix that holds it.
    const int64_t need = std::max<int64_t>(static_cast<int64_t>(reply_prefix_len), len + 48);
    if (static_cast<int64_t>(first.size()) < need) {
        why = "reply of " + n_bytes(first.size()) + " is shorter than the " + std::to_string(need) +
              " bytes that " + (len < 0 ? "a status of " : "a msg_len of ") + std::to_string(len) +
              " takes";
        return wire_malformed;
    }
    if (len > 0) {
        out.payload.assign(reinterpret_cast<const char*>(first.data() + frame_header_len),
                           static_cast<size_t>(len));
    }
    return 0;
}

std::string status_text(int32_t code) {
    switch (code) {
        case -22:
            return "unknown command or sub-command";
        case -6:
            return "custom command without function";
        case -2:
            return "file could not be opened";
        case -1:
            return "operation not permitted by this key";
        case -24:
            return "too many open files in the daemon's file cache";
        default:
            break;
    }
    // The probe plug-in's codes: -5000 minus an errno value.
    if (probe_code_p(code)) {
        const char* text = probe_code_text(code);
        if (text != nullptr)
            return text;
        code -= probe_code_base;
    }
    // Plug-ins answer a negated errno.
    if (code < 0 && code > -4096) {
        const char* text = strerrordesc_np(-code);
        if (text != nullptr) {
            return text;
        }
    }
    return "unknown error";
}
