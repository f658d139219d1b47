// Login authentication: the account checks shared by the login handler and
// the session check of every other request.
#pragma once

#include <json-c/json.h>

#include <cstddef>

#include "auth/session.h"
#include "context/request_context.h"

// Checks a request against the login accounts: in login mode (1) the body's
// user name and password, in session mode (0) the request's session cookie.
// Returns a result text: "Success", "Invalid Username", "Invalid Password",
// "Invalid Session ID", "InitLogin", "Locked User", "Timeout" or
// "Internal Error".  For "Locked User", "AfterLockTime=<seconds left>" is
// written into `buf` when one is given.
const char* wHttpLoginAuth(WHttpReqCtx* ctx, int loginMode, char* buf, size_t size);

// Checks the login body against one account: 0 match, 1 wrong or missing
// user name, 2 wrong or missing password, 3 no body.
int authLoginBody(CgHttpRequest* request, const char* user, const char* hash);

// The hash field of the account's "shadow" line (newly allocated, free()),
// or nullptr when the account has no shadow line.
char* jsonGetPassword(json_object* account);

// Whether a session that an event stream holds on to may go on: nullptr, or
// why it ended (session_events.h).  Changes nothing: no timer restarts, no
// failure is counted.  `group`, when given, receives the login group the
// session's account has now (its requests are checked as that group).
const char* wHttpSessionEndReason(const WHttpSessionRef& ref, int* group = nullptr);
