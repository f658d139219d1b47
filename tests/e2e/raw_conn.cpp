// A raw client connection for the tests of the HTTPS front (raw_conn.h),
// and the free ports the tests listen on.
#include "raw_conn.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <cstdio>
#include <ctime>
#include <random>
#include <mutex>
#include <chrono>
#include <algorithm>
#include <fstream>
#include <sstream>

namespace e2e {

namespace {

SSL_CTX* clientContext() {
    static SSL_CTX* ctx = [] {
        SSL_CTX* c = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_verify(c, SSL_VERIFY_NONE, nullptr);
        return c;
    }();
    return ctx;
}

long long nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

RawConn::~RawConn() {
    close();
}

RawConn::RawConn(RawConn&& o) noexcept : fd_(o.fd_), ssl_(o.ssl_) {
    o.fd_ = -1;
    o.ssl_ = nullptr;
}

bool RawConn::connect(int port, const std::string& local, int rcvbuf) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return false;
    if (rcvbuf > 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    if (!local.empty()) {
        sockaddr_in src{};
        src.sin_family = AF_INET;
        inet_pton(AF_INET, local.c_str(), &src.sin_addr);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&src), sizeof src) != 0)
            return false;
    }
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_port = htons(static_cast<uint16_t>(port));
    dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::connect(fd_, reinterpret_cast<sockaddr*>(&dst), sizeof dst) == 0;
}

bool RawConn::handshake() {
    timeval tv{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ssl_ = SSL_new(clientContext());
    SSL_set_fd(ssl_, fd_);
    return SSL_connect(ssl_) == 1;
}

bool RawConn::handshake(const TlsOffer& offer) {
    timeval tv{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ssl_ = SSL_new(clientContext());
    SSL_set_fd(ssl_, fd_);
    SSL_set_security_level(ssl_, 0);
    if (offer.minVersion)
        SSL_set_min_proto_version(ssl_, offer.minVersion);
    if (offer.maxVersion)
        SSL_set_max_proto_version(ssl_, offer.maxVersion);
    if (!offer.tls12Ciphers.empty() &&
        SSL_set_cipher_list(ssl_, ("@SECLEVEL=0:" + offer.tls12Ciphers).c_str()) != 1)
        return false;
    if (!offer.tls13Suites.empty() && SSL_set_ciphersuites(ssl_, offer.tls13Suites.c_str()) != 1)
        return false;
    return SSL_connect(ssl_) == 1;
}

std::string RawConn::cipher() const {
    const char* name = ssl_ ? SSL_get_cipher_name(ssl_) : nullptr;
    return name && strcmp(name, "(NONE)") != 0 ? name : "";
}

bool RawConn::send(const std::string& bytes) {
    if (fd_ < 0)
        return false;
    if (ssl_)
        return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) ==
               static_cast<int>(bytes.size());
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::string RawConn::readSome(int timeoutMs, bool* closed) {
    std::string got = readUntilClose(0, closed);
    if (!got.empty() || (closed && *closed))
        return got;
    pollfd p{fd_, POLLIN, 0};
    if (fd_ >= 0 && poll(&p, 1, timeoutMs) > 0)
        got = readUntilClose(0, closed);
    return got;
}

std::string RawConn::readUntilClose(int timeoutMs, bool* closed) {
    std::string got;
    if (closed)
        *closed = false;
    if (fd_ < 0)
        return got;
    // Non-blocking while reading: TLS records that carry no data (session
    // tickets) must not leave SSL_read waiting for data that never comes.
    int flags = fcntl(fd_, F_GETFL);
    fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    long long end = nowMs() + timeoutMs;
    char buf[16384];
    for (;;) {
        int n = ssl_ ? SSL_read(ssl_, buf, sizeof buf)
                     : static_cast<int>(recv(fd_, buf, sizeof buf, 0));
        if (n > 0) {
            got.append(buf, static_cast<size_t>(n));
            continue;
        }
        bool wait = ssl_ ? SSL_get_error(ssl_, n) == SSL_ERROR_WANT_READ
                         : (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
        if (!wait) {
            if (closed)
                *closed = true;
            break;
        }
        long long left = end - nowMs();
        pollfd p{fd_, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            break;
    }
    fcntl(fd_, F_SETFL, flags);
    return got;
}

bool RawConn::peerGoneWithin(int timeoutMs) {
    pollfd p{fd_, POLLRDHUP, 0};
    return fd_ >= 0 && poll(&p, 1, timeoutMs) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

bool RawConn::closedWithin(int timeoutMs) {
    bool closed = false;
    readUntilClose(timeoutMs, &closed);
    return closed;
}

void RawConn::close() {
    if (ssl_)
        SSL_free(ssl_);
    ssl_ = nullptr;
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

void RawConn::abort() {
    if (fd_ >= 0)
        ::shutdown(fd_, SHUT_RDWR);
}

void raiseDescriptorLimit() {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

long socketCount(int pid) {
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* d = opendir(dir.c_str());
    if (!d)
        return -1;
    long n = 0;
    while (dirent* e = readdir(d)) {
        char target[64];
        ssize_t len = readlink((dir + "/" + e->d_name).c_str(), target, sizeof target - 1);
        n += len > 7 && strncmp(target, "socket:", 7) == 0;
    }
    closedir(d);
    return n;
}

long acceptQueue(int port) {
    long queued = -1;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(table);
        std::string line;
        std::getline(in, line);  // the column names
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues;
            fields >> slot >> local >> remote >> state >> queues;
            size_t colon = local.rfind(':');
            if (state != "0A" || colon == std::string::npos ||
                std::stol(local.substr(colon + 1), nullptr, 16) != port)
                continue;
            // For a listening socket the receive queue is its accept queue.
            long rx = std::stol(queues.substr(queues.find(':') + 1), nullptr, 16);
            queued = std::max(queued, 0L) + rx;
        }
    }
    return queued;
}

long statusField(int pid, const std::string& name) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(name + ":", 0) == 0)
            return std::stol(line.substr(name.size() + 1));
    return -1;
}

int threadCount(int pid) {
    return static_cast<int>(statusField(pid, "Threads"));
}

namespace {

bool tcpPortBindable(int port) {
    int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_any;
    a.sin6_port = htons(static_cast<uint16_t>(port));
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

}  // namespace

// Below the kernel's range for clients' ports: a port from that range could
// be taken by a client connection of another test before the daemon binds
// it, and the daemon would refuse to start.
int freePort() {
    static std::mutex m;
    static std::minstd_rand rng(static_cast<unsigned>(getpid()) * 7919u +
                                static_cast<unsigned>(time(nullptr)));
    std::lock_guard<std::mutex> lock(m);
    int low = 32768, high = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
    // Below the clients' range, or above it when it starts low.
    int bottom = low > 12000 ? 10000 : high + 1;
    int top = low > 12000 ? low : 65536;
    if (top - bottom < 1000) {
        bottom = 1024;
        top = 65536;
    }
    for (int i = 0; i < 1000; ++i) {
        int port = bottom + static_cast<int>(rng() % static_cast<unsigned>(top - bottom));
        if (tcpPortBindable(port))
            return port;
    }
    fprintf(stderr, "freePort: no free port between %d and %d\n", bottom, top);
    abort();
}

}  // namespace e2e
