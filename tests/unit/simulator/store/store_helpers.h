// Calls of the configuration store by TR-181 path, for the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "base/json_util.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"
#include "unit/test_root.h"

// Each test on the default configuration of the program's device root.
class StoreFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        unitTestRoot();
        ASSERT_EQ(0, wcfg::Store::instance().resetToDefaults());
    }
};

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

// Adds an instance to `table` ("Device.NAT.PortMapping."); the service's
// code, the new instance's numbers in `out`.
inline int storeAdd(const char* table, objIndex_t* out = nullptr) {
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId((std::string(table) + "i").c_str(), &iid);
    int rc = wcfgFeObjJsonAdd(oid, &iid, nullptr);
    if (out)
        *out = iid;
    return rc;
}

inline int storeDel(const char* path) {
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId(path, &iid);
    return wcfgFeObjJsonDel(oid, &iid, nullptr);
}
