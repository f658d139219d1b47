// The login accounts and their groups as the session check needs them, kept
// in memory: read again from the configuration service when its data version
// has moved (and at once on the data-model-changed notice), so that no
// request, and nothing done under the session-table mutex, reads the store
// for them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device/wcfg.h"

struct WHttpAccount {
    objIndex_t iid{};  // group, account
    std::string userName;
    bool enabled = false;
    std::string shadow;
    std::string privilegeJson;  // "Privilege" as its JSON text
    int idleTime = 0;
    uint32_t retryTime = 0;
    uint32_t lockTime = 0;
    bool dotChangeDefPwd = false;
    bool showSkipBtn = false;
    bool autoShowQuickStart = false;
};

struct WHttpAccountSet {
    uint64_t version = 0;                   // data version read
    std::vector<WHttpAccount> accounts;     // in the store's order
    std::map<int, std::string> groupPrivs;  // "GP_Privilege" by group number

    // The first account named `user`, or nullptr.
    const WHttpAccount* find(const char* user) const;
    // The group's "GP_Privilege", or nullptr when the group cannot be read.
    const std::string* groupPrivilege(int group) const;
};

// Id of the account object (RDM_OID_VX_LOG_CFG_GP_ACCOUNT).
int32_t wHttpAccountOid(void);
// The accounts as the configuration holds them now.
std::shared_ptr<const WHttpAccountSet> wHttpAccounts(void);
// Reads them again at once (on the data-model-changed notice).
void wHttpAccountsRefresh(void);
