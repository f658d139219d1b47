#include "platform/standins/apply_hooks.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/json_util.h"
#include "platform/platform.h"
#include "platform/standins/knobs.h"
#include "platform/store/store.h"

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

struct HookRow {
    const char* rdm;
    ApplyHook hook;
};

const HookRow kHooks[] = {
    {"RDM_OID_IP_DIAG_IPPING", ipPing},
    {"RDM_OID_IP_DIAG_DL_DIAG", download},
    {"RDM_OID_IP_DIAG_UL_DIAG", upload},
    {"RDM_OID_OPERATION_MODE", operationMode},
};

}  // namespace

ApplyHook applyHookFor(const wdm::Object& o) {
    for (const HookRow& r : kHooks)
        if (o.rdm == r.rdm)
            return r.hook;
    return nullptr;
}

}  // namespace standin
