// The discovery answer's layout, and its cut at 4095 characters.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "discover/whttpd_discover.h"

TEST(DiscoveryAnswer, HeaderAndTextUpTo4095Characters) {
    unsigned char out[kDiscoverAnswerMax];
    const std::string small = "{\"ApiName\":\"x\"}";
    ASSERT_EQ(small.size(), whttpDiscoverBuildAnswer(small, out));
    EXPECT_EQ(1, out[0]);
    EXPECT_EQ(2, out[1]);
    EXPECT_EQ(small.size(), static_cast<size_t>(out[2] << 8 | out[3]));  // big-endian
    EXPECT_EQ(small, std::string(reinterpret_cast<char*>(out + 4), small.size()));
    // A longer text is cut at 4095 characters, never inside a character.
    for (size_t size : {4095u, 4096u, 5000u}) {
        std::string big(size, 'a');
        EXPECT_EQ(std::min<size_t>(size, 4095), whttpDiscoverBuildAnswer(big, out)) << size;
        EXPECT_EQ(std::min<size_t>(size, 4095), static_cast<size_t>(out[2] << 8 | out[3]));
    }
    std::string wide = std::string(4094, 'a') + "\xc3\xa9";  // the last character straddles
    EXPECT_EQ(4094u, whttpDiscoverBuildAnswer(wide, out));
}
