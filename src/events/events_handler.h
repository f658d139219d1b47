// GET /api/v1/Events: opens a server-sent event stream of the session's
// changes (event_hub.h).  The URI row admits GET only, after the login-state
// check of every URI; no session key, since nothing is written.
#pragma once

#include <cstdint>

#include "http/cg_http.h"

int wHttpEventsHandle(CgHttpRequest* request, uint8_t chunked, int spare);
