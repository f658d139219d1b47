// The queues of open-ended answers (streams) and the pool they share: what
// all streams hold together stays within the pool beyond each one's
// reserve, a client that keeps up never loses pieces to clients that
// stopped reading, and a stream whose queue the pool took says so at its
// next piece; a stream counts against the total ceiling, not its address's.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "http/conn_registry.h"
#include "http/http_stream.h"

namespace {

struct Streams {
    boost::asio::io_context ioc;  // never run: the hand-over to a connection waits
    std::shared_ptr<CgHttpStreamPool> pool;
    std::vector<std::unique_ptr<CgHttpStream>> all;

    Streams(size_t poolBytes, size_t count) : pool(std::make_shared<CgHttpStreamPool>(poolBytes)) {
        CgHttpStreamLimits limits;
        limits.maxPieces = 100000;
        limits.maxBytes = 256 * 1024;
        limits.reserveBytes = 4096;
        for (size_t i = 0; i < count; ++i)
            all.push_back(std::make_unique<CgHttpStream>(
                ioc.get_executor(), std::weak_ptr<HttpSession>(), limits, false, nullptr, pool));
    }
};

const std::string kPiece(1000, 'e');

// The connection of a client that keeps up: takes what waits and has it
// written.
void drain(CgHttpStream& s) {
    std::deque<std::string> out;
    size_t n = s.takeInto(out, 1 << 20);
    s.written(n);
}

TEST(StreamPool, StoppedClientsHoldThePoolAtMostAndAReaderNeverLoses) {
    Streams s(16 * 1024, 9);
    CgHttpStream& reader = *s.all.back();
    int stalledFull = 0;
    for (int round = 0; round < 200; ++round) {
        for (size_t i = 0; i + 1 < s.all.size(); ++i) {
            CgHttpPush r = s.all[i]->push(kPiece);
            stalledFull += r == CgHttpPush::Full;
            // The producer answers Full with one replacement (a resync),
            // which the stalled client never takes.
            if (r == CgHttpPush::Full)
                s.all[i]->replace("resync");
        }
        // A burst for the reader: more than its reserve at once.
        for (int k = 0; k < 8; ++k)
            ASSERT_EQ(CgHttpPush::Queued, reader.push(kPiece)) << "round " << round;
        EXPECT_LE(s.pool->used(), 16u * 1024);
        drain(reader);
    }
    EXPECT_GT(stalledFull, 0);
    EXPECT_LE(s.pool->used(), 16u * 1024);
    // A stopped client whose queue the pool took: Full until it is replaced.
    Streams two(2048, 2);
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(CgHttpPush::Queued, two.all[0]->push(kPiece));  // 4 KiB reserve, 2 KiB pool
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(CgHttpPush::Queued, two.all[1]->push(kPiece)) << i;
    EXPECT_EQ(CgHttpPush::Queued, two.all[1]->push(kPiece));  // the first yields
    EXPECT_EQ(CgHttpPush::Full, two.all[0]->push("x"));
    two.all[0]->replace("resync");
    EXPECT_EQ(CgHttpPush::Dropped, two.all[0]->push("x"));
}

TEST(StreamPool, TheFurthestBehindIsAskedFirstAndTheAskerItselfIsRefused) {
    Streams s(2048, 3);
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(CgHttpPush::Queued, s.all[0]->push(kPiece));  // oldest pieces, 2 KiB borrowed
    // The pool is spent: the second stream's borrowing takes the first's queue.
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(CgHttpPush::Queued, s.all[1]->push(kPiece)) << i;
    EXPECT_EQ(CgHttpPush::Full, s.all[0]->push("x"));
    // Now the second is furthest behind: the third takes its queue, and the
    // second, asking for more while furthest behind, is refused.
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(CgHttpPush::Queued, s.all[2]->push(kPiece)) << i;
    EXPECT_EQ(CgHttpPush::Full, s.all[1]->push(kPiece));
    EXPECT_EQ(CgHttpPush::Full, s.all[2]->push(std::string(4096, 'x')));  // furthest behind now
}

TEST(ConnAdmission, AStreamCountsAgainstTheTotalButNotItsAddress) {
    using A = ConnRegistry::Admit;
    using P = ConnRegistry::Phase;
    ConnRegistry r;
    r.setLimits(4, 2);
    auto none = [](bool) {};
    EXPECT_EQ(A::Yes, r.admit(1, "a", none));
    EXPECT_EQ(A::Yes, r.admit(2, "a", none));
    r.setPhase(1, P::Streaming);
    r.setPhase(2, P::Streaming);
    EXPECT_EQ(A::Yes, r.admit(3, "a", none));
    EXPECT_EQ(A::Yes, r.admit(4, "a", none));
    r.setPhase(3, P::Handling);
    r.setPhase(4, P::Handling);
    EXPECT_EQ(A::Full, r.admit(5, "b", none));  // four live: the total holds
    r.remove(1);
    r.remove(1);
    EXPECT_EQ(A::AddressFull, r.admit(6, "a", none));  // a's two requests
    EXPECT_EQ(A::Yes, r.admit(7, "b", none));
}

}  // namespace
