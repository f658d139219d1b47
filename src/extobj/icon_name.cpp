// Device.X_OLVEX_Change_Icon_Name.i.: icon names keyed by MAC address, at
// most one per device, whether it is named by its own MAC or by the AL MAC of
// the mesh node it belongs to.
#include <string>

#include "base/log.h"
#include "datamodel/obj_ops.h"
#include "datamodel/oid_names.h"
#include "extobj/devscout.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "device/wcfg.h"

namespace {

// With an AL MAC the handlers answer 0 or -18 instead of the service's code.
int nodeResult(int ret) {
    return ret == WCFG_SUCCESS ? WCFG_SUCCESS : WCFG_INVALID_OBJECT;
}

// Whether an instance already names `mac` or, when one was found, `alMac`.
bool iconExists(const std::string& mac, const std::string& alMac) {
    static const int32_t oid = wHttpOidByName("RDM_OID_CHANGE_ICON_NAME");
    objIndex_t iid{};
    json_object* obj = nullptr;
    bool found = false;
    while (!found && wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &obj) == WCFG_SUCCESS) {
        std::string have = jsonText(obj, "MacAddress");
        found = have == mac || (!alMac.empty() && have == alMac);
        json_object_put(obj);
    }
    return found;
}

}  // namespace

int vxChangeIconNameGet(const char* path, int /*row*/, json_object** out) {
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Enter\n", __func__);
    return wHttpGetTR181ObjGeneric(path, out);
}

int vxChangeIconNameSet(const char* path, int /*row*/, json_object* values, uint8_t apply) {
    std::string alMac = vxDevscoutAlMacOf(jsonText(values, "MacAddress"));
    int ret = wHttpSetTR181ObjGeneric(path, values, apply);
    return alMac.empty() ? ret : nodeResult(ret);
}

int vxChangeIconNameAdd(char* path, int /*row*/, json_object* values) {
    std::string mac = jsonText(values, "MacAddress");
    WLOG(WLOG_DEBUG, VX_SRC, "[%s][%d] MacAddress=%s\n", __func__, __LINE__, mac.c_str());
    if (mac.empty())
        return wHttpAddTR181ObjGeneric(path, values, 256);
    std::string alMac = vxDevscoutAlMacOf(mac);
    if (iconExists(mac, alMac))
        return WCFG_REQUEST_REJECT;
    int ret = wHttpAddTR181ObjGeneric(path, values, 256);
    return alMac.empty() ? ret : nodeResult(ret);
}

int vxChangeIconNameDel(const char* path, int /*row*/) {
    WLOG(WLOG_DEBUG, VX_SRC, "%s() Enter\n", __func__);
    return wHttpDelTR181ObjGeneric(path);
}
