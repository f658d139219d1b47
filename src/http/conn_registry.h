// Admission of the HTTP adapter's connections: a ceiling on all of them and
// one per client address (an IPv6 client is its /64).  A connection is live
// until it starts closing.  At a ceiling a new connection is still taken
// when a live connection holds no request (it has not finished its TLS
// handshake or waits idle between requests): one of those is told to close,
// for the address's ceiling the address's own longest-waiting one, for the
// total ceiling the longest-waiting one of the address that holds most.
// With none idle, a connection still reading its request yields if its
// address holds more than one.  A flood of silent, half-open or slow
// connections therefore cannot lock a proper client out, a client that
// keeps idle connections open can still open a new one, and one address
// cannot take the device's sockets for itself.
//
// A stream (an open-ended answer) counts against the total ceiling but not
// against its address's: streams have ceilings of their own, and the
// address of an IPv6 client is its whole /64, a home network, whose other
// devices a few open streams must not lock out.
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
    // Idle: no request (TLS set-up, or waiting between requests).
    // Streaming: an open-ended answer, from which a connection never returns.
    enum class Phase { Idle, Reading, Handling, Streaming };
    // Asks a connection to close: `force` at shutdown; otherwise one whose
    // request is already with the listener closes after its answer.
    using Evict = std::function<void(bool force)>;

    void setLimits(int total, int perAddress);
    // Registers connection `id` from `address`; `evict` asks it to close
    // (called without the registry's lock, from the admitting thread).
    Admit admit(uint64_t id, const std::string& address, Evict evict);
    void setPhase(uint64_t id, Phase phase);
    // The connection is closing: it no longer counts against the ceilings
    // (its socket does, up to a quarter over the total ceiling).
    void setClosing(uint64_t id);
    // Forgets a connection; true when it was the last one.
    bool remove(uint64_t id);
    int count() const;
    // The evict callbacks of every connection (to close all at shutdown).
    std::vector<Evict> everyEvict() const;

  private:
    struct Entry {
        std::string address;
        Evict evict;
        std::chrono::steady_clock::time_point since;  // of the current phase
        Phase phase = Phase::Idle;
        bool closing = false;
        bool streaming = false;  // no longer counted against its address
    };
    struct PerAddress {
        int all = 0;
        int live = 0;
    };
    Evict pick(Phase phase, const std::string* address, int minLoad);
    void markClosing(Entry& e);

    mutable std::mutex m_;
    std::map<uint64_t, Entry> conns_;
    std::map<std::string, PerAddress> perAddress_;
    int live_ = 0;
    int total_ = 256;
    int perAddressMax_ = 16;
};

// The key a client address counts under: IPv6 addresses by their /64 (one
// host may use any number of addresses of its prefix), others as they are.
std::string connAddressKey(const std::string& address);
