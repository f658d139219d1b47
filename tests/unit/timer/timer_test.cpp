// Timer service: due times, firing order and deletion, with the service's
// clock driven through its uptime file instead of real waiting.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "timer/timer_list.h"
#include "timer/uitimer.h"
#include "unit/timer/timer_fixture.h"

namespace {

// The ids in the order their callbacks ran; the timer thread writes it.
std::mutex gOrderMutex;
std::vector<uint32_t> gOrder;
std::atomic<int> gOrderCount{0};
int orderCallback(uint32_t id, void*) {
    std::lock_guard<std::mutex> lock(gOrderMutex);
    gOrder.push_back(id);
    ++gOrderCount;
    return 0;
}

// Deletes the periodic timer gVictim twice with the data-reading delete while
// both are queued in the same tick.
uint32_t gVictim = 0;
std::atomic<int> gDeleteResults{0};
int deleteTwiceCallback(uint32_t, void*) {
    void* data = nullptr;
    int first = UIDelPeriodicTimer_retDataPtr(gVictim, &data);
    void* firstData = data;
    int second = UIDelPeriodicTimer_retDataPtr(gVictim, &data);
    if (gDeleteResults.load() == 0)
        gDeleteResults = 1 + (first == 0 && firstData == nullptr) * 2 + (second == 0 && data) * 4;
    return 0;
}

}  // namespace

TEST(TimerUptime, ReadsSecondsAndHundredths) {
    char tmpl[] = "/tmp/whttpd-uptime-XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_EQ(12, write(fd, "12345.67 0.0", 12));
    close(fd);
    UITimerSetUptimeFile(tmpl);
    UITime t{};
    EXPECT_EQ(0, getSystemUptime(&t));
    EXPECT_EQ(12345u, t.sec);
    EXPECT_EQ(670000u, t.usec);
    FILE* f = fopen(tmpl, "w");
    fputs("12345 0", f);
    fclose(f);
    EXPECT_EQ(1, getSystemUptime(&t));  // no "." in the first token
    unlink(tmpl);
    EXPECT_EQ(1, getSystemUptime(&t));  // no file
    UITimerSetUptimeFile(nullptr);
    EXPECT_EQ(0, getSystemUptime(&t));  // the real /proc/uptime
}

TEST_F(TimerTest, OneShotFiresAtItsDueTimeOnce) {
    std::atomic<int> fired{0};
    int id = UITimerStart(1500, countCallback, &fired);  // 100.50 + 1.5 = 102.000000
    ASSERT_GE(id, 1);
    setUptime("101.99");
    ticks();
    EXPECT_EQ(0, fired.load());
    setUptime("102.00");
    EXPECT_TRUE(waitFor(fired, 1));
    setUptime("200.00");
    ticks();
    EXPECT_EQ(1, fired.load());
    // Already off the list: the delete finds nothing (empty list: 0).
    EXPECT_EQ(0, UITimerStop(id));
}

TEST_F(TimerTest, PeriodicReArmsFromTheFiringTickWithoutCarry) {
    setUptime("10.50");
    ticks();  // the timer thread's clock is at 10.50 too
    std::atomic<int> fired{0};
    // Armed with the carry: 10.50 + 1.999 = 12.499000.
    int id = UIPeriodicTimerStart(1999, countCallback, &fired);
    ASSERT_GE(id, 1);
    setUptime("12.49");
    ticks();
    EXPECT_EQ(0, fired.load());
    setUptime("12.50");
    EXPECT_TRUE(waitFor(fired, 1));
    // Re-armed from 12.500000 without the carry: 13 s and 1 499 000 us, so
    // it fires only in second 14.
    setUptime("13.99");
    ticks();
    EXPECT_EQ(1, fired.load());
    setUptime("14.00");
    EXPECT_TRUE(waitFor(fired, 2));
    EXPECT_EQ(0, UIPeriodicTimerStop(id));
    setUptime("99.00");
    ticks();
    EXPECT_EQ(2, fired.load());
}

// A queued periodic timer deleted twice in one tick: the first delete cancels
// it and leaves it listed, the second unlinks it and reads its data; the timer
// thread, which still holds it, frees it once (AddressSanitizer watches).
TEST_F(TimerTest, QueuedPeriodicDeletedTwiceIsFreedOnce) {
    std::atomic<int> fired{0};
    gDeleteResults = 0;
    gVictim = static_cast<uint32_t>(UIPeriodicTimerStart(100, countCallback, &fired));
    int killer = UIPeriodicTimerStart(100, deleteTwiceCallback, nullptr);
    setUptime("100.70");
    for (int i = 0; i < 200 && gDeleteResults.load() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(1 + 2 + 4, gDeleteResults.load());
    UIPeriodicTimerStop(killer);
    setUptime("101.70");
    ticks();
    EXPECT_EQ(0, fired.load());
}

TEST_F(TimerTest, DeleteResults) {
    EXPECT_EQ(1, UIDelTimer(0, nullptr));
    EXPECT_EQ(0, UIDelTimer(5, nullptr));  // empty list
    std::atomic<int> fired{0};
    int id = UITimerStart(10000, countCallback, &fired);
    EXPECT_EQ(1, UIDelTimer(id + 1000, nullptr));
    void* data = nullptr;
    EXPECT_EQ(-1, UIDelTimer_retDataPtr(id, nullptr));
    EXPECT_EQ(0, UIDelTimer_retDataPtr(id, &data));
    EXPECT_EQ(&fired, data);
    int pid = UIPeriodicTimerStart(10000, countCallback, &fired);
    EXPECT_EQ(1, UIDelPeriodicTimer(pid + 1000, nullptr));
    EXPECT_EQ(0, UIDelPeriodicTimer_retDataPtr(pid, &data));
    setUptime("500.00");
    ticks();
    EXPECT_EQ(0, fired.load());
}

TEST_F(TimerTest, UpdateOfAnIdKeepsOneTimer) {
    std::atomic<int> fired{0};
    int id = UITimerStart(1000, countCallback, &fired);
    ASSERT_EQ(0, UIAddTimer(id, 5000, countCallback, &fired));  // now due at 105.50
    setUptime("104.00");
    ticks();
    EXPECT_EQ(0, fired.load());
    setUptime("106.00");
    EXPECT_TRUE(waitFor(fired, 1));
    ticks();
    EXPECT_EQ(1, fired.load());
}

TEST_F(TimerTest, PeriodicBeforeOneShotAndReverseListOrder) {
    gOrder.clear();
    gOrderCount = 0;
    int a = UITimerStart(100, orderCallback, nullptr);
    int b = UITimerStart(100, orderCallback, nullptr);
    int p = UIPeriodicTimerStart(100, orderCallback, nullptr);
    int q = UIPeriodicTimerStart(100, orderCallback, nullptr);
    setUptime("100.70");
    // All four are due in the same tick; the periodic ones stay armed for
    // 100.80, which the clock does not reach.
    ASSERT_TRUE(waitFor(gOrderCount, 4));
    UIPeriodicTimerStop(p);
    UIPeriodicTimerStop(q);
    std::lock_guard<std::mutex> lock(gOrderMutex);
    ASSERT_EQ(4u, gOrder.size());
    EXPECT_EQ((std::vector<uint32_t>{uint32_t(q), uint32_t(p), uint32_t(b), uint32_t(a)}), gOrder);
}

TEST_F(TimerTest, StartAndStopTwice) {
    EXPECT_EQ(0, UITimerThreadStart());  // already running: nothing
    EXPECT_EQ(0, UITimerThreadStop());
    EXPECT_EQ(0, UITimerThreadStop());  // not running: nothing
    EXPECT_EQ(0, UITimerThreadStart());
}

TEST(TimerList, InsertGetRemoveAndIterate) {
    timer_list l;
    timer_list_init(&l);
    int v[5] = {0, 1, 2, 3, 4};
    EXPECT_EQ(1, timer_list_insert(&l, -1, &v[1]));
    EXPECT_EQ(2, timer_list_insert(&l, 0, &v[0]));
    EXPECT_EQ(3, timer_list_insert(&l, 7, &v[3]));  // past the end appends
    EXPECT_EQ(4, timer_list_insert(&l, 2, &v[2]));  // after index 1
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(&v[i], timer_list_get(&l, i));
    EXPECT_EQ(nullptr, timer_list_get(&l, 4));
    timer_list_iter it;
    int seen = 0;
    for (void* p = timer_list_iter_begin(&l, &it); p;) {
        if (p == &v[1] || p == &v[3])
            p = timer_list_iter_remove(&it);
        else
            ++seen, p = timer_list_iter_next(&it);
    }
    EXPECT_EQ(2, seen);
    EXPECT_EQ(2, l.count);
    EXPECT_EQ(&v[2], timer_list_remove(&l, 1));
    EXPECT_EQ(-1, timer_list_insert(nullptr, 0, &v[4]));
    timer_list_destroy(&l);
    EXPECT_TRUE(timer_list_is_empty(&l));
}

namespace {
// The uptime each callback saw, by id; written on the timer thread.
std::mutex gSeenMutex;
std::vector<std::pair<uint32_t, UITime>> gSeen;
int seenCallback(uint32_t id, void*) {
    UITime now{};
    getSystemUptime(&now);
    std::lock_guard<std::mutex> lock(gSeenMutex);
    gSeen.emplace_back(id, now);
    return 0;
}
uint64_t micros(const UITime& t) {
    return uint64_t{t.sec} * 1000000 + t.usec;
}
}  // namespace

// On the system's clock the thread sleeps until the next due time instead of
// ticking: timers added while it sleeps (behind an hour-long one) still fire,
// in due order, and none before its time.
TEST(TimerSystemClock, TimersAddedWhileTheThreadSleepsFireInOrderAndNeverEarly) {
    UITimerThreadStop();
    ASSERT_EQ(0, UITimerThreadStart());
    int hourly = UIPeriodicTimerStart(3600 * 1000, seenCallback, nullptr);
    UITime start{};
    ASSERT_EQ(0, getSystemUptime(&start));
    const uint32_t intervals[] = {120, 40, 80, 10};
    std::vector<uint32_t> ids;
    for (uint32_t ms : intervals)
        ids.push_back(static_cast<uint32_t>(UITimerStart(ms, seenCallback, nullptr)));
    for (int i = 0; i < 500; ++i) {
        {
            std::lock_guard<std::mutex> lock(gSeenMutex);
            if (gSeen.size() >= ids.size())
                break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    UIPeriodicTimerStop(static_cast<uint32_t>(hourly));
    UITimerThreadStop();
    std::lock_guard<std::mutex> lock(gSeenMutex);
    ASSERT_EQ(ids.size(), gSeen.size());
    const uint32_t order[] = {ids[3], ids[1], ids[2], ids[0]};
    for (size_t i = 0; i < gSeen.size(); ++i) {
        EXPECT_EQ(order[i], gSeen[i].first);
        uint32_t ms = intervals[std::find(ids.begin(), ids.end(), gSeen[i].first) - ids.begin()];
        EXPECT_GE(micros(gSeen[i].second), micros(start) + ms * 1000) << "timer " << i;
    }
}
