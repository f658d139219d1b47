// Connection admission: the ceilings, and the choice of the connection that
// yields to a new one.
#include <gtest/gtest.h>

#include <string>

#include "http/conn_registry.h"

TEST(ConnAdmission, AnAddressAtItsCeilingYieldsItsOwnIdleConnection) {
    using A = ConnRegistry::Admit;
    using P = ConnRegistry::Phase;
    ConnRegistry r;
    r.setLimits(10, 2);
    std::vector<uint64_t> evicted;
    auto evictOf = [&](uint64_t id) { return [&evicted, id](bool) { evicted.push_back(id); }; };
    EXPECT_EQ(A::Yes, r.admit(1, "a", evictOf(1)));
    EXPECT_EQ(A::Yes, r.admit(2, "a", evictOf(2)));
    r.setPhase(1, P::Reading);
    r.setPhase(2, P::Handling);
    EXPECT_EQ(A::AddressFull, r.admit(3, "a", evictOf(3)));  // none idle
    EXPECT_EQ(A::Yes, r.admit(4, "b", evictOf(4)));          // another address
    r.setPhase(2, P::Idle);
    EXPECT_EQ(A::Yes, r.admit(5, "a", evictOf(5)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);
    // A closing connection no longer counts against the address.
    r.setClosing(5);
    EXPECT_EQ(A::Yes, r.admit(6, "a", evictOf(6)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);
    r.remove(2);
    r.remove(2);  // twice: harmless
    EXPECT_EQ(4, r.count());
}

TEST(ConnAdmission, AtTheTotalCeilingTheHeaviestAddressYields) {
    using A = ConnRegistry::Admit;
    using P = ConnRegistry::Phase;
    ConnRegistry r;
    r.setLimits(4, 3);
    std::vector<uint64_t> evicted;
    auto evictOf = [&](uint64_t id) { return [&evicted, id](bool) { evicted.push_back(id); }; };
    EXPECT_EQ(A::Yes, r.admit(1, "b", evictOf(1)));  // the oldest, but alone
    EXPECT_EQ(A::Yes, r.admit(2, "a", evictOf(2)));
    EXPECT_EQ(A::Yes, r.admit(3, "a", evictOf(3)));
    EXPECT_EQ(A::Yes, r.admit(4, "c", evictOf(4)));
    EXPECT_EQ(A::Yes, r.admit(5, "d", evictOf(5)));
    EXPECT_EQ(std::vector<uint64_t>{2}, evicted);  // a's longest-waiting
    r.remove(2);
    // Nothing idle, every address with one reader: nobody yields.
    for (uint64_t id : {1, 3, 4, 5})
        r.setPhase(id, P::Reading);
    EXPECT_EQ(A::Full, r.admit(6, "e", evictOf(6)));
    EXPECT_EQ(A::Full, r.admit(7, "a", evictOf(7)));
    // An address with two readers gives up its longest-reading one.
    r.setClosing(4);
    r.remove(4);
    EXPECT_EQ(A::Yes, r.admit(8, "a", evictOf(8)));
    r.setPhase(8, P::Reading);
    EXPECT_EQ(A::Yes, r.admit(9, "f", evictOf(9)));
    EXPECT_EQ((std::vector<uint64_t>{2, 3}), evicted);
    // Sockets still closing count, a quarter over the ceiling at most; a
    // refusal asks nobody to close.
    EXPECT_EQ(A::Full, r.admit(10, "g", evictOf(10)));  // 1, 3, 5, 8, 9: five sockets
    EXPECT_EQ((std::vector<uint64_t>{2, 3}), evicted);
    r.remove(3);
    EXPECT_EQ(A::Yes, r.admit(11, "g", evictOf(11)));
    EXPECT_EQ((std::vector<uint64_t>{2, 3, 9}), evicted);  // 9 waits idle
}

TEST(ConnAdmission, AnIpv6ClientCountsAsItsPrefix) {
    EXPECT_EQ(connAddressKey("2001:db8:1:2:aaaa::1"), connAddressKey("2001:db8:1:2:bbbb::9"));
    EXPECT_NE(connAddressKey("2001:db8:1:2::1"), connAddressKey("2001:db8:1:3::1"));
    EXPECT_EQ("2001:db8:1:2::/64", connAddressKey("2001:db8:1:2:ffff:ffff:ffff:ffff"));
    EXPECT_EQ("192.168.1.20", connAddressKey("192.168.1.20"));
    EXPECT_EQ("fe80::/64", connAddressKey("fe80::1"));
}
