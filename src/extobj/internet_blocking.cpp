// Device.X_OLVEX_EXT.InternetBlocking.: whether this device can block a
// client's internet access.  Only a router can, and not the NX3301A models.
#include <cstring>

#include "base/platform.h"
#include "datamodel/oid_names.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "device/wcfg.h"

int vxInterBlockingGet(const char* /*path*/, int /*row*/, json_object** out) {
    bool enable = false;
    if (vxOperationMode() == 0) {
        static const int32_t oid = wHttpOidByName("RDM_OID_DEV_INFO");
        JsonPtr owned = wHttpGetObject(oid, true);
        if (!owned)
            return WCFG_ERROR_PARAMETER_TYPE;
        json_object* info = owned.get();
        const char* model = jsonString(info, "ModelName");
        wos_pk("ModelName: %s\n", model);
        enable = strstr(model, "NX3301A") == nullptr;
    }
    json_object* obj = json_object_new_object();
    json_object_object_add(obj, "Enable", json_object_new_boolean(enable));
    *out = obj;
    return WCFG_SUCCESS;
}
