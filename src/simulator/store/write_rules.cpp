// Who may change what: guards, parameter flags and account-name rules.
#include "simulator/store/write_rules.h"

#include <cctype>

namespace {

// Every thread starts as the device itself; the HTTP server's connection
// threads lower themselves to WCFG_CALLER_NONE and the daemon raises a request
// to its session's group once the session is known.
thread_local int tCaller = WCFG_CALLER_DEVICE;

const int kSupervisorGroup = 1;

}  // namespace

namespace wcfg {

void setCaller(int caller) {
    tCaller = caller < WCFG_CALLER_NONE ? WCFG_CALLER_NONE : caller;
}

int caller() {
    return tCaller;
}

int checkObjectRights(const wdm::Object& o, const objIndex_t& iid) {
    if (o.guard == wdm::Guard::None || tCaller == WCFG_CALLER_DEVICE)
        return WCFG_SUCCESS;
    if (tCaller == WCFG_CALLER_NONE)
        return WCFG_REQUEST_REJECT;
    if (o.guard == wdm::Guard::Supervisor)
        return tCaller == kSupervisorGroup ? WCFG_SUCCESS : WCFG_REQUEST_REJECT;
    // Group numbers grow as privileges fall: a session reaches its own group
    // and the ones after it.
    int group = iid.level > 0 ? iid.idx[0] : 0;
    return group >= tCaller ? WCFG_SUCCESS : WCFG_REQUEST_REJECT;
}

int checkParamRights(const wdm::Param& p, bool secrets, bool wasEmpty) {
    if (p.secret && !secrets)
        return WCFG_REQUEST_REJECT;
    // A name, once given, is changed by the account editor: failed logins
    // are counted by name, and a new name would start them from nothing.
    if (p.once && !wasEmpty && !secrets && tCaller != WCFG_CALLER_DEVICE)
        return WCFG_REQUEST_REJECT;
    if (p.supervisor && tCaller != WCFG_CALLER_DEVICE && tCaller != kSupervisorGroup)
        return WCFG_REQUEST_REJECT;
    return WCFG_SUCCESS;
}

bool callerIsDevice() {
    return tCaller == WCFG_CALLER_DEVICE;
}

bool usernameAcceptable(const std::string& name) {
    // The daemon counts failed logins of unknown names under this one.
    if (name.empty() || name.size() > 31 || name == "Invalid_Account")
        return false;
    for (unsigned char c : name)
        if (!isalnum(c) && c != '_' && c != '.' && c != '-')
            return false;
    return true;
}

}  // namespace wcfg
