// Session table: one login entry per logged-in client, each with an idle
// timer in the timer service.
//
// Request threads, the timer thread (idle time-outs) and the main thread
// (data-model notice, dump) all reach the table.  Every operation takes the
// session-table mutex, so an entry freed by its idle timer is never read
// afterwards; entries themselves never leave session_table.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "http/cg_http.h"
#include "context/request_context.h"

#define SESSION_ID_LEN 32

// Fills `out` (33 bytes) with a new session id of 32 characters from the
// 62-character alphabet, drawn from OpenSSL's random generator.
void genSessionID(char* out);
// A new session key, 1 to 999,999,999, from the same generator.
int32_t getSessionKey(void);

// At login: finds the caller's entry (client and local address, the
// context's user and session id) or adds one and puts its session id into
// the context; restarts a timed-out entry's timer; gives the entry a new
// session key and returns it.
int32_t openLoginEntry(WHttpReqCtx* ctx);

// A session as a long-lived answer (an event stream) holds on to it: who
// opened it, from where, and the account's password line at that moment.
struct WHttpSessionRef {
    std::string user, sessionID, remote, local, shadow;
    int group = 0;
};
// Whether the session's login entry is there and not timed out; unlike the
// check of a request it does not restart the idle timer.
bool wHttpLoginEntryAlive(const WHttpSessionRef& ref);

// Number of login entries.
int countLoginEntries(void);
// 1 when an entry has both the user name and the session id.
int isLoginEntryExist(const char* user, const char* sessionID);
// 1 when the caller's entry (client and local address, user name, session id)
// holds `key`.
int checkSessionKey(WHttpReqCtx* ctx, int32_t key);
// Stores a renewed session key in the caller's entry, if there is one.
void storeSessionKey(CgHttpRequest* request, int32_t key);
// A new key, stored in the caller's entry: the response writer's renewal.
int32_t wHttpRenewSessionKey(CgHttpRequest* request);
// -1 no user/session or no entry, 0 alive (timer restarted with the
// account's `idleTime`, at least five minutes), 1 timed out, 2 presented
// from another client address (the entry is removed).
int checkLoginEntry(WHttpReqCtx* ctx, int idleTime);
// Removes the caller's entry at logout: 1 removed, 0 not found.
int delLoginEntry(WHttpReqCtx* ctx);
// The user name of the entry whose session id equals the request's "Session"
// cookie; "" when there is none.
std::string getCookieUser(CgHttpRequest* request);
// Idle-timer callback (timer thread).
int loginTimeoutHandle(uint32_t id, void* data);
// Re-arms the idle timer of every entry with its account's idle time (the
// data model changed).
void updateLoginTimer(void);
// Adds "Set-Cookie: Session=...".
void setSessionCookie(WHttpReqCtx* ctx, CgHttpResponse* response);
// Prints the table on the console.
void dumpLoginEntry(void);

// Daemon-wide values beside the table.
void setCurrentUserName(const char* user);
void setCurrentSessionID(const char* sessionID);
std::string currentSessionID(void);
