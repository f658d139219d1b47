// Access by trust domain and privilege, and the account update, with the
// real daemon, store and HTTPS client.
#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "harness.h"

using namespace e2e;

namespace {

const char* const kDomain1 = "Device.X_OLVEX_SP_TrustDomain.1.";
const char* const kDomain2 = "Device.X_OLVEX_SP_TrustDomain.2.";
const char* const kAdmin = "Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.";
const char* const kUser = "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.";

std::string updateBody(const std::string& ou, const std::string& op, const std::string& nu,
                       const std::string& np) {
    return "{\"old_username\":\"" + ou + "\",\"old_password\":\"" + op + "\",\"new_username\":\"" +
           nu + "\",\"new_password\":\"" + np + "\"}";
}

std::string domain(const std::string& addr, const std::string& prefix) {
    return "{\"IPAddress\":\"" + addr + "\",\"SubnetMask\":\"" + prefix + "\"}";
}

}  // namespace

TEST(Access, TrustDomainsAndPrivileges) {
    DeviceRoot root;
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
    // The admin's group may not use HTTP from outside the trust domains.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_LoginCfg.LogGp.2.",
                               "{\"GP_Privilege\":\"app,telnet,ssh\"}"}));
    Daemon d;
    int port = e2e::startDaemon(d, root);
    ASSERT_NE(0, port) << d.out() << d.err();
    Client v4(port);
    Client v6(port, "::1");

    // Defaults (192.168.1.0/24, fe80::/64): loopback callers are remote.
    Reply r = v4.login("admin", "1234abcd");
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("{ \"oper_status\": \"HTTP permission denied\" }", r.body);
    EXPECT_TRUE(
        d.waitForOutput("Account:'admin' HTTP permission denied.\n"
                        "cannot find account or auth fail\n"));
    EXPECT_EQ(400, v6.login("admin", "1234abcd").status);
    // A group with "http" lets remote callers in.
    EXPECT_EQ(200, v4.login("user", "user1234").status);

    // An IPv4 prefix covers 127.0.0.1 but never an IPv6 caller.
    ASSERT_EQ(0, root.wcfgctl({"set", kDomain1, domain("127.0.0.0", "8")}));
    EXPECT_EQ(200, v4.login("admin", "1234abcd").status);
    EXPECT_EQ(400, v6.login("admin", "1234abcd").status);

    // A dotted mask reads as 255: the rule matches every IPv4 address.
    ASSERT_EQ(0, root.wcfgctl({"set", kDomain1, domain("10.0.0.0", "255.255.255.0")}));
    EXPECT_EQ(200, v4.login("admin", "1234abcd").status);
    ASSERT_EQ(0, root.wcfgctl({"set", kDomain1, domain("192.168.1.0", "24")}));

    // An IPv6 prefix: ::/127 holds ::1.
    ASSERT_EQ(0, root.wcfgctl({"set", kDomain2, domain("::", "127")}));
    EXPECT_EQ(200, v6.login("admin", "1234abcd").status);

    // Without "httpd" an account is refused even from a trusted address.
    ASSERT_EQ(0, root.wcfgctl({"set", kAdmin, "{\"Privilege\":\"sshd,telnetd\"}"}));
    r = v6.login("admin", "1234abcd");
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("HTTP permission denied", operStatus(r));

    // A group without "app" may not log in at all (the medium group is
    // exempt from this test).
    ASSERT_EQ(0, root.wcfgctl(
                     {"set", "Device.X_OLVEX_LoginCfg.LogGp.3.", "{\"GP_Privilege\":\"http\"}"}));
    r = v4.login("user", "user1234");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("Invalid Username or Password", operStatus(r));
    EXPECT_EQ(0, d.stop());
}

TEST(Account, UpdateRejectionsAndARealChange) {
    DeviceRoot root;
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
    Daemon d;
    int port = e2e::startDaemon(d, root);
    ASSERT_NE(0, port) << d.out() << d.err();
    Client c(port);
    Session s;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &s).status);
    auto update = [&](const std::string& body) {
        return operStatus(c.request("POST", e2e::withKey("UserUpdate", s), body, &s));
    };
    auto body = updateBody;

    EXPECT_EQ("Request reject: lost parameters",
              update("{\"old_username\":\"admin\",\"old_password\":\"1234abcd\","
                     "\"new_username\":\"boss\"}"));
    EXPECT_EQ("Request reject: lost parameters", update("not json"));
    EXPECT_EQ("Request reject: lost parameters", update(""));
    EXPECT_EQ("Request reject: empty value", update(body("admin", "1234abcd", "boss", "")));
    EXPECT_EQ("Invalid Username or Password", update(body("admin", "nope", "boss", "n3wPassword")));
    EXPECT_EQ(
        "Password must be 8 to 63 printable characters with at least one letter and one digit",
        update(body("admin", "1234abcd", "boss", "short")));
    EXPECT_EQ("Username already exists", update(body("admin", "1234abcd", "user", "n3wPassword")));
    EXPECT_EQ("Invalid Username or Password",
              update(body("ghost", "1234abcd", "boss", "n3wPassword")));
    // The method is not checked: a GET reaches the editor too.
    EXPECT_EQ(
        "Invalid Username or Password",
        operStatus(c.request("GET", "UserUpdate", body("user", "x", "boss", "n3wPassword"), &s)));

    EXPECT_EQ("Success", update(body("admin", "1234abcd", "boss", "n3wPassword")));
    EXPECT_EQ(401, c.login("admin", "1234abcd").status);
    EXPECT_EQ(401, c.login("boss", "1234abcd").status);
    Session boss;
    EXPECT_EQ(200, c.login("boss", "n3wPassword", &boss).status);
    // The old session stays in the table, but no account has its name now.
    Reply r = c.request("GET", "Unknown", "", &s);
    EXPECT_EQ(504, r.status);
    EXPECT_EQ(200, c.request("GET", "Unknown", "", &boss).status);

    // The change is in the store: it survives a restart.
    EXPECT_EQ(0, d.stop());
    Daemon again;
    port = e2e::startDaemon(again, root);
    ASSERT_NE(0, port);
    EXPECT_EQ(200, Client(port).login("boss", "n3wPassword").status);
    EXPECT_EQ(0, again.stop());
}

// Failed logins are counted by name: a successful update leaves the record of
// the old name as it was, so failures made before it still count.
TEST(Account, AnUpdateKeepsTheFailedLoginsOfTheOldName) {
    DeviceRoot root;
    ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
    ASSERT_EQ(0, root.wcfgctl({"set", kUser, "{\"AccountRetryTime\":3,\"AccountLockTime\":300}"}));
    Daemon d;
    int port = e2e::startDaemon(d, root);
    ASSERT_NE(0, port) << d.out() << d.err();
    Client c(port);
    Session s;
    ASSERT_EQ(200, c.login("admin", "1234abcd", &s).status);
    auto update = [&](const std::string& body) {
        return operStatus(c.request("POST", e2e::withKey("UserUpdate", s), body, &s));
    };
    EXPECT_EQ(401, c.login("user", "bad-pass1").status);
    EXPECT_EQ(401, c.login("user", "bad-pass2").status);
    // A new password under the same name, then a rename and the name back.
    ASSERT_EQ("Success", update(updateBody("user", "user1234", "user", "us3r1234")));
    ASSERT_EQ("Success", update(updateBody("user", "us3r1234", "member", "m3mber1234")));
    ASSERT_EQ("Success", update(updateBody("member", "m3mber1234", "user", "us3r5678")));
    // The third failure of the name locks it: the right password is refused.
    EXPECT_EQ(401, c.login("user", "bad-pass3").status);
    Reply r = c.login("user", "us3r5678");
    EXPECT_EQ(401, r.status);
    EXPECT_EQ("Invalid Username or Password", operStatus(r));
    EXPECT_EQ(0, d.stop());
}
