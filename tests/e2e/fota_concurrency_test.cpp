// Firmware checks and upgrades from several clients at once.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

class FotaConcurrent : public e2e::DaemonTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(cloud.start(root, {})) << cloud.err();
        start();
    }
    e2e::Cloud cloud;
};

// Checks and upgrades at once share the daemon-wide descriptor: whatever
// they overwrite, nothing crashes and (under ThreadSanitizer) nothing races.
TEST_F(FotaConcurrent, ChecksAndUpgrades) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            e2e::Session own;
            Client c(port);
            if (c.login("admin", "1234abcd", &own).status != 200)
                return;
            for (int i = 0; i < 4; ++i) {
                Reply r = t % 2 ? c.write("POST", "FOTA?action=online", "", own)
                                : c.request("GET", "FOTA", "", &own);
                EXPECT_TRUE(r.status == 200 || r.status == 400) << r.status;
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(200, get("FOTA").status);
    EXPECT_EQ(0, d.stop());
    port = 0;
}

}  // namespace
