// The REST API's front: the URI table, in which each row says what its
// handler answers and which checks the request passes first, and the request
// listener that applies them.
#pragma once

#include <json-c/json.h>

#include <cstdint>

#include "http/cg_http.h"

// A URI handler: the request and the "chunked" and spare arguments.
typedef int (*WHttpUriHandler)(CgHttpRequest* request, uint8_t chunked, int spare);

// The methods a row's handler answers.
enum : uint8_t {
    kWHttpGet = 1,
    kWHttpPut = 2,
    kWHttpPost = 4,
    kWHttpDelete = 8,
    kWHttpAnyMethod = 0xff,
};

// The checks before the handler.
enum class WHttpAccess : uint8_t {
    // None, for this exact URI (a longer one that the row matches by prefix
    // is checked as Session).
    Open,
    // The login state (session cookie); PUT, POST and DELETE also need the
    // session's key in "sessionkey".
    Session,
    // As Session, and only POST and PUT with the key act (a device action).
    DeviceAction,
    // The login state only: the row writes nothing, asks for no key, and a
    // method it does not answer is refused as such.
    SessionRead,
};

// How a method the handler does not answer is answered.
enum class WHttpOtherMethod : uint8_t {
    Unanswered,     // no answer: the connection ends
    InvalidMethod,  // {"oper_status": "Invalid method"}
    InvalidKey,     // 403 "Invalid SessionKey"
};

// Whether a GET of the row is answered on the network thread that read it
// (it only computes its answer), or goes to a worker.
enum class WHttpQuick : uint8_t {
    No,
    Yes,
    ValueRead,  // a value GET of one object or table, unless its read may wait
};

struct WHttpUriRow {
    const char* name;  // matched as a prefix of what follows "/api/v1/"
    WHttpUriHandler handler;
    uint8_t methods;
    WHttpAccess access;
    // PUT, POST and DELETE run under the data-model request mutex, their
    // answer sent after its release.
    bool dataModelLock;
    WHttpOtherMethod otherMethod;
    WHttpQuick quickGet;
};

// The URI table, first row first, ended by a row without a name.
extern const WHttpUriRow gRestUriTable[];

// The row of a name (what follows "/api/v1/"): the first whose name it
// begins with, or nullptr.
const WHttpUriRow* wHttpFindUriRow(const char* name);

// What the request entry does with a request of `method` for `name` (what
// follows "/api/v1/"), decided from the URI table alone, before any check of
// the request itself.
struct WHttpUriPolicy {
    const WHttpUriRow* row = nullptr;  // nullptr: answered "Invalid URI" once admitted
    bool loginCheck = true;            // the login state is checked first
    // After the login check: refused with "Invalid SessionKey" whatever the
    // key (a device action asked with another method than POST or PUT).
    bool keyRefused = false;
    bool keyNeeded = false;  // the request's "sessionkey" must be its session's key
    // Once admitted: the row's handler does not answer the method, which is
    // answered as the row says instead.
    bool otherMethod = false;
    bool dataModelLock = false;  // the handler runs under the data-model mutex
};
WHttpUriPolicy wHttpUriPolicyOf(const char* name, const char* method);

// The method list: "/api/v1/<row>" for every row, in table order.
json_object* wHttpMethodList(void);
// The MethodList handler.
int wHttpGetMethodListHandle(CgHttpRequest* request, uint8_t chunked, int spare);

// Request listener of the HTTPS server.
void wHttpRequestReceived_RESTfulAPI(CgHttpRequest* request);
// The server's choice of requests it answers on its network threads.
bool wHttpRequestIsQuick(CgHttpRequest* request);

// Connects the layers below at start-up: the session key renewal of the
// response writer, the login answer's method list and the extended objects.
void wHttpRestInit(void);
