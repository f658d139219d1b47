// login, logout and passwd: the commands that open, end and change the
// account of a session.
#include <unistd.h>

#include "api.h"
#include "commands.h"
#include "output.h"
#include "prompt.h"
#include "state.h"

namespace whttpctl {

namespace {

// The password operand, or one read from the terminal or standard input.
// It is read before the state's lock is taken: a prompt may wait for ever.
bool passwordOf(const Context& ctx, size_t operand, const std::string& prompt, std::string& pw) {
    if (ctx.line.operands.size() > operand) {
        pw = ctx.line.operands[operand];
        return true;
    }
    return readSecret(prompt, pw);
}

json_object* bodyOf(std::initializer_list<std::pair<const char*, const std::string*>> members) {
    json_object* o = json_object_new_object();
    for (const auto& [name, value] : members)
        json_object_object_add(
            o, name, json_object_new_string_len(value->c_str(), static_cast<int>(value->size())));
    return o;
}

// Stores the session that a successful login answer opened.
int keepSession(Context& ctx, const std::string& user, const Answer& answer, const Response& raw) {
    json_object* key = nullptr;
    if (!json_object_object_get_ex(answer.doc.get(), "sessionkey", &key) ||
        !json_object_is_type(key, json_type_int) || !plausibleCookie(raw.sessionCookie))
        return fail(kFailed, "the login answer carries no usable session cookie and key");
    SessionEntry entry{user, raw.sessionCookie, static_cast<long>(json_object_get_int64(key))};
    if (int rc = lockState(ctx))
        return rc;
    HeldState held(ctx);
    ctx.state->put(ctx.url, entry);
    return saveState(ctx);
}

}  // namespace

int cmdLogin(Context& ctx) {
    const std::string& user = ctx.line.operands[0];
    std::string password;
    if (!passwordOf(ctx, 1, "Password for " + user + ": ", password))
        return fail(kUsage, "no password given");
    JsonPtr body(bodyOf({{"username", &user}, {"password", &password}}));
    // The login is the one write without a key: the answer brings the first.
    Call call = writeCall("POST", "UserLogin", json_object_to_json_string_ext(body.get(), 0));
    call.keyed = false;
    Answer answer;
    Response raw;
    if (int rc = sendPlain(ctx, call, answer, raw))
        return rc;
    if (int rc = judge(answer))
        return rc;
    if (int rc = keepSession(ctx, user, answer, raw))
        return rc;
    printAnswer(ctx, answer);
    return kOk;
}

int cmdLogout(Context& ctx) {
    Answer answer;
    if (int rc = sendCall(ctx, writeCall("POST", "UserLogout", ""), answer))
        return rc;
    // The device ended the session (or had already): forget it either way.
    if (int rc = lockState(ctx))
        return rc;
    HeldState held(ctx);
    ctx.state->erase(ctx.url);
    if (int rc = saveState(ctx))
        return rc;
    return report(ctx, answer);
}

// The passwords come from the terminal (asked twice for the new one) or as
// two lines of standard input: never from the command line, where every
// user of the machine could read them.
int cmdPasswd(Context& ctx) {
    SessionEntry session;
    if (!ctx.state->find(ctx.url, session))
        return fail(kFailed, "not logged in to " + ctx.url + "; run: whttpctl login USER");
    std::string oldPw, newPw, again;
    if (!readSecret("Current password: ", oldPw) || !readSecret("New password: ", newPw))
        return fail(kUsage, "no password given");
    if (isatty(0) && (!readSecret("New password again: ", again) || again != newPw))
        return fail(kUsage, "the new passwords differ");
    std::string newUser = ctx.line.option("--new-user", session.user);
    JsonPtr body(bodyOf({{"old_username", &session.user},
                         {"old_password", &oldPw},
                         {"new_username", &newUser},
                         {"new_password", &newPw}}));
    Answer answer;
    Call call = writeCall("POST", "UserUpdate", json_object_to_json_string_ext(body.get(), 0));
    if (int rc = sendCall(ctx, call, answer))
        return rc;
    if (int rc = report(ctx, answer))
        return rc;
    if (newUser == session.user)
        return kOk;
    if (int rc = lockState(ctx))
        return rc;
    HeldState held(ctx);
    if (ctx.state->find(ctx.url, session)) {
        session.user = newUser;
        ctx.state->put(ctx.url, session);
        return saveState(ctx);
    }
    return kOk;
}

}  // namespace whttpctl
