// The limit the daemon can approach: the same ZeroMQ topology (ROUTER on TCP,
// DEALER on inproc://workers, five REP workers behind zmq_device) whose
// workers do the least work that still gives a reply of the daemon's size:
// one seek and one read of one cached descriptor behind one mutex, straight
// into the payload of a 48-byte-header frame.
//
// Usage: vireo-bench-baseline PORT FILE
#include <fcntl.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common_func.h"
#include "wire/frame.h"

namespace {

constexpr int worker_count = 5;
constexpr int max_payload = 8192;
constexpr int max_request = 1024 + 48;
constexpr int frame_size = max_payload + 48;

int file_fd = -1;
std::mutex file_lock;

void worker(void* context) {
    void* rep = zmq_socket(context, ZMQ_REP);
    if (rep == nullptr || zmq_connect(rep, "inproc://workers") != 0) {
        fprintf(stderr, "baseline: worker socket: %s\n", zmq_strerror(errno));
        exit(1);
    }
    // Allocated once, like the daemon's per-worker frame buffers.
    std::vector<uint8_t> in(frame_size), out(frame_size);
    auto* req = reinterpret_cast<data_struct*>(in.data());
    auto* rsp = reinterpret_cast<data_struct*>(out.data());

    while (true) {
        if (zmq_recv(rep, req, max_request, 0) < 0) {
            if (errno == ETERM) {
                break;
            }
            continue;
        }
        ssize_t n;
        {
            std::lock_guard<std::mutex> guard(file_lock);
            lseek(file_fd, 0, SEEK_SET);
            n = read(file_fd, rsp->msg, max_payload - 1);
        }
        int len = n < 0 ? -1 : static_cast<int>(n);
        fill_reply_header(*rsp, *req, len);
        rsp->client_id = 0xFF;
        zmq_send(rep, rsp, static_cast<size_t>(len + 48), 0);
    }
    zmq_close(rep);
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s PORT FILE\n", argv[0]);
        return 2;
    }
    file_fd = open(argv[2], O_RDONLY);
    if (file_fd < 0) {
        fprintf(stderr, "baseline: cannot open %s: %s\n", argv[2], strerror(errno));
        return 1;
    }

    void* context = zmq_ctx_new();
    void* router = zmq_socket(context, ZMQ_ROUTER);
    std::string endpoint = std::string("tcp://127.0.0.1:") + argv[1];
    if (zmq_bind(router, endpoint.c_str()) != 0) {
        fprintf(stderr, "baseline: bind %s: %s\n", endpoint.c_str(), zmq_strerror(errno));
        return 1;
    }
    void* dealer = zmq_socket(context, ZMQ_DEALER);
    if (zmq_bind(dealer, "inproc://workers") != 0) {
        fprintf(stderr, "baseline: bind inproc://workers: %s\n", zmq_strerror(errno));
        return 1;
    }

    // Detached like the daemon's workers: they end with the process.
    for (int i = 0; i < worker_count; i++) {
        std::thread(worker, context).detach();
    }
    zmq_device(ZMQ_QUEUE, router, dealer);
    zmq_close(router);
    zmq_close(dealer);
    zmq_ctx_term(context);
    return 0;
}
