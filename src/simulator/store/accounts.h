// The login accounts as the store keeps them: account names, the sealing of a
// new password into the account's "shadow" line, and the device's password
// store ("/etc/shadow") that the system's password check reads.
#pragma once

#include <string>

#include "device/dm_def.h"
#include "simulator/store/values.h"

namespace wcfg {

class Db;

bool isAccountObject(const wdm::Object& o);

// Completes a write to the account `key` inside its transaction.  A changed
// "Username" must be acceptable and used by no other account
// (WCFG_INVALID_PARAM_VALUE, WCFG_REQUEST_REJECT); a clear-text "Password"
// becomes the "shadow" line with a fresh salt and is stored empty.
int sealAccount(Db& db, const wdm::Object& o, uint64_t key, const Row& before, Row& after);

// Rewrites the password store from the accounts of `db`: a new file, mode
// 0600, written, synced and renamed over the old one, and the directory
// synced.  Unchanged content is left alone.  False when it cannot be written.
bool writePasswordStore(Db& db);
// Whether the password store holds what the accounts of `db` give.
bool passwordStoreCurrent(Db& db);

}  // namespace wcfg
