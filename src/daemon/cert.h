// The HTTPS certificate and key of the daemon: waited for at start-up, and
// generated as a self-signed pair when the companion start-up script does
// not provide a matching one.
#pragma once

// Fixed file names, below the device root.
#define WHTTPD_CERT_FILE "/data/CA/newreq.crt"
#define WHTTPD_KEY_FILE "/data/CA/newreq.key"
#define WHTTPD_OPENSSL_CNF "/etc/config/openssl.cnf"

// Certificate wait and regeneration before start-up.
void wHttpWaitForCertificate(void);
// 1 when the certificate and the key belong together, else 0.
int wHttpCheckCertKeyPair(const char* certPath, const char* keyPath);
// 1 when the companion start-up script runs.
int wHttpCompanionScriptRunning(void);
