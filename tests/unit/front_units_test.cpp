// Algorithms of the HTTPS front: UTF-8 well-formedness at the boundaries of
// every sequence length, cutting text without splitting a character, the
// query and cookie text, connection admission (ceilings and the choice of
// the connection that yields), the worker pool's growth and ceiling, and the
// discovery answer's layout and cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "daemon/http_limits.h"
#include "discover/whttpd_discover.h"
#include "http/conn_registry.h"
#include "http/http_text.h"
#include "http/worker_pool.h"
#include "base/utf8.h"

TEST(Utf8Check, EveryBoundaryOfEverySequenceLength) {
    struct Case {
        std::string text;
        bool valid;
    };
    const Case cases[] = {
        {"", true},
        {"plain ASCII \x7f", true},
        {"\xc2\x80", true},           // U+0080
        {"\xdf\xbf", true},           // U+07FF
        {"\xe0\xa0\x80", true},       // U+0800
        {"\xef\xbf\xbf", true},       // U+FFFF
        {"\xf0\x90\x80\x80", true},   // U+10000
        {"\xf4\x8f\xbf\xbf", true},   // U+10FFFF
        {"\xed\x9f\xbf", true},       // U+D7FF, before the surrogates
        {"\xee\x80\x80", true},       // U+E000, after them
        {"\xc0\x80", false},          // overlong NUL
        {"\xc1\xbf", false},          // overlong
        {"\xe0\x9f\xbf", false},      // overlong three-byte
        {"\xf0\x8f\xbf\xbf", false},  // overlong four-byte
        {"\xed\xa0\x80", false},      // U+D800
        {"\xed\xbf\xbf", false},      // U+DFFF
        {"\xf4\x90\x80\x80", false},  // U+110000
        {"\xf5\x80\x80\x80", false},
        {"\xff", false},
        {"\x80", false},
        {"a\xc2", false},  // cut short
        {"\xe2\x82", false},
        {"\xf0\x9f\x93", false},
        {"\xe2\x28\xa1", false},  // bad second byte
        {"\xe2\x82\x28", false},  // bad third byte
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.valid, utf8Valid(c.text)) << testing::PrintToString(c.text);
}

TEST(Utf8Check, CutsEndWhereACharacterEnds) {
    const std::string text =
        "ab\xc3\xa9"
        "c\xf0\x9f\x93\xb6";  // a b é c 📶
    EXPECT_EQ(2u, utf8CutLength(text, 3));
    EXPECT_EQ(4u, utf8CutLength(text, 4));
    EXPECT_EQ(5u, utf8CutLength(text, 5));
    EXPECT_EQ(5u, utf8CutLength(text, 8));
    EXPECT_EQ(9u, utf8CutLength(text, 9));
    EXPECT_EQ(9u, utf8CutLength(text, 100));
    for (size_t max = 0; max <= text.size(); ++max)
        EXPECT_TRUE(utf8Valid(text.substr(0, utf8CutLength(text, max)))) << max;
}

TEST(HttpText, QueryPairsAsTheListenerSeesThem) {
    HttpPairs q = httpParseQuery("/api/v1/Reboot?device=a%20b&&=x&flag&sessionkey=12&device=2");
    ASSERT_EQ(4u, q.size());
    EXPECT_STREQ("a b", httpFindPair(q, "device"));  // the first of repeated names
    EXPECT_STREQ("", httpFindPair(q, "flag"));
    EXPECT_STREQ("12", httpFindPair(q, "sessionkey"));
    EXPECT_EQ(nullptr, httpFindPair(q, "missing"));
    EXPECT_TRUE(httpParseQuery("/no/query").empty());
    // Escapes that are not two hex digits stay as they are, even at the end.
    EXPECT_EQ("%zz%4", httpPercentDecode("%zz%4"));
    EXPECT_EQ("%", httpPercentDecode("%"));
    EXPECT_EQ(std::string("a\0b", 3), httpPercentDecode("a%00b"));
}

TEST(HttpText, CookiesSplitTrimmedAndUnquoted) {
    HttpPairs c;
    httpParseCookies(" a=1;Session=\"abc\" ; =skip; novalue; b= 2 ;", c);
    ASSERT_EQ(3u, c.size());
    EXPECT_STREQ("abc", httpFindPair(c, "Session"));
    EXPECT_STREQ(" 2", httpFindPair(c, "b"));
    httpParseCookies("Session=second", c);
    EXPECT_STREQ("abc", httpFindPair(c, "Session"));  // the first header wins
    HttpPairs q;
    httpParseCookies("x=\"", q);
    EXPECT_STREQ("\"", httpFindPair(q, "x"));
}

TEST(ConnAdmission, AnAddressAtItsCeilingYieldsItsOwnIdleConnection) {
    using A = ConnRegistry::Admit;
    using P = ConnRegistry::Phase;
    ConnRegistry r;
    r.setLimits(10, 2);
    std::vector<uint64_t> evicted;
    auto evictOf = [&](uint64_t id) { return [&evicted, id](bool) { evicted.push_back(id); }; };
    EXPECT_EQ(A::Yes, r.admit(1, "a", evictOf(1)));
    EXPECT_EQ(A::Yes, r.admit(2, "a", evictOf(2)));
    r.setPhase(1, P::Reading);
    r.setPhase(2, P::Handling);
    EXPECT_EQ(A::AddressFull, r.admit(3, "a", evictOf(3)));  // none idle
    EXPECT_EQ(A::Yes, r.admit(4, "b", evictOf(4)));          // another address
    r.setPhase(2, P::Idle);
    EXPECT_EQ(A::Yes, r.admit(5, "a", evictOf(5)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);
    // A closing connection no longer counts against the address.
    r.setClosing(5);
    EXPECT_EQ(A::Yes, r.admit(6, "a", evictOf(6)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);
    r.remove(2);
    r.remove(2);  // twice: harmless
    EXPECT_EQ(4, r.count());
}

TEST(ConnAdmission, AtTheTotalCeilingTheHeaviestAddressYields) {
    using A = ConnRegistry::Admit;
    using P = ConnRegistry::Phase;
    ConnRegistry r;
    r.setLimits(4, 3);
    std::vector<uint64_t> evicted;
    auto evictOf = [&](uint64_t id) { return [&evicted, id](bool) { evicted.push_back(id); }; };
    EXPECT_EQ(A::Yes, r.admit(1, "b", evictOf(1)));  // the oldest, but alone
    EXPECT_EQ(A::Yes, r.admit(2, "a", evictOf(2)));
    EXPECT_EQ(A::Yes, r.admit(3, "a", evictOf(3)));
    EXPECT_EQ(A::Yes, r.admit(4, "c", evictOf(4)));
    EXPECT_EQ(A::Yes, r.admit(5, "d", evictOf(5)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);  // a's longest-waiting
    r.remove(2);
    // Nothing idle, every address with one reader: nobody yields.
    for (uint64_t id : {1, 3, 4, 5})
        r.setPhase(id, P::Reading);
    EXPECT_EQ(A::Full, r.admit(6, "e", evictOf(6)));
    EXPECT_EQ(A::Full, r.admit(7, "a", evictOf(7)));
    // An address with two readers gives up its longest-reading one.
    r.setClosing(4);
    r.remove(4);
    EXPECT_EQ(A::Yes, r.admit(8, "a", evictOf(8)));
    r.setPhase(8, P::Reading);
    EXPECT_EQ(A::Yes, r.admit(9, "f", evictOf(9)));
    EXPECT_EQ((std::vector<uint64_t>{2, 3}), evicted);
    // Sockets still closing count, a quarter over the ceiling at most; a
    // refusal asks nobody to close.
    EXPECT_EQ(A::Full, r.admit(10, "g", evictOf(10)));  // 1, 3, 5, 8, 9: five sockets
    EXPECT_EQ((std::vector<uint64_t>{2, 3}), evicted);
    r.remove(3);
    EXPECT_EQ(A::Yes, r.admit(11, "g", evictOf(11)));
    EXPECT_EQ((std::vector<uint64_t>{2, 3, 9}), evicted);  // 9 waits idle
}

TEST(ConnAdmission, AnIpv6ClientCountsAsItsPrefix) {
    EXPECT_EQ(connAddressKey("2001:db8:1:2:aaaa::1"), connAddressKey("2001:db8:1:2:bbbb::9"));
    EXPECT_NE(connAddressKey("2001:db8:1:2::1"), connAddressKey("2001:db8:1:3::1"));
    EXPECT_EQ("2001:db8:1:2::/64", connAddressKey("2001:db8:1:2:ffff:ffff:ffff:ffff"));
    EXPECT_EQ("192.168.1.20", connAddressKey("192.168.1.20"));
    EXPECT_EQ("fe80::/64", connAddressKey("fe80::1"));
}

TEST(WorkerPoolConcurrent, GrowsForLongJobsUpToItsCeilingAndRefusesBeyondItsQueue) {
    WorkerPoolConfig cfg;
    cfg.minThreads = 1;
    cfg.maxThreads = 3;
    cfg.maxQueued = 2;
    cfg.idleExitMs = 50;
    WorkerPool pool(cfg);
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    std::atomic<int> running{0}, done{0};
    struct Release {
        std::mutex& m;
        std::condition_variable& cv;
        bool& release;
        ~Release() {
            {
                std::lock_guard<std::mutex> lock(m);
                release = true;
            }
            cv.notify_all();
        }
    } guard{m, cv, release};  // a failed assertion still lets the jobs go
    auto longJob = [&] {
        ++running;
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return release; });
        ++done;
    };
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(pool.submit(longJob));
    while (running < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(3, pool.threadCount());   // one per long job, up to the ceiling
    EXPECT_TRUE(pool.submit(longJob));  // queued
    EXPECT_TRUE(pool.submit(longJob));
    EXPECT_FALSE(pool.submit(longJob));  // the queue is full
    EXPECT_EQ(3, pool.threadCount());
    {
        std::lock_guard<std::mutex> lock(m);
        release = true;
    }
    cv.notify_all();
    while (done < 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    // The threads above the floor leave once idle.
    while (pool.threadCount() > 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(1, pool.threadCount());
    pool.stop(5000);
    EXPECT_EQ(0, pool.threadCount());
    EXPECT_FALSE(pool.submit([] {}));
}

TEST(HttpLimitText, NamesValuesAndRefusals) {
    WhttpdLimits limits;
    CgHttpLimits& l = limits.http;
    std::string error;
    ASSERT_TRUE(whttpdApplyLimitText(
        "connections=512,request_ms=2500,,body_bytes=1024,events_total=3,events_keepalive_ms=50",
        limits, error));
    EXPECT_EQ(512, l.maxConnections);
    EXPECT_EQ(2500, l.requestTimeoutMs);
    EXPECT_EQ(1024u, l.maxBodyBytes);
    EXPECT_EQ(3, limits.events.total);
    EXPECT_EQ(50, limits.events.keepAliveMs);
    EXPECT_EQ(4, limits.events.perSession);
    EXPECT_TRUE(whttpdApplyLimitText(nullptr, limits, error));
    const char* const refused[] = {
        "connection=5",        "idle_ms=", "idle_ms=0", "idle_ms=-3", "idle_ms=12x",
        "idle_ms=99999999999", "=5"};
    for (const char* text : refused) {
        error.clear();
        EXPECT_FALSE(whttpdApplyLimitText(text, limits, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_EQ(512, l.maxConnections) << text;  // nothing taken from a refused text
    }
}

TEST(DiscoveryAnswer, HeaderAndTextUpTo4095Characters) {
    unsigned char out[kDiscoverAnswerMax];
    const std::string small = "{\"ApiName\":\"x\"}";
    ASSERT_EQ(small.size(), whttpDiscoverBuildAnswer(small, out));
    EXPECT_EQ(1, out[0]);
    EXPECT_EQ(2, out[1]);
    EXPECT_EQ(small.size(), static_cast<size_t>(out[2] << 8 | out[3]));  // big-endian
    EXPECT_EQ(small, std::string(reinterpret_cast<char*>(out + 4), small.size()));
    // A longer text is cut at 4095 characters, never inside a character.
    for (size_t size : {4095u, 4096u, 5000u}) {
        std::string big(size, 'a');
        EXPECT_EQ(std::min<size_t>(size, 4095), whttpDiscoverBuildAnswer(big, out)) << size;
        EXPECT_EQ(std::min<size_t>(size, 4095), static_cast<size_t>(out[2] << 8 | out[3]));
    }
    std::string wide = std::string(4094, 'a') + "\xc3\xa9";  // the last character straddles
    EXPECT_EQ(4094u, whttpDiscoverBuildAnswer(wide, out));
}
