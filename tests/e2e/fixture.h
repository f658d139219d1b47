// A test fixture for the end-to-end tests that start one daemon per test: a
// fresh device root without a login limit, the daemon (in an operation mode
// set before its start), and an admin session.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "harness.h"

namespace e2e {

class DaemonTest : public ::testing::Test {
  protected:
    // Starts the daemon in `mode` (0 router, 1 access point, 2 extender) and
    // logs in as admin.
    void start(int mode = 0) {
        ASSERT_EQ(0, setMaxLoginAccounts(root, 0));
        if (mode) {
            ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_OperationMode.",
                                       "{\"Mode\":" + std::to_string(mode) + "}"}));
        }
        port = startDaemon(d, root);
        ASSERT_NE(0, port) << d.out() << d.err();
        ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &s).status);
    }
    void TearDown() override {
        if (port) {
            EXPECT_EQ(0, d.stop());
        }
    }
    // A request below /api/v1/ with the admin session; writes keep its key.
    Reply get(const std::string& path) { return Client(port).request("GET", path, "", &s); }
    Reply write(const std::string& method, const std::string& path, const std::string& body) {
        return Client(port).write(method, path, body, s);
    }
    void knob(const std::string& name, const std::string& value) {
        ASSERT_EQ(0, root.wcfgctl({"knob", name, value}));
    }

    DeviceRoot root;
    Daemon d;
    Session s;
    int port = 0;
};

}  // namespace e2e
