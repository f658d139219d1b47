// The timer service's fixture: a service started for each test, its clock
// driven through an uptime file the test writes instead of real waiting.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "timer/uitimer.h"

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/whttpd-uptime-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        file_ = tmpl;
        setUptime("100.50");
        UITimerSetUptimeFile(file_.c_str());
        UITimerThreadStop();
        ASSERT_EQ(0, UITimerThreadStart());
    }
    void TearDown() override {
        UITimerThreadStop();
        UITimerSetUptimeFile(nullptr);
        unlink(file_.c_str());
    }
    // Replaces the uptime file at once, so that the timer thread never reads
    // a half-written one.
    void setUptime(const char* text) {
        std::string tmp = file_ + ".new";
        FILE* f = fopen(tmp.c_str(), "w");
        fprintf(f, "%s 1234.00\n", text);
        fclose(f);
        rename(tmp.c_str(), file_.c_str());
    }
    // Lets the timer thread run a few ticks.
    static void ticks() { std::this_thread::sleep_for(std::chrono::milliseconds(60)); }
    static bool waitFor(const std::atomic<int>& v, int want) {
        for (int i = 0; i < 200 && v.load() < want; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return v.load() >= want;
    }
    std::string file_;
};

inline int countCallback(uint32_t, void* data) {
    ++*static_cast<std::atomic<int>*>(data);
    return 0;
}
