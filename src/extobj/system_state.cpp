// Device.X_OLVEX_EXT.SystemState.: the device's local time.
#include <ctime>

#include "extobj/whttpd_extobj.h"

int vxSystemStateGet(const char* /*path*/, int /*row*/, json_object** out) {
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char text[255] = "";
    // "GMT" is written as it stands, although the time is local.
    strftime(text, sizeof text, "%a %b %d %H:%M:%S GMT %Y", &local);
    json_object* obj = json_object_new_object();
    json_object_object_add(obj, "localTime", json_object_new_string(text));
    *out = obj;
    return 0;
}
