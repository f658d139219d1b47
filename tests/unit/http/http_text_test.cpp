// The query and cookie text as the listener takes it apart.
#include <gtest/gtest.h>

#include <string>

#include "http/http_text.h"

TEST(HttpText, QueryPairsAsTheListenerSeesThem) {
    HttpPairs q = httpParseQuery("/api/v1/Reboot?device=a%20b&&=x&flag&sessionkey=12&device=2");
    ASSERT_EQ(4u, q.size());
    EXPECT_STREQ("a b", httpFindPair(q, "device"));  // the first of repeated names
    EXPECT_STREQ("", httpFindPair(q, "flag"));
    EXPECT_STREQ("12", httpFindPair(q, "sessionkey"));
    EXPECT_EQ(nullptr, httpFindPair(q, "missing"));
    EXPECT_TRUE(httpParseQuery("/no/query").empty());
    // Escapes that are not two hex digits stay as they are, even at the end.
    EXPECT_EQ("%zz%4", httpPercentDecode("%zz%4"));
    EXPECT_EQ("%", httpPercentDecode("%"));
    EXPECT_EQ(std::string("a\0b", 3), httpPercentDecode("a%00b"));
}

TEST(HttpText, CookiesSplitTrimmedAndUnquoted) {
    HttpPairs c;
    httpParseCookies(" a=1;Session=\"abc\" ; =skip; novalue; b= 2 ;", c);
    ASSERT_EQ(3u, c.size());
    EXPECT_STREQ("abc", httpFindPair(c, "Session"));
    EXPECT_STREQ(" 2", httpFindPair(c, "b"));
    httpParseCookies("Session=second", c);
    EXPECT_STREQ("abc", httpFindPair(c, "Session"));  // the first header wins
    HttpPairs q;
    httpParseCookies("x=\"", q);
    EXPECT_STREQ("\"", httpFindPair(q, "x"));
}
