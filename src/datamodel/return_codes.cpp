// The configuration service's return codes in one table: each code, its name
// (the text of firmware answers) and the "oper_status" the value handlers
// answer for it.
#include "datamodel/return_codes.h"

#include "base/log.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

struct RetCodeRow {
    int code;
    const char* name;
    const char* operStatus;
};

// Every code not named otherwise, informational ones included, reads as a bad
// value.
constexpr const char* kBadValue = "Invalid parameter value";

#define ROW(code, status) {code, #code, status}
constexpr RetCodeRow kRetCodes[] = {
    ROW(WCFG_RET_OFFSET, kBadValue),
    ROW(WCFG_DELETE_REJECT, kBadValue),
    ROW(WCFG_REQUEST_REJECT, kBadValue),
    ROW(WCFG_REQUEST_POSTPONED, kBadValue),
    ROW(WCFG_INVALID_OBJECT, "Invalid object"),
    ROW(WCFG_INVALID_PARAM_VALUE, kBadValue),
    ROW(WCFG_INVALID_PARAM_VALUE_LENGTH, kBadValue),
    ROW(WCFG_INVALID_IMAGE, kBadValue),
    ROW(WCFG_INVALID_ARGUMENTS, "Invalid parameter name"),
    ROW(WCFG_SET_READ_ONLY_PARAM, kBadValue),
    ROW(WCFG_EXCEED_MAX_INS_NUM, "Exceed max instance number"),
    ROW(WCFG_INS_CREATE_ERR, "The object cannot be added or deleted"),
    ROW(WCFG_NOT_INSTANCE, kBadValue),
    ROW(WCFG_SET_ATTR_ERROR, kBadValue),
    ROW(WCFG_INVALID_FORMAT, "Invalid HTTP content format"),
    ROW(WCFG_NOT_FOUND, kBadValue),
    ROW(WCFG_NO_SUCH_OBJECT, "Invalid object"),
    ROW(WCFG_INTERNAL_ERROR, kBadValue),
    ROW(WCFG_NO_SUCH_PARAMETER, kBadValue),
    ROW(WCFG_ERROR_PARAMETER_TYPE, kBadValue),
    ROW(WCFG_INVALID_EID, kBadValue),
    ROW(WCFG_TIMEOUT, kBadValue),
    ROW(WCFG_SUCCESS, "Success"),
    ROW(WCFG_SUCCESS_AND_NO_REPLY, kBadValue),
    ROW(WCFG_NO_MORE_INSTANCE, kBadValue),
    ROW(WCFG_EMPTY_OBJECT, kBadValue),
    ROW(WCFG_OBJECT_UPDATED, kBadValue),
    ROW(WCFG_OBJECT_WITHOUT_PARAMETER, kBadValue),
    ROW(WCFG_TR98_DATA_MODEL, kBadValue),
    ROW(WCFG_DELAY_APPLY, kBadValue),
    ROW(WCFG_SAME_IMAGE, kBadValue),
};
#undef ROW

const RetCodeRow* rowOf(int code) {
    for (const RetCodeRow& r : kRetCodes)
        if (r.code == code)
            return &r;
    return nullptr;
}

}  // namespace

const char* wHttpRetCodeName(int code) {
    const RetCodeRow* r = rowOf(code);
    return r ? r->name : "WCFG_UNKNOWN";
}

int wHttpSetOperStatusByWcfgRet(json_object* doc, int code) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter ret=%d\n", __func__, code);
    const RetCodeRow* r = rowOf(code);
    return wHttpSetOperStatus(doc, r ? r->operStatus : kBadValue);
}
