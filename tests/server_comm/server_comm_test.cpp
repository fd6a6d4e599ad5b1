// What the daemon cannot be made to do over the network: a worker's
// connection refusing a reply above 8192 bytes and reporting ZeroMQ errors,
// the multi-packet sender, and the endpoint's failed binds, including the
// port guard.
#include "server_comm.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "test_util.h"
#include "wire/reply.h"

namespace {
std::vector<log_line> comm_errors(const std::vector<std::string>& texts) {
    std::vector<log_line> lines;
    for (const std::string& t : texts) lines.push_back({6, "MONITOR_COMM", t + "\n"});
    return lines;
}

// Sending before a request and receiving while a reply is owed fail with
// ZeroMQ's reason; a length above 8192 is refused before anything is sent.
TEST(server_comm, connection_errors) {
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    void* req = zmq_socket(ctx, ZMQ_REQ);
    ASSERT_EQ(zmq_bind(rep, "inproc://comm") | zmq_connect(req, "inproc://comm"), 0);
    log_capture logs;
    {
        comm_data comm(rep);
        EXPECT_EQ(comm.ack_msg(0), -2);
        EXPECT_EQ(zmq_send(req, make_request(1, 2).data(), 44, 0), 44);
        EXPECT_EQ(comm.recv_msg(), 44);
        EXPECT_EQ(comm.recv_msg(), -1);
        EXPECT_EQ(comm.ack_msg(8193), -1);
    }
    std::string efsm = zmq_strerror(EFSM);
    EXPECT_EQ(logs.lines(), comm_errors({"zmq_send error, " + efsm, "zmq_recv error, " + efsm,
                                         "server_comm support max len 8192"}));
    zmq_close(req);
    zmq_close(rep);
    zmq_ctx_term(ctx);
}

// The multi-packet sender: a reply that fits one packet stays in send_data
// for the usual single-packet reply; a longer one goes out as full-size
// packets, each header naming the request, the total and its number.
TEST(server_comm, send_reply_packets) {
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    void* req = zmq_socket(ctx, ZMQ_REQ);
    ASSERT_EQ(zmq_bind(rep, "inproc://packets") | zmq_connect(req, "inproc://packets"), 0);
    comm_data comm(rep);
    for (auto [len, result, packets] :
         {std::tuple{8192, 8192, 0}, {8193, 8193, 2}, {20000, 8193, 3}}) {
        std::vector<uint8_t> text(static_cast<size_t>(len));
        for (size_t i = 0; i < text.size(); i++) text[i] = static_cast<uint8_t>(i % 251 + 1);
        zmq_send(req, make_request(0x30, 7).data(), 44, 0);
        ASSERT_EQ(comm.recv_msg(), 44);
        ASSERT_EQ(send_reply(&comm, text.data(), text.size()), result);
        if (packets == 0)
            comm.ack_msg(result);
        for (int k = 1; k <= std::max(packets, 1); k++) {
            uint8_t f[8240 + 1];
            bool more = k < packets;
            ASSERT_EQ(zmq_recv(req, f, sizeof f, 0), packets == 0 ? len + 48 : 8240) << len;
            // command, sub_command, msg_len; msg_type, sum/cur_packet, command_type, client_id
            int32_t head[3] = {0x30, 7, len};
            EXPECT_EQ(memcmp(f, head, 12), 0);
            EXPECT_EQ(f[12], 0x30);
            EXPECT_EQ(f[14] | f[15] << 8, packets);
            EXPECT_EQ(f[16] | f[17] << 8, packets == 0 ? 0 : k);
            EXPECT_EQ(f[18], 0x31);
            EXPECT_EQ(f[19], 0xFF);
            size_t from = static_cast<size_t>(k - 1) * 8192, n = std::min<size_t>(8192, len - from);
            EXPECT_EQ(memcmp(f + 44, text.data() + from, n), 0) << len << " packet " << k;
            if (packets > 0) {
                EXPECT_EQ(std::vector<uint8_t>(f + 44 + n, f + 8236),
                          std::vector<uint8_t>(8192 - n, 0));
            }
            int rcvmore = 0;
            size_t sz = sizeof rcvmore;
            zmq_getsockopt(req, ZMQ_RCVMORE, &rcvmore, &sz);
            EXPECT_EQ(rcvmore != 0, more);
        }
    }
    zmq_close(req);
    zmq_close(rep);
    zmq_ctx_term(ctx);
}

// close_connect releases both sockets and the context, so the port binds
// again. A failed bind, or a port outside 0..65535, is -3 with ZeroMQ's
// reason, and no dealer socket is made.
TEST(server_comm, endpoints) {
    int port = free_port();
    log_capture logs;
    for (int round = 0; round < 2; round++) {  // the second binds what the first closed
        server_comm server("127.0.0.1", port);
        ASSERT_EQ(server.listen_connect(), 0) << "round " << round;
        // clang-format off
        for (auto [ip, p, err] : std::vector<std::tuple<std::string, int, int>>{{"127.0.0.1", port, EADDRINUSE}, {"", free_port(), ENODEV}, {"127.0.0.1", -1, EINVAL}, {"127.0.0.1", 70000, EINVAL}}) {
            // clang-format on
            logs.clear();
            server_comm other(ip, p);
            EXPECT_EQ(other.listen_connect(), -3) << p;
            EXPECT_EQ(logs.lines(),
                      comm_errors({std::string("zmq_bind error, ") + zmq_strerror(err)}));
            EXPECT_EQ(other.get_workers(), nullptr);
            zmq_close(other.get_socket());
            zmq_ctx_term(other.get_context());
        }
        logs.clear();
        EXPECT_EQ(server.close_connect(), 0);
        EXPECT_TRUE(logs.lines().empty());
    }
}
}  // namespace
