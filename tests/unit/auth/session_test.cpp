// Session ids and the failed-login table's lock arithmetic, with a driven
// calendar clock.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "auth/retry_table.h"
#include "auth/session.h"
#include "unit/test_root.h"

namespace {

time_t gNow = 1000000;
time_t fakeClock(time_t* out) {
    if (out)
        *out = gNow;
    return gNow;
}

class RetryTable : public ::testing::Test {
  protected:
    void SetUp() override {
        unitTestRoot();
        retryTableClear();
        gNow = 1000000;
        retryTableSetClock(fakeClock);
    }
    void TearDown() override {
        retryTableClear();
        retryTableSetClock(nullptr);
    }
    // admin: 3 retries, 300 s lock; user: 3 retries, 60 s lock.
    static void fail(const char* u) { retryTableMgt("set", u); }
};

}  // namespace

TEST(SessionId, ThirtyTwoCharactersOfTheAlphabetAndNoRepeats) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        char id[SESSION_ID_LEN + 1];
        memset(id, 'x', sizeof id);
        genSessionID(id);
        ASSERT_EQ(32u, strlen(id));
        for (char ch : std::string(id))
            ASSERT_TRUE(isalnum(static_cast<unsigned char>(ch))) << id;
        EXPECT_TRUE(seen.insert(id).second);
    }
}

TEST(SessionKey, NanosecondsOfTheMonotonicClock) {
    for (int i = 0; i < 100; ++i) {
        int32_t key = getSessionKey();
        EXPECT_GE(key, 0);
        EXPECT_LE(key, 999999999);
    }
}

TEST_F(RetryTable, LockStartsAtTheLimitAndRunsOut) {
    fail("user");
    fail("user");
    EXPECT_EQ(0u, isRestriction("user"));
    gNow += 10;
    fail("user");  // third failure: locked from now for 60 s
    EXPECT_EQ(60u, isRestriction("user"));
    gNow += 30;
    EXPECT_EQ(30u, isRestriction("user"));
    EXPECT_EQ(0u, isRestriction("admin"));
    gNow += 30;
    EXPECT_EQ(0u, isRestriction("user"));  // over; the count is back to 1
    fail("user");
    EXPECT_EQ(0u, isRestriction("user"));
    fail("user");
    EXPECT_EQ(60u, isRestriction("user"));
}

TEST_F(RetryTable, FailuresBeyondTheLimitDoNotExtendTheLock) {
    fail("user");
    fail("user");
    fail("user");
    gNow += 50;
    fail("user");  // count 4: the fail time stays
    EXPECT_EQ(10u, isRestriction("user"));
    gNow += 10;
    // The lock ran out at the old fail time; the failure after it is the one
    // that is left on record.
    fail("user");
    EXPECT_EQ(0u, isRestriction("user"));
    fail("user");
    fail("user");
    EXPECT_EQ(60u, isRestriction("user"));
}

TEST_F(RetryTable, RemoveForgetsAndUnknownNamesShareOneRecord) {
    fail("admin");
    fail("admin");
    retryTableMgt("remove", "admin");
    fail("admin");
    fail("admin");
    EXPECT_EQ(0u, isRestriction("admin"));
    retryTableMgt("other", "admin");
    fail("admin");
    EXPECT_EQ(300u, isRestriction("admin"));

    // A name without an account is never recorded; unknown names count under
    // the pseudo user, locked from its first failure for 300 s.
    fail("ghost");
    EXPECT_EQ(0u, isRestriction("ghost"));
    fail(INVALID_ACCOUNT_NAME);
    EXPECT_EQ(300u, isRestriction(INVALID_ACCOUNT_NAME));
    gNow += 300;
    fail(INVALID_ACCOUNT_NAME);
    EXPECT_EQ(0u, isRestriction(INVALID_ACCOUNT_NAME));
}
