#include "auth/login_auth.h"

#include "daemon/whttpd.h"

const char* wHttpLoginAuth(WHttpReqCtx* /*ctx*/, int /*loginMode*/, char* /*buf*/,
                           size_t /*size*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    // Without a login entry for the request's session cookie no account is
    // found, and the result stays "Timeout".  The account checks of a login
    // come with the login handler.
    return "Timeout";
}
