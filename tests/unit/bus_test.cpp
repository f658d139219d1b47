// Message bus: the 60-byte header, the data-model-changed notice and the
// platform's own Wi-Fi service answering WPS requests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/store/wcfg.h"
#include "platform/bus/wcfg_msg.h"
#include "platform/store/store.h"
#include "test_root.h"

TEST(Bus, HeaderLayout) {
    EXPECT_EQ(12u, offsetof(wcfgMsgHdr_t, length));
    EXPECT_EQ(20u, offsetof(wcfgMsgHdr_t, statCode));
    EXPECT_EQ(24u, offsetof(wcfgMsgHdr_t, ifName));
    EXPECT_EQ(60u, sizeof(wcfgMsgHdr_t));
}

TEST(Bus, NoticeReachesARegisteredEndpointAndWifiStandInAnswers) {
    unitTestRoot();
    wcfg_msg_eidInit(WCFG_EID_WHTTPD, "unit");
    ASSERT_EQ(0, wcfg_msg_serverInit());
    wcfg::notifyDataModelChanged();
    void* msg = nullptr;
    ASSERT_EQ(0, wcfg_msg_serverRecv(&msg, 2000, __FILE__, __LINE__));
    uint32_t type;
    memcpy(&type, msg, 4);
    EXPECT_EQ(WCFG_MSG_DATA_MODEL_CHANGED, type);
    free(msg);
    // Nothing more: the wait times out.
    EXPECT_EQ(-1, wcfg_msg_serverRecv(&msg, 50, __FILE__, __LINE__));

    // Nobody binds endpoint 40: the platform's Wi-Fi stand-in answers.
    char buf[sizeof(wcfgMsgHdr_t) + 16] = {};
    auto* hdr = reinterpret_cast<wcfgMsgHdr_t*>(buf);
    const char payload[] = "[\"WPSStatus\"]";
    hdr->type = 4006;
    hdr->srcEid = WCFG_EID_WHTTPD;
    hdr->dstEid = WCFG_EID_WIFI;
    hdr->length = sizeof payload;
    strcpy(hdr->ifName, "wl0");
    memcpy(buf + sizeof(wcfgMsgHdr_t), payload, sizeof payload);
    void* reply = nullptr;
    ASSERT_EQ(0, wcfg_msg_sendAndGetReply(buf, &reply, 15000));
    auto* rh = static_cast<wcfgMsgHdr_t*>(reply);
    EXPECT_EQ(0, rh->statCode);
    EXPECT_STREQ("{\"WPSStatus\":1}", static_cast<char*>(reply) + sizeof(wcfgMsgHdr_t));
    free(reply);
    hdr->type = 4015;
    ASSERT_EQ(0, wcfg_msg_sendAndGetReply(buf, &reply, 15000));
    EXPECT_EQ(1, static_cast<wcfgMsgHdr_t*>(reply)->statCode);
    free(reply);
    // Another endpoint that nobody serves.
    hdr->dstEid = 55;
    EXPECT_EQ(WCFG_INVALID_EID, wcfg_msg_sendAndGetReply(buf, &reply, 100));
}
