// Device.WiFi.AccessPoint.N.WPS.: the stored WPS settings, plus the push
// button a client presses remotely and the running status it reads back,
// through request messages to the Wi-Fi service over the bus.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "base/platform.h"
#include "datamodel/ext_objects.h"
#include "datamodel/obj_ops.h"
#include "datamodel/oid_names.h"
#include "extobj/whttpd_extobj.h"
#include "device/bus.h"
#include "base/json_util.h"
#include "device/wcfg.h"

namespace {

enum { kPushButton = 4006, kSetOnly = 4015, kStatus = 4012 };
const char kPayload[] = "[\"WPSStatus\"]";
const int kPollIfNameLen = 7;

// The WPS-done flag: cleared by every set; while it is 1 a get sends no
// status query.  Nothing in the daemon sets it.
std::atomic<uint8_t> gWpsIsOk{0};

// A request message of `type` for the interface `ifName` (at most 27
// characters); released with free().
void* makeRequest(uint32_t type, const std::string& ifName, size_t* length) {
    *length = sizeof(wcfgMsgHdr_t) + sizeof kPayload;
    auto* msg = static_cast<char*>(calloc(1, *length));
    if (!msg) {
        WLOG(WLOG_ERR, VX_SRC, "fail to calloc memory, size = %zu", *length);
        return nullptr;
    }
    auto* hdr = reinterpret_cast<wcfgMsgHdr_t*>(msg);
    hdr->type = type;
    hdr->srcEid = WCFG_EID_WHTTPD;
    hdr->dstEid = WCFG_EID_WIFI;
    hdr->length = sizeof kPayload;
    wos_strlcpy(hdr->ifName, ifName.c_str(), sizeof hdr->ifName);
    memcpy(msg + sizeof(wcfgMsgHdr_t), kPayload, sizeof kPayload);
    return msg;
}

// The Wi-Fi interface of the access point the path names: AP -> its SSID
// reference -> the SSID's interface name.  "" when it cannot be found.
std::string interfaceOf(const char* path) {
    int ap = 0, ssid = 0;
    if (sscanf(path, "Device.WiFi.AccessPoint.%d.WPS.", &ap) != 1 || ap < 1 || ap > 255)
        return "";
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = static_cast<uint8_t>(ap);
    json_object* obj = nullptr;
    if (wcfgFeObjJsonGet(wHttpOidByName("RDM_OID_WIFI_ACCESS_POINT"), &iid, &obj) != WCFG_SUCCESS)
        return obj ? (json_object_put(obj), "") : "";
    std::string ref = std::string(jsonString(obj, "SSIDReference")).substr(0, 15);
    json_object_put(obj);
    if (sscanf(ref.c_str(), "WiFi.SSID.%d", &ssid) != 1 || ssid < 1 || ssid > 255)
        return "";
    iid.idx[0] = static_cast<uint8_t>(ssid);
    obj = nullptr;
    if (wcfgFeObjJsonGet(wHttpOidByName("RDM_OID_WIFI_SSID"), &iid, &obj) != WCFG_SUCCESS)
        return obj ? (json_object_put(obj), "") : "";
    std::string name = std::string(jsonString(obj, "Name")).substr(0, 27);
    json_object_put(obj);
    return name;
}

// Sends a request and waits for the reply: the reply (free()) or nullptr.
void* ask(uint32_t type, const std::string& ifName, int timeoutMs) {
    size_t length = 0;
    void* msg = makeRequest(type, ifName, &length);
    if (!msg)
        return nullptr;
    void* reply = nullptr;
    int ret = wcfg_msg_sendAndGetReply(msg, &reply, timeoutMs);
    free(msg);
    if (ret != 0) {
        free(reply);
        return nullptr;
    }
    return reply;
}

int replyKind(const void* reply) {
    return static_cast<const wcfgMsgHdr_t*>(reply)->statCode;
}

// "WPSStatus" of a kind-0 reply; `fallback` without one.
int wpsStatusOf(const void* reply, int fallback) {
    const auto* hdr = static_cast<const wcfgMsgHdr_t*>(reply);
    if (hdr->statCode != 0 || hdr->length == 0)
        return fallback;
    JsonPtr doc(json_tokener_parse(static_cast<const char*>(reply) + sizeof(wcfgMsgHdr_t)));
    json_object* v = nullptr;
    return json_object_object_get_ex(doc.get(), "WPSStatus", &v) ? json_object_get_int(v)
                                                                 : fallback;
}

bool requestedStatus(int status) {
    return status == 1 || status == 5 || status == 6;
}

// The running-status text of a WPS status.
const char* runningStatus(int status) {
    if (status == 2)
        return "NoError, WPS ok!";
    if (requestedStatus(status))
        return "Requested";
    if (status == 4) {
        // An extender's WPS client reports a success as a time-out and
        // leaves this marker.
        std::string marker = platformPath("/tmp/wps_success");
        if (vxOperationMode() != 0 && access(marker.c_str(), F_OK) == 0) {
            unlink(marker.c_str());
            return "NoError, WPS ok!";
        }
        return "WPS TIMEOUT!";
    }
    if (status == 0)
        return "DeviceException, wps not running!";
    if (status < 0)
        return "DeviceBusy, no wps status reply!";
    return "Device Busy";
}

// One status query of the set's polls (0: WPS requested, else -1).
int statusCheck(const std::string& ifName) {
    void* reply = ask(kStatus, ifName, 5000);
    if (!reply) {
        wos_pk("[%s()][%d] wcfgMsgSendAndGetReply not Success\n", "vxWifi_AP_WPS_Status_Check",
               __LINE__);
        return -1;
    }
    int status = wpsStatusOf(reply, -1);
    free(reply);
    if (!requestedStatus(status))
        return -1;
    WLOG(WLOG_DEBUG, VX_SRC, "[%s] X_OLVEX_WPSRunningStatus = %s\n", __func__, "Requested");
    return 0;
}

bool pushButton(json_object* values) {
    json_object* v = nullptr;
    return json_object_object_get_ex(values, "X_OlVEX_TriggerWPSPushButton", &v) &&
           json_object_get_boolean(v);
}

}  // namespace

int vxWifi_AP_WPS_Set(const char* path, int /*row*/, json_object* values, uint8_t apply) {
    gWpsIsOk.store(0);
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Enter\n", __func__);
    if (wHttpSetTR181ObjGeneric(path, values, apply) != WCFG_SUCCESS)
        return WCFG_INVALID_OBJECT;
    bool press = pushButton(values);
    WLOG(WLOG_DEBUG, VX_SRC, "[%s()] X_OlVEX_TriggerWPSPushButton = %d\n", __func__, press);
    std::string ifName = interfaceOf(path);
    std::string pollName = ifName.substr(0, kPollIfNameLen);
    void* reply = ask(press ? kPushButton : kSetOnly, ifName, 15000);
    if (!reply) {
        wos_pk("[%s()] wcfgMsgSendAndGetReply not Success\n", __func__);
        return WCFG_TIMEOUT;
    }
    if (replyKind(reply) == 0)
        WLOG(WLOG_DEBUG, VX_SRC, "%s() tmpInt = %d\n", __func__, wpsStatusOf(reply, 0));
    else if (replyKind(reply) == 1)
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] WCFG_SUCCESS_AND_NO_REPLY\n", __func__);
    else
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] wcfgMsgSendAndGetReply ERROR\n", __func__);
    free(reply);
    for (int i = 0; i < 5; ++i) {
        wos_sleep(1);
        if (statusCheck(pollName) == 0)
            break;
    }
    return WCFG_SUCCESS;
}

int vxWifi_AP_WPS_Get(const char* path, int /*row*/, json_object** out) {
    if (wHttpGetTR181ObjGeneric(path, out) != WCFG_SUCCESS) {
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] wHttpGetTR181ObjGeneric not SUCCESS\n", __func__);
        return WCFG_INVALID_OBJECT;
    }
    if (!pushButton(*out)) {
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] TriggerWPSPushButton not Enter\n", __func__);
        return WCFG_SUCCESS;
    }
    if (!wHttpReadsAskServices())
        return WCFG_SUCCESS;  // the running status as the Wi-Fi service stored it
    WLOG(WLOG_DEBUG, VX_SRC, "[%s()] TriggerWPSPushButton Enter\n", __func__);
    std::string ifName = interfaceOf(path);
    if (gWpsIsOk.load()) {
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] wpsIsOK not false\n", __func__);
        return WCFG_SUCCESS;
    }
    void* reply = ask(kStatus, ifName, 15000);
    if (!reply) {
        wos_pk("[%s()][%d] wcfgMsgSendAndGetReply not Success\n", __func__, __LINE__);
        return WCFG_TIMEOUT;
    }
    if (replyKind(reply) == 0) {
        const char* text = runningStatus(wpsStatusOf(reply, -1));
        WLOG(WLOG_DEBUG, VX_SRC, "[%s] X_OLVEX_WPSRunningStatus = %s\n", __func__, text);
        json_object_object_add(*out, "X_OLVEX_WPSRunningStatus", json_object_new_string(text));
    } else if (replyKind(reply) == 1) {
        WLOG(WLOG_DEBUG, VX_SRC, "[%s()] WCFG_SUCCESS_AND_NO_REPLY\n", __func__);
    }
    free(reply);
    return WCFG_SUCCESS;
}

int vxWifi_AP_WPS_Add(char* path, int /*row*/, json_object* values) {
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Enter\n", __func__);
    return wHttpAddTR181ObjGeneric(path, values, 256);
}

int vxWifi_AP_WPS_Del(const char* path, int /*row*/) {
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Enter\n", __func__);
    return wHttpDelTR181ObjGeneric(path);
}
