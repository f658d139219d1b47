// Query and cookie text of a request: see http_text.h.
#include "http/http_text.h"

#include <cstring>

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string_view trimBlanks(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

}  // namespace

std::string httpPercentDecode(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        int hi = -1, lo = -1;
        if (s[i] == '%' && i + 2 < s.size()) {
            hi = hexValue(s[i + 1]);
            lo = hexValue(s[i + 2]);
        }
        if (hi >= 0 && lo >= 0) {
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

HttpPairs httpParseQuery(std::string_view target) {
    HttpPairs out;
    size_t q = target.find('?');
    if (q == std::string_view::npos)
        return out;
    std::string_view rest = target.substr(q + 1);
    while (!rest.empty()) {
        size_t amp = rest.find('&');
        std::string_view pair = rest.substr(0, amp);
        size_t eq = pair.find('=');
        std::string name = httpPercentDecode(pair.substr(0, eq));
        std::string value =
            eq == std::string_view::npos ? "" : httpPercentDecode(pair.substr(eq + 1));
        if (!name.empty())
            out.emplace_back(std::move(name), std::move(value));
        if (amp == std::string_view::npos)
            break;
        rest.remove_prefix(amp + 1);
    }
    return out;
}

void httpParseCookies(std::string_view header, HttpPairs& out) {
    while (!header.empty()) {
        size_t semi = header.find(';');
        std::string_view item = trimBlanks(header.substr(0, semi));
        size_t eq = item.find('=');
        if (eq != std::string_view::npos && eq > 0) {
            std::string_view value = item.substr(eq + 1);
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            out.emplace_back(std::string(item.substr(0, eq)), std::string(value));
        }
        if (semi == std::string_view::npos)
            break;
        header.remove_prefix(semi + 1);
    }
}

const char* httpFindPair(const HttpPairs& pairs, const char* name) {
    for (const auto& [n, v] : pairs)
        if (n == name)
            return v.c_str();
    return nullptr;
}
