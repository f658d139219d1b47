// Login, the failed-login lock and the session check of every other request,
// with the real daemon, store and HTTPS client.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <set>
#include <string>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

const char* const kUserAccount = "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.";
const char* const kHidden = "Invalid Username or Password";

class Login : public e2e::DeviceDaemon {};
class Sessions : public e2e::DeviceDaemon {};

}  // namespace

TEST_F(Login, GoodLoginAnswersCookieKeyAndMethodListAndReusesItsEntry) {
    launch();
    Client c(port);

    Session s;
    Reply r = c.login("admin", "1234abcd", &s);
    ASSERT_EQ(200, r.status) << r.body;
    EXPECT_TRUE(std::regex_search(
        r.headers,
        std::regex("Set-Cookie: Session=[A-Za-z0-9]{32}; path=/; HttpOnly; SameSite=Strict\r\n")))
        << r.headers;
    EXPECT_EQ("Success", operStatus(r));
    EXPECT_NE(std::string::npos, r.body.find("\"MethodList\": [ \"\\/api\\/v1\\/UserLogin\", "
                                             "\"\\/api\\/v1\\/UserLogout\""))
        << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"\\/api\\/v1\\/UserUpdate\"")) << r.body;
    EXPECT_EQ(0u, r.body.find("{ \"sessionkey\": ")) << r.body;

    // Logins in the same second get different ids from the one generator.
    std::set<std::string> ids{s.id};
    for (int i = 0; i < 2; ++i) {
        Session other;
        ASSERT_EQ(200, c.login("user", "user1234", &other).status);
        EXPECT_TRUE(ids.insert(other.id).second);
    }

    // The session passes the check: an unknown URI is answered 200.
    r = c.request("GET", "Unknown", "", &s);
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("{ \"oper_status\": \"Invalid URI\" }", r.body);

    // Logging in again with the cookie reuses the entry: same id, new key.
    Session again;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &again, &s).status);
    EXPECT_EQ(s.id, again.id);
    EXPECT_NE(s.key, again.key);
    EXPECT_EQ(403, c.request("PUT", e2e::withKey("Unknown", s), "{}", &s).status);
    EXPECT_EQ(200, c.request("PUT", e2e::withKey("Unknown", again), "{}", &again).status);

    // SIGUSR1 prints the table: three entries, the reused one once.
    // The dump is whole at its fourth rule: one before each entry, one after all.
    const std::string rule = "========================================\n";
    size_t rules = e2e::countOf(d.out(), rule);
    d.signal(SIGUSR1);
    ASSERT_TRUE(d.waitForCount(rule, rules + 4));
    std::string out = d.out();
    EXPECT_EQ(1u, e2e::countOf(out, "sessionID=" + s.id));
    EXPECT_EQ(3u, e2e::countOf(out, "addLoginEntry(): Add this account to login entry"));
    EXPECT_NE(std::string::npos, out.find("userName=admin\nremoteHost=127.0.0.1\nlocalHost="
                                          "127.0.0.1\ntimeout=0\n"));
    EXPECT_NE(std::string::npos, out.find("Current amount of login user are = 3, Maximum number of "
                                          "login account is 4"));
    EXPECT_NE(std::string::npos,
              d.err().find("Account: User 'admin' login from the host(127.0.0.1)."));
}

TEST_F(Login, EachFailureHasItsTextAndStatus) {
    ASSERT_EQ(0, root.wcfgctl(
                     {"set", "Device.X_OLVEX_LoginCfg.LogGp.1.Account.1.", "{\"Enabled\":false}"}));
    launch();
    Client c(port);

    // No body, or an empty one.
    Reply r = c.request("POST", "UserLogin");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("{ \"oper_status\": \"InitLogin\" }", r.body);
    EXPECT_EQ(std::string::npos, r.headers.find("Cache-Control"));
    r = c.request("POST", "UserLogin", "{\"username\":\"admin\"}",
                  nullptr);  // a body without a password
    EXPECT_EQ(kHidden, operStatus(r));

    // A wrong password, a disabled account: one text for both.
    r = c.login("user", "wrong-pass1");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(kHidden, operStatus(r));
    r = c.login("supervisor", "Sup3rvisor!");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(kHidden, operStatus(r));
    ASSERT_TRUE(d.waitForOutput(
        "Account: Enter an invalid password for User 'user' form the host(127.0.0.1)."));
    ASSERT_TRUE(d.waitForOutput("Account: Enter an invalid username form the host(127.0.0.1)."));

    // Session check: no cookie, an unknown id.
    r = c.request("GET", "Unknown");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("{ \"oper_status\": \"Invalid Session ID\" }", r.body);
    Session bogus{"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA", 0};
    r = c.request("GET", "Unknown", "", &bogus);
    EXPECT_EQ(504, r.status);
    EXPECT_EQ("{ \"oper_status\": \"Timeout\" }", r.body);
    ASSERT_TRUE(d.waitForOutput("uri=Unknown authResult=Timeout"));

    // "UserLogin?x=1" is not the login name: it is session-checked first.
    r = c.request("POST", "UserLogin?x=1", "{\"username\":\"admin\",\"password\":\"1234abcd\"}");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("Invalid Session ID", operStatus(r));

    // A live session used on another local address: the entry is not found
    // there ("Internal Error"); from another client address it ends
    // ("Invalid Session ID"), after which the first client finds nothing.
    Session s;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &s).status);
    Client otherLocal(port, "127.0.0.3", "127.0.0.1");
    r = otherLocal.request("GET", "Unknown", "", &s);
    EXPECT_EQ(500, r.status);
    EXPECT_EQ("Internal Error", operStatus(r));
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &s).status);
    Client otherClient(port, "127.0.0.1", "127.0.0.2");
    r = otherClient.request("GET", "Unknown", "", &s);
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("Invalid Session ID", operStatus(r));
    r = c.request("GET", "Unknown", "", &s);
    EXPECT_EQ(504, r.status);
    EXPECT_EQ("Timeout", operStatus(r));
}

// The user locked after three failures.  The lock's run-out is the retry
// table's, tested on a clock the unit test drives; here the lock lasts
// longer than any test.
class LoginLock : public e2e::DeviceDaemon {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, root.wcfgctl({"set", kUserAccount,
                                   "{\"AccountRetryTime\":3,\"AccountLockTime\":3600}"}));
        d.setEnv("WLOG_LEVEL", "7");
        launch();
    }
    size_t locks() const { return e2e::countOf(d.err(), "Locked User AfterLockTime="); }
};

TEST_F(LoginLock, RetriesLockTheUser) {
    Client c(port);

    Session s;
    ASSERT_EQ(200, c.login("user", "user1234", &s).status);

    // Two failures are only counted; the third locks.
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass1")));
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass2")));
    EXPECT_EQ(0u, locks());
    Reply r = c.login("user", "bad-pass3");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(kHidden, operStatus(r));
    EXPECT_EQ(1u, locks());

    // Locked: even the right password is refused; other users are not.
    r = c.login("user", "user1234");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(kHidden, operStatus(r));
    EXPECT_EQ(2u, locks());
    EXPECT_TRUE(d.waitForOutput("isRestriction: This account is locked"));
    Session admin;
    EXPECT_EQ(200, c.login("admin", "1234abcd", &admin).status);
    // A locked user's session requests are refused as well.
    EXPECT_EQ(401, c.request("GET", "Unknown", "", &s).status);
}

// A login that reuses its entry leaves the failures on record; a login that
// makes a new entry forgets them.
TEST_F(LoginLock, ANewEntryForgetsTheFailuresAReusedOneKeepsThem) {
    Client c(port);

    Session s;
    ASSERT_EQ(200, c.login("user", "user1234", &s).status);
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass1")));
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass2")));
    // A new entry (no cookie): two more failures do not lock.
    Session fresh;
    ASSERT_EQ(200, c.login("user", "user1234", &fresh).status);
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass3")));
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass4")));
    EXPECT_EQ(0u, locks());
    // The entry reused (its cookie): the next failure is the third.
    Reply r = c.login("user", "user1234", nullptr, &fresh);
    EXPECT_EQ(200, r.status) << r.body;
    EXPECT_EQ(kHidden, operStatus(c.login("user", "bad-pass5")));
    EXPECT_EQ(1u, locks());
    EXPECT_EQ(401, c.login("user", "user1234").status);
}

TEST_F(Login, UnknownNamesLockThePseudoUser) {
    d.setEnv("WLOG_LEVEL", "7");
    launch();
    Client c(port);
    Reply r = c.login("nobody", "whatever1");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(kHidden, operStatus(r));
    EXPECT_NE(std::string::npos, d.err().find("Locked User AfterLockTime=300"));
    r = c.login("someone", "whatever2");
    EXPECT_EQ(kHidden, operStatus(r));
    EXPECT_EQ(2u, e2e::countOf(d.err(), "Locked User AfterLockTime=")) << d.err();
    // Known users are not affected.
    EXPECT_EQ(200, c.login("admin", "1234abcd").status);
}

TEST_F(Login, MaximumNumberOfLoginAccounts) {
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 2));
    launch();
    Client c(port);
    Session a, b;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &a).status);
    ASSERT_EQ(200, c.login("user", "user1234", &b).status);
    // Full: also for a user that already has an entry.
    Reply r = c.login("admin", "1234abcd", nullptr, &a);
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("{ \"oper_status\": \"Maximum number of login account has reached\" }", r.body);
    EXPECT_NE(std::string::npos, r.headers.find("Cache-Control: no-cache"));
    // A logout makes room.
    r = c.request("POST", e2e::withKey("UserLogout", b), "", &b);
    EXPECT_EQ("Success", operStatus(r));
    EXPECT_EQ(200, c.login("supervisor", "Sup3rvisor!").status);
}

TEST_F(Sessions, KeysGuardModifyingRequestsAndLogoutEndsTheSession) {
    launch();
    Client c(port);
    Session s;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &s).status);

    // GET needs no key; PUT, POST and DELETE need the session's own.
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &s).status);
    for (const char* method : {"PUT", "POST", "DELETE"}) {
        Reply r = c.request(method, "Unknown", "{}", &s);
        EXPECT_EQ(403, r.status) << method;
        EXPECT_EQ("{ \"oper_status\": \"Invalid SessionKey\" }", r.body);
        Session wrong = s;
        wrong.key = s.key + 1;
        EXPECT_EQ(403, c.request(method, e2e::withKey("Unknown", wrong), "{}", &s).status);
        // The key plus 2^32 is another number, refused on every CPU (it once
        // passed where atoi wraps, on 64-bit CPUs).
        std::string alias =
            "Unknown?sessionkey=" + std::to_string(static_cast<long long>(s.key) + (1LL << 32));
        EXPECT_EQ(403, c.request(method, alias, "{}", &s).status) << alias;
        r = c.request(method, e2e::withKey("Unknown", s), "{}", &s);
        EXPECT_EQ(200, r.status) << method;
        EXPECT_EQ("Invalid URI", operStatus(r));
    }
    // The key belongs to the client's own entry: from another session it fails.
    Session other;
    ASSERT_EQ(200, c.login("user", "user1234", &other).status);
    Session mixed{other.id, s.key};
    if (other.key != s.key) {
        EXPECT_EQ(403, c.request("PUT", e2e::withKey("Unknown", mixed), "{}", &mixed).status);
    }

    // Logout only by POST.
    Reply r = c.request("GET", "UserLogout", "", &s);
    EXPECT_EQ("{ \"oper_status\": \"Success\" }", r.body);
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &s).status);
    EXPECT_EQ(403, c.request("POST", "UserLogout", "", &s).status);
    r = c.request("POST", e2e::withKey("UserLogout", s), "", &s);
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("Success", operStatus(r));
    ASSERT_TRUE(d.waitForOutput("Account: User 'admin' Session ID = " + s.id +
                                " : logout from the host(127.0.0.1)."));
    EXPECT_EQ(504, c.request("GET", "Unknown", "", &s).status);
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &other).status);
}

// The daemon's clock is the test's: a session ends when the test moves the
// clock past its period, and the test waits for that end, never for a time.
TEST_F(Sessions, IdleTimersFollowTheAccountAndTheDataModelNotice) {
    ASSERT_EQ(0, root.wcfgctl({"set", kUserAccount, "{\"AccountIdleTime\":60}"}));
    e2e::Uptime clock(root);
    d.setEnv("WLOG_LEVEL", "7");
    launch(&clock);
    Client c(port);
    // A period not yet over: a few ticks of the timer thread, in which a
    // timer that fired too early would end the session.  (A slow machine
    // only gives such a fault more time.)
    auto settle = [] { e2e::sleepMs(300); };
    auto ended = [&](const std::string& user, size_t n) {
        return d.waitForCount("session of '" + user + "' ended: timeout", n);
    };

    // 60 seconds are raised to 300; each request restarts the period.
    Session u;
    ASSERT_EQ(200, c.login("user", "user1234", &u).status);
    clock.advance(250);
    settle();
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &u).status);
    clock.advance(250);
    settle();
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &u).status);
    clock.advance(301);
    ASSERT_TRUE(ended("user", 1));
    EXPECT_EQ(504, c.request("GET", "Unknown", "", &u).status);

    // 900 seconds for the supervisor.
    Session sup;
    ASSERT_EQ(200, c.login("supervisor", "Sup3rvisor!", &sup).status);
    clock.advance(850);
    settle();
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &sup).status);

    // A changed idle time takes effect with the data-model notice, which
    // restarts every period.
    Session a;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &a).status);
    clock.advance(200);
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.",
                               "{\"AccountIdleTime\":600}"}));
    ASSERT_EQ(0, root.wcfgctl({"notify"}));
    ASSERT_TRUE(d.waitForOutput("data model change, update login timer."));
    clock.advance(500);
    settle();
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &a).status);
    clock.advance(601);
    ASSERT_TRUE(ended("admin", 1));
    ASSERT_TRUE(ended("supervisor", 1));
    EXPECT_EQ(504, c.request("GET", "Unknown", "", &a).status);
    EXPECT_EQ(504, c.request("GET", "Unknown", "", &sup).status);
    EXPECT_EQ(1u, e2e::countOf(d.err(), "session of 'user' ended"));
}

TEST_F(Sessions, Ipv6ClientsHaveSessionsOfTheirOwn) {
    launch();
    Client v6(port, "::1");
    Client v4(port);
    Session s;
    ASSERT_EQ(200, v6.login("admin", "1234abcd", &s).status);
    EXPECT_EQ(200, v6.request("GET", "Unknown", "", &s).status);
    // The IPv4 client is another client address and another local address.
    EXPECT_EQ(500, v4.request("GET", "Unknown", "", &s).status);
    d.signal(SIGUSR1);
    ASSERT_TRUE(d.waitForOutput("remoteHost=::1\nlocalHost=::1\n"));
}

TEST_F(Sessions, EveryWriteRenewsTheKeyAndRetiresTheOldOne) {
    launch();
    Client c(port);
    Session s;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &s).status);
    const std::string table = "TR181/Value/Device.NAT.PortMapping.";
    struct Step {
        const char* method;
        std::string uri, body;
    };
    const Step steps[] = {{"PUT", table + "1.", "{\"Description\":\"renewed\"}"},
                          {"POST", table, "{\"ExternalPort\":2222,\"InternalPort\":22}"},
                          {"DELETE", table + "2.", ""},
                          {"PUT", table + "1.", "{\"Description\":\"again\"}"}};
    for (const Step& step : steps) {
        Session before = s;
        Reply r = c.write(step.method, step.uri, step.body, s);
        ASSERT_EQ(200, r.status) << step.method;
        EXPECT_EQ("Success", operStatus(r)) << step.method;
        EXPECT_NE(before.key, s.key) << step.method;
        EXPECT_GE(s.key, 1);
        EXPECT_LE(s.key, 999999999);
        // The key before is spent, for every method.
        for (const char* method : {"PUT", "POST", "DELETE"}) {
            r = c.request(method, e2e::withKey(step.uri, before), step.body, &before);
            EXPECT_EQ(403, r.status) << step.method << " then " << method;
            EXPECT_EQ("Invalid SessionKey", operStatus(r));
        }
    }
    // The last key still works.
    EXPECT_EQ("Success", operStatus(c.write("PUT", table + "1.", "{\"Enable\":true}", s)));
}
