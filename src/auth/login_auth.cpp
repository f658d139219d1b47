// Login authentication and account lock.
#include "auth/login_auth.h"

#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "auth/accounts.h"
#include "auth/retry_table.h"
#include "auth/session.h"
#include "auth/session_events.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "base/platform.h"

namespace {

// The last user name refused as locked and whether the last authenticated
// account was of the high group; shared by the request threads.
std::mutex gAuthMutex;
char gLockedUser[17] = "";
uint8_t gHighPrivilege = 0;

void setLocked(const char* user, unsigned left, char* buf, size_t size) {
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        wos_strlcpy(gLockedUser, user, sizeof gLockedUser);
    }
    if (buf && size)
        snprintf(buf, size, "AfterLockTime=%d", static_cast<int>(left));
}

const char* privilegeOfGroup(int group) {
    switch (group) {
        case 1:
            return "high";
        case 2:
            return "medium";
        case 3:
            return "low";
        default:
            return "";
    }
}

// Whether the account's group may use the app ("app" in "GP_Privilege").
bool groupAllowsApp(const WHttpAccountSet& set, const WHttpAccount& account) {
    const std::string* priv = set.groupPrivilege(account.iid.idx[0]);
    return priv && priv->find("app") != std::string::npos;
}

// The hash field of a "shadow" line (newly allocated, free()), or nullptr.
char* hashOfShadow(const char* shadow) {
    if (!*shadow) {
        wos_pk("%s(): Fail to get shadow info!!!\n", "jsonGetPassword");
        return nullptr;
    }
    size_t n = strlen(shadow);
    char* hash = static_cast<char*>(calloc(n + 1, 1));
    if (!hash)
        return nullptr;
    // "user:$id$salt$hash:..." keeps "hash"; any other form leaves "".
    if (sscanf(shadow, "%*[^:]:$%*[^$]$%*[^$]$%[^:]", hash) != 1)
        hash[0] = '\0';
    return hash;
}

// The login body as JSON: parsed once per request (the walk checks it
// against every account), kept in the request's context.
json_object* loginBody(CgHttpRequest* request, JsonPtr& local) {
    WHttpReqCtx* ctx = wHttpReqCtx(request);
    JsonPtr& doc = ctx ? ctx->loginBody : local;
    if (!ctx || !ctx->loginBodyParsed) {
        const char* body = cg_http_request_getcontent(request);
        doc.reset(jsonParseUtf8(body));
        if (ctx)
            ctx->loginBodyParsed = true;
    }
    return doc.get();
}

// An unknown user name costs one password check, as a known one does, so
// that the time of the answer does not tell which names exist.
void checkAgainstNobody(CgHttpRequest* request) {
    JsonPtr local;
    vxUtilAuthDummy(jsonText(loginBody(request, local), "password").c_str());
}

// The account passed: the context learns who it is, and a session-checked
// request its login entry.
const char* authenticated(WHttpReqCtx* ctx, const WHttpAccount& account, int loginMode,
                          const char* cookieSid, char* buf, size_t size) {
    const char* name = account.userName.c_str();
    int group = account.iid.idx[0];
    wos_pk("%s() user=%s\n", "wHttpLoginAuth", name);
    {
        std::lock_guard<std::mutex> lock(gAuthMutex);
        gHighPrivilege = group == 1 ? 1 : 0;
    }
    if (*cookieSid) {
        setCurrentSessionID(cookieSid);
        wos_strlcpy(ctx->sessionID, cookieSid, sizeof ctx->sessionID);
    }
    setCurrentUserName(name);
    wos_strlcpy(ctx->userName, name, sizeof ctx->userName);
    wos_strlcpy(ctx->privilege, privilegeOfGroup(group), sizeof ctx->privilege);
    if (group > 1 && !account.dotChangeDefPwd) {
        ctx->changeDefaultPassword = 1;
        ctx->showSkipButton = account.showSkipBtn ? 1 : 0;
        if (account.autoShowQuickStart)
            ctx->quickStart = 1;
    }
    if (!loginMode) {
        switch (checkLoginEntry(ctx, account.idleTime)) {
            case 0:
                break;
            case 1:
                return "Timeout";
            case 2:
                return "Invalid Session ID";
            default:
                return "Internal Error";
        }
    } else {
        setCurrentSessionID("");
    }
    if (unsigned left = isRestriction(name)) {
        setLocked(name, left, buf, size);
        return "Locked User";
    }
    wos_strlcpy(ctx->userName, name, sizeof ctx->userName);
    wos_strlcpy(ctx->privilege, privilegeOfGroup(group), sizeof ctx->privilege);
    ctx->group = group;
    return "Success";
}

}  // namespace

char* jsonGetPassword(json_object* account) {
    return hashOfShadow(jsonString(account, "shadow"));
}

int authLoginBody(CgHttpRequest* request, const char* user, const char* hash) {
    const char* body = cg_http_request_getcontent(request);
    const char* length = cg_http_request_getheader(request, "Content-Length");
    if (!body || !length || platformParseInt(length) == 0 ||
        cg_http_request_getcontentlength(request) == 0)
        return 3;
    JsonPtr local;
    json_object* doc = loginBody(request, local);
    // The whole texts: a name or password with an escaped NUL ("\u0000")
    // matches no account, it is not cut short at the NUL.
    std::string username = jsonText(doc, "username");
    std::string password = jsonText(doc, "password");
    if (username.empty() || username != user)
        return 1;
    if (password.empty() || password.find('\0') != std::string::npos) {
        vxUtilAuthDummy(password.c_str());  // as long as a real check
        return 2;
    }
    switch (vxUtilAuthUserAccount(username.c_str(), password.c_str())) {
        case 0:
            return 0;
        case 1:
            return (hash && password == hash) ? 0 : 2;
        default:
            return 2;
    }
}

namespace {

// Counts a failed login under `name` and answers `result`, or "Locked User"
// once the count locks the name.
const char* countFailure(const char* name, const char* result, char* buf, size_t size) {
    retryTableMgt("set", name);
    if (unsigned left = isRestriction(name)) {
        setLocked(name, left, buf, size);
        return "Locked User";
    }
    return result;
}

// The account the request names: by the login body's name and password
// (`code`: authLoginBody's result), or by the session cookie's user.
const WHttpAccount* findAccount(const WHttpAccountSet& set, CgHttpRequest* request, int loginMode,
                                const std::string& cookieUser, int* code) {
    for (const WHttpAccount& a : set.accounts) {
        const char* name = a.userName.c_str();
        if (loginMode) {
            char* hash = hashOfShadow(a.shadow.c_str());
            *code = authLoginBody(request, name, hash);
            free(hash);
            if (*code == 0 || *code == 2)
                return &a;
        } else if (!cookieUser.empty() && cookieUser == name) {
            return &a;
        }
    }
    return nullptr;
}

// The answer when no account passed: an unknown name counts against the
// invalid-account record.
const char* refusal(int code, const char* remote, char* buf, size_t size) {
    switch (code) {
        case 1:
            wlog_syslog(LOG_INFO, "Account: Enter an invalid username form the host(%s).\n",
                        remote);
            return countFailure(INVALID_ACCOUNT_NAME, "Invalid Username", buf, size);
        case 3:
            return "InitLogin";
        case -1:
            wlog_syslog(LOG_INFO, "Account: Login authentication fail, %s \n", "Internal Error");
            return "Internal Error";
        default:
            return "Timeout";
    }
}

}  // namespace

const char* wHttpLoginAuth(WHttpReqCtx* ctx, int loginMode, char* buf, size_t size) {
    wos_pk("%s() Enter\n", "wHttpLoginAuth");
    CgHttpRequest* request = ctx->request;
    const char* remote = cg_http_request_getremoteaddress(request);
    const char* cookieSid = cg_http_request_getcookie(request, "Session");
    if (!cookieSid)
        cookieSid = "";

    // A session-checked request without a session cookie cannot name a login
    // entry.
    if (!loginMode && !*cookieSid)
        return "Invalid Session ID";
    std::string cookieUser = loginMode ? std::string() : getCookieUser(request);

    int code = 0;
    std::shared_ptr<const WHttpAccountSet> set = wHttpAccounts();
    const WHttpAccount* account = findAccount(*set, request, loginMode, cookieUser, &code);
    if (loginMode && !account && code == 1)
        checkAgainstNobody(request);

    if (account && code == 2) {
        // Wrong password for a known user.
        const char* name = account->userName.c_str();
        wlog_syslog(LOG_INFO,
                    "Account: Enter an invalid password for User '%s' form the host(%s).\n", name,
                    remote);
        return countFailure(name, "Invalid Password", buf, size);
    }
    if (account) {
        int group = account->iid.idx[0];
        if (!account->enabled)
            code = 1;
        else if (group != 2 && !groupAllowsApp(*set, *account))
            code = 1;
        if (code == 0)
            return authenticated(ctx, *account, loginMode, cookieSid, buf, size);
    }
    return refusal(code, remote, buf, size);
}

const char* wHttpSessionEndReason(const WHttpSessionRef& ref, int* group) {
    if (!wHttpLoginEntryAlive(ref))
        return WHTTP_END_ELSEWHERE;
    std::shared_ptr<const WHttpAccountSet> accounts = wHttpAccounts();
    const WHttpAccount* account = accounts->find(ref.user.c_str());
    if (!account)
        return WHTTP_END_REMOVED;
    if (group)
        *group = account->iid.idx[0];
    // The same account tests as a request's session check.
    if (!account->enabled || (account->iid.idx[0] != 2 && !groupAllowsApp(*accounts, *account)))
        return WHTTP_END_DISABLED;
    if (account->shadow != ref.shadow)
        return WHTTP_END_PASSWORD;
    if (retryTableLocked(ref.user.c_str()))
        return WHTTP_END_LOCKED;
    return nullptr;
}
