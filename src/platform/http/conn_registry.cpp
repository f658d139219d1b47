// Connection admission of the HTTP adapter: see conn_registry.h.
#include "platform/http/conn_registry.h"

#include <algorithm>

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
    --perAddress_[e.address].live;
}

// The longest-waiting live connection (of `address`, when given) that holds
// no request; marked closing.  Called with the lock held.
std::function<void()> ConnRegistry::pickVictim(const std::string* address) {
    Entry* oldest = nullptr;
    for (auto& [id, e] : conns_)
        if (!e.busy && !e.closing && (!address || e.address == *address) &&
            (!oldest || e.since < oldest->since))
            oldest = &e;
    if (!oldest)
        return {};
    markClosing(*oldest);
    return oldest->evict;
}

ConnRegistry::Admit ConnRegistry::admit(uint64_t id, const std::string& address,
                                        std::function<void()> evict) {
    std::vector<std::function<void()>> victims;
    Admit result = Admit::Yes;
    {
        std::lock_guard<std::mutex> lock(m_);
        PerAddress& mine = perAddress_[address];
        // Sockets of closing connections count too, a quarter over at most.
        int hardCap = total_ + std::max(1, total_ / 4);
        if (mine.live >= perAddressMax_) {
            if (auto v = pickVictim(&address))
                victims.push_back(std::move(v));
            else
                result = Admit::AddressFull;
        }
        if (result == Admit::Yes && live_ >= total_) {
            if (auto v = pickVictim(nullptr))
                victims.push_back(std::move(v));
            else
                result = Admit::Full;
        }
        if (result == Admit::Yes && static_cast<int>(conns_.size()) >= hardCap)
            result = Admit::Full;
        if (result == Admit::Yes) {
            ++mine.all;
            ++mine.live;
            ++live_;
            conns_[id] = Entry{address, std::move(evict), std::chrono::steady_clock::now()};
        } else if (mine.all == 0) {
            perAddress_.erase(address);
        }
    }
    for (auto& v : victims)
        v();
    return result;
}

void ConnRegistry::setBusy(uint64_t id, bool busy) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return;
    it->second.busy = busy;
    it->second.since = std::chrono::steady_clock::now();
}

void ConnRegistry::setClosing(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it != conns_.end())
        markClosing(it->second);
}

void ConnRegistry::remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return;
    markClosing(it->second);
    auto a = perAddress_.find(it->second.address);
    if (a != perAddress_.end() && --a->second.all <= 0)
        perAddress_.erase(a);
    conns_.erase(it);
}

int ConnRegistry::count() const {
    std::lock_guard<std::mutex> lock(m_);
    return static_cast<int>(conns_.size());
}

std::vector<std::function<void()>> ConnRegistry::everyEvict() const {
    std::lock_guard<std::mutex> lock(m_);
    std::vector<std::function<void()>> out;
    out.reserve(conns_.size());
    for (const auto& [id, e] : conns_)
        out.push_back(e.evict);
    return out;
}
