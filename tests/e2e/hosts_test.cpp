// The host list through the real daemon, its store and the real host-probe
// database file: hosts joined with the database and the association lists,
// a mesh node, a wired host's port, leases, the RSSI classes, letter case of
// MACs, a host the database does not know, a database of the wrong shape,
// the gateway filter of an access point, and the empty-instance marker.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

const std::string kHost = "TR181/Value/Device.Hosts.Host.";

// Runs SQL on the device root's host-probe database, as the probe service
// would while the daemon keeps its handle open.
void sql(const DeviceRoot& root, const std::string& text) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(root.path("/tmp/devscout.db").c_str(), &db));
    sqlite3_busy_timeout(db, 5000);
    char* err = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, text.c_str(), nullptr, nullptr, &err)) << err;
    sqlite3_free(err);
    sqlite3_close(db);
}

// One answer's "Object" as JSON.
struct Doc {
    explicit Doc(const std::string& body) : doc(json_tokener_parse(body.c_str())) {}
    ~Doc() { json_object_put(doc); }
    json_object* object() const {
        json_object* o = nullptr;
        json_object_object_get_ex(doc, "Object", &o);
        return o;
    }
    json_object* doc;
};

std::string field(json_object* obj, const char* key) {
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, key, &v))
        return "<absent>";
    return json_object_get_string(v);
}

long uptimeNow() {
    std::ifstream in("/proc/uptime");
    double up = 0;
    in >> up;
    return static_cast<long>(up);
}

class Hosts : public e2e::DaemonTest {};

}  // namespace

TEST_F(Hosts, TheTableJoinsTheDatabaseListsAndLeases) {
    start();
    Reply r = get(kHost);
    ASSERT_EQ("Success", operStatus(r)) << r.body;
    Doc d(r.body);
    ASSERT_EQ(6u, json_object_array_length(d.object())) << r.body;
    auto host = [&](int i) { return json_object_array_get_idx(d.object(), i - 1); };
    // A wired host: its port.
    EXPECT_EQ("LAN1", field(host(1), "Layer1IntfName"));
    EXPECT_EQ("1000", field(host(1), "Layer1IntfCurBitRate"));
    EXPECT_EQ("Full", field(host(1), "Layer1IntfDuplexMode"));
    // On the gateway's 2.4 GHz Wi-Fi: the association list's RSSI.
    EXPECT_EQ("-52", field(host(2), "X_OLVEX_RSSI"));
    EXPECT_EQ("1", field(host(2), "X_OLVEX_Band"));
    EXPECT_EQ("6", field(host(2), "X_OLVEX_Channel_24G"));
    EXPECT_EQ("36", field(host(2), "X_OLVEX_Channel_5G"));
    EXPECT_EQ("02:10:18:3A:5C:00", field(host(2), "X_OLVEX_Neighbor"));
    EXPECT_EQ("Good", field(host(2), "X_OLVEX_RSSI_STAT"));
    // Behind the extender: the database's RSSI.
    EXPECT_EQ("-61", field(host(3), "X_OLVEX_RSSI"));
    EXPECT_EQ("02:10:18:3A:6D:00", field(host(3), "X_OLVEX_Neighbor"));
    // The mesh node: matched by its AL MAC, channels from its functions, the
    // backhaul station's RSSI by the middle four octets.
    EXPECT_EQ("-47", field(host(4), "X_OLVEX_RSSI"));
    EXPECT_EQ("6", field(host(4), "X_OLVEX_Channel_24G"));
    EXPECT_EQ("36", field(host(4), "X_OLVEX_Channel_5G"));
    // The guest: "*" reads "Unknown", -80 dBm is weak.
    EXPECT_EQ("Unknown", field(host(5), "HostName"));
    EXPECT_EQ("Weak", field(host(5), "X_OLVEX_RSSI_STAT"));
    EXPECT_EQ("1", field(host(5), "X_OLVEX_Conn_Guest"));
    // A bridge of type "Other": the marker alone.
    EXPECT_STREQ("{ \"_EmptyInstance\": true }", json_object_to_json_string(host(6)));
}

TEST_F(Hosts, LeaseTimeLeftFromTheAcknowledgement) {
    long up = uptimeNow();
    std::ofstream(root.path("/var/dnsmasq/dnsmasq.leases"))
        << up - 100 << " 86400 02:aa:00:00:00:01 192.168.1.33 desktop-pc *\n"
        << up - 90000 << " 86400 02:aa:00:00:00:02 192.168.1.34 phone *\n"
        << up + 500 << " 3600 02:aa:00:00:00:05 192.168.2.20 * *\n";
    start();
    Doc d(get(kHost).body);
    auto lease = [&](int i) {
        return atol(
            field(json_object_array_get_idx(d.object(), i - 1), "X_OLVEX_DHCPLeaseTime").c_str());
    };
    // The LAN pool's 86400 s less the 100 s since the acknowledgement.
    EXPECT_LE(lease(1), 86300);
    EXPECT_GE(lease(1), 86300 - 30);
    EXPECT_EQ(0, lease(2));     // run out
    EXPECT_EQ(3600, lease(5));  // the guest pool's, just given
    EXPECT_EQ(0, lease(3));     // no lease line
}

TEST_F(Hosts, RssiClassesLetterCaseAndUnknownHosts) {
    start();
    sql(root, "UPDATE Device SET RSSI='-78' WHERE IntfMac='02:AA:00:00:00:03';");
    Doc good(get(kHost + "3.").body);
    EXPECT_EQ("Good", field(good.object(), "X_OLVEX_RSSI_STAT"));
    sql(root, "UPDATE Device SET RSSI='-79' WHERE IntfMac='02:AA:00:00:00:03';");
    Doc weak(get(kHost + "3.").body);
    EXPECT_EQ("-79", field(weak.object(), "X_OLVEX_RSSI"));
    EXPECT_EQ("Weak", field(weak.object(), "X_OLVEX_RSSI_STAT"));
    // A MAC that differs only in letter case is not the same device.
    sql(root, "UPDATE Device SET IntfMac='02:aa:00:00:00:03' WHERE IntfMac='02:AA:00:00:00:03';");
    Doc other(get(kHost + "3.").body);
    EXPECT_EQ("", field(other.object(), "X_OLVEX_Neighbor"));
    EXPECT_EQ("0", field(other.object(), "X_OLVEX_RSSI"));
    // A host the database never saw keeps its own values.
    std::string out;
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.Hosts.Host.",
                               R"({"PhysAddress":"02:AA:00:00:00:07","HostName":"tv",)"
                               R"("InterfaceType":"Wi-Fi","X_OLVEX_ConnectionType":"Wi-Fi 5GHz",)"
                               R"("X_OLVEX_ConnectedAP":"Gateway","X_OLVEX_RSSI":-70})"},
                              &out));
    Doc tv(get("TR181/Value/" + out.substr(0, out.find('\n'))).body);
    EXPECT_EQ("tv", field(tv.object(), "HostName"));
    EXPECT_EQ("-70", field(tv.object(), "X_OLVEX_RSSI"));
    EXPECT_EQ("2", field(tv.object(), "X_OLVEX_Band"));
    EXPECT_EQ("", field(tv.object(), "X_OLVEX_Neighbor"));
    // A host without a MAC: the marker.
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.Hosts.Host.", R"({"HostName":"ghost"})"}));
    Doc ghost(get(kHost + "8.").body);
    EXPECT_STREQ("{ \"_EmptyInstance\": true }", json_object_to_json_string(ghost.object()));
}

TEST_F(Hosts, DatabaseOfTheWrongShapeFailsEveryHost) {
    start();
    sql(root, "ALTER TABLE Device DROP COLUMN Reserved;");
    EXPECT_EQ("Invalid object", operStatus(get(kHost + "1.")));
    EXPECT_TRUE(d.waitForOutput("Devscout database table columns not correct."));
    Doc table(get(kHost).body);
    EXPECT_EQ(0u, json_object_array_length(table.object()));
    sql(root, "ALTER TABLE Device ADD COLUMN Reserved TEXT;");
    EXPECT_EQ("Success", operStatus(get(kHost + "1.")));
}

TEST_F(Hosts, AnAccessPointFiltersItsGatewayAndNamesNamelessHosts) {
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.Routing.Router.1.IPv4Forwarding.1.",
                               R"({"GatewayIPAddress":"192.168.1.40"})"}));
    // A host no source names (the refresh fills names from the leases and
    // the probe database).
    ASSERT_EQ(0,
              root.wcfgctl({"add", "Device.Hosts.Host.",
                            R"({"PhysAddress":"02:AA:00:00:00:09","HostName":"",)"
                            R"("InterfaceType":"Ethernet","X_OLVEX_ConnectionType":"Ethernet"})"}));
    start(1);
    // The gateway: band and channels, nothing from the database or the lease.
    Doc gw(get(kHost + "4.").body);
    EXPECT_EQ("2", field(gw.object(), "X_OLVEX_Band"));
    EXPECT_EQ("36", field(gw.object(), "X_OLVEX_Channel_5G"));
    EXPECT_EQ("", field(gw.object(), "X_OLVEX_Neighbor"));
    EXPECT_EQ("", field(gw.object(), "X_OLVEX_RSSI_STAT"));
    EXPECT_EQ("0", field(gw.object(), "X_OLVEX_DHCPLeaseTime"));
    // A nameless host is named by its MAC; "*" still reads "Unknown".
    Doc named(get(kHost + "7.").body);
    EXPECT_EQ("02:AA:00:00:00:09", field(named.object(), "HostName"));
    Doc star(get(kHost + "5.").body);
    EXPECT_EQ("Unknown", field(star.object(), "HostName"));
}

// The service rebuilds its host table on a read: devices the probe database
// or the Wi-Fi service's station table report join it; hosts no source
// mentions any more stay, inactive.
TEST_F(Hosts, TheTableFollowsTheDatabaseAndTheStations) {
    start();
    sql(root,
        "INSERT INTO Device VALUES('EndDevice','console','192.168.1.60','',"
        "'02:AA:00:00:00:0A','','','','','Ethernet','02:10:18:3A:5C:00','1','1','1','1',"
        "'0','1000','','1','0','0','0','0','0','','','0','0','');");
    ASSERT_EQ(0, root.wcfgctl({"add", "Device.WiFi.AccessPoint.2.AssociatedDevice.",
                               R"({"MACAddress":"02:AA:00:00:00:0B","SignalStrength":-66})"}));
    EXPECT_NE(std::string::npos,
              root.read("/tmp/assoc_list.5g").find("02:AA:00:00:00:0B  0000000000  -66"));
    Doc d(get(kHost).body);
    ASSERT_EQ(8u, json_object_array_length(d.object()));
    json_object* console = json_object_array_get_idx(d.object(), 6);
    EXPECT_EQ("02:AA:00:00:00:0A", field(console, "PhysAddress"));
    EXPECT_EQ("console", field(console, "HostName"));
    EXPECT_EQ("192.168.1.60", field(console, "IPAddress"));
    json_object* station = json_object_array_get_idx(d.object(), 7);
    EXPECT_EQ("02:AA:00:00:00:0B", field(station, "PhysAddress"));
    EXPECT_EQ("Wi-Fi 5GHz", field(station, "X_OLVEX_ConnectionType"));
    EXPECT_EQ("-66", field(station, "X_OLVEX_RSSI"));
    EXPECT_EQ("2", field(station, "X_OLVEX_Band"));
    // The console goes away: its host stays, inactive.
    sql(root, "DELETE FROM Device WHERE IntfMac='02:AA:00:00:00:0A';");
    Doc later(get(kHost + "7.").body);
    EXPECT_EQ("false", field(later.object(), "Active"));
    EXPECT_EQ("console", field(later.object(), "HostName"));
    // The station leaves: the service writes its list anew.
    ASSERT_EQ(0, root.wcfgctl({"del", "Device.WiFi.AccessPoint.2.AssociatedDevice.2."}));
    EXPECT_EQ(std::string::npos, root.read("/tmp/assoc_list.5g").find("02:AA:00:00:00:0B"));
    EXPECT_NE(std::string::npos, root.read("/tmp/assoc_list.5g").find("06:10:18:3A:6D:03"));
}

// The bandwidth monitor rewrites its file every 5 platform seconds, unless
// frozen.
TEST_F(Hosts, BandwidthMonitorMovesTheRates) {
    start();
    // A rewrite after the start, however long the machine takes: the rate
    // the file held before (if any) is not the monitor's.
    auto rxOf = [&] {
        std::string rates = root.read("/tmp/bwm_result");
        int32_t rx = 0;
        if (rates.size() == 8)
            memcpy(&rx, rates.data(), 4);
        return rx;
    };
    int32_t rx = rxOf();
    for (int i = 0; i < 1000 && (rx < 23000 - 1150 || rx > 23000 + 1150); ++i) {
        e2e::sleepMs(20);
        rx = rxOf();
    }
    EXPECT_EQ(8u, root.read("/tmp/bwm_result").size());
    EXPECT_GE(rx, 23000 - 1150);
    EXPECT_LE(rx, 23000 + 1150);
}
