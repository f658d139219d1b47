// Address-in-prefix test of the access restriction.
#include <gtest/gtest.h>

#include "auth/access_check.h"

TEST(AddrFamily, ParsesBothFamiliesAndNothingElse) {
    EXPECT_EQ(2, wHttpGetAddrFamily("192.168.1.7"));
    EXPECT_EQ(10, wHttpGetAddrFamily("fe80::1"));
    EXPECT_EQ(10, wHttpGetAddrFamily("::ffff:1.2.3.4"));
    EXPECT_EQ(-1, wHttpGetAddrFamily("192.168.1"));
    EXPECT_EQ(-1, wHttpGetAddrFamily("host.example"));
    EXPECT_EQ(-1, wHttpGetAddrFamily(""));
}

TEST(PrefixMatch, Ipv4PrefixLengths) {
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "24", "192.168.1.77"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("192.168.1.0", "24", "192.168.2.1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("10.1.2.3", "32", "10.1.2.3"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("10.1.2.3", "32", "10.1.2.4"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("10.0.0.0", "7", "11.255.0.1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("10.0.0.0", "7", "12.0.0.1"));
}

TEST(PrefixMatch, Ipv4TextsThatAreNoLengthMatchEverything) {
    // A dotted mask reads as 255, an empty text as 0: the mask becomes 0.
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "255.255.255.0", "8.8.8.8"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "", "8.8.8.8"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "33", "8.8.8.8"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "99999999999999999999", "8.8.8.8"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("192.168.1.0", "-99999999999999999999", "8.8.8.8"));
}

TEST(PrefixMatch, Ipv6PrefixLengths) {
    EXPECT_EQ(0, wHttpIsAddrInPrefix("fe80::", "", "fe80::1"));  // empty: /128
    EXPECT_EQ(1, wHttpIsAddrInPrefix("fe80::", "64", "fe80::1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("fe80::", "64", "fe81::1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("fe80::", "9", "fe80:ffff::1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("fe80::", "9", "fe80::1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("fe80::", "9", "fe00::1"));  // bit 9 differs
    EXPECT_EQ(1, wHttpIsAddrInPrefix("fe80::", "9", "fec0::1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("::", "127", "::1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("::1", "", "::1"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("::1", "0", "2001:db8::1"));
    // Lengths beyond the address are cut to 128, below zero to 0.
    EXPECT_EQ(1, wHttpIsAddrInPrefix("::1", "500", "::1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("::1", "500", "::2"));
    EXPECT_EQ(1, wHttpIsAddrInPrefix("::1", "-3", "::2"));
}

TEST(PrefixMatch, FamiliesMustAgree) {
    EXPECT_EQ(0, wHttpIsAddrInPrefix("0.0.0.0", "0", "::1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("::", "0", "127.0.0.1"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("bogus", "0", "bogus"));
    EXPECT_EQ(0, wHttpIsAddrInPrefix("192.168.1.0", "24", "not-an-address"));
}
