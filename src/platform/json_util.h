// RAII owner for json-c objects.
#pragma once

#include <json-c/json.h>

#include <memory>

struct JsonPutter {
    void operator()(json_object* o) const { json_object_put(o); }
};
// Owns one reference to a json-c object.
using JsonPtr = std::unique_ptr<json_object, JsonPutter>;
