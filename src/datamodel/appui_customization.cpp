// APPUICustomization: the customisation object of the client app's user
// interface, passed through from the configuration service.
#include <cstring>

#include "base/log.h"
#include "datamodel/value_handlers.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {
const int32_t kAppUiCustomizationOid = 63828;  // RDM_OID_A_P_P_U_I_CUSTOMIZATION
}

int wHttpAPPUICustomization(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "\t%s() Enter\n", __func__);
    const char* method = cg_http_request_getmethod(request);
    if (!method || strcmp(method, "GET") != 0)
        return 0;
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Success");
    objIndex_t iid{};
    json_object* list = nullptr;
    if (wcfgFeObjJsonGet(kAppUiCustomizationOid, &iid, &list) != WCFG_SUCCESS) {
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s get RDM_OID_A_P_P_U_I_CUSTOMIZATION fail ...\n", __func__);
        if (list)
            json_object_put(list);
        json_object_put(doc);
        return 0;
    }
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "customList = %s, %s %d \n", json_object_to_json_string(list),
         __func__, __LINE__);
    json_object_object_add(
        doc, "APPUICustomList",
        json_tokener_parse(json_object_to_json_string_ext(list, JSON_C_TO_STRING_PLAIN)));
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, 0);
    json_object_put(list);
    return 1;
}
