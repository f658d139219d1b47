// The timer service: one-shot and periodic timers on a thread of their own.
#include "timer/uitimer.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "base/platform.h"
#include "timer/timer_list.h"

#define UITIMER_SRC "uitimer"

namespace {

enum : uint8_t { kIdle = 0, kQueued = 1, kCancelled = 2 };
enum { kOneShot = 0, kPeriodic = 1 };

struct UITimerRec {
    uint32_t id;
    void* data;
    uint32_t interval;
    uint32_t expirySec;
    uint32_t expiryUsec;
    uint8_t state;
    UITimerCallback callback;
    pthread_mutex_t lock;
};

struct FireEntry {
    int kind;
    UITimerRec* rec;  // a private copy (one-shot) or the listed record (periodic)
};

std::atomic<uint32_t> gNextId{0};
std::atomic<uint8_t> gRunning{0};
pthread_t gThread;
timer_list gOneShot = {0, nullptr};
timer_list gPeriodic = {0, nullptr};
// Guards both lists.  Error-checking, so that the extra unlock of the stop
// sequence is refused harmlessly.
pthread_mutex_t gListMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
// Held by the timer thread for a whole tick and by the stop sequence while it
// clears the timers, so that no record is freed under a running tick.
pthread_mutex_t gTickMutex = PTHREAD_MUTEX_INITIALIZER;
// Wakes the timer thread before its sleep ends: a timer was added or
// re-armed to a time before the thread's wake-up, or the thread is to stop.
// `gWakeCount` counts the wake-ups, so that one made while the thread looked
// for its next due time is not lost.  `gSleepUntil` is when the sleeping
// thread wakes anyway (boot-clock microseconds): 0 while it looks at its
// lists (every add wakes it then), kNoWakeNeeded when it polls a file clock.
// The thread writes it under gWakeMutex; an add reads it without the lock, so
// that a request, which re-arms its session's idle timer minutes ahead,
// neither wakes the thread nor waits for its mutex.
pthread_mutex_t gWakeMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gWakeCond;
pthread_once_t gWakeCondOnce = PTHREAD_ONCE_INIT;
uint64_t gWakeCount = 0;
constexpr int64_t kNoWakeNeeded = INT64_MIN;
std::atomic<int64_t> gSleepUntil{0};
// The longest sleep: a clock that stood still (a suspended system, a failed
// read) costs at most this much lateness.
constexpr long kMaxSleepMs = 1000;
// The sleep between reads of a clock that comes from a file, whose next
// change no one announces.
constexpr long kFileClockTickMs = 10;
// Records replaced by an update of the same id are kept, never reused.
std::vector<UITimerRec*>* const gRetired = new std::vector<UITimerRec*>;

// The clock file: "" for the system's own uptime ("/proc/uptime"), which is
// read from the boot-time clock directly, without a file.
std::mutex gUptimeMutex;
std::string gUptimeFile;
std::atomic<bool> gUptimeFileSet{false};

std::string uptimeFile() {
    std::lock_guard<std::mutex> lock(gUptimeMutex);
    if (!gUptimeFile.empty())
        return gUptimeFile;
    const char* env = getenv("WHTTPD_UPTIME_FILE");
    return env && *env ? env : "";
}

bool systemUptime() {
    static const bool fromEnv = [] {
        const char* env = getenv("WHTTPD_UPTIME_FILE");
        return env && *env && strcmp(env, "/proc/uptime") != 0;
    }();
    return !fromEnv && !gUptimeFileSet.load(std::memory_order_acquire);
}

// /proc/uptime shows the boot-time clock in hundredths of a second; the
// clock itself gives the same numbers without opening a file.
bool bootClock(UITime* now) {
    timespec ts{};
    if (clock_gettime(CLOCK_BOOTTIME, &ts) != 0)
        return false;
    if (now) {
        now->sec = static_cast<uint32_t>(ts.tv_sec);
        now->usec = static_cast<uint32_t>(ts.tv_nsec / 10000000) * 10000;
    }
    return true;
}

void freeTime(void* p) {
    auto* rec = static_cast<UITimerRec*>(p);
    if (!rec)
        return;
    timer_free(rec);
}

UITimerRec* newRecord(uint32_t id, uint32_t interval, UITimerCallback cb, void* data,
                      const char* func) {
    auto* rec = static_cast<UITimerRec*>(calloc(1, sizeof(UITimerRec)));
    if (!rec) {
        if (wlog_levelAllow(WLOG_ERR))
            wlog_log_f(WLOG_ERR, UITIMER_SRC, __LINE__, func, "fail to calloc memory, size = %zu",
                       sizeof(UITimerRec));
        return nullptr;
    }
    UITime now{};
    getSystemUptime(&now);
    rec->expirySec = now.sec;
    rec->expiryUsec = now.usec;
    rec->id = id;
    rec->interval = interval;
    rec->expiryUsec += (interval % 1000) * 1000;
    rec->expirySec += interval / 1000 + rec->expiryUsec / 1000000;
    rec->expiryUsec %= 1000000;
    rec->data = data;
    rec->callback = cb;
    return rec;
}

bool isDue(const UITimerRec* r, const UITime& now) {
    return r->expirySec < now.sec || (r->expirySec == now.sec && r->expiryUsec <= now.usec);
}

// Holds the list mutex for a scope.
class ListLock {
  public:
    ListLock() { pthread_mutex_lock(&gListMutex); }
    ~ListLock() { pthread_mutex_unlock(&gListMutex); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;
};

// One-shot and periodic timers differ only in these: periodic records have a
// mutex and a state, stay listed when they fire, and may be freed by the
// timer thread when a delete cancels them while queued.
timer_list* listOf(int kind) {
    return kind == kPeriodic ? &gPeriodic : &gOneShot;
}

void releaseRecord(UITimerRec* rec, int kind) {
    if (kind == kPeriodic)
        pthread_mutex_destroy(&rec->lock);
    timer_free(rec);
}

// The record's state before; a queued record becomes cancelled.
uint8_t cancelIfQueued(UITimerRec* rec) {
    pthread_mutex_lock(&rec->lock);
    uint8_t state = rec->state;
    if (state == kQueued)
        rec->state = kCancelled;
    pthread_mutex_unlock(&rec->lock);
    return state;
}

// Unlinks a record from the periodic list if it is still there.
void unlinkPeriodic(UITimerRec* rec) {
    timer_list_iter it;
    for (void* v = timer_list_iter_begin(&gPeriodic, &it); v;) {
        if (v == rec) {
            timer_list_iter_remove(&it);
            return;
        }
        v = timer_list_iter_next(&it);
    }
}

void queueFire(timer_list* fire, int kind, UITimerRec* rec) {
    auto* entry = static_cast<FireEntry*>(malloc(sizeof(FireEntry)));
    entry->kind = kind;
    entry->rec = rec;
    timer_list_insert(fire, 0, entry);
}

// Under the list mutex: moves due one-shot timers (as private copies) and
// queues due periodic timers (the listed records) to the front of `fire`.
void collectDue(const UITime& now, timer_list* fire) {
    timer_list_iter it;
    void* v = timer_list_iter_begin(&gOneShot, &it);
    while (v && gRunning) {
        auto* rec = static_cast<UITimerRec*>(v);
        if (!isDue(rec, now)) {
            v = timer_list_iter_next(&it);
            continue;
        }
        timer_list_iter_remove(&it);
        auto* copy = static_cast<UITimerRec*>(malloc(sizeof(UITimerRec)));
        memcpy(copy, rec, sizeof(UITimerRec));
        queueFire(fire, kOneShot, copy);
        timer_free(rec);
        v = timer_list_iter_begin(&gOneShot, &it);
    }
    for (v = timer_list_iter_begin(&gPeriodic, &it); v && gRunning; v = timer_list_iter_next(&it)) {
        auto* rec = static_cast<UITimerRec*>(v);
        if (!isDue(rec, now))
            continue;
        pthread_mutex_lock(&rec->lock);
        if (rec->state != kCancelled)
            rec->state = kQueued;
        pthread_mutex_unlock(&rec->lock);
        queueFire(fire, kPeriodic, rec);
    }
}

// A queued periodic timer: re-armed from `now` (no carry into the seconds)
// and called, or freed when a delete cancelled it meanwhile.
void firePeriodic(UITimerRec* rec, const UITime& now) {
    UITimerCallback cb = nullptr;
    uint32_t id = 0;
    void* data = nullptr;
    bool release = false;
    {
        ListLock lists;
        pthread_mutex_lock(&rec->lock);
        if (rec->state == kQueued) {
            cb = rec->callback;
            id = rec->id;
            data = rec->data;
            rec->expirySec = now.sec + rec->interval / 1000;
            rec->expiryUsec = now.usec + (rec->interval % 1000) * 1000;
            rec->state = kIdle;
        } else if (rec->state == kCancelled) {
            release = true;
            unlinkPeriodic(rec);
        }
        pthread_mutex_unlock(&rec->lock);
    }
    if (cb)
        cb(id, data);
    if (release)
        releaseRecord(rec, kPeriodic);
}

// One tick: the due timers are taken under the list mutex and called without
// it, periodic before one-shot (entries were prepended).
void tick(timer_list* fire, UITime& now) {
    getSystemUptime(&now);  // a failed read keeps the previous time
    {
        ListLock lists;
        collectDue(now, fire);
    }
    while (!timer_list_is_empty(fire)) {
        auto* entry = static_cast<FireEntry*>(timer_list_remove(fire, 0));
        UITimerRec* rec = entry->rec;
        if (entry->kind == kPeriodic) {
            firePeriodic(rec, now);
        } else {
            if (rec->callback)
                rec->callback(rec->id, rec->data);
            free(rec);
        }
        free(entry);
    }
}

// The wake-up's condition measures its waits on the monotonic clock, which
// wall-clock changes do not move.
void initWakeCond() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&gWakeCond, &attr);
    pthread_condattr_destroy(&attr);
}

int64_t bootMicros() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Tells the timer thread to look at its lists again now.
void wakeTimerThread() {
    pthread_once(&gWakeCondOnce, initWakeCond);
    pthread_mutex_lock(&gWakeMutex);
    ++gWakeCount;
    pthread_cond_signal(&gWakeCond);
    pthread_mutex_unlock(&gWakeMutex);
}

// Whether a timer just added, due in `intervalMs`, needs the thread awake: it
// is due before the thread's own wake-up, or the thread looks at its lists
// (it may have passed the timer's place), or the wake-up time has passed (a
// suspended system: the sleep is measured on the monotonic clock, which
// stood still).  A timer due later is found when the thread wakes.
bool wakeNeeded(uint32_t intervalMs) {
    int64_t until = gSleepUntil.load();
    if (until == 0 || until == kNoWakeNeeded)
        return until == 0;
    int64_t now = bootMicros();
    return now + intervalMs * int64_t{1000} < until || until <= now;
}

// A record's due time in microseconds of uptime, as isDue() sees it: a
// sub-second part past the second's end is due when the next second begins.
int64_t dueMicros(const UITimerRec* r) {
    if (r->expiryUsec >= 1000000)
        return (static_cast<int64_t>(r->expirySec) + 1) * 1000000;
    return static_cast<int64_t>(r->expirySec) * 1000000 + r->expiryUsec;
}

// Under the list mutex: the earliest due time of both lists; -1 when none.
int64_t earliestDue() {
    int64_t best = -1;
    timer_list_iter it;
    for (timer_list* list : {&gOneShot, &gPeriodic}) {
        for (void* v = timer_list_iter_begin(list, &it); v; v = timer_list_iter_next(&it)) {
            int64_t due = dueMicros(static_cast<UITimerRec*>(v));
            if (best < 0 || due < best)
                best = due;
        }
    }
    return best;
}

// How long the thread may sleep after a tick.  The uptime is read in
// hundredths of a second, so a timer is seen due from the first hundredth at
// or after its time; the thread sleeps until then, or kMaxSleepMs when no
// timer is near.  A clock read from a file is polled every kFileClockTickMs.
long sleepMs() {
    if (!systemUptime())
        return kFileClockTickMs;
    int64_t due;
    {
        ListLock lists;
        due = earliestDue();
    }
    timespec ts{};
    if (due < 0 || clock_gettime(CLOCK_BOOTTIME, &ts) != 0)
        return kMaxSleepMs;
    int64_t seen = (due + 9999) / 10000 * 10000;
    int64_t now = static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    int64_t wait = seen - now;
    // Due already (re-armed or added during the tick just run, as a periodic
    // timer of 0 ms is): the next tick comes with the next hundredth, as the
    // clock can tell no sooner, so that such a timer never spins the thread.
    if (wait <= 0)
        wait = 10000 - now % 10000;
    return std::min<int64_t>(kMaxSleepMs, (wait + 999) / 1000);
}

// Sleeps until the next timer is due, a timer is added or the thread is to
// stop, whichever comes first.
void sleepUntilNextTick() {
    pthread_mutex_lock(&gWakeMutex);
    uint64_t seen = gWakeCount;
    pthread_mutex_unlock(&gWakeMutex);
    long ms = sleepMs();
    if (ms <= 0)
        return;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += (ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&gWakeMutex);
    gSleepUntil = systemUptime() ? bootMicros() + ms * 1000 : kNoWakeNeeded;
    while (gRunning && gWakeCount == seen) {
        if (pthread_cond_timedwait(&gWakeCond, &gWakeMutex, &deadline) == ETIMEDOUT)
            break;
    }
    gSleepUntil = 0;
    pthread_mutex_unlock(&gWakeMutex);
}

void* UITimerProc(void*) {
    platformBlockStopSignals();
    prctl(PR_SET_NAME, "libvxuitimer", 0, 0, 0);
    if (wlog_levelAllow(WLOG_INFO))
        wlog_log_f(WLOG_INFO, UITIMER_SRC, __LINE__, __func__, "thread starts");
    timer_list fire;
    timer_list_init(&fire);
    UITime now{};
    while (gRunning) {
        pthread_mutex_lock(&gTickMutex);
        if (!gRunning) {
            pthread_mutex_unlock(&gTickMutex);
            break;
        }
        tick(&fire, now);
        pthread_mutex_unlock(&gTickMutex);
        sleepUntilNextTick();
    }
    timer_list_destroy(&fire);
    return nullptr;
}

// Adds a timer of `kind`, or updates the listed one of the same id (its due
// time, data and callback; a periodic one's state too).
int addTimer(int kind, uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data,
             const char* func) {
    UITimerRec* rec = newRecord(id, intervalMs, cb, data, func);
    if (!rec)
        return -1;
    if (kind == kPeriodic) {
        rec->state = kIdle;
        pthread_mutex_init(&rec->lock, nullptr);
    }
    ListLock lists;
    timer_list_iter it;
    for (void* v = timer_list_iter_begin(listOf(kind), &it); v; v = timer_list_iter_next(&it)) {
        auto* cur = static_cast<UITimerRec*>(v);
        if (cur->id != id)
            continue;
        if (kind == kPeriodic)
            pthread_mutex_lock(&cur->lock);
        cur->expirySec = rec->expirySec;
        cur->expiryUsec = rec->expiryUsec;
        cur->data = data;
        cur->callback = cb;
        if (kind == kPeriodic) {
            cur->state = rec->state;
            pthread_mutex_unlock(&cur->lock);
        }
        gRetired->push_back(rec);
        return 0;
    }
    if (timer_list_insert(listOf(kind), -1, rec) < 0) {
        free(rec);
        return -1;
    }
    return 0;
}

// Adds or updates a timer, then wakes the timer thread, which may be asleep
// until a later due time.
int addTimerAndWake(int kind, uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data,
                    const char* func) {
    int rc = addTimer(kind, id, intervalMs, cb, data, func);
    if (rc == 0 && wakeNeeded(intervalMs))
        wakeTimerThread();
    return rc;
}

// What a delete does with one record of its id.
enum class Match { Skip, Unlink, UnlinkAndFree };
// Decides for one record; sets `found` when the record counts as found.
using MatchRule = Match (*)(UITimerRec* rec, void** out, bool* found);

Match oneShotMatch(UITimerRec* rec, void** out, bool* found) {
    if (out)
        *out = rec->data;
    *found = true;
    return Match::UnlinkAndFree;
}

// A queued timer is cancelled and unlinked; the timer thread frees it.  One
// already cancelled is passed over.
Match periodicMatch(UITimerRec* rec, void** out, bool* found) {
    if (out)
        *out = rec->data;
    uint8_t state = cancelIfQueued(rec);
    if (state == kCancelled)
        return Match::Skip;
    *found = true;
    return state == kIdle ? Match::UnlinkAndFree : Match::Unlink;
}

// A queued timer is cancelled and left listed, its data unread; any other is
// unlinked with its data read.  One cancelled earlier is still queued on the
// timer thread, which frees it.
Match periodicRetDataMatch(UITimerRec* rec, void** out, bool* found) {
    *found = true;
    uint8_t state = cancelIfQueued(rec);
    if (state == kQueued)
        return Match::Skip;
    *out = rec->data;
    return state == kIdle ? Match::UnlinkAndFree : Match::Unlink;
}

// Deletes every timer of `kind` with `id` as `rule` says; the walk starts
// again from the head after each unlink.  0 found (or an empty list), 1 not.
int delTimer(int kind, uint32_t id, void** out, MatchRule rule) {
    ListLock lists;
    timer_list* list = listOf(kind);
    if (timer_list_is_empty(list))
        return 0;
    bool found = false;
    timer_list_iter it;
    void* v = timer_list_iter_begin(list, &it);
    while (v) {
        auto* rec = static_cast<UITimerRec*>(v);
        Match m = rec->id == id ? rule(rec, out, &found) : Match::Skip;
        if (m == Match::Skip) {
            v = timer_list_iter_next(&it);
            continue;
        }
        timer_list_iter_remove(&it);
        if (m == Match::UnlinkAndFree)
            releaseRecord(rec, kind);
        v = timer_list_iter_begin(list, &it);
    }
    return found ? 0 : 1;
}

void clearAllTimers() {
    pthread_mutex_lock(&gListMutex);
    timer_list_pop_all(&gOneShot, freeTime);
    timer_list_pop_all(&gPeriodic, freeTime);
    pthread_mutex_unlock(&gListMutex);
}

}  // namespace

void UITimerSetUptimeFile(const char* path) {
    std::lock_guard<std::mutex> lock(gUptimeMutex);
    gUptimeFile = path ? path : "";
    gUptimeFileSet.store(!gUptimeFile.empty(), std::memory_order_release);
}

int getSystemUptime(UITime* now) {
    if (systemUptime() && bootClock(now))
        return 0;
    std::string file = uptimeFile();
    if (file.empty())
        file = "/proc/uptime";
    FILE* f = fopen(file.c_str(), "r");
    if (!f)
        return 1;
    char line[256] = "";
    if (!fgets(line, sizeof line, f))
        line[0] = '\0';
    fclose(f);
    line[strcspn(line, "\n")] = '\0';
    char* save = nullptr;
    char* tok = strtok_r(line, " ", &save);
    if (!tok || !*tok) {
        wos_pk(
            "\n\033[0;31m[Lib][Olvex UI Timer] %s(pid=%d): <<Error>> System Internal Error!! "
            "(currTime = %p)\033[0m\n",
            __func__, getpid(), static_cast<void*>(now));
        return 1;
    }
    char text[128 + 5];
    snprintf(text, 128, "%s", tok);
    strcat(text, "0000");
    char* dot = strchr(text, '.');
    if (!dot) {
        wos_pk(
            "\n\033[0;31m[Lib][Olvex UI Timer] %s(pid=%d): <<Error>> System Internal Error!! "
            "(strUptime = '%s')\033[0m\n",
            __func__, getpid(), text);
        return 1;
    }
    if (now) {
        now->sec = static_cast<uint32_t>(strtoul(text, nullptr, 10));
        now->usec = static_cast<uint32_t>(strtoul(dot + 1, nullptr, 10));
    }
    return 0;
}

void getMonotonicTime(UITime* now) {
    if (!now)
        return;
    timespec ts{};
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
        wos_pk("clock_gettime failed, set timestamp to 0\n");
        now->sec = 0;
        now->usec = 0;
        return;
    }
    now->sec = static_cast<uint32_t>(ts.tv_sec);
    now->usec = static_cast<uint32_t>(ts.tv_nsec);
}

int UIAddTimer(uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data) {
    return addTimerAndWake(kOneShot, id, intervalMs, cb, data, __func__);
}

int UIAddPeriodicTimer(uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data) {
    return addTimerAndWake(kPeriodic, id, intervalMs, cb, data, __func__);
}

int UIDelTimer(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    return delTimer(kOneShot, id, data, oneShotMatch);
}

int UIDelTimer_retDataPtr(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    if (!data)
        return -1;
    return UIDelTimer(id, data);
}

int UIDelPeriodicTimer(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    return delTimer(kPeriodic, id, data, periodicMatch);
}

int UIDelPeriodicTimer_retDataPtr(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    if (!data)
        return -1;
    return delTimer(kPeriodic, id, data, periodicRetDataMatch);
}

int UITimerStart(uint32_t intervalMs, UITimerCallback cb, void* data) {
    uint32_t id = ++gNextId;
    int rc = UIAddTimer(id, intervalMs, cb, data);
    if (rc >= 0)
        return static_cast<int>(id);
    wos_pk("Error: Can't start timer\n");
    --gNextId;
    return rc;
}

int UIPeriodicTimerStart(uint32_t intervalMs, UITimerCallback cb, void* data) {
    uint32_t id = ++gNextId;
    int rc = UIAddPeriodicTimer(id, intervalMs, cb, data);
    if (rc >= 0)
        return static_cast<int>(id);
    wos_pk("Error: Can't start periodic timer\n");
    --gNextId;
    return rc;
}

int UITimerStop(uint32_t id) {
    int rc = UIDelTimer(id, nullptr);
    if (rc < 0)
        wos_pk("Error: Can't stop timer\n");
    return rc;
}

int UIPeriodicTimerStop(uint32_t id) {
    int rc = UIDelPeriodicTimer(id, nullptr);
    if (rc < 0)
        wos_pk("Error: Can't stop timer\n");
    return rc;
}

int UITimerThreadStart(void) {
    if (gRunning)
        return 0;
    pthread_once(&gWakeCondOnce, initWakeCond);
    clearAllTimers();
    gRunning = 1;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    sched_param param{};
    param.sched_priority = 75;
    pthread_attr_setschedparam(&attr, &param);
    int rc = pthread_create(&gThread, &attr, UITimerProc, nullptr);
    pthread_attr_destroy(&attr);
    if (rc != 0)
        gRunning = 0;
    return rc;
}

int UITimerThreadStop(void) {
    if (!gRunning)
        return 0;
    pthread_mutex_lock(&gTickMutex);
    clearAllTimers();
    gRunning = 0;
    pthread_mutex_unlock(&gTickMutex);
    wakeTimerThread();
    // One more unlock of the list mutex, which this thread does not hold: the
    // error-checking mutex refuses it with EPERM and nothing changes (the
    // thread-sanitizer runs are told so in tests/tsan.supp).
    pthread_mutex_unlock(&gListMutex);
    if (pthread_kill(gThread, 0) != 0) {
        wos_pk("the specified thread did not exists or already quit\n");
        return 0;
    }
    int rc = pthread_join(gThread, nullptr);
    gThread = pthread_t{};
    return rc;
}
