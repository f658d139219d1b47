// RAII owner for json-c objects.
#pragma once

#include <json-c/json.h>

#include <memory>

// The text of a string member, or "" when the member is absent or not a string.
inline const char* jsonString(json_object* obj, const char* key) {
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, key, &v) ||
        !json_object_is_type(v, json_type_string))
        return "";
    return json_object_get_string(v);
}

struct JsonPutter {
    void operator()(json_object* o) const { json_object_put(o); }
};
// Owns one reference to a json-c object.
using JsonPtr = std::unique_ptr<json_object, JsonPutter>;
