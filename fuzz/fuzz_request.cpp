// One fuzz input is one request as it arrives from the network. It is sent
// from a ZMQ_REQ socket over inproc:// to the ZMQ_REP socket of a real
// comm_data, so recv_msg runs after the receive exactly as in a worker; then
// handle_request against a small loaded configuration, then ack_request, and
// the reply is taken on the REQ side. A request that gets no reply, or a
// reply for another command, aborts: that is a lost or misrouted reply.
#include <android/log.h>
#include <stdlib.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "monitor.h"
#include "wire/frame.h"

namespace {

struct harness {
    std::string dir;
    monitor mon;
    void* ctx = nullptr;
    void* rep = nullptr;
    void* req = nullptr;
    comm_data* comm = nullptr;
};

harness* h;

void quiet_logger(const struct __android_logger_data*, const char*) {}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void remove_dir() {
    std::filesystem::remove_all(h->dir);
}

void fail(const char* what) {
    fprintf(stderr, "fuzz_request: %s\n", what);
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log formatting still runs; only the output is dropped.
    __android_log_set_logger(quiet_logger);
    h = new harness;
    char tmpl[] = "/tmp/vireo-fuzz-request-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        fail("mkdtemp");
    h->dir = tmpl;
    atexit(remove_dir);

    const std::string plugin = VIREO_FUZZ_PLUGIN;
    write_file(h->dir + "/status", "state: fuzzing\n");
    write_file(h->dir + "/sub.json",
               "{ \"cmd-list\": [\n"
               " {\"name\": \"status\", \"id\": \"1\", \"type\": \"file\", \"file\": \"" +
                   h->dir +
                   "/status\"},\n"
                   " {\"name\": \"stat\", \"id\": \"2\", \"type\": \"file\", \"file\": "
                   "\"/proc/$pid/stat\"},\n"
                   " {\"name\": \"echo\", \"id\": \"3\", \"type\": \"custom\", \"lib\": \"" +
                   plugin +
                   "\", \"symbols\": \"plugin_echo\"},\n"
                   " {\"name\": \"len\", \"id\": \"4\", \"type\": \"custom\", \"lib\": \"" +
                   plugin +
                   "\", \"symbols\": \"plugin_len\"},\n"
                   " {\"name\": \"nosym\", \"id\": \"5\", \"type\": \"custom\", \"lib\": \"" +
                   plugin +
                   "\", \"symbols\": \"no_such_symbol\"},\n"
                   " {\"name\": \"gone\", \"id\": \"6\", \"type\": \"file\", \"file\": \"" +
                   h->dir +
                   "/gone$x\"}\n"
                   "] }\n");
    write_file(h->dir + "/main.json",
               "{ \"mode\": \"server\", \"server_ip\": \"127.0.0.1\", \"port\": 1,\n"
               "  \"sub-configs\": [ {\"class\": \"fuzz\", \"code\": \"10\", \"config\": \"" +
                   h->dir + "/sub.json\"} ] }\n");
    if (!h->mon.parse_config(h->dir + "/main.json"))
        fail("configuration did not load");

    h->ctx = zmq_ctx_new();
    h->rep = zmq_socket(h->ctx, ZMQ_REP);
    h->req = zmq_socket(h->ctx, ZMQ_REQ);
    int linger = 0, timeout_ms = 5000;
    for (void* s : {h->rep, h->req}) {
        zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
        zmq_setsockopt(s, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
    }
    if (zmq_bind(h->rep, "inproc://fuzz_request") != 0)
        fail("bind");
    if (zmq_connect(h->req, "inproc://fuzz_request") != 0)
        fail("connect");
    h->comm = new comm_data(h->rep);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (zmq_send(h->req, data, size, 0) != static_cast<int>(size))
        fail("send");
    if (h->comm->recv_msg() < 0)
        fail("recv_msg");
    int ret = h->mon.handle_request(h->comm);
    h->mon.ack_request(ret, h->comm);

    // Whether from ack_request or from a plug-in that answered itself (a
    // result above 8192), every request gets exactly one reply.
    uint8_t reply[8192 + 48 + 16];
    int n = zmq_recv(h->req, reply, sizeof reply, 0);
    if (n < 0)
        fail("no reply");
    // Requests shorter than command and sub-command leave them zero.
    uint8_t names[8] = {};
    memcpy(names, data, size < 8 ? size : 8);
    data_struct header;
    if (n >= 12 && read_reply_header(reply, static_cast<size_t>(n), u8_to_u32(names),
                                     u8_to_u32(names + 4), header) != 0)
        fail("reply names another command");
    if (ret <= max_reply_len && ret >= -40 && n != ret + 48)
        fail("reply length differs from the result");
    return 0;
}
