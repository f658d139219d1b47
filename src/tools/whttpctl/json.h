// json-c ownership and the few json-c helpers that whttpctl needs.
#pragma once

#include <json-c/json.h>

#include <memory>
#include <string>

namespace whttpctl {

struct JsonPutter {
    void operator()(json_object* o) const { json_object_put(o); }
};
// Owns one reference to a json-c object.
using JsonPtr = std::unique_ptr<json_object, JsonPutter>;

// Parses a whole text as one JSON document; nullptr when it is not JSON or
// when anything but white space follows the document (json_tokener_parse
// alone would accept "{} junk").
JsonPtr parseJson(const std::string& text);

// The text of a string member, or "" when it is absent or not a string.
std::string memberText(json_object* obj, const char* key);

}  // namespace whttpctl
