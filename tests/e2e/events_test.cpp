// Event streams end to end: every kind of event from every writer, the
// paths a stream watches, what a session may see, resumption, the end of a
// session, the ceilings and a client that does not read.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

class EventsTest : public StreamTest {
  protected:
    // The next event of `name` for `path`, skipping any other.
    static Event expect(EventStream& es, const std::string& name, const std::string& path) {
        std::optional<Event> e = es.waitFor(
            [&](const Event& x) { return x.name == name && eventMember(x, "path") == path; },
            kEventWait);
        EXPECT_TRUE(e) << "no " << name << " of " << path;
        return e ? *e : Event{};
    }
};

TEST_F(EventsTest, AnswerHeadMethodListAndRefusals) {
    start();
    EventStream es;
    open(es);
    EXPECT_NE(std::string::npos, es.head().find("Content-Type: text/event-stream"));
    EXPECT_NE(std::string::npos, es.head().find("Cache-Control: no-cache"));
    // Nothing but GET; a write method needs no key to be refused as such.
    for (const char* method : {"POST", "PUT", "DELETE"}) {
        Reply r = Client(port).request(method, "Events", "", &s);
        EXPECT_EQ("Invalid method", operStatus(r)) << method;
    }
    // No session: the same refusal as every URI.
    EventStream anonymous;
    ASSERT_TRUE(anonymous.open(port, Session{}));
    EXPECT_EQ(401, anonymous.status());
    Session forgedSession{"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA", 1};
    EventStream forged;
    ASSERT_TRUE(forged.open(port, forgedSession));
    Reply asAnyUri = Client(port).request("GET", "MethodList", "", &forgedSession);
    EXPECT_EQ(asAnyUri.status, forged.status());
    EXPECT_EQ(asAnyUri.body, forged.body());
    // Paths that are no object of the API are refused before a stream opens:
    // one cut at a NUL would watch "Device.WiFi.", one with a leading zero
    // would watch nothing that a GET of it reads.
    for (const char* bad : {"Device", "Device.Foo.", "Device.WiFi", "Device..", "X.WiFi.",
                            "Device.WiFi.%0A", "Device.%C3%A9.", "Device.NAT.PortMapping.1",
                            "Device.WiFi.%00Device.Hosts.", "Device.WiFi.SSID.01."}) {
        EventStream refused;
        ASSERT_TRUE(refused.open(port, s, std::string("path=") + bad));
        EXPECT_EQ(400, refused.status()) << bad;
        EXPECT_NE(std::string::npos, refused.body().find("Invalid object")) << bad;
    }
}

TEST_F(EventsTest, RestWritesGiveChangeAddAndDeleteInOrder) {
    start();
    EventStream es;
    open(es);
    ASSERT_EQ(200,
              write("PUT", "TR181/Value/Device.WiFi.SSID.1.", "{\"SSID\":\"home-net\"}").status);
    Event change = expect(es, "change", "Device.WiFi.SSID.1.");
    EXPECT_EQ("home-net", eventMember({"", "", eventMember(change, "Object")}, "SSID"));
    // The same value again changes nothing and sends nothing.
    ASSERT_EQ(200,
              write("PUT", "TR181/Value/Device.WiFi.SSID.1.", "{\"SSID\":\"home-net\"}").status);
    Reply added = write("POST", "TR181/Value/Device.NAT.PortMapping.",
                        "{\"ExternalPort\":2222,\"InternalPort\":22}");
    ASSERT_EQ(200, added.status);
    std::optional<Event> add = es.next(kEventWait);
    ASSERT_TRUE(add);
    ASSERT_EQ("add", add->name) << add->data;
    std::string row = eventMember(*add, "path");
    EXPECT_EQ(0u, row.rfind("Device.NAT.PortMapping.", 0));
    // Ids grow by one per change of the device.
    EXPECT_EQ(std::stoull(change.id) + 1, std::stoull(add->id));
    // A POST adds the row, then writes its values: the values' change
    // follows, and the object an event carries is the row as it is now.
    std::optional<Event> values = es.next(kEventWait);
    ASSERT_TRUE(values);
    EXPECT_EQ("change", values->name);
    EXPECT_EQ(row, eventMember(*values, "path"));
    EXPECT_NE(std::string::npos, values->data.find("\"ExternalPort\":2222")) << values->data;
    ASSERT_EQ(200, write("DELETE", "TR181/Value/" + row, "").status);
    std::optional<Event> del = es.next(kEventWait);
    ASSERT_TRUE(del);
    EXPECT_EQ("delete", del->name);
    EXPECT_EQ("{\"path\":\"" + row + "\"}", del->data);
    EXPECT_EQ(std::stoull(values->id) + 1, std::stoull(del->id));
}

TEST_F(EventsTest, BatchGivesOneEventPerChangedObject) {
    start();
    EventStream es;
    open(es);
    std::string batch = R"({"MultiObjects":true,"TR181_Objects":[
        {"object_path":"Device.WiFi.SSID.1.","SSID":"batch-one"},
        {"object_path":"Device.WiFi.SSID.2.","SSID":"batch-two"},
        {"object_path":"Device.WiFi.SSID.1.","SSID":"batch-one"}]})";
    ASSERT_EQ(200, write("PUT", "TR181/Value/MultiObjects", batch).status);
    std::optional<Event> first = es.next(kEventWait), second = es.next(kEventWait);
    ASSERT_TRUE(first && second);
    EXPECT_EQ("Device.WiFi.SSID.1.", eventMember(*first, "path"));
    EXPECT_EQ("Device.WiFi.SSID.2.", eventMember(*second, "path"));
    // The third element changed nothing, and the batch's apply neither.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.DeviceInfo.", "{\"ProvisioningCode\":\"x1\"}"}));
    std::optional<Event> next = es.next(kEventWait);
    ASSERT_TRUE(next);
    EXPECT_EQ("Device.DeviceInfo.", eventMember(*next, "path")) << next->data;
}

TEST_F(EventsTest, AnotherProcessAndPathFilters) {
    start();
    EventStream all, nat, two;
    open(all);
    open(nat, "path=Device.NAT.");
    open(two, "path=Device.WiFi.SSID.2.&path=Device.NAT.PortMapping.");
    // wcfgctl writes the same store from a process of its own.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.2.", "{\"SSID\":\"from-cli\"}"}));
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.NAT.PortMapping.", "{\"ExternalPort\":8080}"}));
    Event e1 = expect(all, "change", "Device.WiFi.SSID.2.");
    EXPECT_NE(std::string::npos, e1.data.find("from-cli"));
    std::optional<Event> a = all.next(kEventWait);
    ASSERT_TRUE(a);
    EXPECT_EQ("add", a->name);
    std::optional<Event> n = nat.next(kEventWait);
    ASSERT_TRUE(n);
    EXPECT_EQ(a->id, n->id) << "the NAT stream sees only the NAT change";
    std::optional<Event> t1 = two.next(kEventWait), t2 = two.next(kEventWait);
    ASSERT_TRUE(t1 && t2);
    EXPECT_EQ(e1.id, t1->id);
    EXPECT_EQ(a->id, t2->id);
}

TEST_F(EventsTest, AccountEventsCarryNoSecretAndUserSessionsReadAsAUser) {
    start();
    Session user;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &user).status);
    EventStream admin, asUser;
    open(admin, "path=Device.X_OLVEX_LoginCfg.");
    open(asUser, "", {}, &user);
    // A password change of another account: its event, never its secret.
    ASSERT_EQ(0, root.wcfgctl({"passwd", "supervisor", "N3wSecret!pw"}));
    std::optional<Event> e = admin.next(kEventWait);
    ASSERT_TRUE(e);
    EXPECT_EQ("change", e->name);
    std::optional<Event> u = asUser.next(kEventWait);
    ASSERT_TRUE(u);
    EXPECT_EQ(e->id, u->id);
    for (const Event* x : {&*e, &*u}) {
        EXPECT_EQ(std::string::npos, x->data.find("shadow")) << x->data;
        EXPECT_EQ(std::string::npos, x->data.find("$6$")) << x->data;
        EXPECT_EQ(std::string::npos, x->data.find("N3wSecret")) << x->data;
        EXPECT_EQ(std::string::npos, x->data.find("\"Password\"")) << x->data;
    }
    // What the event shows is what a GET of the path shows the same session.
    std::string path = eventMember(*u, "path");
    Reply read = Client(port).request("GET", "TR181/Value/" + path, "", &user);
    std::string object = eventMember({"", "", read.body}, "Object");
    EXPECT_EQ(object, eventMember(*u, "Object"));
}

TEST_F(EventsTest, AResumptionNoLongerKeptIsAResync) {
    // Every writer keeps 8 entries: the daemon and the wcfgctl runs alike.
    JournalKeep keep("8");
    start();
    std::string last;
    {
        EventStream es;
        open(es);
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.", "{\"SSID\":\"r0\"}"}));
        std::optional<Event> e = es.next(kEventWait);
        ASSERT_TRUE(e);
        last = e->id;
    }
    // More changes than are kept: a resync instead, then the stream goes on.
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.",
                                   "{\"SSID\":\"n" + std::to_string(i) + "\"}"}));
    for (const std::string& id : {last, std::string("99999999"), std::string("x1")}) {
        EventStream es;
        open(es, "", {"Last-Event-ID: " + id});
        std::optional<Event> r = es.next(kEventWait);
        ASSERT_TRUE(r) << id;
        EXPECT_EQ("resync", r->name) << id;
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.2.", "{\"SSID\":\"" + id + "\"}"}));
        std::optional<Event> after = es.next(kEventWait);
        ASSERT_TRUE(after) << id;
        EXPECT_EQ(std::stoull(r->id) + 1, std::stoull(after->id)) << id;
    }
}

TEST_F(EventsTest, SessionEndsEndTheStream) {
    start();
    Session user, other;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &user).status);
    EventStream byLogout, ofUser;
    open(byLogout);
    open(ofUser, "", {}, &user);
    ASSERT_EQ(200, write("POST", "UserLogout", "").status);
    std::optional<Event> end =
        byLogout.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
    ASSERT_TRUE(end);
    EXPECT_EQ("logout", eventMember(*end, "reason"));
    EXPECT_TRUE(byLogout.closedWithin(kEventWait));
    // A browser that comes back anyway is answered as every request of an
    // ended session is, which an EventSource takes as final.
    EventStream back;
    ASSERT_TRUE(back.open(
        port, s, "", {"Accept: text/event-stream", "Last-Event-ID: " + byLogout.lastEventId()}));
    Reply any = get("MethodList");
    EXPECT_NE(200, back.status());
    EXPECT_EQ(any.status, back.status());
    // Failed logins that lock the user end its streams, as its next request
    // would be refused.
    for (int i = 0; i < 3; ++i)
        Client(port).login("user", "wrong", nullptr);
    end = ofUser.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
    ASSERT_TRUE(end);
    EXPECT_EQ("account locked", eventMember(*end, "reason"));
    EXPECT_TRUE(ofUser.closedWithin(kEventWait));
}

TEST_F(EventsTest, APasswordChangeEndsItsStreams) {
    start();
    Session user;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &user).status);
    EventStream admin, ofUser;
    open(admin);
    open(ofUser, "", {}, &user);
    ASSERT_EQ(0, root.wcfgctl({"passwd", "user", "An0ther!pw1"}));
    std::optional<Event> end =
        ofUser.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
    ASSERT_TRUE(end);
    EXPECT_EQ("password changed", eventMember(*end, "reason"));
    Session again;
    ASSERT_EQ(200, Client(port).login("user", "An0ther!pw1", &again).status);
    // The admin's stream saw the change and goes on.
    expect(admin, "change", "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.");
    EXPECT_FALSE(admin.closedWithin(200));
}

TEST_F(EventsTest, AStreamDoesNotKeepItsSessionAliveAndEndsAtTimeOut) {
    Uptime clock(root);
    ASSERT_EQ(0, setMaxLoginAccounts(root, 0));
    port = startDaemon(d, root, &clock);
    ASSERT_NE(0, port);
    ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &s).status);
    EventStream es;
    open(es);
    // Events flow, and keep-alives too, but the session's idle time runs on.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.", "{\"SSID\":\"t1\"}"}));
    ASSERT_TRUE(es.next(kEventWait));
    clock.advance(301);
    std::optional<Event> end =
        es.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
    ASSERT_TRUE(end);
    EXPECT_EQ("timeout", eventMember(*end, "reason"));
    EXPECT_TRUE(es.closedWithin(kEventWait));
    EXPECT_EQ("Timeout", operStatus(get("TR181/Value/Device.DeviceInfo.")));
}

TEST_F(EventsTest, KeepAlivesWhileNothingHappens) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_keepalive_ms=100");
    start();
    EventStream es;
    open(es);
    for (int i = 0; i < 3; ++i) {
        std::optional<Event> k = es.next(kEventWait, true);
        ASSERT_TRUE(k);
        EXPECT_TRUE(k->keepAlive);
    }
}

// The platform's own services: nobody reads the hosts, yet a host that
// joins or leaves is announced.
TEST_F(EventsTest, HostsJoiningAndLeavingWithoutAnyRead) {
    start();
    EventStream es;
    open(es, "path=Device.Hosts.");
    std::string leases = root.read("/var/dnsmasq/dnsmasq.leases");
    std::ofstream(root.path("/var/dnsmasq/dnsmasq.leases"))
        << leases << "0 86400 02:cc:00:00:00:99 192.168.1.99 new-laptop *\n";
    std::vector<Event> before;
    std::optional<Event> joined = es.waitFor(
        [](const Event& e) {
            return e.name == "add" && e.data.find("02:CC:00:00:00:99") != std::string::npos;
        },
        kEventWait, &before);
    ASSERT_TRUE(joined) << (before.empty() ? "no event" : before[0].name + " " + before[0].data);
    std::string host = eventMember(*joined, "path");
    EXPECT_EQ(0u, host.rfind("Device.Hosts.Host.", 0)) << host;
    EXPECT_NE(std::string::npos, joined->data.find("new-laptop"));
    std::ofstream(root.path("/var/dnsmasq/dnsmasq.leases")) << leases;
    Event left = expect(es, "change", host);
    EXPECT_NE(std::string::npos, left.data.find("\"Active\":false")) << left.data;
}

TEST_F(EventsTest, WpsSessionStatusFromStartToOutcome) {
    start();
    knob("wifi.wps.walk_seconds", "30");
    knob("wifi.wps.outcome", "success");
    EventStream es;
    open(es, "path=Device.WiFi.AccessPoint.1.WPS.");
    Reply pressed = write("PUT", "TR181/Value/Device.WiFi.AccessPoint.1.WPS.",
                          R"({"X_OlVEX_TriggerWPSPushButton":true})");
    ASSERT_EQ("Success", operStatus(pressed));
    std::optional<Event> done = es.waitFor(
        [](const Event& e) { return e.data.find("NoError, WPS ok!") != std::string::npos; },
        kEventWait);
    ASSERT_TRUE(done);
    EXPECT_EQ("Device.WiFi.AccessPoint.1.WPS.", eventMember(*done, "path"));
}

TEST_F(EventsTest, FirmwareCheckStatus) {
    Cloud cloud;
    ASSERT_TRUE(cloud.start(root)) << cloud.err();
    start();
    EventStream es;
    open(es, "path=Device.X_OLVEX_PeriodicOnlineFWUpgrade.");
    ASSERT_EQ("WCFG_SUCCESS", operStatus(get("FOTA")));
    std::optional<Event> e = es.waitFor(
        [](const Event& x) {
            return x.data.find("\"LastFWUpdateStatus\":15") != std::string::npos;
        },
        kEventWait);
    ASSERT_TRUE(e);
    EXPECT_NE(std::string::npos, e->data.find("\"NewFWAvailable\":true")) << e->data;
}

// A batch of `n` writes that each change the device's information: n events
// of about a kilobyte and a half each.
std::string provisioningBatch(int n, const std::string& tag) {
    std::string body = R"({"MultiObjects":true,"TR181_Objects":[)";
    for (int i = 0; i < n; ++i)
        body += std::string(i ? "," : "") +
                R"({"object_path":"Device.DeviceInfo.","ProvisioningCode":")" + tag +
                std::to_string(i) + "\"}";
    return body + "]}";
}

// Reads `es` until `n` events of the device's information have come; their
// ids in order, and whether a resync came among them.  Run beside the
// writes, on a thread of its own.
std::vector<unsigned long long> readChanges(EventStream& es, size_t n, bool* resync) {
    std::vector<unsigned long long> ids;
    while (ids.size() < n) {
        std::optional<Event> e = es.next(kEventWait);
        if (!e)
            break;
        if (e->name == "resync")
            *resync = true;
        else if (eventMember(*e, "path") == "Device.DeviceInfo.")
            ids.push_back(std::stoull(e->id));
    }
    return ids;
}

// A client that stops reading loses its queue for one resync; the writer and
// another stream go on as if it were not there.
TEST_F(EventsTest, ASlowReaderGetsAResyncAndTheOthersEverything) {
    start();
    EventStream slow, steady;
    ASSERT_TRUE(slow.open(port, s, "path=Device.DeviceInfo.", {}, 4096));
    ASSERT_EQ(200, slow.status());
    open(steady, "path=Device.DeviceInfo.");
    const int kBatches = 5, kPerBatch = 200;
    bool steadyResync = false;
    std::vector<unsigned long long> all;
    std::thread reader([&] { all = readChanges(steady, kBatches * kPerBatch, &steadyResync); });
    for (int b = 0; b < kBatches; ++b)
        EXPECT_EQ(200, write("PUT", "TR181/Value/MultiObjects",
                             provisioningBatch(kPerBatch, "s" + std::to_string(b)))
                           .status);
    reader.join();
    ASSERT_EQ(static_cast<size_t>(kBatches * kPerBatch), all.size());
    EXPECT_FALSE(steadyResync);
    for (size_t i = 1; i < all.size(); ++i)
        ASSERT_EQ(all[i - 1] + 1, all[i]);
    // The slow one now reads: what it kept, one resync, and on.
    std::vector<Event> before;
    std::optional<Event> resync =
        slow.waitFor([](const Event& e) { return e.name == "resync"; }, kEventWait, &before);
    ASSERT_TRUE(resync) << before.size() << " events, the last "
                        << (before.empty() ? 0 : before.back().data.size()) << " bytes";
    EXPECT_EQ("overflow", eventMember(*resync, "reason"));
    EXPECT_LT(before.size(), all.size());
    ASSERT_EQ(
        200,
        write("PUT", "TR181/Value/Device.DeviceInfo.", R"({"ProvisioningCode":"after"})").status);
    std::optional<Event> after = slow.waitFor(
        [](const Event& e) { return e.data.find("\"after\"") != std::string::npos; }, kEventWait);
    EXPECT_TRUE(after);
}

TEST_F(EventsTest, AClientThatNeverReadsIsClosedAtTheWriteDeadline) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "write_ms=1500");
    start();
    EventStream never, steady;
    ASSERT_TRUE(never.open(port, s, "path=Device.DeviceInfo.", {}, 4096));
    ASSERT_EQ(200, never.status());
    open(steady, "path=Device.DeviceInfo.");
    bool resync = false;
    size_t got = 0;
    std::thread reader([&] { got = readChanges(steady, 1000, &resync).size(); });
    for (int b = 0; b < 5; ++b)
        EXPECT_EQ(200, write("PUT", "TR181/Value/MultiObjects",
                             provisioningBatch(200, "n" + std::to_string(b)))
                           .status);
    reader.join();
    EXPECT_EQ(1000u, got);
    EXPECT_FALSE(resync);
    EXPECT_TRUE(never.conn().peerGoneWithin(kEventWait));
    // The place it held is free again, and the session goes on.
    EXPECT_EQ(200, get("TR181/Value/Device.DeviceInfo.").status);
}

TEST_F(EventsTest, DaemonStopEndsTheStream) {
    start();
    EventStream es;
    open(es);
    std::thread stopper([&] { EXPECT_EQ(0, d.stop()); });
    std::optional<Event> end =
        es.waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
    stopper.join();
    port = 0;
    ASSERT_TRUE(end);
    EXPECT_EQ("shutdown", eventMember(*end, "reason"));
}

}  // namespace
