// Many clients log in, make requests and log out at once while idle timers
// fire, the data-model notice re-arms timers and SIGUSR1 dumps the table.
// Run under AddressSanitizer and ThreadSanitizer builds of the daemon, this
// finds races and use-after-free in the session table.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "harness.h"

using namespace e2e;

namespace {

const std::string kRule = "========================================\n";

// Whether the session table is empty, from two dumps (SIGUSR1) in turn: once
// the second has begun the first is whole, and an entry of the first would
// stand between their first two rules.
bool tableEmpty(Daemon& d) {
    std::string seen = d.out();
    size_t before = seen.size(), rules = countOf(seen, kRule);
    d.signal(SIGUSR1);
    if (!d.waitForCount(kRule, rules + 1))
        return false;
    d.signal(SIGUSR1);
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
        std::string dumps = d.out().substr(before);
        if (countOf(dumps, kRule) >= 2)
            return dumps.find("userName=") == std::string::npos ||
                   dumps.find("userName=") > dumps.find(kRule, dumps.find(kRule) + 1);
        e2e::sleepMs(20);
    }
    return false;
}

}  // namespace

TEST(SessionConcurrent, ManyClientsWhileIdleTimersFire) {
    DeviceRoot root;
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
    e2e::Uptime clock(root);
    Daemon d;
    int port = e2e::startDaemon(d, root, &clock);
    ASSERT_NE(0, port) << d.out() << d.err();

    struct Account {
        const char* user;
        const char* password;
    };
    const Account accounts[] = {
        {"admin", "1234abcd"}, {"user", "user1234"}, {"supervisor", "Sup3rvisor!"}};
    const int kWorkers = 6, kRounds = 20;
    std::atomic<int> unexpected{0}, logins{0}, timeouts{0};
    std::atomic<bool> done{false};

    auto worker = [&](int n) {
        // Half of the clients come from a second loopback address.
        Client c(port, "127.0.0.1", n % 2 ? "127.0.0.2" : "127.0.0.1");
        const std::set<long> sessionAnswers{200, 500, 504};
        for (int i = 0; i < kRounds; ++i) {
            const Account& a = accounts[(n + i) % 3];
            Session s;
            Reply r = c.login(a.user, a.password, &s);
            if (r.status != 200) {
                ++unexpected;
                continue;
            }
            ++logins;
            Reply get = c.request("GET", "Unknown", "", &s);
            Reply put = c.request("PUT", e2e::withKey("Unknown", s), "{}", &s);
            Reply out = c.request("POST", e2e::withKey("UserLogout", s), "", &s);
            for (const Reply* x : {&get, &put, &out}) {
                if (!sessionAnswers.count(x->status))
                    ++unexpected;
                if (x->status == 504)
                    ++timeouts;
            }
        }
    };

    std::vector<std::thread> threads;
    for (int n = 0; n < kWorkers; ++n)
        threads.emplace_back(worker, n);
    // Meanwhile: move the clock past every idle period, re-arm all timers,
    // dump the table.
    std::thread driver([&] {
        int step = 0;
        while (!done) {
            e2e::sleepMs(40);
            clock.advance(step % 3 == 0 ? 301 : 60);
            if (step % 5 == 0)
                d.signal(SIGUSR1);
            if (step % 7 == 0)
                root.wcfgctl({"notify"});
            ++step;
        }
    });
    for (auto& t : threads)
        t.join();
    done = true;
    driver.join();

    EXPECT_EQ(0, unexpected.load());
    EXPECT_EQ(kWorkers * kRounds, logins.load());

    // Whatever is left expires; the table ends empty (the timer thread takes
    // its time to see the clock: the table is looked at until it is).
    clock.advance(1000);
    bool empty = false;
    for (int i = 0; i < 100 && !empty; ++i)
        empty = tableEmpty(d);
    EXPECT_TRUE(empty) << d.out().substr(d.out().size() > 2000 ? d.out().size() - 2000 : 0);

    EXPECT_EQ(0, d.stop());
    std::string err = d.err();
    EXPECT_EQ(std::string::npos, err.find("Sanitizer")) << err.substr(0, 4000);
    std::cout << "logins " << logins << ", requests that found their session expired " << timeouts
              << "\n";
}
