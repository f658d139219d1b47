// The context of one REST request: who is asking (filled in by the session
// check), the login body parsed once, and the answer a write holds back until
// its lock is released.  The request entry creates it; every layer above
// reads it through wHttpReqCtx().
#pragma once

#include <cstdint>
#include <string>

#include "http/cg_http.h"
#include "base/json_util.h"

// An answer built but not yet handed to the connection.
struct WHttpAnswer {
    CgHttpResponse* response = nullptr;
    std::string text;
    bool chunked = false;
};

struct WHttpReqCtx {
    CgHttpRequest* request = nullptr;
    // While set, the response writer builds the answer into it instead of
    // posting it: a write builds its answer under the data-model request
    // mutex and posts it after the mutex is released (WHttpHeldAnswer).
    WHttpAnswer* heldAnswer = nullptr;
    char userName[32] = "";
    char sessionID[33] = "";
    char privilege[16] = "";
    int group = 0;  // login group of the session (1 high, 2 medium, 3 low); 0 until known
    // The request body as JSON, parsed once for every account a login is
    // checked against.
    JsonPtr loginBody;
    bool loginBodyParsed = false;
    int changeDefaultPassword = 0;
    int showSkipButton = 0;
    int quickStart = 0;
};

// Attaches `ctx` to its request (the request entry does, before anything
// else runs).
void wHttpAttachReqCtx(CgHttpRequest* request, WHttpReqCtx* ctx);
// The context of a request, or nullptr outside the request entry.
WHttpReqCtx* wHttpReqCtx(CgHttpRequest* request);
