// Object operations by path: get of an object, table or subtree; set, add
// and delete.
#include "datamodel/obj_by_path.h"

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "datamodel/obj_ops.h"
#include "datamodel/schema.h"
#include "device/wcfg.h"

namespace {

const int kDefaultTableBound = 256;

bool isEmptyMarker(json_object* obj) {
    json_object* v = nullptr;
    return json_object_object_length(obj) == 1 &&
           json_object_object_get_ex(obj, "_EmptyInstance", &v) && json_object_get_boolean(v);
}

// Whether snprintf's result fitted its buffer.
template <size_t N>
bool fits(int written, const char (&)[N]) {
    return written >= 0 && static_cast<size_t>(written) < N;
}

}  // namespace

namespace {

// A table: its instances 1..bound in an array, up to the first that fails.
int getTable(const char* path, const WSchemaNode* node, int top, int firstLevelOnly, const char* lastName,
             json_object** answer) {
    json_object* array = json_object_new_array();
    if (top)
        *answer = array;
    else
        json_object_object_add(*answer, lastName, array);
    int bound = wHttpSchemaTableBound(node, kDefaultTableBound);
    for (int i = 1; i <= bound; ++i) {
        char childPath[256];
        // A path cut at the buffer's end would name this table again.
        if (!fits(snprintf(childPath, sizeof childPath, "%s%d.", path, i), childPath))
            break;
        json_object* parent = array;
        int ret = wHttpGetTR181ObjByPath(childPath, 0, firstLevelOnly, &parent);
        if (ret != 0) {
            WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s objPath=%s %d\n", "wHttpGetTR181ObjByPath", childPath,
                 ret);
            break;
        }
    }
    return 0;
}

// The sub-objects of an object, added to it; the result of the last one.
int getChildren(const char* path, const WSchemaNode* node, json_object* obj, int ret) {
    for (size_t i = 0; i < wHttpSchemaChildCount(node); ++i) {
        const WSchemaNode* child = wHttpSchemaChildAt(node, i);
        const char* key = wHttpSchemaNodeName(child);
        if (key[0] == '_')
            continue;
        const char* childKind = wHttpSchemaNodeKind(child);
        if (strcmp(childKind, "object") != 0 && strcmp(childKind, "index_object") != 0)
            continue;
        char childPath[256];
        if (!fits(snprintf(childPath, sizeof childPath, "%s%s.", path, key), childPath))
            continue;
        json_object* parent = obj;
        ret = wHttpGetTR181ObjByPath(childPath, 0, 0, &parent);
    }
    return ret;
}

// One object or table instance, placed as the answer, a member of its parent
// or an element of its table; then its sub-objects unless only the first
// level is asked for.
int getObject(const char* path, const WSchemaNode* node, const char* className, const char* lastName,
              int isIndexObj, int top, int firstLevelOnly, json_object** answer) {
    json_object* obj = nullptr;
    int ret = wHttpGetSingleTR181Obj(path, className, &obj);
    if (ret != WCFG_SUCCESS) {
        if (obj)
            json_object_put(obj);
        if (ret == WCFG_NO_SUCH_OBJECT && !top && isIndexObj) {
            // A gap in the instance numbers keeps its place in the table.
            json_object* marker = json_object_new_object();
            json_object_object_add(marker, "_EmptyInstance", json_object_new_boolean(1));
            json_object_array_add(*answer, marker);
            return 0;
        }
        return ret;
    }
    if (!obj)
        obj = json_object_new_object();
    // An extended object's empty-instance marker stands as it is, like the
    // marker of a gap: trimming would take its only key away, and it has no
    // sub-objects.
    bool marker = isEmptyMarker(obj);
    if (!marker) {
        json_object_object_add(obj, "Cyber_Security_FSC", json_object_new_boolean(0));
        wHttpSchemaTrimAnswer(node, obj);
        wHttpSchemaCompleteAnswer(node, obj);
    }
    if (top)
        *answer = obj;
    else if (!isIndexObj)
        json_object_object_add(*answer, lastName, obj);
    else
        json_object_array_add(*answer, obj);
    if (firstLevelOnly || marker)
        return ret;
    return getChildren(path, node, obj, ret);
}

}  // namespace

int wHttpGetTR181ObjByPath(const char* path, int top, int firstLevelOnly, json_object** answer) {
    char className[256] = "", lastName[256] = "";
    int endWithIndex = 0;
    const WSchemaNode* node = wHttpGetSchemaObj(path, className, sizeof className, lastName,
                                                sizeof lastName, &endWithIndex);
    if (!node)
        return WCFG_INVALID_OBJECT;
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s objPath=%s tr181ClassName=%s objName=%s endWithIndex=%d\n",
         __func__, path, className, lastName, endWithIndex);
    const char* kind = wHttpSchemaNodeKind(node);
    int isIndexObj;
    if (!strcmp(kind, "object"))
        isIndexObj = 0;
    else if (!strcmp(kind, "index_object"))
        isIndexObj = 1;
    else
        return WCFG_INVALID_OBJECT;
    int isArray = isIndexObj && !endWithIndex;
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s isIndexObj=%d endWithIndex=%d isArray=%d isTop=%d\n", __func__,
         isIndexObj, endWithIndex, isArray, top);
    if (isArray)
        return getTable(path, node, top, firstLevelOnly, lastName, answer);
    return getObject(path, node, className, lastName, isIndexObj, top, firstLevelOnly, answer);
}

int wHttpSetTR181ObjByPath(const char* path, json_object* values, uint8_t apply) {
    char className[256] = "";
    const WSchemaNode* node =
        wHttpGetSchemaObj(path, className, sizeof className, nullptr, 0, nullptr);
    if (!node)
        return WCFG_INVALID_OBJECT;
    int ret = wHttpSchemaCheckBody(node, values);
    if (ret != 0)
        return ret;
    return wHttpSetSingleTR181Obj(path, className, values, apply);
}

int wHttpAddTR181ObjByPath(char* path, json_object* values, size_t size) {
    char className[256] = "";
    int endWithIndex = 0;
    const WSchemaNode* node =
        wHttpGetSchemaObj(path, className, sizeof className, nullptr, 0, &endWithIndex);
    if (!node || endWithIndex)
        return WCFG_INVALID_OBJECT;
    if (!wHttpSchemaCreatable(node))
        return WCFG_INS_CREATE_ERR;
    if (values) {
        int ret = wHttpSchemaCheckBody(node, values);
        if (ret != 0)
            return ret;
    }
    return wHttpAddSingleTR181Obj(path, className, values, size);
}

int wHttpDelTR181ObjByPath(const char* path) {
    char className[256] = "";
    int endWithIndex = 0;
    const WSchemaNode* node =
        wHttpGetSchemaObj(path, className, sizeof className, nullptr, 0, &endWithIndex);
    if (!node || !endWithIndex)
        return WCFG_INVALID_OBJECT;
    if (!wHttpSchemaCreatable(node))
        return WCFG_INS_CREATE_ERR;
    return wHttpDelSingleTR181Obj(path, className);
}
