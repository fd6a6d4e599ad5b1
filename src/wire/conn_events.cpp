#include "wire/conn_events.h"

#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

const int conn_watched_events =
    ZMQ_EVENT_CONNECTED | ZMQ_EVENT_CLOSED | ZMQ_EVENT_CONNECT_RETRIED | ZMQ_EVENT_DISCONNECTED |
    ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL |
    ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;

conn_verdict conn_watch::feed(uint16_t event, uint32_t event_value) {
    auto count_failure = [this](conn_verdict why) {
        if (!counted) {
            failed++;
            counted = true;
        }
        last = why;
    };
    switch (event) {
        case ZMQ_EVENT_CONNECTED:
            connected = true;
            break;
        case ZMQ_EVENT_CLOSED:
            closed = true;
            break;
        case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
            *this = conn_watch{};
            connected = true;
            break;
        case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
            if (event_value == EAGAIN) {  // the handshake timer ran out
                value = event_value;
                return conn_verdict::no_handshake;
            }
            count_failure(conn_verdict::handshake_closed);
            break;
        case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
            value = event_value;
            return conn_verdict::auth_refused;
        case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
            value = event_value;
            return conn_verdict::protocol_error;
        case ZMQ_EVENT_CONNECT_RETRIED:
            // The end of an attempt: one that never made a TCP connection
            // either had no address (no socket was closed) or was refused.
            if (!connected) {
                count_failure(conn_verdict::refused);
            }
            closed = connected = counted = false;
            break;
        default:
            break;
    }
    return failed >= max_failed_attempts ? at_timeout() : conn_verdict::pending;
}

conn_verdict conn_watch::at_timeout() const {
    if (failed == 0) {
        return conn_verdict::pending;
    }
    return last == conn_verdict::handshake_closed ? conn_verdict::handshake_closed
                                                  : conn_verdict::refused;
}

std::string conn_protocol_reason(uint32_t code, bool curve) {
    switch (code) {
        case ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH:
            return curve ? "security mismatch: the server does not use CURVE"
                         : "security mismatch: the server uses CURVE";
        case ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC:
        case ZMQ_PROTOCOL_ERROR_ZMTP_KEY_EXCHANGE:
            return "wrong server key";
        default: {
            char buf[32];
            snprintf(buf, sizeof buf, "protocol error 0x%x", code);
            return buf;
        }
    }
}

int read_conn_event(void* monitor, uint16_t& event, uint32_t& value) {
    zmq_msg_t head, addr;
    zmq_msg_init(&head);
    if (zmq_msg_recv(&head, monitor, ZMQ_DONTWAIT) == -1) {
        zmq_msg_close(&head);
        return -1;
    }
    event = 0;
    value = 0;
    if (zmq_msg_size(&head) >= 6) {
        memcpy(&event, zmq_msg_data(&head), 2);
        memcpy(&value, static_cast<uint8_t*>(zmq_msg_data(&head)) + 2, 4);
    }
    zmq_msg_close(&head);
    zmq_msg_init(&addr);  // the second part names the endpoint
    zmq_msg_recv(&addr, monitor, ZMQ_DONTWAIT);
    zmq_msg_close(&addr);
    return 0;
}
