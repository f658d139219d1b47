// Data-model access over REST on the default configuration of the virtual
// router: reads, writes, batches, adds, deletes, the schema and the method
// list, with the real daemon, store and HTTPS client.
#include <gtest/gtest.h>

#include <csignal>
#include <json-c/json.h>

#include <memory>
#include <regex>
#include <string>

#include "client.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

// A parsed answer.
struct Doc {
    explicit Doc(const std::string& body) : obj(json_tokener_parse(body.c_str())) {}
    ~Doc() { json_object_put(obj); }
    Doc(const Doc&) = delete;
    Doc& operator=(const Doc&) = delete;
    json_object* get(const std::string& key) const {
        json_object* v = nullptr;
        json_object_object_get_ex(obj, key.c_str(), &v);
        return v;
    }
    json_object* obj;
};

std::string str(json_object* o, const std::string& key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(o, key.c_str(), &v) ? json_object_get_string(v) : "<none>";
}

// The daemon's line for each data-model notice it receives (one per applied write).
const char* const kNotice = "data model change, update login timer.";

class ValueBatch : public e2e::DaemonTest {
  protected:
    size_t notices() { return e2e::countOf(d.err(), kNotice); }
};

class Value : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        root_ = new DeviceRoot;
        ASSERT_EQ(0, e2e::setMaxLoginAccounts(*root_, 0));
        daemon_ = new Daemon;
        port_ = e2e::startDaemon(*daemon_, *root_);
        ASSERT_NE(0, port_) << daemon_->out() << daemon_->err();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(0, daemon_->stop());
        delete daemon_;
        delete root_;
    }
    void SetUp() override {
        client_ = std::make_unique<Client>(port_);
        ASSERT_EQ(200, client_->login("admin", "1234abcd", &s_).status);
    }
    Reply get(const std::string& path) {
        return client_->request("GET", "TR181/Value/" + path, "", &s_);
    }
    Reply write(const std::string& method, const std::string& uri, const std::string& body) {
        return client_->write(method, uri, body, s_);
    }

    static DeviceRoot* root_;
    static Daemon* daemon_;
    static int port_;
    std::unique_ptr<Client> client_;
    Session s_;
};

DeviceRoot* Value::root_ = nullptr;
Daemon* Value::daemon_ = nullptr;
int Value::port_ = 0;

}  // namespace

TEST_F(Value, GetObjectTableSubtreeAndBadPaths) {
    Reply r = get("Device.DeviceInfo.");
    ASSERT_EQ(200, r.status);
    EXPECT_EQ(0u, r.body.find("{ \"requested_path\": \"Device.DeviceInfo.\", \"oper_status\": "
                              "\"Success\", \"Object\": { \"Manufacturer\": \"OLVEX\""))
        << r.body;
    EXPECT_NE(std::string::npos, r.headers.find("Cache-Control: no-cache"));
    // Only the object's own parameters by default.
    EXPECT_EQ(std::string::npos, r.body.find("\"MemoryStatus\"")) << r.body;
    EXPECT_EQ(std::string::npos, r.body.find("sessionkey"));

    // first_level_only=false brings the nested objects; other values do not.
    Reply deep = get("Device.WiFi.?first_level_only=FALSE");
    Doc d(deep.body);
    json_object* wifi = d.get("Object");
    ASSERT_NE(nullptr, wifi) << deep.body;
    json_object* radios = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(wifi, "Radio", &radios)) << deep.body;
    EXPECT_EQ(2u, json_object_array_length(radios));
    json_object* ap1 = nullptr;
    json_object* aps = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(wifi, "AccessPoint", &aps));
    ap1 = json_object_array_get_idx(aps, 0);
    json_object* wps = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(ap1, "WPS", &wps)) << deep.body;

    // A path without the trailing dot, an unknown one, an instance past the
    // table's bound.
    r = get("Device.WiFi.SSID.1.SSID");
    EXPECT_EQ(
        "{ \"requested_path\": \"Device.WiFi.SSID.1.SSID\", \"oper_status\": \"Invalid "
        "object\" }",
        r.body);
    EXPECT_EQ("Invalid object", operStatus(get("Device.NoSuch.")));
    EXPECT_EQ("Invalid object", operStatus(get("Device.WiFi.SSID.9.")));
    EXPECT_EQ("Invalid object", operStatus(get("Device.WiFi.SSID.7.")));  // not there
    EXPECT_EQ("Success", operStatus(get("Device.WiFi.SSID.01.")));        // instance 1

    // The system state is the daemon's own.
    r = get("Device.X_OLVEX_EXT.SystemState.");
    EXPECT_TRUE(std::regex_search(
        r.body, std::regex("\"Object\": \\{ \"localTime\": \"[A-Z][a-z]{2} [A-Z][a-z]{2} [0-9]{2} "
                           "[0-9]{2}:[0-9]{2}:[0-9]{2} GMT [0-9]{4}\" \\}")))
        << r.body;
    EXPECT_EQ("Invalid object",
              operStatus(write("DELETE", "TR181/Value/Device.X_OLVEX_EXT.SystemState.", "")));
    // The hosts root goes through its handler to the service.
    EXPECT_EQ("Success", operStatus(get("Device.Hosts.")));
}

TEST_F(Value, PutOneObjectAndItsRefusals) {
    const std::string pm = "TR181/Value/Device.NAT.PortMapping.1.";
    long before = s_.key;
    Reply r = write("PUT", pm, "{\"Description\":\"camera\",\"ExternalPort\":8081}");
    EXPECT_EQ("Success", operStatus(r));
    EXPECT_NE(before, s_.key);
    Doc d(r.body);
    EXPECT_EQ("camera", str(d.get("Object"), "Description"));
    EXPECT_EQ("8081", str(d.get("Object"), "ExternalPort"));
    EXPECT_EQ("Device.NAT.PortMapping.1.", str(d.obj, "requested_path"));
    // The old key is spent.
    Session old{s_.id, before};
    EXPECT_EQ(403, client_->request("PUT", e2e::withKey(pm, old), "{}", &old).status);
    // The value is in the store.
    std::string out;
    ASSERT_EQ(0, root_->wcfgctl({"get", "Device.NAT.PortMapping.1."}, &out));
    EXPECT_NE(std::string::npos, out.find("\"Description\":\"camera\"")) << out;

    // A read-only parameter, an unknown one (first member only is judged),
    // a bad value.
    EXPECT_EQ("Invalid parameter value", operStatus(write("PUT", pm, "{\"Status\":\"x\"}")));
    EXPECT_EQ("Invalid parameter name", operStatus(write("PUT", pm, "{\"Bogus\":1}")));
    EXPECT_EQ("Invalid parameter value",
              operStatus(write("PUT", pm, "{\"Description\":\"ok\",\"Bogus\":1}")));
    EXPECT_EQ("Invalid parameter value",
              operStatus(write("PUT", pm, "{\"ExternalPort\":\"not a port\"}")));

    // No usable body: nothing is written and the answer is "Success" alone.
    r = write("PUT", pm, "{}");
    EXPECT_EQ(0u, r.body.find("{ \"oper_status\": \"Success\", \"sessionkey\": ")) << r.body;
    r = write("PUT", pm, "not json");
    EXPECT_EQ("Success", operStatus(r));
    ASSERT_EQ(0, root_->wcfgctl({"get", "Device.NAT.PortMapping.1."}, &out));
    EXPECT_NE(std::string::npos, out.find("\"Description\":\"camera\"")) << out;

    // Other methods.
    r = client_->request("PATCH", e2e::withKey(pm, s_), "{}", &s_);
    EXPECT_EQ("{ \"oper_status\": \"Invalid method\" }", r.body);
    EXPECT_EQ("Invalid object",
              operStatus(write("PUT", "TR181/Value/Device.NAT.Nope.", "{\"a\":1}")));
}

// A daemon of its own: the data-model notices it counts are this test's.
TEST_F(ValueBatch, BatchesApplyOnceThroughTheFirstElement) {
    start();
    size_t n0 = notices();
    // Every element fails: "Success" overall, each element its own status,
    // no apply.
    Reply r = write("PUT", "TR181/Value/MultiObjects",
                    R"({"MultiObjects":true,"TR181_Objects":[
                        {"object_path":"Device.WiFi.SSID.1.","Bogus":1},
                        {"object_path":"Device.WiFi.SSID.2.","Status":"Down"},
                        {"object_path":"Device.Nothing.","X":1}]})");
    EXPECT_EQ("Success", operStatus(r));
    Doc bad(r.body);
    json_object* list = bad.get("Object");
    ASSERT_EQ(2u, json_object_array_length(list)) << r.body;  // no read-back for Device.Nothing.
    EXPECT_EQ("Invalid parameter name", str(json_object_array_get_idx(list, 0), "oper_status"));
    EXPECT_EQ("Invalid parameter value", str(json_object_array_get_idx(list, 1), "oper_status"));
    EXPECT_EQ("Device.WiFi.SSID.2.", str(json_object_array_get_idx(list, 1), "requested_path"));
    EXPECT_EQ(n0, notices());

    // Three that succeed: one apply.
    r = write("PUT", "TR181/Value/MultiObjects",
              R"({"MultiObjects":true,"TR181_Objects":[
                  {"object_path":"Device.WiFi.SSID.1.","SSID":"home-2g"},
                  {"object_path":"Device.WiFi.SSID.2.","SSID":"home-5g"},
                  {"object_path":"Device.NAT.PortMapping.1.","Description":"batch"}]})");
    Doc good(r.body);
    EXPECT_EQ("MultiObjects", str(good.obj, "requested_path"));
    list = good.get("Object");
    ASSERT_EQ(3u, json_object_array_length(list)) << r.body;
    EXPECT_EQ("home-5g", str(json_object_array_get_idx(list, 1), "SSID"));
    EXPECT_EQ("Success", str(json_object_array_get_idx(list, 2), "oper_status"));
    ASSERT_TRUE(d.waitForCount(kNotice, n0 + 1));
    std::string out;
    ASSERT_EQ(0, root.wcfgctl({"get", "Device.WiFi.SSID.2."}, &out));
    EXPECT_NE(std::string::npos, out.find("\"SSID\":\"home-5g\"")) << out;

    // One element: applied through it.
    r = write("PUT", "TR181/Value/MultiObjects",
              R"({"MultiObjects":true,"TR181_Objects":[
                  {"object_path":"Device.NAT.PortMapping.1.","Description":"alone"}]})");
    EXPECT_EQ("Success", operStatus(r));
    ASSERT_TRUE(d.waitForCount(kNotice, n0 + 2));

    // Without "TR181_Objects".
    r = write("PUT", "TR181/Value/MultiObjects", R"({"MultiObjects":true})");
    EXPECT_EQ("Invalid object", operStatus(r));
    EXPECT_EQ(n0 + 2, notices());
}

TEST_F(Value, AddAndDeleteInstances) {
    const std::string table = "TR181/Value/Device.NAT.PortMapping.";
    Reply r = write("POST", table,
                    R"({"ExternalPort":2222,"InternalPort":22,"InternalClient":"192.168.1.9"})");
    EXPECT_EQ("Success", operStatus(r));
    Doc added(r.body);
    EXPECT_EQ("Device.NAT.PortMapping.", str(added.obj, "requested_path"));
    EXPECT_EQ("2222", str(added.get("Object"), "ExternalPort"));
    r = write("POST", table, "");  // an add without values
    EXPECT_EQ("Success", operStatus(r));

    // A follow-up write that fails leaves no new instance behind.
    r = write("POST", table, R"({"ExternalPort":"none"})");
    EXPECT_EQ("Invalid parameter value", operStatus(r));
    EXPECT_EQ(nullptr, Doc(r.body).get("Object"));

    // Delete the middle one: the table keeps a marker in its place.
    EXPECT_EQ("Success", operStatus(write("DELETE", table + "2.", "")));
    r = get("Device.NAT.PortMapping.");
    Doc t(r.body);
    json_object* rows = t.get("Object");
    ASSERT_EQ(3u, json_object_array_length(rows)) << r.body;
    EXPECT_STREQ("{ \"_EmptyInstance\": true }",
                 json_object_to_json_string(json_object_array_get_idx(rows, 1)));
    EXPECT_EQ("0", str(json_object_array_get_idx(rows, 2), "ExternalPort"));

    // Paths that end wrongly, tables without "create", single objects.
    EXPECT_EQ("Invalid object", operStatus(write("POST", table + "1.", "")));
    EXPECT_EQ("Invalid object", operStatus(write("DELETE", table, "")));
    EXPECT_EQ("The object cannot be added or deleted",
              operStatus(write("POST", "TR181/Value/Device.Hosts.Host.", "")));
    EXPECT_EQ("The object cannot be added or deleted",
              operStatus(write("POST", "TR181/Value/Device.WiFi.Radio.", "")));
    EXPECT_EQ("The object cannot be added or deleted",
              operStatus(write("POST", "TR181/Value/Device.DeviceInfo.", "")));

    // Past "_MaxLength" (4 DNS servers, 2 by default).
    const std::string dns = "TR181/Value/Device.DNS.Client.Server.";
    EXPECT_EQ("Success", operStatus(write("POST", dns, "")));
    EXPECT_EQ("Success", operStatus(write("POST", dns, "")));
    EXPECT_EQ("Exceed max instance number", operStatus(write("POST", dns, "")));
}

TEST_F(Value, SchemaMethodListAndCustomisation) {
    Reply r = client_->request("GET", "TR181/SupportedDM/Device.NAT.PortMapping.1.", "", &s_);
    Doc pm(r.body);
    json_object* node = pm.get("Object");
    EXPECT_EQ("index_object", str(node, "_Node"));
    EXPECT_EQ("read write create", str(node, "_Attribute"));
    EXPECT_EQ("32", str(node, "_MaxLength"));
    json_object* status = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(node, "Status", &status));
    EXPECT_EQ("read", str(status, "_Attribute"));
    EXPECT_EQ(nullptr, pm.get("oper_status"));

    r = client_->request("GET", "TR181/SupportedDM/Device.WiFi.", "", &s_);
    EXPECT_EQ(std::string::npos, r.body.find("\"Radio\""));
    r = client_->request("GET", "TR181/SupportedDM/Device.WiFi.?first_level_only=false", "", &s_);
    EXPECT_NE(std::string::npos, r.body.find("\"Radio\": { \"_Node\": \"index_object\""));
    r = client_->request("GET", "TR181/SupportedDM/Device.WiFi.SSID.1.SSID", "", &s_);
    EXPECT_EQ(
        "{ \"requested_path\": \"Device.WiFi.SSID.1.SSID\", \"oper_status\": \"Invalid "
        "object\" }",
        r.body);

    r = client_->request("GET", "MethodList", "", &s_);
    EXPECT_EQ(0u, r.body.find("{ \"oper_status\": \"Success\", \"MethodList\": [ "
                              "\"\\/api\\/v1\\/UserLogin\", \"\\/api\\/v1\\/UserLogout\", "
                              "\"\\/api\\/v1\\/MethodList\""))
        << r.body;

    r = client_->request("GET", "APPUICustomization", "", &s_);
    Doc c(r.body);
    EXPECT_EQ("Success", str(c.obj, "oper_status"));
    EXPECT_EQ("OLVEX", str(c.get("APPUICustomList"), "BrandName"));
}

// Paths at the buffer's end: a child path that no longer fits must not name
// its parent again (an endless walk), and the daemon answers on.
TEST_F(Value, PathsAtTheLengthLimitAnswerAndTheDaemonLives) {
    std::string pad(225, '.');
    for (const std::string& tail : {std::string("X_OLVEX_LoginCfg.LogGp."),
                                    std::string("X_OLVEX_LoginCfg.LogGp.?first_level_only=false"),
                                    std::string("NAT.?first_level_only=false")}) {
        std::string path = "Device." + pad + tail;
        path = path.substr(
            0,
            std::min(path.size(), path.find('?') == std::string::npos ? size_t{255} : path.size()));
        Reply r = get(path);
        EXPECT_TRUE(r.ok) << tail;
        EXPECT_EQ(200, r.status) << tail;
    }
    Reply batch = write("PUT", "TR181/Value/MultiObjects",
                        "{\"MultiObjects\":true,\"TR181_Objects\":[{\"object_path\":\"Device." +
                            std::string(225, '.') + "X_OLVEX_LoginCfg.LogGp.\",\"x\":1}]}");
    EXPECT_EQ(200, batch.status);
    // A table as a batch element: written as nothing, read back as no object.
    batch = write("PUT", "TR181/Value/MultiObjects",
                  "{\"MultiObjects\":true,\"TR181_Objects\":[{\"object_path\":"
                  "\"Device.NAT.PortMapping.\",\"Enable\":true}]}");
    EXPECT_EQ(200, batch.status);
    EXPECT_EQ("Success", operStatus(batch));
    EXPECT_EQ("Success", operStatus(get("Device.DeviceInfo.")));
}

// A read answered again unchanged must never hide a change: after each write
// by another process, a toggled output form and a second of uptime, the
// next read shows the new state.
TEST_F(Value, RepeatedReadsShowEveryChangeAtOnce) {
    for (int i = 0; i < 20; ++i) {
        std::string code = "cache-" + std::to_string(i);
        get("Device.DeviceInfo.");  // read once more before the change
        ASSERT_EQ(0, root_->wcfgctl(
                         {"set", "Device.DeviceInfo.", "{\"ProvisioningCode\":\"" + code + "\"}"}));
        EXPECT_NE(std::string::npos, get("Device.DeviceInfo.").body.find(code)) << i;
    }
    // The compact form (SIGUSR2) is a form of its own.
    std::string spaced = get("Device.DeviceInfo.").body;
    daemon_->signal(SIGUSR2);
    std::string compact;
    for (int i = 0; i < 100 && compact.find("\":\"") == std::string::npos; ++i) {
        e2e::sleepMs(10);
        compact = get("Device.DeviceInfo.").body;
    }
    EXPECT_NE(std::string::npos, compact.find("\"oper_status\":\"Success\"")) << compact;
    daemon_->signal(SIGUSR2);
    for (int i = 0; i < 100 && get("Device.DeviceInfo.").body.find("\": \"") == std::string::npos;
         ++i)
        e2e::sleepMs(10);
    // The uptime it shows moves on with the clock.
    auto upTime = [&] {
        Doc d(get("Device.DeviceInfo.").body);
        return atol(str(d.get("Object"), "UpTime").c_str());
    };
    long before = upTime(), after = before;
    for (int i = 0; i < 300 && after == before; ++i) {
        e2e::sleepMs(10);
        after = upTime();
    }
    EXPECT_GT(after, before);
}
