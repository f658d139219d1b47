// Closed event streams and the connections that come after them: nothing
// meant for a stream that is gone (an event, a keep-alive, close_notify) may
// reach the connection that is given its descriptor next.  Also run under
// ThreadSanitizer.
#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

class StreamCloseConcurrent : public DaemonTest {};

// A stream carries an event, its client closes it and at once opens a new
// connection: the new one is served whole, a thousand times over.
TEST_F(StreamCloseConcurrent, ANewConnectionAfterEachClosedStreamIsServed) {
    start();
    int failed = 0;
    for (int i = 0; i < 1000; ++i) {
        EventStream es;
        ASSERT_TRUE(es.open(port, s, "path=Device.WiFi.SSID.1."));
        ASSERT_EQ(200, es.status());
        ASSERT_EQ(200, write("PUT", "TR181/Value/Device.WiFi.SSID.1.",
                             "{\"SSID\":\"cycle-" + std::to_string(i) + "\"}")
                           .status);
        ASSERT_TRUE(es.waitFor([](const Event& e) { return e.name == "change"; }, 20000));
        es.close();
        Reply r = get("TR181/Value/Device.DeviceInfo.");
        failed += r.status != 200 || operStatus(r) != "Success";
    }
    EXPECT_EQ(0, failed);
}

// Streams opened, read in part and dropped in every way a client drops them
// (a close, a reset, close_notify, a half close, unexpected bytes, a client
// that stops reading), in random order, while objects change and other
// clients open a connection per request: not one handshake or answer fails.
TEST_F(StreamCloseConcurrent, StreamsDroppedEveryWayLeaveOtherConnectionsWhole) {
    start();
    std::string out;
    int status = root.run({STREAM_CHAOS_BIN, std::to_string(port), "6", "2", "8"}, &out);
    EXPECT_EQ(0, status) << out;
    EXPECT_NE(std::string::npos, out.find("failed handshakes 0, failed answers 0")) << out;
}

}  // namespace
