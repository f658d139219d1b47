// Parameter values of the configuration service: an instance as a row of
// typed values in the order of its object's parameters, the conversion of a
// written JSON value to a parameter's type, and the JSON forms of a row (the
// stored text and the object handed to readers).
#pragma once

#include <json-c/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device/dm_def.h"

namespace wcfg {

// One value: booleans and integers in `i`, text in `s`.
struct Value {
    int64_t i = 0;
    std::string s;
    bool operator==(const Value& o) const { return i == o.i && s == o.s; }
};
using Row = std::vector<Value>;

// The default of a parameter, and a row of defaults.
Value defaultValue(const wdm::Param& p);
Row defaultRow(const wdm::Object& o);
// A row from the stored JSON text; parameters it lacks take their defaults.
// False when the text is not a JSON object.
bool rowFromText(const wdm::Object& o, const char* text, Row& out);
// The stored JSON text of a row.
std::string rowToText(const wdm::Object& o, const Row& row);
// Adds the parameter `i` of a row to a JSON object.
void addToJson(json_object* obj, const wdm::Param& p, const Value& v);

// Converts a written value to the parameter's type, checking range, length
// and allowed values; returns a service code.
int convertValue(const wdm::Param& p, json_object* in, Value& out);

// Index of a parameter in its object, or -1.
int paramIndex(const wdm::Object& o, const char* name);

}  // namespace wcfg
