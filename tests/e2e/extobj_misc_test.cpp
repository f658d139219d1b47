// Icon names, internet blocking and the internet speed test through the real
// daemon: one icon per device (also across a mesh node's interfaces, looked up
// in the host-probe database with bound parameters), blocking by model name
// and operation mode, the test index and the copy of the chosen
// configuration.
#include <gtest/gtest.h>

#include <string>

#include "client.h"
#include "harness.h"

using e2e::Client;
using e2e::Daemon;
using e2e::DeviceRoot;
using e2e::operStatus;
using e2e::Reply;
using e2e::Session;

namespace {

const std::string kValue = "TR181/Value/";
const std::string kIcons = "Device.X_OLVEX_Change_Icon_Name.";

class ExtObj : public ::testing::Test {
  protected:
    void start() {
        ASSERT_EQ(0, e2e::setMaxLoginAccounts(root, 0));
        port = e2e::startDaemon(d, root);
        ASSERT_NE(0, port) << d.out() << d.err();
        ASSERT_EQ(200, Client(port).login("admin", "1234abcd", &s).status);
    }
    void TearDown() override {
        if (port) {
            EXPECT_EQ(0, d.stop());
        }
    }
    Reply get(const std::string& path) {
        return Client(port).request("GET", kValue + path, "", &s);
    }
    Reply write(const std::string& method, const std::string& path, const std::string& body) {
        return Client(port).write(method, kValue + path, body, s);
    }
    std::string iconTable() {
        std::string out;
        root.wcfgctl({"get", kIcons}, &out);
        return out;
    }
    DeviceRoot root;
    Daemon d;
    Session s;
    int port = 0;
};

}  // namespace

TEST_F(ExtObj, IconNamesOnePerDeviceAndNode) {
    start();
    Reply r = get(kIcons + "1.");
    EXPECT_EQ("Success", operStatus(r));
    EXPECT_NE(std::string::npos, r.body.find("\"MacAddress\": \"02:AA:00:00:00:02\""));
    // A second icon for the same MAC: refused, one instance stays.
    EXPECT_EQ("Invalid parameter value",
              operStatus(write("POST", kIcons, R"({"MacAddress":"02:AA:00:00:00:02"})")));
    EXPECT_EQ(1u, e2e::countOf(iconTable(), "02:AA:00:00:00:02"));
    // The extender by its AL MAC, then by one of its interfaces: the same node.
    EXPECT_EQ("Success",
              operStatus(write("POST", kIcons,
                               R"({"MacAddress":"02:10:18:3A:6D:00","IconType":"router"})")));
    EXPECT_EQ("Invalid parameter value",
              operStatus(write("POST", kIcons, R"({"MacAddress":"06:10:18:3A:6D:03"})")));
    EXPECT_EQ(std::string::npos, iconTable().find("06:10:18:3A:6D:03"));
    // A MAC is only ever a value: quotes in it find nothing and inject nothing
    // (pasted into the query, it would have matched the extender's node).
    EXPECT_EQ("Success", operStatus(write("POST", kIcons, R"({"MacAddress":"x' OR '1'='1"})")));
    EXPECT_NE(std::string::npos, iconTable().find("x' OR '1'='1"));
    // Set with a node's interface MAC answers 0 or -18; delete as usual.
    EXPECT_EQ("Success",
              operStatus(write("PUT", kIcons + "1.",
                               R"({"MacAddress":"06:10:18:3A:6D:03","IconType":"tv"})")));
    EXPECT_EQ("Success", operStatus(write("DELETE", kIcons + "2.", "")));
    EXPECT_EQ("Invalid object", operStatus(get(kIcons + "2.")));
}

TEST_F(ExtObj, InternetBlockingByModelAndMode) {
    start();
    Reply r = get("Device.X_OLVEX_EXT.InternetBlocking.");
    EXPECT_NE(std::string::npos, r.body.find("\"Object\": { \"Enable\": true }")) << r.body;
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.DeviceInfo.", R"({"ModelName":"NX3301A-EU"})"}));
    r = get("Device.X_OLVEX_EXT.InternetBlocking.");
    EXPECT_NE(std::string::npos, r.body.find("\"Enable\": false")) << r.body;
    EXPECT_TRUE(d.waitForOutput("ModelName: NX3301A-EU"));

    // An access point (operation mode 1, read at start-up) never blocks.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.DeviceInfo.", R"({"ModelName":"NX5150"})"}));
    ASSERT_EQ(0, d.stop());
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_OperationMode.", R"({"Mode":1})"}));
    Daemon ap;
    int apPort = e2e::startDaemon(ap, root);
    ASSERT_NE(0, apPort);
    port = 0;
    Session as;
    ASSERT_EQ(200, Client(apPort).login("admin", "1234abcd", &as).status);
    r = Client(apPort).request("GET", kValue + "Device.X_OLVEX_EXT.InternetBlocking.", "", &as);
    EXPECT_NE(std::string::npos, r.body.find("\"Enable\": false")) << r.body;
    EXPECT_EQ(0, ap.stop());
}

TEST_F(ExtObj, InternetSpeedIndexAndCopy) {
    start();
    const std::string speed = "Device.X_OLVEX_EXT.InternetSpeed.";
    Reply r = get(speed);
    EXPECT_NE(std::string::npos, r.body.find("\"Index\": 1")) << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"DownloadDiagnosticsNumberOfEntries\": 2"));
    // A non-zero index is remembered; 0 keeps it.
    EXPECT_EQ("Success", operStatus(write("PUT", speed, R"({"Index":2})")));
    EXPECT_EQ("Success", operStatus(write("PUT", speed, R"({"Index":0})")));
    EXPECT_NE(std::string::npos, get(speed).body.find("\"Index\": 2"));
    // Enable copies configuration 2 into the standard objects, which run it.
    EXPECT_EQ("Success", operStatus(write("PUT", speed, R"({"Enable":true})")));
    r = get("Device.IP.Diagnostics.DownloadDiagnostics.");
    EXPECT_NE(std::string::npos, r.body.find(R"(speedtest2.isp.example\/100MB.bin)")) << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"DiagnosticsState\": \"Complete\"")) << r.body;
    r = get("Device.IP.Diagnostics.UploadDiagnostics.");
    EXPECT_NE(std::string::npos, r.body.find(R"(speedtest2.isp.example\/upload)")) << r.body;
    // An index past the configurations finds no entry.
    EXPECT_EQ("Invalid object", operStatus(write("PUT", speed, R"({"Index":9,"Enable":true})")));
    EXPECT_EQ("Invalid object", operStatus(write("DELETE", speed, "")));
    // Without diagnostics support the answer is the fixed one.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.IP.Diagnostics.",
                               R"({"IPv4UploadDiagnosticsSupported":false})"}));
    r = get(speed);
    EXPECT_NE(std::string::npos, r.body.find("\"Enable\": false")) << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"UploadDiagnosticsNumberOfEntries\": 0"));
    EXPECT_NE(std::string::npos, r.body.find("\"Index\": 9"));
}

TEST_F(ExtObj, ScheduleViewOverTheFlatTable) {
    start();
    const std::string kids = "Device.X_OLVEX_ParentalControl.Profile.1.Schedule.";
    const std::string guests = "Device.X_OLVEX_ParentalControl.Profile.2.Schedule.";
    auto profileList = [&](int p) {
        std::string out;
        root.wcfgctl({"get", "Device.X_OLVEX_ParentalControl.Profile." + std::to_string(p) + "."},
                     &out);
        size_t at = out.find("\"ScheduleRuleList\":\"");
        return at == std::string::npos ? std::string("?")
                                       : out.substr(at + 20, out.find('"', at + 20) - at - 20);
    };
    Reply r = get(kids + "2.");
    ASSERT_EQ("Success", operStatus(r)) << r.body;
    // "Enable" is copied as text.
    EXPECT_NE(std::string::npos, r.body.find("\"Enable\": \"true\"")) << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"Days\": \"Sat,Sun\""));
    EXPECT_NE(std::string::npos, r.body.find("\"TimeStartMin\": 30"));
    EXPECT_EQ(2u, e2e::countOf(get(kids).body, "\"Name\": \"Kids\""));
    // Positions count from 1 and end with the list.
    EXPECT_EQ("Invalid object", operStatus(get(kids + "0.")));
    EXPECT_EQ("Invalid object", operStatus(get(kids + "3.")));
    // An empty list: nothing to read or write; the first add needs no comma.
    EXPECT_EQ("Invalid object", operStatus(get(guests + "1.")));
    EXPECT_EQ("Invalid object", operStatus(write("PUT", guests + "1.", R"({"TimeStopHour":7})")));
    r = write("POST", guests,
              R"({"Name":"mine","Enable":true,"Days":"Sat","TimeStartHour":8,"TimeStartMin":0,)"
              R"("TimeStopHour":9,"TimeStopMin":30})");
    ASSERT_EQ("Success", operStatus(r)) << r.body;
    // The new schedule is named like the profile.
    EXPECT_NE(std::string::npos, r.body.find("\"Name\": \"Guests\"")) << r.body;
    EXPECT_NE(std::string::npos, r.body.find("\"Description\": \"ParentalControl\""));
    EXPECT_EQ("X_OLVEX_Schedule.3", profileList(2));
    EXPECT_EQ("Invalid parameter name", operStatus(write("POST", guests, "")));
    // A set writes the schedule the position names.
    EXPECT_EQ("Success", operStatus(write("PUT", kids + "2.", R"({"TimeStartHour":20})")));
    std::string out;
    root.wcfgctl({"get", "Device.X_OLVEX_Schedule.2."}, &out);
    EXPECT_NE(std::string::npos, out.find("\"TimeStartHour\":20")) << out;
    // A list naming one schedule twice loses both references on delete.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_ParentalControl.Profile.1.",
                               R"({"ScheduleRuleList":"X_OLVEX_Schedule.1,X_OLVEX_Schedule.2,)"
                               R"(X_OLVEX_Schedule.1"})"}));
    EXPECT_EQ("Success", operStatus(write("DELETE", kids + "3.", "")));
    EXPECT_EQ("X_OLVEX_Schedule.2", profileList(1));
    EXPECT_NE(0, root.wcfgctl({"get", "Device.X_OLVEX_Schedule.1."}));
    EXPECT_EQ("Invalid object", operStatus(write("DELETE", kids + "2.", "")));
}
