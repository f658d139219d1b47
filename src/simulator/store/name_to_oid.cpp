// Path resolution of the embedded configuration service: a TR-181 path to an
// object id and instance-id record.
#include "device/dm_def.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"

namespace wcfg {

int32_t nameToOid(const char* path, objIndex_t* iid) {
    if (!path || !iid)
        return WCFG_INVALID_OBJECT;
    *iid = objIndex_t{};
    int level = 0;
    const wdm::Object* o = wdm::model().resolve(path, iid->idx, &level);
    if (!o)
        return WCFG_INVALID_OBJECT;
    iid->level = static_cast<uint8_t>(level);
    return o->id;
}

}  // namespace wcfg
