// HTTPS certificate: wait for the companion start-up script to provide a
// matching certificate and key, or generate a self-signed pair.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/cert.h"
#include "base/platform.h"
#include "device/commands.h"

namespace {

bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Compares the outputs of two commands block by block while either has data
// left; 1 when they agree to the end of both.
int compareOutputs(FILE* a, FILE* b) {
    if (!a || !b)
        return 0;
    while (!feof(a) || !feof(b)) {
        char bufA[256] = {0}, bufB[256] = {0};
        size_t na = fread(bufA, 1, sizeof bufA, a);
        size_t nb = fread(bufB, 1, sizeof bufB, b);
        if (na != nb || na == 0 || memcmp(bufA, bufB, na) != 0)
            return 0;
    }
    return 1;
}

// The check's four tools, started together so that they run side by side;
// every pipe started is closed.  None of them verifies a certificate, so
// none loads the system's store of trusted ones (most of each run's time).
class ToolPipes {
  public:
    explicit ToolPipes(const char* const (&cmds)[4]) {
        const char* saved = getenv("SSL_CERT_FILE");
        std::string keep = saved ? saved : "";
        setenv("SSL_CERT_FILE", "/dev/null", 1);
        for (int i = 0; i < 4; ++i)
            pipes_[i] = popen(cmds[i], "r");
        if (saved)
            setenv("SSL_CERT_FILE", keep.c_str(), 1);
        else
            unsetenv("SSL_CERT_FILE");
    }
    ~ToolPipes() {
        for (FILE* f : pipes_)
            if (f)
                pclose(f);
    }
    ToolPipes(const ToolPipes&) = delete;
    ToolPipes& operator=(const ToolPipes&) = delete;
    FILE* operator[](int i) const { return pipes_[i]; }

  private:
    FILE* pipes_[4] = {};
};

}  // namespace

int wHttpCheckCertKeyPair(const char* certPath, const char* keyPath) {
    char cmds[4][512];
    snprintf(cmds[0], sizeof cmds[0], "openssl x509 -noout -modulus -in %s", certPath);
    snprintf(cmds[1], sizeof cmds[1], "openssl rsa -noout -modulus -in %s", keyPath);
    snprintf(cmds[2], sizeof cmds[2], "openssl x509 -in %s -noout -pubkey", certPath);
    snprintf(cmds[3], sizeof cmds[3], "openssl rsa -in %s -pubout", keyPath);
    const char* const list[4] = {cmds[0], cmds[1], cmds[2], cmds[3]};
    ToolPipes tools(list);
    // The moduli first, then the public keys.
    return compareOutputs(tools[0], tools[1]) && compareOutputs(tools[2], tools[3]) ? 1 : 0;
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
