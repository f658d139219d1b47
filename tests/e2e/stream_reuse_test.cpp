// A closed event stream's connection: nothing meant for it may reach the
// connection that gets its descriptor next.
#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

class StreamCloseTest : public DaemonTest {};

TEST_F(StreamCloseTest, ANewConnectionAfterAStreamThatCarriedAnEventIsServed) {
    start();
    int failed = 0;
    for (int i = 0; i < 200; ++i) {
        EventStream es;
        ASSERT_TRUE(es.open(port, s, "path=Device.WiFi.SSID.1."));
        ASSERT_EQ(200, es.status());
        ASSERT_EQ(200, write("PUT", "TR181/Value/Device.WiFi.SSID.1.",
                             "{\"SSID\":\"cycle-" + std::to_string(i) + "\"}")
                           .status);
        ASSERT_TRUE(es.waitFor([](const Event& e) { return e.name == "change"; }, 20000));
        es.close();
        Reply r = get("TR181/Value/Device.DeviceInfo.");
        if (r.status != 200)
            ++failed;
    }
    EXPECT_EQ(0, failed);
}

}  // namespace
