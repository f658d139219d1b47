// The REST schema: loading it, walking a path through it, and checking and
// completing bodies and answers against a node.
#include "datamodel/schema.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/json_util.h"
#include "platform/platform.h"
#include "platform/store/wcfg.h"

namespace {

// Read once at start-up and shared read-only by the request threads.
std::atomic<json_object*> gSchema{nullptr};

// Appends `text` to the NUL-terminated buffer, never past its size.
void append(char* buf, size_t size, const char* text) {
    if (!buf || size == 0)
        return;
    size_t len = strnlen(buf, size - 1);
    wos_strlcpy(buf + len, text, size - len);
}

json_object* child(json_object* node, const char* name) {
    json_object* c = nullptr;
    if (!node || !json_object_is_type(node, json_type_object) ||
        !json_object_object_get_ex(node, name, &c))
        return nullptr;
    return c;
}

bool isParameter(json_object* node) {
    return node && !strcmp(wHttpSchemaNodeKind(node), "parameter");
}

}  // namespace

const char* wHttpSchemaNodeKind(json_object* node) {
    return jsonString(node, "_Node");
}

json_object* wHttpGetSchemaObjIn(json_object* root, const char* path, char* className,
                                 size_t classSize, char* lastName, size_t lastSize,
                                 int* endWithIndex) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", "wHttpGetSchemaObj");
    char copy[256];
    wos_strlcpy(copy, path, sizeof copy);
    json_object* node = root;
    char* save = nullptr;
    for (char* seg = strtok_r(copy, ".", &save); seg && node; seg = strtok_r(nullptr, ".", &save)) {
        if (isdigit(static_cast<unsigned char>(seg[0])) || !strcmp(seg, "i")) {
            json_object* max = child(node, "_MaxLength");
            // Leading digits only; "i" counts as 0.  The value is cut at a
            // bound far above any table so that long digit runs stay defined.
            long value = 0;
            for (const char* p = seg; isdigit(static_cast<unsigned char>(*p)) && value <= 1000000;
                 ++p)
                value = value * 10 + (*p - '0');
            if (max && value > json_object_get_int64(max))
                return nullptr;
            if (endWithIndex)
                *endWithIndex = 1;
            continue;
        }
        node = child(node, seg);
        if (node) {
            if (lastName && lastSize)
                wos_strlcpy(lastName, seg, lastSize);
            append(className, classSize, seg);
            const char* kind = wHttpSchemaNodeKind(node);
            if (!strcmp(kind, "object"))
                append(className, classSize, ".");
            else if (!strcmp(kind, "index_object"))
                append(className, classSize, ".i.");
        }
        if (endWithIndex)
            *endWithIndex = 0;
    }
    return node;
}

bool wHttpSchemaLoad(void) {
    std::string file = platformPath(WHTTPD_SCHEMA_FILE);
    gSchema = json_object_from_file(file.c_str());
    return gSchema.load() != nullptr;
}

json_object* wHttpGetSchemaObj(const char* path, char* className, size_t classSize, char* lastName,
                               size_t lastSize, int* endWithIndex) {
    return wHttpGetSchemaObjIn(gSchema.load(), path, className, classSize, lastName, lastSize,
                               endWithIndex);
}

int wHttpSchemaCheckBody(json_object* node, json_object* body) {
    if (!body || !json_object_is_type(body, json_type_object))
        return 0;
    // Only the first member is judged, in the body's own order; the
    // configuration service judges the values.
    const char* first = nullptr;
    json_object_object_foreach(body, key, value) {
        (void)value;
        first = key;
        break;
    }
    if (!first)
        return 0;
    json_object* param = child(node, first);
    if (!isParameter(param))
        return WCFG_INVALID_ARGUMENTS;
    json_object* attr = child(param, "_Attribute");
    if (attr && !strstr(json_object_get_string(attr), "write"))
        return WCFG_SET_READ_ONLY_PARAM;
    return 0;
}

void wHttpSchemaTrimAnswer(json_object* node, json_object* answer) {
    if (!answer || !json_object_is_type(answer, json_type_object))
        return;
    std::vector<std::string> drop;
    json_object_object_foreach(answer, key, value) {
        (void)value;
        if (!isParameter(child(node, key)))
            drop.emplace_back(key);
    }
    for (const std::string& key : drop)
        json_object_object_del(answer, key.c_str());
}

void wHttpSchemaCompleteAnswer(json_object* node, json_object* answer) {
    if (!node || !answer || !json_object_is_type(answer, json_type_object) ||
        !json_object_is_type(node, json_type_object))
        return;
    json_object_object_foreach(node, key, param) {
        if (key[0] == '_' || !isParameter(param) || json_object_object_get_ex(answer, key, nullptr))
            continue;
        const char* type = jsonString(param, "_Type");
        if (!strcmp(type, "uint32") || !strcmp(type, "int32")) {
            json_object_object_add(answer, key, json_object_new_int(0));
        } else {
            // A missing boolean reads as "" too.
            if (!strcmp(type, "boolean"))
                json_object_object_add(answer, key, json_object_new_boolean(0));
            json_object_object_add(answer, key, json_object_new_string(""));
        }
    }
}
