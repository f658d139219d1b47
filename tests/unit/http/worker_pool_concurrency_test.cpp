// The worker pool's growth for long jobs, its ceiling and its queue's limit.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "http/worker_pool.h"

TEST(WorkerPoolConcurrent, GrowsForLongJobsUpToItsCeilingAndRefusesBeyondItsQueue) {
    WorkerPoolConfig cfg;
    cfg.minThreads = 1;
    cfg.maxThreads = 3;
    cfg.maxQueued = 2;
    cfg.idleExitMs = 50;
    WorkerPool pool(cfg);
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    std::atomic<int> running{0}, done{0};
    struct Release {
        std::mutex& m;
        std::condition_variable& cv;
        bool& release;
        ~Release() {
            {
                std::lock_guard<std::mutex> lock(m);
                release = true;
            }
            cv.notify_all();
        }
    } guard{m, cv, release};  // a failed assertion still lets the jobs go
    auto longJob = [&] {
        ++running;
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return release; });
        ++done;
    };
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(pool.submit(longJob));
    while (running < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(3, pool.threadCount());   // one per long job, up to the ceiling
    EXPECT_TRUE(pool.submit(longJob));  // queued
    EXPECT_TRUE(pool.submit(longJob));
    EXPECT_FALSE(pool.submit(longJob));  // the queue is full
    EXPECT_EQ(3, pool.threadCount());
    {
        std::lock_guard<std::mutex> lock(m);
        release = true;
    }
    cv.notify_all();
    while (done < 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // The threads above the floor leave once idle.
    while (pool.threadCount() > 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(1, pool.threadCount());
    pool.stop(5000);
    EXPECT_EQ(0, pool.threadCount());
    EXPECT_FALSE(pool.submit([] {}));
}
