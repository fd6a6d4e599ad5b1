// What the daemon cannot be made to do over the network: a worker's
// connection refusing a reply above 8192 bytes and reporting ZeroMQ errors,
// and the endpoint's failed binds, including the port guard.
#include "server_comm.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <tuple>

#include "test_util.h"

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
