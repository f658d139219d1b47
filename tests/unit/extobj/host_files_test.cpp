// The host list's arithmetic: what is left of a DHCP lease, and the subnet
// test that picks the lease's pool.
#include <gtest/gtest.h>

#include "extobj/host_files.h"

TEST(HostFiles, LeaseLeftCountsFromTheAcknowledgement) {
    EXPECT_EQ(86300, vxHostsLeaseLeft(86400, 5000, 4900));
    EXPECT_EQ(86400, vxHostsLeaseLeft(86400, 5000, 5000));
    EXPECT_EQ(0, vxHostsLeaseLeft(86400, 100000, 10000));  // run out
    EXPECT_EQ(0, vxHostsLeaseLeft(86400, 100000, 13600));  // ends this very second
    EXPECT_EQ(1, vxHostsLeaseLeft(86400, 100000, 13601));
    EXPECT_EQ(3600, vxHostsLeaseLeft(3600, 10, 500));  // from before a restart
    EXPECT_EQ(0, vxHostsLeaseLeft(0, 10, 5));
}

TEST(HostFiles, SubnetTest) {
    EXPECT_TRUE(vxHostsInSubnet("192.168.1.34", "192.168.1.33", "255.255.255.0"));
    EXPECT_TRUE(vxHostsInSubnet("192.168.1.0", "192.168.1.33", "255.255.255.0"));
    EXPECT_TRUE(vxHostsInSubnet("192.168.1.255", "192.168.1.33", "255.255.255.0"));
    EXPECT_FALSE(vxHostsInSubnet("192.168.2.20", "192.168.1.33", "255.255.255.0"));
    EXPECT_TRUE(vxHostsInSubnet("192.168.2.20", "192.168.2.2", "255.255.255.0"));
    // A text that does not parse reads as 0: mask 0 holds every address.
    EXPECT_TRUE(vxHostsInSubnet("10.0.0.1", "192.168.1.1", "garbage"));
    EXPECT_FALSE(vxHostsInSubnet("garbage", "192.168.1.1", "255.255.255.0"));
}
