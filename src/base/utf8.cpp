// UTF-8 well-formedness: see utf8.h.  The byte ranges are those of the
// Unicode standard's table of well-formed sequences.
#include "base/utf8.h"

namespace {

// The number of continuation bytes a lead byte announces and the range the
// first of them must fall in; 0 continuation bytes for ASCII, -1 invalid.
int leadInfo(unsigned char c, unsigned char& lo, unsigned char& hi) {
    lo = 0x80;
    hi = 0xBF;
    if (c < 0x80)
        return 0;
    if (c >= 0xC2 && c <= 0xDF)
        return 1;
    if (c == 0xE0)
        return lo = 0xA0, 2;
    if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF)
        return 2;
    if (c == 0xED)
        return hi = 0x9F, 2;  // no surrogates
    if (c == 0xF0)
        return lo = 0x90, 3;
    if (c >= 0xF1 && c <= 0xF3)
        return 3;
    if (c == 0xF4)
        return hi = 0x8F, 3;  // nothing beyond U+10FFFF
    return -1;
}

}  // namespace

bool utf8Valid(std::string_view text) {
    size_t i = 0;
    const size_t n = text.size();
    while (i < n) {
        unsigned char lo, hi;
        int more = leadInfo(static_cast<unsigned char>(text[i]), lo, hi);
        if (more < 0 || n - i - 1 < static_cast<size_t>(more))
            return false;
        for (int k = 1; k <= more; ++k) {
            auto c = static_cast<unsigned char>(text[i + k]);
            if (k == 1 ? (c < lo || c > hi) : (c < 0x80 || c > 0xBF))
                return false;
        }
        i += static_cast<size_t>(more) + 1;
    }
    return true;
}

size_t utf8CutLength(std::string_view text, size_t max) {
    if (text.size() <= max)
        return text.size();
    size_t n = max;
    // Back over the continuation bytes to the start of the cut character.
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        --n;
    return n;
}
