// The stream's queue and its hand-over to the connection: see http_stream.h.
#include "platform/http/http_stream.h"

#include <boost/asio/post.hpp>
#include <algorithm>
#include <cstdio>

#include "platform/http/http_session.h"

CgHttpStream::CgHttpStream(boost::asio::any_io_executor ex, std::weak_ptr<HttpSession> session,
                           const CgHttpStreamLimits& limits, bool chunked,
                           std::function<void()> onClose)
    : ex_(std::move(ex)),
      session_(std::move(session)),
      limits_(limits),
      chunked_(chunked),
      onClose_(std::move(onClose)) {}

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

CgHttpPush CgHttpStream::push(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return CgHttpPush::Closed;
    if (holding_)
        return CgHttpPush::Dropped;
    std::string piece = frame(data);
    if (queue_.size() >= limits_.maxPieces || queuedBytes_ + piece.size() > limits_.maxBytes)
        return CgHttpPush::Full;
    queuedBytes_ += piece.size();
    queue_.push_back(std::move(piece));
    kick();
    return CgHttpPush::Queued;
}

void CgHttpStream::replace(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    queue_.clear();
    queue_.push_back(frame(data));
    queuedBytes_ = queue_.back().size();
    holding_ = true;
    kick();
}

void CgHttpStream::end(std::string_view data) {
    std::lock_guard<std::mutex> lock(m_);
    if (closed_ || ended_)
        return;
    // The end goes out whatever the limits say.
    if (!data.empty())
        queue_.push_back(frame(data));
    if (chunked_)
        queue_.push_back("0\r\n\r\n");
    queuedBytes_ = 0;
    for (const std::string& piece : queue_)
        queuedBytes_ += piece.size();
    ended_ = true;
    kick();
}

bool CgHttpStream::closed() const {
    std::lock_guard<std::mutex> lock(m_);
    return closed_;
}

void CgHttpStream::takeInto(std::deque<std::string>& out, size_t maxBytes) {
    std::lock_guard<std::mutex> lock(m_);
    kicked_ = false;
    size_t taken = 0;
    while (!queue_.empty() && (taken == 0 || taken + queue_.front().size() <= maxBytes)) {
        taken += queue_.front().size();
        queuedBytes_ -= queue_.front().size();
        out.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    // What is left waits for the next write, which asks again.
    if (!queue_.empty())
        kicked_ = true;
    holding_ = false;
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
        queuedBytes_ = 0;
        callback.swap(onClose_);
    }
    if (callback)
        callback();
}
