// The event hub on the in-memory device: it follows the device's change
// journal and hands each change to the streams that watch it, as their
// session reads it; a resuming stream gets what it missed once per path; a
// stream whose session ends is told why and closed.  Streams are the HTTP
// adapter's queues without a connection, read as a browser would.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/json_util.h"
#include "auth/session_events.h"
#include "datamodel/obj_by_path.h"
#include "datamodel/schema.h"
#include "e2e/sse_parser.h"
#include "events/event_hub.h"
#include "extobj/whttpd_extobj.h"
#include "fakes/memory_device.h"
#include "http/http_stream.h"
#include "unit/test_root.h"

namespace {

// The sessions as the hub sees them: alive (no entry) or ended with a reason.
std::mutex gJudgeMutex;
std::map<std::string, std::string> gEnded;
const char* judge(const WHttpSessionRef& ref, int* group) {
    std::lock_guard<std::mutex> lock(gJudgeMutex);
    if (group)
        *group = ref.group;
    auto it = gEnded.find(ref.sessionID);
    return it == gEnded.end() ? nullptr : it->second.c_str();
}

// One client's stream: its place with the hub and what it has read so far.
struct Client {
    std::shared_ptr<WHttpEventStream> s = std::make_shared<WHttpEventStream>();
    // The client goes away: its connection closes, and the hub lets go.
    ~Client() {
        if (s->out) {
            s->out->markClosed();
            wHttpEventsClosed();
        }
    }
    e2e::SseParser parser;
    std::vector<e2e::SseItem> events;

    // Reads what waits; true once an event of `type` for `path` arrived.
    bool has(const std::string& type, const std::string& path) {
        std::deque<std::string> pieces;
        size_t n = s->out->takeInto(pieces, 1 << 20);
        s->out->written(n);
        for (const std::string& p : pieces)
            parser.feed(p);
        for (e2e::SseItem& item : parser.take())
            if (!item.comment)
                events.push_back(item);
        for (const e2e::SseItem& e : events)
            if (e.type == type && e.data.find(path) != std::string::npos)
                return true;
        return false;
    }
    // Waits for what the stream shows, never for a fixed time.
    bool waitFor(const std::string& type, const std::string& path) {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!has(type, path)) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }
    int count(const std::string& type, const std::string& path) const {
        int n = 0;
        for (const e2e::SseItem& e : events)
            n += e.type == type && e.data.find(path) != std::string::npos;
        return n;
    }
};

class EventHub : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(unitTestSchema());
        dev_ = new fake::MemoryDevice;
        dev_->put("Device.WiFi.SSID.1.", R"({"Enable": true, "SSID": "home"})");
        dev_->put("Device.WiFi.SSID.2.", R"({"Enable": true, "SSID": "guest"})");
        wHttpEventsSetSessionJudge(judge);
        wHttpEventsStart(WHttpEventLimits{});
    }
    static void TearDownTestSuite() {
        wHttpEventsStop();
        wHttpEventsSetSessionJudge(nullptr);
        delete dev_;
        dev_ = nullptr;
    }
    // Opens a stream of session `id` that watches `paths`, from now or
    // resuming after `after`.
    std::unique_ptr<Client> open(const std::string& id, std::vector<std::string> paths,
                                 std::optional<uint64_t> after = std::nullopt, int group = 1) {
        std::unique_ptr<Client> c = reserve(id, std::move(paths), after, group);
        wHttpEventsOpened(c->s);
        return c;
    }
    // A stream that has its place with the hub, before its head goes out.
    std::unique_ptr<Client> reserve(const std::string& id, std::vector<std::string> paths,
                                    std::optional<uint64_t> after = std::nullopt, int group = 1) {
        auto c = std::make_unique<Client>();
        c->s->owner.user = "admin";
        c->s->owner.sessionID = id;
        c->s->owner.remote = "192.0.2.1";
        c->s->owner.group = group;
        c->s->paths = std::move(paths);
        c->s->resumeAfter = after;
        c->s->openedAt = dev_->position();
        c->s->out =
            std::make_shared<CgHttpStream>(ioc_.get_executor(), std::weak_ptr<HttpSession>(),
                                           CgHttpStreamLimits{}, false, nullptr, pool_);
        EXPECT_EQ(WHttpEventAdmit::Yes, wHttpEventsReserve(c->s));
        return c;
    }
    static void setSsid(const char* path, const char* ssid) {
        JsonPtr body(json_object_new_object());
        json_object_object_add(body.get(), "SSID", json_object_new_string(ssid));
        ASSERT_EQ(0, wHttpSetTR181ObjByPath(path, body.get(), 1));
    }

    static fake::MemoryDevice* dev_;
    // Never run (the streams have no connection), and never destroyed: the
    // hub's thread may still kick a stream of a test that has ended.
    static boost::asio::io_context& ioc_;
    std::shared_ptr<CgHttpStreamPool> pool_ = std::make_shared<CgHttpStreamPool>(1 << 20);
};
fake::MemoryDevice* EventHub::dev_ = nullptr;
boost::asio::io_context& EventHub::ioc_ = *new boost::asio::io_context;

}  // namespace

// A change reaches the streams that watch its path, as the session's read
// shows it, with the journal's number as its id; the others never see it.
TEST_F(EventHub, AChangeReachesOnlyTheStreamsThatWatchIt) {
    auto one = open("s-one", {"Device.WiFi.SSID.1."});
    auto two = open("s-two", {"Device.WiFi.SSID.2."});
    auto all = open("s-all", {});
    setSsid("Device.WiFi.SSID.1.", "garden");
    uint64_t first = dev_->position();
    setSsid("Device.WiFi.SSID.2.", "visitors");
    ASSERT_TRUE(one->waitFor("change", "Device.WiFi.SSID.1."));
    EXPECT_NE(std::string::npos, one->events[0].data.find(R"("SSID":"garden")"));
    EXPECT_EQ(std::to_string(first), one->events[0].lastEventId);
    // The hub hands entries out in journal order: once the second change has
    // reached the stream of SSID.2, the first one had its turn there too.
    ASSERT_TRUE(two->waitFor("change", "Device.WiFi.SSID.2."));
    EXPECT_EQ(0, two->count("change", "Device.WiFi.SSID.1."));
    ASSERT_TRUE(all->waitFor("change", "Device.WiFi.SSID.2."));
    EXPECT_EQ(1, all->count("change", "Device.WiFi.SSID.1."));
    EXPECT_EQ(0, one->count("change", "Device.WiFi.SSID.2."));
}

// A stream that resumes gets what it missed once per path, at the latest
// value, ids growing; what it already had is not repeated.
TEST_F(EventHub, AResumingStreamGetsWhatItMissedOncePerPath) {
    // Once a stream that watches everything has the last change, the hub has
    // read them all: they are the resuming stream's backlog, not live events.
    auto witness = open("s-witness", {});
    uint64_t from = dev_->position();
    setSsid("Device.WiFi.SSID.1.", "a");
    setSsid("Device.WiFi.SSID.1.", "b");
    setSsid("Device.WiFi.SSID.2.", "c");
    setSsid("Device.WiFi.SSID.1.", "d");
    ASSERT_TRUE(witness->waitFor("change", R"("SSID":"d")"));
    auto back = open("s-back", {"Device.WiFi.SSID."}, from);
    ASSERT_TRUE(back->waitFor("change", "Device.WiFi.SSID.1."));
    ASSERT_TRUE(back->waitFor("change", "Device.WiFi.SSID.2."));
    EXPECT_EQ(1, back->count("change", "Device.WiFi.SSID.1."));
    EXPECT_EQ(1, back->count("change", "Device.WiFi.SSID.2."));
    uint64_t last = 0;
    for (const e2e::SseItem& e : back->events) {
        uint64_t id = std::stoull(e.lastEventId);
        EXPECT_GT(id, last) << e.data;
        last = id;
        if (e.data.find("SSID.1.") != std::string::npos) {
            EXPECT_NE(std::string::npos, e.data.find(R"("SSID":"d")")) << e.data;
        }
    }
}

// The session of a stream ends elsewhere: the stream is told why and ends;
// the streams of other sessions go on.
TEST_F(EventHub, AStreamWhoseSessionEndsIsToldWhyAndEnds) {
    auto leaving = open("s-leaving", {"Device.WiFi.SSID.1."});
    auto staying = open("s-staying", {"Device.WiFi.SSID.1."});
    {
        std::lock_guard<std::mutex> lock(gJudgeMutex);
        gEnded["s-leaving"] = "logout";
    }
    setSsid("Device.WiFi.SSID.1.", "after");
    ASSERT_TRUE(leaving->waitFor("end", "logout"));
    ASSERT_TRUE(staying->waitFor("change", "Device.WiFi.SSID.1."));
    EXPECT_TRUE(leaving->s->out->finished() || leaving->s->out->closed());
    EXPECT_EQ(0, leaving->count("change", "Device.WiFi.SSID.1."));
}

// Only objects of the API are told of.  A deleted object can no longer be
// read: its delete is told when a GET could name such an object.
TEST_F(EventHub, OnlyObjectsOfTheApiAreToldOfDeletesIncluded) {
    auto c = open("s-delete", {});
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Change, "Device.X_NotOfTheApi.7."));
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Add, "Device.X_NotOfTheApi.8."));
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Delete, "Device.X_NotOfTheApi.7."));
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Delete, "Device.NAT.PortMapping.5."));
    ASSERT_TRUE(c->waitFor("delete", "Device.NAT.PortMapping.5."));
    EXPECT_EQ(0, c->count("change", "Device.X_NotOfTheApi.7."));
    EXPECT_EQ(0, c->count("add", "Device.X_NotOfTheApi.8."));
    EXPECT_EQ(0, c->count("delete", "Device.X_NotOfTheApi.7."));
}

// A configuration replaced whole is one resync for every stream, whatever
// it watches.
TEST_F(EventHub, AResetIsOneResyncForEveryStream) {
    auto all = open("s-reset-all", {});
    auto one = open("s-reset-one", {"Device.WiFi.SSID.2."});
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Reset, "Device."));
    ASSERT_TRUE(all->waitFor("resync", "configuration reset"));
    ASSERT_TRUE(one->waitFor("resync", "configuration reset"));
    EXPECT_EQ(1, one->count("resync", "configuration reset"));
}

// Each stream's change is read as its session's group would read it (the
// device scopes what a group sees), once per group.
TEST_F(EventHub, AChangeIsReadAsEachStreamsGroup) {
    auto admin = open("s-group-2", {"Device.WiFi.SSID.2."}, std::nullopt, 2);
    auto user = open("s-group-3", {"Device.WiFi.SSID.2."}, std::nullopt, 3);
    auto user2 = open("s-group-3b", {"Device.WiFi.SSID.2."}, std::nullopt, 3);
    size_t before = dev_->readCallers().size();
    setSsid("Device.WiFi.SSID.2.", "by-group");
    ASSERT_TRUE(admin->waitFor("change", "by-group"));
    ASSERT_TRUE(user->waitFor("change", "by-group"));
    ASSERT_TRUE(user2->waitFor("change", "by-group"));
    std::vector<int> all = dev_->readCallers();
    std::vector<int> reads(all.begin() + static_cast<long>(before), all.end());
    EXPECT_EQ(1, std::count(reads.begin(), reads.end(), 2));
    EXPECT_EQ(1, std::count(reads.begin(), reads.end(), 3));
}

// A computed view is told when it reads differently from what the stream was
// last told, not at every write below it.
TEST_F(EventHub, AViewIsToldOnlyWhenItReadsDifferently) {
    const char* view = "Device.X_OLVEX_EXT.InternetBlocking.";
    vxExtObjRegister();
    dev_->put("Device.DeviceInfo.", R"({"ModelName": "NX5150"})");
    auto c = open("s-view", {view, "Device.WiFi.SSID.1."});
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Change, view));
    ASSERT_TRUE(c->waitFor("change", R"({"Enable":true})"));
    // Written again, reading the same (whether the hub reads it before or
    // after the model changes below, one of the two reads is a repeat).
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Change, view));
    dev_->put("Device.DeviceInfo.", R"({"ModelName": "NX3301A"})");
    ASSERT_EQ(0, dev_->note(wcfg::JournalKind::Change, view));
    // Entries go out in journal order: once this one is there, the view's
    // have had their turn.
    setSsid("Device.WiFi.SSID.1.", "after-the-view");
    ASSERT_TRUE(c->waitFor("change", "after-the-view"));
    EXPECT_EQ(1, c->count("change", R"({"Enable":true})"));
    EXPECT_EQ(1, c->count("change", R"({"Enable":false})"));
}

// A session that ends (here: logout) while a stream of it is still opening:
// the stream hears why once its head is out, not only that the session is
// gone, which is all the session check can tell by then.
TEST_F(EventHub, AStreamStillOpeningWhenItsSessionEndsIsToldWhy) {
    auto opening = reserve("s-opening", {"Device.WiFi.SSID.1."});
    {
        std::lock_guard<std::mutex> lock(gJudgeMutex);
        gEnded["s-opening"] = "session ended";
    }
    wHttpSessionEnded("s-opening", "admin", "logout");
    // Once another stream has a later change, the hub has taken the logout.
    auto witness = open("s-witness", {"Device.WiFi.SSID.2."});
    setSsid("Device.WiFi.SSID.2.", "after-logout");
    ASSERT_TRUE(witness->waitFor("change", "Device.WiFi.SSID.2."));
    wHttpEventsOpened(opening->s);
    EXPECT_TRUE(opening->waitFor("end", "logout"));
    EXPECT_EQ(0, opening->count("end", "session ended"));
}

// A stream whose head goes out while the daemon stops, after the hub has
// ended the open streams, is told why as they were.  The hub starts once
// per process, so the stop runs in a process of its own.
TEST_F(EventHub, AStreamThatOpensAsTheDaemonStopsIsToldWhy) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto late = reserve("s-late", {"Device.WiFi.SSID.1."});
            wHttpEventsStop();
            wHttpEventsOpened(late->s);
            bool told = late->waitFor("end", "shutdown") && late->count("end", "shutdown") == 1;
            std::_Exit(told ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
