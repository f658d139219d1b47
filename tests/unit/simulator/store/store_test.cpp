// The configuration service as the daemon relies on it: path resolution,
// gaps and ends of tables, walks, writes, adds, deletes, the account editor
// and the firmware image check.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "device/dm_def.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "simulator/standins/firmware_image.h"
#include "simulator/standins/standin.h"
#include "device/wcfg.h"
#include "simulator/store/store.h"
#include "unit/simulator/store/store_helpers.h"
#include "unit/test_root.h"

namespace {

int32_t oidOf(const char* name) {
    return wdm::model().idOf(name);
}

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unitTestRoot();
        ASSERT_EQ(0, wcfg::Store::instance().resetToDefaults());
    }
    static objIndex_t rec(std::initializer_list<int> idx) {
        objIndex_t r{};
        for (int i : idx)
            r.idx[r.level++] = static_cast<uint8_t>(i);
        return r;
    }
    static int set(const char* path, const char* json) { return storeSet(path, json); }
    static std::string get(const char* path, const char* key) { return storeGet(path, key); }
};

}  // namespace

TEST_F(StoreTest, PathResolution) {
    objIndex_t iid;
    EXPECT_EQ(oidOf("RDM_OID_NAT_PORT_MAPPING"),
              wcfgFeObjNameToObjId("Device.NAT.PortMapping.3.", &iid));
    EXPECT_EQ(1, iid.level);
    EXPECT_EQ(3, iid.idx[0]);
    EXPECT_EQ(oidOf("RDM_OID_NAT_PORT_MAPPING"),
              wcfgFeObjNameToObjId("Device.NAT.PortMapping.i", &iid));
    EXPECT_EQ(1, iid.level);
    EXPECT_EQ(0, iid.idx[0]);
    EXPECT_EQ(oidOf("RDM_OID_NAT_PORT_MAPPING"),
              wcfgFeObjNameToObjId("Device.NAT.PortMapping.", &iid));
    EXPECT_EQ(0, iid.level);
    EXPECT_EQ(oidOf("RDM_OID_IP_IFACE"), wcfgFeObjNameToObjId("IP.Interface.2", &iid));
    EXPECT_EQ(2, iid.idx[0]);
    EXPECT_EQ(oidOf("RDM_OID_WIFI_ACCESS_POINT_WPS"),
              wcfgFeObjNameToObjId("Device.WiFi.AccessPoint.2.WPS.", &iid));
    EXPECT_EQ(1, iid.level);
    EXPECT_EQ(oidOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT"),
              wcfgFeObjNameToObjId("Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.", &iid));
    EXPECT_EQ(2, iid.level);
    EXPECT_EQ(2, iid.idx[0]);
    EXPECT_EQ(1, iid.idx[1]);
    for (const char* bad :
         {"Device.DeviceInfo.WanInfo.", "Device.NAT.1.", "Device.NAT.PortMapping.256.",
          "Device.Bogus.", "Device.NAT.PortMapping.Enable.", "", "Device.WiFi.Radio.1.2."})
        EXPECT_LT(wcfgFeObjNameToObjId(bad, &iid), 0) << bad;
}

TEST_F(StoreTest, GapsEndsAndWalks) {
    int32_t pm = oidOf("RDM_OID_NAT_PORT_MAPPING");
    objIndex_t a = rec({0}), b = rec({0});
    ASSERT_EQ(0, wcfgFeObjJsonAdd(pm, &a, nullptr));
    ASSERT_EQ(0, wcfgFeObjJsonAdd(pm, &b, nullptr));
    EXPECT_EQ(2, a.idx[0]);
    EXPECT_EQ(3, b.idx[0]);
    ASSERT_EQ(0, wcfgFeObjJsonDel(pm, &a, nullptr));
    json_object* o = nullptr;
    objIndex_t r = rec({2});
    EXPECT_EQ(WCFG_NO_SUCH_OBJECT, wcfgFeObjJsonGet(pm, &r, &o));  // a gap below instance 3
    r = rec({4});
    EXPECT_EQ(WCFG_NO_MORE_INSTANCE, wcfgFeObjJsonGet(pm, &r, &o));  // past the last one
    r = rec({9, 1});
    EXPECT_EQ(WCFG_NOT_FOUND, wcfgFeObjJsonGet(oidOf("RDM_OID_IP_IFACE_V4_ADDR"), &r, &o));
    r = rec({});
    EXPECT_EQ(WCFG_NOT_INSTANCE, wcfgFeObjJsonGet(pm, &r, &o));
    // A new instance after a delete takes the next number, not the gap.
    objIndex_t c = rec({0});
    ASSERT_EQ(0, wcfgFeObjJsonAdd(pm, &c, nullptr));
    EXPECT_EQ(4, c.idx[0]);

    // Walks: every account in order, then the end.
    int32_t acc = oidOf("RDM_OID_VX_LOG_CFG_GP_ACCOUNT");
    objIndex_t w{};
    std::string names;
    while (wcfgFeObjJsonGetNext(acc, &w, &o) == WCFG_SUCCESS) {
        JsonPtr owned(o);
        json_object* n = nullptr;
        json_object_object_get_ex(o, "Username", &n);
        names += std::to_string(w.idx[0]) + "." + std::to_string(w.idx[1]) + "=" +
                 json_object_get_string(n) + " ";
    }
    EXPECT_EQ("1.1=supervisor 2.1=admin 3.1=user ", names);
    // From a parent record: its first child.
    w = rec({2});
    ASSERT_EQ(0, wcfgFeObjJsonGetNextWithoutUpdate(acc, &w, &o));
    json_object_put(o);
    EXPECT_EQ(2, w.level);
    EXPECT_EQ(2, w.idx[0]);
    // A single object is handed out once.
    objIndex_t s{};
    int32_t di = oidOf("RDM_OID_DEV_INFO");
    ASSERT_EQ(0, wcfgFeObjJsonGetNext(di, &s, &o));
    json_object_put(o);
    EXPECT_EQ(WCFG_NO_MORE_INSTANCE, wcfgFeObjJsonGetNext(di, &s, &o));
}

TEST_F(StoreTest, WritesAreValidatedAndAllOrNothing) {
    EXPECT_EQ(WCFG_NO_SUCH_PARAMETER, set("Device.NAT.PortMapping.1.", R"({"Bogus": 1})"));
    EXPECT_EQ(WCFG_SET_READ_ONLY_PARAM, set("Device.NAT.PortMapping.1.", R"({"Status": "Error"})"));
    // An unchanged read-only value written back with the rest is accepted.
    EXPECT_EQ(0,
              set("Device.NAT.PortMapping.1.", R"({"Status": "Enabled", "Description": "web2"})"));
    EXPECT_EQ("\"web2\"", get("Device.NAT.PortMapping.1.", "Description"));
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE,
              set("Device.NAT.PortMapping.1.", R"({"ExternalPort": 1, "InternalPort": 70000})"));
    EXPECT_EQ("8080", get("Device.NAT.PortMapping.1.", "ExternalPort"));
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE,
              set("Device.NAT.PortMapping.1.", R"({"Protocol": "SCTP"})"));
    EXPECT_EQ(WCFG_ERROR_PARAMETER_TYPE,
              set("Device.NAT.PortMapping.1.", R"({"ExternalPort": "x"})"));
    EXPECT_EQ(WCFG_INVALID_PARAM_VALUE_LENGTH,
              set("Device.WiFi.SSID.1.", R"({"SSID": "0123456789012345678901234567890123"})"));
    EXPECT_EQ(0, set("Device.NAT.PortMapping.1.", R"({"Enable": "false", "ExternalPort": "81"})"));
    EXPECT_EQ("false", get("Device.NAT.PortMapping.1.", "Enable"));
    EXPECT_EQ("81", get("Device.NAT.PortMapping.1.", "ExternalPort"));
    EXPECT_EQ("<none>", get("Device.NAT.PortMapping.7.", "Enable"));
    EXPECT_EQ(WCFG_NO_SUCH_OBJECT, set("Device.NAT.PortMapping.7.", R"({"Enable": true})"));
    // Counted, not stored.
    EXPECT_EQ("1", get("Device.NAT.", "PortMappingNumberOfEntries"));
}

TEST_F(StoreTest, AddAndDeleteRules) {
    int32_t pm = oidOf("RDM_OID_NAT_PORT_MAPPING");
    int added = 1;
    for (;; ++added) {
        objIndex_t r = rec({0});
        int rc = wcfgFeObjJsonAdd(pm, &r, nullptr);
        if (rc) {
            EXPECT_EQ(WCFG_EXCEED_MAX_INS_NUM, rc);
            break;
        }
    }
    EXPECT_EQ(32, added);
    objIndex_t r = rec({0});
    EXPECT_EQ(WCFG_INS_CREATE_ERR, wcfgFeObjJsonAdd(oidOf("RDM_OID_WIFI_RADIO"), &r, nullptr));
    r = rec({1});
    EXPECT_EQ(WCFG_DELETE_REJECT, wcfgFeObjJsonDel(oidOf("RDM_OID_WIFI_RADIO"), &r, nullptr));
    r = rec({});
    EXPECT_EQ(WCFG_INS_CREATE_ERR, wcfgFeObjJsonDel(oidOf("RDM_OID_DEV_INFO"), &r, nullptr));
    EXPECT_EQ(WCFG_INVALID_OBJECT, wcfgFeObjJsonDel(-5, &r, nullptr));
    // Deleting an access point takes its sub-objects with it; a new one gets
    // fresh ones.
    r = rec({4});
    ASSERT_EQ(0, wcfgFeObjJsonDel(oidOf("RDM_OID_WIFI_ACCESS_POINT"), &r, nullptr));
    EXPECT_EQ("<none>", get("Device.WiFi.AccessPoint.4.WPS.", "Enable"));
    r = rec({0});
    ASSERT_EQ(0, wcfgFeObjJsonAdd(oidOf("RDM_OID_WIFI_ACCESS_POINT"), &r, nullptr));
    EXPECT_EQ(5, r.idx[0]);
    EXPECT_EQ("true", get("Device.WiFi.AccessPoint.5.WPS.", "Enable"));
    EXPECT_EQ(2, wcfgFeDalGetOpertaionMode() + 2);
}

TEST_F(StoreTest, AccountEditor) {
    auto edit = [](const char* oldUser, const char* oldPw, const char* newUser, const char* pw,
                   const char* verify, std::string& reply) {
        JsonPtr req(json_object_new_object());
        json_object_object_add(req.get(), "Username", json_object_new_string(oldUser));
        json_object_object_add(req.get(), "new_Username", json_object_new_string(newUser));
        json_object_object_add(req.get(), "Password", json_object_new_string(pw));
        json_object_object_add(req.get(), "verifyNewpassword", json_object_new_string(verify));
        json_object_object_add(req.get(), "oldPw", json_object_new_string(oldPw));
        json_object_object_add(req.get(), "DAL_LOGIN_LEVEL", json_object_new_string("high"));
        char buf[128];
        memset(buf, 0, sizeof buf);
        int rc = wcfgFeDal_User_Account_Edit(req.get(), buf, sizeof buf);
        reply = buf;
        return rc;
    };
    std::string reply;
    // An unknown user and a wrong password are answered alike.
    EXPECT_NE(0, edit("nobody", "x", "y", "abcd1234", "abcd1234", reply));
    EXPECT_EQ(WCFG_DAL_BAD_CREDENTIALS, reply);
    EXPECT_NE(0, edit("admin", "wrong", "admin", "abcd1234", "abcd1234", reply));
    EXPECT_EQ(WCFG_DAL_BAD_CREDENTIALS, reply);
    EXPECT_NE(0, edit("admin", "1234abcd", "admin", "abcd1234", "abcd12345", reply));
    EXPECT_EQ("New passwords do not match", reply);
    EXPECT_NE(0, edit("admin", "1234abcd", "admin", "short1", "short1", reply));
    EXPECT_EQ(0u, reply.find("Password must be 8 to 63 printable characters"));
    EXPECT_NE(0, edit("admin", "1234abcd", "bad name", "abcd12345", "abcd12345", reply));
    EXPECT_EQ("Invalid username", reply);
    EXPECT_NE(0, edit("admin", "1234abcd", "user", "abcd12345", "abcd12345", reply));
    EXPECT_EQ("Username already exists", reply);
    EXPECT_EQ(0, vxUtilAuthUserAccount("admin", "1234abcd"));
    ASSERT_EQ(0, edit("admin", "1234abcd", "owner", "n3wPassword", "n3wPassword", reply));
    EXPECT_EQ(0, vxUtilAuthUserAccount("owner", "n3wPassword"));
    EXPECT_EQ(2, vxUtilAuthUserAccount("owner", "1234abcd"));
    EXPECT_EQ(1, vxUtilAuthUserAccount("admin", "1234abcd"));
    EXPECT_EQ("\"owner\"", get("Device.X_OLVEX_LoginCfg.LogGp.2.Account.1.", "Username"));
}

TEST_F(StoreTest, FirmwareImageCheck) {
    std::string good = platformPath("/tmp/good.bin");
    std::ofstream(good, std::ios::binary)
        << standin::makeImage("NX5150", "V1.21(ABCD.8)C0", "payload");
    std::string version;
    EXPECT_EQ(0, standin::checkImage(good, "NX5150", &version));
    EXPECT_EQ("V1.21(ABCD.8)C0", version);
    EXPECT_EQ(0, wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, good.c_str()));
    std::string bad = platformPath("/tmp/bad.bin");
    std::string img = standin::makeImage("NX5150", "V1.21(ABCD.8)C0", "payload");
    // One flipped bit anywhere: in the signature, the body, the version.
    for (size_t at : {img.size() - 1, img.size() - 70, size_t{30}}) {
        std::string flipped = img;
        flipped[at] ^= 1;
        std::ofstream(bad, std::ios::binary | std::ios::trunc) << flipped;
        EXPECT_EQ(WCFG_INVALID_IMAGE, wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, bad.c_str())) << at;
    }
    // Cut short, a length field that lies, no model to match, a link.
    std::string version2;
    EXPECT_EQ(WCFG_INVALID_IMAGE,
              standin::checkImageBytes(img.substr(0, 150), "NX5150", &version2));
    std::string lying = img;
    lying[56] ^= 1;
    EXPECT_EQ(WCFG_INVALID_IMAGE, standin::checkImageBytes(lying, "NX5150", &version2));
    EXPECT_EQ(WCFG_INVALID_IMAGE, standin::checkImageBytes(img, "", &version2));
    EXPECT_EQ(0, standin::checkImageBytes(img, "NX5150", &version2));
    std::string link = platformPath("/tmp/link.bin");
    unlink(link.c_str());
    ASSERT_EQ(0, symlink(good.c_str(), link.c_str()));
    EXPECT_EQ(WCFG_INVALID_IMAGE, wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, link.c_str()));
    // A sound image signed by another key.
    std::string otherKey = platformPath("/tmp/other.pem");
    {
        std::string saved = platformPath(standin::kImagePrivateKey);
        std::string pub = platformPath(standin::kImagePublicKey);
        std::string savedPub = pub + ".saved";
        ASSERT_EQ(0, rename(saved.c_str(), (saved + ".saved").c_str()));
        ASSERT_EQ(0, rename(pub.c_str(), savedPub.c_str()));
        ASSERT_TRUE(standin::createImageKeys());
        ASSERT_EQ(0, rename(saved.c_str(), otherKey.c_str()));
        ASSERT_EQ(0, rename((saved + ".saved").c_str(), saved.c_str()));
        ASSERT_EQ(0, rename(savedPub.c_str(), pub.c_str()));
    }
    std::ofstream(bad, std::ios::binary | std::ios::trunc)
        << standin::makeImage("NX5150", "V1.21(ABCD.8)C0", "payload", otherKey);
    EXPECT_EQ(WCFG_INVALID_IMAGE, wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, bad.c_str()));
    std::ofstream(bad, std::ios::binary | std::ios::trunc)
        << standin::makeImage("NX9999", "V1", "payload");
    EXPECT_EQ(WCFG_INVALID_IMAGE, wcfgFeReqSend(WCFG_REQ_UPGRADE, bad.c_str()));
    EXPECT_EQ(WCFG_INVALID_IMAGE,
              wcfgFeReqSend(WCFG_REQ_IMAGE_CHECK, platformPath("/tmp/none.bin").c_str()));
    EXPECT_EQ(0, wcfgFeReqSend(WCFG_REQ_UPGRADE, good.c_str()));
    EXPECT_EQ("\"V1.21(ABCD.8)C0\"", get("Device.DeviceInfo.", "SoftwareVersion"));
    EXPECT_EQ(0, wcfgFeReqSend(WCFG_REQ_REBOOT, nullptr));
    std::ifstream journal(standin::journalPath());
    std::string all((std::istreambuf_iterator<char>(journal)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, all.find("\"req\":\"upgrade\",\"image\""));
    EXPECT_NE(std::string::npos, all.find("\"req\":\"reboot\""));
}
