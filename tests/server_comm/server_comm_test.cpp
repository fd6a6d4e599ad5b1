// A worker's connection (comm_data) over a real ZMQ_REP socket driven by a
// REQ client, and the endpoint (server_comm) on 127.0.0.1.
#include "server_comm.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>
#include <tuple>

#include "log_capture.h"
#include "test_util.h"

namespace {
constexpr size_t frame_bytes = 8192 + 48;
using bytes = std::vector<uint8_t>;

uint64_t now_us() {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

// The error line the connection logs for text, none for an empty text.
std::vector<log_line> comm_error(const std::string& text) {
    return text.empty() ? std::vector<log_line>{}
                        : std::vector<log_line>{{6, "MONITOR_COMM", text}};
}

// The socket's type and the endpoint it was last bound to.
std::pair<int, std::string> type_and_endpoint(void* s) {
    int type = -1;
    char ep[256] = "";
    size_t type_len = sizeof type, ep_len = sizeof ep;
    zmq_getsockopt(s, ZMQ_TYPE, &type, &type_len);
    zmq_getsockopt(s, ZMQ_LAST_ENDPOINT, ep, &ep_len);
    return {type, ep};
}

class comm_test : public ::testing::Test {
protected:
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    int bound = zmq_bind(rep, "tcp://127.0.0.1:*");
    comm_data comm{rep};
    zmq_client client{type_and_endpoint(rep).second};
    std::vector<uint8_t> reply;

    void SetUp() override {
        int timeout = 5000;  // the code under test sets none; this keeps a broken test from hanging
        ASSERT_EQ(bound | zmq_setsockopt(rep, ZMQ_RCVTIMEO, &timeout, sizeof timeout), 0);
    }
    void TearDown() override {
        zmq_close(rep);
        zmq_ctx_term(ctx);
    }
    int deliver(const std::vector<uint8_t>& frame) {
        EXPECT_TRUE(client.send(frame));
        return comm.recv_msg();
    }
    // Sends an empty reply, so the socket is back to receiving.
    void answer() {
        ASSERT_EQ(comm.ack_msg(0), 0);
        ASSERT_TRUE(client.recv(reply));
    }
};

// Reply frames: length + 48 bytes on the wire with every header field, the
// refused length logged, error codes in a shortened frame.
TEST_F(comm_test, reply_frames_carry_the_header_and_length_plus_48_bytes) {
    // clang-format off
    // {len, result, bytes on the wire, msg_len on the wire}; a refused reply is followed by an empty one
    for (auto [len, result, wire, msg_len] : std::vector<std::tuple<int, int, size_t, int>>{
             {0, 0, 48, 0}, {100, 0, 148, 100}, {8192, 0, 8240, 8192}, {-22, 0, 26, -22}, {-100, 0, 12, -100}, {8193, -1, 48, 0}}) {
        // clang-format on
        SCOPED_TRACE("len " + std::to_string(len));
        log_capture logs;
        ASSERT_EQ(deliver(make_request(0x10203040, 0x0A0B0C0D)), 44);
        for (int i = 0; i < 8192; i++) comm.send_data->msg[i] = static_cast<uint8_t>(i % 253 + 1);
        uint64_t before = now_us();
        ASSERT_EQ(comm.ack_msg(len), result);
        EXPECT_EQ(logs.lines(), comm_error(result ? "server_comm support max len 8192\n" : ""));
        ASSERT_EQ(result ? comm.ack_msg(0) : 0, 0);
        ASSERT_TRUE(client.recv(reply));
        uint64_t after = now_us();
        ASSERT_EQ(reply.size(), wire);
        reply_view r = parse_reply(reply);
        EXPECT_EQ(std::make_tuple(r.command, r.sub_command, r.msg_len),
                  std::make_tuple(0x10203040, 0x0A0B0C0D, msg_len));
        // msg_type, gap, sum_packet, cur_packet, command_type, client_id
        if (wire < 26)
            continue;
        EXPECT_EQ(bytes(&reply[12], &reply[20]), (bytes{0x30, 0, 0, 0, 0, 0, 0x31, 0xFF}));
        if (wire < 48)
            continue;
        uint64_t sent = r.tv_sec * 1000000ull + r.tv_usec;
        EXPECT_TRUE(sent >= before && sent <= after && comm.get_send_time_us() == sent) << sent;
        EXPECT_EQ(r.crc, 0u);
        EXPECT_EQ(memcmp(&reply[44], comm.send_data->msg, wire - 48), 0);
    }
}

// Requests: the receive time replaces the client's, a non-zero crc is logged
// with the computed 0 and the request still returned, only 1072 bytes are
// stored, and the payload after msg_len is cleared only for a msg_len in
// 0..1024, touching nothing outside the payload area.
TEST_F(comm_test, requests_are_stamped_checked_cut_and_cleared) {
    // clang-format off
    for (auto [msg_len, size, crc] : std::vector<std::tuple<int32_t, size_t, uint32_t>>{{0, 1072, 0x01020304}, {100, 1072, 1}, {1024, 1072, 0x01020304},
             {-5, 1072, 0x01020304}, {1025, 1072, 0xFFFFFFFF}, {2000, 2000, 0x01020304}, {0x7fffffff, 1072, 0x01020304}, {0, 60, 0}}) {
        SCOPED_TRACE("msg_len " + std::to_string(msg_len) + " size " + std::to_string(size));
        // clang-format on
        log_capture logs;
        auto* buffer = reinterpret_cast<uint8_t*>(comm.recv_data);
        memset(buffer, 0xAB, frame_bytes);
        bytes req = make_request_len(3, 4, bytes(size - 44, 0x11), msg_len);
        int64_t client_time[2] = {1, 2};
        memcpy(&req[24], client_time, sizeof client_time);
        memcpy(&req[40], &crc, 4);
        uint64_t before = now_us();
        ASSERT_EQ(deliver(req), static_cast<int>(size));
        EXPECT_TRUE(comm.get_recv_time_us() >= before && comm.get_recv_time_us() <= now_us());
        std::string crc_text =
            "crc error, compute crc is 0 , receive crc is " + std::to_string(int32_t(crc));
        EXPECT_EQ(logs.lines(), comm_error(crc ? crc_text + "\n" : ""));
        std::vector<uint8_t> expect(frame_bytes, 0xAB);
        std::copy(req.begin(), req.begin() + std::min<size_t>(size, 1072), expect.begin());
        memcpy(&expect[24], &comm.recv_data->time, 16);
        if (msg_len >= 0 && msg_len <= 1024)
            std::fill(expect.begin() + 44 + msg_len, expect.begin() + 44 + 1024, 0);
        for (size_t i = 0; i < frame_bytes; i++) ASSERT_EQ(buffer[i], expect[i]) << "byte " << i;
        answer();
    }
    // A REP socket that owes a reply cannot receive: -1 with ZeroMQ's reason.
    ASSERT_EQ(deliver(make_request(1, 2)), 44);
    log_capture logs;
    EXPECT_EQ(comm.recv_msg(), -1);
    EXPECT_EQ(logs.lines(),
              comm_error(std::string("zmq_recv error, ") + zmq_strerror(EFSM) + "\n"));
    answer();
}

// Multi-packet replies: packet count, SNDMORE on all but the last, each packet
// P + 48 bytes starting with the four field values and zero after them; the
// header prepared in send_data numbers the last packet.
TEST_F(comm_test, multi_packet_reply_packets_and_prepared_frame) {
    // {len, packets, sum_packet}
    for (auto [len, packets, sum] : std::vector<std::tuple<int, int, int>>{
             {0, 1, 0}, {8192, 1, 1}, {16385, 3, 3}, {20000, 3, 3}}) {
        SCOPED_TRACE("len " + std::to_string(len));
        ASSERT_EQ(deliver(make_request(0x55, 0x66)), 44);
        std::vector<uint8_t> buf(static_cast<size_t>(len) + 1, 0x5A);
        comm.send_data->client_id = 0x42;
        ASSERT_EQ(comm.ack_more_msg(buf.data(), len), 0);
        std::vector<uint8_t> head(frame_bytes, 0);
        memcpy(&head[0], &comm.send_data, 8);
        memcpy(&head[8], &comm.recv_data, 8);
        memcpy(&head[16], &comm.max_send_len, 4);
        memcpy(&head[20], &comm.max_recv_len, 4);
        bool more = true;
        int got = 0;
        for (; more && got <= packets; got++) {
            ASSERT_TRUE(client.recv(reply, &more));
            EXPECT_EQ(more, got + 1 < packets) << "packet " << got;
            EXPECT_TRUE(reply == head) << "packet " << got;
        }
        EXPECT_EQ(got, packets);
        data_struct* s = comm.send_data;
        // clang-format off
        EXPECT_EQ(std::make_tuple(s->command, s->sub_command, s->msg_len, +s->msg_type, +s->command_type, +s->client_id, +s->sum_packet, +s->cur_packet),
                  std::make_tuple(0x55, 0x66, len, 0x30, 0x31, 0x42, sum, packets));
        // clang-format on
    }
}

// The router bound on the configured TCP endpoint and the dealer on
// inproc://workers, as the queue device needs them; close_connect closes both
// and the context (ctx_term would block otherwise), so the port binds again.
TEST(server_comm, endpoints_bound_and_released_by_close_connect) {
    int port = free_port();
    for (int round = 0; round < 2; round++) {
        log_capture logs;
        server_comm server("127.0.0.1", port);
        ASSERT_EQ(server.listen_connect(), 0) << "round " << round;
        EXPECT_EQ(type_and_endpoint(server.get_socket()),
                  std::make_pair(ZMQ_ROUTER, "tcp://127.0.0.1:" + std::to_string(port)));
        EXPECT_EQ(type_and_endpoint(server.get_workers()),
                  std::make_pair(ZMQ_DEALER, std::string("inproc://workers")));
        EXPECT_EQ(server.close_connect(), 0);
        EXPECT_TRUE(logs.lines().empty());
    }
}

// A failed TCP bind is -3 with ZeroMQ's reason; what was made stays made.
TEST(server_comm, failed_tcp_bind_reports_zeromq_reason) {
    int busy_port = free_port();
    server_comm holder("127.0.0.1", busy_port);
    ASSERT_EQ(holder.listen_connect(), 0);
    // libzmq takes the empty host for a missing interface, and would wrap -1 and 70000 itself
    // clang-format off
    for (auto [ip, port, err] : std::vector<std::tuple<std::string, int, int>>{
             {"127.0.0.1", busy_port, EADDRINUSE}, {"", free_port(), ENODEV}, {"127.0.0.1", -1, EINVAL}, {"127.0.0.1", 70000, EINVAL}}) {
        // clang-format on
        SCOPED_TRACE("tcp://" + ip + ":" + std::to_string(port));
        log_capture logs;
        server_comm server(ip, port);
        EXPECT_EQ(server.listen_connect(), -3);
        EXPECT_EQ(logs.lines(),
                  comm_error(std::string("zmq_bind error, ") + zmq_strerror(err) + "\n"));
        EXPECT_EQ(server.get_workers(), nullptr);
        if (server.get_workers() != nullptr)
            zmq_close(server.get_workers());  // must not hang the test
        EXPECT_EQ(zmq_close(server.get_socket()), 0);
        zmq_ctx_term(server.get_context());
    }
    EXPECT_EQ(holder.close_connect(), 0);
}

// Five workers registering at once all end up in the list, once each, with
// their own sockets.
TEST(server_comm, concurrent_create_comm_records_every_worker) {
    server_comm server("127.0.0.1", free_port());
    comm_data* made[5] = {};
    std::vector<std::thread> threads;
    std::atomic<int> waiting{5};
    for (int i = 0; i < 5; i++) {
        threads.emplace_back([&, i] {
            waiting--;  // all five call at the same moment
            for (int spin = 0; waiting > 0 && spin < 1000000; spin++) std::this_thread::yield();
            made[i] = server.create_comm(&made[i]);  // a connection never touches its socket here
        });
    }
    for (auto& t : threads) t.join();
    std::vector<comm_data*> list = server.get_comm_list();
    EXPECT_EQ(list.size(), 5u);
    EXPECT_EQ(std::set<comm_data*>(list.begin(), list.end()), std::set<comm_data*>(made, made + 5));
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(made[i]->get_socket(), &made[i]);
        delete made[i];
    }
}
}  // namespace
