// An open-ended answer of the HTTP adapter (server-sent events): after its
// status line and headers the connection carries pieces that a producer
// pushes from any thread, for as long as the client stays.  The pieces wait
// in a bounded queue of the stream's own; the connection takes them on its
// network thread whenever its previous write is done, so a client that
// does not read fills its queue, never the producer's time or memory.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/http/cg_http.h"

class HttpSession;

struct CgHttpStream {
  public:
    CgHttpStream(boost::asio::any_io_executor ex, std::weak_ptr<HttpSession> session,
                 const CgHttpStreamLimits& limits, bool chunked, std::function<void()> onClose);

    // Producer side (any thread).
    CgHttpPush push(std::string_view data);
    void replace(std::string_view data);
    void end(std::string_view data);
    bool closed() const;

    // Connection side (its network thread): moves queued pieces, framed, to
    // the end of `out`, up to about `maxBytes` (at least one), so that a
    // write stuck at a client that does not read holds little besides the
    // queue; whether the stream has ended and nothing of it waits any more.
    void takeInto(std::deque<std::string>& out, size_t maxBytes);
    bool finished() const;
    // The connection has closed (any reason): runs the close callback once.
    void markClosed();

  private:
    std::string frame(std::string_view data) const;
    void kick();  // with m_ held

    const boost::asio::any_io_executor ex_;
    const std::weak_ptr<HttpSession> session_;
    const CgHttpStreamLimits limits_;
    const bool chunked_;
    std::function<void()> onClose_;

    mutable std::mutex m_;
    std::deque<std::string> queue_;
    size_t queuedBytes_ = 0;  // of the pieces that count against the limits
    bool holding_ = false;  // a replacement waits to be taken: pushes are dropped
    bool kicked_ = false;   // the connection has been told that pieces wait
    bool ended_ = false;
    bool closed_ = false;
};
