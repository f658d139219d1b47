// DAL calls of the configuration service: operation mode and account editor.
#include <crypt.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/store/dm_def.h"
#include "platform/json_util.h"
#include "platform/store/wcfg.h"
#include "platform/store/wcfg_store.h"

namespace {

int reply(char* buf, size_t size, const char* text, int code) {
    if (buf && size)
        snprintf(buf, size, "%s", text);
    return code;
}

bool passwordMatches(const std::string& shadowLine, const std::string& password) {
    size_t c = shadowLine.find(':');
    if (c == std::string::npos || password.empty())
        return false;
    std::string hash = shadowLine.substr(c + 1);
    hash = hash.substr(0, hash.find(':'));
    crypt_data data{};
    const char* out = crypt_r(password.c_str(), hash.c_str(), &data);
    return out && hash == out;
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

bool usernameAcceptable(const std::string& name) {
    if (name.empty() || name.size() > 31)
        return false;
    for (unsigned char c : name)
        if (!isalnum(c) && c != '_' && c != '.' && c != '-')
            return false;
    return true;
}

}  // namespace

int wcfgFeDalGetOpertaionMode(void) {
    objIndex_t iid{};
    json_object* obj = nullptr;
    int32_t oid = wdm::model().idOf("RDM_OID_OPERATION_MODE");
    if (wcfgFeObjJsonGetWithoutUpdate(oid, &iid, &obj) != WCFG_SUCCESS)
        return 0;
    JsonPtr owned(obj);
    json_object* mode = nullptr;
    return json_object_object_get_ex(obj, "Mode", &mode) ? json_object_get_int(mode) : 0;
}

int wcfgFeDal_User_Account_Edit(json_object* request, char* buf, size_t size) {
    if (!request)
        return reply(buf, size, "Invalid request", WCFG_INVALID_ARGUMENTS);
    std::string user = jsonString(request, "Username");
    std::string newUser = jsonString(request, "new_Username");
    std::string pw = jsonString(request, "Password");
    std::string verify = jsonString(request, "verifyNewpassword");
    std::string oldPw = jsonString(request, "oldPw");
    std::string level = jsonString(request, "DAL_LOGIN_LEVEL");

    wcfg::Store& store = wcfg::Store::instance();
    std::lock_guard<std::recursive_mutex> lock(store.mutex());
    int32_t oid = wdm::model().idOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    objIndex_t iid{}, found{};
    json_object* obj = nullptr;
    JsonPtr account;
    bool taken = false;
    while (wcfgFeObjJsonGetNextWithoutUpdate(oid, &iid, &obj) == WCFG_SUCCESS) {
        JsonPtr cur(obj);
        std::string name = jsonString(obj, "Username");
        if (!account && name == user) {
            account = std::move(cur);
            found = iid;
        } else if (name == newUser) {
            taken = true;
        }
    }
    if (!account)
        return reply(buf, size, "Account not found", WCFG_NO_SUCH_OBJECT);
    if (!passwordMatches(jsonString(account.get(), "shadow"), oldPw))
        return reply(buf, size, "Old password is incorrect", WCFG_INVALID_PARAM_VALUE);
    if (pw != verify)
        return reply(buf, size, "New passwords do not match", WCFG_INVALID_PARAM_VALUE);
    if (!passwordAcceptable(pw))
        return reply(buf, size,
                     "Password must be 8 to 63 printable characters with at least one letter and "
                     "one digit",
                     WCFG_INVALID_PARAM_VALUE);
    if (!usernameAcceptable(newUser))
        return reply(buf, size, "Invalid username", WCFG_INVALID_PARAM_VALUE);
    if (taken)
        return reply(buf, size, "Username already exists", WCFG_REQUEST_REJECT);
    // Group numbers rise as privileges fall: only a "high" editor may change
    // an account of group 1.
    if (level != "high" && found.idx[0] == 1)
        return reply(buf, size, "Permission denied", WCFG_REQUEST_REJECT);
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "Username", json_object_new_string(newUser.c_str()));
    json_object_object_add(values.get(), "Password", json_object_new_string(pw.c_str()));
    int rc = store.set(oid, &found, values.get(), true, true, true);
    if (rc != WCFG_SUCCESS)
        return reply(buf, size, "Internal error", rc);
    if (buf && size)
        buf[0] = '\0';
    return WCFG_SUCCESS;
}
