// The answers of the daemon: the setters of the response document, the JSON
// response writer that every handler answers through, the answer held back
// while a write holds its lock, and the authentication-failure answer.
#pragma once

#include <json-c/json.h>

#include <cstdint>
#include <string>

#include "http/cg_http.h"
#include "context/request_context.h"

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
// The text of an answer document as the writer sends it (HTML encoding of
// "Object" when on, compact or spaced): the document is changed by it.
std::string wHttpAnswerText(json_object* doc);
// What the text of an answer depends on besides its document: the output
// switches (compact, HTML encoding), as one number.
uint32_t wHttpAnswerForm(void);
// Answers a text that wHttpAnswerText made (of a read: no key renewal).
void wHttpJsonTextResponse_restapi(CgHttpRequest* request, std::string text, uint8_t chunked);
// The header of a value read's answer that names the last change it shows:
// an event stream opened with it as its Last-Event-ID (or lastEventId)
// misses no later change and repeats no earlier one.
extern const char kWHttpEventIdHeader[];
// A value read's answer: the text, with the change journal's position the
// read began at.
void wHttpValueReadResponse(CgHttpRequest* request, std::string text, uint8_t chunked,
                            uint64_t position);
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

// The authentication-failure answer for a result text ("Timeout" 504,
// "Internal Error" 500, "Invalid SessionKey" 403, anything else 401).
void wHttpdSessionFailHandle(const char* result, CgHttpRequest* request);

// The session key that a renewal gives the caller's session: set by the
// session table at start-up (renewal leaves "sessionkey" out until then).
using WHttpKeyRenewer = int32_t (*)(CgHttpRequest* request);
void wHttpSetKeyRenewer(WHttpKeyRenewer renewer);

// Output switches, both off at start: compact serialisation (toggled by
// SIGUSR2; async-signal-safe) and HTML encoding of the strings under
// "Object" (on only when set to exactly 1).
void wHttpToggleCompactOutput(void);
void wHttpSetHtmlEncode(uint8_t value);
uint8_t wHttpHtmlEncodeSwitch(void);
// HTML-encodes, in place, the string values of an object or array (when the
// switch is on).
void wHttpHtmlEncode(json_object* value);
