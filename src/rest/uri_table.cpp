// The URI table of the REST API and the method list built from it.  Each row
// says which methods its handler answers, which checks come first and
// whether writes take the data-model request mutex; the request listener
// (request_entry.cpp) applies them.
#include <cstdio>
#include <cstring>

#include "auth/auth_handlers.h"
#include "datamodel/value_handlers.h"
#include "base/log.h"
#include "context/response_writer.h"
#include "rest/device_actions.h"
#include "events/events_handler.h"
#include "fota/fota.h"
#include "rest/whttpd_rest.h"

namespace {

constexpr uint8_t kAny = kWHttpAnyMethod;
constexpr uint8_t kGet = kWHttpGet;
constexpr uint8_t kAction = kWHttpPost | kWHttpPut;
constexpr uint8_t kValue = kWHttpGet | kWHttpPut | kWHttpPost | kWHttpDelete;
constexpr WHttpAccess kOpen = WHttpAccess::Open;
constexpr WHttpAccess kSession = WHttpAccess::Session;
constexpr WHttpAccess kDevice = WHttpAccess::DeviceAction;
constexpr WHttpAccess kRead = WHttpAccess::SessionRead;
constexpr WHttpOtherMethod kNone = WHttpOtherMethod::Unanswered;
constexpr WHttpOtherMethod kBadMethod = WHttpOtherMethod::InvalidMethod;
constexpr WHttpOtherMethod kBadKey = WHttpOtherMethod::InvalidKey;
constexpr WHttpQuick kWorker = WHttpQuick::No;
constexpr WHttpQuick kQuick = WHttpQuick::Yes;
constexpr WHttpQuick kQuickRead = WHttpQuick::ValueRead;

}  // namespace

// Rows are matched by prefix, first row first, so their order matters; it is
// also the order of the method list.
const WHttpUriRow gRestUriTable[] = {
    // name                  handler                      methods access  lock  other  GET
    {"UserLogin", wHttpUserLoginHandle, kAny, kOpen, false, kNone, kWorker},
    {"UserLogout", wHttpUserLogoutHandle, kAny, kSession, false, kNone, kWorker},
    {"MethodList", wHttpGetMethodListHandle, kGet, kSession, false, kNone, kQuick},
    {"Reboot", wHttpRebootHandle, kAction, kDevice, false, kBadKey, kWorker},
    {"MeshReboot", wHttpMeshRebootHandle, kAction, kDevice, false, kBadKey, kWorker},
    {"MeshResetAllSetting", wHttpMeshResetAllSettingHandle, kAction, kDevice, false, kBadKey,
     kWorker},
    {"UserUpdate", wHttpUserUpdateHandle, kAny, kSession, false, kNone, kWorker},
    {"APPUICustomization", wHttpAPPUICustomization, kGet, kSession, false, kNone, kQuick},
    {"TR181/Value/", wHttpTR181ValueHandle, kValue, kSession, true, kBadMethod, kQuickRead},
    // Never reached: "TR181/Value/" is a prefix of it; same handler.
    {"TR181/Value/MultiObjects", wHttpTR181ValueHandle, kValue, kSession, true, kBadMethod,
     kWorker},
    {"TR181/SupportedDM/", wHttpTR181SupportedDMHandle, kAny, kSession, false, kNone, kWorker},
    // Before "FOTA", of which it is an extension.
    {"FOTA?action=online", wHttpOnlineFirmwareUpgradeHandle_FOTA, kAny, kSession, false, kNone,
     kWorker},
    {"FOTA", wHttpOnlineFirmwareUpgradeCheck_FOTA, kAny, kSession, false, kNone, kWorker},
    // A stream of the device's changes; after the rows above, whose order
    // clients know from the method list.
    {"Events", wHttpEventsHandle, kGet, kRead, false, kBadMethod, kQuick},
    {nullptr, nullptr, 0, kOpen, false, kNone, kWorker},
};

json_object* wHttpMethodList(void) {
    json_object* list = json_object_new_array();
    for (const WHttpUriRow* row = gRestUriTable; row->name; ++row) {
        char uri[128];
        snprintf(uri, sizeof uri, "%s%s%s", "/api/", "v1/", row->name);
        json_object_array_add(list, json_object_new_string(uri));
    }
    return list;
}

int wHttpGetMethodListHandle(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, "Success");
    wHttpSetMethodList(doc, wHttpMethodList());
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, 0);
    return 1;
}
