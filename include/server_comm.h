// The daemon's network side: one worker's connection (comm_data) and the
// endpoint (server_comm) that binds the client-facing router socket and the
// in-process dealer socket the workers connect to.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "common_func.h"

class connection_guard;

// One worker's connection: its ZMQ_REP socket and two frame buffers of
// 8192 + 48 bytes each. Owned and used by one worker thread only; calls go
// strictly receive, send, receive. Plug-in functions get a comm_data* and
// use the public fields: the request in recv_data, the reply payload written
// to send_data->msg (at most max_send_len bytes).
class comm_data {
private:
    void* socket;        // not owned: never closed here
    [[maybe_unused]] uint8_t client_id;  // reserved: nothing reads it
    [[maybe_unused]] int32_t timeout;    // reserved: receives block without limit

public:
    data_struct* send_data;  // reply frame, owned
    data_struct* recv_data;  // request frame, owned
    int32_t max_send_len;    // reply payload capacity, 8192
    int32_t max_recv_len;    // request payload capacity, 1024

    // Allocates both buffers zero-filled; aborts the process when that fails.
    explicit comm_data(void* socket);
    ~comm_data();
    comm_data(const comm_data&) = delete;
    comm_data& operator=(const comm_data&) = delete;

    // Receives one request (at most 1072 bytes stored), stamps its receive
    // time and checks its crc (a mismatch is logged, the request kept).
    // Header and payload bytes that the request did not carry read as zero,
    // never as an earlier request's. With key_frame set, first takes the frame the
    // queue puts before each request (the client's key) into peer_key.
    // Frames after the request's first are dropped unread.
    // Returns the size ZeroMQ reported for the request frame, or -1.
    int recv_msg();

    // Sends the single-packet reply whose len payload bytes are already in
    // send_data->msg. A negative len is an error code for the client: it
    // travels in msg_len and the frame is len + 48 bytes long. Returns 0,
    // -1 when len exceeds max_send_len (nothing sent), -2 when sending fails.
    int ack_msg(int len);

    // Sends len bytes of buf as a multi-part reply of max_send_len + 48 byte
    // packets. Returns 0 or -1. Nothing in the daemon calls it: its packets
    // carry this object's own fields, not the data; send_reply (wire/reply.h)
    // is the sender to use.
    int ack_more_msg(uint8_t* buf, int len);

    void* get_socket() { return socket; }
    data_struct* get_send_data() { return send_data; }
    data_struct* get_recv_data() { return recv_data; }
    // The frame's time stamp in microseconds (wrapping arithmetic).
    uint64_t get_send_time_us();
    uint64_t get_recv_time_us();

    // Behind a CURVE endpoint every request arrives after a frame holding the
    // client's key (see server_comm::queue_with_user_id). Set before the
    // first receive; added last so plug-ins built earlier see the same layout.
    bool key_frame = false;
    std::string peer_key;  // Z85 key of the current request's client
};

// The endpoint: a ZMQ_ROUTER socket on tcp://ip:port facing the clients, a
// ZMQ_DEALER socket (behind CURVE a ZMQ_ROUTER) on inproc://workers facing
// the workers, and the list of
// the workers' connections. Its destructor closes nothing.
// Whole messages that wait for one peer, received and to be sent (see
// listen_connect), and that wait for one worker.
constexpr int router_rcvhwm = 16;
constexpr int router_sndhwm = 64;
constexpr int worker_rcvhwm = 1;

class server_comm {
private:
    std::string ip_addr;
    int32_t port;
    void* context = nullptr;
    void* socket = nullptr;   // ZMQ_ROUTER on TCP
    void* workers = nullptr;  // ZMQ_DEALER (ZMQ_ROUTER behind CURVE) on inproc://workers
    std::vector<comm_data*> comm_list;
    std::mutex comm_list_lock;       // five workers register at the same moment
    std::atomic<int> registered{0};  // comm_list's size, read by the queue unlocked

public:
    // Told of every request's connection by queue_with_user_id; not owned.
    connection_guard* guard = nullptr;

    // The server's CURVE secret key (Z85); empty for a plaintext endpoint.
    // A CURVE endpoint needs its ZAP handler bound in the context first, so
    // the caller creates the context (set_context) before listen_connect.
    std::string curve_secret;

    server_comm(std::string ip_addr, int port);

    // Creates the context (unless one was set) and both sockets and binds
    // them. The router socket always refuses messages above 64 KiB, closes
    // connections that have not finished their handshake in 3 s, drops
    // peers silent to heartbeats for 30 s, and bounds the messages queued
    // per peer; with curve_secret it is a CURVE server. Returns 0, or -1 (context), -2 (router socket or one of its
    // options), -3 (TCP bind, also for a port outside 0..65535), -4 (workers'
    // socket). What was made before a failure stays.
    int listen_connect();

    // The queue of a CURVE endpoint, between the client-facing router and
    // the workers' router: each request reaches the workers after one more
    // frame, the ZAP user id of the connection it came on (message
    // properties do not survive a device: ZeroMQ drops them when a message
    // is sent on). A request is read only while a worker is idle and goes
    // to that worker, so the ones waiting stay in the client-facing
    // router's bounded per-peer queues and none waits behind a busy worker.
    // Returns -1 when the context ends.
    int queue_with_user_id();

    // Makes the connection of a worker's socket and records it; gives the
    // socket the routing id the queue knows it by. Call before the socket
    // connects to inproc://workers.
    comm_data* create_comm(void* socket);

    // Closes both endpoint sockets and terminates the context; 0 or -1.
    int close_connect();

    std::vector<comm_data*> get_comm_list();

    void* get_socket() { return socket; }
    void* get_context() { return context; }
    void* get_workers() { return workers; }
    void set_socket(void* s) { socket = s; }
    void set_context(void* c) { context = c; }
    void set_workers(void* w) { workers = w; }
};
