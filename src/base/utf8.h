// UTF-8 checks for text that comes from outside (request bodies, files that
// the daemon re-serves, values written to the store): text that is not
// well-formed UTF-8 would make every JSON answer that carries it invalid.
#pragma once

#include <string_view>

// Whether `text` is well-formed UTF-8: no stray continuation bytes, no
// overlong forms, no surrogates, nothing beyond U+10FFFF.
bool utf8Valid(std::string_view text);
// The longest prefix of well-formed `text` of at most `max` bytes that does
// not split a character.
size_t utf8CutLength(std::string_view text, size_t max);
