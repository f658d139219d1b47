// whttpd_rest: the HTTPS REST API daemon.  Start-up, the message-bus receive
// loop on the main thread, and shutdown.
#include <curl/curl.h>
#include <getopt.h>
#include <syslog.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth/accounts.h"
#include "discover/whttpd_discover.h"
#include "auth/session.h"
#include "daemon/whttpd.h"
#include "daemon/http_limits.h"
#include "daemon/whttpd_signals.h"
#include "datamodel/oid_names.h"
#include "platform/http/cg_http.h"
#include "platform/json_util.h"
#include "platform/store/wcfg.h"
#include "platform/bus/wcfg_msg.h"
#include "rest/whttpd_rest.h"
#include "timer/uitimer.h"

namespace {

CgHttpSslSettings* gServerSslCopy = nullptr;
CgHttpSslSettings* gSsl = nullptr;  // the SSL settings record, freed at shutdown

void writePidFile() {
    std::string file = platformPath(WHTTPD_PID_FILE);
    FILE* f = fopen(file.c_str(), "w");
    if (!f)
        return;
    fprintf(f, "%u\n", static_cast<unsigned>(getpid()));
    fclose(f);
}

// Creates and opens the HTTPS server; 1 on success, 0 on failure.
int InitHttpServer(CgHttpServer** server, const char* bindAddr, int port, bool ssl,
                   const CgHttpSslSettings* settings) {
    *server = cg_http_server_new();
    cg_http_server_setlimits(*server, whttpdHttpLimits());
    gServerSslCopy = static_cast<CgHttpSslSettings*>(calloc(1, sizeof(CgHttpSslSettings)));
    if (!gServerSslCopy) {
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to calloc memory, size = %zu", sizeof(CgHttpSslSettings));
        return 0;
    }
    if (settings)
        *gServerSslCopy = *settings;
    wos_pk("Initial http with port(%d), SSL %s.\n", port, ssl ? "enable" : "disable");
    wlog_syslog(LOG_INFO, "Initial http with port(%d), SSL %s\n", port, ssl ? "enable" : "disable");
    if (!cg_http_server_open(*server, port, bindAddr, 0, ssl, gServerSslCopy)) {
        wos_sleep(1);
        if (!cg_http_server_open(*server, port, bindAddr, 0, ssl, gServerSslCopy)) {
            wos_pk("Initial http fail, cannot open port(%d).\n", port);
            wlog_syslog(LOG_ERR, "Initial http fail, cannot open port(%d).\n", port);
            return 0;
        }
    }
    cg_http_server_setlistener(*server, wHttpRequestReceived_RESTfulAPI);
    return 1;
}

void readMaxLoginAccounts() {
    objIndex_t iid{};
    json_object* cfg = nullptr;
    if (wcfgFeObjJsonGet(wHttpOidByName("RDM_OID_VX_LOG_CFG"), &iid, &cfg) != WCFG_SUCCESS)
        return;
    JsonPtr owned(cfg);
    json_object* v = nullptr;
    if (json_object_object_get_ex(cfg, "MaximumLoginAccountNumber", &v))
        gWhttpd.maxLoginAccounts = json_object_get_int(v);
}

void openHostDatabase() {
    std::string file = platformPath(WHTTPD_HOST_DB_FILE);
    for (;;) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_SHAREDCACHE,
                            nullptr) == SQLITE_OK) {
            gWhttpd.hostDb = db;
            return;
        }
        fprintf(stderr, "Can't open database: %s\n", db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        if (gStopRequested)
            return;
        wos_sleep(1);
    }
}

void receiveLoop() {
    while (gWhttpd.running) {
        void* msg = nullptr;
        if (wcfg_msg_serverRecv(&msg, 0, WHTTPD_SRC, __LINE__) == 0) {
            uint32_t type = 0;
            memcpy(&type, msg, sizeof type);
            if (type == WCFG_MSG_DATA_MODEL_CHANGED) {
                wHttpAccountsRefresh();
                updateLoginTimer();
            }
            free(msg);
        } else if (gWhttpd.running) {
            wos_pk("whttpd msg receive fail\n");
        }
        if (gDumpRequested.exchange(0))
            dumpLoginEntry();
    }
}

}  // namespace

int main(int argc, char** argv) {
    platformInit();
    // libcurl's global state is set up here, before any thread runs; the
    // init and cleanup around each firmware transfer then only count.
    curl_global_init(CURL_GLOBAL_ALL);
    wHttpWaitForCertificate();
    wHttpInstallSignalHandler();

    int opt;
    while ((opt = getopt(argc, argv, "p:v:s:P:")) != -1) {
        switch (opt) {
            case 'p':
                gWhttpd.httpPort = atoi(optarg);
                break;
            case 's':
                gWhttpd.httpsEnabled = true;
                gWhttpd.httpsPort = atoi(optarg);
                break;
            case 'P':
                free(gWhttpd.pidFilePath);
                gWhttpd.pidFilePath = strdup(optarg);
                break;
            default:
                wos_pk("Usage: %s -s         support https\n", argv[0]);
                exit(1);
        }
    }
    writePidFile();

    std::string schemaFile = platformPath(WHTTPD_SCHEMA_FILE);
    gWhttpd.schema = json_object_from_file(schemaFile.c_str());
    if (!gWhttpd.schema)
        return -1;

    wcfg_msg_eidInit(WCFG_EID_WHTTPD, "wHttpd_rest");
    wlog_syslog(LOG_NOTICE, "Http daemon init...\n");
    if (gWhttpd.pidFilePath) {
        if (FILE* f = fopen(gWhttpd.pidFilePath, "w")) {
            fprintf(f, "%d", getpid());
            fclose(f);
        }
    }

    CgHttpServer* httpsServer = nullptr;
    CgHttpServer* httpServer = nullptr;  // never created: -p changes a value nothing opens
    CgHttpSslSettings*& ssl = gSsl;
    std::string certFile = platformPath(WHTTPD_CERT_FILE);
    std::string keyFile = platformPath(WHTTPD_KEY_FILE);
    bool serversUp = false;
    if (gWhttpd.httpsEnabled) {
        ssl = static_cast<CgHttpSslSettings*>(calloc(1, sizeof(CgHttpSslSettings)));
        ssl->certFile = certFile.c_str();
        ssl->keyFile = keyFile.c_str();
        FILE* cert = fopen(certFile.c_str(), "r");
        if (!cert)
            return -1;
        fclose(cert);
        ssl->verifyPeer = 0;
        std::string publicKey = platformPath(WHTTPD_PUBLIC_KEY_FILE);
        if (access(publicKey.c_str(), F_OK) != 0) {
            snprintf(gWhttpd.privateKeyPath, sizeof gWhttpd.privateKeyPath, "%s", keyFile.c_str());
            char cmd[768];
            snprintf(cmd, sizeof cmd, "/usr/bin/openssl x509 -pubkey -noout -in %s > %s",
                     certFile.c_str(), publicKey.c_str());
            if (wos_formsys(1, cmd) == -1)
                WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
        }
        serversUp = InitHttpServer(&httpsServer, "::", gWhttpd.httpsPort, true, ssl) == 1;
    }

    if (serversUp) {
        readMaxLoginAccounts();
        if (httpsServer && !cg_http_server_start(httpsServer)) {
            wos_pk("Starting http server fail....\n");
            wlog_syslog(LOG_ERR, "Starting http server fail....\n");
            serversUp = false;
        }
        if (serversUp && httpServer && !cg_http_server_start(httpServer))
            serversUp = false;
    }
    if (serversUp) {
        UITimerThreadStart();
        whttpDiscoverThreadInit();
        // The three process-wide mutexes are initialised statically, before
        // the server starts.
        if (wcfg_msg_serverInit() != 0) {
            wlog_syslog(LOG_ERR, "whttpd message server init fail\n");
            wos_pk("whttpd message server init fail\n");
        } else {
            openHostDatabase();
            gWhttpd.operationMode = wcfgFeDalGetOpertaionMode();
            // What start-up allocated and let go of goes back to the system.
            malloc_trim(0);
            if (!gStopRequested)
                gWhttpd.running = 1;
            receiveLoop();
        }
    }

    // Shutdown.
    if (httpServer) {
        cg_http_server_stop(httpServer);
        cg_http_server_delete(httpServer);
    }
    if (httpsServer) {
        cg_http_server_stop(httpsServer);
        cg_http_server_delete(httpsServer);
    }
    UITimerThreadStop();
    free(ssl);
    free(gServerSslCopy);
    free(gWhttpd.pidFilePath);
    gWhttpd.pidFilePath = nullptr;
    wos_pk("whttpd_rest daemon exit....\n");
    wlog_syslog(LOG_INFO, "whttpd_rest daemon exit....\n");
    return 0;
}
