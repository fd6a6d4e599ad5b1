// A worker's connection (comm_data) over a real ZMQ_REP socket driven by a
// REQ client, and the endpoint (server_comm) on 127.0.0.1.
#include "server_comm.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <zmq.h>

#include <cstring>
#include <tuple>

#include "test_util.h"

namespace {
using bytes = std::vector<uint8_t>;

uint64_t now_us() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec * 1000000ull + tv.tv_usec;
}

// The error line the connection logs for text, none for an empty text.
std::vector<log_line> comm_error(const std::string& text) {
    return text.empty() ? std::vector<log_line>{}
                        : std::vector<log_line>{{6, "MONITOR_COMM", text}};
}

std::string last_endpoint(void* s) {
    char ep[256] = "";
    size_t len = sizeof ep;
    zmq_getsockopt(s, ZMQ_LAST_ENDPOINT, ep, &len);
    return ep;
}

class comm_test : public ::testing::Test {
protected:
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    int bound = zmq_bind(rep, "tcp://127.0.0.1:*");
    comm_data comm{rep};
    zmq_client client{last_endpoint(rep)};
    bytes reply;

    void SetUp() override {
        int timeout = 5000;  // the code under test sets none; a broken test must not hang
        ASSERT_EQ(bound | zmq_setsockopt(rep, ZMQ_RCVTIMEO, &timeout, sizeof timeout), 0);
    }
    void TearDown() override {
        zmq_close(rep);
        zmq_ctx_term(ctx);
    }
    int deliver(const bytes& frame) { return client.send(frame) ? comm.recv_msg() : -100; }
};

// Replies are len + 48 bytes (12 below -48) with every header field; a length
// above 8192 is refused and logged; sending out of turn fails with ZeroMQ's
// reason.
TEST_F(comm_test, reply_frames) {
    log_capture logs;
    EXPECT_EQ(comm.ack_msg(0), -2);
    EXPECT_EQ(logs.lines(),
              comm_error(std::string("zmq_send error, ") + zmq_strerror(EFSM) + "\n"));
    // {len, ack_msg's result, bytes on the wire}; a refused reply is followed by an empty one
    // clang-format off
    for (auto [len, result, wire] : std::vector<std::tuple<int, int, size_t>>{{0, 0, 48}, {100, 0, 148}, {8192, 0, 8240}, {-22, 0, 26}, {-100, 0, 12}, {8193, -1, 48}}) {
        // clang-format on
        SCOPED_TRACE("len " + std::to_string(len));
        logs.clear();
        ASSERT_EQ(deliver(make_request(0x10203040, 0x0A0B0C0D)), 44);
        for (int i = 0; i < 8192; i++) comm.send_data->msg[i] = static_cast<uint8_t>(i % 253 + 1);
        uint64_t before = now_us();
        ASSERT_EQ(comm.ack_msg(len), result);
        EXPECT_EQ(logs.lines(), comm_error(result ? "server_comm support max len 8192\n" : ""));
        ASSERT_TRUE((result == 0 || comm.ack_msg(0) == 0) && client.recv(reply));
        ASSERT_EQ(reply.size(), wire);
        reply_view r = parse_reply(reply);
        uint64_t sent = r.tv_sec * 1000000ull + r.tv_usec;
        // msg_type, gap, sum_packet, cur_packet, command_type, client_id, then the time and crc
        bytes head{0x30, 0, 0, 0, 0, 0, 0x31, 0xFF, 0, 0, 0, 0};
        EXPECT_EQ(std::make_tuple(r.command, r.sub_command, r.msg_len),
                  std::make_tuple(0x10203040, 0x0A0B0C0D, result ? 0 : len));
        EXPECT_EQ(bytes(&reply[12], &reply[std::min<size_t>(wire, 24)]),
                  bytes(head.begin(), head.begin() + std::min<size_t>(wire, 24) - 12));
        EXPECT_TRUE(wire < 48 ||
                    (sent >= before && sent <= now_us() && comm.get_send_time_us() == sent))
            << sent;
        EXPECT_TRUE(wire < 48 ||
                    (r.crc == 0 && memcmp(&reply[44], comm.send_data->msg, wire - 48) == 0));
    }
}

// Requests: the receive time replaces the client's, a non-zero crc is logged
// with the computed 0 and the request kept, only 1072 bytes are stored, and
// the payload after msg_len is cleared only for a msg_len in 0..1024; a REP
// socket that owes a reply cannot receive.
TEST_F(comm_test, requests_stamped_checked_cut_and_cleared) {
    // clang-format off
    for (auto [msg_len, size, crc] : std::vector<std::tuple<int32_t, size_t, uint32_t>>{{0, 1072, 0x01020304}, {100, 1072, 1}, {1024, 1072, 0},
             {-5, 1072, 0}, {1025, 1072, 0xFFFFFFFF}, {2000, 2000, 0}, {0, 60, 0}}) {
        // clang-format on
        SCOPED_TRACE("msg_len " + std::to_string(msg_len) + " size " + std::to_string(size));
        log_capture logs;
        auto* buffer = reinterpret_cast<uint8_t*>(comm.recv_data);
        memset(buffer, 0xAB, 8240);
        bytes req = make_request_len(3, 4, bytes(size - 44, 0x11), msg_len), expect(8240, 0xAB);
        int64_t client_time[2] = {1, 2};
        memcpy(&req[24], client_time, sizeof client_time);
        memcpy(&req[40], &crc, 4);
        uint64_t before = now_us();
        ASSERT_EQ(deliver(req), static_cast<int>(size));
        EXPECT_TRUE(comm.get_recv_time_us() >= before && comm.get_recv_time_us() <= now_us());
        EXPECT_EQ(logs.lines(), comm_error(crc ? "crc error, compute crc is 0 , receive crc is " +
                                                     std::to_string(int32_t(crc)) + "\n"
                                               : ""));
        std::copy(req.begin(), req.begin() + std::min<size_t>(size, 1072), expect.begin());
        memcpy(&expect[24], &comm.recv_data->time, 16);
        if (msg_len >= 0 && msg_len <= 1024)
            std::fill(expect.begin() + 44 + msg_len, expect.begin() + 1068, 0);
        EXPECT_EQ(bytes(buffer, buffer + 8240), expect);
        logs.clear();
        EXPECT_EQ(comm.recv_msg(), -1);
        EXPECT_EQ(logs.lines(),
                  comm_error(std::string("zmq_recv error, ") + zmq_strerror(EFSM) + "\n"));
        ASSERT_TRUE(comm.ack_msg(0) == 0 && client.recv(reply));
    }
}

// close_connect releases both sockets and the context, so the port binds
// again. A failed bind, or a port outside 0..65535, is -3 with ZeroMQ's
// reason.
TEST(server_comm, endpoints) {
    int port = free_port();
    log_capture logs;
    for (int round = 0; round < 2; round++) {  // the second binds what the first closed
        server_comm server("127.0.0.1", port);
        ASSERT_EQ(server.listen_connect(), 0) << "round " << round;
        if (round == 1) {
            EXPECT_TRUE(logs.lines().empty());
            // clang-format off
            for (auto [ip, p, err] : std::vector<std::tuple<std::string, int, int>>{{"127.0.0.1", port, EADDRINUSE}, {"", free_port(), ENODEV}, {"127.0.0.1", -1, EINVAL}, {"127.0.0.1", 70000, EINVAL}}) {
                // clang-format on
                logs.clear();
                server_comm other(ip, p);
                EXPECT_EQ(other.listen_connect(), -3) << p;
                EXPECT_EQ(logs.lines(),
                          comm_error(std::string("zmq_bind error, ") + zmq_strerror(err) + "\n"));
                EXPECT_EQ(other.get_workers(), nullptr);
                zmq_close(other.get_socket());
                zmq_ctx_term(other.get_context());
            }
        }
        EXPECT_EQ(server.close_connect(), 0);
    }
}
}  // namespace
