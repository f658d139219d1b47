// HTTPS certificate: wait for the companion start-up script to provide a
// matching certificate and key, or generate a self-signed pair.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/cert.h"
#include "platform/platform.h"

namespace {

bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Compares the outputs of two commands block by block while either has data
// left; 1 when they agree to the end of both.
int compareOutputs(const char* cmdA, const char* cmdB) {
    FILE* a = popen(cmdA, "r");
    if (!a)
        return 0;
    FILE* b = popen(cmdB, "r");
    if (!b) {
        pclose(a);
        return 0;
    }
    int same = 1;
    while (!feof(a) || !feof(b)) {
        char bufA[256] = {0}, bufB[256] = {0};
        size_t na = fread(bufA, 1, sizeof bufA, a);
        size_t nb = fread(bufB, 1, sizeof bufB, b);
        if (na != nb || na == 0 || memcmp(bufA, bufB, na) != 0) {
            same = 0;
            break;
        }
    }
    pclose(a);
    pclose(b);
    return same;
}

}  // namespace

int wHttpCheckCertKeyPair(const char* certPath, const char* keyPath) {
    char cmdA[512], cmdB[512];
    snprintf(cmdA, sizeof cmdA, "openssl x509 -noout -modulus -in %s", certPath);
    snprintf(cmdB, sizeof cmdB, "openssl rsa -noout -modulus -in %s", keyPath);
    if (!compareOutputs(cmdA, cmdB))
        return 0;
    snprintf(cmdA, sizeof cmdA, "openssl x509 -in %s -noout -pubkey", certPath);
    snprintf(cmdB, sizeof cmdB, "openssl rsa -in %s -pubout", keyPath);
    return compareOutputs(cmdA, cmdB);
}

int wHttpCompanionScriptRunning(void) {
    FILE* p = popen("pidof whttp.sh", "r");
    if (!p)
        return 0;
    char line[15] = {0};
    if (!fgets(line, sizeof line, p))
        line[0] = '\0';
    pclose(p);
    return atoi(line) > 0 ? 1 : 0;
}

void wHttpWaitForCertificate(void) {
    const std::string cnf = platformPath(WHTTPD_OPENSSL_CNF);
    const std::string cert = platformPath(WHTTPD_CERT_FILE);
    const std::string key = platformPath(WHTTPD_KEY_FILE);
    int waits = 0, regenerations = 0;
    for (;;) {
        if (!fileExists(cnf))
            return;
        if (fileExists(cert) && fileExists(key) && wHttpCheckCertKeyPair(cert.c_str(), key.c_str()))
            return;
        if (wHttpCompanionScriptRunning()) {
            wos_pk("whttpd_rest: cert file not ready, wait for whttpd...\n");
            wos_sleep(10);
            continue;
        }
        ++waits;
        wos_pk("whttpd_rest: cert file not ready, and whttpd doesn's exist... count=%d/5\n", waits);
        if (waits < 5) {
            wos_sleep(10);
            continue;
        }
        // The commands name paths below the device root, which may be longer
        // than on the device itself: the buffer leaves room for that.
        char cmd[768];
        snprintf(cmd, sizeof cmd, "mkdir %s", platformPath("/data/CA").c_str());
        if (wos_formsys(1, cmd) == -1)
            WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
        snprintf(cmd, sizeof cmd,
                 "/usr/bin/openssl req -newkey rsa:2048 -nodes -keyout %s -x509 -sha512 "
                 "-days 3650 -out %s -batch -config %s 2> /dev/null",
                 key.c_str(), cert.c_str(), cnf.c_str());
        if (wos_formsys(1, cmd) == -1)
            WLOG(WLOG_ERR, WHTTPD_SRC, "fail to run system()");
        ++regenerations;
        if (regenerations >= 3) {
            wos_pk("whttpd_rest: ERROR: re-generate CA %d times, please check!\n", regenerations);
            return;
        }
    }
}
