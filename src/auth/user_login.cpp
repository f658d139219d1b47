// The UserLogin handler: checks the user name and password of the body, opens
// or reuses the caller's login entry and answers the cookie, the session key
// and the method list.
#include <atomic>
#include <cstring>

#include "auth/access_check.h"
#include "auth/auth_handlers.h"
#include "auth/login_auth.h"
#include "auth/session.h"
#include "datamodel/oid_names.h"
#include "base/platform.h"
#include "context/response_writer.h"

namespace {

std::atomic<int> gMaxLoginAccounts{0};
std::atomic<json_object* (*)(void)> gMethodList{nullptr};

}  // namespace

void wHttpLoginSetMethodList(json_object* (*methodList)(void)) {
    gMethodList = methodList;
}

void wHttpReadMaxLoginAccounts(void) {
    JsonPtr cfg = wHttpGetObjectByName("RDM_OID_VX_LOG_CFG", true);
    json_object* v = nullptr;
    if (cfg && json_object_object_get_ex(cfg.get(), "MaximumLoginAccountNumber", &v))
        gMaxLoginAccounts = json_object_get_int(v);
}

int wHttpUserLoginHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    CgHttpResponse* response = cg_http_response_new();
    json_object* doc = json_object_new_object();

    int count = countLoginEntries();
    wos_pk(
        "Current amount of login user are = %d, Maximum number of login account is %d (0 means "
        "login account number is unlimited)\n",
        count, gMaxLoginAccounts.load());
    if (gMaxLoginAccounts != 0 && count >= gMaxLoginAccounts) {
        cg_http_response_setstatuscode(response, 401);
        wHttpSetOperStatus(doc, "Maximum number of login account has reached");
        wHttpJsonResponse_restapi(request, response, doc, 0, 0);
        return 1;
    }

    char lockInfo[32] = "";
    const char* result = wHttpLoginAuth(ctx, 1, lockInfo, sizeof lockInfo);
    if (strcmp(result, "Success") != 0) {
        if (lockInfo[0])
            WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() %s %s\n", __func__, result, lockInfo);
        wHttpdSessionFailHandle(result, request);
        cg_http_response_delete(response);
        json_object_put(doc);
        return 1;
    }

    if (wHttpCheckAccessPermission(request, ctx->userName) != 1) {
        cg_http_response_setstatuscode(response, 400);
        wHttpSetOperStatus(doc, "HTTP permission denied");
        wHttpJsonResponse_restapi(request, response, doc, 0, 0);
        return 1;
    }

    int32_t key = openLoginEntry(ctx);

    cg_http_response_setstatuscode(response, 200);
    setSessionCookie(ctx, response);
    json_object_object_add(doc, "sessionkey", json_object_new_int(key));
    wHttpSetOperStatus(doc, result);
    if (auto methodList = gMethodList.load())
        wHttpSetMethodList(doc, methodList());
    wHttpJsonResponse_restapi(request, response, doc, 0, 0);
    return 1;
}
