// Bytes that cross between processes in a fixed order, whatever the CPU: the
// bus header (big-endian on the socket) and the discovery datagram (its
// length big-endian), exchanged with the daemon as raw bytes and by the
// programs of another build.  scripts/cross names the machine's own build in
// WHTTPD_PEER_BINDIR, so that an x86-64 wcfgctl and whttpctl talk to the
// target's daemon (big-endian on s390x); without it this build's programs
// stand in.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fixture.h"
#include "harness.h"
#include "device/bus.h"
#include "device/wcfg.h"

namespace {

class Wire : public e2e::DaemonTest {};

void putBigEndian32(unsigned char* at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}

}  // namespace

TEST_F(Wire, ABusNoticeInNetworkByteOrderReachesTheDaemon) {
    start();
    unsigned char notice[sizeof(wcfgMsgHdr_t)] = {};
    putBigEndian32(notice, WCFG_MSG_DATA_MODEL_CHANGED);
    notice[8] = 1;                // source endpoint
    notice[9] = WCFG_EID_WHTTPD;  // destination endpoint
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    std::string path = root.path("/var/run/wcfg/eid.") + std::to_string(WCFG_EID_WHTTPD);
    ASSERT_LT(path.size(), sizeof to.sun_path);
    memcpy(to.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    ssize_t sent =
        sendto(fd, notice, sizeof notice, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(fd);
    ASSERT_EQ(static_cast<ssize_t>(sizeof notice), sent);
    EXPECT_TRUE(d.waitForOutput("data model change, update login timer."));
}

TEST_F(Wire, ABusNoticeFromAProgramOfAnotherBuildReachesTheDaemon) {
    start();
    std::string out;
    ASSERT_EQ(0, root.run({e2e::peerProgram("wcfgctl", WCFGCTL_BIN), "notify"}, &out)) << out;
    EXPECT_TRUE(d.waitForOutput("data model change, update login timer."));
}

TEST_F(Wire, DiscoveryAnswersAClientOfAnotherBuild) {
    start();
    std::string out;
    ASSERT_EQ(0, root.run({e2e::peerProgram("whttpctl", WHTTPCTL_BIN), "discover", "127.0.0.1",
                           "--port", std::to_string(d.discoveryPort()), "--wait", "3000"},
                          &out))
        << out;
    EXPECT_NE(std::string::npos, out.find("\"ModelName\": \"NX5150\"")) << out;
    EXPECT_NE(std::string::npos, out.find("\"HttpsPort\": " + std::to_string(port))) << out;
    EXPECT_NE(std::string::npos, out.find("\"Address\": \"127.0.0.1\"")) << out;
}
