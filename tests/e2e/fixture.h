// Test fixtures for the end-to-end tests that start one daemon per test: a
// fresh device root, the daemon, and (DaemonTest) no login limit, an
// operation mode set before the start and an admin session.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "client.h"
#include "event_client.h"
#include "harness.h"

namespace e2e {

// A daemon on a fresh device root, as the device sets it up, and its clean
// stop at the end of the test.
class DeviceDaemon : public ::testing::Test {
  protected:
    void launch(Uptime* clock = nullptr) {
        port = startDaemon(d, root, clock);
        ASSERT_NE(0, port) << d.out() << d.err();
    }
    void TearDown() override {
        if (port) {
            EXPECT_EQ(0, d.stop());
        }
    }

    DeviceRoot root;
    Daemon d;
    int port = 0;
};

class DaemonTest : public DeviceDaemon {
  protected:
    // Starts the daemon in `mode` (0 router, 1 access point, 2 extender) and
    // logs in as admin.
    void start(int mode = 0) {
        ASSERT_EQ(0, setMaxLoginAccounts(root, 0));
        if (mode) {
            ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_OperationMode.",
                                       "{\"Mode\":" + std::to_string(mode) + "}"}));
        }
        launch();
        ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &s).status);
    }
    // A request below /api/v1/ with the admin session; writes keep its key.
    Reply get(const std::string& path) { return Client(port).request("GET", path, "", &s); }
    Reply write(const std::string& method, const std::string& path, const std::string& body) {
        return Client(port).write(method, path, body, s);
    }
    void knob(const std::string& name, const std::string& value) {
        ASSERT_EQ(0, root.wcfgctl({"knob", name, value}));
    }

    Session s;
};

// ms an event may take under a sanitizer on a busy machine
constexpr int kEventWait = 20000;

// The same, for tests of event streams.
class StreamTest : public DaemonTest {
  protected:
    // Opens a stream of the admin session (or `as`); expects it accepted.
    void open(EventStream& es, const std::string& query = "",
              const std::vector<std::string>& headers = {}, const Session* as = nullptr) {
        ASSERT_TRUE(es.open(port, as ? *as : s, query, headers));
        ASSERT_EQ(200, es.status()) << es.head() << es.body();
    }
    // The journal keeps `n` entries for the wcfgctl runs of this test.
    struct JournalKeep {
        explicit JournalKeep(const char* n) { setenv("WHTTPD_JOURNAL_KEEP", n, 1); }
        ~JournalKeep() { unsetenv("WHTTPD_JOURNAL_KEEP"); }
    };
};

}  // namespace e2e
