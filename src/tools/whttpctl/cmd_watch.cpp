// whttpctl watch [PATH...]: follows the device's event stream and prints
// every event as a JSON document ({"id", "event", "data"}), one line each
// with --compact.  A dropped connection is opened again from the last event
// seen (Last-Event-ID), so that nothing is missed that the device still
// keeps; the session's end ("end") ends the command with status 0.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "api.h"
#include "commands.h"
#include "output.h"

namespace whttpctl {

namespace {

// Keep-alives come every 15 s: three missed mean the connection is dead.
constexpr long kSilenceMs = 45000;
constexpr unsigned kMaxBackoffSeconds = 30;
// No event is this large; a stream that sends one is broken.
constexpr size_t kMaxPending = 1 << 20;

// Takes the stream apart into events as its bytes arrive, as a browser's
// EventSource does: lines end in LF, CR or CRLF; a block with an "id" and
// no data moves the position without an event; "retry" says how long to
// wait before connecting again; comments are keep-alives.
class EventReader {
  public:
    explicit EventReader(const Context& ctx) : ctx_(ctx) {}
    // Feeds bytes; false once the stream should stop (its end, or garbage).
    bool feed(const char* data, size_t n);
    bool ended() const { return ended_; }
    const std::string& lastId() const { return lastId_; }
    // The wait the device asked for before the next connection (0: none).
    long retryMs() const { return retryMs_; }

  private:
    void line(const std::string& text);
    void dispatch();

    const Context& ctx_;
    std::string pending_, lastId_, idBuffer_, name_, data_;
    bool cr_ = false, ended_ = false;
    long retryMs_ = 0;
};

bool EventReader::feed(const char* data, size_t n) {
    for (size_t i = 0; i < n && !ended_; ++i) {
        char c = data[i];
        if (cr_ && c == '\n') {
            cr_ = false;
            continue;
        }
        cr_ = c == '\r';
        if (c == '\r' || c == '\n') {
            line(pending_);
            pending_.clear();
        } else {
            pending_ += c;
        }
    }
    return !ended_ && pending_.size() + data_.size() < kMaxPending;
}

void EventReader::line(const std::string& text) {
    if (text.empty())
        return dispatch();
    if (text[0] == ':')
        return;  // a keep-alive
    size_t colon = text.find(':');
    std::string field = text.substr(0, colon);
    std::string value = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (!value.empty() && value[0] == ' ')
        value.erase(0, 1);
    if (field == "id" && value.find('\0') == std::string::npos)
        idBuffer_ = value;
    else if (field == "event")
        name_ = value;
    else if (field == "data")
        data_ += value + "\n";
    else if (field == "retry" && !value.empty() && value.size() < 10 &&
             value.find_first_not_of("0123456789") == std::string::npos)
        retryMs_ = atol(value.c_str());
}

void EventReader::dispatch() {
    lastId_ = idBuffer_;
    std::string name, data;
    name.swap(name_);
    data.swap(data_);
    if (data.empty())
        return;  // a position, not an event
    data.pop_back();
    JsonPtr doc(json_object_new_object());
    json_object_object_add(doc.get(), "id", json_object_new_int64(atoll(lastId_.c_str())));
    json_object_object_add(doc.get(), "event",
                           json_object_new_string(name.empty() ? "message" : name.c_str()));
    JsonPtr value = parseJson(data);
    json_object_object_add(doc.get(), "data",
                           value ? value.release() : json_object_new_string(data.c_str()));
    printJson(doc.get(), ctx_.compact);
    ended_ = name == "end";
}

int checkWatchPaths(const std::vector<std::string>& paths, std::string& query) {
    for (const std::string& p : paths) {
        if (int rc = checkPath(p))
            return rc;
        if (p.back() != '.')
            return fail(kUsage, "a watched path ends in '.': " + p);
        query += std::string(query.empty() ? "?" : "&") + "path=" + p;
    }
    return kOk;
}

// One connection: kOk when it ended with the session, kNetwork when it broke
// (and may be opened again), otherwise the failure's exit status.
int follow(Context& ctx, const std::string& target, EventReader& reader, bool& opened) {
    SessionEntry session;
    if (!ctx.state->find(ctx.url, session))
        return fail(kFailed, "not logged in to " + ctx.url + "; run: whttpctl login USER");
    std::vector<std::string> headers;
    if (!reader.lastId().empty())
        headers.push_back("Last-Event-ID: " + reader.lastId());
    Response raw;
    std::string error;
    bool ok = ctx.http->stream(
        target, session.cookie, headers, kSilenceMs,
        [&](const char* d, size_t n) { return reader.feed(d, n); }, raw, error);
    if (reader.ended())
        return kOk;
    if (raw.status == 200) {
        opened = true;
        return fail(kNetwork, ctx.url + ": the event stream broke" + (ok ? "" : ": " + error));
    }
    if (!ok)
        return fail(kNetwork, ctx.url + ": " + error);
    // Refused (session gone, a path that is no object, too many streams):
    // the device's reason, and no second try.
    Answer answer;
    answer.status = raw.status;
    answer.doc = parseJson(raw.body);
    if (judge(answer) == kOk)
        fail(kFailed,
             "the device answered HTTP " + std::to_string(raw.status) + " without a stream");
    return kFailed;
}

}  // namespace

int cmdWatch(Context& ctx) {
    std::string query;
    if (int rc = checkWatchPaths(ctx.line.operands, query))
        return rc;
    EventReader reader(ctx);
    bool opened = false;
    unsigned backoff = 1;
    for (;;) {
        int rc = follow(ctx, "Events" + query, reader, opened);
        // A stream that was open is opened again after a pause; one that
        // never opened, or a refusal by the device, ends the command.
        if (rc != kNetwork || !opened)
            return rc;
        // The device's own wait when it gave one (a "busy" stream says when
        // to come back), else a growing pause.
        if (reader.retryMs() > 0) {
            usleep(static_cast<useconds_t>(std::min(reader.retryMs(), 60000L)) * 1000);
        } else {
            sleep(backoff);
            backoff = std::min(backoff * 2, kMaxBackoffSeconds);
        }
    }
}

}  // namespace whttpctl
