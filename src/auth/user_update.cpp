// The UserUpdate handler: changes a login account's user name and password
// through the configuration service's account editor, which owns the
// password policy and the reply texts.  Wrong old passwords are counted and
// locked out as failed logins are.
#include <syslog.h>

#include <cstring>
#include <mutex>
#include <string>

#include "auth/accounts.h"
#include "auth/auth_handlers.h"
#include "auth/retry_table.h"
#include "base/log.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

const char* const kMembers[] = {"old_username", "old_password", "new_username", "new_password"};

// The whole text of a member: a string with any escaped NUL it holds, any
// other value as its JSON text.
std::string wholeText(json_object* v) {
    if (json_object_is_type(v, json_type_string))
        return std::string(json_object_get_string(v),
                           static_cast<size_t>(json_object_get_string_len(v)));
    const char* t = json_object_get_string(v);
    return t ? t : "";
}

void addText(json_object* obj, const char* key, const std::string& text) {
    json_object_object_add(obj, key,
                           json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

void answer(CgHttpRequest* request, const char* text) {
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, text);
    wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
}

// Runs the account editor for the four members; returns the answer's text.
// Wrong old passwords count as failed logins of the account (unknown names
// as those of the pseudo user), and a locked account gets the editor's
// answer for a wrong old password, whatever it was: the editor is no way to
// guess passwords past the lock.  One update at a time, so that the lock
// test, the check and the count are one step and parallel requests get no
// more guesses than serial ones.
std::string updateAccount(const std::string (&text)[4], const char* remote) {
    static std::mutex gUpdateMutex;
    std::lock_guard<std::mutex> serial(gUpdateMutex);
    const std::string& oldUser = text[0];
    bool known = oldUser.find('\0') == std::string::npos &&
                 wHttpAccounts()->find(oldUser.c_str()) != nullptr;
    const char* record = known ? oldUser.c_str() : INVALID_ACCOUNT_NAME;
    JsonPtr edit(json_object_new_object());
    addText(edit.get(), "Username", oldUser);
    addText(edit.get(), "new_Username", text[2]);
    addText(edit.get(), "Password", text[3]);
    addText(edit.get(), "verifyNewpassword", text[3]);
    addText(edit.get(), "oldPw", text[1]);
    json_object_object_add(edit.get(), "DAL_LOGIN_LEVEL", json_object_new_string("high"));
    json_object_object_add(edit.get(), "DAL_ACCOUNT_LOCKED",
                           json_object_new_boolean(isRestriction(record) != 0));
    char reply[128] = {};
    // A change leaves the failed logins on record under the old name as
    // they are: they still count should the name be used again.
    if (wcfgFeDal_User_Account_Edit(edit.get(), reply, sizeof reply) == 0)
        return "Success";
    if (!strcmp(reply, WCFG_DAL_BAD_CREDENTIALS)) {
        wlog_syslog(LOG_INFO,
                    "Account: Enter an invalid old password for User '%s' form the host(%s).\n",
                    known ? oldUser.c_str() : "", remote);
        retryTableMgt("set", record);
    }
    return reply;
}

}  // namespace

int wHttpUserUpdateHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    const char* content = cg_http_request_getcontent(request);
    JsonPtr body(jsonParseUtf8(content));
    json_object* value[4] = {};
    for (int i = 0; i < 4; ++i) {
        if (!body || !json_object_is_type(body.get(), json_type_object) ||
            !json_object_object_get_ex(body.get(), kMembers[i], &value[i])) {
            answer(request, "Request reject: lost parameters");
            return 1;
        }
    }
    for (json_object* v : value) {
        const char* text = json_object_get_string(v);
        if (!text || !*text) {
            answer(request, "Request reject: empty value");
            return 1;
        }
    }
    std::string text[4];
    for (int i = 0; i < 4; ++i)
        text[i] = wholeText(value[i]);
    std::string reply = updateAccount(text, cg_http_request_getremoteaddress(request));
    answer(request, reply.c_str());
    return 1;
}
