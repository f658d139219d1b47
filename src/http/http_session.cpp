// One connection of the HTTP adapter: see http_session.h.
//
// Phases and their deadlines (one timer, re-armed per phase):
//   Handshake  from the accept until TLS is up          handshake time
//   Waiting    for the first byte of the next request   idle time
//   Reading    first byte to last byte of a request     request time, then 408
//   Handling   the listener runs; each write             write time
//   Streaming  an open-ended answer after the listener   each write: write time
//   Closing    TLS close                                 2 s
// A connection holds no request while in Handshake or Waiting and may then
// be told to make room for a new one (see conn_registry.h).
#include "http/http_session.h"

#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <sstream>

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Clock = std::chrono::steady_clock;

namespace {

// The first read of a request; later reads take what the parser needs.
constexpr size_t kFirstRead = 4096;
// The kernel's send buffer of a stream's socket, and what one write of a
// stream takes from its queue.
constexpr int kStreamSendBuffer = 32 * 1024;
constexpr size_t kStreamWriteBytes = 4 * 1024;

std::chrono::milliseconds ms(int v) {
    return std::chrono::milliseconds(v > 0 ? v : 1);
}

std::string plainAnswer(http::status status) {
    http::response<http::string_body> res{status, 11};
    res.set(http::field::content_type, "text/plain");
    res.set(http::field::connection, "close");
    if (status == http::status::service_unavailable)
        res.set(http::field::retry_after, "1");
    res.body() = std::string(http::obsolete_reason(status)) + "\n";
    res.prepare_payload();
    std::ostringstream os;
    os << res;
    return std::move(os).str();
}

// A stream's client that stops acknowledging (a phone that went to sleep or
// left the network) is dropped by the kernel after `deadMs`: what was sent
// and not acknowledged, or could not be sent for a closed window, times the
// connection out, and keep-alive probes find a peer that went quiet.
void dropWhenSilent(int fd, int deadMs) {
    int on = 1;
    int idle = std::max(1, deadMs / 3000);
    int count = 3;
    unsigned timeout = static_cast<unsigned>(deadMs);
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &idle, sizeof idle);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &timeout, sizeof timeout);
}

// The client went away or stopped mid-way: nothing to answer.
bool peerGone(const boost::system::error_code& ec) {
    return ec == http::error::end_of_stream || ec == http::error::partial_message ||
           ec == net::error::eof || ec == net::ssl::error::stream_truncated ||
           ec == net::error::connection_reset || ec == net::error::operation_aborted;
}

}  // namespace

HttpSession::HttpSession(std::shared_ptr<HttpServerState> st, net::ip::tcp::socket sock,
                         std::string remote, std::string local, int localPort)
    : st_(std::move(st)),
      id_(st_->nextId++),
      ex_(sock.get_executor()),
      deadline_(ex_),
      buffer_(st_->limits.maxHeaderBytes + st_->limits.maxBodyBytes + 16 * 1024),
      remote_(std::move(remote)),
      local_(std::move(local)),
      localPort_(localPort) {
    boost::system::error_code ec;
    sock.set_option(net::ip::tcp::no_delay(true), ec);
    tcp_.emplace(std::move(sock));
}

HttpSession::~HttpSession() {
    if (stream_)
        stream_->markClosed();
    // The last connection gone, what the load took from the system goes
    // back to it (the allocator keeps freed memory of every thread else).
    if (st_->conns.remove(id_))
        malloc_trim(0);
}

net::ip::tcp::socket& HttpSession::lowest() {
    return tls_ ? tls_->socket() : *tcp_;
}

void HttpSession::start() {
    std::weak_ptr<HttpSession> weak = shared_from_this();
    auto admitted = st_->conns.admit(id_, connAddressKey(remote_), [weak](bool force) {
        if (auto self = weak.lock())
            self->evict(force);
    });
    if (admitted != ConnRegistry::Admit::Yes)
        return;  // the socket closes with this object
    net::dispatch(ex_, [self = shared_from_this()] {
        self->enter(Phase::Handshake);
        self->arm(Clock::now() + ms(self->st_->limits.handshakeTimeoutMs));
        // The client's first bytes have often come with the connection: a
        // look first, and a wait only when there is nothing yet.
        self->onFirstByte(boost::system::error_code());
    });
}

// A request already with the listener is answered first: its change may be
// made, and its answer must not be lost.
void HttpSession::evict(bool force) {
    net::post(ex_, [self = shared_from_this(), force] {
        if (force || self->phase_ != Phase::Handling)
            self->closeNow();
        else
            self->closeAfterWrite_ = true;
    });
}

// The first byte, looked at and left where it is: a TLS connection begins
// with a handshake record (22); anything else, or nothing, is closed without
// an answer.
void HttpSession::onFirstByte(boost::system::error_code ec) {
    if (phase_ == Phase::Closing)
        return;
    unsigned char first = 0;
    ssize_t n = ec ? -1 : recv(tcp_->native_handle(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
    // The reactor may call a socket ready that has nothing yet: wait on.
    if (n < 0 && !ec && (errno == EAGAIN || errno == EWOULDBLOCK))
        return tcp_->async_wait(
            net::ip::tcp::socket::wait_read,
            [self = shared_from_this()](boost::system::error_code e) { self->onFirstByte(e); });
    if (n != 1 || first != 22)
        return closeNow();
    tls_.emplace(std::move(*tcp_), st_->sslCtx.native_handle());
    tcp_.reset();
    if (!tls_->ok())
        return closeNow();
    tls_->async_handshake(
        [self = shared_from_this()](boost::system::error_code e, size_t) { self->onHandshake(e); });
}

void HttpSession::onHandshake(boost::system::error_code ec) {
    if (phase_ == Phase::Closing)
        return;
    if (ec)
        return closeNow();
    readRequest();
}

void HttpSession::readRequest() {
    req_.reset();
    listenerDone_ = false;
    closeAfterWrite_ = false;
    timedOut_ = false;
    parser_.emplace();
    parser_->header_limit(static_cast<uint32_t>(st_->limits.maxHeaderBytes));
    parser_->body_limit(st_->limits.maxBodyBytes);
    if (buffer_.size() > 0)
        return readRest();
    buffer_.shrink_to_fit();  // an idle connection keeps no request buffer
    enter(Phase::Waiting);
    arm(Clock::now() + ms(st_->limits.idleTimeoutMs));
    tls_->async_read_some(buffer_.prepare(kFirstRead),
                          [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                              self->onFirstBytes(ec, n);
                          });
}

void HttpSession::onFirstBytes(boost::system::error_code ec, size_t n) {
    if (phase_ == Phase::Closing)
        return;
    if (ec)  // idle time over, or the client left
        return closeNow();
    buffer_.commit(n);
    readRest();
}

// The request's clock starts with its first byte.
void HttpSession::readRest() {
    enter(Phase::Reading);
    arm(Clock::now() + ms(st_->limits.requestTimeoutMs));
    http::async_read_header(
        *tls_, buffer_, *parser_,
        [self = shared_from_this()](boost::system::error_code ec, size_t) { self->onHeader(ec); });
}

// A client that asks may wait for "100 Continue" before it sends the body.
void HttpSession::onHeader(boost::system::error_code ec) {
    if (phase_ == Phase::Closing)
        return;
    if (ec || parser_->is_done() || timedOut_)
        return onRead(ec);
    auto expect = parser_->get().find(http::field::expect);
    if (expect != parser_->get().end() && beast::iequals(expect->value(), "100-continue")) {
        static const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        net::async_write(*tls_, net::buffer(kContinue),
                         [self = shared_from_this()](boost::system::error_code e, size_t) {
                             if (e)
                                 return self->onRead(e);
                             self->readBody();
                         });
        return;
    }
    readBody();
}

void HttpSession::readBody() {
    if (phase_ == Phase::Closing)
        return;
    http::async_read(
        *tls_, buffer_, *parser_,
        [self = shared_from_this()](boost::system::error_code ec, size_t) { self->onRead(ec); });
}

void HttpSession::onRead(boost::system::error_code ec) {
    if (phase_ == Phase::Closing)
        return;
    if (ec == http::error::header_limit)
        return refuse(http::status::request_header_fields_too_large);
    if (ec == http::error::body_limit || ec == http::error::buffer_overflow)
        return refuse(http::status::payload_too_large);
    if (timedOut_ && !(!ec && parser_->is_done()))
        return refuse(http::status::request_timeout);
    if (ec)
        return peerGone(ec) ? closeNow() : refuse(http::status::bad_request);
    dispatch();
}

void HttpSession::dispatch() {
    disarm();
    enter(Phase::Handling);
    req_ = std::make_unique<CgHttpRequest>();
    cgHttpRequestInit(*req_, parser_->release(), remote_, local_, localPort_);
    req_->output = this;
    parser_.reset();
    if (st_->quick && st_->quick(req_.get()))
        return runInline();
    if (!st_->pool->submit([self = shared_from_this()] { self->runListener(); })) {
        req_.reset();
        refuse(http::status::service_unavailable);
    }
}

// On a worker thread.
void HttpSession::runListener() {
    if (st_->running && st_->listener)
        st_->listener(req_.get());
    if (st_->running)
        net::post(ex_, [self = shared_from_this()] { self->onListenerDone(); });
}

// On the loop: a quick request's listener runs here and now.
void HttpSession::runInline() {
    if (st_->running && st_->listener) {
        inline_ = true;
        st_->listener(req_.get());
        inline_ = false;
    }
    onListenerDone();
}

// On a worker thread: the bytes go to the loop, which writes them (on the
// loop itself, for a quick request, at once).
void HttpSession::send(std::string bytes) {
    if (!st_->running)
        return;
    if (inline_) {
        out_.push_back(std::move(bytes));
        return flush();
    }
    net::post(ex_, [self = shared_from_this(), b = std::move(bytes)]() mutable {
        self->out_.push_back(std::move(b));
        self->flush();
    });
}

// On a worker thread.  The head goes out first; the stream's pieces follow
// in the order the loop runs the hand-overs.
std::shared_ptr<CgHttpStream> HttpSession::openStream(std::string head,
                                                      const CgHttpStreamLimits& limits,
                                                      bool chunked, std::function<void()> onClose) {
    if (!st_->running || failed_)
        return nullptr;
    auto stream = std::make_shared<CgHttpStream>(ex_, weak_from_this(), limits, chunked,
                                                 std::move(onClose), st_->streamPool);
    auto begin = [self = shared_from_this(), stream, h = std::move(head)]() mutable {
        if (self->phase_ == Phase::Closing)
            return stream->markClosed();
        self->stream_ = stream;
        self->out_.push_back(std::move(h));
        self->flush();
    };
    // A quick listener is on the loop: the stream must be the
    // connection's before the listener's end is looked at.
    if (inline_)
        begin();
    else
        net::post(ex_, std::move(begin));
    return stream;
}

void HttpSession::streamReady() {
    flush();
    if (phase_ == Phase::Streaming && !writeBusy_ && stream_->finished())
        shutdown();
}

void HttpSession::onListenerDone() {
    if (phase_ == Phase::Closing)
        return;
    listenerDone_ = true;
    if (stream_)
        return startStreaming();
    if (!writeBusy_ && out_.empty())
        afterAnswer();
}

// The connection now belongs to the stream.  A read stays open only to learn
// that the client has gone; a client that sends anything is done with it.
void HttpSession::startStreaming() {
    enter(Phase::Streaming);
    // A stream lives long and its client may stop reading: the kernel keeps
    // a small fixed buffer for it instead of one that grows to megabytes,
    // and the stream's own queue says how far behind the client may fall.
    boost::system::error_code ec;
    lowest().set_option(net::socket_base::send_buffer_size(kStreamSendBuffer), ec);
    dropWhenSilent(lowest().native_handle(), st_->limits.streamDeadMs);
    // Nothing more is read but a probe: the request's buffer goes.
    buffer_.consume(buffer_.size());
    buffer_.shrink_to_fit();
    if (!writeBusy_)
        disarm();
    tls_->async_read_some(net::buffer(streamProbe_),
                          [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                              self->onStreamRead(ec, n);
                          });
    streamReady();
}

void HttpSession::onStreamRead(boost::system::error_code, size_t) {
    if (phase_ != Phase::Closing)
        closeNow();
}

void HttpSession::flush() {
    if (stream_ && phase_ != Phase::Closing && out_.empty() && !writeBusy_)
        streamWriting_ = stream_->takeInto(out_, kStreamWriteBytes);
    if (writeBusy_ || out_.empty() || phase_ == Phase::Closing)
        return;
    writing_.clear();
    for (std::string& piece : out_)
        writing_ += piece;
    out_.clear();
    writeBusy_ = true;
    arm(Clock::now() + ms(st_->limits.writeTimeoutMs));
    net::async_write(
        *tls_, net::buffer(writing_),
        [self = shared_from_this()](boost::system::error_code ec, size_t) { self->onWritten(ec); });
}

void HttpSession::onWritten(boost::system::error_code ec) {
    writeBusy_ = false;
    std::string().swap(writing_);
    if (streamWriting_) {
        stream_->written(streamWriting_);
        streamWriting_ = 0;
    }
    if (phase_ == Phase::Closing)
        return;
    if (ec) {
        failed_ = true;
        return closeNow();
    }
    disarm();
    flush();
    if (writeBusy_)
        return;
    if (phase_ == Phase::Streaming) {
        if (stream_->finished())
            shutdown();
        return;
    }
    if (listenerDone_)
        afterAnswer();
}

// The answer is out: the next request on a kept-alive connection, or close.
// A request the listener left unanswered ends the connection.
void HttpSession::afterAnswer() {
    bool again = !closeAfterWrite_ && !failed_ && req_ && req_->answered && req_->msg.keep_alive();
    if (!again)
        return shutdown();
    readRequest();
}

// A request refused by the server itself; the connection closes after it.
void HttpSession::refuse(http::status status) {
    enter(Phase::Handling);
    disarm();
    closeAfterWrite_ = true;
    listenerDone_ = true;
    out_.push_back(plainAnswer(status));
    flush();
}

// Every answer carries its own end (a length, or the last chunk), so the
// close needs no answer from the client: ours goes out and the connection
// closes, without waiting for the client's (as a web server does).
void HttpSession::shutdown() {
    enter(Phase::Closing);
    arm(Clock::now() + std::chrono::seconds(2));
    SSL_set_shutdown(tls_->native_handle(), SSL_RECEIVED_SHUTDOWN);
    tls_->async_shutdown(
        [self = shared_from_this()](boost::system::error_code, size_t) { self->closeNow(); });
}

// The connection ends here; its descriptor is closed only when the last
// holder of the connection lets it go (tls_stream.h), so that whatever step
// is still on its way finds a shut socket of its own, never another
// connection that was given the same number.
void HttpSession::closeNow() {
    if (phase_ != Phase::Closing)
        enter(Phase::Closing);
    failed_ = true;
    if (stream_)
        stream_->markClosed();
    disarm();
    if (tls_)
        tls_->shut();
    else if (tcp_)
        shutSocket(*tcp_);
}

void HttpSession::enter(Phase phase) {
    phase_ = phase;
    using P = ConnRegistry::Phase;
    if (phase == Phase::Closing)
        st_->conns.setClosing(id_);
    else
        st_->conns.setPhase(id_, phase == Phase::Reading     ? P::Reading
                                 : phase == Phase::Handling  ? P::Handling
                                 : phase == Phase::Streaming ? P::Streaming
                                                             : P::Idle);
}

void HttpSession::arm(Clock::time_point when) {
    deadlineAt_ = when;
    // A wait for an earlier moment looks again then.
    if (when < waitAt_)
        waitFor(when);
}

// No deadline: a wait under way finds none when it ends.
void HttpSession::disarm() {
    deadlineAt_ = Clock::time_point::max();
}

// The wait holds the connection weakly: a closed connection goes at once,
// and its timer's end cancels the wait.
void HttpSession::waitFor(Clock::time_point when) {
    uint64_t seq = ++waitSeq_;
    waitAt_ = when;
    deadline_.expires_at(when);
    deadline_.async_wait([weak = weak_from_this(), seq](boost::system::error_code ec) {
        auto self = weak.lock();
        if (self && !ec)
            self->onTimer(seq);
    });
}

void HttpSession::onTimer(uint64_t seq) {
    if (seq != waitSeq_)
        return;  // a later wait replaced this one
    waitAt_ = Clock::time_point::max();
    if (deadlineAt_ == Clock::time_point::max())
        return;
    if (Clock::now() < deadlineAt_)
        return waitFor(deadlineAt_);
    onDeadline();
}

void HttpSession::onDeadline() {
    if (phase_ == Phase::Reading && !timedOut_) {
        // The read ends aborted (or at the end of input, should it be between
        // two of its steps just now) and its handler answers 408; if it does
        // not end within a grace second, the connection closes.
        timedOut_ = true;
        boost::system::error_code ec;
        lowest().shutdown(net::ip::tcp::socket::shutdown_receive, ec);
        lowest().cancel(ec);
        arm(Clock::now() + std::chrono::seconds(1));
        return;
    }
    if (phase_ == Phase::Handling || phase_ == Phase::Streaming) {
        failed_ = true;
        // A write that the client did not take in time: what waits in the
        // kernel for it is thrown away with a reset, instead of keeping the
        // socket and its buffer alive behind a close the client never reads.
        if (writeBusy_) {
            boost::system::error_code ec;
            lowest().set_option(net::socket_base::linger(true, 0), ec);
        }
    }
    closeNow();
}
