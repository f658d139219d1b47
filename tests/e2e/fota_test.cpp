// The online firmware upgrade through the real daemon against the stand-in
// cloud firmware service on loopback: every answer class of the check with
// the stored summary and outcome code, the version-split rules as the cloud
// receives them, and the upgrade with a good image and each way it must be
// refused (tampered or expired download URL, 204, not a zip, a bad vendor
// signature, a planted archive member, a local file as server URL).
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "base/json_util.h"
#include "fixture.h"
#include "harness.h"

using namespace e2e;

namespace {

const char* kUpgradeObject = "Device.X_OLVEX_PeriodicOnlineFWUpgrade.";
const char* kFactoryVersion = "V1.20(ABCD.7)C0";
const char* kLatest = "V1.21(ABCD.8)C0";

class Fota : public e2e::DaemonTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(cloud.start(root, cloudArgs())) << cloud.err();
        start();
    }
    virtual std::vector<std::string> cloudArgs() const { return {}; }
    Reply check() { return get("FOTA"); }
    Reply upgrade() { return write("POST", "FOTA?action=online", ""); }
    // A member of the periodic-online-upgrade object (wcfgctl), as JSON text.
    std::string field(const std::string& name, const std::string& path = kUpgradeObject) {
        std::string out;
        root.wcfgctl({"get", path}, &out);
        JsonPtr doc(json_tokener_parse(out.c_str()));
        json_object* v = nullptr;
        if (!doc || !json_object_object_get_ex(doc.get(), name.c_str(), &v))
            return "<none>";
        return json_object_get_string(v);
    }
    std::string status() { return field("LastFWUpdateStatus"); }
    std::string journal() {
        std::string out;
        root.wcfgctl({"requests"}, &out);
        return out;
    }
    // Waits for the work after an upgrade's answer: the image check is
    // journaled and both files are gone.
    bool upgradeFinished() {
        for (int i = 0; i < 1000; ++i) {
            if (journal().find("\"req\":\"image_check\"") != std::string::npos &&
                !root.exists("/tmp/firmwareImg.zip") && !root.exists("/tmp/firmwareImg.bin"))
                return true;
            e2e::sleepMs(20);
        }
        return false;
    }
    std::string lastCloudRequest() {
        std::string log = cloud.log();
        size_t end = log.rfind('\n');
        size_t start = log.rfind('\n', end - 1);
        return log.substr(start == std::string::npos ? 0 : start + 1, end - start - 1);
    }

    e2e::Cloud cloud;
};

TEST_F(Fota, CheckForEveryAnswerOfTheService) {
    struct Case {
        const char* mode;
        long http;
        const char* oper;
        const char* code;
        const char* date;  // stored summary ("" when the case stores none)
        const char* description;
        const char* flag;
        bool metaKept;
    };
    const Case cases[] = {
        {"available", 200, "WCFG_SUCCESS", "15", "2024-05-01", "Security", "true", true},
        {"none204", 200, "WCFG_SUCCESS", "10", "N/A", "N/A", "false", true},
        {"bad400", 200, "WCFG_SUCCESS", "10", "N/A", "N/A", "false", true},
        {"partial206", 200, "WCFG_SUCCESS", "15", "2024-05-01", "Security", "true", true},
        {"same", 200, "WCFG_SUCCESS", "15", "2024-02-01", "Initial", "false", true},
        {"error500", 400, "WCFG_INTERNAL_ERROR", "21", "", "", "", true},
        {"empty", 400, "WCFG_INTERNAL_ERROR", "16", "", "", "", false},
        {"nometa", 400, "WCFG_INTERNAL_ERROR", "16", "", "", "", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        knob("cloud.check", c.mode);
        ASSERT_EQ(0, root.wcfgctl({"set", kUpgradeObject,
                                   "{\"ServerURL\":\"" + cloud.url("/check?") + "\"}"}));
        Reply r = check();
        EXPECT_EQ(c.http, r.status) << r.body;
        EXPECT_EQ(c.oper, operStatus(r));
        EXPECT_EQ(c.code, status());
        if (c.date[0]) {
            EXPECT_EQ(kFactoryVersion, field("CurrentFWVersion"));
            EXPECT_EQ(c.date, field("ReleaseDate"));
            EXPECT_EQ(c.description, field("Description"));
            EXPECT_EQ(c.flag, field("NewFWAvailable"));
        }
        // The meta file stays unless it could not be read.
        EXPECT_EQ(c.metaKept, root.exists("/tmp/OLV.meta"));
        // The query: serial, status always 10, version code, date, firmware id.
        std::string line = lastCloudRequest();
        EXPECT_EQ(0u, line.find("GET /check?auth_code=S240Y00012345&status=10&version=7C0&date="))
            << line;
        EXPECT_NE(std::string::npos, line.find("&fwid=ABCD "));
    }
    // The summary is the device's to write: a client cannot.
    Reply r = write("PUT", std::string("TR181/Value/") + kUpgradeObject,
                    "{\"LastFWUpdateStatus\": 15, \"NewFWAvailable\": true}");
    EXPECT_NE("Success", operStatus(r));
    EXPECT_EQ("16", status());
}

TEST_F(Fota, TransferBelowTheLowSpeedLimitIsAbandoned) {
    // A platform second is 10 ms here: the 35 s low-speed window becomes
    // curl's shortest, one second, and the cloud trickles 2.5 bytes a second.
    knob("cloud.check", "slow");
    Reply r = check();
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("WCFG_INTERNAL_ERROR", operStatus(r));
    EXPECT_EQ("21", status());
}

TEST_F(Fota, UpgradeWithAGoodImage) {
    ASSERT_EQ(200, check().status);
    ASSERT_EQ("true", field("NewFWAvailable"));
    Reply r = upgrade();
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("WCFG_SUCCESS", operStatus(r));
    ASSERT_TRUE(upgradeFinished());
    std::string j = journal();
    EXPECT_NE(std::string::npos, j.find("\"req\":\"image_check\""));
    EXPECT_NE(std::string::npos, j.find("\"version\":\"V1.21(ABCD.8)C0\",\"result\":0"));
    EXPECT_EQ("22", status());
    EXPECT_EQ(kLatest, field("SoftwareVersion", "Device.DeviceInfo."));
    // The download carried the cloud's signature verbatim and was served.
    EXPECT_NE(std::string::npos, cloud.log().find("X-Amz-SignedHeaders=host&X-Amz-Date="));
    EXPECT_NE(std::string::npos, lastCloudRequest().find(" 200"));
    // Now running the newest version: nothing newer.
    EXPECT_EQ(200, check().status);
    EXPECT_EQ("10", status());
    EXPECT_EQ("false", field("NewFWAvailable"));
    EXPECT_EQ(kLatest, field("CurrentFWVersion"));
}

TEST_F(Fota, DownloadsTheCloudRefuses) {
    // A signature that does not match, an expired URL, a refusal: answered
    // 400 before anything is unpacked or requested.
    struct Case {
        const char* knobName;
        const char* value;
        int waitMs;
    };
    const Case cases[] = {
        {"cloud.sign", "tamper", 0},
        {"cloud.expires", "1", 2500},
        {"cloud.image", "forbidden403", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        knob(c.knobName, c.value);
        ASSERT_EQ(200, check().status);
        e2e::sleepMs(c.waitMs);
        Reply r = upgrade();
        EXPECT_EQ(400, r.status);
        EXPECT_EQ("WCFG_INTERNAL_ERROR", operStatus(r));
        EXPECT_EQ("15", status());
        EXPECT_NE(std::string::npos, lastCloudRequest().find(" 403")) << lastCloudRequest();
        knob(c.knobName, "");
    }
    EXPECT_EQ("", journal());
    EXPECT_EQ(kFactoryVersion, field("SoftwareVersion", "Device.DeviceInfo."));
}

TEST_F(Fota, ImagesTheDeviceRefuses) {
    // Answered 200 once downloaded; then no upgrade, code 18, both files
    // gone.  An image that is a link to /dev/zero is refused, not read.
    for (const char* mode : {"nocontent204", "notzip", "badimage", "symlink"}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(0, root.wcfgctl({"requests", "--clear"}));
        knob("cloud.image", mode);
        ASSERT_EQ(200, check().status);
        Reply r = upgrade();
        EXPECT_EQ(200, r.status);
        EXPECT_EQ("WCFG_SUCCESS", operStatus(r));
        ASSERT_TRUE(upgradeFinished());
        std::string j = journal();
        EXPECT_NE(std::string::npos, j.find("\"req\":\"image_check\"")) << j;
        EXPECT_EQ(std::string::npos, j.find("\"req\":\"upgrade\"")) << j;
        EXPECT_EQ("18", status());
    }
    EXPECT_EQ(kFactoryVersion, field("SoftwareVersion", "Device.DeviceInfo."));
}

TEST_F(Fota, ArchiveCannotPlantFiles) {
    knob("cloud.image", "extra");
    ASSERT_EQ(200, check().status);
    EXPECT_EQ(200, upgrade().status);
    ASSERT_TRUE(upgradeFinished());
    EXPECT_NE(std::string::npos, journal().find("\"req\":\"upgrade\""));
    EXPECT_FALSE(root.exists("/tmp/planted.txt"));
}

TEST_F(Fota, RefusedRequests) {
    // Without a session key, before any check, with a local file as the
    // server, and on a device without the feature.
    Reply r = Client(port).request("POST", "FOTA?action=online", "", &s);
    EXPECT_EQ(403, r.status);
    EXPECT_EQ("Invalid SessionKey", operStatus(r));
    r = upgrade();
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("WCFG_INTERNAL_ERROR", operStatus(r));
    EXPECT_EQ(std::string::npos, cloud.log().find("/fw/"));

    // Where the device asks is the supervisor's to say: an admin session
    // cannot point it at a server of its own (an old signed image, a probe
    // of the LAN).
    std::string secret = root.path("/etc/shadow");
    std::string fileUrl = "{\"ServerURL\": \"file://" + secret + "?\"}";
    r = write("PUT", std::string("TR181/Value/") + kUpgradeObject, fileUrl);
    EXPECT_EQ("Invalid parameter value", operStatus(r));
    EXPECT_EQ(cloud.url("/check?"), field("ServerURL"));
    // And what the device asks is never a local file.
    ASSERT_EQ(0, root.wcfgctl({"set", kUpgradeObject, fileUrl}));
    r = check();
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("WCFG_INTERNAL_ERROR", operStatus(r));
    EXPECT_EQ("21", status());
    EXPECT_EQ(std::string::npos, root.read("/tmp/OLV.meta").find("admin"));

    ASSERT_EQ(0, root.wcfgctl({"set", kUpgradeObject, "{\"LastFWUpdateStatus\": 0}"}));
    ASSERT_EQ(0, root.wcfgctl({"set", "Device.X_OLVEX_FeatureFlag.", "{\"Flags\": 1}"}));
    std::string before = cloud.log();
    for (Reply x : {check(), upgrade()}) {
        EXPECT_EQ(400, x.status);
        EXPECT_EQ("WCFG_REQUEST_REJECT", operStatus(x));
    }
    EXPECT_EQ(before, cloud.log());
    EXPECT_EQ("0", status());
}

// The device does not verify the cloud's certificate chain (a self-signed
// one is taken) but does check that it names the host asked: a cloud that
// presents another host's certificate is never asked anything.
class FotaCertificate : public Fota {
  protected:
    std::vector<std::string> cloudArgs() const override { return {"--cert-name", "cloud.example"}; }
};

TEST_F(FotaCertificate, ACertificateForAnotherHostIsRefused) {
    Reply r = check();
    EXPECT_EQ(400, r.status);
    EXPECT_EQ("WCFG_INTERNAL_ERROR", operStatus(r));
    EXPECT_EQ("21", status());
    EXPECT_EQ("", cloud.log());
}

TEST_F(Fota, ASelfSignedCertificateNamingTheHostIsTaken) {
    // The cloud's own certificate is self-signed and names localhost as well
    // as 127.0.0.1 (which every other test asks by).
    std::string url = "https://localhost:" + std::to_string(cloud.port());
    ASSERT_EQ(0, root.wcfgctl({"set", kUpgradeObject, "{\"ServerURL\":\"" + url + "/check?\"}"}));
    Reply r = check();
    EXPECT_EQ(200, r.status) << r.body;
    EXPECT_EQ("WCFG_SUCCESS", operStatus(r));
    EXPECT_EQ("15", status());
}

}  // namespace
