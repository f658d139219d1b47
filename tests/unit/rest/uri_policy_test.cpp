// The URI table and the policy the request entry applies from it: which row
// a name falls to, which checks come first, what a method the row does not
// answer gets, and which writes take the data-model mutex.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rest/whttpd_rest.h"

namespace {

std::vector<std::string> rowNames() {
    std::vector<std::string> names;
    for (const WHttpUriRow* row = gRestUriTable; row->name; ++row)
        names.push_back(row->name);
    return names;
}

std::string rowOf(const char* name) {
    const WHttpUriRow* row = wHttpFindUriRow(name);
    return row ? row->name : "(none)";
}

}  // namespace

// The rows in their order: the order decides which row a name falls to.
TEST(UriTable, RowsInOrderAndTheMethodListFollowsThem) {
    std::vector<std::string> want = {"UserLogin",
                                     "UserLogout",
                                     "MethodList",
                                     "Reboot",
                                     "MeshReboot",
                                     "MeshResetAllSetting",
                                     "UserUpdate",
                                     "APPUICustomization",
                                     "TR181/Value/",
                                     "TR181/Value/MultiObjects",
                                     "TR181/SupportedDM/",
                                     "FOTA?action=online",
                                     "FOTA",
                                     "Events"};
    EXPECT_EQ(want, rowNames());
    json_object* list = wHttpMethodList();
    ASSERT_EQ(want.size(), json_object_array_length(list));
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_EQ("/api/v1/" + want[i], json_object_get_string(json_object_array_get_idx(list, i)));
    json_object_put(list);
}

TEST(UriTable, ANameFallsToTheFirstRowItBeginsWith) {
    EXPECT_EQ("TR181/Value/", rowOf("TR181/Value/Device.WiFi."));
    // MultiObjects falls to the row before it, which has the same handler.
    EXPECT_EQ("TR181/Value/", rowOf("TR181/Value/MultiObjects"));
    EXPECT_EQ(wHttpFindUriRow("TR181/Value/")->handler,
              wHttpFindUriRow("TR181/Value/MultiObjects")->handler);
    EXPECT_EQ("FOTA?action=online", rowOf("FOTA?action=online&x=1"));
    EXPECT_EQ("FOTA", rowOf("FOTA?action=offline"));
    EXPECT_EQ("UserLogin", rowOf("UserLoginNow"));
    EXPECT_EQ("MeshReboot", rowOf("MeshRebootAll"));
    EXPECT_EQ("(none)", rowOf("userlogin"));  // compared as it is written
    EXPECT_EQ("(none)", rowOf("TR181/Value"));
    EXPECT_EQ("(none)", rowOf(""));
}

// Only UserLogin, by its exact name, skips the login check; everything else
// (a longer name that falls to it, an unknown name) is checked first.
TEST(UriPolicy, OnlyTheExactLoginNameSkipsTheLoginCheck) {
    for (const char* m : {"GET", "POST", "PUT", "DELETE", "PATCH"}) {
        EXPECT_FALSE(wHttpUriPolicyOf("UserLogin", m).loginCheck) << m;
        EXPECT_FALSE(wHttpUriPolicyOf("UserLogin", m).keyNeeded) << m;
    }
    EXPECT_TRUE(wHttpUriPolicyOf("UserLoginNow", "POST").loginCheck);
    EXPECT_TRUE(wHttpUriPolicyOf("UserLoginNow", "POST").keyNeeded);
    EXPECT_TRUE(wHttpUriPolicyOf("NoSuchThing", "GET").loginCheck);
    EXPECT_EQ(nullptr, wHttpUriPolicyOf("NoSuchThing", "GET").row);
}

// A write needs the session's key on every row, an unknown name included; a
// read never does, nor does any write of a row that only reads.
TEST(UriPolicy, WritesNeedTheKeyReadsAndReadOnlyRowsDoNot) {
    for (const std::string& name : rowNames()) {
        if (name == "UserLogin")
            continue;
        for (const char* m : {"PUT", "POST", "DELETE"}) {
            EXPECT_EQ(name != "Events", wHttpUriPolicyOf(name.c_str(), m).keyNeeded)
                << name << " " << m;
        }
        for (const char* m : {"GET", "HEAD", "PATCH", "get"}) {
            EXPECT_FALSE(wHttpUriPolicyOf(name.c_str(), m).keyNeeded) << name << " " << m;
        }
    }
    EXPECT_TRUE(wHttpUriPolicyOf("NoSuchThing", "DELETE").keyNeeded);
}

// A device action acts on POST and PUT with the key; GET, DELETE and any
// other method are refused as a bad key, whatever key they carry.
TEST(UriPolicy, DeviceActionsActOnlyOnPostAndPut) {
    for (const char* name : {"Reboot", "MeshReboot", "MeshResetAllSetting"}) {
        for (const char* m : {"POST", "PUT"}) {
            WHttpUriPolicy p = wHttpUriPolicyOf(name, m);
            EXPECT_FALSE(p.keyRefused) << name << " " << m;
            EXPECT_TRUE(p.keyNeeded) << name << " " << m;
            EXPECT_FALSE(p.otherMethod) << name << " " << m;
        }
        for (const char* m : {"GET", "DELETE", "PATCH"}) {
            EXPECT_TRUE(wHttpUriPolicyOf(name, m).keyRefused) << name << " " << m;
        }
    }
    EXPECT_FALSE(wHttpUriPolicyOf("UserUpdate", "DELETE").keyRefused);
}

// What a method the handler does not answer gets, row by row.
TEST(UriPolicy, MethodsARowDoesNotAnswer) {
    struct Case {
        const char* name;
        const char* method;
        bool other;
        WHttpOtherMethod how;
    } cases[] = {
        {"MethodList", "POST", true, WHttpOtherMethod::Unanswered},
        {"APPUICustomization", "PUT", true, WHttpOtherMethod::Unanswered},
        {"TR181/Value/Device.", "PATCH", true, WHttpOtherMethod::InvalidMethod},
        {"TR181/Value/Device.", "DELETE", false, WHttpOtherMethod::InvalidMethod},
        {"Events?path=Device.", "POST", true, WHttpOtherMethod::InvalidMethod},
        {"Reboot", "DELETE", true, WHttpOtherMethod::InvalidKey},
        {"UserUpdate", "PATCH", false, WHttpOtherMethod::Unanswered},
        {"FOTA", "DELETE", false, WHttpOtherMethod::Unanswered},
    };
    for (const Case& c : cases) {
        WHttpUriPolicy p = wHttpUriPolicyOf(c.name, c.method);
        ASSERT_NE(nullptr, p.row) << c.name;
        EXPECT_EQ(c.other, p.otherMethod) << c.name << " " << c.method;
        if (c.other) {
            EXPECT_EQ(c.how, p.row->otherMethod) << c.name << " " << c.method;
        }
    }
}

// Writes of the value rows run under the data-model mutex; reads, and
// writes of every other row, do not.
TEST(UriPolicy, OnlyValueWritesTakeTheDataModelMutex) {
    for (const std::string& name : rowNames()) {
        for (const char* m : {"GET", "PUT", "POST", "DELETE", "PATCH"}) {
            bool value = name.rfind("TR181/Value/", 0) == 0;
            bool write =
                std::string(m) == "PUT" || std::string(m) == "POST" || std::string(m) == "DELETE";
            EXPECT_EQ(value && write, wHttpUriPolicyOf(name.c_str(), m).dataModelLock)
                << name << " " << m;
        }
    }
}
