// Reads of the data model beside serialised writes: several clients read the
// whole tree and single objects while others write, add and delete.  Run
// under the sanitizer builds of the daemon, this finds races in the value
// handlers and their per-thread state.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "fixture.h"

using namespace e2e;

namespace {

// Each test's daemon, stopped at its end, and its sanitizer's silence.
class ValueConcurrent : public DaemonTest {
  protected:
    void TearDown() override {
        DaemonTest::TearDown();
        EXPECT_EQ(std::string::npos, d.err().find("Sanitizer")) << d.err().substr(0, 4000);
    }
    // A client thread's login; a failure is counted, not asserted.
    static bool loggedIn(Client& c, Session& s, const char* user, const char* password,
                         std::atomic<int>& failures) {
        bool ok = c.login(user, password, &s).status == 200;
        failures += !ok;
        return ok;
    }
};

}  // namespace

TEST_F(ValueConcurrent, ReadsBesideSerialisedWrites) {
    start();
    const int kReaders = 3, kWriters = 3, kRounds = 8;
    std::atomic<int> unexpected{0};

    auto reader = [&] {
        Client c(port);
        Session s;
        if (!loggedIn(c, s, "admin", "1234abcd", unexpected))
            return;
        for (int i = 0; i < kRounds; ++i) {
            for (const char* path :
                 {"Device.?first_level_only=false", "Device.Hosts.", "Device.NAT.PortMapping.",
                  "Device.X_OLVEX_EXT.SystemState."}) {
                Reply r = c.request("GET", std::string("TR181/Value/") + path, "", &s);
                if (r.status != 200 || operStatus(r) != "Success")
                    ++unexpected;
            }
        }
    };
    auto writer = [&](int n) {
        Client c(port);
        Session s;
        if (!loggedIn(c, s, "user", "user1234", unexpected))
            return;
        auto write = [&](const std::string& method, const std::string& uri,
                         const std::string& body) { return c.write(method, uri, body, s); };
        for (int i = 0; i < kRounds; ++i) {
            std::string desc = "w" + std::to_string(n) + "-" + std::to_string(i);
            if (operStatus(write("PUT", "TR181/Value/Device.NAT.PortMapping.1.",
                                 "{\"Description\":\"" + desc + "\"}")) != "Success")
                ++unexpected;
            if (operStatus(write("POST", "TR181/Value/Device.NAT.PortMapping.", "")) != "Success")
                ++unexpected;
            // Some instance, present or not: the answer depends on the others.
            write("DELETE",
                  "TR181/Value/Device.NAT.PortMapping." + std::to_string(2 + n * kRounds + i) + ".",
                  "");
            write("PUT", "TR181/Value/MultiObjects",
                  "{\"MultiObjects\":true,\"TR181_Objects\":[{\"object_path\":\"Device.WiFi.SSID."
                  "1.\",\"SSID\":\"" +
                      desc + "\"}]}");
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kReaders; ++i)
        threads.emplace_back(reader);
    for (int i = 0; i < kWriters; ++i)
        threads.emplace_back(writer, i);
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(0, unexpected.load());
}

// wcfgctl writes from another process while clients read through the daemon:
// every read shows a whole object, and a read made after wcfgctl has returned
// shows its write.
TEST_F(ValueConcurrent, WcfgctlWritesBesideDaemonReads) {
    start();
    const std::string object = "TR181/Value/Device.NAT.PortMapping.1.";
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, failed{0}, reads{0};
    auto reader = [&] {
        Client c(port);
        Session s;
        if (!loggedIn(c, s, "admin", "1234abcd", failed))
            return;
        while (!stop) {
            Reply r = c.request("GET", object, "", &s);
            if (operStatus(r) != "Success") {
                ++failed;
                continue;
            }
            size_t e = r.body.find("\"ExternalPort\": "), i = r.body.find("\"InternalPort\": ");
            if (e == std::string::npos || i == std::string::npos ||
                atol(r.body.c_str() + e + 16) != atol(r.body.c_str() + i + 16))
                ++torn;
            ++reads;
            c.request("GET", "TR181/Value/Device.NAT.?first_level_only=false", "", &s);
        }
    };
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.NAT.PortMapping.1.",
                               "{\"ExternalPort\": 1, \"InternalPort\": 1}"}));
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(reader);
    Client c(port);
    Session s;
    ASSERT_EQ(200, c.login("user", "user1234", &s).status);
    int stale = 0;
    for (int n = 2; n < 30; ++n) {
        std::string v = std::to_string(n);
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.NAT.PortMapping.1.",
                                   "{\"ExternalPort\": " + v + ", \"InternalPort\": " + v + "}"}));
        if (c.request("GET", object, "", &s).body.find("\"ExternalPort\": " + v + ",") ==
            std::string::npos)
            ++stale;
    }
    stop = true;
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(0, stale);
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(0, failed.load());
    EXPECT_GT(reads.load(), 0);
}

// The extended objects from many clients at once: host lists (their refresh,
// the shared host-probe database, per-thread tables), WAN information, WPS,
// the speed test's index, icon names and schedules, beside the bandwidth
// monitor.  Under ThreadSanitizer this finds races in their shared state.
TEST_F(ValueConcurrent, ExtendedObjectsFromManyClients) {
    ASSERT_EQ(0, root.wcfgctl({"knob", "wifi.wps.walk_seconds", "5"}));
    start();
    std::atomic<int> unexpected{0};
    const char* const reads[] = {"Device.Hosts.?first_level_only=false",
                                 "Device.Hosts.Host.2.",
                                 "Device.DeviceInfo.WanInfo.",
                                 "Device.WiFi.AccessPoint.1.WPS.",
                                 "Device.X_OLVEX_EXT.InternetSpeed.",
                                 "Device.X_OLVEX_ParentalControl.Profile.1.Schedule."};
    auto reader = [&] {
        Client c(port);
        Session s;
        if (!loggedIn(c, s, "admin", "1234abcd", unexpected))
            return;
        for (int round = 0; round < 4; ++round)
            for (const char* path : reads)
                if (operStatus(c.request("GET", std::string("TR181/Value/") + path, "", &s)) !=
                    "Success")
                    ++unexpected;
    };
    auto writer = [&](int n) {
        Client c(port);
        Session s;
        if (!loggedIn(c, s, "admin", "1234abcd", unexpected))
            return;
        for (int round = 0; round < 4; ++round) {
            std::string v = std::to_string(1 + (n + round) % 2);
            c.write("PUT", "TR181/Value/Device.X_OLVEX_EXT.InternetSpeed.", "{\"Index\":" + v + "}",
                    s);
            c.write("PUT", "TR181/Value/Device.WiFi.AccessPoint.1.WPS.",
                    "{\"X_OlVEX_TriggerWPSPushButton\":true}", s);
            c.write("POST", "TR181/Value/Device.X_OLVEX_Change_Icon_Name.",
                    "{\"MacAddress\":\"02:BB:00:00:0" + std::to_string(n) + ":0" +
                        std::to_string(round) + "\"}",
                    s);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(reader);
    for (int i = 0; i < 2; ++i)
        threads.emplace_back(writer, i);
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(0, unexpected.load());
}
