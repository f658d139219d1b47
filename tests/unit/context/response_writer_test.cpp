// Response documents: HTML encoding, "oper_status" texts and the object-id
// name table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "datamodel/oid_names.h"
#include "device/dm_def.h"
#include "datamodel/return_codes.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

std::string encoded(const char* json) {
    JsonPtr v(json_tokener_parse(json));
    wHttpSetHtmlEncode(1);
    wHttpHtmlEncode(v.get());
    wHttpSetHtmlEncode(0);
    return json_object_to_json_string_ext(v.get(), JSON_C_TO_STRING_PLAIN);
}

std::string status(int code) {
    JsonPtr doc(json_object_new_object());
    wHttpSetOperStatusByWcfgRet(doc.get(), code);
    json_object* s = nullptr;
    json_object_object_get_ex(doc.get(), "oper_status", &s);
    return json_object_get_string(s);
}

}  // namespace

TEST(HtmlEncode, EntitiesExemptionsAndNesting) {
    EXPECT_EQ(R"({"Name":"a&lt;b"})", encoded(R"({"Name":"a<b"})"));
    EXPECT_EQ(R"({"Name":"&amp;&lt;"})", encoded(R"({"Name":"&<"})"));
    EXPECT_EQ(R"({"Name":"&quot;x&#x27;&gt;"})", encoded(R"({"Name":"\"x'>"})"));
    EXPECT_EQ(R"({"BlockChar":"<","AllowCharList":"&"})",
              encoded(R"({"BlockChar":"<","AllowCharList":"&"})"));
    // Strings directly in an array stay; objects in arrays are encoded.
    EXPECT_EQ(R"(["<",{"A":"&lt;"}])", encoded(R"(["<",{"A":"<"}])"));
    EXPECT_EQ(R"({"T":[{"B":{"C":"&gt;"}}],"N":5,"E":""})",
              encoded(R"({"T":[{"B":{"C":">"}}],"N":5,"E":""})"));
    // Switched off: nothing changes.
    JsonPtr v(json_tokener_parse(R"({"Name":"a<b"})"));
    wHttpHtmlEncode(v.get());
    EXPECT_STREQ(R"({"Name":"a<b"})",
                 json_object_to_json_string_ext(v.get(), JSON_C_TO_STRING_PLAIN));
}

TEST(ReturnCodes, OperStatusTexts) {
    EXPECT_EQ("Success", status(WCFG_SUCCESS));
    EXPECT_EQ("Invalid object", status(WCFG_INVALID_OBJECT));
    EXPECT_EQ("Invalid object", status(WCFG_NO_SUCH_OBJECT));
    EXPECT_EQ("Invalid parameter value", status(WCFG_INVALID_PARAM_VALUE_LENGTH));
    EXPECT_EQ("Invalid parameter name", status(WCFG_INVALID_ARGUMENTS));
    EXPECT_EQ("Exceed max instance number", status(WCFG_EXCEED_MAX_INS_NUM));
    EXPECT_EQ("The object cannot be added or deleted", status(WCFG_INS_CREATE_ERR));
    EXPECT_EQ("Invalid HTTP content format", status(WCFG_INVALID_FORMAT));
    // Everything else, informational codes included, is a bad value.
    for (int code : std::initializer_list<int>{WCFG_SET_READ_ONLY_PARAM, WCFG_INVALID_PARAM_VALUE,
                                               WCFG_SUCCESS_AND_NO_REPLY, WCFG_NO_MORE_INSTANCE,
                                               WCFG_DELAY_APPLY, WCFG_TIMEOUT, 99})
        EXPECT_EQ("Invalid parameter value", status(code)) << code;
    EXPECT_EQ(-1, wHttpSetOperStatusByWcfgRet(nullptr, 0));
    EXPECT_STREQ("WCFG_RET_OFFSET", wHttpRetCodeName(-22));
    EXPECT_STREQ("WCFG_SUCCESS", wHttpRetCodeName(0));
    EXPECT_STREQ("WCFG_SAME_IMAGE", wHttpRetCodeName(8));
    EXPECT_STREQ("WCFG_UNKNOWN", wHttpRetCodeName(9));
}

TEST(OidNames, SortedCompleteAndSearchable) {
    // One row per id of the data-model definition, then the end row.
    ASSERT_EQ(wdm::model().ids.size(), static_cast<size_t>(gOidNameTableRows));
    EXPECT_EQ(nullptr, gOidNameTable[gOidNameTableRows].name);
    EXPECT_EQ(0u, gOidNameTable[gOidNameTableRows].id);
    for (int i = 1; i < gOidNameTableRows; ++i)
        EXPECT_LT(strcmp(gOidNameTable[i - 1].name, gOidNameTable[i].name), 0)
            << gOidNameTable[i].name;
    for (int i = 0; i < gOidNameTableRows; ++i)
        EXPECT_EQ(static_cast<int32_t>(gOidNameTable[i].id), wHttpOidByName(gOidNameTable[i].name));
    EXPECT_EQ(63828, wHttpOidByName("RDM_OID_A_P_P_U_I_CUSTOMIZATION"));
    EXPECT_EQ(-1, wHttpOidByName("RDM_OID_NOPE"));
    EXPECT_EQ(-1, wHttpOidByName(nullptr));
}
