// Admission of the HTTP adapter's connections: a ceiling on all of them and
// one per client address.  At the ceiling a new connection is still taken
// when some connection holds no request (it has not finished its TLS
// handshake or waits idle between requests): the one that has waited longest
// is told to close.  A flood of silent or half-open connections therefore
// cannot lock a proper client out, and one address cannot take the device's
// sockets for itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class ConnRegistry {
  public:
    enum class Admit { Yes, AddressFull, Full };
    void setLimits(int total, int perAddress);
    // Registers connection `id` from `address`; `evict` asks it to close
    // (called without the registry's lock, from the admitting thread).
    Admit admit(uint64_t id, const std::string& address, std::function<void()> evict);
    // Whether the connection is inside a request (not evictable).
    void setBusy(uint64_t id, bool busy);
    void remove(uint64_t id);
    int count() const;
    // The evict callbacks of every connection (to close all at shutdown).
    std::vector<std::function<void()>> everyEvict() const;

  private:
    struct Entry {
        std::string address;
        std::function<void()> evict;
        std::chrono::steady_clock::time_point since;  // of the current phase
        bool busy = false;
        bool evicting = false;
    };
    std::function<void()> pickVictim();

    mutable std::mutex m_;
    std::map<uint64_t, Entry> conns_;
    std::map<std::string, int> perAddress_;
    int total_ = 256;
    int perAddressMax_ = 32;
};
