// The UserLogout handler.
#include <cstring>

#include "auth/auth_handlers.h"
#include "auth/session.h"
#include "base/log.h"
#include "context/response_writer.h"

int wHttpUserLogoutHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    int ret = 1;
    const char* method = cg_http_request_getmethod(request);
    if (method && !strcmp(method, "POST"))
        ret = delLoginEntry(wHttpReqCtx(request));
    // Answered "Success" whether or not a session was found.
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Success");
    wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
    return ret;
}
