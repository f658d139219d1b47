// Helpers of json-c: see json_util.h.
#include "base/json_util.h"

#include "base/utf8.h"

json_object* jsonParseUtf8(const char* text) {
    // json-c's own check lets overlong forms, surrogates and code points
    // beyond U+10FFFF through: the strict check, then json-c's parser.
    if (!text || !utf8Valid(text))
        return nullptr;
    return json_tokener_parse(text);
}
