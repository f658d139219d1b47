// Schema walk, body check, answer trimming and completion, path parsing.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cstring>
#include <memory>
#include <string>

#include "datamodel/path_parse.h"
#include "datamodel/schema.h"
#include "base/json_util.h"

namespace {

const char* const kSchema = R"({
  "Device": {
    "_Node": "object",
    "NAT": {
      "_Node": "object",
      "PortMappingNumberOfEntries": {"_Node": "parameter", "_Type": "uint32", "_Attribute": "read"},
      "PortMapping": {
        "_Node": "index_object", "_MaxLength": 32, "_Attribute": "read write create",
        "Enable": {"_Node": "parameter", "_Type": "boolean", "_Attribute": "read write"},
        "Status": {"_Node": "parameter", "_Type": "string", "_Attribute": "read"},
        "ExternalPort": {"_Node": "parameter", "_Type": "uint32", "_Attribute": "read write"},
        "Offset": {"_Node": "parameter", "_Type": "int32"},
        "Description": {"_Node": "parameter", "_Type": "string", "_Attribute": "read write"}
      }
    },
    "WiFi": {
      "_Node": "object",
      "AccessPoint": {
        "_Node": "index_object", "_MaxLength": 4, "_Attribute": "read",
        "WPS": {"_Node": "object",
                "Enable": {"_Node": "parameter", "_Type": "boolean", "_Attribute": "read write"}},
        "Security": {"_Node": "object",
                "Key": {"_Node": "parameter", "_Type": "string", "_Attribute": "write"}}
      }
    }
  }
})";

class Schema : public ::testing::Test {
  protected:
    void SetUp() override {
        JsonPtr doc(json_tokener_parse(kSchema));
        root_ = wHttpSchemaBuild(doc.get());
    }
    const WSchemaNode* walk(const char* path, std::string* cls = nullptr, int* idx = nullptr,
                            char* last = nullptr, size_t lastSize = 0) {
        char buf[256] = "";
        const WSchemaNode* n =
            wHttpGetSchemaObjIn(root_.get(), path, buf, sizeof buf, last, lastSize, idx);
        if (cls)
            *cls = buf;
        return n;
    }
    const WSchemaNode* node(const char* path) { return walk(path); }
    std::unique_ptr<WSchema> root_;
};

JsonPtr parse(const char* text) {
    return JsonPtr(json_tokener_parse(text));
}

}  // namespace

TEST_F(Schema, WalkGivesClassNameLastNameAndInstanceFlag) {
    std::string cls;
    int idx = -1;
    char last[64] = "";
    const WSchemaNode* n = walk("Device.WiFi.AccessPoint.2.WPS.", &cls, &idx, last, sizeof last);
    ASSERT_NE(nullptr, n);
    EXPECT_STREQ("object", wHttpSchemaNodeKind(n));
    EXPECT_EQ("Device.WiFi.AccessPoint.i.WPS.", cls);
    EXPECT_EQ(0, idx);
    EXPECT_STREQ("WPS", last);

    n = walk("Device.NAT.PortMapping.3.", &cls, &idx);
    ASSERT_NE(nullptr, n);
    EXPECT_STREQ("index_object", wHttpSchemaNodeKind(n));
    EXPECT_EQ("Device.NAT.PortMapping.i.", cls);
    EXPECT_EQ(1, idx);

    // Trailing and doubled dots add nothing; "i" is an instance; 0 passes.
    EXPECT_EQ(n, walk("Device..NAT.PortMapping.i"));
    EXPECT_EQ(n, walk("Device.NAT.PortMapping.0."));
    EXPECT_EQ(n, walk("Device.NAT.PortMapping.32."));
    EXPECT_EQ(nullptr, walk("Device.NAT.PortMapping.33."));
    EXPECT_EQ(nullptr, walk("Device.WiFi.AccessPoint.99999999999999999999.WPS."));
    EXPECT_EQ(nullptr, walk("Other.NAT."));
    EXPECT_EQ(nullptr, walk("Device.NAT.Nothing."));

    // A parameter ends the class name without a dot.
    n = walk("Device.NAT.PortMapping.1.Enable", &cls, &idx);
    ASSERT_NE(nullptr, n);
    EXPECT_EQ("Device.NAT.PortMapping.i.Enable", cls);

    // A short last-name buffer keeps size - 1 characters.
    char shortBuf[8];
    walk("Device.NAT.PortMapping.", nullptr, nullptr, shortBuf, sizeof shortBuf);
    EXPECT_STREQ("PortMap", shortBuf);

    // A class-name buffer is never overrun.
    char tiny[10] = "";
    wHttpGetSchemaObjIn(root_.get(), "Device.NAT.PortMapping.", tiny, sizeof tiny, nullptr, 0,
                        nullptr);
    EXPECT_STREQ("Device.NA", tiny);
}

TEST_F(Schema, BodyCheckJudgesOnlyTheFirstMember) {
    const WSchemaNode* pm = node("Device.NAT.PortMapping.");
    EXPECT_EQ(0, wHttpSchemaCheckBody(pm, parse(R"({"Enable":true,"Bogus":1})").get()));
    EXPECT_EQ(-14, wHttpSchemaCheckBody(pm, parse(R"({"Bogus":1,"Enable":true})").get()));
    EXPECT_EQ(-13, wHttpSchemaCheckBody(pm, parse(R"({"Status":"x"})").get()));
    EXPECT_EQ(0, wHttpSchemaCheckBody(pm, parse(R"({"Offset":-1})").get()));  // no _Attribute
    EXPECT_EQ(0, wHttpSchemaCheckBody(pm, parse(R"({"ExternalPort":"not a number"})").get()));
    EXPECT_EQ(0, wHttpSchemaCheckBody(pm, parse("{}").get()));
    // An object member is no parameter.
    EXPECT_EQ(-14, wHttpSchemaCheckBody(node("Device.NAT."), parse(R"({"PortMapping":{}})").get()));
}

TEST_F(Schema, AnswersCarryExactlyTheSchemasParameters) {
    const WSchemaNode* pm = node("Device.NAT.PortMapping.");
    JsonPtr answer = parse(R"({"Status":"Up","Extra":1,"Sub":{"a":1},"Cyber_Security_FSC":false})");
    wHttpSchemaTrimAnswer(pm, answer.get());
    wHttpSchemaCompleteAnswer(pm, answer.get());
    EXPECT_STREQ(R"({"Status":"Up","Enable":"","ExternalPort":0,"Offset":0,"Description":""})",
                 json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN));
}

// A parameter that may be written but not read (a pass phrase) is taken in
// a body and never shown in an answer.
TEST_F(Schema, AWriteOnlyParameterIsNeverShown) {
    const WSchemaNode* security = node("Device.WiFi.AccessPoint.1.Security.");
    ASSERT_NE(nullptr, security);
    EXPECT_EQ(0, wHttpSchemaCheckBody(security, parse(R"({"Key":"secret"})").get()));
    JsonPtr answer = parse(R"({"Key":"the-secret"})");
    wHttpSchemaTrimAnswer(security, answer.get());
    wHttpSchemaCompleteAnswer(security, answer.get());
    EXPECT_STREQ("{}", json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN));
}

TEST_F(Schema, TablesAndTheirBounds) {
    EXPECT_TRUE(wHttpSchemaCreatable(node("Device.NAT.PortMapping.")));
    EXPECT_FALSE(wHttpSchemaCreatable(node("Device.WiFi.AccessPoint.")));  // read only
    EXPECT_FALSE(wHttpSchemaCreatable(node("Device.NAT.")));               // no table
    EXPECT_EQ(32, wHttpSchemaTableBound(node("Device.NAT.PortMapping."), 256));
    EXPECT_EQ(256, wHttpSchemaTableBound(node("Device.NAT."), 256));
}

// The compact form gives back the document as it was read: every member in
// its order, values of any type, keys the daemon does not know.
TEST(SchemaDocument, TheDocumentComesBackAsItWasRead) {
    const char* text =
        R"({"Device":{"_Node":"object","_Description":"a \"quoted\" \u00e9 text",)"
        R"("B":{"_Node":"parameter","_Type":"string","_Range":[1,2.50,{"x":null}]},)"
        R"("A":{"_Node":"parameter","_Type":"int32","_Attribute":7},"N":null,"F":1.0e3,)"
        R"("T":{"_Node":"index_object","_MaxLength":"3","_Attribute":"create"},)"
        R"("U":{"_Node":"index_object","_MaxLength":null,"_Attribute":null}}})";
    JsonPtr doc(json_tokener_parse(text));
    ASSERT_TRUE(doc);
    std::unique_ptr<WSchema> s = wHttpSchemaBuild(doc.get());
    JsonPtr back(wHttpSchemaToJson(&s->nodes.front()));
    EXPECT_STREQ(json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PLAIN),
                 json_object_to_json_string_ext(back.get(), JSON_C_TO_STRING_PLAIN));

    // A null member is not there; a plain member is found but is no object.
    EXPECT_EQ(nullptr, wHttpGetSchemaObjIn(s.get(), "Device.N", nullptr, 0, nullptr, 0, nullptr));
    const WSchemaNode* kind =
        wHttpGetSchemaObjIn(s.get(), "Device._Node", nullptr, 0, nullptr, 0, nullptr);
    ASSERT_NE(nullptr, kind);
    EXPECT_STREQ("", wHttpSchemaNodeKind(kind));
    EXPECT_EQ(0u, wHttpSchemaChildCount(kind));
    EXPECT_EQ(nullptr,
              wHttpGetSchemaObjIn(s.get(), "Device._Node.x", nullptr, 0, nullptr, 0, nullptr));
    // A non-text attribute is judged by its text; a bound given as text counts.
    const WSchemaNode* device =
        wHttpGetSchemaObjIn(s.get(), "Device.", nullptr, 0, nullptr, 0, nullptr);
    EXPECT_EQ(-13, wHttpSchemaCheckBody(device, JsonPtr(json_tokener_parse(R"({"A":1})")).get()));
    const WSchemaNode* table =
        wHttpGetSchemaObjIn(s.get(), "Device.T.", nullptr, 0, nullptr, 0, nullptr);
    EXPECT_EQ(3, wHttpSchemaTableBound(table, 256));
    EXPECT_NE(nullptr,
              wHttpGetSchemaObjIn(s.get(), "Device.T.3.", nullptr, 0, nullptr, 0, nullptr));
    EXPECT_EQ(nullptr,
              wHttpGetSchemaObjIn(s.get(), "Device.T.4.", nullptr, 0, nullptr, 0, nullptr));
    // A null bound lists nothing but limits no instance number; a null
    // attribute makes no table creatable.
    const WSchemaNode* nulls =
        wHttpGetSchemaObjIn(s.get(), "Device.U.", nullptr, 0, nullptr, 0, nullptr);
    EXPECT_EQ(0, wHttpSchemaTableBound(nulls, 256));
    EXPECT_NE(nullptr,
              wHttpGetSchemaObjIn(s.get(), "Device.U.9.", nullptr, 0, nullptr, 0, nullptr));
    EXPECT_FALSE(wHttpSchemaCreatable(nulls));
    // Members are found by key whatever their order in the document.
    JsonPtr answer(json_tokener_parse(R"({"A":5,"B":"x","F":1,"Z":2})"));
    wHttpSchemaTrimAnswer(device, answer.get());
    EXPECT_STREQ(R"({"A":5,"B":"x"})",
                 json_object_to_json_string_ext(answer.get(), JSON_C_TO_STRING_PLAIN));
}

TEST(PathParse, PathsFlagsAndMarkers) {
    char path[256] = "";
    int flag = 7;
    EXPECT_EQ(0, wHttpParseTR181PathText("/api/v1/TR181/Value/Device.WiFi.SSID.1.", nullptr, path,
                                         &flag));
    EXPECT_STREQ("Device.WiFi.SSID.1.", path);
    EXPECT_EQ(1, flag);
    for (const char* v : {"FALSE", "false", "False"}) {
        memset(path, 0, sizeof path);
        EXPECT_EQ(0, wHttpParseTR181PathText("/x/Device.A.?first_level_only=x", v, path, &flag));
        EXPECT_STREQ("Device.A.", path);
        EXPECT_EQ(0, flag) << v;
    }
    for (const char* v : {"true", "0", "no", ""}) {
        EXPECT_EQ(0, wHttpParseTR181PathText("/x/Device.A.", v, path, &flag));
        EXPECT_EQ(1, flag) << v;
    }
    memset(path, 0, sizeof path);
    EXPECT_EQ(-18, wHttpParseTR181PathText("/api/v1/TR181/Value/Device.WiFi.SSID.1.SSID", nullptr,
                                           path, &flag));
    EXPECT_STREQ("Device.WiFi.SSID.1.SSID", path);
    memset(path, 0, sizeof path);
    flag = 5;
    EXPECT_EQ(0, wHttpParseTR181PathText("/api/v1/TR181/Value/MultiObjects?sessionkey=1", nullptr,
                                         path, &flag));
    EXPECT_STREQ("MultiObjects", path);
    EXPECT_EQ(5, flag);
    EXPECT_EQ(-18, wHttpParseTR181PathText("/api/v1/TR181/Value/Foo.", nullptr, path, &flag));
    // No percent-decoding: the path is taken byte for byte.
    memset(path, 0, sizeof path);
    EXPECT_EQ(0, wHttpParseTR181PathText("/v/Device.A%2E.", nullptr, path, nullptr));
    EXPECT_STREQ("Device.A%2E.", path);
    // Cut to 255 characters before the test of the last one.
    std::string longPath = "/v/Device." + std::string(300, 'a') + ".";
    memset(path, 0, sizeof path);
    EXPECT_EQ(-18, wHttpParseTR181PathText(longPath.c_str(), nullptr, path, nullptr));
    EXPECT_EQ(255u, strlen(path));
}

TEST(PathParse, Bodies) {
    json_object* out = nullptr;
    EXPECT_EQ(-8, wHttpParseTR181ObjectText(nullptr, "{\"a\":1}", &out));
    EXPECT_EQ(-8, wHttpParseTR181ObjectText("0", "{\"a\":1}", &out));
    EXPECT_EQ(-8, wHttpParseTR181ObjectText("7", nullptr, &out));
    for (const char* b : {"{}", "[]", "undefined", "{\"a\":", "nonsense"})
        EXPECT_EQ(-8, wHttpParseTR181ObjectText("9", b, &out)) << b;
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(0, wHttpParseTR181ObjectText("3", " {}", &out));
    ASSERT_NE(nullptr, out);
    json_object_put(out);
    out = nullptr;
    EXPECT_EQ(0, wHttpParseTR181ObjectText("12", "[{\"a\":1}]", &out));
    EXPECT_TRUE(json_object_is_type(out, json_type_array));
    json_object_put(out);
}
