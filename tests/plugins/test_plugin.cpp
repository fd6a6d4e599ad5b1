// A plug-in for the tests: each function answers in a way a test can check.
#include <fcntl.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <string>

#include "server_comm.h"

extern "C" {

// Replies with the request's payload (msg_len bytes, clamped to 0..1024).
int plugin_echo(comm_data* c) {
    int32_t n = c->recv_data->msg_len;
    if (n < 0)
        n = 0;
    if (n > c->max_recv_len)
        n = c->max_recv_len;
    memcpy(c->send_data->msg, c->recv_data->msg, static_cast<size_t>(n));
    return n;
}

// Returns the signed value in payload bytes 0..3. From 0 to 8192 the reply
// holds that many bytes 'a'..'z' repeating; above 8192 the function sends
// its own 5-byte "self!" frame first, as a plug-in that answers itself does.
int plugin_len(comm_data* c) {
    int32_t n = static_cast<int32_t>(u8_to_u32(c->recv_data->msg));
    if (n >= 0 && n <= c->max_send_len) {
        for (int32_t i = 0; i < n; i++) c->send_data->msg[i] = static_cast<uint8_t>('a' + i % 26);
    } else if (n > c->max_send_len) {
        uint8_t frame[48 + 5] = {};
        memcpy(frame, c->recv_data, 8);
        int32_t len = 5;
        memcpy(frame + 8, &len, 4);
        memcpy(frame + 44, "self!", 5);
        zmq_send(c->get_socket(), frame, sizeof frame, 0);
    }
    return n;
}

// Holds its worker until the file DIR/release exists (at most 20 s), with a
// file DIR/in<n> present meanwhile, so a test can count the workers inside
// at once. DIR is the request's payload.
int plugin_gate(comm_data* c) {
    static std::atomic<int> entries{0};
    std::string dir(reinterpret_cast<char*>(c->recv_data->msg),
                    strnlen(reinterpret_cast<char*>(c->recv_data->msg), c->max_recv_len));
    std::string mark = dir + "/in" + std::to_string(entries++), release = dir + "/release";
    close(open(mark.c_str(), O_CREAT | O_WRONLY, 0600));
    for (int i = 0; i < 20000 && access(release.c_str(), F_OK) != 0; i++) usleep(1000);
    unlink(mark.c_str());
    return 0;
}

}  // extern "C"
