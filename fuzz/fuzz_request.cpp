// One fuzz input is one request as it arrives from the network. It is sent
// from a ZMQ_REQ socket over inproc:// to the ZMQ_REP socket of a real
// comm_data, so recv_msg runs after the receive exactly as in a worker; then
// handle_request against a small loaded configuration, then ack_request, and
// the reply is taken on the REQ side. A request that gets no reply, or a
// reply for another command, aborts: that is a lost or misrouted reply.
//
// Built as fuzz_key_request (VIREO_FUZZ_KEY_FRAME), the harness is the
// worker of a CURVE endpoint: each request comes after the key frame the
// queue puts in. Input byte 0 picks the key (0: one with every code, 1: one
// with code 0x10 only, 2: an unlisted one, 3: the next 40 input bytes), byte
// 1 how many frames follow the request (0 to 2); the rest is the request.
#include <android/log.h>
#include <errno.h>
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

#ifndef VIREO_FUZZ_KEY_FRAME
#define VIREO_FUZZ_KEY_FRAME 0
#endif

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

// libFuzzer's alarm (-timeout) interrupts a blocking receive now and then:
// that is the harness's signal, not a failure of the daemon.
template <class F>
int retried(F receive) {
    int n = -1;
    for (int i = 0; i < 100 && (n = receive()) < 0 && errno == EINTR; i++) {
    }
    return n;
}

const char key_all[] = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";
const char key_10[] = "Yne@$w-vo<fVvi]a<NY6T1ed:M$fCG*[IaLV{hID";
const char key_unlisted[] = "D:)Q[IlAW!ahhC2ac:9*A}h:p?([4%wOTJ%JR%cs";

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
    if (VIREO_FUZZ_KEY_FRAME) {
        key_table keys;
        keys[key_all].name = "all";
        keys[key_all].all_codes = true;
        keys[key_10].name = "ten";
        keys[key_10].codes = {0x10};
        h->mon.configs->mconfig->max_client_ids = 4;
        h->mon.zap = std::make_unique<zap_handler>(h->dir + "/keys", keys, file_stamp{});
    }

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
    h->comm->key_frame = VIREO_FUZZ_KEY_FRAME;
    return 0;
}

namespace {
// Sends the key frame of the queue and the request with its trailing frames;
// returns the request's part of the input.
void send_with_key(const uint8_t*& data, size_t& size) {
    const char* keys[] = {key_all, key_10, key_unlisted};
    uint8_t pick = size > 0 ? data[0] % 4 : 0, extra = size > 1 ? data[1] % 3 : 0;
    size_t skip = std::min<size_t>(size, 2);
    data += skip, size -= skip;
    std::string key = pick < 3 ? keys[pick] : std::string(data, data + std::min<size_t>(size, 40));
    if (pick == 3)
        data += key.size(), size -= key.size();
    if (zmq_send(h->req, key.data(), key.size(), ZMQ_SNDMORE) != static_cast<int>(key.size()))
        fail("send key");
    for (int i = 0; i < extra; i++)
        if (zmq_send(h->req, data, size, ZMQ_SNDMORE) != static_cast<int>(size))
            fail("send frame");
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (VIREO_FUZZ_KEY_FRAME)
        send_with_key(data, size);
    if (zmq_send(h->req, data, size, 0) != static_cast<int>(size))
        fail("send");
    if (retried([] { return h->comm->recv_msg(); }) < 0)
        fail("recv_msg");
    int ret = h->mon.handle_request(h->comm);
    h->mon.ack_request(ret, h->comm);

    // Whether from ack_request or from a plug-in that answered itself (a
    // result above 8192), every request gets exactly one reply.
    uint8_t reply[8192 + 48 + 16];
    int n = retried([&] { return zmq_recv(h->req, reply, sizeof reply, 0); });
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
