// Message bus: the 60-byte header, the data-model-changed notice and the
// platform's own Wi-Fi service answering WPS requests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "device/wcfg.h"
#include "simulator/bus/wcfg_msg.h"
#include "simulator/bus/wcfg_wire.h"
#include "simulator/standins/knobs.h"
#include "simulator/store/store.h"
#include "unit/test_root.h"

TEST(Bus, HeaderLayout) {
    EXPECT_EQ(12u, offsetof(wcfgMsgHdr_t, length));
    EXPECT_EQ(20u, offsetof(wcfgMsgHdr_t, statCode));
    EXPECT_EQ(24u, offsetof(wcfgMsgHdr_t, ifName));
    EXPECT_EQ(60u, sizeof(wcfgMsgHdr_t));
}

// On the socket every multi-byte field is big-endian, so that processes of
// any CPU read one another's headers; the endpoint ids and the interface
// name are bytes and stay as they are.
TEST(Bus, HeaderTravelsInNetworkByteOrder) {
    wcfgMsgHdr_t h{};
    h.type = 0x01020304u;
    h.oid = 0x0a0b0c0du;
    h.srcEid = 1;
    h.dstEid = WCFG_EID_WHTTPD;
    h.flags = 0x1122u;
    h.length = 0x10u;
    h.seq = 0x55667788u;
    h.statCode = -2;
    strcpy(h.ifName, "wl0");
    unsigned char m[sizeof h];
    memcpy(m, &h, sizeof h);
    wcfg::headerToWire(m, sizeof m);
    const unsigned char expected[] = {0x01, 0x02, 0x03, 0x04, 0x0a, 0x0b, 0x0c, 0x0d, 1,    78,
                                      0x11, 0x22, 0,    0,    0,    0x10, 0x55, 0x66, 0x77, 0x88,
                                      0xff, 0xff, 0xff, 0xfe, 'w',  'l',  '0',  0};
    EXPECT_EQ(0, memcmp(expected, m, sizeof expected));
    wcfg::headerFromWire(m, sizeof m);
    EXPECT_EQ(0, memcmp(&h, m, sizeof h));
    // A message shorter than a header: the fields it holds whole.
    unsigned char shortMsg[6] = {0x80, 0, 0, 0xe7, 7, 8};
    wcfg::headerFromWire(shortMsg, sizeof shortMsg);
    uint32_t type;
    memcpy(&type, shortMsg, sizeof type);
    EXPECT_EQ(WCFG_MSG_DATA_MODEL_CHANGED, type);
    EXPECT_EQ(7, shortMsg[4]);
}

namespace {

// A WPS status request of `type` for `ifName` to the Wi-Fi endpoint.
struct WpsRequest {
    char buf[sizeof(wcfgMsgHdr_t) + 16] = {};
    WpsRequest(uint32_t type, const char* ifName) {
        const char payload[] = "[\"WPSStatus\"]";
        wcfgMsgHdr_t* h = hdr();
        h->type = type;
        h->srcEid = WCFG_EID_WHTTPD;
        h->dstEid = WCFG_EID_WIFI;
        h->length = sizeof payload;
        strcpy(h->ifName, ifName);
        memcpy(buf + sizeof(wcfgMsgHdr_t), payload, sizeof payload);
    }
    wcfgMsgHdr_t* hdr() { return reinterpret_cast<wcfgMsgHdr_t*>(buf); }
};

// The Wi-Fi stand-in's answer to a WPS request of `type` for "wl1".
std::string wpsAnswer(uint32_t type) {
    WpsRequest request(type, "wl1");
    void* reply = nullptr;
    if (wcfg_msg_sendAndGetReply(request.buf, &reply, 15000) != 0)
        return "";
    std::string text = static_cast<char*>(reply) + sizeof(wcfgMsgHdr_t);
    free(reply);
    return text;
}

}  // namespace

// A walk time of 30 days is 2.6e9 ms, beyond a 32-bit long: the session
// still runs right after its start.
TEST(Bus, AWpsWalkOfWeeksIsRunningAtItsStart) {
    unitTestRoot();
    ASSERT_TRUE(standin::setKnob("wifi.wps.walk_seconds", "2592000"));
    EXPECT_EQ("{\"WPSStatus\":1}", wpsAnswer(4006));
    EXPECT_EQ("{\"WPSStatus\":1}", wpsAnswer(4012));
    ASSERT_TRUE(standin::setKnob("wifi.wps.walk_seconds", ""));
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
    WpsRequest request(4006, "wl0");
    char* buf = request.buf;
    wcfgMsgHdr_t* hdr = request.hdr();
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
