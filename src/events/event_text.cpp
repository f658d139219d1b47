// Event-stream text: see event_text.h.
#include "events/event_text.h"

#include <algorithm>
#include <cctype>
#include <random>

const char kWHttpKeepAliveFrame[] = ": keep-alive\n\n";

namespace {

std::string frame(const uint64_t* id, std::string_view name, std::string_view data) {
    std::string out;
    out.reserve(data.size() + name.size() + 40);
    if (id) {
        out += "id: ";
        out += std::to_string(*id);
        out += "\n";
    }
    out += "event: ";
    out += name;
    out += "\ndata: ";
    // A line break would end the data line early; the JSON writer never
    // leaves one in its text, and nothing else is framed here.
    for (char c : data)
        out += (c == '\n' || c == '\r') ? ' ' : c;
    out += "\n\n";
    return out;
}

}  // namespace

std::string wHttpEventFrame(uint64_t id, std::string_view name, std::string_view data) {
    return frame(&id, name, data);
}

std::string wHttpEventNotice(std::string_view name, std::string_view data) {
    return frame(nullptr, name, data);
}

std::string wHttpEventPosition(uint64_t id) {
    return "id: " + std::to_string(id) + "\n\n";
}

std::string wHttpEventRetry(int ms) {
    return "retry: " + std::to_string(ms) + "\n";
}

std::string wHttpEventKeepAlive(uint64_t id) {
    return ": keep-alive\n" + wHttpEventPosition(id);
}

int wHttpEventRetryMs(int baseMs) {
    static thread_local std::minstd_rand random{std::random_device{}()};
    return baseMs + static_cast<int>(random() % static_cast<unsigned>(std::max(1, baseMs)));
}

std::optional<uint64_t> wHttpParseLastEventId(std::string_view text) {
    if (text.empty() || text.size() > 19)
        return std::nullopt;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    return v;
}

bool wHttpWatchPathWellFormed(std::string_view path) {
    constexpr std::string_view kRoot = "Device.";
    if (path.size() > 255 || path.substr(0, kRoot.size()) != kRoot)
        return false;
    size_t start = kRoot.size();  // of the current segment
    bool digits = true;           // so far, the segment is a number
    for (size_t i = start; i < path.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(path[i]);
        if (c == '.') {
            // An instance number is written as the device writes it: a
            // leading zero would name the instance, yet match no change.
            if (i == start || (digits && path[start] == '0'))
                return false;
            start = i + 1;
            digits = true;
        } else if (isalnum(c) || c == '_' || c == '-') {
            digits = digits && isdigit(c);
        } else {
            return false;
        }
    }
    return start == path.size();
}

bool wHttpPathWatched(const std::vector<std::string>& watched, std::string_view path) {
    if (watched.empty())
        return true;
    for (const std::string& w : watched)
        if (path.substr(0, w.size()) == w)
            return true;
    return false;
}
