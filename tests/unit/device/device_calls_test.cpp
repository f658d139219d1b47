// The data-model operations and the event renderer on the in-memory device:
// what a client's write changes on the device (one write, one journal
// entry), what the schema refuses before the device is asked, and what a
// read or an event shows of what the device holds.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/json_util.h"
#include "datamodel/obj_by_path.h"
#include "datamodel/schema.h"
#include "device/wcfg.h"
#include "events/event_render.h"
#include "fakes/memory_device.h"
#include "unit/test_root.h"

namespace {

class OnTheMemoryDevice : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(unitTestSchema());
        dev_ = std::make_unique<fake::MemoryDevice>();
    }
    static int set(const char* path, const char* values) {
        JsonPtr body(json_tokener_parse(values));
        return wHttpSetTR181ObjByPath(path, body.get(), 1);
    }
    static std::string read(const char* path) {
        json_object* answer = nullptr;
        int rc = wHttpGetTR181ObjByPath(path, 1, 1, &answer);
        JsonPtr owned(answer);
        return rc == 0 && answer ? json_object_to_json_string_ext(answer, 0) : "";
    }
    std::unique_ptr<fake::MemoryDevice> dev_;
};

}  // namespace

TEST_F(OnTheMemoryDevice, ASetIsOneWriteOfTheDeviceAndOneJournalEntry) {
    dev_->put("Device.WiFi.SSID.1.", R"({"Enable": true, "SSID": "home"})");
    EXPECT_EQ(0, set("Device.WiFi.SSID.1.", R"({"SSID": "garden"})"));
    EXPECT_EQ(R"({"Enable":true,"SSID":"garden"})", dev_->at("Device.WiFi.SSID.1."));
    auto journal = dev_->journalEntries();
    ASSERT_EQ(1u, journal.size());
    EXPECT_EQ(wcfg::JournalKind::Change, journal[0].kind);
    EXPECT_EQ("Device.WiFi.SSID.1.", journal[0].path);
}

// A write the schema refuses (a read-only parameter, a path of no object)
// never reaches the device.  Values are the device's to judge (their types
// and ranges): the daemon hands them on.
TEST_F(OnTheMemoryDevice, ARefusedWriteNeverReachesTheDevice) {
    dev_->put("Device.WiFi.SSID.1.", R"({"Enable": true, "SSID": "home"})");
    EXPECT_EQ(WCFG_SET_READ_ONLY_PARAM, set("Device.WiFi.SSID.1.", R"({"Status": "Up"})"));
    EXPECT_NE(0, set("Device.NoSuchThing.1.", R"({"SSID": "x"})"));
    EXPECT_EQ(R"({"Enable":true,"SSID":"home"})", dev_->at("Device.WiFi.SSID.1."));
    EXPECT_TRUE(dev_->journalEntries().empty());
}

TEST_F(OnTheMemoryDevice, AnAddedInstanceIsNamedAndADeleteRemovesIt) {
    char path[256] = "Device.NAT.PortMapping.";
    ASSERT_EQ(0, wHttpAddTR181ObjByPath(path, nullptr, sizeof path));
    EXPECT_STREQ("Device.NAT.PortMapping.1.", path);
    EXPECT_EQ("{}", dev_->at("Device.NAT.PortMapping.1."));
    ASSERT_EQ(0, wHttpDelTR181ObjByPath("Device.NAT.PortMapping.1."));
    EXPECT_EQ("", dev_->at("Device.NAT.PortMapping.1."));
    auto journal = dev_->journalEntries();
    ASSERT_EQ(2u, journal.size());
    EXPECT_EQ(wcfg::JournalKind::Add, journal[0].kind);
    EXPECT_EQ(wcfg::JournalKind::Delete, journal[1].kind);
    EXPECT_EQ("Device.NAT.PortMapping.1.", journal[1].path);
    // A single object is never added.
    char single[256] = "Device.WiFi.";
    EXPECT_NE(0, wHttpAddTR181ObjByPath(single, nullptr, sizeof single));
}

// The pass phrase is written, never read: neither a read nor the event of
// its change shows what the device holds.
TEST_F(OnTheMemoryDevice, NeitherAReadNorAnEventShowsTheWriteOnlyPassPhrase) {
    dev_->put("Device.WiFi.AccessPoint.1.", R"({"Enable": true})");
    dev_->put("Device.WiFi.AccessPoint.1.Security.",
              R"({"ModeEnabled": "WPA2-Personal", "KeyPassphrase": "hunter22"})");
    std::string answer = read("Device.WiFi.AccessPoint.1.Security.");
    EXPECT_NE(std::string::npos, answer.find("WPA2-Personal")) << answer;
    EXPECT_EQ(std::string::npos, answer.find("hunter22")) << answer;
    EXPECT_EQ(0, set("Device.WiFi.AccessPoint.1.Security.", R"({"KeyPassphrase": "swordfish"})"));
    EXPECT_NE(std::string::npos, dev_->at("Device.WiFi.AccessPoint.1.Security.").find("swordfish"));
    std::string event = wHttpEventObjectData("Device.WiFi.AccessPoint.1.Security.", 1);
    EXPECT_NE(std::string::npos, event.find("WPA2-Personal")) << event;
    EXPECT_EQ(std::string::npos, event.find("swordfish")) << event;
    // A path that is no object of the API has no event data.
    EXPECT_EQ("", wHttpEventObjectData("Device.NoSuchThing.", 1));
}
