// The extended-object table: which class names the daemon answers itself,
// and with which handlers.
#include "extobj/whttpd_extobj.h"

#include <atomic>

#include "datamodel/oid_names.h"
#include "device/wcfg.h"

// Rows are matched by exact class name, first row first; an empty slot
// refuses its operation.
const VxExtObjRow gVxExtObjTable[] = {
    {"Device.Hosts.", vxHostsGet, nullptr, nullptr, nullptr, true},
    {"Device.Hosts.Host.i.", vxHostsHostGet, nullptr, nullptr, nullptr, true},
    {"Device.DeviceInfo.WanInfo.", vxWanInfoGet, nullptr, nullptr, nullptr, true},
    {"Device.X_OLVEX_ParentalControl.Profile.i.Schedule.i.", vxPcpScheduleGet, vxPcpScheduleSet,
     vxPcpScheduleAdd, vxPcpScheduleDel, false},
    {"Device.X_OLVEX_Change_Icon_Name.i.", vxChangeIconNameGet, vxChangeIconNameSet,
     vxChangeIconNameAdd, vxChangeIconNameDel, false},
    {"Device.WiFi.AccessPoint.i.WPS.", vxWifi_AP_WPS_Get, vxWifi_AP_WPS_Set, vxWifi_AP_WPS_Add,
     vxWifi_AP_WPS_Del, true},
    {"Device.X_OLVEX_EXT.InternetBlocking.", vxInterBlockingGet, nullptr, nullptr, nullptr, false},
    {"Device.X_OLVEX_EXT.InternetSpeed.", vxInternetSpeedGet, vxInternetSpeedSet, nullptr, nullptr,
     false},
    {"Device.X_OLVEX_EXT.SystemState.", vxSystemStateGet, nullptr, nullptr, nullptr, false},
    {nullptr, nullptr, nullptr, nullptr, nullptr, false},
};

namespace {
std::atomic<int> gOperationMode{0};
}  // namespace

void vxExtObjRegister(void) {
    vxExtObjSetTable(gVxExtObjTable);
}

void vxReadOperationMode(void) {
    gOperationMode = wcfgFeDalGetOpertaionMode();
}

int vxOperationMode(void) {
    return gOperationMode.load();
}
