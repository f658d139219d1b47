// MethodList: the daemon's REST URIs.
#include <cstdio>
#include <cstring>

#include "daemon/whttpd.h"
#include "datamodel/value_handlers.h"
#include "rest/whttpd_rest.h"

json_object* wHttpMethodList(void) {
    json_object* list = json_object_new_array();
    for (const WHttpUriRow* row = gRestUriTable; row->name; ++row) {
        if (row->name[0] == '/')
            continue;
        char uri[128];
        snprintf(uri, sizeof uri, "%s%s%s", "/api/", "v1/", row->name);
        json_object_array_add(list, json_object_new_string(uri));
    }
    return list;
}

int wHttpGetMethodListHandle(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    const char* method = cg_http_request_getmethod(request);
    if (!method || strcmp(method, "GET") != 0)
        return 0;
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Success");
    wHttpSetMethodList(doc, wHttpMethodList());
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, 0);
    return 1;
}
