// The tests' TCP relay: see relay.h.
#include "relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace e2e {

namespace {

int loopbackSocket(int port, bool listen) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int ok = listen ? bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a)
                    : connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    if (ok != 0 || (listen && ::listen(fd, 16) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

Relay::Relay(int targetPort) : target_(targetPort) {
    listen_ = loopbackSocket(0, true);
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(listen_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

Relay::~Relay() {
    stop_ = true;
    shutdown(listen_, SHUT_RDWR);
    acceptor_.join();
    dropAll();
    for (std::thread& t : threads_)
        t.join();
    close(listen_);
    for (int fd : fds_)
        close(fd);
}

void Relay::acceptLoop() {
    while (!stop_) {
        pollfd p{listen_, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        int client = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        int server = loopbackSocket(target_, false);
        std::lock_guard<std::mutex> lock(m_);
        fds_.push_back(client);
        fds_.push_back(server);
        threads_.emplace_back([this, client, server] { pump(client, server); });
        threads_.emplace_back([this, client, server] { pump(server, client); });
    }
}

void Relay::pump(int from, int to) {
    char buf[16384];
    ssize_t n;
    while ((n = read(from, buf, sizeof buf)) > 0)
        if (write(to, buf, static_cast<size_t>(n)) != n)
            break;
    shutdown(to, SHUT_WR);
}

void Relay::dropAll() {
    std::lock_guard<std::mutex> lock(m_);
    for (int fd : fds_)
        shutdown(fd, SHUT_RDWR);
}

}  // namespace e2e
