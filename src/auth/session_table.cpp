// Session table: login entries, session ids and keys, idle timers, the
// session cookie.
#include <openssl/rand.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <mutex>

#include "auth/accounts.h"
#include "auth/retry_table.h"
#include "auth/session.h"
#include "auth/session_events.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "timer/uitimer.h"
#include "base/platform.h"

// One logged-in client.
struct LoginEntry {
    char remoteHost[48];  // client address at login
    char localHost[48];   // server address the login arrived on
    uint8_t reserved[32];
    char userName[64];
    uint8_t timeout;  // 1 once the idle timer fired
    uint32_t timerID;
    char sessionID[SESSION_ID_LEN + 1];
    int32_t sessionKey;
    uint8_t flag1;
    uint8_t flag2;
    // Identifies the entry to its idle timer: the timer's data is this
    // number, never the entry's address, so a late timer cannot reach a
    // freed entry.
    uint64_t serial;
};

namespace {

const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
const int kMinIdleSeconds = 300;
// Guards session-id generation.
std::mutex gSessionKeyMutex;

// The session-table mutex guards the table and the serial numbers of its
// entries; the list keeps entries at fixed addresses until they are erased.
// Where it is taken with the timer service's list mutex, it comes first.
std::mutex gSessionTableMutex;
std::list<LoginEntry> gTable;
uint64_t gNextSerial = 0;

// Current user name and session id of the daemon, written by every request
// thread.
std::mutex gCurrentMutex;
char gCurrentUserName[17] = "";
char gCurrentSessionID[SESSION_ID_LEN + 1] = "";

const char* remoteOf(WHttpReqCtx* ctx) {
    return cg_http_request_getremoteaddress(ctx->request);
}
const char* localOf(WHttpReqCtx* ctx) {
    return cg_http_request_getlocaladdress(ctx->request);
}

// The entry of all four: client address, local address, user, session id.
std::list<LoginEntry>::iterator findExact(WHttpReqCtx* ctx, const char* user, const char* sid) {
    const char* remote = remoteOf(ctx);
    const char* local = localOf(ctx);
    for (auto it = gTable.begin(); it != gTable.end(); ++it) {
        if (!strcmp(it->remoteHost, remote) && !strcmp(it->localHost, local) &&
            !strcmp(it->userName, user) && !strcmp(it->sessionID, sid))
            return it;
    }
    return gTable.end();
}

void* timerData(const LoginEntry* entry) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(entry->serial));
}

// An idle time in seconds raised to the five-minute floor.
int idleFloor(int idle) {
    return idle < kMinIdleSeconds ? kMinIdleSeconds : idle;
}

// The idle time of a user's account; looked up before the table is locked.
int idleSecondsOf(const WHttpAccountSet& set, const char* user) {
    const WHttpAccount* a = set.find(user);
    return idleFloor(a ? a->idleTime : 0);
}

}  // namespace

namespace {

// Random bytes from OpenSSL's generator; a generator that fails is a device
// that must not hand out sessions.
void randomBytes(unsigned char* buf, int n) {
    for (int attempt = 0; attempt < 3; ++attempt)
        if (RAND_bytes(buf, n) == 1)
            return;
    wlog_syslog(LOG_ERR, "no random numbers for session ids and keys\n");
    abort();
}

// A uniform random number below `bound` (at most 2^31): bytes that would
// favour the low values are drawn again.
uint32_t randomBelow(uint32_t bound) {
    const uint32_t limit = UINT32_MAX - UINT32_MAX % bound;
    for (;;) {
        uint32_t v;
        randomBytes(reinterpret_cast<unsigned char*>(&v), sizeof v);
        if (v < limit)
            return v % bound;
    }
}

}  // namespace

void genSessionID(char* out) {
    memset(out, 0, SESSION_ID_LEN + 1);
    std::lock_guard<std::mutex> lock(gSessionKeyMutex);
    unsigned char bytes[SESSION_ID_LEN * 2];
    int filled = 0;
    while (filled < SESSION_ID_LEN) {
        randomBytes(bytes, sizeof bytes);
        // 248 = 4 x 62: the bytes below it map evenly onto the alphabet.
        for (size_t i = 0; i < sizeof bytes && filled < SESSION_ID_LEN; ++i)
            if (bytes[i] < 248)
                out[filled++] = kAlphabet[bytes[i] % 62];
    }
}

int32_t getSessionKey(void) {
    // The range a client has always seen: 1 to 999,999,999.
    return static_cast<int32_t>(randomBelow(999999999u) + 1);
}

namespace {
// The building blocks below run with the session-table mutex held.

void setLoginTimer(LoginEntry* entry, int idleSeconds) {
    uint64_t ms = static_cast<uint64_t>(idleSeconds) * 1000;
    if (ms > UINT32_MAX)
        ms = UINT32_MAX;
    entry->timerID = static_cast<uint32_t>(
        UITimerStart(static_cast<uint32_t>(ms), loginTimeoutHandle, timerData(entry)));
}

void resetLoginTimer(LoginEntry* entry, int idleSeconds) {
    UITimerStop(entry->timerID);
    setLoginTimer(entry, idleSeconds);
}

}  // namespace

int loginTimeoutHandle(uint32_t id, void* data) {
    uint64_t serial = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(data));
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (auto it = gTable.begin(); it != gTable.end(); ++it) {
        // A timer that was re-armed or whose entry is gone has nothing to end.
        if (it->serial == serial && it->timerID == id) {
            it->timeout = 1;
            wHttpSessionEnded(it->sessionID, it->userName, WHTTP_END_TIMEOUT);
            gTable.erase(it);
            break;
        }
    }
    return 0;
}

namespace {

LoginEntry* findLoginEntry(WHttpReqCtx* ctx, const char* user, const char* sessionID) {
    auto it = findExact(ctx, user ? user : "", sessionID ? sessionID : "");
    return it == gTable.end() ? nullptr : &*it;
}

LoginEntry* addLoginEntry(WHttpReqCtx* ctx, const char* user, int idleSeconds) {
    wos_pk("%s(): Add this account to login entry\n", "addLoginEntry");
    LoginEntry& entry = gTable.emplace_back();
    memset(&entry, 0, sizeof entry);
    entry.serial = ++gNextSerial;
    wos_strlcpy(entry.userName, user, sizeof entry.userName);
    wos_strlcpy(entry.remoteHost, remoteOf(ctx), sizeof entry.remoteHost);
    wos_strlcpy(entry.localHost, localOf(ctx), sizeof entry.localHost);
    entry.timeout = 0;
    genSessionID(entry.sessionID);
    entry.flag1 = 0;
    entry.flag2 = 0;
    setCurrentSessionID(entry.sessionID);
    setLoginTimer(&entry, idleSeconds);
    wlog_syslog(LOG_INFO, "Account: User '%s' login from the host(%s).\n", entry.userName,
                entry.remoteHost);
    return &entry;
}

}  // namespace

int32_t openLoginEntry(WHttpReqCtx* ctx) {
    int idle = idleSecondsOf(*wHttpAccounts(), ctx->userName);
    int32_t key = getSessionKey();
    bool added = false;
    {
        std::lock_guard<std::mutex> lock(gSessionTableMutex);
        LoginEntry* entry = findLoginEntry(ctx, ctx->userName, ctx->sessionID);
        if (!entry) {
            entry = addLoginEntry(ctx, ctx->userName, idle);
            wos_strlcpy(ctx->sessionID, entry->sessionID, sizeof ctx->sessionID);
            added = true;
        }
        if (entry->timeout) {
            entry->timeout = 0;
            setLoginTimer(entry, idle);
        }
        entry->sessionKey = key;
        memset(entry->reserved, 0, sizeof entry->reserved);
    }
    // A new login forgets the user's failures.
    if (added)
        retryTableMgt("remove", ctx->userName);
    return key;
}

bool wHttpLoginEntryAlive(const WHttpSessionRef& ref) {
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (const LoginEntry& e : gTable)
        if (!strcmp(e.remoteHost, ref.remote.c_str()) && !strcmp(e.localHost, ref.local.c_str()) &&
            !strcmp(e.userName, ref.user.c_str()) && !strcmp(e.sessionID, ref.sessionID.c_str()))
            return e.timeout == 0;
    return false;
}

int countLoginEntries(void) {
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    return static_cast<int>(gTable.size());
}

int isLoginEntryExist(const char* user, const char* sessionID) {
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (const LoginEntry& e : gTable) {
        if (!strcmp(e.userName, user) && !strcmp(e.sessionID, sessionID))
            return 1;
    }
    return 0;
}

int checkSessionKey(WHttpReqCtx* ctx, int32_t key) {
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    auto it = findExact(ctx, ctx->userName, ctx->sessionID);
    return (it != gTable.end() && it->sessionKey == key) ? 1 : 0;
}

int32_t wHttpRenewSessionKey(CgHttpRequest* request) {
    int32_t key = getSessionKey();
    storeSessionKey(request, key);
    return key;
}

void storeSessionKey(CgHttpRequest* request, int32_t key) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    if (!ctx)
        return;
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    auto it = findExact(ctx, ctx->userName, ctx->sessionID);
    if (it != gTable.end())
        it->sessionKey = key;
}

int checkLoginEntry(WHttpReqCtx* ctx, int idleTime) {
    if (!ctx->userName[0] || !ctx->sessionID[0])
        return -1;
    int idle = idleFloor(idleTime);
    const char* remote = remoteOf(ctx);
    const char* local = localOf(ctx);
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (auto it = gTable.begin(); it != gTable.end(); ++it) {
        if (strcmp(it->localHost, local) || strcmp(it->userName, ctx->userName) ||
            strcmp(it->sessionID, ctx->sessionID))
            continue;
        if (strcmp(it->remoteHost, remote) != 0) {
            // The session id was presented from another host: the session ends.
            UITimerStop(it->timerID);
            wHttpSessionEnded(it->sessionID, it->userName, WHTTP_END_ELSEWHERE);
            gTable.erase(it);
            return 2;
        }
        if (it->timeout == 1) {
            setCurrentSessionID("");
            wlog_syslog(LOG_INFO,
                        "Account: User '%s' from the host(%s) will be logout because session is "
                        "timeout.\n",
                        it->userName, it->remoteHost);
            gTable.erase(it);
            return 1;
        }
        resetLoginTimer(&*it, idle);
        return 0;
    }
    return -1;
}

int delLoginEntry(WHttpReqCtx* ctx) {
    if (!ctx->userName[0] || !ctx->sessionID[0])
        return 0;
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    setCurrentSessionID(ctx->sessionID);
    auto it = findExact(ctx, ctx->userName, ctx->sessionID);
    if (it == gTable.end())
        return 0;
    UITimerStop(it->timerID);
    setCurrentSessionID("");
    wlog_syslog(LOG_INFO, "Account: User '%s' Session ID = %s : logout from the host(%s).\n",
                it->userName, it->sessionID, it->remoteHost);
    wHttpSessionEnded(it->sessionID, it->userName, WHTTP_END_LOGOUT);
    gTable.erase(it);
    return 1;
}

std::string getCookieUser(CgHttpRequest* request) {
    const char* sid = cg_http_request_getcookie(request, "Session");
    if (!sid || !*sid)
        return "";
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (const LoginEntry& e : gTable) {
        if (!strcmp(e.sessionID, sid))
            return e.userName;
    }
    return "";
}

void updateLoginTimer(void) {
    wlog_syslog(LOG_INFO, "data model change, update login timer.\n");
    std::shared_ptr<const WHttpAccountSet> accounts = wHttpAccounts();
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (LoginEntry& e : gTable) {
        if (e.timeout != 1)
            resetLoginTimer(&e, idleSecondsOf(*accounts, e.userName));
    }
}

void setSessionCookie(WHttpReqCtx* ctx, CgHttpResponse* response) {
    char cookie[256];
    snprintf(cookie, sizeof cookie, "Session=%s; path=/; HttpOnly; SameSite=Strict",
             ctx->sessionID);
    cg_http_response_addheader(response, "Set-Cookie", cookie);
}

void dumpLoginEntry(void) {
    const char* rule = "========================================\n";
    std::lock_guard<std::mutex> lock(gSessionTableMutex);
    for (const LoginEntry& e : gTable) {
        wos_pk("%s", rule);
        wos_pk("userName=%s\n", e.userName);
        wos_pk("remoteHost=%s\n", e.remoteHost);
        wos_pk("localHost=%s\n", e.localHost);
        wos_pk("timeout=%d\n", e.timeout);
        wos_pk("timerID=%d\n", static_cast<int>(e.timerID));
        wos_pk("sessionID=%s\n", e.sessionID);
        wos_pk("sessionKey=%d\n", e.sessionKey);
    }
    wos_pk("%s", rule);
}

void setCurrentUserName(const char* user) {
    std::lock_guard<std::mutex> lock(gCurrentMutex);
    wos_strlcpy(gCurrentUserName, user, sizeof gCurrentUserName);
}

void setCurrentSessionID(const char* sessionID) {
    std::lock_guard<std::mutex> lock(gCurrentMutex);
    wos_strlcpy(gCurrentSessionID, sessionID, sizeof gCurrentSessionID);
}

std::string currentSessionID(void) {
    std::lock_guard<std::mutex> lock(gCurrentMutex);
    return gCurrentSessionID;
}
