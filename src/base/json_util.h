// RAII owner for json-c objects and small helpers of json-c.
#pragma once

#include <json-c/json.h>

#include <memory>
#include <string>

// The text of a string member, or "" when the member is absent or not a string.
inline const char* jsonString(json_object* obj, const char* key) {
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, key, &v) ||
        !json_object_is_type(v, json_type_string))
        return "";
    return json_object_get_string(v);
}

// The whole text of a string member, embedded NUL characters included (a
// client's "\u0000" must not cut a name or a password short); "" when the
// member is absent or not a string.
inline std::string jsonText(json_object* obj, const char* key) {
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, key, &v) ||
        !json_object_is_type(v, json_type_string))
        return "";
    return std::string(json_object_get_string(v),
                       static_cast<size_t>(json_object_get_string_len(v)));
}

// Parses JSON text from outside the daemon as json_tokener_parse does, but
// refuses text that is not well-formed UTF-8 (nullptr, as for text that is
// not JSON).  The caller owns the result.
json_object* jsonParseUtf8(const char* text);

struct JsonPutter {
    void operator()(json_object* o) const { json_object_put(o); }
};
// Owns one reference to a json-c object.
using JsonPtr = std::unique_ptr<json_object, JsonPutter>;
