// Connection admission of the HTTP adapter: see conn_registry.h.
#include "http/conn_registry.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

void ConnRegistry::setLimits(int total, int perAddress) {
    std::lock_guard<std::mutex> lock(m_);
    total_ = total > 0 ? total : 1;
    perAddressMax_ = perAddress > 0 ? perAddress : 1;
}

void ConnRegistry::markClosing(Entry& e) {
    if (e.closing)
        return;
    e.closing = true;
    --live_;
    if (!e.streaming)
        --perAddress_[e.address].live;
}

// The live connection in `phase` to close: of `address` when given, else of
// the address that holds most live ones (more than `minLoad`); the
// longest-waiting among equals.  Marked closing.  Called with the lock held.
ConnRegistry::Evict ConnRegistry::pick(Phase phase, const std::string* address, int minLoad) {
    Entry* pick = nullptr;
    int pickLoad = minLoad;
    for (auto& [id, e] : conns_) {
        if (e.phase != phase || e.closing || (address && e.address != *address))
            continue;
        int load = perAddress_[e.address].live;
        if (load > pickLoad || (pick && load == pickLoad && e.since < pick->since)) {
            pick = &e;
            pickLoad = load;
        }
    }
    if (!pick)
        return {};
    markClosing(*pick);
    return pick->evict;
}

ConnRegistry::Admit ConnRegistry::admit(uint64_t id, const std::string& address, Evict evict) {
    std::vector<Evict> victims;
    Admit result = Admit::Yes;
    {
        std::lock_guard<std::mutex> lock(m_);
        PerAddress& mine = perAddress_[address];
        // Sockets of closing connections count too, a quarter over at most.
        int hardCap = total_ + std::max(1, total_ / 4);
        if (static_cast<int>(conns_.size()) >= hardCap)
            result = Admit::Full;
        if (result == Admit::Yes && mine.live >= perAddressMax_) {
            if (Evict v = pick(Phase::Idle, &address, 0))
                victims.push_back(std::move(v));
            else
                result = Admit::AddressFull;
        }
        if (result == Admit::Yes && live_ >= total_) {
            // Idle ones first; a reader only of an address holding several
            // (a lone client's request is left alone).
            Evict v = pick(Phase::Idle, nullptr, 0);
            if (!v)
                v = pick(Phase::Reading, nullptr, 1);
            if (v)
                victims.push_back(std::move(v));
            else
                result = Admit::Full;
        }
        if (result == Admit::Yes) {
            ++mine.all;
            ++mine.live;
            ++live_;
            conns_[id] = Entry{address, std::move(evict), std::chrono::steady_clock::now()};
        } else if (mine.all == 0) {
            perAddress_.erase(address);
        }
    }
    for (Evict& v : victims)
        v(false);
    return result;
}

void ConnRegistry::setPhase(uint64_t id, Phase phase) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return;
    // The wait of an idle connection counts from its accept or from the end
    // of its last answer, not from the end of its TLS set-up.
    if (it->second.phase != phase)
        it->second.since = std::chrono::steady_clock::now();
    it->second.phase = phase;
    if (phase == Phase::Streaming && !it->second.streaming && !it->second.closing) {
        it->second.streaming = true;
        --perAddress_[it->second.address].live;
    }
}

void ConnRegistry::setClosing(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it != conns_.end())
        markClosing(it->second);
}

bool ConnRegistry::remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return false;
    markClosing(it->second);
    auto a = perAddress_.find(it->second.address);
    if (a != perAddress_.end() && --a->second.all <= 0)
        perAddress_.erase(a);
    conns_.erase(it);
    return conns_.empty();
}

int ConnRegistry::count() const {
    std::lock_guard<std::mutex> lock(m_);
    return static_cast<int>(conns_.size());
}

std::vector<ConnRegistry::Evict> ConnRegistry::everyEvict() const {
    std::lock_guard<std::mutex> lock(m_);
    std::vector<Evict> out;
    out.reserve(conns_.size());
    for (const auto& [id, e] : conns_)
        out.push_back(e.evict);
    return out;
}

std::string connAddressKey(const std::string& address) {
    in6_addr a{};
    if (address.find(':') == std::string::npos || inet_pton(AF_INET6, address.c_str(), &a) != 1)
        return address;
    memset(a.s6_addr + 8, 0, 8);
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &a, text, sizeof text);
    return std::string(text) + "/64";
}
