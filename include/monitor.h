// The monitor service: owns the configuration and the endpoint, hands out
// client ids, and runs the request cycle of the five worker threads.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "config_parser.h"
#include "connection_guard.h"
#include "server_comm.h"
#include "zap_handler.h"

// Command code of the internal client-id commands (sub-command 1 takes an
// id, 2 returns the id in payload byte 0). Never looked up in the
// configuration.
constexpr uint32_t INTERNAL_CMD = 0xEAEA;
// Worker threads serving requests; fixed.
constexpr int thread_nbr = 5;
// Largest payload of one reply; a handler result above it sends no reply.
constexpr int max_reply_len = 8192;

class monitor {
public:
    // Built by parse_config before any thread starts; read-only afterwards.
    std::unique_ptr<config_parser> configs;
    // Created by monitor_helper_thread.
    std::unique_ptr<server_comm> comm;
    // With "security": the ZAP handler and the keys' rights, made by
    // monitor_helper_thread before any worker starts; null otherwise.
    std::unique_ptr<zap_handler> zap;
    // Keeps client connections below the descriptor limit; made with comm.
    std::unique_ptr<connection_guard> guard;
    // Client-id pool, lock-free: entry i is true while id i is handed out.
    // Entry 0 is never handed out.
    std::atomic<bool> id_map[255];

    // Lowest free id in 1..254, or 0 when none is free.
    int get_client_id();
    // Frees id num; anything outside 0..254 is ignored.
    void back_client_id(int num);
    // Behind a CURVE endpoint an id belongs to the key that took it: the
    // lowest free id, or 0 when none is free or key already holds most ids.
    // Ids of a key no longer listed are free again.
    int get_key_client_id(const std::string& key, int most);
    // Frees id num only when key holds it.
    void back_key_client_id(const std::string& key, int num);
    // The key holding each id taken behind a CURVE endpoint.
    std::mutex id_owner_lock;
    std::string id_owner[255];
    // Replaces the configuration with a new parser for config and loads it.
    bool parse_config(const std::string& config);
    // Answers the request in every_comm's receive frame, writing the reply
    // payload into its send frame. Returns the payload length, a negative
    // error code (-1 a command the client's key may not use, -22 unknown
    // command, -6 custom command without function, -2 file not found, or a
    // plug-in's own code), or above 8192 when the reply was already sent by
    // a plug-in.
    int handle_request(comm_data* every_comm);
    int wait_for_connection();
    int recv_request(comm_data* every_comm);
    // Sends the reply for a handler result; nothing above 8192. Returns 0.
    int ack_request(int len, comm_data* every_comm);

    monitor();
    int get_cpus_num();  // declared only; the worker count is fixed
    ~monitor();
    monitor(const monitor&) = delete;
    monitor& operator=(const monitor&) = delete;
};

// The listening thread: binds the endpoint, starts the workers and forwards
// traffic between clients and workers until the queue device returns.
void monitor_helper_thread(monitor* mon);

// Body of a worker thread (a pthread start routine taking the monitor*):
// receive, handle, acknowledge, forever.
void* worker_routine(void* mon_void);

// The two usage lines, on standard output.
void show_help();
