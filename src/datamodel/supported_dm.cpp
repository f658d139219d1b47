// TR181/SupportedDM/: the REST schema below a path.
#include <cstring>
#include <string>
#include <vector>

#include "platform/log.h"
#include "datamodel/path_parse.h"
#include "datamodel/schema.h"
#include "datamodel/value_handlers.h"
#include "rest/context/response_writer.h"

namespace {

json_object* deepCopy(json_object* value) {
    return json_tokener_parse(json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN));
}

}  // namespace

int wHttpTR181SupportedDMHandle(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    char path[256] = "";
    int firstLevelOnly = 1;
    json_object* node = nullptr;
    if (wHttpParseTR181Path(request, path, &firstLevelOnly) == 0)
        node = wHttpGetSchemaObj(path, nullptr, 0, nullptr, 0, nullptr);
    wHttpSetRequestedPath(doc, path);
    if (node) {
        json_object* copy = deepCopy(node);
        if (firstLevelOnly && json_object_is_type(copy, json_type_object)) {
            std::vector<std::string> nested;
            json_object_object_foreach(copy, key, child) {
                const char* kind = wHttpSchemaNodeKind(child);
                if (!strcmp(kind, "object") || !strcmp(kind, "index_object"))
                    nested.emplace_back(key);
            }
            for (const std::string& key : nested)
                json_object_object_del(copy, key.c_str());
        }
        wHttpSetObject(doc, deepCopy(copy));
        json_object_put(copy);
    } else {
        wHttpSetOperStatus(doc, "Invalid object");
    }
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, 0);
    return 1;
}
