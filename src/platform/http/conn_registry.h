// Admission of the HTTP adapter's connections: a ceiling on all of them and
// one per client address.  A connection is live until it starts closing.  At
// a ceiling a new connection is still taken when a live connection holds no
// request (it has not finished its TLS handshake or waits idle between
// requests): the one that has waited longest (of the same address, for the
// address's ceiling) is told to close.  A flood of silent or half-open
// connections therefore cannot lock a proper client out, a client that
// keeps idle connections open can still open a new one, and one address
// cannot take the device's sockets for itself.
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
    // The connection is closing: it no longer counts against the ceilings
    // (its socket does, up to a quarter over the total ceiling).
    void setClosing(uint64_t id);
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
        bool closing = false;
    };
    struct PerAddress {
        int all = 0;
        int live = 0;
    };
    std::function<void()> pickVictim(const std::string* address);
    void markClosing(Entry& e);

    mutable std::mutex m_;
    std::map<uint64_t, Entry> conns_;
    std::map<std::string, PerAddress> perAddress_;
    int live_ = 0;
    int total_ = 256;
    int perAddressMax_ = 32;
};
