// Typed parameter values: conversion from and to JSON.
#include "simulator/store/values.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/json_util.h"
#include "base/utf8.h"
#include "device/wcfg.h"

namespace wcfg {

namespace {

bool isText(wdm::Type t) {
    return t == wdm::Type::String || t == wdm::Type::DateTime;
}

bool parseInteger(json_object* in, int64_t& v) {
    if (json_object_is_type(in, json_type_int)) {
        v = json_object_get_int64(in);
        return true;
    }
    if (!json_object_is_type(in, json_type_string))
        return false;
    const char* s = json_object_get_string(in);
    char* end = nullptr;
    errno = 0;
    long long x = strtoll(s, &end, 10);
    if (!*s || *end || errno || static_cast<int>(strlen(s)) != json_object_get_string_len(in))
        return false;
    v = x;
    return true;
}

int convertBool(json_object* in, Value& out) {
    if (json_object_is_type(in, json_type_boolean)) {
        out.i = json_object_get_boolean(in) ? 1 : 0;
        return WCFG_SUCCESS;
    }
    if (json_object_is_type(in, json_type_string)) {
        std::string s(json_object_get_string(in), json_object_get_string_len(in));
        if (s == "true" || s == "1" || s == "false" || s == "0") {
            out.i = (s == "true" || s == "1") ? 1 : 0;
            return WCFG_SUCCESS;
        }
        return WCFG_ERROR_PARAMETER_TYPE;
    }
    int64_t v;
    if (json_object_is_type(in, json_type_int) && parseInteger(in, v) && (v == 0 || v == 1)) {
        out.i = v;
        return WCFG_SUCCESS;
    }
    return WCFG_ERROR_PARAMETER_TYPE;
}

int convertText(const wdm::Param& p, json_object* in, Value& out) {
    std::string s;
    if (json_object_is_type(in, json_type_string))
        s.assign(json_object_get_string(in), json_object_get_string_len(in));
    else if (json_object_is_type(in, json_type_int) || json_object_is_type(in, json_type_boolean) ||
             json_object_is_type(in, json_type_double))
        s = json_object_to_json_string_ext(in, JSON_C_TO_STRING_PLAIN);
    else
        return WCFG_ERROR_PARAMETER_TYPE;
    // A value is text: an embedded NUL would cut it short for every reader,
    // and bytes that are not UTF-8 would make every answer carrying it
    // invalid JSON.
    if (s.find('\0') != std::string::npos || !utf8Valid(s))
        return WCFG_INVALID_PARAM_VALUE;
    if (p.maxLen && s.size() > p.maxLen)
        return WCFG_INVALID_PARAM_VALUE_LENGTH;
    if (!p.enums.empty() && std::find(p.enums.begin(), p.enums.end(), s) == p.enums.end())
        return WCFG_INVALID_PARAM_VALUE;
    out.s = std::move(s);
    return WCFG_SUCCESS;
}

}  // namespace

Value defaultValue(const wdm::Param& p) {
    Value v;
    if (p.type == wdm::Type::Bool)
        v.i = p.hasDefault && p.def == "true";
    else if (!isText(p.type))
        v.i = p.hasDefault ? strtoll(p.def.c_str(), nullptr, 10) : 0;
    else if (p.hasDefault)
        v.s = p.def;
    return v;
}

Row defaultRow(const wdm::Object& o) {
    Row row;
    row.reserve(o.params.size());
    for (const wdm::Param& p : o.params)
        row.push_back(defaultValue(p));
    return row;
}

bool rowFromText(const wdm::Object& o, const char* text, Row& out) {
    JsonPtr stored(text ? json_tokener_parse(text) : nullptr);
    if (!stored || !json_object_is_type(stored.get(), json_type_object))
        return false;
    out.clear();
    out.reserve(o.params.size());
    for (const wdm::Param& p : o.params) {
        json_object* v = nullptr;
        Value val;
        if (!json_object_object_get_ex(stored.get(), p.name.c_str(), &v) ||
            convertValue(p, v, val) != WCFG_SUCCESS)
            val = defaultValue(p);
        out.push_back(std::move(val));
    }
    return true;
}

void addToJson(json_object* obj, const wdm::Param& p, const Value& v) {
    json_object* j;
    if (p.type == wdm::Type::Bool)
        j = json_object_new_boolean(v.i != 0);
    else if (!isText(p.type))
        j = json_object_new_int64(v.i);
    else
        j = json_object_new_string_len(v.s.data(), static_cast<int>(v.s.size()));
    json_object_object_add(obj, p.name.c_str(), j);
}

std::string rowToText(const wdm::Object& o, const Row& row) {
    JsonPtr obj(json_object_new_object());
    for (size_t i = 0; i < o.params.size() && i < row.size(); ++i)
        addToJson(obj.get(), o.params[i], row[i]);
    return json_object_to_json_string_ext(obj.get(), JSON_C_TO_STRING_PLAIN);
}

int convertValue(const wdm::Param& p, json_object* in, Value& out) {
    out = Value{};
    if (p.type == wdm::Type::Bool)
        return convertBool(in, out);
    if (isText(p.type))
        return convertText(p, in, out);
    int64_t v;
    if (!parseInteger(in, v))
        return WCFG_ERROR_PARAMETER_TYPE;
    if ((p.hasMin && v < p.min) || (p.hasMax && v > p.max))
        return WCFG_INVALID_PARAM_VALUE;
    out.i = v;
    return WCFG_SUCCESS;
}

int paramIndex(const wdm::Object& o, const char* name) {
    for (size_t i = 0; i < o.params.size(); ++i)
        if (o.params[i].name == name)
            return static_cast<int>(i);
    return -1;
}

}  // namespace wcfg
