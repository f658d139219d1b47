// Timer service: one-shot and periodic timers run by a thread of their own,
// which sleeps until the next timer is due (or one is added) and calls the
// callbacks of the timers that are due.  Times are seconds and microseconds of
// system uptime, read in hundredths of a second.
#pragma once

#include <cstdint>

typedef int (*UITimerCallback)(uint32_t id, void* data);

struct UITime {
    uint32_t sec;
    uint32_t usec;  // microseconds (uptime) or nanoseconds (monotonic clock)
};

int UITimerThreadStart(void);
int UITimerThreadStop(void);

// Start a timer: returns the new id (>= 1) or the negative result of the add.
int UITimerStart(uint32_t intervalMs, UITimerCallback cb, void* data);
int UIPeriodicTimerStart(uint32_t intervalMs, UITimerCallback cb, void* data);
int UITimerStop(uint32_t id);
int UIPeriodicTimerStop(uint32_t id);

int UIAddTimer(uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data);
int UIAddPeriodicTimer(uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data);
int UIDelTimer(uint32_t id, void** data);
int UIDelTimer_retDataPtr(uint32_t id, void** data);
int UIDelPeriodicTimer(uint32_t id, void** data);
int UIDelPeriodicTimer_retDataPtr(uint32_t id, void** data);

// Reads the uptime: 0 ok, 1 failure.  The source is "/proc/uptime", or the
// file named by WHTTPD_UPTIME_FILE (tests drive the service's clock with it).
int getSystemUptime(UITime* now);
void getMonotonicTime(UITime* now);

// Overrides the uptime file (nullptr: back to the default); for tests.
void UITimerSetUptimeFile(const char* path);
