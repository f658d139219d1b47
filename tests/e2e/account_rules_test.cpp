// The login configuration under attack from logged-in sessions: who may
// change which account, group and trust domain through the REST API, account
// secrets only through the account editor, the editor's lock, and names and
// passwords with an escaped NUL.  Real daemon, real store, HTTPS.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "client.h"
#include "harness.h"

using namespace e2e;

namespace {

const std::string kValue = "TR181/Value/";
const std::string kSupervisor = "Device.X_OLVEX_LoginCfg.LogGp.1.Account.1.";
const std::string kAdmin = "Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.";
const std::string kUser = "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.";
const char* const kRefused = "Invalid parameter value";

// Everything an attacker could aim at: accounts, groups, limits, trust
// domains and the password store, as wcfgctl and the file show them.
std::string loginState(const DeviceRoot& root) {
    std::string all;
    for (const char* target : {"RDM_OID_VX_LOG_CFG", "RDM_OID_VX_LOG_CFG_GP",
                               "RDM_OID_VX_LOG_CFG_GP_ACCOUNT", "RDM_OID_SP_TRUST_DOMAIN"}) {
        std::string out;
        EXPECT_EQ(0, root.wcfgctl({"get", target}, &out));
        all += out;
    }
    return all + root.read("/etc/shadow");
}

std::string batch(const std::string& elements) {
    return "{\"MultiObjects\": true, \"TR181_Objects\": [" + elements + "]}";
}

std::string update(const std::string& ou, const std::string& op, const std::string& nu,
                   const std::string& np) {
    return "{\"old_username\":\"" + ou + "\",\"old_password\":\"" + op + "\",\"new_username\":\"" +
           nu + "\",\"new_password\":\"" + np + "\"}";
}

class AccountRules : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
        port = e2e::startDaemon(d, root);
        ASSERT_NE(0, port) << d.out() << d.err();
    }
    void TearDown() override { EXPECT_EQ(0, d.stop()); }
    Session login(const std::string& user, const std::string& pw) {
        Session s;
        EXPECT_EQ(200, Client(port).login(user, pw, &s).status) << user;
        return s;
    }
    std::string put(Session& s, const std::string& path, const std::string& body) {
        return operStatus(Client(port).write("PUT", kValue + path, body, s));
    }
    std::string post(Session& s, const std::string& path, const std::string& body) {
        return operStatus(Client(port).write("POST", kValue + path, body, s));
    }
    std::string del(Session& s, const std::string& path) {
        return operStatus(Client(port).write("DELETE", kValue + path, "", s));
    }
    DeviceRoot root;
    Daemon d;
    int port = 0;
};

}  // namespace

TEST_F(AccountRules, LowSessionCannotTakeOverOtherAccountsByAnyRoute) {
    Session user = login("user", "user1234");
    const std::string before = loginState(root);

    // The single write that took the supervisor's account, and its variants.
    EXPECT_EQ(kRefused, put(user, kSupervisor, R"({"Enabled":true,"Password":"Takeover123"})"));
    EXPECT_EQ(kRefused, put(user, kAdmin, R"({"Enabled":true,"Password":"Takeover123"})"));
    EXPECT_EQ(kRefused, put(user, kSupervisor, R"({"Enabled":true,"Username":"mallory"})"));
    EXPECT_EQ(kRefused, put(user, kAdmin, R"({"Enabled":true,"Username":"mallory"})"));
    EXPECT_EQ(kRefused, put(user, kAdmin, R"({"Enabled":true,"Privilege":"httpd,sshd,telnetd"})"));
    EXPECT_EQ(kRefused, put(user, kAdmin, R"({"Enabled":false})"));
    EXPECT_EQ(kRefused, put(user, "Device.X_OLVEX_LoginCfg.LogGp.2.", R"({"GP_Privilege":"app"})"));
    EXPECT_EQ(kRefused, put(user, "Device.X_OLVEX_LoginCfg.LogGp.1.",
                            R"({"GP_Privilege":"app,http,https"})"));
    EXPECT_EQ(kRefused,
              put(user, "Device.X_OLVEX_LoginCfg.", R"({"MaximumLoginAccountNumber":1})"));
    EXPECT_EQ(kRefused, put(user, "Device.X_OLVEX_SP_TrustDomain.1.",
                            R"({"Enable":true,"IPAddress":"0.0.0.0","SubnetMask":"0"})"));
    // Its own account: no password by a plain write, no privileges.
    EXPECT_EQ(kRefused, put(user, kUser, R"({"Enabled":true,"Password":"Takeover123"})"));
    EXPECT_EQ(kRefused, put(user, kUser, R"({"Enabled":true,"Privilege":"httpd,sshd"})"));
    EXPECT_EQ(kRefused,
              put(user, "Device.X_OLVEX_LoginCfg.LogGp.3.", R"({"GP_Privilege":"app,http,ssh"})"));

    // A batch: every element refused on its own, and nothing applied.
    Reply r = Client(port).write(
        "PUT", kValue + "MultiObjects",
        batch(R"({"object_path":")" + kSupervisor +
              R"(","Enabled":true,"Password":"Takeover123"},)"
              R"({"object_path":")" +
              kAdmin +
              R"(","Enabled":true,"Username":"mallory"},)"
              R"({"object_path":")" +
              kUser +
              R"(","Enabled":true,"Privilege":"httpd,sshd"},)"
              R"({"object_path":"Device.X_OLVEX_SP_TrustDomain.2.","Enable":false})"),
        user);
    EXPECT_EQ("Success", operStatus(r));
    EXPECT_EQ(4u, e2e::countOf(r.body, "\"oper_status\": \"Invalid parameter value\""));

    // Adds and deletes in other groups and of trust domains, and an add
    // that would bring a password along.
    EXPECT_EQ(kRefused, post(user, "Device.X_OLVEX_LoginCfg.LogGp.1.Account.",
                             R"({"Username":"evil","Enabled":true})"));
    EXPECT_EQ(kRefused, post(user, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.",
                             R"({"Username":"evil","Password":"Evil12345"})"));
    EXPECT_EQ(kRefused, post(user, "Device.X_OLVEX_SP_TrustDomain.",
                             R"({"IPAddress":"127.0.0.0","SubnetMask":"8"})"));
    EXPECT_EQ(kRefused, del(user, kSupervisor));
    EXPECT_EQ(kRefused, del(user, kAdmin));
    EXPECT_EQ(kRefused, del(user, "Device.X_OLVEX_SP_TrustDomain.1."));

    EXPECT_EQ(before, loginState(root));
    EXPECT_EQ(401, Client(port).login("supervisor", "Takeover123").status);
    EXPECT_EQ(401, Client(port).login("admin", "Takeover123").status);
    login("supervisor", "Sup3rvisor!");
    login("admin", "1234abcd");
    struct stat st;
    ASSERT_EQ(0, stat(root.path("/etc/shadow").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
}

TEST_F(AccountRules, AdminChangesItsOwnAndLowerGroupsOnly) {
    Session admin = login("admin", "1234abcd");
    EXPECT_EQ("Success", put(admin, kAdmin, R"({"AccountIdleTime":600})"));
    EXPECT_EQ("Success", put(admin, kUser, R"({"AccountLockTime":120,"Enabled":true})"));
    // A name, once given, changes only through the account editor: failed
    // logins are counted by name.
    EXPECT_EQ(kRefused, put(admin, kUser, R"({"Username":"guest"})"));
    EXPECT_EQ(kRefused, put(admin, kUser, R"({"Username":"admin"})"));
    login("user", "user1234");
    // Written back unchanged, a privilege is no change; changed, it is refused.
    Reply r = Client(port).request("GET", kValue + kAdmin, "", &admin);
    ASSERT_EQ("Success", operStatus(r));
    EXPECT_EQ("Success", put(admin, kAdmin, R"({"Enabled":true,"Privilege":"httpd,sshd"})"));
    EXPECT_EQ(kRefused, put(admin, kAdmin, R"({"Privilege":"httpd,sshd,telnetd"})"));
    EXPECT_EQ(kRefused, put(admin, kSupervisor, R"({"AccountIdleTime":600})"));
    EXPECT_EQ(kRefused,
              put(admin, "Device.X_OLVEX_LoginCfg.", R"({"MaximumLoginAccountNumber":1})"));
    // A new account in a lower group, without a password, and away again;
    // its name follows the editor's rules: valid and unique.
    EXPECT_EQ(kRefused, post(admin, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.",
                             R"({"Username":"admin","Enabled":true})"));
    EXPECT_EQ(kRefused, post(admin, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.",
                             R"({"Username":"bad name","Enabled":true})"));
    EXPECT_EQ(kRefused, post(admin, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.",
                             R"({"Username":"Invalid_Account","Enabled":true})"));
    r = Client(port).write("POST", kValue + "Device.X_OLVEX_LoginCfg.LogGp.3.Account.",
                           R"({"Username":"kid","Enabled":true})", admin);
    ASSERT_EQ("Success", operStatus(r));
    EXPECT_NE(std::string::npos, r.body.find("\"Username\": \"kid\""));
    EXPECT_EQ(401, Client(port).login("kid", "").status);
    EXPECT_EQ(kRefused,
              put(admin, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.5.", R"({"Username":"kid2"})"));
    EXPECT_EQ("Success", del(admin, "Device.X_OLVEX_LoginCfg.LogGp.3.Account.5."));
    EXPECT_EQ(kRefused, post(admin, "Device.X_OLVEX_LoginCfg.LogGp.1.Account.", "{}"));

    // The supervisor reaches every group, privileges and trust domains, but
    // passwords only through the editor.
    Session sup = login("supervisor", "Sup3rvisor!");
    EXPECT_EQ("Success", put(sup, kAdmin, R"({"Privilege":"httpd,sshd,telnetd"})"));
    EXPECT_EQ("Success",
              put(sup, "Device.X_OLVEX_LoginCfg.LogGp.3.", R"({"GP_Privilege":"app,http,ssh"})"));
    EXPECT_EQ("Success", put(sup, "Device.X_OLVEX_SP_TrustDomain.2.", R"({"SubnetMask":"48"})"));
    EXPECT_EQ(kRefused, put(sup, kAdmin, R"({"Enabled":true,"Password":"Takeover123"})"));
    EXPECT_EQ(kRefused, put(sup, kSupervisor, R"({"Enabled":true,"Password":"Takeover123"})"));
    login("admin", "1234abcd");
}

TEST_F(AccountRules, EditorLocksWrongOldPasswordsAndHidesWhichNamesExist) {
    // A lock longer than the test (its run-out is the retry table's, tested
    // on a clock the unit test drives).
    ASSERT_EQ(0, root.wcfgctl({"set", kUser, R"({"AccountLockTime":3600})"}));
    Session admin = login("admin", "1234abcd");
    Client c(port);
    auto edit = [&](const std::string& body) {
        return c.request("POST", e2e::withKey("UserUpdate", admin), body, &admin);
    };
    // An unknown user and a wrong password: the same answer.
    Reply unknown = edit(update("ghost", "user1234", "ghost2", "n3wPassword"));
    Reply wrong = edit(update("user", "wrong1234", "user", "n3wPassword"));
    EXPECT_EQ(unknown.status, wrong.status);
    EXPECT_EQ(unknown.body, wrong.body);
    EXPECT_EQ("Invalid Username or Password", operStatus(wrong));
    // Two more wrong passwords lock the account (retry count 3): now even the
    // right one is refused, by the editor and at login.
    edit(update("user", "wrong1234", "user", "n3wPassword"));
    edit(update("user", "wrong1234", "user", "n3wPassword"));
    EXPECT_EQ(wrong.body, edit(update("user", "user1234", "user", "n3wPassword")).body);
    EXPECT_EQ(401, c.login("user", "user1234").status);
}

TEST_F(AccountRules, EscapedNulMatchesNoAccount) {
    Client c(port);
    EXPECT_EQ(401, c.login("admin", "1234abcd\\u0000junk").status);
    EXPECT_EQ(401, c.login("admin\\u0000evil", "1234abcd").status);
    Session admin = login("admin", "1234abcd");
    Reply r = c.request("POST", e2e::withKey("UserUpdate", admin),
                        update("admin", "1234abcd\\u0000x", "admin", "n3wPassword"), &admin);
    EXPECT_EQ("Invalid Username or Password", operStatus(r));
    r = c.request("POST", e2e::withKey("UserUpdate", admin),
                  update("admin", "1234abcd", "admin", "n3wPass\\u0000word1"), &admin);
    EXPECT_EQ(0u, operStatus(r).find("Password must be"));
    // No value in the store holds one either.
    EXPECT_EQ(kRefused, put(admin, "Device.WiFi.SSID.1.", R"({"SSID":"home\u0000net"})"));
    login("admin", "1234abcd");
}
