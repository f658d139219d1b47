// Login authentication.
#pragma once

#include <cstddef>

#include "rest/whttpd_rest.h"

// Checks a request against the login accounts: in login mode (1) the body's
// user name and password, in session mode (0) the request's session cookie.
// Returns a result text: "Success", "Invalid Username", "Invalid Password",
// "Invalid Session ID", "InitLogin", "Locked User", "Timeout" or
// "Internal Error".
const char* wHttpLoginAuth(WHttpReqCtx* ctx, int loginMode, char* buf, size_t size);
