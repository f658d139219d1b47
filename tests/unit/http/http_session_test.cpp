// A connection of the HTTPS adapter from its accept to its close, with a
// listener of the test's own in place of the REST API: requests in turn on a
// kept-alive connection, the close after an answer, the refusals the adapter
// gives itself before any listener runs, the deadline of each phase, a
// client that is not speaking TLS, and a stream from its head to its end.
// Deadlines are short and every wait is for what the client sees, with a
// ceiling far above them: a slow machine takes longer, never another way.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "e2e/raw_conn.h"
#include "http/cg_http.h"
#include "unit/test_root.h"

namespace {

const int kWait = 20000;  // ms: the ceiling of every wait for the adapter

std::atomic<int> gCalls{0};
std::atomic<int> gStreamsClosed{0};

// "/block" holds its worker until the test lets it go.
std::mutex gBlockMutex;
std::condition_variable gBlockCv;
bool gBlockReleased = false;

void releaseBlocked() {
    {
        std::lock_guard<std::mutex> lock(gBlockMutex);
        gBlockReleased = true;
    }
    gBlockCv.notify_all();
}

void answer(CgHttpRequest* r, int status, const std::string& body) {
    CgHttpResponse* res = cg_http_response_new();
    cg_http_response_setstatuscode(res, status);
    cg_http_response_setheader(res, "Content-Type", "text/plain");
    cg_http_response_setcontent(res, body.data(), body.size());
    cg_http_request_postresponse(r, res);
    cg_http_response_delete(res);
}

// The test's listener: by its path, an echo, no answer at all, or a stream
// of two pieces that ends ("/stream") or stays open ("/open").
void listener(CgHttpRequest* r) {
    ++gCalls;
    std::string uri = cg_http_request_geturi(r);
    if (uri == "/silent")
        return;
    if (uri == "/block") {
        std::unique_lock<std::mutex> lock(gBlockMutex);
        gBlockCv.wait(lock, [] { return gBlockReleased; });
    }
    if (uri == "/stream" || uri == "/open") {
        CgHttpResponse* res = cg_http_response_new();
        cg_http_response_setstatuscode(res, 200);
        cg_http_response_setheader(res, "Content-Type", "text/event-stream");
        auto stream =
            cg_http_request_openstream(r, res, CgHttpStreamLimits{}, [] { ++gStreamsClosed; });
        cg_http_response_delete(res);
        ASSERT_TRUE(stream);
        EXPECT_EQ(CgHttpPush::Queued, cg_http_stream_push(stream.get(), "piece-one\n"));
        if (uri == "/stream")
            cg_http_stream_end(stream.get(), "piece-two\n");
        return;
    }
    std::string content(cg_http_request_getcontent(r), cg_http_request_getcontentlength(r));
    answer(r, 200, std::string(cg_http_request_getmethod(r)) + " " + uri + " [" + content + "]");
}

class HttpSessionTest : public ::testing::Test {
  protected:
    void start(const CgHttpLimits& limits) {
        gCalls = 0;
        gStreamsClosed = 0;
        gBlockReleased = false;
        std::string cert = unitTestRoot() + "/data/CA/newreq.crt";
        std::string key = unitTestRoot() + "/data/CA/newreq.key";
        CgHttpSslSettings tls{cert.c_str(), key.c_str(), nullptr, 0, 0};
        server_ = cg_http_server_new();
        cg_http_server_setlimits(server_, limits);
        port_ = e2e::freePort();
        ASSERT_TRUE(cg_http_server_open(server_, port_, "127.0.0.1", 0, true, &tls));
        cg_http_server_setlistener(server_, listener);
        ASSERT_TRUE(cg_http_server_start(server_));
    }
    void TearDown() override {
        releaseBlocked();
        if (server_) {
            cg_http_server_stop(server_);
            cg_http_server_delete(server_);
        }
    }
    // A handshaken TLS connection to the server.
    void connect(e2e::RawConn& c) {
        ASSERT_TRUE(c.connect(port_));
        ASSERT_TRUE(c.handshake());
    }
    // Reads until `text` has arrived or the peer closed.
    static std::string readFor(e2e::RawConn& c, const std::string& text, bool* closed = nullptr) {
        std::string got;
        bool gone = false;
        for (int i = 0; i < 100 && got.find(text) == std::string::npos && !gone; ++i)
            got += c.readSome(kWait / 100, &gone);
        if (closed)
            *closed = gone;
        return got;
    }
    // Whether `text` arrives before the peer closes (or the wait's ceiling).
    static bool shows(e2e::RawConn& c, const std::string& text) {
        return readFor(c, text).find(text) != std::string::npos;
    }
    // The deadlines stay long but for the one a test waits for: a short one
    // elsewhere would make the outcome depend on the machine's speed.
    static CgHttpLimits quickLimits() {
        CgHttpLimits l;
        l.maxHeaderBytes = 1024;
        l.maxBodyBytes = 64;
        l.ioThreads = 1;
        l.minWorkers = 1;
        l.maxWorkers = 2;
        return l;
    }

    CgHttpServer* server_ = nullptr;
    int port_ = 0;
};

// Waits until `n` streams have told of their close.
bool closes(int n) {
    for (int i = 0; i < kWait / 10 && gStreamsClosed < n; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return gStreamsClosed == n;
}

const std::string kGet = "GET /echo HTTP/1.1\r\nHost: x\r\n\r\n";

}  // namespace

// Waiting -> Reading -> Handling -> Waiting, for each request in turn.
TEST_F(HttpSessionTest, KeptAliveRequestsAreAnsweredInTurn) {
    start(quickLimits());
    e2e::RawConn c;
    connect(c);
    // Two requests in one write: the second waits in the buffer for the first's answer.
    ASSERT_TRUE(c.send(kGet + "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc"));
    std::string got = readFor(c, "POST /echo [abc]");
    size_t first = got.find("GET /echo []"), second = got.find("POST /echo [abc]");
    ASSERT_NE(std::string::npos, first) << got;
    ASSERT_NE(std::string::npos, second) << got;
    EXPECT_LT(first, second);
    EXPECT_EQ(0u, got.find("HTTP/1.1 200"));
    ASSERT_TRUE(c.send("DELETE /echo HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_TRUE(shows(c, "DELETE /echo []"));
    EXPECT_EQ(3, gCalls.load());
}

TEST_F(HttpSessionTest, AnIdleConnectionIsClosedAtItsDeadline) {
    CgHttpLimits l = quickLimits();
    l.idleTimeoutMs = 200;
    start(l);
    e2e::RawConn c;
    connect(c);
    EXPECT_TRUE(c.peerGoneWithin(kWait));  // without an answer
    EXPECT_EQ(0, gCalls.load());
}

TEST_F(HttpSessionTest, AnAnswerEndsTheConnectionWhenTheClientOrTheListenerSaysSo) {
    start(quickLimits());
    {
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send("GET /echo HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"));
        bool closed = false;
        std::string got = c.readUntilClose(kWait, &closed);
        EXPECT_TRUE(closed);
        EXPECT_NE(std::string::npos, got.find("GET /echo []")) << got;
    }
    {
        // HTTP/1.0 without keep-alive closes as well.
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send("GET /echo HTTP/1.0\r\n\r\n"));
        bool closed = false;
        EXPECT_NE(std::string::npos, c.readUntilClose(kWait, &closed).find("GET /echo []"));
        EXPECT_TRUE(closed);
    }
    {
        // A request the listener leaves unanswered ends its connection.
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send("GET /silent HTTP/1.1\r\nHost: x\r\n\r\n"));
        bool closed = false;
        EXPECT_EQ("", c.readUntilClose(kWait, &closed));
        EXPECT_TRUE(closed);
    }
}

// What the adapter refuses by itself: one plain answer, the connection
// closed, the listener never called.
TEST_F(HttpSessionTest, RefusalsBeforeTheListenerCloseTheConnection) {
    start(quickLimits());
    struct Case {
        std::string bytes, status;
    };
    const Case cases[] = {
        {"GET /echo HTTP/1.1\r\nHost: x\r\nX-Big: " + std::string(2000, 'a') + "\r\n\r\n",
         "HTTP/1.1 431"},
        {"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 65\r\n\r\n" + std::string(65, 'b'),
         "HTTP/1.1 413"},
        {"GET /echo HTTP/1.1\r\nHost: x\r\nContent-Length: nine\r\n\r\n", "HTTP/1.1 400"},
        {"NOT HTTP AT ALL\r\n\r\n", "HTTP/1.1 400"},
    };
    for (const Case& k : cases) {
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send(k.bytes));
        bool closed = false;
        std::string got = c.readUntilClose(kWait, &closed);
        EXPECT_EQ(0u, got.find(k.status)) << k.bytes.substr(0, 40) << " -> " << got;
        EXPECT_TRUE(closed) << k.status;
    }
    EXPECT_EQ(0, gCalls.load());
}

// A request's deadline runs from its first byte to its last.
TEST_F(HttpSessionTest, AnUnfinishedRequestIsAnswered408AtItsDeadline) {
    CgHttpLimits l = quickLimits();
    l.requestTimeoutMs = 200;
    start(l);
    // A body promised and not sent; a header never finished.
    for (const char* bytes : {"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\nabc",
                              "GET /echo HTTP/1.1\r\nHost: x\r\n"}) {
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send(bytes));
        bool closed = false;
        EXPECT_EQ(0u, c.readUntilClose(kWait, &closed).find("HTTP/1.1 408")) << bytes;
        EXPECT_TRUE(closed);
    }
    EXPECT_EQ(0, gCalls.load());
}

// A header dripped a byte at a time, without pause: each byte read does not
// move the deadline, and the connection ends while the drip goes on.
TEST_F(HttpSessionTest, ADrippedRequestEndsAtItsDeadlineAllTheSame) {
    CgHttpLimits l = quickLimits();
    l.requestTimeoutMs = 200;
    start(l);
    e2e::RawConn c;
    connect(c);
    bool closed = false;
    std::string got;
    const std::string header = "GET /echo HTTP/1.1\r\nX-Drip: ";
    for (size_t i = 0; i < 100000 && !closed; ++i) {
        if (!c.send(i < header.size() ? header.substr(i, 1) : "a"))
            break;
        got += c.readSome(5, &closed);
    }
    got += c.readUntilClose(kWait, &closed);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(got.empty() || got.find("HTTP/1.1 408") == 0) << got;
    EXPECT_EQ(0, gCalls.load());
}

// The handshake phase: a client that is silent, or that speaks anything but
// TLS, is closed without a byte of answer.
TEST_F(HttpSessionTest, AClientThatDoesNotSpeakTlsIsClosedWithoutAnAnswer) {
    CgHttpLimits l = quickLimits();
    l.handshakeTimeoutMs = 200;
    start(l);
    e2e::RawConn silent, plain;
    ASSERT_TRUE(silent.connect(port_));
    ASSERT_TRUE(plain.connect(port_));
    ASSERT_TRUE(plain.send(kGet));
    bool closed = false;
    EXPECT_EQ("", plain.readUntilClose(kWait, &closed));
    EXPECT_TRUE(closed);
    EXPECT_TRUE(silent.closedWithin(kWait));
    EXPECT_EQ(0, gCalls.load());
}

TEST_F(HttpSessionTest, ContinueIsSentBeforeTheBodyIsRead) {
    start(quickLimits());
    e2e::RawConn c;
    connect(c);
    ASSERT_TRUE(c.send(
        "PUT /echo HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n"));
    EXPECT_EQ(0u, readFor(c, "\r\n\r\n").find("HTTP/1.1 100 Continue\r\n\r\n"));
    ASSERT_TRUE(c.send("ok"));
    EXPECT_TRUE(shows(c, "PUT /echo [ok]"));
}

// Streaming: the head and the pieces in order, the connection closed at the
// stream's end; a client that goes away closes its stream.
TEST_F(HttpSessionTest, AStreamRunsFromItsHeadToItsEndOrItsClientsLeaving) {
    start(quickLimits());
    {
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n"));
        bool closed = false;
        std::string got = c.readUntilClose(kWait, &closed);
        EXPECT_TRUE(closed);
        EXPECT_EQ(0u, got.find("HTTP/1.1 200")) << got;
        size_t one = got.find("piece-one"), two = got.find("piece-two");
        ASSERT_NE(std::string::npos, one) << got;
        ASSERT_NE(std::string::npos, two) << got;
        EXPECT_LT(one, two);
        EXPECT_TRUE(closes(1));
    }
    {
        // A stream that stays open ends when its client leaves.
        e2e::RawConn c;
        connect(c);
        ASSERT_TRUE(c.send("GET /open HTTP/1.1\r\nHost: x\r\n\r\n"));
        EXPECT_TRUE(shows(c, "piece-one"));
        EXPECT_EQ(1, gStreamsClosed.load());
        c.close();
        EXPECT_TRUE(closes(2));
    }
}

// Every worker busy and the queue full: the adapter answers 503 itself, and
// says when to come back; the request queued meanwhile is answered in turn.
TEST_F(HttpSessionTest, AFullQueueIsAnswered503WithRetryAfter) {
    CgHttpLimits l = quickLimits();
    l.minWorkers = 1;
    l.maxWorkers = 1;
    l.maxQueuedRequests = 1;
    start(l);
    e2e::RawConn busy, a, b;
    connect(busy);
    ASSERT_TRUE(busy.send("GET /block HTTP/1.1\r\nHost: x\r\n\r\n"));
    for (int i = 0; i < kWait / 10 && gCalls < 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(1, gCalls.load());  // the one worker holds it
    // Of two more requests one is queued and the other refused, in whichever
    // order they arrive.
    connect(a);
    connect(b);
    ASSERT_TRUE(a.send(kGet));
    ASSERT_TRUE(b.send(kGet));
    std::string gotA, gotB;
    for (int i = 0;
         i < 100 && gotA.find("503") == std::string::npos && gotB.find("503") == std::string::npos;
         ++i) {
        gotA += a.readSome(kWait / 200);
        gotB += b.readSome(kWait / 200);
    }
    std::string& refused = gotA.find("503") != std::string::npos ? gotA : gotB;
    e2e::RawConn& queued = &refused == &gotA ? b : a;
    EXPECT_EQ(0u, refused.find("HTTP/1.1 503 Service Unavailable\r\n")) << refused;
    EXPECT_NE(std::string::npos, refused.find("Retry-After: 1\r\n")) << refused;
    releaseBlocked();
    EXPECT_TRUE(shows(queued, "GET /echo []"));
    EXPECT_TRUE(shows(busy, "GET /block []"));
}
