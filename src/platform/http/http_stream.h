// An open-ended answer of the HTTP adapter (server-sent events): after its
// status line and headers the connection carries pieces that a producer
// pushes from any thread, for as long as the client stays.  The pieces wait
// in a bounded queue of the stream's own; the connection takes them on its
// network thread whenever its previous write is done, so a client that
// does not read fills its queue, never the producer's time or memory.
//
// What a stream holds (its queue and the write under way) is bounded per
// stream, and, beyond a small reserve of each, by one pool that all the
// server's streams share: many clients that stop reading together hold the
// pool at most, however many streams they have.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/http/cg_http.h"

class HttpSession;

// The bytes that every stream of a server may hold beyond its reserve.
class CgHttpStreamPool {
  public:
    explicit CgHttpStreamPool(size_t max) : max_(max) {}
    // Takes `n` bytes when they fit (or whatever `force` says).
    bool take(size_t n, bool force);
    void give(size_t n) { used_.fetch_sub(n, std::memory_order_relaxed); }
    size_t used() const { return used_.load(std::memory_order_relaxed); }

  private:
    const size_t max_;
    std::atomic<size_t> used_{0};
};

struct CgHttpStream {
  public:
    CgHttpStream(boost::asio::any_io_executor ex, std::weak_ptr<HttpSession> session,
                 const CgHttpStreamLimits& limits, bool chunked, std::function<void()> onClose,
                 std::shared_ptr<CgHttpStreamPool> pool);
    ~CgHttpStream();

    // Producer side (any thread).
    CgHttpPush push(std::string_view data);
    void replace(std::string_view data);
    void end(std::string_view data);
    bool closed() const;

    // Connection side (its network thread): moves queued pieces, framed, to
    // the end of `out`, up to about `maxBytes` (at least one), so that a
    // write stuck at a client that does not read holds little besides the
    // queue; returns their bytes, which the stream holds until written().
    size_t takeInto(std::deque<std::string>& out, size_t maxBytes);
    void written(size_t bytes);
    // Whether the stream has ended and nothing of it waits any more.
    bool finished() const;
    // The connection has closed (any reason): runs the close callback once.
    void markClosed();

  private:
    std::string frame(std::string_view data) const;
    void kick();  // with m_ held
    // Counts what the stream holds now; false (nothing changed) when more
    // does not fit and `force` is off.  With m_ held.
    bool hold(size_t held, bool force);

    const boost::asio::any_io_executor ex_;
    const std::weak_ptr<HttpSession> session_;
    const CgHttpStreamLimits limits_;
    const bool chunked_;
    std::function<void()> onClose_;
    const std::shared_ptr<CgHttpStreamPool> pool_;

    mutable std::mutex m_;
    std::deque<std::string> queue_;
    size_t held_ = 0;       // queued, and taken but not yet written
    size_t borrowed_ = 0;   // of held_, what the pool lends beyond the reserve
    bool holding_ = false;  // a replacement waits to be taken: pushes are dropped
    bool kicked_ = false;   // the connection has been told that pieces wait
    bool ended_ = false;
    bool closed_ = false;
};
