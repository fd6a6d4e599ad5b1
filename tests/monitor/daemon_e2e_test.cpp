// The real daemon binary on a free loopback port.
#include <gtest/gtest.h>

#include "test_util.h"

TEST(daemon_e2e, serves_a_file_command_and_rejects_unknown_ones) {
    temp_dir dir;
    std::string data = dir.write("data.txt", "hello vireo\n");
    std::string sub = dir.write("sub.json", R"({"cmd-list": [
        {"name": "data", "id": "1", "type": "file", "file": ")" + data + R"("}]})");
    int port = free_port();
    std::string main_json = dir.write("main.json", R"({"mode": "server", "server_ip": "127.0.0.1",
        "port": )" + std::to_string(port) + R"(, "sub-configs": [
        {"class": "demo", "code": "0x10", "config": ")" + sub + R"("}]})");
    daemon_process d({"-c", main_json});
    std::string ep = "tcp://127.0.0.1:" + std::to_string(port);
    ASSERT_TRUE(d.wait_ready(ep)) << d.stderr_text();

    zmq_client c(ep);
    std::vector<uint8_t> reply;
    ASSERT_TRUE(c.request(make_request(0x10, 1), reply));
    EXPECT_EQ(reply.size(), 48u + 12);
    reply_view r = parse_reply(reply);
    EXPECT_EQ(r.payload, "hello vireo\n");
    EXPECT_EQ(r.msg_type, 0x30);
    EXPECT_EQ(r.command_type, 0x31);
    EXPECT_EQ(r.client_id, 0xFF);

    ASSERT_TRUE(c.request(make_request(0x12, 1), reply));
    EXPECT_EQ(reply.size(), 26u);
    EXPECT_EQ(parse_reply(reply).msg_len, -22);
    EXPECT_TRUE(d.wait_stderr("Handle request error with -22"));
}
