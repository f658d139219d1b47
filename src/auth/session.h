// Session table: one login entry per logged-in client.
#pragma once

#include <cstdint>

#include "platform/http/cg_http.h"

// Stores a renewed session key in the caller's session (the entry that
// matches the connection's addresses and the request's user and session id).
void storeSessionKey(CgHttpRequest* request, int32_t key);
// The user name of the entry whose session id equals the request's
// "Session" cookie, or nullptr.
const char* getCookieUser(CgHttpRequest* request);
// Prints the table on the console.
void dumpLoginEntry(void);
// Re-arms the idle timer of every entry (the data model changed).
void updateLoginTimer(void);
