// A raw client connection for the tests of the HTTPS front: plain TCP that
// may stay silent, or TLS that sends exactly the bytes a test gives (slowly,
// partly, oversized) and reads whatever the daemon answers.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace e2e {

// What a client offers in its TLS handshake: protocol versions (0: any)
// and suites ("" the library's defaults).  The client's own security level
// is lowered so that a refusal is the server's, not the client's.
struct TlsOffer {
    int minVersion = 0, maxVersion = 0;
    std::string tls12Ciphers, tls13Suites;
};

class RawConn {
  public:
    RawConn() = default;
    ~RawConn();
    RawConn(const RawConn&) = delete;
    RawConn& operator=(const RawConn&) = delete;
    RawConn(RawConn&& o) noexcept;

    // Connects to 127.0.0.1:`port` from source address `local` ("" any);
    // `rcvbuf` > 0 shrinks the receive buffer first.
    bool connect(int port, const std::string& local = "", int rcvbuf = 0);
    // TLS client handshake (certificate not verified).
    bool handshake();
    bool handshake(const TlsOffer& offer);
    // The suite the handshake agreed on ("" before one).
    std::string cipher() const;
    // Sends through TLS once handshaken, raw before; false when refused.
    bool send(const std::string& bytes);
    // Reads until the peer closes or `timeoutMs` passes (0: only what has
    // arrived); `closed` tells which.
    std::string readUntilClose(int timeoutMs, bool* closed = nullptr);
    // Waits up to `timeoutMs` for bytes, then takes whatever has arrived
    // without waiting further; `closed` tells whether the peer closed.
    std::string readSome(int timeoutMs, bool* closed = nullptr);
    // Whether the peer closed or reset the connection within `timeoutMs`,
    // learnt without reading anything that waits in it.
    bool peerGoneWithin(int timeoutMs);
    // Whether the daemon closed the (silent, plain) connection within `timeoutMs`.
    bool closedWithin(int timeoutMs);
    void close();
    // Shuts the socket down (from any thread): a blocked send returns.
    void abort();
    bool open() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
    SSL* ssl_ = nullptr;
};

// Raises this process's descriptor limit to its hard limit (the flood
// tests open more than the default 1024).
void raiseDescriptorLimit();
// A number of /proc/PID/status ("Threads", "RssAnon" in kB), -1 when unknown.
long statusField(int pid, const std::string& name);
// The number of threads of process `pid` (/proc), -1 when unknown.
int threadCount(int pid);
// The number of sockets process `pid` holds open (/proc), -1 when unknown.
long socketCount(int pid);
// The connections waiting in the accept queue of the TCP socket listening on
// `port` (/proc/net/tcp and tcp6), -1 when no socket listens there.
long acceptQueue(int port);
// A TCP port that is free on loopback now, outside the kernel's range for
// clients' ports.
int freePort();

}  // namespace e2e
