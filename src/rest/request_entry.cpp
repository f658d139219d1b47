// Request entry: every HTTPS request arrives here, on a thread of the HTTP
// server.  It checks the version prefix, the caller's login and, for
// modifying requests, the session key, then calls the handler that the URI
// table names.
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth/auth_handlers.h"
#include "auth/login_auth.h"
#include "auth/session.h"
#include "datamodel/value_handlers.h"
#include "rest/device_actions.h"
#include "rest/fota.h"
#include "platform/store/wcfg.h"
#include "daemon/whttpd.h"
#include "rest/whttpd_rest.h"

// Rows are matched by prefix, first row first, so their order matters.
const WHttpUriRow gRestUriTable[] = {
    {"UserLogin", wHttpUserLoginHandle},
    {"UserLogout", wHttpUserLogoutHandle},
    {"MethodList", wHttpGetMethodListHandle},
    {"Reboot", wHttpRebootHandle},
    {"MeshReboot", wHttpMeshRebootHandle},
    {"MeshResetAllSetting", wHttpMeshResetAllSettingHandle},
    {"UserUpdate", wHttpUserUpdateHandle},
    {"APPUICustomization", wHttpAPPUICustomization},
    {"TR181/Value/", wHttpTR181ValueHandle},
    // Never reached: "TR181/Value/" is a prefix of it; same handler.
    {"TR181/Value/MultiObjects", wHttpTR181ValueHandle},
    {"TR181/SupportedDM/", wHttpTR181SupportedDMHandle},
    // Before "FOTA", of which it is an extension.
    {"FOTA?action=online", wHttpOnlineFirmwareUpgradeHandle_FOTA},
    {"FOTA", wHttpOnlineFirmwareUpgradeCheck_FOTA},
    {nullptr, nullptr},
};

namespace {
const char* const kUserLogin = "UserLogin";

bool modifying(const char* method) {
    return method &&
           (!strcmp(method, "POST") || !strcmp(method, "PUT") || !strcmp(method, "DELETE"));
}

// Whether the caller's session holds `key`.
bool sessionHoldsKey(CgHttpRequest* request, int32_t key) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    return ctx && checkSessionKey(ctx, key) == 1;
}

int keyCheck(CgHttpRequest* request) {
    const char* key = cg_http_request_getparam(request, "sessionkey");
    if (!key)
        return 0;
    return sessionHoldsKey(request, atoi(key)) ? 1 : 0;
}
}  // namespace

WHttpReqCtx* wHttpReqCtx(CgHttpRequest* request) {
    return static_cast<WHttpReqCtx*>(cg_http_request_getuserdata(request));
}

int wHttpCheckSessionKey(const char* uriName, CgHttpRequest* request) {
    if (uriName && !strcmp(uriName, kUserLogin))
        return 1;
    if (!modifying(cg_http_request_getmethod(request)))
        return 1;
    return keyCheck(request);
}

int wHttpCheckDeviceActionSessionKey(const char* uriName, CgHttpRequest* request) {
    if (uriName && !strcmp(uriName, kUserLogin))
        return 0;
    const char* method = cg_http_request_getmethod(request);
    if (!method || (strcmp(method, "POST") && strcmp(method, "PUT")))
        return 0;
    return keyCheck(request);
}

void wHttpdSessionFailHandle(const char* result, CgHttpRequest* request) {
    if (!result)
        result = "unknown";
    wos_pk("%s() authResult=%s\n", __func__, result);
    int status = 401;
    if (!strcmp(result, "Timeout"))
        status = 504;
    else if (!strcmp(result, "Internal Error"))
        status = 500;
    else if (!strcmp(result, "Invalid SessionKey"))
        status = 403;
    const char* text = result;
    // A client must not learn which of the three it was.
    if (!strcmp(result, "Invalid Username") || !strcmp(result, "Invalid Password") ||
        !strcmp(result, "Locked User"))
        text = "Invalid Username or Password";
    json_object* doc = json_object_new_object();
    json_object_object_add(doc, "oper_status", json_object_new_string(text));
    const char* body = json_object_to_json_string(doc);
    CgHttpResponse* response = cg_http_response_new();
    cg_http_response_setstatuscode(response, status);
    cg_http_response_setheader(response, "Content-Type", "application/json");
    cg_http_response_setcontent(response, body, strlen(body));
    cg_http_response_setheader(response, "Content-Length", std::to_string(strlen(body)).c_str());
    cg_http_request_postresponse(request, response);
    cg_http_response_delete(response);
    json_object_put(doc);
}

void wHttpRequestReceived_RESTfulAPI(CgHttpRequest* request) {
    WHttpReqCtx ctx;
    ctx.request = request;
    cg_http_request_setuserdata(request, &ctx);
    const char* uri = cg_http_request_geturi(request);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() fullUri=%s\n", __func__, uri);
    // The first five characters ("/api/") are not examined.
    if (!uri || strlen(uri) < 8 || strncmp(uri + 5, "v1/", 3) != 0)
        return;
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "use restApiHandler_v1\n");
    const char* name = uri + 8;
    // Until its session is known a request may change nothing that the
    // configuration service guards (the login configuration, trust domains).
    WcfgCallerScope caller(WCFG_CALLER_NONE);
    if (strcmp(name, kUserLogin) != 0) {
        const char* auth = wHttpLoginAuth(&ctx, 0, nullptr, 0);
        if (strcmp(auth, "Success") != 0) {
            wHttpdSessionFailHandle(auth, request);
            wos_pk("uri=%s authResult=%s\n", name, auth);
            return;
        }
        wcfgFeSetCaller(ctx.group);
    }
    if (!wHttpCheckSessionKey(name, request)) {
        wHttpdSessionFailHandle("Invalid SessionKey", request);
        return;
    }
    for (const WHttpUriRow* row = gRestUriTable; row->name; ++row) {
        if (strncmp(name, row->name, strlen(row->name)) == 0) {
            row->handler(request, 0, 0);
            return;
        }
    }
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Invalid URI");
    wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
}
