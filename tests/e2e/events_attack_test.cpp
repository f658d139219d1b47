// Event streams attacked: an object read that hangs, the host watcher's
// queue overflowing, changes made after a session ended.  Each test fails on the defect it names
// and passes once it is fixed; none passes or fails by timing (a condition
// is waited for within kEventWait, or a hang is made far longer than kEventWait).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

class EventsAttackTest : public StreamTest {};

// An object whose read asks another service (WPS with its push button
// pressed once: every read asks the Wi-Fi service for its status) and the
// service hangs.  Another stream, watching something else, must still get
// its event.
TEST_F(EventsAttackTest, AHangingObjectReadDelaysNoOtherStream) {
    start();
    EventStream all, nat;
    open(all);  // watches everything: renders the WPS object
    open(nat, "path=Device.NAT.");
    ASSERT_EQ(0, root.wcfgctl({"knob", "wifi.wps.delay_ms", "600000"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.AccessPoint.1.WPS.",
                               "{\"X_OlVEX_TriggerWPSPushButton\":true}"}));
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.NAT.PortMapping.", "{\"ExternalPort\":7777}"}));
    std::optional<Event> add =
        nat.waitFor([](const Event& e) { return e.name == "add"; }, kEventWait);
    EXPECT_TRUE(add) << "the NAT stream waits behind the WPS read";
    // Nor does it hold the daemon's exit: the hang lasts ten minutes, the
    // stop may take 20 s.
    int rc = d.stop(SIGTERM, kEventWait);
    EXPECT_EQ(0, rc) << "the daemon did not exit within " << kEventWait << " ms";
    if (rc == -1000) {
        d.signal(SIGKILL);
        d.wait(kEventWait);
    }
    port = 0;
}

// The host watcher's inotify queue overflows while it cannot read (busy
// directories, a stalled thread): the overflow must lead to a refresh, or a
// host that joined meanwhile is never announced until somebody reads.
TEST_F(EventsAttackTest, AHostJoiningDuringAnInotifyOverflowIsAnnounced) {
    start();
    EventStream es;
    open(es, "path=Device.Hosts.");
    d.signal(SIGSTOP);
    // More events in the watched /tmp than the kernel queues (16384).
    int queued = 16384;
    if (FILE* f = fopen("/proc/sys/fs/inotify/max_queued_events", "r")) {
        if (fscanf(f, "%d", &queued) != 1)
            queued = 16384;
        fclose(f);
    }
    for (int i = 0; i <= queued / 2 + 16; ++i) {
        std::string p = root.path("/tmp/churn" + std::to_string(i));
        std::ofstream(p).close();
        unlink(p.c_str());
    }
    std::string leases = root.read("/var/dnsmasq/dnsmasq.leases");
    std::ofstream(root.path("/var/dnsmasq/dnsmasq.leases"))
        << leases << "0 86400 02:cc:00:00:00:78 192.168.1.78 during-overflow *\n";
    d.signal(SIGCONT);
    std::optional<Event> joined = es.waitFor(
        [](const Event& e) {
            return e.name == "add" && e.data.find("02:CC:00:00:00:78") != std::string::npos;
        },
        kEventWait);
    EXPECT_TRUE(joined) << "the host that joined during the overflow was not announced";
}

// The session ends (logout) while the hub is busy with a slow object read;
// a change made after the logout must not reach the ended session's stream:
// its "end" comes first.  The read lasts 10 s; the logout and the write
// take a fraction of that.
TEST_F(EventsAttackTest, AStreamGetsNothingWrittenAfterItsSessionEnded) {
    start();
    Session user;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &user).status);
    EventStream all, ofUser;
    open(all);  // renders the WPS object below
    open(ofUser, "path=Device.NAT.", {}, &user);
    ASSERT_EQ(0, root.wcfgctl({"knob", "wifi.wps.delay_ms", "10000"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.AccessPoint.1.WPS.",
                               "{\"X_OlVEX_TriggerWPSPushButton\":true}"}));
    ASSERT_EQ(200, Client(port).write("POST", "UserLogout", "", user).status);
    EXPECT_EQ("Timeout",
              operStatus(Client(port).request("GET", "TR181/Value/Device.NAT.", "", &user)));
    ASSERT_EQ(0, root.wcfgctl(
                     {"set", "Device.NAT.PortMapping.1.", "{\"Description\":\"after-logout\"}"}));
    ASSERT_EQ(0, root.wcfgctl({"knob", "wifi.wps.delay_ms", "0"}));
    std::vector<Event> before;
    std::optional<Event> end =
        ofUser.waitFor([](const Event& e) { return e.name == "end"; }, 3 * kEventWait, &before);
    ASSERT_TRUE(end);
    for (const Event& e : before)
        EXPECT_EQ(std::string::npos, e.data.find("after-logout"))
            << "delivered after the logout: " << e.name << " " << e.data;
}

// The same without any slow read: the account is disabled and then a setting
// changes, both before the daemon looks (here: while it is stopped).  The
// disabled account's stream must end before the later change, not carry it.
TEST_F(EventsAttackTest, ADisabledAccountGetsNothingWrittenAfterwards) {
    start();
    Session user;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &user).status);
    EventStream ofUser;
    open(ofUser, "path=Device.WiFi.SSID.1.", {}, &user);
    d.signal(SIGSTOP);
    ASSERT_EQ(0, root.wcfgctl(
                     {"set", "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.", "{\"Enabled\":false}"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.", "{\"SSID\":\"after-disable\"}"}));
    d.signal(SIGCONT);
    std::vector<Event> before;
    std::optional<Event> end =
        ofUser.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait, &before);
    ASSERT_TRUE(end);
    EXPECT_EQ("account disabled", eventMember(*end, "reason"));
    for (const Event& e : before)
        EXPECT_EQ(std::string::npos, e.data.find("after-disable"))
            << "delivered after the account was disabled: " << e.data;
}

}  // namespace
