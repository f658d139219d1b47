// What the layers above the store attach to it: the services' apply and
// refresh behaviours, the notice that tells other processes of a change, and
// the handler of device requests (reboot, reset, firmware).  The store calls
// them and knows nothing else of those layers.  They are set once, before any
// thread uses the store; unset hooks do nothing (a request is refused).
#pragma once

#include <json-c/json.h>

#include <cstdint>

#include "device/dm_def.h"
#include "device/wcfg.h"

namespace wcfg {

// Runs for an applied instance with its current values (nullptr when the
// instance went away).
using ApplyHook = void (*)(const wdm::Object& o, const objIndex_t& iid, json_object* values);
// Runs before a read "with update" of an object.
using RefreshHook = void (*)();

struct StoreHooks {
    ApplyHook (*applyHookFor)(const wdm::Object& o) = nullptr;
    RefreshHook (*refreshHookFor)(const wdm::Object& o) = nullptr;
    // After every write that others should learn of.
    void (*changed)() = nullptr;
    // wcfgFeReqSend's handler: a return code.
    int (*request)(uint32_t type, const char* payload) = nullptr;
};

void storeSetHooks(const StoreHooks& hooks);
const StoreHooks& storeHooks();

// The hooks of one object, or nullptr.
ApplyHook applyHookOf(const wdm::Object& o);
RefreshHook refreshHookOf(const wdm::Object& o);
// A device request (wcfgFeReqSend): the handler's code, or
// WCFG_REQUEST_REJECT when none is attached.
int sendRequest(uint32_t type, const char* payload);

}  // namespace wcfg
