#include "auth/accounts.h"

#include <cstring>

#include "datamodel/oid_names.h"

int32_t wHttpAccountOid(void) {
    static const int32_t oid = wHttpOidByName("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    return oid;
}

JsonPtr wHttpFindAccount(const char* user, objIndex_t* iid) {
    *iid = objIndex_t{};
    json_object* obj = nullptr;
    while (wcfgFeObjJsonGetNext(wHttpAccountOid(), iid, &obj) == WCFG_SUCCESS) {
        JsonPtr account(obj);
        if (!strcmp(jsonString(obj, "Username"), user))
            return account;
    }
    return nullptr;
}

JsonPtr wHttpReadAccountGroup(const objIndex_t& account) {
    static const int32_t oid = wHttpOidByName("RDM_OID_VX_LOG_CFG_GP");
    objIndex_t gid{};
    gid.level = static_cast<uint8_t>(account.level - 1);
    gid.idx[0] = account.idx[0];
    json_object* group = nullptr;
    if (wcfgFeObjJsonGet(oid, &gid, &group) != WCFG_SUCCESS) {
        if (group)
            json_object_put(group);
        return nullptr;
    }
    return JsonPtr(group);
}
