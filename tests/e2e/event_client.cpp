// The event-stream client of the end-to-end tests: see event_client.h.
#include "event_client.h"

#include <json-c/json.h>

#include <chrono>
#include <cstdlib>

namespace e2e {

namespace {

long long nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

EventStream::~EventStream() {
    close();
}

void EventStream::close() {
    if (!path_.empty()) {
        // The stream as received joins the recorded answers of the contract
        // check: status, type and every event so far.
        Reply r;
        r.ok = true;
        r.status = status_;
        r.body = status_ == 200 ? all_ : text_;
        recordExchange("GET", "https://127.0.0.1/api/v1/" + path_, r,
                       status_ == 200 ? "text/event-stream" : "application/json");
        path_.clear();
    }
    conn_.close();
}

bool EventStream::open(int port, const Session& s, const std::string& query,
                       const std::vector<std::string>& headers, int rcvbuf,
                       const std::string& local) {
    if (!conn_.connect(port, local, rcvbuf) || !conn_.handshake())
        return false;
    path_ = "Events" + (query.empty() ? "" : "?" + query);
    std::string req = "GET /api/v1/" + path_ + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (!s.id.empty())
        req += "Cookie: Session=" + s.id + "\r\n";
    for (const std::string& h : headers)
        req += h + "\r\n";
    req += "\r\n";
    if (!conn_.send(req))
        return false;
    long long end = nowMs() + 20000;
    size_t at;
    while ((at = raw_.find("\r\n\r\n")) == std::string::npos) {
        if (nowMs() > end || !fill(static_cast<int>(end - nowMs())))
            return false;
    }
    head_ = raw_.substr(0, at + 2);
    raw_.erase(0, at + 4);
    status_ = atol(head_.c_str() + head_.find(' ') + 1);
    chunked_ = head_.find("Transfer-Encoding: chunked") != std::string::npos;
    if (status_ != 200)
        text_ = raw_;
    return true;
}

std::string EventStream::body() {
    long long end = nowMs() + 10000;
    size_t length = 0;
    size_t at = head_.find("Content-Length: ");
    if (at != std::string::npos)
        length = strtoul(head_.c_str() + at + 16, nullptr, 10);
    while (raw_.size() < length && nowMs() < end && fill(static_cast<int>(end - nowMs()))) {
    }
    text_ = raw_;
    return raw_;
}

// Reads what arrives within `timeoutMs`; false once nothing more can come.
bool EventStream::fill(int timeoutMs) {
    if (closed_)
        return false;
    bool closed = false;
    std::string got = conn_.readSome(timeoutMs, &closed);
    raw_ += got;
    if (closed)
        closed_ = true;
    return !got.empty() || !closed;
}

// Moves whole chunks from the raw bytes to the event text; true at the
// last chunk.
bool EventStream::unchunk() {
    if (!chunked_) {
        text_ += raw_;
        raw_.clear();
        return false;
    }
    for (;;) {
        size_t eol = raw_.find("\r\n");
        if (eol == std::string::npos)
            return false;
        size_t size = strtoul(raw_.c_str(), nullptr, 16);
        if (size == 0) {
            ended_ = true;
            return true;
        }
        if (raw_.size() < eol + 2 + size + 2)
            return false;
        text_.append(raw_, eol + 2, size);
        raw_.erase(0, eol + 2 + size + 2);
    }
}

// The stream's text goes to a reader that makes of it what a browser does.
void EventStream::absorb() {
    unchunk();
    if (text_.empty())
        return;
    all_ += text_;
    sse_.feed(text_);
    text_.clear();
    for (SseItem& item : sse_.take())
        items_.push_back(std::move(item));
}

std::optional<Event> EventStream::next(int timeoutMs, bool keepAlives) {
    long long end = nowMs() + timeoutMs;
    for (;;) {
        absorb();
        while (!items_.empty()) {
            SseItem item = std::move(items_.front());
            items_.pop_front();
            if (item.comment && !keepAlives)
                continue;
            return Event{item.lastEventId, item.type, item.data, item.comment};
        }
        long long left = end - nowMs();
        if (left <= 0 || ended_ || !fill(static_cast<int>(left)))
            return std::nullopt;
    }
}

bool EventStream::settle(int timeoutMs) {
    long long end = nowMs() + timeoutMs;
    for (;;) {
        absorb();
        if (!sse_.lastEventId().empty() || sse_.retryMs())
            return true;
        long long left = end - nowMs();
        if (left <= 0 || ended_ || !fill(static_cast<int>(left)))
            return false;
    }
}

std::optional<Event> EventStream::waitFor(const std::function<bool(const Event&)>& match,
                                          int timeoutMs, std::vector<Event>* skipped) {
    long long end = nowMs() + timeoutMs;
    while (nowMs() < end) {
        std::optional<Event> e = next(static_cast<int>(end - nowMs()));
        if (!e)
            return std::nullopt;
        if (match(*e))
            return e;
        if (skipped)
            skipped->push_back(*e);
    }
    return std::nullopt;
}

bool EventStream::closedWithin(int timeoutMs) {
    long long end = nowMs() + timeoutMs;
    while (!closed_ && !ended_ && nowMs() < end) {
        fill(static_cast<int>(end - nowMs()));
        absorb();
    }
    return closed_ || ended_;
}

std::string eventMember(const Event& e, const std::string& key) {
    json_object* doc = json_tokener_parse(e.data.c_str());
    json_object* v = nullptr;
    std::string out;
    if (doc && json_object_object_get_ex(doc, key.c_str(), &v))
        out = json_object_is_type(v, json_type_string)
                  ? json_object_get_string(v)
                  : json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN);
    json_object_put(doc);
    return out;
}

}  // namespace e2e
