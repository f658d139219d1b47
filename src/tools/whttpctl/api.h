// Requests of a logged-in session: the cookie and the latest session key
// from the state file, the key that every answer renews kept at once, and
// the answer judged by its HTTP status and "oper_status".
#pragma once

#include <string>

#include "cli.h"
#include "json.h"
#include "state.h"
#include "transport.h"

namespace whttpctl {

struct Call {
    std::string method = "GET";
    std::string target;  // below /api/v1/, query included
    std::string body;
    bool keyed = false;  // append "sessionkey=" (every modifying request)
    long totalMs = 0;    // 0: the default bound
    bool progress = false;
    // Whether the state's lock is held through the request.  Only a long
    // wait whose answer renews no key (the firmware upgrade) lets it go
    // once the key is read, so that other runs need not wait for it.
    bool holdLock = true;
};

// A read: GET, no key.
inline Call readCall(const std::string& target) {
    Call c;
    c.target = target;
    return c;
}

// A modifying request: it carries the session key.
inline Call writeCall(const std::string& method, const std::string& target,
                      const std::string& body = "") {
    Call c;
    c.method = method;
    c.target = target;
    c.body = body;
    c.keyed = true;
    return c;
}

struct Answer {
    long status = 0;
    JsonPtr doc;  // the answer's JSON object, or nullptr
};

// Takes the state's lock and rereads the state; kOk, or prints why not and
// returns kBusy or kState.
int lockState(Context& ctx);

// Writes the state back (the lock held); kOk, or prints why not and returns
// kState.
int saveState(Context& ctx);

// Lets the lock go at the end of a scope (whether or not it was taken).
struct HeldState {
    Context& ctx;
    explicit HeldState(Context& c) : ctx(c) {}
    ~HeldState() { ctx.state->unlock(); }
    HeldState(const HeldState&) = delete;
    HeldState& operator=(const HeldState&) = delete;
};

// Sends `call` with the session of ctx.url and stores the renewed key.
// Returns kOk when an answer arrived, else prints the error and returns its
// exit status (kNetwork, kState, kBusy, kFailed when not logged in).
int sendCall(Context& ctx, const Call& call, Answer& answer);

// Sends `call` without a session (the login).
int sendPlain(Context& ctx, const Call& call, Answer& answer, Response& raw);

// kOk when the answer says success (2xx and "oper_status" absent,
// "Success" or "WCFG_SUCCESS"); otherwise prints the reason and returns
// kFailed.
int judge(const Answer& answer);

// Prints the answer without its session key (that is the tool's business,
// like the cookie).
void printAnswer(const Context& ctx, const Answer& answer);

// The common ending of a command: judge, then print on success.
int report(Context& ctx, const Answer& answer);

}  // namespace whttpctl
