// Event streams beside writers and ending sessions, many at once.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "event_client.h"
#include "fixture.h"

using namespace e2e;

namespace {

class EventsConcurrent : public DaemonTest {};

// Streams opening, reading and closing while several clients write and
// sessions end: every stream that stays sees every change of its path in
// order, and the daemon neither stalls nor races (this runs under
// ThreadSanitizer too).
TEST_F(EventsConcurrent, StreamsWritersAndEndings) {
    d.setEnv("WHTTPD_HTTP_LIMITS", "events_per_session=8,events_total=32");
    start();
    Session other;
    ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &other).status);
    const int kWriters = 3, kWrites = 20, kStreams = 6;
    std::vector<std::unique_ptr<EventStream>> streams;
    for (int i = 0; i < kStreams; ++i) {
        streams.push_back(std::make_unique<EventStream>());
        ASSERT_TRUE(
            streams.back()->open(port, i % 2 ? other : s, "path=Device.NAT.PortMapping.1."));
        ASSERT_EQ(200, streams.back()->status());
    }
    std::atomic<bool> done{false};
    // Streams that come and go beside the others.
    std::thread churn([&] {
        while (!done) {
            EventStream es;
            if (es.open(port, other, "path=Device.WiFi."))
                es.next(20);
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([&, w] {
            Session mine;
            if (Client(port).login("admin", "1234abcd", &mine).status != 200)
                return;
            for (int i = 0; i < kWrites; ++i)
                Client(port).write(
                    "PUT", "TR181/Value/Device.NAT.PortMapping.1.",
                    "{\"Description\":\"w" + std::to_string(w) + "-" + std::to_string(i) + "\"}",
                    mine);
        });
    for (std::thread& t : writers)
        t.join();
    done = true;
    churn.join();
    for (auto& es : streams) {
        std::vector<unsigned long long> ids;
        while (ids.size() < static_cast<size_t>(kWriters * kWrites)) {
            std::optional<Event> e = es->next(kEventWait);
            if (!e || e->name != "change")
                break;
            ids.push_back(std::stoull(e->id));
        }
        ASSERT_EQ(static_cast<size_t>(kWriters * kWrites), ids.size());
        for (size_t i = 1; i < ids.size(); ++i)
            EXPECT_LT(ids[i - 1], ids[i]);
    }
    // The other session ends: its streams end, the first session's go on.
    ASSERT_EQ(200, Client(port).write("POST", "UserLogout", "", other).status);
    for (int i = 1; i < kStreams; i += 2) {
        std::optional<Event> end =
            streams[i]->waitFor([](const Event& e) { return e.name == "end"; }, kEventWait);
        ASSERT_TRUE(end);
        EXPECT_EQ("logout", eventMember(*end, "reason"));
    }
    EXPECT_EQ(
        200,
        write("PUT", "TR181/Value/Device.NAT.PortMapping.1.", R"({"Description":"after"})").status);
    EXPECT_TRUE(streams[0]->next(kEventWait));
}

}  // namespace
