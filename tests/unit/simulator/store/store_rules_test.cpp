// The configuration store's guards and its image: who may write the login
// configuration, secrets only for the account editor, account names, text
// without NUL; writes of another process seen at once, also when that process
// died between its commit and the end of its write; reads beside writes.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/store/generation.h"
#include "simulator/store/store.h"
#include "device/wcfg.h"
#include "unit/simulator/store/store_helpers.h"
#include "unit/test_root.h"

namespace {

int set(const char* path, const char* json) {
    return storeSet(path, json);
}

std::string get(const char* path, const char* key) {
    return storeGet(path, key);
}

std::string readFile(const std::string& file) {
    std::ifstream in(file);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// `wcfgctl set` in another process, in this program's device root; its exit
// status.
int wcfgctlSet(const char* path, const char* json) {
    pid_t child = fork();
    if (child == 0) {
        execl(WCFGCTL_BIN, "wcfgctl", "set", path, json, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char* const kSup = "Device.X_OLVEX_LoginCfg.LogGp.1.Account.1.";
const char* const kAdmin = "Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.";
const char* const kUser = "Device.X_OLVEX_LoginCfg.LogGp.3.Account.1.";

class StoreRules : public StoreFixture {};

}  // namespace

TEST_F(StoreRules, SessionsReachTheirOwnAndLowerGroups) {
    WcfgCallerScope low(3);
    EXPECT_EQ(WCFG_REQUEST_REJECT, set(kSup, R"({"Enabled": false})"));
    EXPECT_EQ(WCFG_REQUEST_REJECT, set(kAdmin, R"({"AccountIdleTime": 900})"));
    EXPECT_EQ(0, set(kUser, R"({"AccountIdleTime": 900})"));
    EXPECT_EQ(WCFG_REQUEST_REJECT, set(kUser, R"({"Privilege": "httpd,sshd"})"));
    EXPECT_EQ(0, set(kUser, R"({"Privilege": "httpd", "Enabled": true})"));  // unchanged
    EXPECT_EQ(WCFG_REQUEST_REJECT,
              set("Device.X_OLVEX_LoginCfg.LogGp.3.", R"({"GP_Privilege": "app,http,ssh"})"));
    EXPECT_EQ(WCFG_REQUEST_REJECT, set("Device.X_OLVEX_SP_TrustDomain.1.", R"({"Enable": false})"));
    EXPECT_EQ(WCFG_REQUEST_REJECT, storeAdd("Device.X_OLVEX_LoginCfg.LogGp.2.Account."));
    EXPECT_EQ(WCFG_REQUEST_REJECT, storeAdd("Device.X_OLVEX_SP_TrustDomain."));
    EXPECT_EQ(WCFG_REQUEST_REJECT, storeDel(kAdmin));
    objIndex_t added;
    ASSERT_EQ(0, storeAdd("Device.X_OLVEX_LoginCfg.LogGp.3.Account.", &added));
    EXPECT_EQ(0, storeDel("Device.X_OLVEX_LoginCfg.LogGp.3.Account.2."));
    EXPECT_EQ("900", get(kUser, "AccountIdleTime"));
    EXPECT_EQ("\"httpd,sshd\"", get(kAdmin, "Privilege"));

    // A client thread before its session is known: nothing guarded at all,
    // everything else as usual.
    WcfgCallerScope none(WCFG_CALLER_NONE);
    EXPECT_EQ(WCFG_REQUEST_REJECT, set(kUser, R"({"AccountIdleTime": 600})"));
    EXPECT_EQ(WCFG_REQUEST_REJECT,
              set("Device.X_OLVEX_LoginCfg.", R"({"MaximumLoginAccountNumber": 9})"));
    EXPECT_EQ(0, set("Device.NAT.PortMapping.1.", R"({"Description": "ok"})"));

    WcfgCallerScope sup(1);
    EXPECT_EQ(0, set(kAdmin, R"({"Privilege": "httpd"})"));
    EXPECT_EQ(0, set("Device.X_OLVEX_SP_TrustDomain.1.", R"({"SubnetMask": "16"})"));
    EXPECT_EQ(0, set("Device.X_OLVEX_LoginCfg.", R"({"MaximumLoginAccountNumber": 9})"));
}

TEST_F(StoreRules, SecretsOnlyThroughTheEditorAndNamesStayUnique) {
    std::string shadowFile = platformPath("/etc/shadow");
    std::string before = readFile(shadowFile);
    // Not for the supervisor, not for the device's own plain writes.
    for (int caller : {1, int{WCFG_CALLER_DEVICE}}) {
        WcfgCallerScope who(caller);
        EXPECT_EQ(WCFG_REQUEST_REJECT, set(kAdmin, R"({"Password": "Takeover123"})"));
        EXPECT_EQ(WCFG_REQUEST_REJECT, set(kAdmin, R"({"shadow": "admin:$6$x$y:1:::::"})"));
    }
    EXPECT_EQ(0, set(kAdmin, R"({"Password": ""})"));  // no change
    EXPECT_EQ(before, readFile(shadowFile));

    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId(kAdmin, &iid);
    JsonPtr pw(json_tokener_parse(R"({"Password": "n3wSecret"})"));
    wcfg::WriteMode editor;
    editor.secrets = true;
    ASSERT_EQ(0, wcfg::Store::instance().set(oid, &iid, pw.get(), editor));
    EXPECT_EQ("\"\"", get(kAdmin, "Password"));
    EXPECT_EQ(0, vxUtilAuthUserAccount("admin", "n3wSecret"));
    EXPECT_EQ(2, vxUtilAuthUserAccount("admin", "1234abcd"));
    struct stat st;
    ASSERT_EQ(0, stat(shadowFile.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);

    EXPECT_EQ(WCFG_REQUEST_REJECT, set(kUser, R"({"Username": "admin"})"));
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE, set(kUser, R"({"Username": "no spaces"})"));
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE, set(kUser, R"({"Username": ""})"));
    EXPECT_EQ(0, set(kUser, R"({"Username": "guest"})"));
    EXPECT_EQ(0, vxUtilAuthUserAccount("guest", "user1234"));
    EXPECT_EQ(1, vxUtilAuthUserAccount("user", "user1234"));
    // Text never holds a NUL.
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE, set("Device.WiFi.SSID.1.", R"({"SSID": "a\u0000b"})"));
}

TEST_F(StoreRules, WriteOfAnotherProcessIsSeenAtOnce) {
    const char* pm = "Device.NAT.PortMapping.1.";
    EXPECT_EQ("\"web\"", get(pm, "Description"));  // the image is loaded
    ASSERT_EQ(0, wcfgctlSet(pm, R"({"Description": "from-wcfgctl"})"));
    EXPECT_EQ("\"from-wcfgctl\"", get(pm, "Description"));
}

TEST_F(StoreRules, WriterKilledBeforeItsEndIsStillSeen) {
    const char* pm = "Device.NAT.PortMapping.1.";
    EXPECT_EQ("\"web\"", get(pm, "Description"));
    // Another process begins a write, commits and dies before it can end it:
    // the generation stays odd.
    wcfg::Generation gen;
    gen.open(platformPath("/var/run/wcfg/config.gen"));
    ASSERT_TRUE(gen.isShared());
    uint32_t odd = gen.beginWrite();
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(platformPath("/data/wcfg/config.db").c_str(), &db));
    sqlite3_busy_timeout(db, 5000);
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId(pm, &iid);
    std::string sql =
        "BEGIN IMMEDIATE;"
        "UPDATE instance SET vals=json_set(vals, '$.Description', 'died') "
        "WHERE oid=" +
        std::to_string(oid) + " AND key=" + std::to_string(wcfg::keyOf(iid, 1)) +
        ";"
        "UPDATE meta SET value=value+1 WHERE name='version'; COMMIT;";
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(db);
    EXPECT_EQ(odd, gen.load());
    EXPECT_EQ("\"died\"", get(pm, "Description"));
    // The next write ends the odd spell.
    EXPECT_EQ(0, set(pm, R"({"Description": "next"})"));
    EXPECT_EQ(0u, gen.load() & 1);
    EXPECT_EQ("\"next\"", get(pm, "Description"));
}

TEST_F(StoreRules, CountsWrittenBackUnchangedAreAccepted) {
    EXPECT_EQ("1", get("Device.NAT.", "PortMappingNumberOfEntries"));
    EXPECT_EQ(0, set("Device.NAT.", R"({"PortMappingNumberOfEntries": 1})"));
    EXPECT_EQ(WCFG_SET_READ_ONLY_PARAM, set("Device.NAT.", R"({"PortMappingNumberOfEntries": 5})"));
    ASSERT_EQ(0, storeAdd("Device.NAT.PortMapping."));
    EXPECT_EQ("2", get("Device.NAT.", "PortMappingNumberOfEntries"));
    EXPECT_EQ(0, set("Device.NAT.", R"({"PortMappingNumberOfEntries": 2})"));
}

TEST_F(StoreRules, NamesGivenOnceAndLockedEdits) {
    {
        WcfgCallerScope admin(2);
        EXPECT_EQ(WCFG_REQUEST_REJECT, set(kUser, R"({"Username": "guest"})"));
        objIndex_t added;
        ASSERT_EQ(0, storeAdd("Device.X_OLVEX_LoginCfg.LogGp.3.Account.", &added));
        std::string path =
            "Device.X_OLVEX_LoginCfg.LogGp.3.Account." + std::to_string(added.idx[1]) + ".";
        EXPECT_EQ(WCFG_INVALID_PARAM_VALUE,
                  set(path.c_str(), R"({"Username": "Invalid_Account"})"));
        EXPECT_EQ(0, set(path.c_str(), R"({"Username": "kid"})"));
        EXPECT_EQ(WCFG_REQUEST_REJECT, set(path.c_str(), R"({"Username": "kid2"})"));
    }
    // The account editor: a locked account's right password counts as wrong.
    JsonPtr req(json_tokener_parse(
        R"({"Username": "user", "new_Username": "user", "Password": "n3wSecret1",
            "verifyNewpassword": "n3wSecret1", "oldPw": "user1234", "DAL_LOGIN_LEVEL": "high",
            "DAL_ACCOUNT_LOCKED": true})"));
    char reply[128] = {};
    EXPECT_NE(0, wcfgFeDal_User_Account_Edit(req.get(), reply, sizeof reply));
    EXPECT_STREQ(WCFG_DAL_BAD_CREDENTIALS, reply);
    json_object_object_add(req.get(), "DAL_ACCOUNT_LOCKED", json_object_new_boolean(0));
    EXPECT_EQ(0, wcfgFeDal_User_Account_Edit(req.get(), reply, sizeof reply));
    EXPECT_EQ(0, vxUtilAuthUserAccount("user", "n3wSecret1"));
}

// Someone cleans the run directory: the counter file that other processes
// bump is a new one.  Readers follow it within a tenth of a second.
TEST_F(StoreRules, ReplacedGenerationFileIsFollowed) {
    const char* pm = "Device.NAT.PortMapping.1.";
    EXPECT_EQ("\"web\"", get(pm, "Description"));
    ASSERT_EQ(0, unlink(platformPath("/var/run/wcfg/config.gen").c_str()));
    ASSERT_EQ(0, wcfgctlSet(pm, R"({"Description": "after-cleanup"})"));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ("\"after-cleanup\"", get(pm, "Description"));
    // This process writes to the new file too: another reader would see it.
    EXPECT_EQ(0, set(pm, R"({"Description": "mine"})"));
    wcfg::Generation other;
    other.open(platformPath("/var/run/wcfg/config.gen"));
    EXPECT_NE(0u, other.load());
}
