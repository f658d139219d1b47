// The core of the daemon: request entry and URI table, JSON response writer
// and its setters.
#pragma once

#include <string>

#include <json-c/json.h>

#include <cstdint>

#include "platform/http/cg_http.h"
#include "platform/json_util.h"

// Per-request context, attached to the request by the request entry.
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

// The context of a request (created by the request entry).
WHttpReqCtx* wHttpReqCtx(CgHttpRequest* request);

// A URI handler: the request and the "chunked" and spare arguments.
typedef int (*WHttpUriHandler)(CgHttpRequest* request, uint8_t chunked, int spare);

struct WHttpUriRow {
    const char* name;
    WHttpUriHandler handler;
};

// The URI table, ended by a row without a name.
extern const WHttpUriRow gRestUriTable[];

// Request listener of the HTTPS server.
void wHttpRequestReceived_RESTfulAPI(CgHttpRequest* request);
// Authentication-failure response for a result text.
void wHttpdSessionFailHandle(const char* result, CgHttpRequest* request);
// General and device-action session-key checks: 1 pass, 0 fail.
int wHttpCheckSessionKey(const char* uriName, CgHttpRequest* request);
int wHttpCheckDeviceActionSessionKey(const char* uriName, CgHttpRequest* request);

// Response document setters.
int wHttpSetOperStatus(json_object* doc, const char* text);
void wHttpSetObject(json_object* doc, json_object* value);
void wHttpArrayAppend(json_object* array, json_object* value);
void wHttpSetRequestedPath(json_object* doc, const char* path);
void wHttpSetMethodList(json_object* doc, json_object* value);

// Writes the answer: headers, session-key renewal after modifying requests,
// HTML encoding, serialisation, 400 for a bad firmware image, plain or
// chunked body.  Takes ownership of `response` (may be null) and `doc`.
void wHttpJsonResponse_restapi(CgHttpRequest* request, CgHttpResponse* response, json_object* doc,
                               uint8_t chunked, uint8_t renewSessionKey);
// Hands a built answer to the connection and frees its response.
void wHttpPostAnswer(CgHttpRequest* request, WHttpAnswer& answer);
// Hands the answer held for the request (if any) to the connection now.
void wHttpPostHeldAnswer(CgHttpRequest* request);

// Holds the answers written during its life in the request's context and
// posts them when it ends; declared before the lock it outlives.
class WHttpHeldAnswer {
  public:
    explicit WHttpHeldAnswer(CgHttpRequest* request);
    ~WHttpHeldAnswer();
    WHttpHeldAnswer(const WHttpHeldAnswer&) = delete;
    WHttpHeldAnswer& operator=(const WHttpHeldAnswer&) = delete;

  private:
    CgHttpRequest* request_;
    WHttpAnswer answer_;
};

// HTML-encodes, in place, the string values of an object or array.
void wHttpHtmlEncode(json_object* value);
