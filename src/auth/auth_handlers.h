// URI handlers of the front door: login, logout and account update.
#pragma once

#include <json-c/json.h>

#include <cstdint>

#include "http/cg_http.h"

// POST /api/v1/UserLogin with {"username", "password"}.
int wHttpUserLoginHandle(CgHttpRequest* request, uint8_t chunked, int spare);
// The method list that a successful login answers (the URI table's, given at
// start-up).
void wHttpLoginSetMethodList(json_object* (*methodList)(void));
// Reads the maximum number of logged-in sessions from the configuration
// (0: no limit); at start-up.
void wHttpReadMaxLoginAccounts(void);
// /api/v1/UserLogout: a POST ends the caller's session.  Returns 1 when a
// session was removed or the method was not POST, 0 when a POST found none.
int wHttpUserLogoutHandle(CgHttpRequest* request, uint8_t chunked, int spare);
// /api/v1/UserUpdate with {"old_username", "old_password", "new_username",
// "new_password"}: changes an account through the account editor.
int wHttpUserUpdateHandle(CgHttpRequest* request, uint8_t chunked, int spare);
