// HTML encoding of the string values of an answer.
#include <atomic>
#include <cstring>
#include <string>

#include "context/response_writer.h"

namespace {

// Off at start: no code path of the daemon switches it on.
std::atomic<uint8_t> gHtmlEncode{0};

// Entity pairs, in the order they are applied: "&" first, so that the "&" of
// a replacement is never encoded again.
const struct {
    char ch;
    const char* entity;
} kEntities[] = {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#x27;"}};

// Members whose values are never encoded.
const char* const kExempt[] = {"Authentication",      "BlockChar",          "AllowCharList",
                               "X_OLVEX_Certificate", "X_OLVEX_PrivateKey", "RemoteLogFormat"};

bool exempt(const char* name) {
    for (const char* e : kExempt)
        if (!strcmp(name, e))
            return true;
    return false;
}

// Encodes one text; false when it holds nothing to encode.
bool encodeText(std::string& s) {
    bool changed = false;
    for (const auto& e : kEntities) {
        size_t pos = 0;
        size_t len = strlen(e.entity);
        while ((pos = s.find(e.ch, pos)) != std::string::npos) {
            s.replace(pos, 1, e.entity);
            pos += len;
            changed = true;
        }
    }
    return changed;
}

}  // namespace

void wHttpSetHtmlEncode(uint8_t value) {
    gHtmlEncode = value;
}

uint8_t wHttpHtmlEncodeSwitch(void) {
    return gHtmlEncode.load();
}

void wHttpHtmlEncode(json_object* value) {
    if (gHtmlEncode.load() != 1 || !value)
        return;
    if (json_object_is_type(value, json_type_array)) {
        size_t n = json_object_array_length(value);
        for (size_t i = 0; i < n; ++i) {
            json_object* el = json_object_array_get_idx(value, i);
            // Strings directly in an array are left alone.
            if (json_object_is_type(el, json_type_object) ||
                json_object_is_type(el, json_type_array))
                wHttpHtmlEncode(el);
        }
        return;
    }
    if (!json_object_is_type(value, json_type_object))
        return;
    json_object_object_foreach(value, name, member) {
        if (json_object_is_type(member, json_type_object) ||
            json_object_is_type(member, json_type_array)) {
            wHttpHtmlEncode(member);
            continue;
        }
        if (!json_object_is_type(member, json_type_string) || exempt(name))
            continue;
        std::string text = json_object_get_string(member);
        if (text.empty() || !encodeText(text))
            continue;
        json_object_object_add(value, name, json_object_new_string(text.c_str()));
    }
}
