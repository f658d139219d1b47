// The operator's limit text: names, values, and what is refused whole.
#include <gtest/gtest.h>

#include <string>

#include "daemon/http_limits.h"

TEST(HttpLimitText, NamesValuesAndRefusals) {
    WhttpdLimits limits;
    CgHttpLimits& l = limits.http;
    std::string error;
    ASSERT_TRUE(whttpdApplyLimitText(
        "connections=512,request_ms=2500,,body_bytes=1024,events_total=3,events_keepalive_ms=50",
        limits, error));
    EXPECT_EQ(512, l.maxConnections);
    EXPECT_EQ(2500, l.requestTimeoutMs);
    EXPECT_EQ(1024u, l.maxBodyBytes);
    EXPECT_EQ(3, limits.events.total);
    EXPECT_EQ(50, limits.events.keepAliveMs);
    EXPECT_EQ(4, limits.events.perSession);
    EXPECT_TRUE(whttpdApplyLimitText(nullptr, limits, error));
    const char* const refused[] = {
        "connection=5",        "idle_ms=", "idle_ms=0", "idle_ms=-3", "idle_ms=12x",
        "idle_ms=99999999999", "=5"};
    for (const char* text : refused) {
        error.clear();
        EXPECT_FALSE(whttpdApplyLimitText(text, limits, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_EQ(512, l.maxConnections) << text;  // nothing taken from a refused text
    }
}
