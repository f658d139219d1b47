#include "datamodel/return_codes.h"

#include "platform/log.h"
#include "platform/store/wcfg.h"
#include "rest/context/response_writer.h"

namespace {
// Index k names code k - 22.
const char* const kRetCodeNames[31] = {
    "WCFG_RET_OFFSET",
    "WCFG_DELETE_REJECT",
    "WCFG_REQUEST_REJECT",
    "WCFG_REQUEST_POSTPONED",
    "WCFG_INVALID_OBJECT",
    "WCFG_INVALID_PARAM_VALUE",
    "WCFG_INVALID_PARAM_VALUE_LENGTH",
    "WCFG_INVALID_IMAGE",
    "WCFG_INVALID_ARGUMENTS",
    "WCFG_SET_READ_ONLY_PARAM",
    "WCFG_EXCEED_MAX_INS_NUM",
    "WCFG_INS_CREATE_ERR",
    "WCFG_NOT_INSTANCE",
    "WCFG_SET_ATTR_ERROR",
    "WCFG_INVALID_FORMAT",
    "WCFG_NOT_FOUND",
    "WCFG_NO_SUCH_OBJECT",
    "WCFG_INTERNAL_ERROR",
    "WCFG_NO_SUCH_PARAMETER",
    "WCFG_ERROR_PARAMETER_TYPE",
    "WCFG_INVALID_EID",
    "WCFG_TIMEOUT",
    "WCFG_SUCCESS",
    "WCFG_SUCCESS_AND_NO_REPLY",
    "WCFG_NO_MORE_INSTANCE",
    "WCFG_EMPTY_OBJECT",
    "WCFG_OBJECT_UPDATED",
    "WCFG_OBJECT_WITHOUT_PARAMETER",
    "WCFG_TR98_DATA_MODEL",
    "WCFG_DELAY_APPLY",
    "WCFG_SAME_IMAGE",
};
}  // namespace

const char* wHttpRetCodeName(int code) {
    int k = code + 22;
    return (k >= 0 && k < 31) ? kRetCodeNames[k] : "WCFG_UNKNOWN";
}

int wHttpSetOperStatusByWcfgRet(json_object* doc, int code) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter ret=%d\n", __func__, code);
    const char* text;
    switch (code) {
        case WCFG_SUCCESS:
            text = "Success";
            break;
        case WCFG_INVALID_OBJECT:
        case WCFG_NO_SUCH_OBJECT:
            text = "Invalid object";
            break;
        case WCFG_INVALID_PARAM_VALUE_LENGTH:
            text = "Invalid parameter value";
            break;
        case WCFG_INVALID_ARGUMENTS:
            text = "Invalid parameter name";
            break;
        case WCFG_EXCEED_MAX_INS_NUM:
            text = "Exceed max instance number";
            break;
        case WCFG_INS_CREATE_ERR:
            text = "The object cannot be added or deleted";
            break;
        case WCFG_INVALID_FORMAT:
            text = "Invalid HTTP content format";
            break;
        default:
            // Every other code, informational ones included, reads as a bad value.
            text = "Invalid parameter value";
            break;
    }
    return wHttpSetOperStatus(doc, text);
}
