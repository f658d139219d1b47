// The daemon's table of the configuration service's object ids by name,
// generated at build time from the service's data-model definition.
#pragma once

#include <cstdint>

#include "base/json_util.h"
#include "device/wcfg.h"

struct OidNameRow {
    const char* name;
    uint32_t id;
};

// Rows sorted by name in ascending byte order, ended by {nullptr, 0}.
extern const OidNameRow gOidNameTable[];
extern const int gOidNameTableRows;

// Id of an object by its RDM_OID_ name, or -1 (all bits set) when unknown.
int32_t wHttpOidByName(const char* name);

// One instance of an object (with or without the service's update), or
// nullptr when the get fails (an unknown id included).
JsonPtr wHttpGetObject(int32_t oid, bool update, objIndex_t iid = objIndex_t{});
// The same for an object named by its RDM_OID_ name.
JsonPtr wHttpGetObjectByName(const char* name, bool update, objIndex_t iid = objIndex_t{});
