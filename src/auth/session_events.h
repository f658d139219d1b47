// How the layers above learn that a session has ended: logout, idle time-out,
// the session id shown from another client, or its user locked by failed
// logins.  The hook is told of the fact and nothing else; it runs on the
// thread that ended the session, possibly with the session table's lock
// held, so it must only take note and return.
#pragma once

// `sessionID` names one session, or is "" for every session of `user`.
using WHttpSessionEndHook = void (*)(const char* sessionID, const char* user, const char* reason);
void wHttpSetSessionEndHook(WHttpSessionEndHook hook);
// Tells the hook, if one is set.
void wHttpSessionEnded(const char* sessionID, const char* user, const char* reason);

// The reasons given.
#define WHTTP_END_LOGOUT "logout"
#define WHTTP_END_TIMEOUT "timeout"
#define WHTTP_END_LOCKED "account locked"
#define WHTTP_END_DISABLED "account disabled"
#define WHTTP_END_PASSWORD "password changed"
#define WHTTP_END_REMOVED "account removed"
#define WHTTP_END_ELSEWHERE "session ended"
