// A TCP relay on loopback for the end-to-end tests: forwards every
// connection it accepts to the daemon's port, and can break all of them at
// once, as a network that drops a client's connections would.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace e2e {

class Relay {
  public:
    explicit Relay(int targetPort);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    int port() const { return port_; }
    // Cuts every connection relayed so far; new ones are relayed again.
    void dropAll();

  private:
    void acceptLoop();
    void pump(int from, int to);

    int target_, port_ = 0, listen_ = -1;
    std::atomic<bool> stop_{false};
    std::mutex m_;
    std::vector<int> fds_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

}  // namespace e2e
