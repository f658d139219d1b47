// The HTTPS front under hostile load (run under TSan as well): floods of silent and slow
// connections, one address taking every socket, oversized and unfinished requests, and a client
// that never reads its answers.  Each daemon gets short limits through WHTTPD_HTTP_LIMITS so that
// the deadlines pass within the test.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "fixture.h"
#include "raw_conn.h"

namespace {

using namespace e2e;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

std::string statusLine(const std::string& answer) {
    return answer.substr(0, answer.find("\r\n"));
}

class FrontConcurrent : public e2e::DaemonTest {
  public:
    void SetUp() override {
        e2e::raiseDescriptorLimit();
        signal(SIGPIPE, SIG_IGN);
    }
    void startWith(const std::string& limits) {
        d.setEnv("WHTTPD_HTTP_LIMITS", limits);
        start();
    }
    // A TLS connection from `local` that has finished its handshake.
    RawConn tlsFrom(const std::string& local) {
        RawConn c;
        EXPECT_TRUE(c.connect(port, local));
        EXPECT_TRUE(c.handshake());
        return c;
    }
    // Logs in from `local` and reads an object; true when both answer 200.
    bool servedFrom(const std::string& local) {
        Client c(port, "127.0.0.1", local);
        e2e::Session s2;
        if (c.login("admin", "1234abcd", &s2).status != 200)
            return false;
        return c.request("GET", "TR181/Value/Device.DeviceInfo.", "", &s2).status == 200;
    }
};

// Slow-drip clients: TLS is up, then the request comes one byte a second.
// One thread owns the connections from start() to timedOut(): it drips, and
// it reads each connection's answer as soon as the daemon sends one.
class Drippers {
  public:
    ~Drippers() { timedOut(); }
    void open(FrontConcurrent& t, int count) {
        for (int i = 0; i < count; ++i)
            conns_.push_back(t.tlsFrom("127.0.2." + std::to_string(1 + i / 2)));
    }
    void start() {
        thread_ = std::thread([this] { run(); });
    }
    // How many connections the daemon has answered so far.
    int answered() const { return answered_.load(); }
    // Once every connection was answered (or 30 s passed): how many got 408
    // and were closed.
    int timedOut() {
        if (thread_.joinable())
            thread_.join();
        return timedOut_;
    }

  private:
    void run() {
        const std::string request = "GET /api/v1/MethodList HTTP/1.1\r\nHost: device\r\n\r\n";
        std::vector<std::string> answers(conns_.size());
        std::vector<bool> done(conns_.size(), false);
        size_t closed = 0;
        auto end = Clock::now() + std::chrono::seconds(30);
        for (size_t tick = 0; closed < conns_.size() && Clock::now() < end; ++tick) {
            for (size_t i = 0; i < conns_.size(); ++i) {
                if (done[i])
                    continue;
                bool isClosed = false;
                std::string got = conns_[i].readUntilClose(0, &isClosed);  // never waits
                if (answers[i].empty() && (!got.empty() || isClosed))
                    ++answered_;
                answers[i] += got;
                if (isClosed) {
                    timedOut_ += statusLine(answers[i]) == "HTTP/1.1 408 Request Timeout";
                    done[i] = true;
                    ++closed;
                } else if (answers[i].empty() && tick % 20 == 0 && tick / 20 < request.size()) {
                    conns_[i].send(request.substr(tick / 20, 1));
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    std::vector<RawConn> conns_;
    std::thread thread_;
    std::atomic<int> answered_{0};
    int timedOut_ = 0;
};

}  // namespace

TEST_F(FrontConcurrent, IdleAndSlowFloodsLeaveAProperClientServed) {
    startWith("connections=256,per_address=32,request_ms=8000,handshake_ms=8000,idle_ms=8000");
    int baseThreads = e2e::threadCount(d.pid());
    // 1000 plain connections that never send a byte, from 40 addresses.
    std::vector<RawConn> silent(1000);
    for (size_t i = 0; i < silent.size(); ++i)
        ASSERT_TRUE(silent[i].connect(port, "127.0.1." + std::to_string(1 + i / 25))) << i;
    // The daemon has taken the whole flood in (nothing waits in its accept
    // queue) and the connections it turned out are gone: until then a
    // newcomer may find every socket taken, the closing ones included.  While
    // the queue is not empty each connection taken turns another out, so the
    // count of sockets alone says nothing.
    long sockets = -1, queued = -1;
    for (int i = 0; i < 1200; ++i) {
        queued = e2e::acceptQueue(port);
        sockets = e2e::socketCount(d.pid());
        if (queued == 0 && sockets <= 256 + 16)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(0, queued);
    ASSERT_LE(sockets, 256 + 16);
    Drippers drippers;
    drippers.open(*this, 50);
    drippers.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));

    int maxThreads = e2e::threadCount(d.pid());
    EXPECT_TRUE(servedFrom("127.0.0.1"));
    // Served without waiting for any slow connection's time-out.
    EXPECT_EQ(0, drippers.answered());
    maxThreads = std::max(maxThreads, e2e::threadCount(d.pid()));
    printf("threads %d at rest, %d at most\n", baseThreads, maxThreads);
    EXPECT_EQ(50, drippers.timedOut());
    maxThreads = std::max(maxThreads, e2e::threadCount(d.pid()));
    // Connections cost no thread: at most the workers that the pool may add.
    EXPECT_LE(maxThreads, baseThreads + 16);
    EXPECT_TRUE(servedFrom("127.0.0.1"));
}

TEST_F(FrontConcurrent, PerAddressCeilingRefusesOnlyThatAddress) {
    startWith("per_address=4,idle_ms=60000,handshake_ms=60000,request_ms=60000");
    // Four connections of one address, each inside an unfinished request: the
    // daemon's "100 Continue" shows that it has read the header (until then
    // the connection is idle, and an idle one yields to a newcomer).
    std::vector<RawConn> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(tlsFrom("127.0.3.1"));
        ASSERT_TRUE(
            held.back().send("PUT /api/v1/TR181/Value/Device.WiFi.SSID.1. HTTP/1.1\r\nHost: d\r\n"
                             "Expect: 100-continue\r\nContent-Length: 10\r\n\r\n"));
        std::string got;
        for (int k = 0; k < 100 && got.find("100 Continue") == std::string::npos; ++k)
            got += held.back().readSome(200);
        ASSERT_NE(std::string::npos, got.find("HTTP/1.1 100 Continue")) << got;
    }
    RawConn extra;
    ASSERT_TRUE(extra.connect(port, "127.0.3.1"));
    EXPECT_TRUE(extra.closedWithin(10000));  // refused at once, long before any time-out
    EXPECT_TRUE(servedFrom("127.0.3.2"));
    // A connection of the full address that closes makes room for another
    // (once the daemon has seen it close).
    held.pop_back();
    long status = 0;
    for (int i = 0; i < 500 && status != 200; ++i) {
        status = Client(port, "127.0.0.1", "127.0.3.1").login("admin", "1234abcd").status;
        if (status != 200)
            e2e::sleepMs(20);
    }
    EXPECT_EQ(200, status);
}

// The adapter's refusals are its unit tests'; here the daemon's own limit.
TEST_F(FrontConcurrent, ABodyOverTheDaemonsLimitIsRefused) {
    start();
    RawConn conn = tlsFrom("127.0.4.1");
    ASSERT_TRUE(
        conn.send("PUT /api/v1/TR181/Value/Device.WiFi.SSID.1. HTTP/1.1\r\nHost: d\r\n"
                  "Content-Length: 100000\r\n\r\n"));
    bool closed = false;
    std::string answer = conn.readUntilClose(10000, &closed);
    EXPECT_EQ("HTTP/1.1 413 Payload Too Large", statusLine(answer));
    EXPECT_TRUE(closed);
    EXPECT_TRUE(servedFrom("127.0.0.1"));
}

namespace {

// A batch that sets SSID.1 to `value` 1000 times: its answer reads every
// element back (about 230 kB).
std::string bigBatch(const std::string& value) {
    std::string body = R"({"MultiObjects":true,"TR181_Objects":[)";
    for (int i = 0; i < 1000; ++i)
        body += std::string(i ? "," : "") + R"({"object_path":"Device.WiFi.SSID.1.","SSID":")" +
                value + "\"}";
    return body + "]}";
}

}  // namespace

TEST_F(FrontConcurrent, AClientThatNeverReadsHoldsUpNoOtherWriter) {
    startWith("write_ms=120000,idle_ms=120000");
    const int kMax = 40;
    std::vector<e2e::Session> sessions(kMax);
    for (e2e::Session& one : sessions)
        ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &one).status);
    // One connection with a tiny receive window sends batch after batch and
    // never reads; each answer is written before the next request is read,
    // so once the buffers between are full the connection stands still.
    RawConn stuck;
    ASSERT_TRUE(stuck.connect(port, "127.0.5.1", 4096));
    ASSERT_TRUE(stuck.handshake());
    std::thread sender([&] {
        for (int k = 0; k < kMax; ++k) {
            std::string body = bigBatch("stuck-" + std::to_string(k));
            std::string request = "PUT /api/v1/TR181/Value/MultiObjects?sessionkey=" +
                                  std::to_string(sessions[k].key) +
                                  " HTTP/1.1\r\nHost: d\r\nCookie: Session=" + sessions[k].id +
                                  "\r\nContent-Length: " + std::to_string(body.size()) +
                                  "\r\n\r\n" + body;
            if (!stuck.send(request))
                return;
        }
    });
    // Wait until the store stops moving: the connection is stuck on an answer.
    std::string last, now;
    for (int stable = 0; stable < 8;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        ASSERT_EQ(0, root.wcfgctl({"get", "Device.WiFi.SSID.1."}, &now));
        stable = now == last ? stable + 1 : 0;
        last = now;
    }
    ASSERT_EQ(std::string::npos, now.find("stuck-" + std::to_string(kMax - 1)))
        << "the buffers took every answer; the test proves nothing";
    // Another session writes while the reader is stuck: served at once.
    Clock::time_point t0 = Clock::now();
    e2e::Reply r = write("PUT", "TR181/Value/Device.WiFi.SSID.2.", R"({"SSID":"not-held-up"})");
    long long ms = msSince(t0);
    EXPECT_EQ("Success", e2e::operStatus(r)) << r.body;
    printf("another session's write while a reader is stuck: %lld ms\n", ms);
    EXPECT_LT(ms, 20000);  // far below the write time (120 s) it would wait behind
    // The stuck client gives up; its sender stops with it.
    stuck.abort();
    sender.join();
    stuck.close();
    r = write("PUT", "TR181/Value/Device.WiFi.SSID.2.", R"({"SSID":"after"})");
    EXPECT_EQ("Success", e2e::operStatus(r)) << r.body;
}

TEST_F(FrontConcurrent, HeadAsHttpSays) {
    start();
    const std::string cookie = "Cookie: Session=" + s.id + "\r\n";
    // HEAD: the headers of the answer, no body; the connection stays usable.
    // (From the session's own address: a session answers only there.)
    RawConn head = tlsFrom("127.0.0.1");
    ASSERT_TRUE(head.send("HEAD /api/v1/TR181/Value/Device.DeviceInfo. HTTP/1.1\r\nHost: d\r\n" +
                          cookie + "\r\nGET /api/v1/MethodList HTTP/1.1\r\nHost: d\r\n" + cookie +
                          "Connection: close\r\n\r\n"));
    std::string both = head.readUntilClose(10000);
    size_t end = both.find("\r\n\r\n");
    ASSERT_NE(std::string::npos, end) << both;
    EXPECT_EQ("HTTP/1.1 200 OK", statusLine(both));
    EXPECT_NE(std::string::npos, both.find("Content-Length: ")) << both;
    EXPECT_EQ(0u, both.compare(end + 4, 15, "HTTP/1.1 200 OK")) << both;
}
