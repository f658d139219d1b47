// Process-wide state of the REST API daemon, set at start-up and read by the
// request handlers.
#pragma once

#include <json-c/json.h>
#include <pthread.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdint>

#include "platform/platform.h"

// Levelled log line of the daemon; `src` names the source ("whttpd_rest.c").
#define WLOG(level, src, ...)                                        \
    do {                                                             \
        if (wlog_levelAllow(level))                                  \
            wlog_log_f(level, src, __LINE__, __func__, __VA_ARGS__); \
    } while (0)
#define WHTTPD_SRC "whttpd_rest.c"

// Fixed file names, below the device root.
#define WHTTPD_CERT_FILE "/data/CA/newreq.crt"
#define WHTTPD_KEY_FILE "/data/CA/newreq.key"
#define WHTTPD_OPENSSL_CNF "/etc/config/openssl.cnf"
#define WHTTPD_PUBLIC_KEY_FILE "/var/public_key.pem"
#define WHTTPD_PID_FILE "/var/run/rest_api_server.pid"
#define WHTTPD_SCHEMA_FILE "/etc/wcfg_REST_API_schema.json"
#define WHTTPD_HOST_DB_FILE "/tmp/devscout.db"

struct WHttpdState {
    int httpsPort = 8443;
    int httpPort = 8442;
    bool httpsEnabled = true;
    char* pidFilePath = nullptr;
    json_object* schema = nullptr;  // read-only after start-up
    // Set by the main thread after the server has started serving, read by
    // request threads: published atomically.
    std::atomic<sqlite3*> hostDb{nullptr};
    std::atomic<int> operationMode{0};
    int maxLoginAccounts = 0;
    char privateKeyPath[64] = "";
    std::atomic<int> running{0};
    std::atomic<uint8_t> compactOutput{0};  // toggled by SIGUSR2
    uint8_t htmlEncode = 0;                 // HTML-encode string values under "Object"
};

extern WHttpdState gWhttpd;

// The session-table mutex, the session-key generator mutex and the
// data-model request mutex.  Statically initialised, so usable before the
// server starts.
extern pthread_mutex_t gSessionTableMutex;
extern pthread_mutex_t gSessionKeyMutex;
extern pthread_mutex_t gDataModelMutex;

// Holds a pthread mutex for the rest of a scope.
class WHttpMutexLock {
  public:
    explicit WHttpMutexLock(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
    ~WHttpMutexLock() { pthread_mutex_unlock(m_); }
    WHttpMutexLock(const WHttpMutexLock&) = delete;
    WHttpMutexLock& operator=(const WHttpMutexLock&) = delete;

  private:
    pthread_mutex_t* m_;
};

// Certificate wait and regeneration before start-up.
void wHttpWaitForCertificate(void);
// 1 when the certificate and the key belong together, else 0.
int wHttpCheckCertKeyPair(const char* certPath, const char* keyPath);
// 1 when the companion start-up script runs.
int wHttpCompanionScriptRunning(void);

// Installs the signal handler for SIGQUIT, SIGKILL, SIGTERM, SIGINT, SIGUSR1
// and SIGUSR2.
void wHttpInstallSignalHandler(void);
