// A client of the daemon's event streams for the end-to-end tests: opens
// GET /api/v1/Events over TLS, reads the answer's head, takes the chunks
// apart and hands out the events one by one as they arrive.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client.h"
#include "raw_conn.h"
#include "sse_parser.h"

namespace e2e {

// An event as a browser's EventSource dispatches it (sse_parser.h): `id` is
// the stream's last event id at that moment, `name` its type, `data` the
// joined data lines (the JSON text).
struct Event {
    std::string id, name, data;
    bool keepAlive = false;  // a comment line (data: its text)
};

class EventStream {
  public:
    EventStream() = default;
    ~EventStream();
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    // Sends the request (query without "?", extra header lines) with the
    // session's cookie and reads the answer's head.
    bool open(int port, const Session& s, const std::string& query = "",
              const std::vector<std::string>& headers = {}, int rcvbuf = 0,
              const std::string& local = "");
    long status() const { return status_; }
    const std::string& head() const { return head_; }
    // The body of an answer that is no stream (read to its end).
    std::string body();

    // The next event within `timeoutMs`; keep-alive comments only when asked.
    std::optional<Event> next(int timeoutMs, bool keepAlives = false);
    // Events until one satisfies `match` (those before it in `skipped`).
    std::optional<Event> waitFor(const std::function<bool(const Event&)>& match, int timeoutMs,
                                 std::vector<Event>* skipped = nullptr);
    // Whether the daemon has closed the stream (the last chunk or the
    // connection); reads on for up to `timeoutMs` to learn it.
    bool closedWithin(int timeoutMs);
    // Reads until the stream's first block has come (a browser then knows
    // the stream's position and reconnection time); false if none came.
    bool settle(int timeoutMs);
    // The stream's last event id and reconnection time, as a browser keeps
    // them, from what was read so far.
    const std::string& lastEventId() const { return sse_.lastEventId(); }
    std::optional<int64_t> retryMs() const { return sse_.retryMs(); }
    // Stops reading: the connection stays open, its bytes pile up.
    RawConn& conn() { return conn_; }
    void close();

  private:
    bool fill(int timeoutMs);
    bool unchunk();
    void absorb();

    RawConn conn_;
    long status_ = 0;
    std::string head_, raw_, text_, all_, path_;
    SseParser sse_;
    std::deque<SseItem> items_;
    bool chunked_ = false, ended_ = false, closed_ = false;
};

// The first JSON member `key` of an event's data as text ("" when absent).
std::string eventMember(const Event& e, const std::string& key);

}  // namespace e2e
