// Timers started and stopped from many threads while the service fires them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "timer/uitimer.h"
#include "unit/timer/timer_fixture.h"

TEST_F(TimerTest, ConcurrentStartStopWhileFiring) {
    std::atomic<int> fired{0};
    std::atomic<bool> done{false};
    std::thread clock([&] {
        for (int s = 101; !done; ++s) {
            setUptime((std::to_string(s) + ".00").c_str());
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                int id = UITimerStart(static_cast<uint32_t>(i % 3) * 1000, countCallback, &fired);
                int pid = UIPeriodicTimerStart(1000, countCallback, &fired);
                if (i % 2)
                    UITimerStop(static_cast<uint32_t>(id));
                UIPeriodicTimerStop(static_cast<uint32_t>(pid));
            }
        });
    }
    for (auto& t : workers)
        t.join();
    done = true;
    clock.join();
    // The zero-interval timers left running are due and fire at the next tick.
    EXPECT_TRUE(waitFor(fired, 1));
}
