// whttpctl: requests of a logged-in session and the judging of answers.
#include "api.h"

#include "output.h"
#include "state.h"

namespace whttpctl {

namespace {

constexpr long kDefaultMs = 30000;

RequestBounds boundsOf(const Context& ctx, const Call& call) {
    RequestBounds b;
    b.totalMs = ctx.timeoutMs ? ctx.timeoutMs : (call.totalMs ? call.totalMs : kDefaultMs);
    b.progress = call.progress;
    return b;
}

int transfer(Context& ctx, const Call& call, const std::string& target, const std::string& cookie,
             Answer& answer, Response& raw) {
    std::string error;
    if (!ctx.http->send(call.method, target, call.body, cookie, boundsOf(ctx, call), raw, error))
        return fail(kNetwork, ctx.url + ": " + error);
    answer.status = raw.status;
    answer.doc = parseJson(raw.body);
    if (answer.doc && !json_object_is_type(answer.doc.get(), json_type_object))
        answer.doc.reset();
    return kOk;
}

// The key an answer carries, if any.
bool renewedKey(const Answer& answer, long& key) {
    json_object* v = nullptr;
    if (!answer.doc || !json_object_object_get_ex(answer.doc.get(), "sessionkey", &v) ||
        !json_object_is_type(v, json_type_int))
        return false;
    key = static_cast<long>(json_object_get_int64(v));
    return true;
}

}  // namespace

int sendPlain(Context& ctx, const Call& call, Answer& answer, Response& raw) {
    return transfer(ctx, call, call.target, "", answer, raw);
}

int lockState(Context& ctx) {
    std::string error;
    if (int rc = ctx.state->load(error))
        return fail(rc, error);
    return kOk;
}

int saveState(Context& ctx) {
    std::string error;
    if (!ctx.state->save(error))
        return fail(kState, error);
    return kOk;
}

// A write takes the lock, so that it sends the latest key and keeps the one
// its answer brings before another run reads the file.  A read sends no key
// and is answered with none: it takes the state as the run found it.
int sendCall(Context& ctx, const Call& call, Answer& answer) {
    if (call.keyed) {
        if (int rc = lockState(ctx))
            return rc;
    }
    HeldState held(ctx);
    SessionEntry session;
    if (!ctx.state->find(ctx.url, session))
        return fail(kFailed, "not logged in to " + ctx.url + "; run: whttpctl login USER");
    std::string target = call.target;
    if (call.keyed) {
        target += target.find('?') == std::string::npos ? "?" : "&";
        target += "sessionkey=" + std::to_string(session.key);
    }
    if (!call.holdLock)
        ctx.state->unlock();
    Response raw;
    if (int rc = transfer(ctx, call, target, session.cookie, answer, raw))
        return rc;
    // Every answer to a write carries the key of the next one: keep it before
    // anything else can go wrong, or the session is lost to this tool.
    long key = 0;
    if (renewedKey(answer, key) && call.keyed && call.holdLock) {
        session.key = key;
        ctx.state->put(ctx.url, session);
        return saveState(ctx);
    }
    return kOk;
}

int judge(const Answer& answer) {
    std::string oper = memberText(answer.doc.get(), "oper_status");
    // The firmware URIs name the configuration service's code instead of
    // saying "Success".
    bool done = oper.empty() || oper == "Success" || oper == "WCFG_SUCCESS";
    bool ok = answer.status >= 200 && answer.status < 300 && done;
    if (ok && answer.doc)
        return kOk;
    if (!oper.empty())
        return fail(kFailed, oper + " (HTTP " + std::to_string(answer.status) + ")");
    return fail(kFailed, "the device answered HTTP " + std::to_string(answer.status) +
                             (answer.doc ? "" : " without a JSON document"));
}

void printAnswer(const Context& ctx, const Answer& answer) {
    json_object_object_del(answer.doc.get(), "sessionkey");
    printJson(answer.doc.get(), ctx.compact);
}

int report(Context& ctx, const Answer& answer) {
    if (int rc = judge(answer))
        return rc;
    printAnswer(ctx, answer);
    return kOk;
}

}  // namespace whttpctl
