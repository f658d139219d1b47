// Lookups in the generated table of object ids by name.
#include "datamodel/oid_names.h"

#include <cstring>

#include "base/platform.h"

namespace {
int compareOidName(const void* key, int index, void** row) {
    int c = strcmp(static_cast<const char*>(key), gOidNameTable[index].name);
    if (c == 0)
        *row = const_cast<OidNameRow*>(&gOidNameTable[index]);
    return c;
}
}  // namespace

int32_t wHttpOidByName(const char* name) {
    if (!name)
        return -1;
    void* row = vxUtilSortedArraySearch(name, 0, gOidNameTableRows - 1, compareOidName);
    return row ? static_cast<int32_t>(static_cast<OidNameRow*>(row)->id) : -1;
}

JsonPtr wHttpGetObjectByName(const char* name, bool update, objIndex_t iid) {
    return wHttpGetObject(wHttpOidByName(name), update, iid);
}

JsonPtr wHttpGetObject(int32_t oid, bool update, objIndex_t iid) {
    if (oid < 0)
        return nullptr;
    json_object* obj = nullptr;
    int ret =
        update ? wcfgFeObjJsonGet(oid, &iid, &obj) : wcfgFeObjJsonGetWithoutUpdate(oid, &iid, &obj);
    JsonPtr owned(obj);
    return ret == WCFG_SUCCESS ? std::move(owned) : nullptr;
}
