// What the device's services do when the configuration service applies a
// changed object, or before it answers a read with update: the stand-ins'
// behaviours, one row per object.
#pragma once

#include <json-c/json.h>

#include "platform/store/dm_def.h"
#include "platform/store/wcfg.h"

namespace standin {

// Runs for an applied instance with its current values.
using ApplyHook = void (*)(const wdm::Object& o, const objIndex_t& iid, json_object* values);

// The hook of an object, or nullptr.
ApplyHook applyHookFor(const wdm::Object& o);

// Runs before a read "with update" of an object: the service refreshes what
// the object shows (the host table is rebuilt).
using RefreshHook = void (*)();
RefreshHook refreshHookFor(const wdm::Object& o);

}  // namespace standin
