// Connection admission of the HTTP adapter: see conn_registry.h.
#include "platform/http/conn_registry.h"

#include <algorithm>

void ConnRegistry::setLimits(int total, int perAddress) {
    std::lock_guard<std::mutex> lock(m_);
    total_ = total > 0 ? total : 1;
    perAddressMax_ = perAddress > 0 ? perAddress : 1;
}

// The longest-waiting connection that holds no request and is not already
// closing; called with the lock held.
std::function<void()> ConnRegistry::pickVictim() {
    Entry* oldest = nullptr;
    for (auto& [id, e] : conns_)
        if (!e.busy && !e.evicting && (!oldest || e.since < oldest->since))
            oldest = &e;
    if (!oldest)
        return {};
    oldest->evicting = true;
    return oldest->evict;
}

ConnRegistry::Admit ConnRegistry::admit(uint64_t id, const std::string& address,
                                        std::function<void()> evict) {
    std::function<void()> victim;
    {
        std::lock_guard<std::mutex> lock(m_);
        int& fromAddress = perAddress_[address];
        if (fromAddress >= perAddressMax_) {
            if (fromAddress == 0)
                perAddress_.erase(address);
            return Admit::AddressFull;
        }
        int open = static_cast<int>(conns_.size());
        if (open >= total_) {
            // Connections already told to close still count until they are
            // gone; a burst may overshoot the ceiling by a quarter at most.
            if (open >= total_ + std::max(1, total_ / 4) || !(victim = pickVictim())) {
                if (fromAddress == 0)
                    perAddress_.erase(address);
                return Admit::Full;
            }
        }
        ++fromAddress;
        conns_[id] = Entry{address, std::move(evict), std::chrono::steady_clock::now()};
    }
    if (victim)
        victim();
    return Admit::Yes;
}

void ConnRegistry::setBusy(uint64_t id, bool busy) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return;
    it->second.busy = busy;
    it->second.since = std::chrono::steady_clock::now();
}

void ConnRegistry::remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_);
    auto it = conns_.find(id);
    if (it == conns_.end())
        return;
    auto a = perAddress_.find(it->second.address);
    if (a != perAddress_.end() && --a->second <= 0)
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
