// Event streams as a browser's EventSource lives with them: the first block
// (reconnection time and position), resuming from the URL, the answers at a
// ceiling, the end, the start point that a value read names, and the
// hub's promises a long-lived client relies on (views, growing ids, a
// resume that costs little).  Streams are read as the WHATWG parser reads
// them (sse_parser.h).
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

const std::string kAccept = "Accept: text/event-stream";

class EventsBrowserTest : public StreamTest {
  protected:
    // The position a value read names (X-Event-Id), "" without one.
    std::string positionOf(const Reply& r) {
        const std::string name = "X-Event-Id: ";
        size_t at = r.headers.find(name);
        if (at == std::string::npos)
            return "";
        at += name.size();
        return r.headers.substr(at, r.headers.find('\r', at) - at);
    }
    void setSsid(int n, const std::string& value) {
        ASSERT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID." + std::to_string(n) + ".",
                                   "{\"SSID\":\"" + value + "\"}"}));
    }
};

std::string ssidOf(const Event& e) {
    return eventMember({"", "", eventMember(e, "Object")}, "SSID");
}

TEST_F(EventsBrowserTest, AStreamOpensWithItsReconnectionTimeAndPosition) {
    start();
    setSsid(1, "before");
    std::string position = positionOf(get("TR181/Value/Device.WiFi.SSID.1."));
    ASSERT_FALSE(position.empty());
    std::string first;
    {
        EventStream es;
        open(es, "path=Device.WiFi.SSID.1.");
        // Before any event: where the stream stands, and when to come back.
        ASSERT_TRUE(es.settle(kEventWait));
        ASSERT_TRUE(es.retryMs());
        EXPECT_GE(*es.retryMs(), 2000);
        EXPECT_LT(*es.retryMs(), 4000);
        EXPECT_EQ(position, es.lastEventId());
        first = es.lastEventId();
    }
    // The quiet stream dropped before its first event.  What was written
    // since reaches it when it comes back: one event per path, showing the
    // object as it is now, and nothing it does not watch.
    setSsid(1, "missed-1");
    setSsid(2, "elsewhere");
    setSsid(1, "missed-2");
    EventStream again;
    open(again, "path=Device.WiFi.SSID.1.", {"Last-Event-ID: " + first});
    std::optional<Event> e = again.next(kEventWait);
    ASSERT_TRUE(e);
    EXPECT_EQ("change", e->name);
    EXPECT_EQ("missed-2", ssidOf(*e));
    EXPECT_EQ(std::stoull(first) + 3, std::stoull(e->id));
    EXPECT_FALSE(again.next(300)) << "one event per path";
}

TEST_F(EventsBrowserTest, LastEventIdInTheUrlResumesAsTheHeaderDoes) {
    start();
    std::string p0 = positionOf(get("TR181/Value/Device.WiFi.SSID.1."));
    setSsid(1, "one");
    std::string p1 = positionOf(get("TR181/Value/Device.WiFi.SSID.1."));
    setSsid(1, "two");
    {
        EventStream es;
        open(es, "path=Device.WiFi.SSID.1.&lastEventId=" + p0);
        std::optional<Event> e = es.next(kEventWait);
        ASSERT_TRUE(e);
        EXPECT_EQ("two", ssidOf(*e));
    }
    // A browser that comes back sends both: the header (the newest id it
    // saw) wins over the URL it was made with.
    setSsid(1, "three");
    EventStream es;
    std::string p2 = positionOf(get("TR181/Value/Device.WiFi.SSID.1."));
    open(es, "path=Device.WiFi.SSID.1.&lastEventId=" + p1, {"Last-Event-ID: " + p2});
    ASSERT_TRUE(es.settle(kEventWait));
    EXPECT_EQ(p2, es.lastEventId());
    EXPECT_FALSE(es.next(300)) << "nothing after the header's position";
}

// A read names the last change it shows; a stream opened from there misses
// nothing written after the read and shows nothing older than it, while
// another process writes all along.
TEST_F(EventsBrowserTest, AValueReadNamesWhereAStreamStartsWithoutGapOrRepeat) {
    start();
    std::atomic<bool> stop{false};
    std::atomic<int> written{0};
    std::thread writer([&] {
        for (int i = 1; !stop && i < 400; ++i) {
            EXPECT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.",
                                       "{\"SSID\":\"v" + std::to_string(i) + "\"}"}));
            written = i;
        }
        written = 1000;
    });
    struct Join {
        std::atomic<bool>& stop;
        std::thread& t;
        ~Join() {
            stop = true;
            t.join();
        }
    } join{stop, writer};
    for (int round = 0; round < 5; ++round) {
        while (written < 10 * (round + 1))
            sleepMs(5);
        Reply r = get("TR181/Value/Device.WiFi.SSID.1.");
        std::string position = positionOf(r);
        ASSERT_FALSE(position.empty()) << r.headers;
        int seen = std::stoi(
            eventMember({"", "", eventMember({"", "", r.body}, "Object")}, "SSID").substr(1));
        EventStream es;
        open(es, "path=Device.WiFi.SSID.1.&lastEventId=" + position);
        for (int i = 0; i < 5; ++i) {
            std::optional<Event> e = es.next(kEventWait);
            ASSERT_TRUE(e);
            ASSERT_EQ("change", e->name);
            int shown = std::stoi(ssidOf(*e).substr(1));
            EXPECT_GE(shown, seen) << "older than the read after it";
            EXPECT_GT(std::stoull(e->id), std::stoull(position));
            seen = shown;
        }
    }
    stop = true;
    while (written < 1000)
        sleepMs(5);
    // The last write reaches a stream opened from a read before it.
    std::string position = positionOf(get("TR181/Value/Device.WiFi.SSID.1."));
    setSsid(1, "last");
    EventStream es;
    open(es, "path=Device.WiFi.SSID.1.&lastEventId=" + position);
    std::optional<Event> e =
        es.waitFor([](const Event& x) { return ssidOf(x) == "last"; }, kEventWait);
    EXPECT_TRUE(e);
}

// A change made as soon as the stream's head has come reaches it, however
// late the hub gets to the new stream (here: the daemon is stopped before
// it can, and the change is made meanwhile by another process).
TEST_F(EventsBrowserTest, AChangeRightAfterTheOpeningReachesTheStream) {
    start();
    for (int i = 0; i < 10; ++i) {
        EventStream es;
        open(es, "path=Device.WiFi.SSID.1.");
        d.signal(SIGSTOP);
        setSsid(1, "right-after-" + std::to_string(i));
        d.signal(SIGCONT);
        std::optional<Event> e = es.next(kEventWait);
        ASSERT_TRUE(e) << i;
        EXPECT_EQ("right-after-" + std::to_string(i), ssidOf(*e));
    }
}

// At the ceilings a client of event streams gets a stream that says when to
// come back, and why, and ends; any other client a 503 with Retry-After.
TEST_F(EventsBrowserTest, AtItsCeilingsABrowserIsToldWhenToComeBack) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_total=2,events_per_session=1");
    start();
    Session other;
    ASSERT_EQ(200, Client(port).login("user", "user1234", &other).status);
    EventStream mine, theirs;
    open(mine);
    // The session's own ceiling.
    EventStream again;
    open(again, "", {kAccept});
    std::optional<Event> busy = again.next(kEventWait);
    ASSERT_TRUE(busy);
    EXPECT_EQ("busy", busy->name);
    EXPECT_EQ("too many streams of this session", eventMember(*busy, "reason"));
    ASSERT_TRUE(again.retryMs());
    EXPECT_GE(*again.retryMs(), 10000);
    EXPECT_LT(*again.retryMs(), 20000);
    EXPECT_TRUE(again.closedWithin(kEventWait));
    EXPECT_EQ("", again.lastEventId()) << "a busy answer moves no position";
    // A client that is not a browser gets 503 with Retry-After instead.
    EventStream plainMine;
    ASSERT_TRUE(plainMine.open(port, s));
    EXPECT_EQ(503, plainMine.status());
    EXPECT_NE(std::string::npos, plainMine.head().find("Retry-After:"));
    // The ceiling of all streams.
    open(theirs, "", {}, &other);
    // Nothing else is disturbed: reads, writes and the open streams go on.
    EXPECT_EQ(200, get("TR181/Value/Device.DeviceInfo.").status);
    ASSERT_EQ(200, write("PUT", "TR181/Value/Device.WiFi.SSID.1.", "{\"SSID\":\"cap\"}").status);
    for (EventStream* es : {&mine, &theirs})
        EXPECT_TRUE(es->waitFor([](const Event& e) { return ssidOf(e) == "cap"; }, kEventWait));
    Session third;
    ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &third).status);
    EventStream full;
    open(full, "", {kAccept, "Last-Event-ID: 1"}, &third);
    busy = full.next(kEventWait);
    ASSERT_TRUE(busy);
    EXPECT_EQ("too many streams", eventMember(*busy, "reason"));
    EXPECT_GE(*full.retryMs(), 5000);
    EXPECT_LT(*full.retryMs(), 10000);
    EXPECT_TRUE(full.closedWithin(kEventWait));
    // Not a browser: 503 with the same back-off in seconds.
    EventStream plain;
    ASSERT_TRUE(plain.open(port, third));
    EXPECT_EQ(503, plain.status());
    size_t at = plain.head().find("Retry-After: ");
    ASSERT_NE(std::string::npos, at) << plain.head();
    int seconds = std::stoi(plain.head().substr(at + 13));
    EXPECT_GE(seconds, 5);
    EXPECT_LE(seconds, 10);
    EXPECT_NE(std::string::npos, plain.body().find("Too many event streams"));
    // A place comes free: the browser's next try gets its stream.
    theirs.close();
    std::optional<long> status;
    for (int i = 0; i < 100 && status != 200; ++i) {
        EventStream retry;
        ASSERT_TRUE(retry.open(port, third, "", {kAccept}));
        status = retry.status();
        // A stream's first block names its position; a busy answer's does not.
        if (retry.status() == 200 && (!retry.settle(kEventWait) || retry.lastEventId().empty()))
            status = 0;
        if (status != 200)
            sleepMs(50);
    }
    EXPECT_EQ(200, status);
}

// Stream A is told a view reads x and goes; the view becomes y; stream B
// opens (its client reads y); the view goes back to x: B must be told.
TEST_F(EventsBrowserTest, AComputedViewIsNewsToEachStreamOnItsOwn) {
    start();
    const std::string path = "Device.X_OLVEX_ParentalControl.Profile.1.Schedule.1.";
    auto name = [&](const std::string& v) {
        ASSERT_EQ("Success",
                  operStatus(write("PUT", "TR181/Value/" + path, "{\"Name\":\"" + v + "\"}")));
    };
    auto shows = [](const std::string& v) {
        return [v](const Event& e) { return e.data.find("\"" + v + "\"") != std::string::npos; };
    };
    {
        EventStream a;
        open(a, "path=" + path);
        name("view-x");
        ASSERT_TRUE(a.waitFor(shows("view-x"), kEventWait));
    }
    name("view-y");
    EventStream b;
    open(b, "path=" + path);
    ASSERT_TRUE(b.settle(kEventWait));
    name("view-x");
    EXPECT_TRUE(b.waitFor(shows("view-x"), kEventWait)) << "the view went back to x unannounced";
}

// The hub falls behind the journal (stopped) while another process writes
// more than the journal keeps: the next event is the very next change or a
// resync, never a silent gap; and no id after it is older.
TEST_F(EventsBrowserTest, IdsOnlyGrowOnAStreamThatLostEvents) {
    start();
    EventStream es;
    open(es, "path=Device.WiFi.");
    setSsid(1, "first");
    std::optional<Event> first = es.next(kEventWait);
    ASSERT_TRUE(first);
    JournalKeep keep("8");
    d.signal(SIGSTOP);
    for (int i = 0; i < 12; ++i)
        setSsid(1 + i % 2, "lag" + std::to_string(i));
    d.signal(SIGCONT);
    setSsid(1, "after");
    std::vector<Event> seen;
    std::optional<Event> after =
        es.waitFor([](const Event& e) { return ssidOf(e) == "after"; }, kEventWait, &seen);
    ASSERT_TRUE(after);
    seen.push_back(*after);
    if (seen[0].name != "resync") {
        EXPECT_EQ(std::stoull(first->id) + 1, std::stoull(seen[0].id)) << "lost without a resync";
    }
    bool resync = false;
    unsigned long long last = 0;
    for (const Event& e : seen) {
        resync = resync || e.name == "resync";
        EXPECT_GT(std::stoull(e.id), last) << e.name << " " << e.data;
        last = std::stoull(e.id);
    }
    EXPECT_TRUE(resync);
}

// More paths to catch up with than a stream's queue holds: a resync at once
// rather than rendering them all.
TEST_F(EventsBrowserTest, AResumeTooLargeForTheQueueIsOneResync) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_queue=4");
    start();
    std::string position = positionOf(get("TR181/Value/Device.NAT."));
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(200, write("POST", "TR181/Value/Device.NAT.PortMapping.",
                             "{\"ExternalPort\":" + std::to_string(2000 + i) + "}")
                           .status);
    EventStream es;
    open(es, "path=Device.NAT.&lastEventId=" + position);
    std::optional<Event> e = es.next(kEventWait);
    ASSERT_TRUE(e);
    EXPECT_EQ("resync", e->name);
    EXPECT_EQ("overflow", eventMember(*e, "reason"));
    EXPECT_FALSE(es.next(300));
}

}  // namespace
