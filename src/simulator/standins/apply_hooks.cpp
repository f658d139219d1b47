// The stand-in services' apply and refresh behaviours, one row per object.
#include "simulator/standins/apply_hooks.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/knobs.h"
#include "simulator/standins/standin.h"
#include "simulator/store/store.h"

namespace standin {

namespace {

// Results are written as the service itself: read-only parameters included.
void writeResults(const wdm::Object& o, const objIndex_t& iid, json_object* res) {
    objIndex_t rec = iid;
    wcfg::WriteMode mode;
    mode.readOnly = true;
    wcfg::Store::instance().set(o.id, &rec, res, mode);
}

bool requested(json_object* values) {
    return !strcmp(jsonString(values, "DiagnosticsState"), "Requested");
}

// A ping to the host: the virtual router never sends one; the knob
// "net.internet_reachable" ("false") makes it fail.
void ipPing(const wdm::Object& o, const objIndex_t& iid, json_object* values) {
    if (!requested(values))
        return;
    bool reachable = knob("net.internet_reachable", "true") != "false";
    std::string file = platformPath("/var/diagResult");
    if (FILE* f = fopen(file.c_str(), "w")) {
        fprintf(f, "PING %s: 64 data bytes\n", jsonString(values, "Host"));
        fprintf(f, "\n--- ping statistics ---\n");
        fprintf(f, reachable ? "1 packets transmitted, 1 packets received, 0%% packet loss\n"
                             : "1 packets transmitted, 0 packets received, 100%% packet loss\n");
        fclose(f);
    }
    JsonPtr res(json_object_new_object());
    json_object_object_add(res.get(), "DiagnosticsState",
                           json_object_new_string(reachable ? "Complete" : "Error_NoRouteToHost"));
    json_object_object_add(res.get(), "SuccessCount", json_object_new_int(reachable ? 1 : 0));
    json_object_object_add(res.get(), "FailureCount", json_object_new_int(reachable ? 0 : 1));
    json_object_object_add(res.get(), "AverageResponseTime",
                           json_object_new_int(reachable ? 12 : 0));
    writeResults(o, iid, res.get());
}

void transferTest(const wdm::Object& o, const objIndex_t& iid, json_object* values, bool down) {
    if (!requested(values))
        return;
    std::string now = platformNowIso();
    JsonPtr res(json_object_new_object());
    json_object_object_add(res.get(), "DiagnosticsState", json_object_new_string("Complete"));
    for (const char* k : {"ROMTime", "BOMTime", "EOMTime"})
        json_object_object_add(res.get(), k, json_object_new_string(now.c_str()));
    json_object_object_add(res.get(), down ? "TestBytesReceived" : "TestBytesSent",
                           json_object_new_int64(down ? 117440512 : 26214400));
    writeResults(o, iid, res.get());
}

void download(const wdm::Object& o, const objIndex_t& iid, json_object* values) {
    transferTest(o, iid, values, true);
}

void upload(const wdm::Object& o, const objIndex_t& iid, json_object* values) {
    transferTest(o, iid, values, false);
}

// The repeater object shows the operation mode by name.
void operationMode(const wdm::Object&, const objIndex_t&, json_object* values) {
    static const char* const names[] = {"Router", "AccessPoint", "Extender"};
    json_object* mode = nullptr;
    json_object_object_get_ex(values, "Mode", &mode);
    int v = mode ? json_object_get_int(mode) : 0;
    JsonPtr res(json_object_new_object());
    json_object_object_add(res.get(), "Mode",
                           json_object_new_string(names[v >= 0 && v < 3 ? v : 0]));
    const wdm::Object* repeater = wdm::model().byId(wdm::model().idOf("RDM_OID_REPEATER"));
    if (repeater)
        writeResults(*repeater, objIndex_t{}, res.get());
}

// The band ("24g" or "5g") of an access point, through its SSID's radio.
std::string apBand(const objIndex_t& ap) {
    const wdm::Model& m = wdm::model();
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = ap.idx[0];
    json_object* obj = nullptr;
    if (wcfgFeObjJsonGetWithoutUpdate(m.idOf("RDM_OID_WIFI_ACCESS_POINT"), &iid, &obj) != 0)
        return "";
    JsonPtr owned(obj);
    int n = 0;
    if (sscanf(jsonString(obj, "SSIDReference"), "WiFi.SSID.%d", &n) != 1 || n < 1 || n > 255)
        return "";
    iid.idx[0] = static_cast<uint8_t>(n);
    JsonPtr ssid;
    if (wcfgFeObjJsonGetWithoutUpdate(m.idOf("RDM_OID_WIFI_SSID"), &iid, &obj) != 0)
        return "";
    ssid.reset(obj);
    objIndex_t radio{};
    int32_t oid = wcfgFeObjNameToObjId(jsonString(ssid.get(), "LowerLayers"), &radio);
    if (oid < 0 || wcfgFeObjJsonGetWithoutUpdate(oid, &radio, &obj) != 0)
        return "";
    JsonPtr ownedRadio(obj);
    return strcmp(jsonString(obj, "OperatingFrequencyBand"), "5GHz") ? "24g" : "5g";
}

// The Wi-Fi service's association lists, from its station table: one line
// per associated station of the access points of each band.
void stations(const wdm::Object& o, const objIndex_t&, json_object*) {
    std::string text[2];
    objIndex_t iid{};
    json_object* sta = nullptr;
    while (wcfgFeObjJsonGetNextWithoutUpdate(o.id, &iid, &sta) == WCFG_SUCCESS) {
        JsonPtr owned(sta);
        json_object* active = nullptr;
        if (json_object_object_get_ex(sta, "Active", &active) && !json_object_get_boolean(active))
            continue;
        std::string band = apBand(iid);
        if (band.empty())
            continue;
        json_object* rssi = nullptr;
        json_object_object_get_ex(sta, "SignalStrength", &rssi);
        char line[64];
        snprintf(line, sizeof line, "%s  %010d  %d \n", jsonString(sta, "MACAddress"), 0,
                 rssi ? json_object_get_int(rssi) : 0);
        text[band == "5g"] += line;
    }
    const char* files[2] = {"/tmp/assoc_list.24g", "/tmp/assoc_list.5g"};
    for (int i = 0; i < 2; ++i) {
        std::string file = platformPath(files[i]), tmp = file + ".tmp";
        if (FILE* f = fopen(tmp.c_str(), "w")) {
            fputs(text[i].c_str(), f);
            if (fclose(f) == 0)
                rename(tmp.c_str(), file.c_str());
        }
    }
}

struct HookRow {
    const char* rdm;
    wcfg::ApplyHook hook;
};

const HookRow kHooks[] = {
    {"RDM_OID_IP_DIAG_IPPING", ipPing},
    {"RDM_OID_IP_DIAG_DL_DIAG", download},
    {"RDM_OID_IP_DIAG_UL_DIAG", upload},
    {"RDM_OID_OPERATION_MODE", operationMode},
    {"RDM_OID_WIFI_ACCESS_POINT_ASSOC_DEV", stations},
};

}  // namespace

wcfg::RefreshHook refreshHookFor(const wdm::Object& o) {
    return o.rdm == "RDM_OID_HOSTS" ? refreshHosts : nullptr;
}

wcfg::ApplyHook applyHookFor(const wdm::Object& o) {
    for (const HookRow& r : kHooks)
        if (o.rdm == r.rdm)
            return r.hook;
    return nullptr;
}

}  // namespace standin
