// WPS through the real daemon and the platform's Wi-Fi service: the push
// button, every class of status, a service that never answers or answers
// without a payload, the short interface name of the polls, the extender's
// success marker, and other clients served while a WPS set waits.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

const std::string kWps = "TR181/Value/Device.WiFi.AccessPoint.1.WPS.";
const char* const kPress = R"({"X_OlVEX_TriggerWPSPushButton":true})";

class Wps : public e2e::DaemonTest {
  protected:
    std::string press(const char* body = kPress) {
        return operStatus(Client(port).write("PUT", kWps, body, s));
    }
    // "X_OLVEX_WPSRunningStatus" of a GET, or the GET's failure.
    std::string running() {
        Reply r = Client(port).request("GET", kWps, "", &s);
        if (operStatus(r) != "Success")
            return operStatus(r);
        size_t at = r.body.find("\"X_OLVEX_WPSRunningStatus\": \"");
        return at == std::string::npos
                   ? "<absent>"
                   : r.body.substr(at + 29, r.body.find('"', at + 29) - at - 29);
    }
    std::string journal() {
        std::string out;
        root.wcfgctl({"requests"}, &out);
        return out;
    }
};

}  // namespace

TEST_F(Wps, PushButtonRunsASessionToItsOutcome) {
    start();
    EXPECT_EQ("", running());  // nothing pressed yet: the stored status, empty
    // A walk that outlasts the checks however slow the machine, then none:
    // the service reads the walk time at every status request.
    knob("wifi.wps.walk_seconds", "1000000");
    knob("wifi.wps.outcome", "success");
    EXPECT_EQ("Success", press());
    EXPECT_NE(std::string::npos, journal().find(R"("type":4006,"if":"wl0")"));
    EXPECT_NE(std::string::npos, journal().find(R"("type":4012,"if":"wl0")"));
    EXPECT_EQ("Requested", running());
    knob("wifi.wps.walk_seconds", "0");
    EXPECT_EQ("NoError, WPS ok!", running());
    // Without the push button: the set request (4015), and the polls.
    ASSERT_EQ(0, root.wcfgctl({"requests", "--clear"}));
    EXPECT_EQ("Success", press(R"({"X_OlVEX_TriggerWPSPushButton":false})"));
    EXPECT_NE(std::string::npos, journal().find(R"("type":4015)"));
    EXPECT_NE(std::string::npos, journal().find(R"("type":4012)"));
}

TEST_F(Wps, EveryStatusClassReadsItsText) {
    start();
    EXPECT_EQ("Success", press());
    const std::pair<const char*, const char*> cases[] = {
        {"0", "DeviceException, wps not running!"},
        {"1", "Requested"},
        {"2", "NoError, WPS ok!"},
        {"3", "Device Busy"},
        {"4", "WPS TIMEOUT!"},
        {"5", "Requested"},
        {"6", "Requested"},
        {"7", "Device Busy"},
        {"-1", "DeviceBusy, no wps status reply!"}};
    for (const auto& [status, text] : cases) {
        knob("wifi.wps.forced_status", status);
        EXPECT_EQ(text, running()) << status;
    }
    // In router mode the extender's marker changes nothing.
    knob("wifi.wps.forced_status", "4");
    ASSERT_EQ(0, system(("touch " + root.path("/tmp/wps_success")).c_str()));
    EXPECT_EQ("WPS TIMEOUT!", running());
    EXPECT_TRUE(root.exists("/tmp/wps_success"));
}

TEST_F(Wps, ExtenderReportsSuccessThroughTheMarker) {
    start(2);
    knob("wifi.wps.walk_seconds", "1000000");
    knob("wifi.wps.outcome", "success");
    EXPECT_EQ("Success", press());
    // The walk ends: the service reads its time at every status request.
    knob("wifi.wps.walk_seconds", "0");
    EXPECT_EQ("NoError, WPS ok!", running());
    EXPECT_FALSE(root.exists("/tmp/wps_success"));
}

TEST_F(Wps, SilentServiceAndPayloadlessReplies) {
    start();
    // A walk that never ends within the test: its outcome would overwrite the
    // status stored below, at a moment that depends on the machine's speed.
    knob("wifi.wps.walk_seconds", "1000000");
    EXPECT_EQ("Success", press());
    // No reply at all: the set and the get wait out their time-outs.
    knob("wifi.wps.reply", "none");
    EXPECT_EQ("Invalid parameter value", press());
    EXPECT_EQ("Invalid object", running());
    EXPECT_TRUE(d.waitForOutput("wcfgMsgSendAndGetReply not Success"));
    // Reply kind 1: success without a status; nothing is added, the answer
    // shows the status the Wi-Fi service stored.
    knob("wifi.wps.reply", "kind1");
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.AccessPoint.1.WPS.",
                               R"({"X_OLVEX_WPSRunningStatus":"as stored"})"}));
    EXPECT_EQ("Success", press());
    EXPECT_EQ("as stored", running());
}

TEST_F(Wps, PollsUseTheFirstSevenCharactersOfTheInterface) {
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.", R"({"Name":"wlan0-main"})"}));
    start();
    knob("wifi.wps.forced_status", "0");  // never "requested": all five polls run
    EXPECT_EQ("Success", press());
    std::string j = journal();
    EXPECT_NE(std::string::npos, j.find(R"("type":4006,"if":"wlan0-main")")) << j;
    EXPECT_EQ(5u, e2e::countOf(j, R"("type":4012,"if":"wlan0-m")")) << j;
    EXPECT_EQ("DeviceException, wps not running!", running());
    EXPECT_NE(std::string::npos, journal().find(R"("type":4012,"if":"wlan0-main")"));
}

// A set waits for the Wi-Fi service and its polls; other clients log in and
// read meanwhile.  The service holds its reply until the test lets it go.
TEST_F(Wps, OtherClientsAreServedWhileASetWaits) {
    start();
    knob("wifi.wps.forced_status", "0");
    knob("wifi.wps.hold", "1");
    std::atomic<bool> done{false};
    std::string result;
    std::thread setter([&] {
        result = press();
        done = true;
    });
    // The set has reached the service, which holds it.
    for (int i = 0; i < 1000 && journal().find(R"("type":4006)") == std::string::npos; ++i)
        e2e::sleepMs(20);
    Session other;
    Client c(port);
    EXPECT_EQ(200, c.login("user", "user1234", &other).status);
    EXPECT_EQ("Success",
              operStatus(c.request("GET", "TR181/Value/Device.DeviceInfo.", "", &other)));
    EXPECT_FALSE(done.load()) << "the set was expected to be still waiting";
    knob("wifi.wps.hold", "");
    setter.join();
    EXPECT_EQ("Success", result);
}
