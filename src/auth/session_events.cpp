// The session-end hook: see session_events.h.
#include "auth/session_events.h"

#include <atomic>

namespace {
std::atomic<WHttpSessionEndHook> gHook{nullptr};
}

void wHttpSetSessionEndHook(WHttpSessionEndHook hook) {
    gHook = hook;
}

void wHttpSessionEnded(const char* sessionID, const char* user, const char* reason) {
    if (WHttpSessionEndHook hook = gHook.load())
        hook(sessionID ? sessionID : "", user ? user : "", reason);
}
