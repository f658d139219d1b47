// Failed-login table.  Records are made on the first failure of a user name
// and keep the account's retry limit and lock time of that moment.  Two
// properties are deliberate: failures beyond the limit do not move the fail
// time (they cannot extend a lock), and a lock that has run out leaves one
// failure on record.
#include "auth/retry_table.h"

#include <cstdint>
#include <cstring>
#include <list>
#include <mutex>
#include <new>

#include "auth/accounts.h"
#include "auth/session_events.h"
#include "base/platform.h"

namespace {

struct RetryRecord {
    char userName[64];
    uint32_t count;     // failures counted so far
    uint32_t limit;     // 0: never locked
    uint32_t lockTime;  // seconds
    uint32_t failTime;  // calendar seconds of the failure that last counted
};

std::mutex gRetryMutex;
std::list<RetryRecord> gRecords;  // guarded by gRetryMutex
time_t (*gClock)(time_t*) = time;

uint32_t now() {
    return static_cast<uint32_t>(gClock(nullptr));
}

// The account's retry limit and lock time; false when no account has the
// name.  The pseudo user for unknown names has fixed settings.
bool settingsOf(const char* user, uint32_t* limit, uint32_t* lockTime) {
    if (!strcmp(user, INVALID_ACCOUNT_NAME)) {
        *limit = 1;
        *lockTime = 300;
        return true;
    }
    std::shared_ptr<const WHttpAccountSet> accounts = wHttpAccounts();
    const WHttpAccount* account = accounts->find(user);
    if (!account)
        return false;
    *limit = account->retryTime;
    *lockTime = account->lockTime;
    return true;
}

void appendRecord(const char* user, uint32_t limit, uint32_t lockTime) {
    try {
        RetryRecord& r = gRecords.emplace_back();
        wos_strlcpy(r.userName, user, sizeof r.userName);
        r.count = 1;
        r.limit = limit;
        r.lockTime = lockTime;
        r.failTime = now();
    } catch (const std::bad_alloc&) {
        wos_pk("%s: Can't allocate memory for retryTable!!\n", "retryTableMgt");
    }
}

}  // namespace

unsigned isRestriction(const char* user) {
    std::lock_guard<std::mutex> lock(gRetryMutex);
    for (RetryRecord& r : gRecords) {
        if (strcmp(r.userName, user) != 0)
            continue;
        if (r.limit == 0)
            return 0;
        if (r.count < r.limit)
            continue;
        uint32_t elapsed = now() - r.failTime;
        if (elapsed < r.lockTime) {
            wos_pk("%s: This account is locked\n", "isRestriction");
            return r.lockTime - elapsed;
        }
        r.count = 1;
        return 0;
    }
    return 0;
}

bool retryTableLocked(const char* user) {
    std::lock_guard<std::mutex> lock(gRetryMutex);
    for (const RetryRecord& r : gRecords)
        if (!strcmp(r.userName, user) && r.limit != 0 && r.count >= r.limit)
            return now() - r.failTime < r.lockTime;
    return false;
}

namespace {

// Counts a failure; whether it is the one that locks the user.
bool countFailure(const char* user, uint32_t limit, uint32_t lockTime) {
    std::lock_guard<std::mutex> lock(gRetryMutex);
    for (RetryRecord& r : gRecords) {
        if (strcmp(r.userName, user) != 0)
            continue;
        ++r.count;
        if (r.count <= r.limit)
            r.failTime = now();
        return r.count == r.limit;
    }
    appendRecord(user, limit, lockTime);
    return limit == 1;
}

}  // namespace

void retryTableMgt(const char* action, const char* user) {
    if (!action || !user)
        return;
    uint32_t limit = 0, lockTime = 0;
    if (!settingsOf(user, &limit, &lockTime) || limit == 0)
        return;
    if (!strcmp(action, "set")) {
        // The user's sessions end with the lock, as their next request would.
        if (countFailure(user, limit, lockTime))
            wHttpSessionEnded("", user, WHTTP_END_LOCKED);
        return;
    }
    std::lock_guard<std::mutex> lock(gRetryMutex);
    if (!strcmp(action, "remove")) {
        for (auto it = gRecords.begin(); it != gRecords.end(); ++it) {
            if (!strcmp(it->userName, user)) {
                gRecords.erase(it);
                return;
            }
        }
    }
}

void retryTableSetClock(time_t (*clock)(time_t*)) {
    std::lock_guard<std::mutex> lock(gRetryMutex);
    gClock = clock ? clock : time;
}

void retryTableClear(void) {
    std::lock_guard<std::mutex> lock(gRetryMutex);
    gRecords.clear();
}
