// Access restriction by trust domain and privilege (access_check.h).
#include "auth/access_check.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "auth/accounts.h"
#include "datamodel/oid_names.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "base/platform.h"

namespace {

// atoi() without its undefined overflow: out-of-range values are clamped.
int prefixNumber(const char* text) {
    long v = strtol(text, nullptr, 10);
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

int matchV6(const char* ruleAddr, const char* prefix, const char* addr) {
    uint8_t rule[16], a[16];
    if (inet_pton(AF_INET6, ruleAddr, rule) != 1 || inet_pton(AF_INET6, addr, a) != 1)
        return 0;
    int remaining = *prefix ? prefixNumber(prefix) : 128;
    // Lengths outside 0..128 are cut to the address size.
    if (remaining > 128)
        remaining = 128;
    if (remaining < 0)
        remaining = 0;
    int i = 0;
    for (; remaining >= 8; remaining -= 8, ++i) {
        if (rule[i] != a[i])
            return 0;
    }
    if (remaining == 0)
        return 1;
    uint8_t mask = static_cast<uint8_t>(~(0xffu >> remaining));
    return (rule[i] & mask) == (a[i] & mask) ? 1 : 0;
}

bool readV4(const char* text, uint32_t* value) {
    unsigned p[4];
    if (sscanf(text, "%u.%u.%u.%u", &p[0], &p[1], &p[2], &p[3]) != 4) {
        wos_pk("'%s' Name or service not known", text);
        return false;
    }
    *value = (p[0] << 24) + (p[1] << 16) + (p[2] << 8) + p[3];
    return true;
}

int matchV4(const char* ruleAddr, const char* prefix, const char* addr) {
    uint32_t rule = 0, a = 0;
    if (!readV4(ruleAddr, &rule) || !readV4(addr, &a))
        return 0;
    // The shift is taken as an 8-bit number: "255.255.255.0" reads as 255,
    // gives 33, and the mask becomes 0.
    uint8_t shift = static_cast<uint8_t>(32 - static_cast<long long>(prefixNumber(prefix)));
    uint32_t mask = shift >= 32 ? 0 : (0xffffffffu << shift);
    return (rule & mask) == (a & mask) ? 1 : 0;
}

const char* const kRefused = "cannot find account or auth fail\n";

}  // namespace

int wHttpGetAddrFamily(const char* addr) {
    unsigned char buf[16];
    if (!addr)
        return -1;
    if (inet_pton(AF_INET, addr, buf) == 1)
        return AF_INET;
    if (inet_pton(AF_INET6, addr, buf) == 1)
        return AF_INET6;
    return -1;
}

int wHttpIsAddrInPrefix(const char* ruleAddr, const char* prefix, const char* addr) {
    if (!ruleAddr || !addr)
        return 0;
    if (!prefix)
        prefix = "";
    int ruleFamily = wHttpGetAddrFamily(ruleAddr);
    int family = wHttpGetAddrFamily(addr);
    if (ruleFamily != family || family == -1)
        return 0;
    return family == AF_INET6 ? matchV6(ruleAddr, prefix, addr) : matchV4(ruleAddr, prefix, addr);
}

int wHttpCheckAccessPermission(CgHttpRequest* request, const char* user) {
    static const int32_t trustOid = wHttpOidByName("RDM_OID_SP_TRUST_DOMAIN");
    const char* remote = cg_http_request_getremoteaddress(request);

    bool local = false;
    objIndex_t iid{};
    json_object* obj = nullptr;
    while (!local && wcfgFeObjJsonGetNext(trustOid, &iid, &obj) == WCFG_SUCCESS) {
        JsonPtr domain(obj);
        if (wHttpIsAddrInPrefix(jsonString(obj, "IPAddress"), jsonString(obj, "SubnetMask"),
                                remote) == 1)
            local = true;
    }

    if (!user || !*user) {
        wos_pk("cannot get user input object: %d\n", 0);
        return 0;
    }
    std::shared_ptr<const WHttpAccountSet> accounts = wHttpAccounts();
    const WHttpAccount* account = accounts->find(user);
    if (!account) {
        wos_pk("%s", kRefused);
        return 0;
    }
    if (account->privilegeJson.find("httpd") == std::string::npos) {
        wos_pk("%s", kRefused);
        return 0;
    }
    if (local)
        return 1;
    // A group that cannot be read does not refuse.
    const std::string* group = accounts->groupPrivilege(account->iid.idx[0]);
    if (group && group->find("http") == std::string::npos) {
        wos_pk("Account:'%s' HTTP permission denied.\n", user);
        wos_pk("%s", kRefused);
        return 0;
    }
    return 1;
}
