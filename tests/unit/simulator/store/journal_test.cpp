// The store's change journal and the text of event streams: which writes
// leave entries, their numbering and trimming, the wake of a follower, and
// the checks of what a client sends when it opens a stream.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "simulator/store/journal_reader.h"
#include "simulator/store/store.h"
#include "events/event_text.h"
#include "unit/simulator/store/store_helpers.h"
#include "unit/test_root.h"

namespace {

class JournalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unitTestRoot();
        ASSERT_EQ(0, wcfg::Store::instance().resetToDefaults());
        uint64_t oldest = 0;
        ASSERT_TRUE(reader.bounds(oldest, mark));
    }
    // The entries since SetUp (or the last call).
    std::vector<wcfg::JournalEntry> since() {
        std::vector<wcfg::JournalEntry> out;
        EXPECT_TRUE(reader.since(mark, 1000, out));
        if (!out.empty())
            mark = out.back().seq;
        return out;
    }
    wcfg::JournalReader reader;
    uint64_t mark = 0;
};

TEST_F(JournalTest, ChangesAddsAndDeletesLeaveOneNumberedEntryEach) {
    ASSERT_EQ(0, storeSet("Device.WiFi.SSID.1.", R"({"SSID":"j1"})"));
    // Written again unchanged: no entry.
    ASSERT_EQ(0, storeSet("Device.WiFi.SSID.1.", R"({"SSID":"j1"})"));
    objIndex_t iid;
    int32_t oid = wcfgFeObjNameToObjId("Device.NAT.PortMapping.", &iid);
    iid.level = 1;
    ASSERT_EQ(0, wcfgFeObjJsonAdd(oid, &iid, nullptr));
    ASSERT_EQ(0, wcfgFeObjJsonDel(oid, &iid, nullptr));
    // A refused write leaves nothing.
    EXPECT_NE(0, storeSet("Device.WiFi.SSID.1.", R"({"NoSuchParameter":1})"));
    std::vector<wcfg::JournalEntry> got = since();
    ASSERT_EQ(3u, got.size());
    std::string row = "Device.NAT.PortMapping." + std::to_string(iid.idx[0]) + ".";
    EXPECT_EQ(wcfg::JournalKind::Change, got[0].kind);
    EXPECT_EQ("Device.WiFi.SSID.1.", got[0].path);
    EXPECT_EQ(wcfg::JournalKind::Add, got[1].kind);
    EXPECT_EQ(row, got[1].path);
    EXPECT_EQ(wcfg::JournalKind::Delete, got[2].kind);
    EXPECT_EQ(row, got[2].path);
    EXPECT_EQ(got[0].seq + 1, got[1].seq);
    EXPECT_EQ(got[1].seq + 1, got[2].seq);
    // A reset is one entry for the whole configuration.
    ASSERT_EQ(0, wcfg::Store::instance().resetToDefaults());
    got = since();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(wcfg::JournalKind::Reset, got[0].kind);
}

// Trimming keeps the newest entries and never gives a number twice.
TEST(JournalDb, KeepsTheNewestAndNumbersOnAfterATrim) {
    unitTestRoot();
    wcfg::Db db;
    ASSERT_TRUE(db.open(std::string(getenv("WHTTPD_ROOT")) + "/tmp/journal-trim.db"));
    ASSERT_TRUE(db.beginWrite());
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(db.appendJournal(1, "Device.X." + std::to_string(i) + ".", 3));
    ASSERT_TRUE(db.commit());
    uint64_t oldest = 0, latest = 0;
    ASSERT_TRUE(db.journalBounds(oldest, latest));
    EXPECT_EQ(10u, latest);
    EXPECT_EQ(8u, oldest);
    std::vector<wcfg::JournalEntry> out;
    ASSERT_TRUE(db.journalSince(0, 100, out));
    ASSERT_EQ(3u, out.size());
    EXPECT_EQ("Device.X.9.", out.back().path);
    ASSERT_TRUE(db.beginWrite());
    ASSERT_TRUE(db.appendJournal(1, "Device.Y.", 0));  // keeps none at all
    ASSERT_TRUE(db.commit());
    ASSERT_TRUE(db.journalBounds(oldest, latest));
    EXPECT_EQ(11u, latest);
    EXPECT_EQ(12u, oldest);  // none kept: the next is the oldest there will be
    ASSERT_TRUE(db.beginWrite());
    ASSERT_TRUE(db.appendJournal(1, "Device.Z.", 5));
    ASSERT_TRUE(db.commit());
    out.clear();
    ASSERT_TRUE(db.journalSince(0, 100, out));
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(12u, out[0].seq);
}

// A follower asleep in the store's wait wakes when a write ends.
TEST_F(JournalTest, AWriteWakesAFollower) {
    wcfg::Store& store = wcfg::Store::instance();
    uint32_t seen = store.writeGeneration();
    std::atomic<bool> woke{false};
    std::thread follower([&] {
        // Far longer than any test: only the write's wake ends it in time.
        while (store.writeGeneration() == seen)
            store.waitForWrite(seen, 600000);
        woke = true;
    });
    ASSERT_EQ(0, storeSet("Device.WiFi.SSID.2.", R"({"SSID":"wake"})"));
    follower.join();
    EXPECT_TRUE(woke);
}

}  // namespace
