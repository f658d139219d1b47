// The session-end hook: see session_events.h.
#include "auth/session_events.h"

#include <atomic>

#include "base/log.h"

namespace {
std::atomic<WHttpSessionEndHook> gHook{nullptr};
}

void wHttpSetSessionEndHook(WHttpSessionEndHook hook) {
    gHook = hook;
}

// Logged without the session's id: the id is what a client presents to be
// that session.
void wHttpSessionEnded(const char* sessionID, const char* user, const char* reason) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "session of '%s' ended: %s\n", user ? user : "", reason);
    if (WHttpSessionEndHook hook = gHook.load())
        hook(sessionID ? sessionID : "", user ? user : "", reason);
}
