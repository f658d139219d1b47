// Device.X_OLVEX_EXT.InternetSpeed.: the internet speed test.  The client
// picks one of the ISP's download and upload test configurations by index;
// starting the test copies the chosen pair into the standard diagnostics
// objects, whose service runs it.
#include <atomic>
#include <string>

#include "datamodel/obj_ops.h"
#include "datamodel/oid_names.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "device/wcfg.h"

namespace {

// The selected test index, one byte, shared by every request thread.
std::atomic<uint8_t> gSpeedIndex{1};

bool isTrue(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) && json_object_get_boolean(v);
}

// Copies configuration entry `index` of `from` into the single object `to`
// with an applied write: -18 without the entry, -3 when the write fails.
int copyEntry(const char* from, const char* to, uint8_t index) {
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = index;
    json_object* entry = nullptr;
    if (wcfgFeObjJsonGetWithoutUpdate(wHttpOidByName(from), &iid, &entry) != WCFG_SUCCESS) {
        if (entry)
            json_object_put(entry);
        return WCFG_INVALID_OBJECT;
    }
    JsonPtr owned(entry);
    objIndex_t target{};
    int ret = wcfgFeObjJsonSetWithAdditions(wHttpOidByName(to), &target, entry, nullptr,
                                            WCFG_APPLY_FLAGS, nullptr);
    return ret == WCFG_SUCCESS ? WCFG_SUCCESS : WCFG_ERROR_PARAMETER_TYPE;
}

}  // namespace

int vxInternetSpeedGet(const char* /*path*/, int /*row*/, json_object** out) {
    json_object* diag = nullptr;
    int ret = wHttpGetTR181ObjGeneric("Device.IP.Diagnostics.", &diag);
    if (ret != WCFG_SUCCESS) {
        if (diag)
            json_object_put(diag);
        return ret;
    }
    bool supported = isTrue(diag, "IPv4DownloadDiagnosticsSupported") &&
                     isTrue(diag, "IPv4UploadDiagnosticsSupported");
    json_object_put(diag);
    json_object* obj = nullptr;
    if (supported) {
        ret = wHttpGetTR181ObjGeneric("Device.X_OLVEX_IspDiagnosticsData.", &obj);
        if (ret != WCFG_SUCCESS) {
            if (obj)
                json_object_put(obj);
            return ret;
        }
    } else {
        obj = json_object_new_object();
        json_object_object_add(obj, "Enable", json_object_new_boolean(0));
        json_object_object_add(obj, "DownloadDiagnosticsNumberOfEntries", json_object_new_int(0));
        json_object_object_add(obj, "UploadDiagnosticsNumberOfEntries", json_object_new_int(0));
    }
    json_object_object_add(obj, "Index", json_object_new_int(gSpeedIndex.load()));
    *out = obj;
    return WCFG_SUCCESS;
}

int vxInternetSpeedSet(const char* /*path*/, int /*row*/, json_object* values, uint8_t /*apply*/) {
    json_object* index = nullptr;
    if (json_object_object_get_ex(values, "Index", &index) && json_object_get_int(index) != 0)
        gSpeedIndex.store(static_cast<uint8_t>(json_object_get_int(index)));
    if (!isTrue(values, "Enable"))
        return WCFG_SUCCESS;  // only the index is remembered
    static const int32_t ispOid = wHttpOidByName("RDM_OID_VX_ISP_DIAG_DATA");
    if (!wHttpGetObject(ispOid, true))
        return WCFG_ERROR_PARAMETER_TYPE;
    // Index beyond the configured entries: no entry is found.
    uint8_t selected = gSpeedIndex.load();
    int ret = copyEntry("RDM_OID_VX_ISP_DIAG_DATA_CFG_DL", "RDM_OID_IP_DIAG_DL_DIAG", selected);
    if (ret == WCFG_SUCCESS)
        ret = copyEntry("RDM_OID_VX_ISP_DIAG_DATA_CFG_UL", "RDM_OID_IP_DIAG_UL_DIAG", selected);
    return ret;
}
