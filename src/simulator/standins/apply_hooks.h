// What the device's services do when the configuration service applies a
// changed object, or before it answers a read with update: the stand-ins'
// behaviours, one row per object.
#pragma once

#include "simulator/store/hooks.h"

namespace standin {

// The hook of an object, or nullptr.
wcfg::ApplyHook applyHookFor(const wdm::Object& o);

// The refresh before a read "with update" (the host table is rebuilt).
wcfg::RefreshHook refreshHookFor(const wdm::Object& o);

}  // namespace standin
