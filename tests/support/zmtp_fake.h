// A hostile ZeroMQ peer written by hand: ZMTP 3.0 with the NULL mechanism on
// a raw TCP socket, so that it can send what libzmq never would.
#pragma once

#include <atomic>
#include <string>
#include <thread>

struct zmtp_fake {
    enum mode {
        huge_frame,     // after the envelope: the header of a 600 MB frame, then nothing
        endless_parts,  // after the envelope: 8240-byte parts with MORE, until the peer leaves
        many_packets,   // after the envelope: 17 whole packets of a 17-packet reply
        no_zmtp,        // reads and never answers (an HTTP server waiting for a request)
        mute,           // a ZeroMQ peer that reads requests and never answers
    };
    // Listens on a free 127.0.0.1 port as socket_type ("ROUTER" for a DEALER
    // peer, "REP" for a REQ one); each connection on a thread of its own.
    zmtp_fake(mode m, const char* socket_type);
    ~zmtp_fake();
    std::string ep;
    mode m;
    std::string type;
    int listen_fd = -1;
    std::atomic<bool> stop{false};
    std::atomic<int> messages{0};  // requests read
    std::thread th;
};
