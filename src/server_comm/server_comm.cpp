#include <android/log.h>
#include <errno.h>
#include <zmq.h>

#include <utility>

#include "server_comm.h"

#define LOG_TAG "MONITOR_COMM"

server_comm::server_comm(std::string ip_addr, int port) : ip_addr(std::move(ip_addr)), port(port) {}

int server_comm::listen_connect() {
    std::string endpoint = "tcp://" + ip_addr + ":" + std::to_string(port);

    context = zmq_ctx_new();
    if (context == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_ctx_new error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    socket = zmq_socket(context, ZMQ_ROUTER);
    if (socket == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_socket error, %s\n",
                            zmq_strerror(errno));
        return -2;
    }
    // libzmq wraps a port outside 0..65535 instead of refusing it, which
    // would leave the daemon listening where nobody configured it.
    int rc;
    if (port < 0 || port > 65535) {
        errno = EINVAL;
        rc = -1;
    } else {
        rc = zmq_bind(socket, endpoint.c_str());
    }
    if (rc == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_bind error, %s\n",
                            zmq_strerror(errno));
        return -3;
    }
    workers = zmq_socket(context, ZMQ_DEALER);
    if (workers == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq workers error, %s\n",
                            zmq_strerror(errno));
        return -4;
    }
    // Deliberately unchecked: a fresh context always has the name free.
    zmq_bind(workers, "inproc://workers");
    return 0;
}

comm_data* server_comm::create_comm(void* socket) {
    comm_data* every_comm = new comm_data(socket);
    std::lock_guard<std::mutex> lock(comm_list_lock);
    comm_list.push_back(every_comm);
    return every_comm;
}

int server_comm::close_connect() {
    if (zmq_close(socket) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_close error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    if (zmq_close(workers) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_close error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    if (zmq_ctx_term(context) == -1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "zmq_ctx_term error, %s\n",
                            zmq_strerror(errno));
        return -1;
    }
    return 0;
}

std::vector<comm_data*> server_comm::get_comm_list() {
    std::lock_guard<std::mutex> lock(comm_list_lock);
    return comm_list;
}
