#include "monitor.h"

#include <android/log.h>
#include <pthread.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "wire/reply.h"

#define LOG_TAG "VO_MONITOR"

monitor::monitor() {
    for (auto& id : id_map) {
        id.store(false);
    }
}

monitor::~monitor() {
    // The endpoint goes before the configuration it was built from.
    guard.reset();
    zap.reset();
    comm.reset();
    configs.reset();
}

int monitor::get_client_id() {
    for (int i = 1; i < 255; i++) {
        bool expect = false;
        if (id_map[i].compare_exchange_strong(expect, true, std::memory_order_acq_rel)) {
            return i;
        }
    }
    return 0;
}

void monitor::back_client_id(int num) {
    // num comes from a request byte: 255 names no entry.
    if (num < 0 || num >= 255) {
        return;
    }
    id_map[num].store(false, std::memory_order_relaxed);
}

int monitor::get_key_client_id(const std::string& key, int most) {
    std::lock_guard<std::mutex> lock(id_owner_lock);
    int held = 0, free_id = 0;
    for (int i = 1; i < 255; i++) {
        if (id_map[i].load() && id_owner[i] != key && !zap->listed(id_owner[i])) {
            id_owner[i].clear();
            id_map[i].store(false);
        }
        if (!id_map[i].load()) {
            free_id = free_id == 0 ? i : free_id;
        } else if (id_owner[i] == key) {
            held++;
        }
    }
    if (free_id == 0 || held >= most) {
        return 0;
    }
    id_map[free_id].store(true);
    id_owner[free_id] = key;
    return free_id;
}

void monitor::back_key_client_id(const std::string& key, int num) {
    std::lock_guard<std::mutex> lock(id_owner_lock);
    if (num > 0 && num < 255 && id_map[num].load() && id_owner[num] == key) {
        id_owner[num].clear();
        id_map[num].store(false);
    }
}

namespace {
// Answers a "read-all" command: the whole file, as one multi-packet reply
// when it is longer than one packet. A file that ends within the first
// max_send_len - 1 bytes answers as one read-all read always has. Past
// max_multi_reply_len the reply is the whole lines that leave room for the
// truncation line, then that line.
int reply_whole_file(comm_data* c, const std::string& path, bool cached) {
    page_buffer whole;  // mapped only for a file longer than one packet
    int n = file_cache::read_file_whole(path, c->send_data->msg, c->max_send_len, cached, whole,
                                        max_multi_reply_len + 1);
    if (n < c->max_send_len) {
        return n;
    }
    size_t len = static_cast<size_t>(n);
    if (len > max_multi_reply_len) {
        len = cut_to_whole_lines(whole.data, len, max_multi_reply_len);
    }
    return send_reply(c, whole.data, len);
}

// A file command's reply: its file, or for a $pid path the file of the
// request's pid, read once or (read-all) whole.
int file_reply(const mon_cmd& cmd, comm_data* c) {
    uint8_t* reply = c->send_data->msg;
    if (cmd.type == FILE_TYPE) {
        const std::string& path = cmd.file_t.mon_file;
        // The path ends at its first zero character; copy only when one is
        // embedded, so the common case allocates nothing.
        if (cmd.read_all) {
            return reply_whole_file(c, std::string(path.c_str()), true);
        }
        return strlen(path.c_str()) == path.size()
                   ? file_cache::read_file(path, reply, c->max_send_len, true)
                   : file_cache::read_file(std::string(path.c_str()), reply, c->max_send_len, true);
    }
    std::string pid_file = cmd.file_t.mon_file;
    size_t found = pid_file.find("$pid");
    if (found != std::string::npos) {
        uint32_t pid = u8_to_u32(c->recv_data->msg);
        pid_file.replace(found, 4, std::to_string(pid));
    }
    // Per-process paths are many and short-lived: never cached.
    return cmd.read_all ? reply_whole_file(c, pid_file, false)
                        : file_cache::read_file(pid_file, reply, c->max_send_len, false);
}
}  // namespace

bool monitor::parse_config(const std::string& config) {
    configs = std::make_unique<config_parser>(config);
    return configs->parse_config();
}

int monitor::handle_request(comm_data* every_comm) {
    data_struct* req = every_comm->get_recv_data();
    uint8_t* reply = every_comm->get_send_data()->msg;
    uint32_t command = static_cast<uint32_t>(req->command);
    uint32_t sub_command = static_cast<uint32_t>(req->sub_command);

    if (zap != nullptr) {
        std::string name;
        if (!zap->allows(every_comm->peer_key, command, name)) {
            zap->log_refused_command(every_comm->peer_key, name, command);
            return -1;
        }
    }

    if (command == INTERNAL_CMD) {
        switch (req->sub_command) {
            case 1: {
                int id = zap == nullptr ? get_client_id()
                                        : get_key_client_id(every_comm->peer_key,
                                                            configs->mconfig->max_client_ids);
                __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "send get_client_id %d\n", id);
                reply[0] = static_cast<uint8_t>(id);
                return 1;
            }
            case 2:
                if (zap == nullptr) {
                    back_client_id(req->msg[0]);
                } else {
                    back_key_client_id(every_comm->peer_key, req->msg[0]);
                }
                return 0;
            default:
                __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Not support %d internal cmd",
                                    req->sub_command);
                return -22;
        }
    }

    // find(), never operator[]: the tables are shared read-only by all workers.
    const auto& subs_map = configs->mconfig->subs_map;
    auto sub_it = subs_map.find(command);
    if (sub_it == subs_map.end()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "No command 0x%x in %s\n", command,
                            configs->main_file.c_str());
        return -22;
    }
    std::shared_ptr<sub_config> cfg = sub_it->second;
    auto cmd_it = cfg->cmds.find(sub_command);
    if (cmd_it == cfg->cmds.end()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "No sub-command 0x%x in %s\n", sub_command,
                            cfg->sub_file.c_str());
        return -22;
    }
    std::shared_ptr<mon_cmd> cmd = cmd_it->second;

    int ret;
    switch (cmd->type) {
        case FILE_TYPE:
        case DYN_FILE_TYPE:
            ret = file_reply(*cmd, every_comm);
            break;
        case CUSTOM_TYPE:
            if (cmd->cust_t.function == nullptr) {
                return -6;
            }
            ret = cmd->cust_t.function(every_comm);
            break;
        default:
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Not support cmd type:%d\n",
                                static_cast<int>(cmd->type));
            return -22;
    }
    cmd.reset();
    cfg.reset();
    return ret;
}

int monitor::wait_for_connection() {
    return comm->listen_connect();
}

int monitor::recv_request(comm_data* every_comm) {
    return every_comm->recv_msg();
}

int monitor::ack_request(int len, comm_data* every_comm) {
    // Above the limit a plug-in has answered on its own.
    if (len > max_reply_len) {
        return 0;
    }
    every_comm->ack_msg(len);  // failures are logged by ack_msg
    return 0;
}

namespace {
// The ZAP handler must be bound in the context before the CURVE socket is.
int start_security(monitor* mon, const main_config& mc) {
    void* context = zmq_ctx_new();
    mon->comm->set_context(context);
    mon->comm->curve_secret = mc.secret_key;
    mon->zap = std::make_unique<zap_handler>(mc.authorized_keys_file, mc.keys, mc.keys_stamp);
    if (context == nullptr || mon->zap->start(context) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Connect error:%d\n", -1);
        return -1;
    }
    char server_public[z85_key_len + 1] = "?";
    if (zmq_curve_public(server_public, mc.secret_key.c_str()) != 0) {
        strcpy(server_public, "?");
    }
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "CURVE server key %s, %zu client keys",
                        key_fingerprint(server_public).c_str(), mc.keys.size());
    return 0;
}
}  // namespace

void monitor_helper_thread(monitor* mon) {
    const main_config& mc = *mon->configs->mconfig;
    mon->comm = std::make_unique<server_comm>(mc.ip, mc.port);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "vireo-monitor listening %s:%d", mc.ip.c_str(),
                        mc.port);
    if (mc.secure && start_security(mon, mc) != 0) {
        return;
    }
    int ret = mon->wait_for_connection();
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Connect error:%d\n", ret);
        return;
    }
    // Without it the daemon serves as before, only without the reserve.
    mon->guard = std::make_unique<connection_guard>();
    if (mon->guard->start(mon->comm->get_context(), mon->comm->get_socket()) != 0) {
        mon->guard.reset();
    }
    mon->comm->guard = mon->guard.get();
    // The service manager counts the start as done only now, so a port that
    // cannot be bound fails `systemctl start`. Nothing without NOTIFY_SOCKET.
    sd_notify(0, "READY=1");

    pthread_t worker;
    for (int i = 0; i < thread_nbr; i++) {
        pthread_create(&worker, nullptr, worker_routine, mon);
    }
    if (mon->zap != nullptr) {
        mon->comm->queue_with_user_id();
    } else {
        zmq_device(ZMQ_QUEUE, mon->comm->get_socket(), mon->comm->get_workers());
    }
    mon->comm->close_connect();
}

void* worker_routine(void* mon_void) {
    monitor* mon = static_cast<monitor*>(mon_void);
    void* receiver = zmq_socket(mon->comm->get_context(), ZMQ_REP);
    comm_data* every_comm = mon->comm->create_comm(receiver);
    every_comm->key_frame = mon->zap != nullptr;
    int hwm = worker_rcvhwm;
    zmq_setsockopt(receiver, ZMQ_RCVHWM, &hwm, sizeof hwm);
    zmq_connect(receiver, "inproc://workers");

    while (true) {
        int ret = mon->recv_request(every_comm);
        // A receive that keeps failing must not spin: each retry waits twice
        // as long as the one before, up to a second. When the context ends
        // nothing will ever come: the worker closes its socket (so the
        // context can finish) and ends.
        for (useconds_t pause = 1000; ret < 0; pause = std::min<useconds_t>(2 * pause, 1000000)) {
            if (errno == ETERM) {
                zmq_close(receiver);
                return nullptr;
            }
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Recv request error with %d\n", ret);
            usleep(pause);
            ret = mon->recv_request(every_comm);
        }
        ret = mon->handle_request(every_comm);
        if (ret < 0) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Handle request error with %d\n", ret);
        }
        mon->ack_request(ret, every_comm);
    }
    return nullptr;
}

void show_help() {
    std::cout << "Show process or thread callstack and status, or exec dump_server in server mode"
              << std::endl;
    std::cout << "\t-c, main config file path" << std::endl;
}
