// Text that is not UTF-8, from every side a hostile client or a hostile host
// can reach: request bodies (one object, a batch, an add), the login and
// account bodies, the request path, the host-probe database and the WAN
// status file.  It is refused as a body that is not JSON is, the store
// never holds it, and every answer stays valid JSON for a strict reader.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <string>

#include "fixture.h"
#include "base/json_util.h"
#include "raw_conn.h"

namespace {

using namespace e2e;

// Raw byte sequences that are not UTF-8.
const char* const kBadText[] = {
    "\xff\xfe",              // bytes that never occur
    "\xc0\xaf",              // overlong '/'
    "\xed\xa0\x80",          // a surrogate
    "\xf4\x90\x80\x80",      // beyond U+10FFFF
    "ab\xe2\x82",            // cut short at the end
    "\x80 continuation",     // stray continuation byte
    "\xf8\x88\x80\x80\x80",  // five-byte form
};

// Whether a strict reader (UTF-8 checked) accepts the answer.
bool strictJson(const std::string& body) {
    JsonPtr doc(jsonParseUtf8(body.c_str()));
    return doc != nullptr;
}

class Utf8 : public e2e::DaemonTest {
  protected:
    std::string ssid() {
        std::string out;
        EXPECT_EQ(0, root.wcfgctl({"get", "Device.WiFi.SSID.1."}, &out));
        return out;
    }
};

}  // namespace

TEST_F(Utf8, BodiesThatAreNotUtf8AreRefusedLikeBodiesThatAreNotJson) {
    start();
    const std::string path = "TR181/Value/Device.WiFi.SSID.1.";
    Reply notJson = write("PUT", path, "{\"SSID\":");
    std::string before = ssid();
    for (const char* bad : kBadText) {
        std::string body = std::string("{\"SSID\":\"") + bad + "\"}";
        Reply r = write("PUT", path, body);
        EXPECT_EQ(notJson.status, r.status) << bad;
        EXPECT_EQ(operStatus(notJson), operStatus(r)) << bad;
        EXPECT_TRUE(strictJson(r.body)) << r.body;
        r = write("PUT", "TR181/Value/MultiObjects",
                  std::string(R"({"MultiObjects":true,"TR181_Objects":[)") +
                      R"({"object_path":"Device.WiFi.SSID.2.","SSID":"fine"},)" +
                      R"({"object_path":"Device.WiFi.SSID.1.","SSID":")" + bad + "\"}]}");
        EXPECT_EQ(operStatus(notJson), operStatus(r)) << bad;
        r = write("POST", "TR181/Value/Device.NAT.PortMapping.",
                  std::string("{\"Description\":\"") + bad + "\"}");
        EXPECT_TRUE(strictJson(r.body)) << r.body;
    }
    EXPECT_EQ(before, ssid());
    Reply all = get("TR181/Value/Device.?first_level_only=false");
    EXPECT_EQ("Success", operStatus(all));
    EXPECT_TRUE(strictJson(all.body));
    EXPECT_EQ(std::string::npos, all.body.find("fine"));  // the batch wrote nothing
}

TEST_F(Utf8, LoginAndAccountBodiesThatAreNotUtf8) {
    start();
    Client c(port);
    Reply notJson = c.request("POST", "UserLogin", "{\"username\":");
    for (const char* bad : kBadText) {
        Reply r =
            c.request("POST", "UserLogin",
                      std::string("{\"username\":\"admin\",\"password\":\"1234abcd") + bad + "\"}");
        EXPECT_EQ(notJson.status, r.status) << bad;
        EXPECT_TRUE(strictJson(r.body)) << r.body;
        r = write("PUT", "UserUpdate",
                  std::string(R"({"old_username":"admin","old_password":"1234abcd",)") +
                      R"("new_username":"x)" + bad + R"(","new_password":"abcd1234"})");
        EXPECT_EQ("Request reject: lost parameters", operStatus(r)) << r.body;
    }
    // The session lives on (the refused logins count against the account).
    EXPECT_EQ("Success", operStatus(get("TR181/Value/Device.DeviceInfo.")));
}

TEST_F(Utf8, PathsThatAreNotUtf8AreNotEchoed) {
    start();
    for (const char* bad : kBadText) {
        e2e::RawConn conn;
        ASSERT_TRUE(conn.connect(port));
        ASSERT_TRUE(conn.handshake());
        ASSERT_TRUE(conn.send(
            std::string("GET /api/v1/TR181/Value/Device.") + bad +
            ". HTTP/1.1\r\nHost: d\r\nConnection: close\r\nCookie: Session=" + s.id + "\r\n\r\n"));
        std::string answer = conn.readUntilClose(10000);
        size_t body = answer.find("\r\n\r\n");
        ASSERT_NE(std::string::npos, body) << answer;
        // Either the front refuses the target or the daemon answers in JSON.
        if (answer.rfind("HTTP/1.1 400", 0) != 0) {
            EXPECT_TRUE(strictJson(answer.substr(body + 4))) << answer;
        }
    }
}

TEST_F(Utf8, StoreRefusesTextThatIsNotUtf8) {
    for (const char* bad : kBadText) {
        EXPECT_NE(0, root.wcfgctl(
                         {"set", "Device.WiFi.SSID.1.", std::string("{\"SSID\":\"") + bad + "\"}"}))
            << bad;
    }
    // Beyond the ASCII range, well-formed text is a value like any other.
    EXPECT_EQ(0, root.wcfgctl({"set", "Device.WiFi.SSID.1.",
                               "{\"SSID\":\"caf\xc3\xa9-\xf0\x9f\x93\xb6\"}"}));
    start();
    Reply r = get("TR181/Value/Device.WiFi.SSID.1.");
    EXPECT_NE(std::string::npos, r.body.find("caf\xc3\xa9-\xf0\x9f\x93\xb6")) << r.body;
}

TEST_F(Utf8, FilesFromOtherServicesThatAreNotUtf8) {
    start();
    // The probe service records a host's neighbour as bytes that are not text.
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(root.path("/tmp/devscout.db").c_str(), &db));
    sqlite3_busy_timeout(db, 5000);
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "UPDATE Device SET Neighbor = CAST(X'FFFE41' AS TEXT);",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    Reply hosts = get("TR181/Value/Device.Hosts.Host.");
    EXPECT_EQ("Success", operStatus(hosts));
    EXPECT_TRUE(strictJson(hosts.body)) << hosts.body;
    // A WAN status line that is not text reads as no line.
    std::ofstream(root.path("/tmp/wan_info")) << "Enable \xff\xfe 02:00:00:00:00:09\n";
    Reply wan = get("TR181/Value/Device.DeviceInfo.WanInfo.");
    EXPECT_EQ("Success", operStatus(wan));
    EXPECT_TRUE(strictJson(wan.body)) << wan.body;
}
