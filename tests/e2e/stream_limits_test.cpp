// What event streams may take from the rest of the device: the connections
// of their client's address (a home network, for IPv6), a place held by a
// client that went silent, and memory held for clients that stopped
// reading.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "event_client.h"
#include "fixture.h"
#include "raw_conn.h"

using namespace e2e;

namespace {

// Whether this build runs under a sanitizer, whose allocator holds on to
// freed memory (and so hides what the daemon itself keeps).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

class StreamLimitsTest : public DaemonTest {};

// Streams have ceilings of their own: they do not count against their
// address's connections, which other clients of that address (its whole
// /64, for IPv6) still need.
TEST_F(StreamLimitsTest, StreamsLeaveTheirAddressItsConnections) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "per_address=4,events_per_session=8");
    start();
    std::vector<std::unique_ptr<EventStream>> streams;
    for (int i = 0; i < 6; ++i) {
        streams.push_back(std::make_unique<EventStream>());
        ASSERT_TRUE(streams.back()->open(port, s)) << i;
        ASSERT_EQ(200, streams.back()->status()) << i;
    }
    EXPECT_EQ(200, get("TR181/Value/Device.DeviceInfo.").status);
    Session other;
    EXPECT_EQ(200, Client(port).login("user", "user1234", &other).status);
}

// Streams do not count against their address's connections, but one
// device (one address), whatever number of sessions it opens, takes no more
// than its share of the streams, and the other devices get theirs.
TEST_F(StreamLimitsTest, OneDeviceLeavesTheOthersTheirStreams) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_per_address=2,events_per_session=8");
    start();
    EventStream a, b, c, other;
    ASSERT_TRUE(a.open(port, s));
    ASSERT_TRUE(b.open(port, s));
    ASSERT_EQ(200, b.status());
    Session second;
    ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &second).status);
    ASSERT_TRUE(c.open(port, second, "", {"Accept: text/event-stream"}));
    ASSERT_EQ(200, c.status());
    std::optional<Event> busy = c.next(kEventWait);
    ASSERT_TRUE(busy);
    EXPECT_EQ("busy", busy->name);
    EXPECT_EQ("too many streams from this address", eventMember(*busy, "reason"));
    Session elsewhere;
    ASSERT_EQ(200,
              Client(port, "127.0.0.1", "127.0.0.2").login("user", "user1234", &elsewhere).status);
    ASSERT_TRUE(other.open(port, elsewhere, "", {}, 0, "127.0.0.2"));
    EXPECT_EQ(200, other.status());
}

// Runs a command, quietly; its exit status.
int run(const std::string& command) {
    return system((command + " >/dev/null 2>&1").c_str());
}

// A network namespace joined to this one by a pair of virtual Ethernet
// links: a client inside it is a device on the LAN that can vanish (its
// link goes down) without closing anything.
class Lan {
  public:
    Lan() {
        int n = getpid() % 200 + 20;
        ns_ = "whttpd-lan" + std::to_string(getpid());
        host_ = "wl" + std::to_string(getpid()) + "h";
        guest_ = "wl" + std::to_string(getpid()) + "g";
        hostAddr_ = "10.213." + std::to_string(n) + ".1";
        guestAddr_ = "10.213." + std::to_string(n) + ".2";
        ok_ = run("ip netns add " + ns_) == 0 &&
              run("ip link add " + host_ + " type veth peer name " + guest_) == 0 &&
              run("ip link set " + guest_ + " netns " + ns_) == 0 &&
              run("ip addr add " + hostAddr_ + "/30 dev " + host_) == 0 &&
              run("ip link set " + host_ + " up") == 0 && inside("ip link set lo up") == 0 &&
              inside("ip addr add " + guestAddr_ + "/30 dev " + guest_) == 0 &&
              inside("ip link set " + guest_ + " up") == 0;
    }
    ~Lan() {
        run("ip link del " + host_);
        run("ip netns del " + ns_);
    }
    bool ok() const { return ok_; }
    int inside(const std::string& command) const {
        return run("ip netns exec " + ns_ + " " + command);
    }
    const std::string& name() const { return ns_; }
    // The guest's link goes down: its packets go nowhere, nothing is closed.
    void vanish() const { inside("ip link set " + guest_ + " down"); }
    const std::string& hostAddr() const { return hostAddr_; }

  private:
    std::string ns_, host_, guest_, hostAddr_, guestAddr_;
    bool ok_ = false;
};

// A phone that goes to sleep (or leaves the network) with a stream open
// stops acknowledging: the daemon frees its place in seconds
// (stream_dead_ms), not after the kernel's quarter of an hour.
TEST_F(StreamLimitsTest, AClientThatStopsAcknowledgingLosesItsPlace) {
    Lan lan;
    if (!lan.ok())
        GTEST_SKIP() << "no network namespace here (needs root and iproute2)";
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_total=1,events_keepalive_ms=300,stream_dead_ms=1500");
    start();
    std::string api = "https://" + lan.hostAddr() + ":" + std::to_string(port) + "/api/v1/";
    std::string jar = root.path("/.lan.jar");
    ASSERT_EQ(0, lan.inside("curl -sfk -c " + jar +
                            " -d '{\"username\":\"admin\",\"password\":\"1234abcd\"}' " + api +
                            "UserLogin"));
    // The phone's stream: curl in the namespace, started again whenever it
    // was refused (a probe below held the place for a moment).
    pid_t phone = -1;
    auto launch = [&] {
        pid_t parent = getpid();
        phone = fork();
        if (phone == 0) {
            dieWithParent(parent);
            std::string ns = lan.name();
            execlp("ip", "ip", "netns", "exec", ns.c_str(), "curl", "-sfk", "-N", "-o", "/dev/null",
                   "-b", jar.c_str(), (api + "Events").c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    };
    struct Reap {
        pid_t& pid;
        ~Reap() {
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
    } reap{phone};
    // Until the phone's stream holds the only place.
    long status = 200;
    for (int i = 0; i < 100 && status == 200; ++i) {
        if (phone <= 0 || waitpid(phone, nullptr, WNOHANG) == phone)
            launch();
        {
            EventStream probe;
            ASSERT_TRUE(probe.open(port, s));
            status = probe.status();
        }
        if (status == 200)
            sleepMs(200);
    }
    ASSERT_EQ(503, status);
    lan.vanish();
    for (int i = 0; i < 400 && status != 200; ++i) {
        EventStream probe;
        ASSERT_TRUE(probe.open(port, s));
        status = probe.status();
        if (status != 200)
            sleepMs(50);
    }
    EXPECT_EQ(200, status) << "the silent phone still holds its place";
}

// Clients that stop reading fill their streams' queues: together they hold
// no more than the streams' pool (stream_bytes) beyond a small reserve
// each, not a full queue each (48 x 256 KiB here).
TEST_F(StreamLimitsTest, MemoryOfStreamsThatStopReadingIsThePoolAtMost) {
    if (kSanitized)
        GTEST_SKIP()
            << "a sanitizer's allocator keeps what is freed: the plain build measures this";
    d.setEnv("WHTTPD_HTTP_LIMITS",
             "events_per_session=8,events_per_address=64,events_queue=4096,stream_bytes=262144,"
             "write_ms=600000");
    start();
    std::vector<std::unique_ptr<EventStream>> stalled;
    for (int k = 0; k < 6; ++k) {
        Session owner;
        ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &owner).status);
        for (int i = 0; i < 8; ++i) {
            stalled.push_back(std::make_unique<EventStream>());
            ASSERT_TRUE(stalled.back()->open(port, owner, "path=Device.DeviceInfo.", {}, 4096));
            ASSERT_EQ(200, stalled.back()->status());
        }
    }
    // Follows a path of its own: a write to it after the others tells when
    // the hub has handed every change before it to the streams.
    EventStream marker;
    ASSERT_TRUE(marker.open(port, s, "path=Device.WiFi.SSID.1."));
    long before = statusField(d.pid(), "RssAnon");
    for (int b = 0; b < 6; ++b) {
        std::string body = R"({"MultiObjects":true,"TR181_Objects":[)";
        for (int i = 0; i < 200; ++i)
            body += std::string(i ? "," : "") +
                    R"({"object_path":"Device.DeviceInfo.","ProvisioningCode":"b)" +
                    std::to_string(b) + "-" + std::to_string(i) + std::string(50, 'x') + "\"}";
        ASSERT_EQ(200, write("PUT", "TR181/Value/MultiObjects", body + "]}").status);
    }
    ASSERT_EQ(200, write("PUT", "TR181/Value/Device.WiFi.SSID.1.", R"({"SSID":"marker"})").status);
    ASSERT_TRUE(marker.waitFor(
        [](const Event& e) { return e.data.find("marker") != std::string::npos; }, kEventWait));
    long after = statusField(d.pid(), "RssAnon");
    printf("anonymous memory %ld kB before, %ld kB after\n", before, after);
    EXPECT_LT(after - before, 8192);
}

}  // namespace
