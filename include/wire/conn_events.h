// What a ZeroMQ socket monitor tells about a client's connection to the
// daemon: whether it is refused (no TCP connection, no address for the
// host), or its security handshake is. One rule for every program that asks
// a board.
#pragma once

#include <cstdint>
#include <string>

// The events to ask zmq_socket_monitor for.
extern const int conn_watched_events;

enum class conn_verdict {
    pending,           // nothing decided yet
    refused,           // the connection attempts failed
    handshake_closed,  // the server closed the connection in each handshake
    auth_refused,      // authentication refused the key (value: ZAP status)
    protocol_error,    // the handshake failed on a protocol error (value: its code)
    no_handshake,      // no handshake within ZMQ_HANDSHAKE_IVL: the peer speaks no ZMTP
};

// Reads the monitor's events of one connection, attempt by attempt:
// - a handshake refused by authentication, failed on a protocol error, or
//   not finished within the socket's handshake interval decides at once;
// - otherwise max_failed_attempts attempts in a row that failed (no TCP
//   connection, no address for the host, or the peer closing during the
//   handshake) decide; at a caller's timeout, failed > 0 says the same.
class conn_watch {
public:
    static constexpr int max_failed_attempts = 3;

    bool closed = false;                        // this attempt's TCP socket closed
    bool connected = false;                     // this attempt's TCP connection was made
    bool counted = false;                       // this attempt's failure is counted already
    int failed = 0;                             // attempts that failed in a row
    conn_verdict last = conn_verdict::pending;  // why the last attempt failed
    uint32_t value = 0;                         // the deciding event's value

    // Takes one event; returns the verdict so far.
    conn_verdict feed(uint16_t event, uint32_t event_value);
    // The verdict when the caller stops waiting: refused or handshake_closed
    // when an attempt has failed, else pending.
    conn_verdict at_timeout() const;
};

// Why a handshake failed on protocol error code, in words, for a side that
// used CURVE or not: "security mismatch: the server does not use CURVE",
// "security mismatch: the server uses CURVE", "wrong server key", or the
// code in hex.
std::string conn_protocol_reason(uint32_t code, bool curve);

// Takes one queued event from a monitor socket without waiting. Returns 0
// with event and value, or -1 when none is queued.
int read_conn_event(void* monitor, uint16_t& event, uint32_t& value);
