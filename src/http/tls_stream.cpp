// TLS on the socket itself: see tls_stream.h.
#include "http/tls_stream.h"

#include <cerrno>
#include <climits>

namespace net = boost::asio;

TlsStream::TlsStream(net::ip::tcp::socket socket, SSL_CTX* ctx) : socket_(std::move(socket)) {
    error_code ec;
    // The reactor has usually made it non-blocking already (a system call
    // each time it is set).
    if (!socket_.native_non_blocking())
        socket_.native_non_blocking(true, ec);
    ssl_ = ec ? nullptr : SSL_new(ctx);
    if (!ssl_)
        return;
    if (SSL_set_fd(ssl_, socket_.native_handle()) != 1) {
        SSL_free(ssl_);
        ssl_ = nullptr;
        return;
    }
    // A write may end part of the way (the rest follows), and be retried
    // from a buffer that moved (the caller's queue owns it).
    SSL_set_mode(ssl_, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // The end of the client's side (or of our reading, once a request ran
    // out of time) is an end, not a fatal error: the answer can still go
    // out after it.
    SSL_set_options(ssl_, SSL_OP_IGNORE_UNEXPECTED_EOF);
    // Whole records, and what follows them, in one read of the socket.
    SSL_set_read_ahead(ssl_, 1);
    SSL_set_accept_state(ssl_);
}

// OpenSSL goes first; the socket, and with it the descriptor, after it.
// Closed here rather than by the socket's destructor, which would undo a
// linger the connection chose (a reset for a client that stopped reading).
TlsStream::~TlsStream() {
    if (ssl_)
        SSL_free(ssl_);
    boost::system::error_code ec;
    socket_.close(ec);
}

void shutSocket(net::ip::tcp::socket& socket) {
    boost::system::error_code ec;
    socket.shutdown(net::ip::tcp::socket::shutdown_both, ec);
    socket.cancel(ec);
}

void TlsStream::shut() {
    shut_ = true;
    shutSocket(socket_);
}

TlsStream::Step TlsStream::attempt(Kind kind, void* data, size_t size, size_t& n, error_code& ec) {
    // A step that was on its way when the connection ended fails here,
    // before OpenSSL could write a byte (an alert, close_notify) or read one.
    if (!ssl_ || shut_ || !socket_.is_open()) {
        ec = net::error::bad_descriptor;
        return Step::Failed;
    }
    int len = size > INT_MAX ? INT_MAX : static_cast<int>(size);
    if ((kind == Kind::Read || kind == Kind::Write) && len == 0)
        return Step::Done;
    ERR_clear_error();
    int r = 0;
    switch (kind) {
        case Kind::Handshake:
            r = SSL_do_handshake(ssl_);
            break;
        case Kind::Read:
            r = SSL_read(ssl_, data, len);
            break;
        case Kind::Write:
            r = SSL_write(ssl_, data, len);
            break;
        case Kind::Shutdown:
            r = SSL_shutdown(ssl_);
            break;
    }
    // A shutdown is done once ours is sent: the close waits for no answer.
    if (r > 0 || (kind == Kind::Shutdown && r == 0)) {
        n = kind == Kind::Read || kind == Kind::Write ? static_cast<size_t>(r) : 0;
        return Step::Done;
    }
    int err = SSL_get_error(ssl_, r);
    switch (err) {
        case SSL_ERROR_WANT_READ:
            return Step::WantRead;
        case SSL_ERROR_WANT_WRITE:
            return Step::WantWrite;
        case SSL_ERROR_ZERO_RETURN:
            // The peer closed its side cleanly (close_notify).
            ec = net::error::eof;
            return Step::Failed;
        case SSL_ERROR_SYSCALL: {
            // No error queued: the peer went away without close_notify.
            int e = errno;
            ec = ERR_peek_error() == 0 && (r == 0 || e == 0)
                     ? error_code(net::ssl::error::stream_truncated)
                     : error_code(e ? e : EIO, boost::system::system_category());
            return Step::Failed;
        }
        default: {
            unsigned long e = ERR_get_error();
            if (ERR_GET_REASON(e) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
                ec = net::ssl::error::stream_truncated;
            else
                ec = error_code(static_cast<int>(e), net::error::get_ssl_category());
            if (!ec)
                ec = net::ssl::error::unspecified_system_error;
            return Step::Failed;
        }
    }
}
