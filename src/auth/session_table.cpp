#include <syslog.h>

#include "auth/session.h"
#include "daemon/whttpd.h"
#include "rest/whttpd_rest.h"

// Logins and their entries arrive with the login handler; until then the
// table stays empty and every walk finds nothing.

void storeSessionKey(CgHttpRequest* /*request*/, int32_t /*key*/) {}

const char* getCookieUser(CgHttpRequest* /*request*/) {
    return nullptr;
}

void dumpLoginEntry(void) {
    wos_pk("========================================\n");
}

void updateLoginTimer(void) {
    wlog_syslog(LOG_INFO, "data model change, update login timer.\n");
    pthread_mutex_lock(&gSessionTableMutex);
    pthread_mutex_unlock(&gSessionTableMutex);
}
