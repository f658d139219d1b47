// TR181/SupportedDM/: the REST schema below a path.
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "datamodel/path_parse.h"
#include "datamodel/schema.h"
#include "datamodel/value_handlers.h"
#include "context/response_writer.h"

int wHttpTR181SupportedDMHandle(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    char path[256] = "";
    int firstLevelOnly = 1;
    const WSchemaNode* node = nullptr;
    if (wHttpParseTR181Path(request, path, &firstLevelOnly) == 0)
        node = wHttpGetSchemaObj(path, nullptr, 0, nullptr, 0, nullptr);
    wHttpSetRequestedPath(doc, path);
    if (node) {
        json_object* copy = wHttpSchemaToJson(node);
        if (firstLevelOnly && json_object_is_type(copy, json_type_object)) {
            // Only this object's own members: its sub-objects are left out.
            for (size_t i = 0; i < wHttpSchemaChildCount(node); ++i) {
                const WSchemaNode* child = wHttpSchemaChildAt(node, i);
                const char* kind = wHttpSchemaNodeKind(child);
                if (!strcmp(kind, "object") || !strcmp(kind, "index_object"))
                    json_object_object_del(copy, wHttpSchemaNodeName(child));
            }
        }
        wHttpSetObject(doc, copy);
    } else {
        wHttpSetOperStatus(doc, "Invalid object");
    }
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, 0);
    return 1;
}
