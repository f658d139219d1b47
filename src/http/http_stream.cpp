// The stream's queue and its hand-over to the connection: see http_stream.h.
#include "http/http_stream.h"

#include <boost/asio/post.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "http/http_session.h"

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

bool CgHttpStreamPool::makeRoom(size_t n, const CgHttpStream* asking) {
    std::lock_guard<std::mutex> lock(streamsMutex_);
    while (used() + n > max_) {
        CgHttpStream* behind = nullptr;
        uint64_t oldest = UINT64_MAX;
        for (CgHttpStream* s : streams_) {
            std::optional<uint64_t> t = s->oldestBorrowing();
            if (t && *t < oldest) {
                oldest = *t;
                behind = s;
            }
        }
        if (!behind || behind == asking)
            return false;
        behind->shed();
    }
    return true;
}

void CgHttpStreamPool::enter(CgHttpStream* stream) {
    std::lock_guard<std::mutex> lock(streamsMutex_);
    streams_.push_back(stream);
}

void CgHttpStreamPool::leave(CgHttpStream* stream) {
    std::lock_guard<std::mutex> lock(streamsMutex_);
    std::erase(streams_, stream);
}

CgHttpStream::CgHttpStream(boost::asio::any_io_executor ex, std::weak_ptr<HttpSession> session,
                           const CgHttpStreamLimits& limits, bool chunked,
                           std::function<void()> onClose, std::shared_ptr<CgHttpStreamPool> pool)
    : ex_(std::move(ex)),
      session_(std::move(session)),
      limits_(limits),
      chunked_(chunked),
      onClose_(std::move(onClose)),
      pool_(std::move(pool)) {
    if (pool_)
        pool_->enter(this);
}

CgHttpStream::~CgHttpStream() {
    if (!pool_)
        return;
    pool_->leave(this);
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
    std::string piece = frame(data);
    std::unique_lock<std::mutex> lock(m_);
    for (bool again = true;; again = false) {
        if (closed_ || ended_)
            return CgHttpPush::Closed;
        if (holding_)
            return CgHttpPush::Dropped;
        if (shed_ || queue_.size() >= limits_.maxPieces || held_ + piece.size() > limits_.maxBytes)
            return CgHttpPush::Full;
        if (hold(held_ + piece.size(), false))
            break;
        // The pool is spent: the largest borrower yields, unless this is it.
        // (Its lock is taken after the pool's, never under this one.)
        size_t need = piece.size();
        lock.unlock();
        bool room = again && pool_->makeRoom(need, this);
        lock.lock();
        if (!room)
            return CgHttpPush::Full;
    }
    enqueue(std::move(piece));
    kick();
    return CgHttpPush::Queued;
}

void CgHttpStream::enqueue(std::string bytes) {
    queue_.push_back({std::move(bytes), pool_ ? pool_->ticket() : 0});
}

size_t CgHttpStream::queuedBytes() const {
    size_t n = 0;
    for (const Piece& piece : queue_)
        n += piece.bytes.size();
    return n;
}

std::optional<uint64_t> CgHttpStream::oldestBorrowing() const {
    std::lock_guard<std::mutex> lock(m_);
    // A stream that holds a replacement (its client is told it lost pieces)
    // holds little, and that must reach the client.
    if (ended_ || closed_ || holding_ || borrowed_ == 0 || queue_.empty())
        return std::nullopt;
    return queue_.front().ticket;
}

void CgHttpStream::shed() {
    std::lock_guard<std::mutex> lock(m_);
    if (ended_ || closed_)
        return;
    size_t queued = queuedBytes();
    queue_.clear();
    hold(held_ - queued, true);
    holding_ = false;
    shed_ = true;
}

// The replacement goes out whatever the limits say: it is what tells the
// client that it lost the rest.
void CgHttpStream::replace(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    size_t queued = queuedBytes();
    queue_.clear();
    enqueue(frame(data));
    hold(held_ - queued + queue_.back().bytes.size(), true);
    holding_ = true;
    shed_ = false;
    kick();
}

void CgHttpStream::end(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    // The end goes out whatever the limits say.
    size_t added = 0;
    if (!data.empty()) {
        enqueue(frame(data));
        added += queue_.back().bytes.size();
    }
    if (chunked_) {
        enqueue("0\r\n\r\n");
        added += queue_.back().bytes.size();
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
    while (!queue_.empty() && (taken == 0 || taken + queue_.front().bytes.size() <= maxBytes)) {
        taken += queue_.front().bytes.size();
        out.push_back(std::move(queue_.front().bytes));
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
