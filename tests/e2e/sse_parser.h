// A reader of server-sent events exactly as a browser's EventSource reads
// them (the WHATWG HTML standard, "event stream interpretation"), so that
// the tests judge the daemon's streams by what a browser makes of them, not
// by the daemon's own way of writing them: lines end in LF, CR or CRLF (a CR
// at the end of what has arrived waits for the next byte), a leading BOM is
// dropped, a field without a colon has an empty value, one space after the
// colon is dropped, "data" lines join with LF, "id" sets the last event id
// (unless it holds a NUL) also for blocks without data, "retry" takes digits
// only, and a blank line dispatches an event only when there is data.
// Comments are ignored by a browser; this reader hands them out too, for
// the tests of keep-alives.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace e2e {

struct SseItem {
    bool comment = false;  // a comment line (": keep-alive"): text in `data`
    std::string type;      // the event type ("message" when none was given)
    std::string data;
    std::string lastEventId;  // the stream's last event id when it was dispatched
};

class SseParser {
  public:
    // Takes the next bytes of the stream; complete events and comments come
    // out of take().
    void feed(std::string_view bytes);
    // The stream ended: a line without its end still counts, an event
    // without its blank line is dropped (as a browser does).
    void finish();
    std::vector<SseItem> take();
    const std::string& lastEventId() const { return lastEventId_; }
    // The reconnection time the stream set, if it set one.
    std::optional<int64_t> retryMs() const { return retry_; }

  private:
    void line(std::string_view text);
    void field(std::string_view name, std::string_view value);
    void dispatch();

    std::string pending_;  // bytes of a line not yet ended
    bool bomChecked_ = false;
    bool sawCr_ = false;  // the last byte was a CR: an LF right after it is not a line of its own
    std::string data_, type_, idBuffer_, lastEventId_;
    std::optional<int64_t> retry_;
    std::vector<SseItem> out_;
};

}  // namespace e2e
