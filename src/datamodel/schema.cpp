// The REST schema: loading it into a compact read-only form, walking a path
// through it, and checking and completing bodies and answers against a node.
#include "datamodel/schema.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/json_util.h"
#include "base/platform.h"
#include "device/wcfg.h"

namespace {

// Read once at start-up and shared read-only by the request threads; never
// freed, since a request may hold a node of it at any time.
std::atomic<const WSchema*> gSchema{nullptr};

// Appends `text` to the NUL-terminated buffer, never past its size.
void append(char* buf, size_t size, const char* text) {
    if (!buf || size == 0)
        return;
    size_t len = strnlen(buf, size - 1);
    wos_strlcpy(buf + len, text, size - len);
}

const char* text(const WSchemaNode* node, uint32_t offset) {
    return node->owner->pool.c_str() + offset;
}

const char* nameOf(const WSchema& s, uint32_t i) {
    return s.pool.c_str() + s.nodes[i].name;
}

// A member of an object node by its key (binary search of the object's
// members ordered by key); nullptr for a plain value, an unknown key, or a
// member whose value is null.
const WSchemaNode* child(const WSchemaNode* node, const char* name) {
    if (!node || !node->isObject)
        return nullptr;
    const WSchema& s = *node->owner;
    const uint32_t* first = s.sorted.data() + node->firstSorted;
    const uint32_t* last = first + node->childCount;
    const uint32_t* at = std::lower_bound(first, last, name, [&](uint32_t i, const char* key) {
        return strcmp(nameOf(s, i), key) < 0;
    });
    if (at == last || strcmp(nameOf(s, *at), name) != 0)
        return nullptr;
    const WSchemaNode* found = &s.nodes[*at];
    return found->isObject || found->json != 0 ? found : nullptr;
}

bool isParameter(const WSchemaNode* node) {
    return node && !strcmp(wHttpSchemaNodeKind(node), "parameter");
}

// Fills the schema's nodes from a parsed document, depth first; each
// object's members take consecutive slots, in the document's order.
class Builder {
  public:
    explicit Builder(WSchema& s) : s_(s) { s_.pool.assign(1, '\0'); }

    void fill(uint32_t at, const char* name, json_object* value) {
        WSchemaNode n;
        n.owner = &s_;
        n.name = intern(name);
        n.kind = intern(jsonString(value, "_Node"));
        n.type = intern(jsonString(value, "_Type"));
        n.isObject = json_object_is_type(value, json_type_object);
        if (n.isObject)
            describeObject(n, value);
        else if (value)
            n.json = intern(json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN));
        s_.nodes[at] = n;
        if (n.isObject)
            fillMembers(at, value);
    }

  private:
    uint32_t intern(const char* t) {
        auto [it, added] = interned_.try_emplace(t, static_cast<uint32_t>(s_.pool.size()));
        if (added)
            s_.pool.append(t).push_back('\0');
        return it->second;
    }

    void describeObject(WSchemaNode& n, json_object* value) {
        json_object* attr = nullptr;
        if (json_object_object_get_ex(value, "_Attribute", &attr) && attr) {
            n.hasAttribute = true;
            n.attribute = intern(json_object_get_string(attr));
        }
        json_object* max = nullptr;
        if (json_object_object_get_ex(value, "_MaxLength", &max)) {
            // A null bound lists no instance; the walk ignores it.
            n.hasTableBound = true;
            n.tableBound = json_object_get_int(max);
            n.hasMaxLength = max != nullptr;
            n.maxLength = json_object_get_int64(max);
        }
    }

    void fillMembers(uint32_t at, json_object* value) {
        auto count = static_cast<uint32_t>(json_object_object_length(value));
        auto first = static_cast<uint32_t>(s_.nodes.size());
        s_.nodes.resize(first + count);
        s_.nodes[at].firstChild = first;
        s_.nodes[at].childCount = count;
        uint32_t i = first;
        json_object_object_foreach(value, key, member) fill(i++, key, member);
        std::vector<uint32_t> order(count);
        for (uint32_t k = 0; k < count; ++k)
            order[k] = first + k;
        std::sort(order.begin(), order.end(),
                  [&](uint32_t a, uint32_t b) { return strcmp(nameOf(s_, a), nameOf(s_, b)) < 0; });
        s_.nodes[at].firstSorted = static_cast<uint32_t>(s_.sorted.size());
        s_.sorted.insert(s_.sorted.end(), order.begin(), order.end());
    }

    WSchema& s_;
    std::unordered_map<std::string, uint32_t> interned_;
};

}  // namespace

std::unique_ptr<WSchema> wHttpSchemaBuild(json_object* doc) {
    auto s = std::make_unique<WSchema>();
    s->nodes.resize(1);
    Builder(*s).fill(0, "", doc);
    s->nodes.shrink_to_fit();
    s->sorted.shrink_to_fit();
    s->pool.shrink_to_fit();
    return s;
}

const char* wHttpSchemaNodeKind(const WSchemaNode* node) {
    return node ? text(node, node->kind) : "";
}

const char* wHttpSchemaNodeName(const WSchemaNode* node) {
    return node ? text(node, node->name) : "";
}

size_t wHttpSchemaChildCount(const WSchemaNode* node) {
    return node && node->isObject ? node->childCount : 0;
}

const WSchemaNode* wHttpSchemaChildAt(const WSchemaNode* node, size_t i) {
    return i < wHttpSchemaChildCount(node) ? &node->owner->nodes[node->firstChild + i] : nullptr;
}

bool wHttpSchemaCreatable(const WSchemaNode* node) {
    return node && node->hasAttribute && strstr(text(node, node->attribute), "create") &&
           !strcmp(wHttpSchemaNodeKind(node), "index_object");
}

int wHttpSchemaTableBound(const WSchemaNode* node, int fallback) {
    return node && node->hasTableBound ? node->tableBound : fallback;
}

json_object* wHttpSchemaToJson(const WSchemaNode* node) {
    if (!node || (!node->isObject && node->json == 0))
        return nullptr;
    if (!node->isObject)
        return json_tokener_parse(text(node, node->json));
    json_object* obj = json_object_new_object();
    for (size_t i = 0; i < node->childCount; ++i) {
        const WSchemaNode* m = wHttpSchemaChildAt(node, i);
        json_object_object_add(obj, wHttpSchemaNodeName(m), wHttpSchemaToJson(m));
    }
    return obj;
}

const WSchemaNode* wHttpGetSchemaObjIn(const WSchema* schema, const char* path, char* className,
                                       size_t classSize, char* lastName, size_t lastSize,
                                       int* endWithIndex) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", "wHttpGetSchemaObj");
    if (!schema)
        return nullptr;
    char copy[256];
    wos_strlcpy(copy, path, sizeof copy);
    const WSchemaNode* node = &schema->nodes.front();
    char* save = nullptr;
    for (char* seg = strtok_r(copy, ".", &save); seg && node; seg = strtok_r(nullptr, ".", &save)) {
        if (isdigit(static_cast<unsigned char>(seg[0])) || !strcmp(seg, "i")) {
            // Leading digits only; "i" counts as 0.  The value is cut at a
            // bound far above any table so that long digit runs stay defined.
            long value = 0;
            for (const char* p = seg; isdigit(static_cast<unsigned char>(*p)) && value <= 1000000;
                 ++p)
                value = value * 10 + (*p - '0');
            if (node->hasMaxLength && value > node->maxLength)
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
    json_object* doc = json_object_from_file(file.c_str());
    if (!doc)
        return false;
    gSchema = wHttpSchemaBuild(doc).release();
    json_object_put(doc);
    return true;
}

const WSchemaNode* wHttpGetSchemaObj(const char* path, char* className, size_t classSize,
                                     char* lastName, size_t lastSize, int* endWithIndex) {
    return wHttpGetSchemaObjIn(gSchema.load(), path, className, classSize, lastName, lastSize,
                               endWithIndex);
}

int wHttpSchemaCheckBody(const WSchemaNode* node, json_object* body) {
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
    const WSchemaNode* param = child(node, first);
    if (!isParameter(param))
        return WCFG_INVALID_ARGUMENTS;
    if (param->hasAttribute && !strstr(text(param, param->attribute), "write"))
        return WCFG_SET_READ_ONLY_PARAM;
    return 0;
}

namespace {

// A parameter that the schema says may be written and not read.
bool writeOnly(const WSchemaNode* param) {
    const char* attribute = param->hasAttribute ? text(param, param->attribute) : "";
    return strstr(attribute, "write") && !strstr(attribute, "read");
}

}  // namespace

// Leaves the parameters of the node that may be read: one that may only be
// written (a pass phrase) is never shown.
void wHttpSchemaTrimAnswer(const WSchemaNode* node, json_object* answer) {
    if (!answer || !json_object_is_type(answer, json_type_object))
        return;
    std::vector<std::string> drop;
    json_object_object_foreach(answer, key, value) {
        (void)value;
        const WSchemaNode* param = child(node, key);
        if (!isParameter(param) || writeOnly(param))
            drop.emplace_back(key);
    }
    for (const std::string& key : drop)
        json_object_object_del(answer, key.c_str());
}

void wHttpSchemaCompleteAnswer(const WSchemaNode* node, json_object* answer) {
    if (!node || !answer || !json_object_is_type(answer, json_type_object) || !node->isObject)
        return;
    for (size_t i = 0; i < node->childCount; ++i) {
        const WSchemaNode* param = wHttpSchemaChildAt(node, i);
        const char* key = wHttpSchemaNodeName(param);
        if (key[0] == '_' || !isParameter(param) || writeOnly(param) ||
            json_object_object_get_ex(answer, key, nullptr))
            continue;
        const char* type = text(param, param->type);
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
