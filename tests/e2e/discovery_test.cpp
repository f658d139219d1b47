// App discovery through the real daemon's UDP responder: the controller's
// answer (layout, length field, document), silence from an agent, with the
// mesh app off, and for every malformed request, and the end of the daemon
// when its port is taken.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "client.h"
#include "fixture.h"
#include "harness.h"

namespace {

std::string datagram(int version, int type, int length, const std::string& payload) {
    std::string d(4, '\0');
    d[0] = static_cast<char>(version);
    d[1] = static_cast<char>(type);
    d[2] = static_cast<char>((length >> 8) & 0xff);
    d[3] = static_cast<char>(length & 0xff);
    return d + payload;
}

const std::string kRequest = R"({"MagicNum":"Q8152","AppVersion":3})";

// Sends a datagram to the responder; the answer, or "" after `waitMs`.
std::string ask(int port, const std::string& d, int waitMs = 600) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    pollfd p{fd, POLLIN, 0};
    std::string answer;
    if (poll(&p, 1, waitMs) == 1) {
        char buf[8192];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0)
            answer.assign(buf, static_cast<size_t>(n));
    }
    close(fd);
    return answer;
}

class Discovery : public e2e::DaemonTest {
  protected:
    void SetUp() override { d.setEnv("WLOG_LEVEL", "7"); }
    int udp() const { return d.discoveryPort(); }
};

}  // namespace

TEST_F(Discovery, TheControllerDescribesItsApi) {
    start();
    std::string a = ask(udp(), datagram(1, 1, static_cast<int>(kRequest.size()), kRequest));
    ASSERT_GE(a.size(), 4u) << d.err();
    std::string text = a.substr(4);
    std::string expected =
        "{\"ApiName\":\"OLVEX RESTful API\",\"ModelName\":\"NX5150\",\"SoftwareVersion\":"
        "\"V1.20(ABCD.7)C0\",\"DeviceMode\":\"Router\",\"SupportedApiVersion\":[{\"ApiVersion\":"
        "\"1.1\",\"LoginURI\":\"\\/api\\/v1\\/UserLogin\",\"Protocol\":\"HTTPS\",\"HttpsPort\":" +
        std::to_string(port) +
        "}],\"MAC\":\"02:10:18:3A:5C:00\",\"SupportedCloudAgent\":false,"
        "\"SupportOlvexUniAPPGeneric\":true}";
    EXPECT_EQ(expected, text);
    EXPECT_TRUE(d.waitForOutput("app_discover_main : Device role is :controller, reply_res is :1"));
}

TEST_F(Discovery, AgentsAndADisabledMeshAppStaySilent) {
    start();
    std::string req = datagram(1, 1, static_cast<int>(kRequest.size()), kRequest);
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_EasyMesh.", R"({"Role":2})"}));
    EXPECT_EQ("", ask(udp(), req));
    EXPECT_TRUE(d.waitForOutput("Device role is :agent, reply_res is :0"));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_EasyMesh.", R"({"Role":1})"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_MeshApp.", R"({"Enable":false})"}));
    EXPECT_EQ("", ask(udp(), req));
    EXPECT_TRUE(d.waitForOutput("app_discover_main : App is :disable"));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_MeshApp.", R"({"Enable":true})"}));
    EXPECT_NE("", ask(udp(), req));  // decided afresh for every request
}

TEST_F(Discovery, MalformedRequestsAreDropped) {
    start();
    int n = static_cast<int>(kRequest.size());
    EXPECT_EQ("", ask(udp(), datagram(1, 2, n, kRequest), 200));  // an answer, not a request
    EXPECT_EQ("", ask(udp(), datagram(2, 1, n, kRequest), 200));
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 0, kRequest), 200));
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 4097, kRequest), 200));
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 40, R"({"MagicNum":"Q8153","AppVersion":3})"), 200));
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 40, R"({"AppVersion":3})"), 200));
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 40, R"({"MagicNum":null})"), 200));  // found by fuzzing
    EXPECT_EQ("", ask(udp(), datagram(1, 1, 40, "not json"), 200));
    EXPECT_EQ("", ask(udp(), "", 200));
    EXPECT_EQ("", ask(udp(), std::string(5000, 'x'), 200));
    EXPECT_TRUE(d.waitForOutput("Wrong MagicNum."));
    // A length above the payload but within 4096 is accepted: the text ends
    // at its NUL.  And the responder still answers.
    EXPECT_NE("", ask(udp(), datagram(1, 1, 4096, kRequest)));
}

TEST(DiscoveryPort, ATakenPortEndsTheDaemon) {
    e2e::DeviceRoot root;
    int taken = e2e::freeUdpPort();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons(static_cast<uint16_t>(taken));
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    e2e::Daemon d;
    d.setEnv("WHTTPD_DISCOVERY_PORT", std::to_string(taken));
    ASSERT_TRUE(d.start(root, {"-s", std::to_string(e2e::freePort())}));
    EXPECT_EQ(1, d.wait(30000));
    EXPECT_NE(std::string::npos, d.err().find("bind: ")) << d.err();
    EXPECT_NE(std::string::npos, d.err().find("UDP port " + std::to_string(taken))) << d.err();
    close(fd);
}
