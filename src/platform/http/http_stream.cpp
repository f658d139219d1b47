// The stream's queue and its hand-over to the connection: see http_stream.h.
#include "platform/http/http_stream.h"

#include <boost/asio/post.hpp>
#include <algorithm>
#include <cstdio>

#include "platform/http/http_session.h"

bool CgHttpStreamPool::take(size_t n, bool force) {
    if (force) {
        used_.fetch_add(n, std::memory_order_relaxed);
        return true;
    }
    size_t now = used_.load(std::memory_order_relaxed);
    do {
        if (now + n > max_)
            return false;
    } while (!used_.compare_exchange_weak(now, now + n, std::memory_order_relaxed));
    return true;
}

CgHttpStream::CgHttpStream(boost::asio::any_io_executor ex, std::weak_ptr<HttpSession> session,
                           const CgHttpStreamLimits& limits, bool chunked,
                           std::function<void()> onClose, std::shared_ptr<CgHttpStreamPool> pool)
    : ex_(std::move(ex)),
      session_(std::move(session)),
      limits_(limits),
      chunked_(chunked),
      onClose_(std::move(onClose)),
      pool_(std::move(pool)) {}

CgHttpStream::~CgHttpStream() {
    if (pool_)
        pool_->give(borrowed_);
}

// HTTP/1.1 carries the stream as chunks; HTTP/1.0 as the bytes themselves
// up to the close.
std::string CgHttpStream::frame(std::string_view data) const {
    if (!chunked_)
        return std::string(data);
    char size[24];
    int n = snprintf(size, sizeof size, "%zx\r\n", data.size());
    std::string out(size, static_cast<size_t>(n));
    out.append(data);
    out += "\r\n";
    return out;
}

void CgHttpStream::kick() {
    if (kicked_)
        return;
    kicked_ = true;
    boost::asio::post(ex_, [weak = session_] {
        if (auto s = weak.lock())
            s->streamReady();
    });
}

bool CgHttpStream::hold(size_t held, bool force) {
    size_t borrowed = held > limits_.reserveBytes ? held - limits_.reserveBytes : 0;
    if (pool_ && borrowed > borrowed_ && !pool_->take(borrowed - borrowed_, force))
        return false;
    if (pool_ && borrowed < borrowed_)
        pool_->give(borrowed_ - borrowed);
    held_ = held;
    borrowed_ = borrowed;
    return true;
}

CgHttpPush CgHttpStream::push(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return CgHttpPush::Closed;
    if (holding_)
        return CgHttpPush::Dropped;
    std::string piece = frame(data);
    if (queue_.size() >= limits_.maxPieces || held_ + piece.size() > limits_.maxBytes ||
        !hold(held_ + piece.size(), false))
        return CgHttpPush::Full;
    queue_.push_back(std::move(piece));
    kick();
    return CgHttpPush::Queued;
}

// The replacement goes out whatever the limits say: it is what tells the
// client that it lost the rest.
void CgHttpStream::replace(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    size_t queued = 0;
    for (const std::string& piece : queue_)
        queued += piece.size();
    queue_.clear();
    queue_.push_back(frame(data));
    hold(held_ - queued + queue_.back().size(), true);
    holding_ = true;
    kick();
}

void CgHttpStream::end(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    // The end goes out whatever the limits say.
    size_t added = 0;
    if (!data.empty()) {
        queue_.push_back(frame(data));
        added += queue_.back().size();
    }
    if (chunked_) {
        queue_.push_back("0\r\n\r\n");
        added += queue_.back().size();
    }
    hold(held_ + added, true);
    ended_ = true;
    kick();
}

bool CgHttpStream::closed() const {
    std::lock_guard<std::mutex> lock(m_);
    return closed_;
}

size_t CgHttpStream::takeInto(std::deque<std::string>& out, size_t maxBytes) {
    std::lock_guard<std::mutex> lock(m_);
    kicked_ = false;
    size_t taken = 0;
    while (!queue_.empty() && (taken == 0 || taken + queue_.front().size() <= maxBytes)) {
        taken += queue_.front().size();
        out.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    // What is left waits for the next write, which asks again.
    if (!queue_.empty())
        kicked_ = true;
    holding_ = false;
    return taken;
}

void CgHttpStream::written(size_t bytes) {
    std::lock_guard<std::mutex> lock(m_);
    hold(held_ - std::min(bytes, held_), true);
}

bool CgHttpStream::finished() const {
    std::lock_guard<std::mutex> lock(m_);
    return ended_ && queue_.empty();
}

void CgHttpStream::markClosed() {
    std::function<void()> callback;
    {
        std::lock_guard<std::mutex> lock(m_);
        if (closed_)
            return;
        closed_ = true;
        queue_.clear();
        hold(0, true);
        callback.swap(onClose_);
    }
    if (callback)
        callback();
}
