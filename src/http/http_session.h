// One connection of the HTTP adapter: TLS set-up, reading requests within
// their limits, handing them to the worker pool, writing the answers the
// listener posts, and closing.  Every step is an asynchronous operation on
// the connection's loop (one thread); the connection holds no thread while
// it waits.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "http/cg_http_internal.h"
#include "http/conn_registry.h"
#include "http/http_stream.h"
#include "http/tls_stream.h"
#include "http/worker_pool.h"

// One network thread's event loop.  Each network thread runs a loop of its
// own, and a connection lives on one loop from accept to close: its
// operations need no strand, and the threads share no reactor (no lock
// between them, no wake-up of one by the other).  The loop keeps Asio's
// locking (hint 1, not an unsafe hint): a worker posts to it, and the last
// holder of a connection, which may be a worker, cancels its timer.
struct HttpIoLoop {
    boost::asio::io_context ioc{1};
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work{
        ioc.get_executor()};
};

// What the connections of one server share.  The loops come last so that
// they go first: the handlers they still hold release their connections
// while the rest of the state is alive.
struct HttpServerState {
    CgHttpLimits limits;
    boost::asio::ssl::context sslCtx{boost::asio::ssl::context::tls_server};
    CG_HTTP_LISTENER listener = nullptr;
    CG_HTTP_QUICK quick = nullptr;
    std::atomic<bool> running{false};
    ConnRegistry conns;
    std::atomic<uint64_t> nextId{1};
    std::unique_ptr<WorkerPool> pool;
    // What the streams hold beyond their reserves (set when the server starts).
    std::shared_ptr<CgHttpStreamPool> streamPool;
    std::mutex threadsMutex;
    std::condition_variable threadsGone;
    int ioThreads = 0;
    // The first loop is there from the start (the acceptor lives on it);
    // the others are added when the server starts its threads.
    std::vector<std::unique_ptr<HttpIoLoop>> loops = oneLoop();
    // Accepted connections go to the loops in turn.
    size_t nextLoop = 0;
    // The peer of the accept under way (one at a time, on the first loop).
    boost::asio::ip::tcp::endpoint acceptPeer;
    std::unique_ptr<boost::asio::ip::tcp::acceptor> acceptor;
    std::unique_ptr<boost::asio::steady_timer> acceptRetry;

    static std::vector<std::unique_ptr<HttpIoLoop>> oneLoop() {
        std::vector<std::unique_ptr<HttpIoLoop>> v;
        v.push_back(std::make_unique<HttpIoLoop>());
        return v;
    }
};

class HttpSession : public std::enable_shared_from_this<HttpSession>, public HttpOutput {
  public:
    HttpSession(std::shared_ptr<HttpServerState> st, boost::asio::ip::tcp::socket sock,
                std::string remote, std::string local, int localPort);
    ~HttpSession() override;
    // Admits the connection and starts its TLS set-up.
    void start();
    // Asks the connection to close (any thread): at once, or after the
    // answer of a request already with the listener unless `force`.
    void evict(bool force);

    // HttpOutput, for the listener's thread.
    void send(std::string bytes) override;
    bool failed() const override { return failed_; }
    std::shared_ptr<CgHttpStream> openStream(std::string head, const CgHttpStreamLimits& limits,
                                             bool chunked, std::function<void()> onClose) override;
    // On the connection's loop: the stream has pieces waiting.
    void streamReady();

  private:
    // Streaming: the listener has returned and left an open-ended answer.
    enum class Phase { Handshake, Waiting, Reading, Handling, Streaming, Closing };

    void onFirstByte(boost::system::error_code ec);
    void onHandshake(boost::system::error_code ec);
    void readRequest();
    void onFirstBytes(boost::system::error_code ec, size_t n);
    void readRest();
    void onHeader(boost::system::error_code ec);
    void readBody();
    void onRead(boost::system::error_code ec);
    void dispatch();
    void runListener();
    void runInline();
    void onListenerDone();
    void flush();
    void onWritten(boost::system::error_code ec);
    void afterAnswer();
    void startStreaming();
    void onStreamRead(boost::system::error_code ec, size_t n);
    void refuse(boost::beast::http::status status);
    void shutdown();
    void closeNow();
    void arm(std::chrono::steady_clock::time_point when);
    void disarm();
    void waitFor(std::chrono::steady_clock::time_point when);
    void onTimer(uint64_t seq);
    void onDeadline();
    void enter(Phase phase);
    boost::asio::ip::tcp::socket& lowest();

    std::shared_ptr<HttpServerState> st_;
    uint64_t id_;
    boost::asio::any_io_executor ex_;
    std::optional<boost::asio::ip::tcp::socket> tcp_;  // until TLS takes it over
    std::optional<TlsStream> tls_;
    // The phase's deadline (max: none), and the one timer wait that watches
    // it (max: no wait): a new deadline moves the wait only when it is
    // earlier, so a connection's many phases cost a wait or two, not one each.
    boost::asio::steady_timer deadline_;
    std::chrono::steady_clock::time_point deadlineAt_ =
        std::chrono::steady_clock::time_point::max();
    std::chrono::steady_clock::time_point waitAt_ = std::chrono::steady_clock::time_point::max();
    uint64_t waitSeq_ = 0;
    Phase phase_ = Phase::Handshake;
    bool timedOut_ = false;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    std::unique_ptr<CgHttpRequest> req_;
    std::string remote_, local_;
    int localPort_ = 0;
    std::deque<std::string> out_;
    std::string writing_;
    bool writeBusy_ = false;
    bool listenerDone_ = false;
    bool closeAfterWrite_ = false;
    std::atomic<bool> failed_{false};
    // The listener runs on this connection's loop right now (a quick
    // request): what it sends goes straight to the queue.
    bool inline_ = false;
    // The stream the listener opened (set on the loop), and a small buffer
    // for what a streaming client sends: nothing but its close is expected.
    std::shared_ptr<CgHttpStream> stream_;
    size_t streamWriting_ = 0;  // bytes of the stream in the write under way
    char streamProbe_[64];
};
