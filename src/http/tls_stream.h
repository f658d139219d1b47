// TLS on a connection's socket, as an asynchronous stream for Beast: OpenSSL
// reads from and writes to the socket itself (SSL_set_fd), and the stream
// waits for the socket with the reactor when OpenSSL wants more.  Unlike a
// stream over memory BIOs it copies nothing between buffers of its own and
// keeps none: an idle connection holds only what OpenSSL keeps (and gives
// back, SSL_MODE_RELEASE_BUFFERS).
//
// Every operation runs on the socket's executor (the connection's loop):
// a read and a write may be outstanding at once, never two of a kind, and
// OpenSSL is called from one thread at a time.
//
// The stream is the one owner of its descriptor, and closes it only when it
// goes, after OpenSSL (which holds the descriptor's number) is freed: until
// then the number cannot be given to another connection.  Ending the
// connection before that is shut(): the socket is shut down both ways and
// every operation under way or to come fails, so that no step that was on
// its way, from whichever callback, reaches the wire.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <boost/asio/compose.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <cstddef>
#include <utility>

class TlsStream {
  public:
    using executor_type = boost::asio::ip::tcp::socket::executor_type;
    using error_code = boost::system::error_code;

    // Takes the socket over; false from ok() when OpenSSL refused it.
    TlsStream(boost::asio::ip::tcp::socket socket, SSL_CTX* ctx);
    ~TlsStream();
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    bool ok() const { return ssl_ != nullptr; }
    // Ends the connection: no byte goes out or comes in any more, and the
    // operations under way end with operation_aborted.  The descriptor stays
    // this stream's until it is destroyed.
    void shut();
    executor_type get_executor() { return socket_.get_executor(); }
    boost::asio::ip::tcp::socket& socket() { return socket_; }
    SSL* native_handle() { return ssl_; }

    template <class Handler>
    auto async_handshake(Handler&& handler) {
        return async(Op{*this, Kind::Handshake, nullptr, 0}, std::forward<Handler>(handler));
    }
    template <class Handler>
    auto async_shutdown(Handler&& handler) {
        return async(Op{*this, Kind::Shutdown, nullptr, 0}, std::forward<Handler>(handler));
    }
    template <class MutableBuffers, class Handler>
    auto async_read_some(const MutableBuffers& buffers, Handler&& handler) {
        boost::asio::mutable_buffer b = first(buffers);
        return async(Op{*this, Kind::Read, b.data(), b.size()}, std::forward<Handler>(handler));
    }
    template <class ConstBuffers, class Handler>
    auto async_write_some(const ConstBuffers& buffers, Handler&& handler) {
        boost::asio::const_buffer b = first(buffers);
        return async(Op{*this, Kind::Write, const_cast<void*>(b.data()), b.size()},
                     std::forward<Handler>(handler));
    }

  private:
    enum class Kind { Handshake, Read, Write, Shutdown };
    // The outcome of one OpenSSL call: done (with a count), wait for the
    // socket to be readable or writable, or failed.
    enum class Step { Done, WantRead, WantWrite, Failed };

    Step attempt(Kind kind, void* data, size_t size, size_t& n, error_code& ec);

    // One operation: OpenSSL's call, repeated whenever the socket is ready
    // for what it wants.  A completion within the initiating call is posted,
    // never made in the caller's stack.
    struct Op {
        TlsStream& s;
        Kind kind;
        void* data;
        size_t size;
        bool waited = false;

        template <class Self>
        void operator()(Self& self, error_code ec = {}) {
            size_t n = 0;
            if (!ec) {
                switch (s.attempt(kind, data, size, n, ec)) {
                    case Step::WantRead:
                        waited = true;
                        return s.socket_.async_wait(boost::asio::ip::tcp::socket::wait_read,
                                                    std::move(self));
                    case Step::WantWrite:
                        waited = true;
                        return s.socket_.async_wait(boost::asio::ip::tcp::socket::wait_write,
                                                    std::move(self));
                    default:
                        break;
                }
            }
            if (waited)
                return self.complete(ec, n);
            boost::asio::post(s.socket_.get_executor(),
                              [self = std::move(self), ec, n]() mutable { self.complete(ec, n); });
        }
    };

    template <class Handler>
    auto async(Op op, Handler&& handler) {
        return boost::asio::async_compose<Handler, void(error_code, size_t)>(std::move(op), handler,
                                                                             socket_);
    }

    template <class Buffers>
    static auto first(const Buffers& buffers) {
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers); ++it)
            if (it->size() > 0)
                return *it;
        return *boost::asio::buffer_sequence_begin(buffers);
    }

    boost::asio::ip::tcp::socket socket_;
    SSL* ssl_ = nullptr;
    bool shut_ = false;
};

// Shuts a socket down both ways and cancels what waits on it, leaving its
// descriptor open (and so its number taken) until the socket is destroyed.
void shutSocket(boost::asio::ip::tcp::socket& socket);
