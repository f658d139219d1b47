// The login accounts and groups kept in memory for the session check.
#include "auth/accounts.h"

#include <cstring>
#include <mutex>

#include "datamodel/oid_names.h"
#include "base/json_util.h"

namespace {

bool boolOf(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) && json_object_get_boolean(v);
}

int64_t intOf(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) ? json_object_get_int64(v) : 0;
}

WHttpAccount accountOf(json_object* obj, const objIndex_t& iid) {
    WHttpAccount a;
    a.iid = iid;
    a.userName = jsonString(obj, "Username");
    a.enabled = boolOf(obj, "Enabled");
    a.shadow = jsonString(obj, "shadow");
    json_object* priv = nullptr;
    a.privilegeJson = json_object_object_get_ex(obj, "Privilege", &priv)
                          ? json_object_to_json_string(priv)
                          : "null";
    a.idleTime = static_cast<int>(intOf(obj, "AccountIdleTime"));
    a.retryTime = static_cast<uint32_t>(intOf(obj, "AccountRetryTime"));
    a.lockTime = static_cast<uint32_t>(intOf(obj, "AccountLockTime"));
    a.dotChangeDefPwd = boolOf(obj, "DotChangeDefPwd");
    a.showSkipBtn = boolOf(obj, "ShowSkipBtnInChgDefPwdPage");
    a.autoShowQuickStart = boolOf(obj, "AutoShowQuickStart");
    return a;
}

// Reads the accounts and the groups they belong to.
std::shared_ptr<const WHttpAccountSet> readAccounts(uint64_t version) {
    static const int32_t groupOid = wHttpOidByName("RDM_OID_VX_LOG_CFG_GP");
    auto set = std::make_shared<WHttpAccountSet>();
    set->version = version;
    objIndex_t iid{};
    json_object* obj = nullptr;
    while (wcfgFeObjJsonGetNext(wHttpAccountOid(), &iid, &obj) == WCFG_SUCCESS) {
        JsonPtr owned(obj);
        set->accounts.push_back(accountOf(obj, iid));
    }
    objIndex_t gid{};
    while (wcfgFeObjJsonGetNext(groupOid, &gid, &obj) == WCFG_SUCCESS) {
        JsonPtr owned(obj);
        set->groupPrivs[gid.idx[0]] = jsonString(obj, "GP_Privilege");
    }
    return set;
}

std::mutex gMutex;  // guards gCurrent and its replacement
std::shared_ptr<const WHttpAccountSet> gCurrent;

std::shared_ptr<const WHttpAccountSet> current(bool force) {
    uint64_t version = wcfgFeDataVersion();
    std::lock_guard<std::mutex> lock(gMutex);
    if (force || !gCurrent || gCurrent->version != version)
        gCurrent = readAccounts(version);
    return gCurrent;
}

}  // namespace

const WHttpAccount* WHttpAccountSet::find(const char* user) const {
    for (const WHttpAccount& a : accounts)
        if (a.userName == user)
            return &a;
    return nullptr;
}

const std::string* WHttpAccountSet::groupPrivilege(int group) const {
    auto it = groupPrivs.find(group);
    return it == groupPrivs.end() ? nullptr : &it->second;
}

int32_t wHttpAccountOid(void) {
    static const int32_t oid = wHttpOidByName("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    return oid;
}

std::shared_ptr<const WHttpAccountSet> wHttpAccounts(void) {
    // Each thread keeps the set it last used while the data version stands:
    // the common case takes no lock.
    static thread_local std::shared_ptr<const WHttpAccountSet> local;
    uint64_t version = wcfgFeDataVersion();
    if (!local || local->version != version)
        local = current(false);
    return local;
}

void wHttpAccountsRefresh(void) {
    current(true);
}
