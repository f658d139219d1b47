// Calls of the configuration store by TR-181 path, for the unit tests.
#pragma once

#include <string>

#include "base/json_util.h"
#include "device/wcfg.h"

// An applied write of the JSON object `json`; the service's code.
inline int storeSet(const char* path, const char* json) {
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId(path, &iid);
    JsonPtr v(json_tokener_parse(json));
    return wcfgFeObjJsonSetWithAdditions(oid, &iid, v.get(), nullptr, WCFG_APPLY_FLAGS, nullptr);
}

// One parameter as JSON text; "<none>" without the instance, "<missing>"
// without the parameter.
inline std::string storeGet(const char* path, const char* key) {
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId(path, &iid);
    json_object* o = nullptr;
    if (wcfgFeObjJsonGet(oid, &iid, &o) != 0)
        return "<none>";
    JsonPtr owned(o);
    json_object* v = nullptr;
    if (!json_object_object_get_ex(o, key, &v))
        return "<missing>";
    return json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN);
}
