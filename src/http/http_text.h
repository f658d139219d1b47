// Text of a request as the HTTP adapter hands it on: the query parameters
// of the target and the cookies of the "Cookie" headers.  Kept apart from
// the network code so that both can be tested and fuzzed on their own.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

using HttpPairs = std::vector<std::pair<std::string, std::string>>;

// "%41" -> "A"; a '%' not followed by two hex digits stays as it is.
std::string httpPercentDecode(std::string_view s);
// The "name=value" pairs after the first '?' of `target`, percent-decoded,
// in order; pairs with an empty name are dropped.
HttpPairs httpParseQuery(std::string_view target);
// Appends the "name=value" items of one "Cookie" header value (items split
// at ';', blanks trimmed, one pair of double quotes around a value removed).
void httpParseCookies(std::string_view header, HttpPairs& out);
// The value of the first pair named `name`, or nullptr.
const char* httpFindPair(const HttpPairs& pairs, const char* name);
