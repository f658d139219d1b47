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
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/cg_http.h"

class HttpSession;

struct CgHttpStream;

// The bytes that every stream of a server may hold beyond its reserve.
// When they run out, the borrower that has fallen furthest behind (whose
// oldest queued piece is the oldest of all) yields: it drops what it queued
// and will hear that it lost pieces, so that a client that keeps up never
// loses its pieces to clients that stopped reading.
class CgHttpStreamPool {
  public:
    explicit CgHttpStreamPool(size_t max) : max_(max) {}
    // Takes `n` bytes when they fit (or whatever `force` says).
    bool take(size_t n, bool force);
    void give(size_t n) { used_.fetch_sub(n, std::memory_order_relaxed); }
    size_t used() const { return used_.load(std::memory_order_relaxed); }
    // Frees room for `n` bytes by making the borrowers furthest behind drop
    // their queues; false when `asking` is furthest behind itself.
    bool makeRoom(size_t n, const CgHttpStream* asking);
    // Numbers pushed pieces in the order of their pushes.
    uint64_t ticket() { return tickets_.fetch_add(1, std::memory_order_relaxed); }
    void enter(CgHttpStream* stream);
    void leave(CgHttpStream* stream);

  private:
    const size_t max_;
    std::atomic<size_t> used_{0};
    std::atomic<uint64_t> tickets_{0};
    std::mutex streamsMutex_;  // taken before any stream's own
    std::vector<CgHttpStream*> streams_;
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
    // For the pool: the ticket of its oldest queued piece when it borrows
    // (else none), and dropping its queue (its next push is then Full).
    std::optional<uint64_t> oldestBorrowing() const;
    void shed();

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

    struct Piece {
        std::string bytes;
        uint64_t ticket;
    };
    void enqueue(std::string bytes);  // with m_ held
    size_t queuedBytes() const;       // with m_ held

    mutable std::mutex m_;
    std::deque<Piece> queue_;
    size_t held_ = 0;       // queued, and taken but not yet written
    size_t borrowed_ = 0;   // of held_, what the pool lends beyond the reserve
    bool holding_ = false;  // a replacement waits to be taken: pushes are dropped
    bool kicked_ = false;   // the connection has been told that pieces wait
    bool ended_ = false;
    bool closed_ = false;
    bool shed_ = false;  // the pool took its queue: the next push is Full
};
