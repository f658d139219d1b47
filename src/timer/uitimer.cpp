// The timer service: one-shot and periodic timers on a thread of their own.
#include "timer/uitimer.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
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
        getSystemUptime(&now);  // a failed read keeps the previous time
        pthread_mutex_lock(&gListMutex);
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
            auto* entry = static_cast<FireEntry*>(malloc(sizeof(FireEntry)));
            entry->kind = kOneShot;
            entry->rec = copy;
            timer_list_insert(&fire, 0, entry);
            timer_free(rec);
            v = timer_list_iter_begin(&gOneShot, &it);
        }
        for (v = timer_list_iter_begin(&gPeriodic, &it); v && gRunning;
             v = timer_list_iter_next(&it)) {
            auto* rec = static_cast<UITimerRec*>(v);
            if (!isDue(rec, now))
                continue;
            pthread_mutex_lock(&rec->lock);
            if (rec->state != kCancelled)
                rec->state = kQueued;
            pthread_mutex_unlock(&rec->lock);
            auto* entry = static_cast<FireEntry*>(malloc(sizeof(FireEntry)));
            entry->kind = kPeriodic;
            entry->rec = rec;
            timer_list_insert(&fire, 0, entry);
        }
        pthread_mutex_unlock(&gListMutex);

        while (!timer_list_is_empty(&fire)) {
            auto* entry = static_cast<FireEntry*>(timer_list_remove(&fire, 0));
            UITimerRec* rec = entry->rec;
            if (entry->kind == kPeriodic) {
                UITimerCallback cb = nullptr;
                uint32_t id = 0;
                void* data = nullptr;
                bool release = false;
                pthread_mutex_lock(&gListMutex);
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
                pthread_mutex_unlock(&gListMutex);
                if (cb)
                    cb(id, data);
                if (release) {
                    pthread_mutex_destroy(&rec->lock);
                    timer_free(rec);
                }
            } else {
                if (rec->callback)
                    rec->callback(rec->id, rec->data);
                free(rec);
            }
            free(entry);
        }
        pthread_mutex_unlock(&gTickMutex);
        timeval tv{0, 10000};
        select(0, nullptr, nullptr, nullptr, &tv);
    }
    timer_list_destroy(&fire);
    return nullptr;
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
    UITimerRec* rec = newRecord(id, intervalMs, cb, data, __func__);
    if (!rec)
        return -1;
    pthread_mutex_lock(&gListMutex);
    timer_list_iter it;
    for (void* v = timer_list_iter_begin(&gOneShot, &it); v; v = timer_list_iter_next(&it)) {
        auto* cur = static_cast<UITimerRec*>(v);
        if (cur->id == id) {
            cur->expirySec = rec->expirySec;
            cur->expiryUsec = rec->expiryUsec;
            cur->data = data;
            cur->callback = cb;
            gRetired->push_back(rec);
            pthread_mutex_unlock(&gListMutex);
            return 0;
        }
    }
    int rc = timer_list_insert(&gOneShot, -1, rec) < 0 ? -1 : 0;
    pthread_mutex_unlock(&gListMutex);
    if (rc)
        free(rec);
    return rc;
}

int UIAddPeriodicTimer(uint32_t id, uint32_t intervalMs, UITimerCallback cb, void* data) {
    UITimerRec* rec = newRecord(id, intervalMs, cb, data, __func__);
    if (!rec)
        return -1;
    rec->state = kIdle;
    pthread_mutex_init(&rec->lock, nullptr);
    pthread_mutex_lock(&gListMutex);
    timer_list_iter it;
    for (void* v = timer_list_iter_begin(&gPeriodic, &it); v; v = timer_list_iter_next(&it)) {
        auto* cur = static_cast<UITimerRec*>(v);
        if (cur->id == id) {
            pthread_mutex_lock(&cur->lock);
            cur->expirySec = rec->expirySec;
            cur->expiryUsec = rec->expiryUsec;
            cur->data = data;
            cur->callback = cb;
            cur->state = rec->state;
            pthread_mutex_unlock(&cur->lock);
            gRetired->push_back(rec);
            pthread_mutex_unlock(&gListMutex);
            return 0;
        }
    }
    int rc = timer_list_insert(&gPeriodic, -1, rec) < 0 ? -1 : 0;
    pthread_mutex_unlock(&gListMutex);
    if (rc)
        free(rec);
    return rc;
}

int UIDelTimer(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    pthread_mutex_lock(&gListMutex);
    if (timer_list_is_empty(&gOneShot)) {
        pthread_mutex_unlock(&gListMutex);
        return 0;
    }
    bool found = false;
    timer_list_iter it;
    void* v = timer_list_iter_begin(&gOneShot, &it);
    while (v) {
        auto* rec = static_cast<UITimerRec*>(v);
        if (rec->id != id) {
            v = timer_list_iter_next(&it);
            continue;
        }
        if (data)
            *data = rec->data;
        timer_list_iter_remove(&it);
        timer_free(rec);
        found = true;
        v = timer_list_iter_begin(&gOneShot, &it);
    }
    pthread_mutex_unlock(&gListMutex);
    return found ? 0 : 1;
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
    pthread_mutex_lock(&gListMutex);
    if (timer_list_is_empty(&gPeriodic)) {
        pthread_mutex_unlock(&gListMutex);
        return 0;
    }
    bool found = false;
    timer_list_iter it;
    void* v = timer_list_iter_begin(&gPeriodic, &it);
    while (v) {
        auto* rec = static_cast<UITimerRec*>(v);
        if (rec->id != id) {
            v = timer_list_iter_next(&it);
            continue;
        }
        if (data)
            *data = rec->data;
        pthread_mutex_lock(&rec->lock);
        uint8_t state = rec->state;
        if (state == kQueued)
            rec->state = kCancelled;
        pthread_mutex_unlock(&rec->lock);
        if (state == kCancelled) {
            v = timer_list_iter_next(&it);
            continue;
        }
        found = true;
        timer_list_iter_remove(&it);
        if (state == kIdle) {
            // Not queued: nobody else refers to the record.
            pthread_mutex_destroy(&rec->lock);
            timer_free(rec);
        }  // queued: the timer thread frees it
        v = timer_list_iter_begin(&gPeriodic, &it);
    }
    pthread_mutex_unlock(&gListMutex);
    return found ? 0 : 1;
}

int UIDelPeriodicTimer_retDataPtr(uint32_t id, void** data) {
    if (id < 1)
        return 1;
    if (!data)
        return -1;
    pthread_mutex_lock(&gListMutex);
    if (timer_list_is_empty(&gPeriodic)) {
        pthread_mutex_unlock(&gListMutex);
        return 0;
    }
    bool found = false;
    timer_list_iter it;
    void* v = timer_list_iter_begin(&gPeriodic, &it);
    while (v) {
        auto* rec = static_cast<UITimerRec*>(v);
        if (rec->id != id) {
            v = timer_list_iter_next(&it);
            continue;
        }
        found = true;
        pthread_mutex_lock(&rec->lock);
        bool queued = rec->state == kQueued;
        if (queued)
            rec->state = kCancelled;
        pthread_mutex_unlock(&rec->lock);
        if (queued) {
            // Left in the list; the timer thread unlinks and frees it.
            v = timer_list_iter_next(&it);
            continue;
        }
        timer_list_iter_remove(&it);
        *data = rec->data;
        pthread_mutex_destroy(&rec->lock);
        timer_free(rec);
        v = timer_list_iter_begin(&gPeriodic, &it);
    }
    pthread_mutex_unlock(&gListMutex);
    return found ? 0 : 1;
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
    // One more unlock of the list mutex, which this thread does not hold: the
    // error-checking mutex refuses it with EPERM and nothing changes.
    // ThreadSanitizer reports any such call, so its builds leave it out.
#ifndef WHTTPD_TSAN
    pthread_mutex_unlock(&gListMutex);
#endif
    if (pthread_kill(gThread, 0) != 0) {
        wos_pk("the specified thread did not exists or already quit\n");
        return 0;
    }
    int rc = pthread_join(gThread, nullptr);
    gThread = pthread_t{};
    return rc;
}
