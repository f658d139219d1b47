// The tests' reader of server-sent events against the cases of the WHATWG
// algorithm that a server's own assumptions would hide.
#include <gtest/gtest.h>

#include "sse_parser.h"

using e2e::SseItem;
using e2e::SseParser;
using namespace std::string_literals;

namespace {

std::vector<SseItem> events(const std::vector<std::string>& pieces, bool finish = false) {
    SseParser p;
    for (const std::string& piece : pieces)
        p.feed(piece);
    if (finish)
        p.finish();
    std::vector<SseItem> out;
    for (SseItem& item : p.take())
        if (!item.comment)
            out.push_back(item);
    return out;
}

TEST(SseParser, LineEndsOfEveryKindAndACrSplitFromItsLf) {
    for (const std::string eol : {"\n", "\r", "\r\n"}) {
        std::vector<SseItem> e =
            events({"id: 7" + eol + "event: change" + eol + "data: {}" + eol + eol});
        ASSERT_EQ(1u, e.size()) << eol.size();
        EXPECT_EQ("change", e[0].type);
        EXPECT_EQ("{}", e[0].data);
        EXPECT_EQ("7", e[0].lastEventId);
    }
    // A CR that ends what has arrived, its LF in the next piece: one line end,
    // not a blank line that would dispatch early.
    std::vector<SseItem> e = events({"data: a\r", "\ndata: b\r\n\r\n"});
    ASSERT_EQ(1u, e.size());
    EXPECT_EQ("a\nb", e[0].data);
}

TEST(SseParser, DataLinesJoinAndFieldsWithoutColonOrValue) {
    std::vector<SseItem> e = events({"data: one\ndata:two\ndata\ndata:  three\n\n"});
    ASSERT_EQ(1u, e.size());
    EXPECT_EQ("one\ntwo\n\n three", e[0].data);  // one space dropped, not two
    EXPECT_EQ("message", e[0].type);
    // "data" alone is an empty data line: an event with empty data.
    e = events({"data\n\n"});
    ASSERT_EQ(1u, e.size());
    EXPECT_EQ("", e[0].data);
    // "event" without a value resets the type to "message"; unknown fields
    // and a field named by a whole line without a colon are ignored.
    e = events({"event\nunknown: x\nfoo\ndata: d\n\n"});
    ASSERT_EQ(1u, e.size());
    EXPECT_EQ("message", e[0].type);
}

TEST(SseParser, AnIdWithoutDataMovesThePositionOnly) {
    SseParser p;
    p.feed("retry: 2500\nid: 41\n\n");
    EXPECT_TRUE(p.take().empty());
    EXPECT_EQ("41", p.lastEventId());
    EXPECT_EQ(2500, p.retryMs().value_or(0));
    // The id stays for events that carry none; an id with a NUL is ignored;
    // a retry that is not all digits is ignored.
    p.feed("event: end\ndata: {}\n\nid: 4\0002\nretry: 1s\ndata: x\n\n"s);
    std::vector<SseItem> e = p.take();
    ASSERT_EQ(2u, e.size());
    EXPECT_EQ("41", e[0].lastEventId);
    EXPECT_EQ("41", e[1].lastEventId);
    EXPECT_EQ(2500, p.retryMs().value_or(0));
}

TEST(SseParser, CommentsBomAndAnUnfinishedEvent) {
    SseParser p;
    p.feed("\xEF\xBB\xBF: keep-alive\n\ndata: whole\n\ndata: cut");
    p.finish();
    std::vector<SseItem> items = p.take();
    ASSERT_EQ(2u, items.size());
    EXPECT_TRUE(items[0].comment);
    EXPECT_EQ(" keep-alive", items[0].data);
    EXPECT_EQ("whole", items[1].data);  // the one without its blank line is dropped
}

}  // namespace
