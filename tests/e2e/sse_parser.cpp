// Server-sent events as a browser reads them: see sse_parser.h.
#include "sse_parser.h"

namespace e2e {

void SseParser::feed(std::string_view bytes) {
    for (char c : bytes) {
        if (sawCr_) {
            sawCr_ = false;
            if (c == '\n')
                continue;  // the CR ended the line already
        }
        if (c == '\r' || c == '\n') {
            sawCr_ = c == '\r';
            std::string text;
            text.swap(pending_);
            line(text);
        } else {
            pending_ += c;
        }
    }
}

void SseParser::finish() {
    if (!pending_.empty()) {
        std::string text;
        text.swap(pending_);
        line(text);
    }
    data_.clear();
    type_.clear();
}

std::vector<SseItem> SseParser::take() {
    std::vector<SseItem> items;
    items.swap(out_);
    return items;
}

void SseParser::line(std::string_view text) {
    if (!bomChecked_) {
        bomChecked_ = true;
        if (text.substr(0, 3) == "\xEF\xBB\xBF")
            text.remove_prefix(3);
    }
    if (text.empty())
        return dispatch();
    if (text[0] == ':') {
        out_.push_back({true, "", std::string(text.substr(1)), lastEventId_});
        return;
    }
    size_t colon = text.find(':');
    if (colon == std::string_view::npos)
        return field(text, "");
    std::string_view value = text.substr(colon + 1);
    if (!value.empty() && value[0] == ' ')
        value.remove_prefix(1);
    field(text.substr(0, colon), value);
}

void SseParser::field(std::string_view name, std::string_view value) {
    if (name == "event") {
        type_ = value;
    } else if (name == "data") {
        data_ += value;
        data_ += '\n';
    } else if (name == "id") {
        if (value.find('\0') == std::string_view::npos)
            idBuffer_ = value;
    } else if (name == "retry") {
        if (!value.empty() && value.find_first_not_of("0123456789") == std::string_view::npos)
            retry_ = std::stoll(std::string(value));
    }
}

void SseParser::dispatch() {
    lastEventId_ = idBuffer_;
    if (data_.empty()) {
        type_.clear();
        return;
    }
    if (data_.back() == '\n')
        data_.pop_back();
    out_.push_back({false, type_.empty() ? "message" : type_, data_, lastEventId_});
    data_.clear();
    type_.clear();
}

}  // namespace e2e
