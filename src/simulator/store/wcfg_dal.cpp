// DAL calls of the configuration service: operation mode and account editor.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/json_util.h"
#include "base/platform.h"
#include "device/dm_def.h"
#include "simulator/store/store.h"
#include "device/wcfg.h"
#include "simulator/store/write_rules.h"
#include "simulator/store/dal.h"

namespace {

int reply(char* buf, size_t size, const char* text, int code) {
    if (buf && size)
        snprintf(buf, size, "%s", text);
    return code;
}

// The password policy of the device: 8 to 63 printable characters without
// blanks, with at least one letter and one digit.
bool passwordAcceptable(const std::string& pw) {
    if (pw.size() < 8 || pw.size() > 63)
        return false;
    bool letter = false, digit = false;
    for (unsigned char c : pw) {
        if (c < 0x21 || c > 0x7e)
            return false;
        letter |= isalpha(c) != 0;
        digit |= isdigit(c) != 0;
    }
    return letter && digit;
}

struct EditTarget {
    JsonPtr account;
    objIndex_t iid{};
    bool nameTaken = false;  // another account has the new name
};

EditTarget findAccount(const std::string& user, const std::string& newUser) {
    int32_t oid = wdm::model().idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    EditTarget t;
    objIndex_t iid{};
    json_object* obj = nullptr;
    while (wcfg::Store::instance().getNext(oid, &iid, &obj, false) == WCFG_SUCCESS) {
        JsonPtr cur(obj);
        std::string name = jsonText(obj, "Username");
        if (!t.account && name == user) {
            t.account = std::move(cur);
            t.iid = iid;
        } else if (name == newUser) {
            t.nameTaken = true;
        }
    }
    return t;
}

// The old password: an unknown user costs one password check as a known one
// does, so that neither the reply nor its time tells which user names exist.
bool oldPasswordMatches(const EditTarget& t, const std::string& pw) {
    if (!t.account || pw.find('\0') != std::string::npos) {
        vxUtilAuthDummy(pw.c_str());
        return false;
    }
    std::string line = jsonText(t.account.get(), "shadow");
    size_t c = line.find(':');
    std::string hash =
        c == std::string::npos ? "" : line.substr(c + 1, line.find(':', c + 1) - c - 1);
    if (hash.empty()) {
        vxUtilAuthDummy(pw.c_str());
        return false;
    }
    return vxUtilPasswordMatchesHash(hash.c_str(), pw.c_str());
}

}  // namespace

int wcfg::dalOperationMode() {
    objIndex_t iid{};
    json_object* obj = nullptr;
    int32_t oid = wdm::model().idOf("RDM_OID_OPERATION_MODE");
    if (wcfg::Store::instance().get(oid, &iid, &obj, false) != WCFG_SUCCESS)
        return 0;
    JsonPtr owned(obj);
    json_object* mode = nullptr;
    return json_object_object_get_ex(obj, "Mode", &mode) ? json_object_get_int(mode) : 0;
}

int wcfg::dalAccountEdit(json_object* request, char* buf, size_t size) {
    if (!request)
        return reply(buf, size, "Invalid request", WCFG_INVALID_ARGUMENTS);
    std::string user = jsonText(request, "Username");
    std::string newUser = jsonText(request, "new_Username");
    std::string pw = jsonText(request, "Password");
    std::string verify = jsonText(request, "verifyNewpassword");
    std::string oldPw = jsonText(request, "oldPw");
    std::string level = jsonText(request, "DAL_LOGIN_LEVEL");

    // The new values first: what is answered about them never depends on
    // whether the old password was right.
    if (pw != verify)
        return reply(buf, size, "New passwords do not match", WCFG_INVALID_PARAM_VALUE);
    if (!passwordAcceptable(pw))
        return reply(buf, size,
                     "Password must be 8 to 63 printable characters with at least one letter and "
                     "one digit",
                     WCFG_INVALID_PARAM_VALUE);
    if (!wcfg::usernameAcceptable(newUser))
        return reply(buf, size, "Invalid username", WCFG_INVALID_PARAM_VALUE);
    EditTarget t = findAccount(user, newUser);
    // A caller that has locked the account gets the wrong-password answer,
    // after the same work.
    json_object* locked = nullptr;
    bool refuse = json_object_object_get_ex(request, "DAL_ACCOUNT_LOCKED", &locked) &&
                  json_object_get_boolean(locked);
    if (refuse)
        vxUtilAuthDummy(oldPw.c_str());
    if (refuse || !oldPasswordMatches(t, oldPw))
        return reply(buf, size, WCFG_DAL_BAD_CREDENTIALS, WCFG_INVALID_PARAM_VALUE);
    if (t.nameTaken)
        return reply(buf, size, "Username already exists", WCFG_REQUEST_REJECT);
    // Group numbers rise as privileges fall: only a "high" editor may change
    // an account of group 1.
    if (level != "high" && t.iid.idx[0] == 1)
        return reply(buf, size, "Permission denied", WCFG_REQUEST_REJECT);
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "Username", json_object_new_string(newUser.c_str()));
    json_object_object_add(values.get(), "Password", json_object_new_string(pw.c_str()));
    wcfg::WriteMode mode;
    mode.apply = mode.notify = mode.secrets = true;
    // The editor has checked the old password: it writes as the device.
    WcfgCallerScope device(WCFG_CALLER_DEVICE);
    int rc = wcfg::Store::instance().set(wdm::model().idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT"), &t.iid,
                                         values.get(), mode);
    if (rc == WCFG_REQUEST_REJECT)
        return reply(buf, size, "Username already exists", rc);
    if (rc != WCFG_SUCCESS)
        return reply(buf, size, "Internal error", rc);
    if (buf && size)
        buf[0] = '\0';
    return WCFG_SUCCESS;
}
