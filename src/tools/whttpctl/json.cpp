// whttpctl: json-c ownership and helpers.
#include "json.h"

#include <cctype>

namespace whttpctl {

JsonPtr parseJson(const std::string& text) {
    std::unique_ptr<json_tokener, void (*)(json_tokener*)> tok(json_tokener_new(),
                                                               json_tokener_free);
    if (!tok)
        return nullptr;
    json_tokener_set_flags(tok.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
    // The length counts the terminating NUL: without it json-c waits for more
    // input after a number at the very end ("5").
    JsonPtr doc(json_tokener_parse_ex(tok.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    if (!doc || json_tokener_get_error(tok.get()) != json_tokener_success)
        return nullptr;
    // Whatever follows the document must be white space only.
    for (size_t at = json_tokener_get_parse_end(tok.get()); at < text.size(); ++at) {
        if (!isspace(static_cast<unsigned char>(text[at])))
            return nullptr;
    }
    return doc;
}

std::string memberText(json_object* obj, const char* key) {
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, key, &v) ||
        !json_object_is_type(v, json_type_string))
        return "";
    return json_object_get_string(v);
}

}  // namespace whttpctl
