// The UserUpdate handler: changes a login account's user name and password
// through the configuration service's account editor, which owns the
// password policy and the reply texts.
#include "auth/auth_handlers.h"
#include "daemon/whttpd.h"
#include "platform/json_util.h"
#include "platform/store/wcfg.h"
#include "rest/whttpd_rest.h"

namespace {

const char* const kMembers[] = {"old_username", "old_password", "new_username", "new_password"};

void answer(CgHttpRequest* request, const char* text) {
    json_object* doc = json_object_new_object();
    wHttpSetOperStatus(doc, text);
    wHttpJsonResponse_restapi(request, nullptr, doc, 0, 0);
}

}  // namespace

int wHttpUserUpdateHandle(CgHttpRequest* request, uint8_t /*chunked*/, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    const char* content = cg_http_request_getcontent(request);
    JsonPtr body(content ? json_tokener_parse(content) : nullptr);
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
    const char* oldUser = json_object_get_string(value[0]);
    const char* oldPassword = json_object_get_string(value[1]);
    const char* newUser = json_object_get_string(value[2]);
    const char* newPassword = json_object_get_string(value[3]);

    JsonPtr edit(json_object_new_object());
    json_object_object_add(edit.get(), "Username", json_object_new_string(oldUser));
    json_object_object_add(edit.get(), "new_Username", json_object_new_string(newUser));
    json_object_object_add(edit.get(), "Password", json_object_new_string(newPassword));
    json_object_object_add(edit.get(), "verifyNewpassword", json_object_new_string(newPassword));
    json_object_object_add(edit.get(), "oldPw", json_object_new_string(oldPassword));
    json_object_object_add(edit.get(), "DAL_LOGIN_LEVEL", json_object_new_string("high"));
    char reply[128] = {};
    if (wcfgFeDal_User_Account_Edit(edit.get(), reply, sizeof reply) == 0)
        answer(request, "Success");
    else
        answer(request, reply);
    return 1;
}
