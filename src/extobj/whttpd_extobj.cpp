// The extended-object table: which class names the daemon answers itself,
// and with which handlers.
#include "extobj/whttpd_extobj.h"

#include <atomic>
#include <cstring>
#include <string>

#include "datamodel/oid_names.h"
#include "platform/store/wcfg.h"

// Rows are matched by exact class name, first row first; an empty slot
// refuses its operation.
const VxExtObjRow gVxExtObjTable[] = {
    {"Device.Hosts.", vxHostsGet, nullptr, nullptr, nullptr},
    {"Device.Hosts.Host.i.", vxHostsHostGet, nullptr, nullptr, nullptr},
    {"Device.DeviceInfo.WanInfo.", vxWanInfoGet, nullptr, nullptr, nullptr},
    {"Device.X_OLVEX_ParentalControl.Profile.i.Schedule.i.", vxPcpScheduleGet, vxPcpScheduleSet,
     vxPcpScheduleAdd, vxPcpScheduleDel},
    {"Device.X_OLVEX_Change_Icon_Name.i.", vxChangeIconNameGet, vxChangeIconNameSet,
     vxChangeIconNameAdd, vxChangeIconNameDel},
    {"Device.WiFi.AccessPoint.i.WPS.", vxWifi_AP_WPS_Get, vxWifi_AP_WPS_Set, vxWifi_AP_WPS_Add,
     vxWifi_AP_WPS_Del},
    {"Device.X_OLVEX_EXT.InternetBlocking.", vxInterBlockingGet, nullptr, nullptr, nullptr},
    {"Device.X_OLVEX_EXT.InternetSpeed.", vxInternetSpeedGet, vxInternetSpeedSet, nullptr, nullptr},
    {"Device.X_OLVEX_EXT.SystemState.", vxSystemStateGet, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

namespace {
std::atomic<int> gOperationMode{0};

const char* const kReadsThatWait[] = {"Device.Hosts.", "Device.Hosts.Host.i.",
                                      "Device.DeviceInfo.WanInfo.",
                                      "Device.WiFi.AccessPoint.i.WPS."};
}  // namespace

// The class itself, or, for a table, its instances.
bool vxExtObjReadMayWait(const char* className) {
    std::string table = std::string(className) + "i.";
    for (const char* waits : kReadsThatWait)
        if (table == waits || !strcmp(className, waits))
            return true;
    return false;
}

void vxExtObjRegister(void) {
    vxExtObjSetTable(gVxExtObjTable);
}

void vxReadOperationMode(void) {
    gOperationMode = wcfgFeDalGetOpertaionMode();
}

int vxOperationMode(void) {
    return gOperationMode.load();
}
