// whttpctl: JSON output and one-line errors.
#include "output.h"

#include <cstdint>
#include <cstdio>

namespace whttpctl {

namespace {

// Decodes the UTF-8 character at text[at]: its code point and length.  False
// when the bytes there are not valid UTF-8.
bool decode(const std::string& text, size_t at, uint32_t& cp, size_t& len) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char b = byte(at);
    len = b < 0x80             ? 1
          : (b & 0xe0) == 0xc0 ? 2
          : (b & 0xf0) == 0xe0 ? 3
          : (b & 0xf8) == 0xf0 ? 4
                               : 0;
    if (len == 0 || at + len > text.size())
        return false;
    cp = len == 1 ? b : b & (0x7f >> len);
    for (size_t i = 1; i < len; ++i) {
        if ((byte(at + i) & 0xc0) != 0x80)
            return false;
        cp = (cp << 6) | (byte(at + i) & 0x3f);
    }
    static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    return cp >= kLeast[len] && cp <= 0x10ffff && (cp < 0xd800 || cp > 0xdfff);
}

// Characters that a terminal acts on instead of showing: C0 and C1 controls
// (U+009B alone starts an escape sequence) and the ones that reorder or hide
// the text around them (bidirectional marks, embeddings and isolates, line
// and paragraph separators), which can make a value read as another.
bool actsOnTerminal(uint32_t cp) {
    return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x061c || cp == 0x200e ||
           cp == 0x200f || (cp >= 0x2028 && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
}

}  // namespace

std::string terminalSafeJson(const std::string& json) {
    std::string out;
    out.reserve(json.size());
    for (size_t at = 0; at < json.size();) {
        uint32_t cp = 0;
        size_t len = 0;
        if (!decode(json, at, cp, len)) {
            len = 1;  // not UTF-8: left as it is (json-c's output always is)
            cp = 0;
        }
        // json-c escapes the ASCII controls inside strings and nothing else;
        // the others can only stand inside strings, where \uXXXX means the
        // same character.
        if (cp >= 0x80 && actsOnTerminal(cp)) {
            char escaped[16];
            snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(cp));
            out += escaped;
        } else {
            out.append(json, at, len);
        }
        at += len;
    }
    return out;
}

std::string terminalSafeLine(const std::string& text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        uint32_t cp = 0;
        size_t len = 0;
        bool valid = decode(text, at, cp, len);
        if (!valid)
            len = 1;
        if (!valid || actsOnTerminal(cp))
            out += '?';
        else
            out.append(text, at, len);
        at += len;
    }
    return out;
}

void printJson(json_object* doc, bool compact) {
    int flags =
        JSON_C_TO_STRING_NOSLASHESCAPE |
        (compact ? JSON_C_TO_STRING_PLAIN : JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED);
    printf("%s\n", terminalSafeJson(json_object_to_json_string_ext(doc, flags)).c_str());
    fflush(stdout);
}

int fail(int status, const std::string& message) {
    // Control characters from a device's answer must not reach the terminal
    // as escape sequences, nor split the error over several lines.
    fprintf(stderr, "whttpctl: %s\n", terminalSafeLine(message).c_str());
    return status;
}

}  // namespace whttpctl
