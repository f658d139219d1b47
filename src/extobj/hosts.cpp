// Device.Hosts.: the configuration service's object, with the host list
// counted as refreshed for the rest of the request.
#include "datamodel/obj_ops.h"
#include "extobj/whttpd_extobj.h"

int vxHostsGet(const char* path, int /*row*/, json_object** out) {
    vxHostsSetRefreshedMark();
    return wHttpGetTR181ObjGeneric(path, out);
}
