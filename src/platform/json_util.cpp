// Helpers of json-c: see json_util.h.
#include "platform/json_util.h"

#include <cstring>

#include "platform/utf8.h"

json_object* jsonParseUtf8(const char* text) {
    // json-c's own check lets overlong forms, surrogates and code points
    // beyond U+10FFFF through; the strict check comes first.
    if (!text || !utf8Valid(text))
        return nullptr;
    json_tokener* tok = json_tokener_new();
    if (!tok)
        return nullptr;
    json_tokener_set_flags(tok, JSON_TOKENER_VALIDATE_UTF8);
    json_object* obj = json_tokener_parse_ex(tok, text, static_cast<int>(strnlen(text, 1 << 30)));
    if (json_tokener_get_error(tok) != json_tokener_success) {
        json_object_put(obj);
        obj = nullptr;
    }
    json_tokener_free(tok);
    return obj;
}
