#include "extobj/whttpd_extobj.h"

#include <cstring>

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

int vxExtObjFind(const char* className) {
    for (int i = 0; gVxExtObjTable[i].path; ++i) {
        if (!strcmp(gVxExtObjTable[i].path, className))
            return i;
    }
    return -1;
}
