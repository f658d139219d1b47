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

// Takes the stream apart into events as its bytes arrive.
class EventReader {
  public:
    explicit EventReader(const Context& ctx) : ctx_(ctx) {}
    // Feeds bytes; false once the stream should stop (its end, or garbage).
    bool feed(const char* data, size_t n);
    bool ended() const { return ended_; }
    const std::string& lastId() const { return lastId_; }

  private:
    void event(const std::string& block);

    const Context& ctx_;
    std::string pending_, lastId_;
    bool ended_ = false;
};

bool EventReader::feed(const char* data, size_t n) {
    pending_.append(data, n);
    size_t at;
    while (!ended_ && (at = pending_.find("\n\n")) != std::string::npos) {
        event(pending_.substr(0, at + 1));
        pending_.erase(0, at + 2);
    }
    return !ended_ && pending_.size() < kMaxPending;
}

void EventReader::event(const std::string& block) {
    std::string id, name, data;
    for (size_t pos = 0; pos < block.size();) {
        size_t nl = block.find('\n', pos);
        std::string line = block.substr(pos, nl - pos);
        pos = nl + 1;
        if (line.rfind("id: ", 0) == 0)
            id = line.substr(4);
        else if (line.rfind("event: ", 0) == 0)
            name = line.substr(7);
        else if (line.rfind("data: ", 0) == 0)
            data = line.substr(6);
    }
    if (name.empty())
        return;  // a keep-alive
    JsonPtr doc(json_object_new_object());
    json_object_object_add(doc.get(), "id", json_object_new_int64(atoll(id.c_str())));
    json_object_object_add(doc.get(), "event", json_object_new_string(name.c_str()));
    JsonPtr value = parseJson(data);
    json_object_object_add(doc.get(), "data", value ? value.release() : json_object_new_string(data.c_str()));
    printJson(doc.get(), ctx_.compact);
    if (!id.empty())
        lastId_ = id;
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
    bool ok = ctx.http->stream(target, session.cookie, headers, kSilenceMs,
                               [&](const char* d, size_t n) { return reader.feed(d, n); }, raw,
                               error);
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
        fail(kFailed, "the device answered HTTP " + std::to_string(raw.status) + " without a stream");
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
        sleep(backoff);
        backoff = std::min(backoff * 2, kMaxBackoffSeconds);
    }
}

}  // namespace whttpctl
