// whttpd_rest: the HTTPS REST API daemon.  Start-up, the message-bus receive
// loop on the main thread, and shutdown.
#include <getopt.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth/accounts.h"
#include "auth/auth_handlers.h"
#include "auth/session.h"
#include "daemon/cert.h"
#include "daemon/http_limits.h"
#include "daemon/signals.h"
#include "datamodel/schema.h"
#include "discover/whttpd_discover.h"
#include "extobj/whttpd_extobj.h"
#include "device/bus.h"
#include "http/cg_http.h"
#include "base/platform.h"
#include "device/commands.h"
#include "events/event_hub.h"
#include "rest/whttpd_rest.h"
#include "webui/console_files.h"
#include "timer/uitimer.h"
#include "device/device.h"

namespace {

// Fixed file names, below the device root.
constexpr const char* kPidFile = "/var/run/rest_api_server.pid";
constexpr const char* kPublicKeyFile = "/var/public_key.pem";

struct Options {
    int httpsPort = 8443;
    bool httpsEnabled = true;
    std::string pidFile;  // -P: a second PID file, named by the caller
};

// The settings the server keeps a pointer to until it is deleted.
CgHttpSslSettings gSsl{};
std::string gCertFile;
std::string gKeyFile;

void writePidFile() {
    std::string file = platformPath(kPidFile);
    FILE* f = fopen(file.c_str(), "w");
    if (!f)
        return;
    fprintf(f, "%u\n", static_cast<unsigned>(getpid()));
    fclose(f);
}

Options parseOptions(int argc, char** argv) {
    Options o;
    int opt;
    while ((opt = getopt(argc, argv, "p:v:s:P:")) != -1) {
        switch (opt) {
            case 'p':  // a plain-HTTP port: accepted, but nothing opens it
                break;
            case 's':
                o.httpsEnabled = true;
                o.httpsPort = atoi(optarg);
                break;
            case 'P':
                o.pidFile = optarg;
                break;
            default:
                wos_pk("Usage: %s -s         support https\n", argv[0]);
                exit(1);
        }
    }
    return o;
}

// The public half of the certificate, for the companion tools; made once.
void exportPublicKey() {
    std::string publicKey = platformPath(kPublicKeyFile);
    if (access(publicKey.c_str(), F_OK) == 0)
        return;
    char cmd[768];
    snprintf(cmd, sizeof cmd, "/usr/bin/openssl x509 -pubkey -noout -in %s > %s", gCertFile.c_str(),
             publicKey.c_str());
    if (wos_formsys(1, cmd) == -1)
        WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
}

// Creates and opens the HTTPS server; nullptr on failure.
CgHttpServer* openHttpsServer(int port) {
    CgHttpServer* server = cg_http_server_new();
    WhttpdLimits limits = whttpdLimits();
    cg_http_server_setlimits(server, limits.http);
    wHttpEventsStart(limits.events);
    wos_pk("Initial http with port(%d), SSL %s.\n", port, "enable");
    wlog_syslog(LOG_INFO, "Initial http with port(%d), SSL %s\n", port, "enable");
    if (!cg_http_server_open(server, port, "::", 0, true, &gSsl)) {
        wos_sleep(1);
        if (!cg_http_server_open(server, port, "::", 0, true, &gSsl)) {
            wos_pk("Initial http fail, cannot open port(%d).\n", port);
            wlog_syslog(LOG_ERR, "Initial http fail, cannot open port(%d).\n", port);
            cg_http_server_delete(server);
            return nullptr;
        }
    }
    wHttpConsoleStart();
    cg_http_server_setlistener(server, wHttpRequestReceived_RESTfulAPI);
    cg_http_server_setquick(server, wHttpRequestIsQuick);
    return server;
}

// Opens and starts the HTTPS server; nullptr when it cannot serve.  A missing
// certificate ends the daemon with -1 before anything is opened.
CgHttpServer* startHttpsServer(const Options& o, bool* noCertificate) {
    gCertFile = platformPath(WHTTPD_CERT_FILE);
    gKeyFile = platformPath(WHTTPD_KEY_FILE);
    gSsl.certFile = gCertFile.c_str();
    gSsl.keyFile = gKeyFile.c_str();
    gSsl.verifyPeer = 0;
    if (access(gCertFile.c_str(), R_OK) != 0) {
        *noCertificate = true;
        return nullptr;
    }
    exportPublicKey();
    CgHttpServer* server = openHttpsServer(o.httpsPort);
    if (!server)
        return nullptr;
    wHttpReadMaxLoginAccounts();
    if (!cg_http_server_start(server)) {
        wos_pk("Starting http server fail....\n");
        wlog_syslog(LOG_ERR, "Starting http server fail....\n");
        cg_http_server_delete(server);
        return nullptr;
    }
    return server;
}

bool stopRequested() {
    return gStopRequested != 0;
}

void receiveLoop() {
    while (!gStopRequested) {
        void* msg = nullptr;
        if (wcfg_msg_serverRecv(&msg, 0, WHTTPD_SRC, __LINE__) == 0) {
            uint32_t type = 0;
            memcpy(&type, msg, sizeof type);
            if (type == WCFG_MSG_DATA_MODEL_CHANGED) {
                wHttpAccountsRefresh();
                updateLoginTimer();
            }
            free(msg);
        } else if (!gStopRequested) {
            wos_pk("whttpd msg receive fail\n");
        }
        if (gDumpRequested.exchange(0))
            dumpLoginEntry();
    }
}

// Serves until a stop signal: timers, discovery, the bus, the host database.
void serve(const Options& o) {
    UITimerThreadStart();
    whttpDiscoverThreadInit(o.httpsPort);
    if (wcfg_msg_serverInit() != 0) {
        wlog_syslog(LOG_ERR, "whttpd message server init fail\n");
        wos_pk("whttpd message server init fail\n");
        return;
    }
    vxOpenHostDatabase(stopRequested);
    vxReadOperationMode();
    // What start-up allocated and let go of goes back to the system.
    malloc_trim(0);
    receiveLoop();
}

}  // namespace

int main(int argc, char** argv) {
    platformInit();
    installDevice();
    wHttpWaitForCertificate();
    wHttpInstallSignalHandler();
    Options options = parseOptions(argc, argv);
    writePidFile();
    if (!wHttpSchemaLoad())
        return -1;
    wHttpRestInit();

    wcfg_msg_eidInit(WCFG_EID_WHTTPD, "wHttpd_rest");
    wlog_syslog(LOG_NOTICE, "Http daemon init...\n");
    if (!options.pidFile.empty()) {
        if (FILE* f = fopen(options.pidFile.c_str(), "w")) {
            fprintf(f, "%d", getpid());
            fclose(f);
        }
    }

    bool noCertificate = false;
    CgHttpServer* server =
        options.httpsEnabled ? startHttpsServer(options, &noCertificate) : nullptr;
    if (noCertificate)
        return -1;
    if (server)
        serve(options);

    if (server) {
        // Event streams hear that the daemon stops before the server closes.
        wHttpEventsStop();
        cg_http_server_stop(server);
        cg_http_server_delete(server);
    }
    UITimerThreadStop();
    wos_pk("whttpd_rest daemon exit....\n");
    wlog_syslog(LOG_INFO, "whttpd_rest daemon exit....\n");
    return 0;
}
