// A worker's connection (comm_data) over a real ZMQ_REP socket driven by a
// REQ client, and the endpoint (server_comm) on 127.0.0.1.
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <tuple>

#include "log_capture.h"
#include "server_comm.h"
#include "test_util.h"

namespace {

constexpr size_t frame_bytes = 8192 + 48;

uint64_t now_us() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec);
}

std::vector<log_line> comm_error(const std::string& text) {
    return {{ANDROID_LOG_ERROR, "MONITOR_COMM", text}};
}

// The code under test sets no socket options; these only keep a broken test from hanging.
void set_timeouts(void* s) {
    int timeout = 5000, linger = 0;
    zmq_setsockopt(s, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    zmq_setsockopt(s, ZMQ_SNDTIMEO, &timeout, sizeof timeout);
    zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
}

class comm_test : public ::testing::Test {
protected:
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    std::unique_ptr<comm_data> comm;
    std::unique_ptr<zmq_client> client;
    std::vector<uint8_t> reply;

    void SetUp() override {
        set_timeouts(rep);
        ASSERT_EQ(zmq_bind(rep, "tcp://127.0.0.1:*"), 0);
        char ep[256];
        size_t ep_len = sizeof ep;
        zmq_getsockopt(rep, ZMQ_LAST_ENDPOINT, ep, &ep_len);
        comm = std::make_unique<comm_data>(rep);
        client = std::make_unique<zmq_client>(ep);
    }
    void TearDown() override {
        client.reset();
        comm.reset();
        zmq_close(rep);
        zmq_ctx_term(ctx);
    }
    int deliver(const std::vector<uint8_t>& frame) {
        EXPECT_TRUE(client->send(frame));
        return comm->recv_msg();
    }
    // Sends an empty reply, so the socket is back to receiving.
    void answer() {
        ASSERT_EQ(comm->ack_msg(0), 0);
        ASSERT_TRUE(client->recv(reply));
        EXPECT_EQ(reply.size(), 48u);
    }
};

// Reply frames: length + 48 bytes on the wire, every header field, the
// refused length, and error codes in a shortened frame.
TEST_F(comm_test, reply_frames_carry_the_header_and_length_plus_48_bytes) {
    struct {
        int len, result;
        size_t wire;  // 0: nothing sent
    } cases[] = {{0, 0, 48}, {100, 0, 148}, {8192, 0, 8240}, {-22, 0, 26}, {-100, 0, 12}, {8193, -1, 0}};
    for (auto c : cases) {
        SCOPED_TRACE("len " + std::to_string(c.len));
        log_capture logs;
        ASSERT_EQ(deliver(make_request(0x10203040, 0x0A0B0C0D)), 44);
        for (int i = 0; i < 8192; i++) {
            comm->send_data->msg[i] = static_cast<uint8_t>(i % 253 + 1);
        }
        uint64_t before = now_us();
        ASSERT_EQ(comm->ack_msg(c.len), c.result);
        if (c.wire == 0) {
            EXPECT_EQ(logs.lines(), comm_error("server_comm support max len 8192\n"));
            ASSERT_EQ(comm->ack_msg(0), 0);  // so the first frame the client sees is this one
        } else {
            EXPECT_TRUE(logs.lines().empty());
        }
        uint64_t after = now_us();
        ASSERT_TRUE(client->recv(reply));
        ASSERT_EQ(reply.size(), c.wire == 0 ? 48u : c.wire);
        reply_view r = parse_reply(reply);
        EXPECT_EQ(r.command, 0x10203040);
        EXPECT_EQ(r.sub_command, 0x0A0B0C0D);
        EXPECT_EQ(r.msg_len, c.wire == 0 ? 0 : c.len);
        if (reply.size() >= 26) {
            EXPECT_EQ(std::make_tuple(+r.msg_type, +r.sum_packet, +r.cur_packet, +r.command_type, +r.client_id),
                      std::make_tuple(0x30, 0, 0, 0x31, 0xFF));
        }
        if (reply.size() >= 48) {
            EXPECT_EQ(r.crc, 0u);
            uint64_t sent = static_cast<uint64_t>(r.tv_sec) * 1000000 + static_cast<uint64_t>(r.tv_usec);
            EXPECT_TRUE(sent >= before && sent <= after) << sent;
            EXPECT_EQ(comm->get_send_time_us(), sent);
            EXPECT_EQ(memcmp(&reply[44], comm->send_data->msg, reply.size() - 48), 0);
        }
        ASSERT_EQ(deliver(make_request(1, 1)), 44);
        answer();
    }
}

// Requests: the receive time replaces the client's; a non-zero crc is logged
// with the computed 0 and the request is still returned.
TEST_F(comm_test, requests_get_the_receive_time_and_a_crc_mismatch_is_only_logged) {
    struct {
        uint32_t crc;
        std::vector<log_line> logged;
    } cases[] = {{0, {}},
                 {1, comm_error("crc error, compute crc is 0 , receive crc is 1\n")},
                 {0xFFFFFFFF, comm_error("crc error, compute crc is 0 , receive crc is -1\n")}};
    for (const auto& c : cases) {
        SCOPED_TRACE("crc " + std::to_string(c.crc));
        log_capture logs;
        std::vector<uint8_t> req = make_request(0x77, 9, {9, 8, 7});
        int64_t client_time[2] = {1, 2};
        memcpy(&req[24], client_time, sizeof client_time);
        memcpy(&req[40], &c.crc, 4);
        uint64_t before = now_us();
        ASSERT_EQ(deliver(req), 47);
        uint64_t after = now_us();
        EXPECT_EQ(logs.lines(), c.logged);
        EXPECT_TRUE(comm->get_recv_time_us() >= before && comm->get_recv_time_us() <= after);
        EXPECT_EQ(comm->recv_data->command, 0x77);
        EXPECT_EQ(comm->recv_data->msg[2], 7);
        answer();
    }
}

// Only 1072 bytes are stored; the payload after msg_len is cleared only for a
// msg_len in 0..1024, and nothing outside the payload area is touched.
TEST_F(comm_test, requests_are_cut_at_1072_bytes_and_cleared_inside_the_payload) {
    struct {
        int32_t msg_len;
        size_t size;
    } cases[] = {{0, 1072},    {100, 1072},  {1024, 1072},       {-5, 1072},
                 {1025, 1072}, {2000, 2000}, {0x7fffffff, 1072}, {0, 60}};
    log_capture logs;  // every request here carries a crc mismatch
    for (auto c : cases) {
        SCOPED_TRACE("msg_len " + std::to_string(c.msg_len) + " size " + std::to_string(c.size));
        auto* buffer = reinterpret_cast<uint8_t*>(comm->recv_data);
        memset(buffer, 0xAB, frame_bytes);
        std::vector<uint8_t> req = make_request_len(3, 4, std::vector<uint8_t>(c.size - 44, 0x11), c.msg_len);
        uint32_t crc = 0x01020304;  // a clear reaching back into the header would show here
        memcpy(&req[40], &crc, 4);
        ASSERT_EQ(deliver(req), static_cast<int>(c.size));

        std::vector<uint8_t> expect(frame_bytes, 0xAB);
        std::copy(req.begin(), req.begin() + std::min<size_t>(c.size, 1072), expect.begin());
        memcpy(&expect[24], &comm->recv_data->time, 16);
        if (c.msg_len >= 0 && c.msg_len <= 1024) {
            std::fill(expect.begin() + 44 + c.msg_len, expect.begin() + 44 + 1024, 0);
        }
        for (size_t i = 0; i < frame_bytes; i++) {
            ASSERT_EQ(buffer[i], expect[i]) << "byte " << i;
        }
        answer();
    }
}

// A REP socket that owes a reply cannot receive: -1 with ZeroMQ's reason.
TEST_F(comm_test, second_receive_without_a_reply_fails) {
    log_capture logs;
    ASSERT_EQ(deliver(make_request(1, 2)), 44);
    EXPECT_EQ(comm->recv_msg(), -1);
    EXPECT_EQ(logs.lines(), comm_error(std::string("zmq_recv error, ") + zmq_strerror(EFSM) + "\n"));
    answer();
}

// Multi-packet replies: count, SNDMORE on all but the last, packet size and
// content on the wire; the frame prepared in send_data ends with the last share.
TEST_F(comm_test, multi_packet_reply_packets_and_prepared_frame) {
    struct {
        int len, packets;
        uint16_t sum_packet;
    } cases[] = {{0, 1, 0}, {8192, 1, 1}, {16385, 3, 3}, {20000, 3, 3}};
    for (auto c : cases) {
        SCOPED_TRACE("len " + std::to_string(c.len));
        ASSERT_EQ(deliver(make_request(0x55, 0x66)), 44);
        std::vector<uint8_t> buf(static_cast<size_t>(c.len) + 1);
        for (size_t i = 0; i < buf.size(); i++) {
            buf[i] = static_cast<uint8_t>(i % 249 + 1);
        }
        comm->send_data->client_id = 0x42;
        ASSERT_EQ(comm->ack_more_msg(buf.data(), c.len), 0);

        std::vector<uint8_t> head(frame_bytes, 0);
        memcpy(&head[0], &comm->send_data, 8);
        memcpy(&head[8], &comm->recv_data, 8);
        memcpy(&head[16], &comm->max_send_len, 4);
        memcpy(&head[20], &comm->max_recv_len, 4);
        bool more = true;
        int got = 0;
        while (more && got <= c.packets) {
            ASSERT_TRUE(client->recv(reply, &more));
            got++;
            EXPECT_EQ(more, got < c.packets) << "packet " << got;
            EXPECT_TRUE(reply == head) << "packet " << got;
        }
        EXPECT_EQ(got, c.packets);

        data_struct* s = comm->send_data;
        EXPECT_EQ(std::make_tuple(s->command, s->sub_command, s->msg_len, +s->msg_type, +s->command_type,
                                  +s->client_id, +s->sum_packet, +s->cur_packet),
                  std::make_tuple(0x55, 0x66, c.len, 0x30, 0x31, 0x42, +c.sum_packet, c.packets));
        size_t start = static_cast<size_t>(c.packets - 1) * 8192, share = c.len - start;
        for (size_t i = 0; i < 8192; i++) {
            ASSERT_EQ(s->msg[i], i < share ? buf[start + i] : 0) << "payload byte " << i;
        }
    }
}

// Time stamps in microseconds: tv_sec * 1000000 + tv_usec.
TEST_F(comm_test, time_stamps_in_microseconds) {
    comm->send_data->time = {2, 5};
    comm->recv_data->time = {2, 5};
    EXPECT_EQ(comm->get_send_time_us(), 2000005u);
    EXPECT_EQ(comm->get_recv_time_us(), 2000005u);
}

// Moves one message, all parts, between two sockets as the queue device would.
int forward(void* from, void* to) {
    int parts = 0, more = 1;
    for (; more && parts < 8; parts++) {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        if (zmq_msg_recv(&msg, from, 0) < 0) {
            return -1;
        }
        more = zmq_msg_more(&msg);
        zmq_msg_send(&msg, to, more ? ZMQ_SNDMORE : 0);
    }
    return parts;
}

// A request through the TCP router and the dealer on inproc://workers
// reaches a worker's REP socket and is answered.
TEST(server_comm, tcp_router_and_inproc_dealer_carry_a_request_to_a_worker) {
    int port = free_port();
    server_comm server("127.0.0.1", port);
    ASSERT_EQ(server.listen_connect(), 0);
    set_timeouts(server.get_socket());
    set_timeouts(server.get_workers());
    std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    void* rep = zmq_socket(server.get_context(), ZMQ_REP);
    set_timeouts(rep);
    std::unique_ptr<comm_data> worker(server.create_comm(rep));
    ASSERT_EQ(zmq_connect(rep, "inproc://workers"), 0);
    {
        zmq_client client(endpoint);
        ASSERT_TRUE(client.send(make_request(0x21, 0x22, {'h', 'i'})));
        ASSERT_EQ(forward(server.get_socket(), server.get_workers()), 3);  // identity, delimiter, frame
        ASSERT_EQ(worker->recv_msg(), 46);
        EXPECT_EQ(worker->recv_data->msg[1], 'i');
        memcpy(worker->send_data->msg, "pong", 4);
        ASSERT_EQ(worker->ack_msg(4), 0);
        ASSERT_EQ(forward(server.get_workers(), server.get_socket()), 3);
        std::vector<uint8_t> reply;
        ASSERT_TRUE(client.recv(reply));
        EXPECT_EQ(reply.size(), 52u);
        EXPECT_EQ(parse_reply(reply).payload, "pong");
    }
    zmq_close(rep);
    EXPECT_EQ(server.close_connect(), 0);
}

// A failed TCP bind is -3 with ZeroMQ's reason; what was made stays made.
TEST(server_comm, failed_tcp_bind_reports_zeromq_reason) {
    int busy_port = free_port();
    server_comm holder("127.0.0.1", busy_port);
    ASSERT_EQ(holder.listen_connect(), 0);
    struct {
        std::string ip;
        int port, err;
    } cases[] = {
        {"127.0.0.1", busy_port, EADDRINUSE},
        {"", free_port(), ENODEV},  // libzmq takes the empty host for a missing interface
        {"127.0.0.1", -1, EINVAL},  // libzmq itself would wrap these to 65535 and 4464
        {"127.0.0.1", 70000, EINVAL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("tcp://" + c.ip + ":" + std::to_string(c.port));
        log_capture logs;
        server_comm server(c.ip, c.port);
        EXPECT_EQ(server.listen_connect(), -3);
        EXPECT_EQ(logs.lines(), comm_error(std::string("zmq_bind error, ") + zmq_strerror(c.err) + "\n"));
        EXPECT_NE(server.get_socket(), nullptr);
        EXPECT_EQ(server.get_workers(), nullptr);
        if (server.get_workers() != nullptr) {
            zmq_close(server.get_workers());  // a wrongly accepted bind must not hang the test
        }
        zmq_close(server.get_socket());
        zmq_ctx_term(server.get_context());
    }
    EXPECT_EQ(holder.close_connect(), 0);
}

// close_connect closes both sockets (the port is free again) and terminates
// the context; a failed first close skips the other steps.
TEST(server_comm, close_connect_releases_the_endpoint) {
    int port = free_port();
    log_capture logs;
    for (int round = 0; round < 2; round++) {
        server_comm server("127.0.0.1", port);
        ASSERT_EQ(server.listen_connect(), 0) << "round " << round;
        EXPECT_EQ(server.close_connect(), 0);  // zmq_ctx_term would block on a socket left open
    }
    EXPECT_TRUE(logs.lines().empty());

    server_comm server("127.0.0.1", port);
    ASSERT_EQ(server.listen_connect(), 0);
    void* router = server.get_socket();
    server.set_socket(nullptr);
    EXPECT_EQ(server.close_connect(), -1);
    EXPECT_EQ(logs.lines(), comm_error(std::string("zmq_close error, ") + zmq_strerror(ENOTSOCK) + "\n"));
    EXPECT_EQ(zmq_close(server.get_workers()), 0);  // still open: the second close was skipped
    EXPECT_EQ(zmq_close(router), 0);
    EXPECT_EQ(zmq_ctx_term(server.get_context()), 0);
}

// Five workers registering at once all end up in the list, once each; the
// list handed out is a copy.
TEST(server_comm, concurrent_create_comm_records_every_worker) {
    server_comm server("127.0.0.1", free_port());
    ASSERT_EQ(server.listen_connect(), 0);
    constexpr int workers = 5;
    comm_data* made[workers] = {};
    void* sockets[workers] = {};
    std::atomic<int> waiting{workers};
    std::vector<std::thread> threads;
    for (int i = 0; i < workers; i++) {
        threads.emplace_back([&, i] {
            sockets[i] = zmq_socket(server.get_context(), ZMQ_REP);
            waiting--;
            for (int spin = 0; waiting > 0 && spin < 1000000; spin++) {
                std::this_thread::yield();
            }
            made[i] = server.create_comm(sockets[i]);
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    std::vector<comm_data*> list = server.get_comm_list();
    EXPECT_EQ(std::set<comm_data*>(list.begin(), list.end()), std::set<comm_data*>(made, made + workers));
    EXPECT_EQ(list.size(), static_cast<size_t>(workers));
    list.push_back(nullptr);
    EXPECT_EQ(server.get_comm_list().size(), static_cast<size_t>(workers));
    for (int i = 0; i < workers; i++) {
        EXPECT_EQ(made[i]->get_socket(), sockets[i]);
        delete made[i];
        zmq_close(sockets[i]);
    }
    EXPECT_EQ(server.close_connect(), 0);
}

}  // namespace
