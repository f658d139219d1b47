// Who may change what in the configuration: the caller of the current thread
// (wcfgFeSetCaller) against an object's guard and its parameters' flags, and
// the rules for account names.
#pragma once

#include <string>

#include "device/dm_def.h"
#include "device/wcfg.h"

namespace wcfg {

// WCFG_SUCCESS, or WCFG_REQUEST_REJECT when the caller may not write (set,
// add or delete) the instance `iid` of `o`.  For an add, `iid` names the new
// instance's parent.
int checkObjectRights(const wdm::Object& o, const objIndex_t& iid);
// The same for one parameter whose value a write changes from `wasEmpty`
// or not; `secrets` is set for the writes of the account editor (and of
// provisioning).
int checkParamRights(const wdm::Param& p, bool secrets, bool wasEmpty);
// Account names: 1 to 31 characters of A-Z, a-z, 0-9, "_", "." and "-",
// and not "Invalid_Account" (the name under which failed logins of unknown
// names are counted).
// Whether the current thread acts for the device itself (WCFG_CALLER_DEVICE).
bool callerIsDevice();
// Whom the calls of the current thread act for (wcfgFeSetCaller); every
// thread starts as the device.
void setCaller(int caller);
int caller();

bool usernameAcceptable(const std::string& name);

}  // namespace wcfg
