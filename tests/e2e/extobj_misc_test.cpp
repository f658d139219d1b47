// Icon names, internet blocking and the internet speed test through the real
// daemon: one icon per device (also across a mesh node's interfaces, looked up
// in the host-probe database with bound parameters), blocking by model name
// and operation mode, the test index and the copy of the chosen
// configuration.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

const std::string kValue = "TR181/Value/";
const std::string kIcons = "Device.X_OLVEX_Change_Icon_Name.";

class ExtObj : public e2e::DaemonTest {
  protected:
    Reply get(const std::string& path) { return DaemonTest::get(kValue + path); }
    Reply write(const std::string& method, const std::string& path, const std::string& body) {
        return DaemonTest::write(method, kValue + path, body);
    }
    std::string iconTable() {
        std::string out;
        root.wcfgctl({"get", kIcons}, &out);
        return out;
    }
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

namespace {

// Writes a file below the device root, replacing it whole.
void writeRootFile(const DeviceRoot& root, const std::string& abs, const std::string& text) {
    std::string tmp = root.path(abs) + ".tmp";
    FILE* f = fopen(tmp.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    ASSERT_EQ(0, rename(tmp.c_str(), root.path(abs).c_str()));
}

std::string member(const std::string& body, const std::string& key) {
    size_t at = body.find("\"" + key + "\": ");
    if (at == std::string::npos)
        return "<absent>";
    at += key.size() + 4;
    size_t end = body.find_first_of(",}", at);
    return body.substr(at, end - at - (body[end - 1] == ' ' ? 1 : 0));
}

}  // namespace

TEST_F(ExtObj, WanInfoOfARouter) {
    ASSERT_EQ(0, root.wcfgctl({"knob", "bwm.frozen", "true"}));
    start();
    const std::string wan = "Device.DeviceInfo.WanInfo.";
    Reply r = get(wan);
    ASSERT_EQ("Success", operStatus(r)) << r.body;
    EXPECT_EQ("\"Enable\"", member(r.body, "Status")) << r.body;
    EXPECT_EQ("\"gateway\"", member(r.body, "Mode"));
    EXPECT_EQ("\"100.64.12.34\"", member(r.body, "IPAddress"));
    EXPECT_EQ("\"02:10:18:3A:5C:01\"", member(r.body, "MAC"));
    EXPECT_EQ("1000", member(r.body, "PhyRate"));
    EXPECT_EQ("\"203.0.113.53\"", member(r.body, "DNSServer"));
    EXPECT_EQ("23000", member(r.body, "RxRate"));
    EXPECT_EQ("4100", member(r.body, "TxRate"));

    // Disabled: the addresses come from the LAN bridge, through ifconfig.
    writeRootFile(root, "/tmp/wan_info", "Enable 1.2.3.4 02:00:00:00:00:09\nDisable\n");
    r = get(wan);
    EXPECT_EQ("\"Disable\"", member(r.body, "Status")) << r.body;
    EXPECT_EQ("\"192.168.1.1\"", member(r.body, "IPAddress"));
    EXPECT_EQ("\"02:10:18:3A:5C:00\"", member(r.body, "MAC"));
    writeRootFile(root, "/tmp/wan_info", "cable unplugged\n");
    EXPECT_EQ("\"LinkDown\"", member(get(wan).body, "Status"));
    // No status file: nothing of it (the schema completes the keys empty).
    ASSERT_EQ(0, unlink(root.path("/tmp/wan_info").c_str()));
    r = get(wan);
    EXPECT_EQ("\"\"", member(r.body, "Status")) << r.body;
    EXPECT_EQ("\"\"", member(r.body, "IPAddress"));
    EXPECT_EQ("1000", member(r.body, "PhyRate"));

    // A short bandwidth file: the missing rate reads 0.  The monitor writes
    // its rates in the device's own byte order.
    const int32_t rx = 10000;
    std::string shortFile(sizeof rx, '\0');
    memcpy(shortFile.data(), &rx, sizeof rx);
    writeRootFile(root, "/tmp/bwm_result", shortFile);
    r = get(wan);
    EXPECT_EQ("10000", member(r.body, "RxRate")) << r.body;
    EXPECT_EQ("0", member(r.body, "TxRate"));
    // The physical rate: the current rate when the maximum is 0; none for a
    // single gateway interface without a comma.
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.Ethernet.Interface.5.",
                               R"({"MaxBitRate":0,"X_OLVEX_DownstreamCurrRate":940})"}));
    EXPECT_EQ("940", member(get(wan).body, "PhyRate"));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.Routing.Router.1.",
                               R"({"X_OLVEX_ActiveDefaultGateway":"IP.Interface.2"})"}));
    EXPECT_EQ("0", member(get(wan).body, "PhyRate"));
}

TEST_F(ExtObj, WanInfoOfAnAccessPointPingsThroughTheService) {
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_OperationMode.", R"({"Mode":1})"}));
    start();
    const std::string wan = "Device.DeviceInfo.WanInfo.";
    Reply r = get(wan);
    EXPECT_EQ("\"Enable\"", member(r.body, "Status")) << r.body;
    EXPECT_EQ("\"AccessPoint\"", member(r.body, "Mode"));
    EXPECT_EQ("\"02:10:18:3A:5C:00\"", member(r.body, "MAC"));
    EXPECT_EQ("\"192.168.1.1\"", member(r.body, "IPAddress"));
    EXPECT_NE(std::string::npos, root.read("/var/diagResult").find("1 packets received"));
    // The internet out of reach: three attempts, then "LinkDown".
    ASSERT_EQ(0, root.wcfgctl({"knob", "net.internet_reachable", "false"}));
    r = get(wan);
    EXPECT_EQ("\"LinkDown\"", member(r.body, "Status")) << r.body;
    std::string out;
    root.wcfgctl({"get", "Device.IP.Diagnostics.IPPing."}, &out);
    EXPECT_NE(std::string::npos, out.find("\"DiagnosticsState\":\"Error_NoRouteToHost\"")) << out;
    EXPECT_NE(std::string::npos, out.find("\"Host\":\"www.example.com\""));
}
