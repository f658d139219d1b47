// Request entry: every HTTPS request arrives here, on a thread of the HTTP
// server.  It checks the version prefix, finds the URI's row and applies the
// row's policy (the login state, the session key, the methods answered, the
// data-model request mutex) before calling the row's handler.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "auth/auth_handlers.h"
#include "auth/login_auth.h"
#include "auth/session.h"
#include "extobj/whttpd_extobj.h"
#include "base/platform.h"
#include "device/wcfg.h"
#include "context/response_writer.h"
#include "rest/whttpd_rest.h"
#include "webui/console_files.h"

namespace {

// Serialises every PUT, POST and DELETE of the rows that ask for it; reads
// run unlocked.
std::mutex gDataModelMutex;

// Whether the request's "sessionkey" is its session's key.
bool keyHeld(CgHttpRequest* request) {
    const char* key = cg_http_request_getparam(request, "sessionkey");
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    return key && ctx && checkSessionKey(ctx, platformParseInt(key)) == 1;
}

// The login state and key checks; false when the request was answered.
// Until its session is known a request may change nothing that the
// configuration service guards (the login configuration, trust domains).
bool admitted(WHttpReqCtx& ctx, const char* name, const WHttpUriPolicy& policy) {
    if (!policy.loginCheck)
        return true;
    const char* auth = wHttpLoginAuth(&ctx, 0, nullptr, 0);
    if (strcmp(auth, "Success") != 0) {
        wHttpdSessionFailHandle(auth, ctx.request);
        wos_pk("uri=%s authResult=%s\n", name, auth);
        return false;
    }
    wcfgFeSetCaller(ctx.group);
    if (policy.keyRefused || (policy.keyNeeded && !keyHeld(ctx.request))) {
        wHttpdSessionFailHandle("Invalid SessionKey", ctx.request);
        return false;
    }
    return true;
}

// A method that the row's handler does not answer.
void refuseMethod(CgHttpRequest* request, WHttpOtherMethod how) {
    if (how == WHttpOtherMethod::InvalidKey) {
        wHttpdSessionFailHandle("Invalid SessionKey", request);
    } else if (how == WHttpOtherMethod::InvalidMethod) {
        json_object* doc = json_object_new_object();
        wHttpSetOperStatus(doc, "Invalid method");
        wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
    }
}

void dispatch(CgHttpRequest* request, const WHttpUriPolicy& policy) {
    const WHttpUriRow& row = *policy.row;
    if (policy.otherMethod) {
        refuseMethod(request, row.otherMethod);
        return;
    }
    if (policy.dataModelLock) {
        WHttpHeldAnswer answer(request);  // posted after the unlock
        std::lock_guard<std::mutex> lock(gDataModelMutex);
        row.handler(request, 0, 0);
        return;
    }
    row.handler(request, 0, 0);
}

}  // namespace

void wHttpRequestReceived_RESTfulAPI(CgHttpRequest* request) {
    WHttpReqCtx ctx;
    ctx.request = request;
    wHttpAttachReqCtx(request, &ctx);
    const char* uri = cg_http_request_geturi(request);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() fullUri=%s\n", __func__, uri);
    // The web console's pages and files: every target that the API does not
    // route and that is not below "/api/".
    if (wHttpConsoleOwns(uri))
        return wHttpConsoleAnswer(request);
    // The first five characters ("/api/") are not examined.
    if (!uri || strlen(uri) < 8 || strncmp(uri + 5, "v1/", 3) != 0)
        return;
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "use restApiHandler_v1\n");
    const char* name = uri + 8;
    WHttpUriPolicy policy = wHttpUriPolicyOf(name, cg_http_request_getmethod(request));
    WcfgCallerScope caller(WCFG_CALLER_NONE);
    if (!admitted(ctx, name, policy))
        return;
    if (policy.row) {
        dispatch(request, policy);
        return;
    }
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Invalid URI");
    wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
}

void wHttpRestInit(void) {
    wHttpSetKeyRenewer(wHttpRenewSessionKey);
    wHttpLoginSetMethodList(wHttpMethodList);
    vxExtObjRegister();
}
