// The login accounts and their groups in the configuration service.
#pragma once

#include "platform/json_util.h"
#include "platform/store/wcfg.h"

// Id of the account object (RDM_OID_VX_LOG_CFG_GP_ACCOUNT).
int32_t wHttpAccountOid(void);
// The first account whose "Username" equals `user`, and its instance record
// in `iid` (group, account); empty when there is none.
JsonPtr wHttpFindAccount(const char* user, objIndex_t* iid);
// The group of an account: instance (group) of RDM_OID_VX_LOG_CFG_GP; empty
// when it cannot be read.
JsonPtr wHttpReadAccountGroup(const objIndex_t& account);
