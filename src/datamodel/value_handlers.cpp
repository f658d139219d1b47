// TR181/Value/: read an object, a table or a subtree (GET), write one object
// or a batch (PUT), add an instance (POST), delete one (DELETE).  The URI
// table serialises the writes with the data-model request mutex and sends
// their answers after its release; reads run beside them.
#include "datamodel/value_handlers.h"

#include <cstring>

#include "datamodel/ext_objects.h"
#include "datamodel/obj_by_path.h"
#include "datamodel/path_parse.h"
#include "datamodel/return_codes.h"
#include "datamodel/value_cache.h"
#include "base/json_util.h"
#include "base/platform.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

void send(CgHttpRequest* request, json_object* doc, uint8_t chunked, uint8_t renew) {
    wHttpJsonResponse_restapi(request, nullptr, doc, chunked, renew);
}

// Reads an object back after a write: the object's own parameters.
json_object* readBack(const char* path) {
    json_object* obj = nullptr;
    if (wHttpGetTR181ObjByPath(path, 1, 1, &obj) != 0) {
        if (obj)
            json_object_put(obj);
        return nullptr;
    }
    return obj;
}

// Adds the object read back as "Object", when it can be read.
void addReadBack(json_object* doc, const char* path) {
    if (json_object* obj = readBack(path))
        wHttpSetObject(doc, obj);
}

// Takes "object_path" out of a batch element into `path` (256 bytes).
void takeObjectPath(json_object* element, char* path) {
    json_object* value = nullptr;
    if (json_object_object_get_ex(element, "object_path", &value))
        wos_strlcpy(path, json_object_get_string(value), 256);
    json_object_object_del(element, "object_path");
}

bool isTrue(json_object* obj, const char* key) {
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) && json_object_is_type(v, json_type_boolean) &&
           json_object_get_boolean(v);
}

// Sets every element of a batch without apply; answers the read-back
// elements.  Returns whether any element was written.
bool setBatch(json_object* list, json_object* result) {
    bool anySuccess = false;
    size_t n = json_object_array_length(list);
    for (size_t i = 0; i < n; ++i) {
        json_object* element = json_object_array_get_idx(list, i);
        if (!json_object_is_type(element, json_type_object))
            continue;
        char path[256] = "";
        takeObjectPath(element, path);
        int ret = wHttpSetTR181ObjByPath(path, element, 0);
        if (ret == WCFG_SUCCESS)
            anySuccess = true;
        json_object_object_add(element, "object_path", json_object_new_string(path));
        json_object* obj = readBack(path);
        // A table read back is no object to carry a status: left out, as a
        // failed read-back is.
        if (obj && !json_object_is_type(obj, json_type_object)) {
            json_object_put(obj);
            obj = nullptr;
        }
        if (obj) {
            wHttpSetOperStatusByWcfgRet(obj, ret);
            wHttpSetRequestedPath(obj, path);
            json_object_array_add(result, obj);
        }
    }
    return anySuccess;
}

// Applies the whole batch once, through its first element.
void applyBatch(json_object* list) {
    size_t n = json_object_array_length(list);
    for (size_t i = 0; i < n; ++i) {
        json_object* element = json_object_array_get_idx(list, i);
        if (!json_object_is_type(element, json_type_object))
            continue;
        char path[256] = "";
        takeObjectPath(element, path);
        if (i == 0 && wHttpSetTR181ObjByPath(path, element, 1) != WCFG_SUCCESS)
            wos_pk("%s()%d: !!! set object %s with apply fail!!!\n", "wHttpTR181ValueSetHandle",
                   __LINE__, path);
    }
}

}  // namespace

int wHttpTR181ValueGetHandle(CgHttpRequest* request, uint8_t chunked) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    char path[256] = "";
    int firstLevelOnly = 1;
    int ret = wHttpParseTR181Path(request, path, &firstLevelOnly);
    // Where the change journal stands before anything is read: the answer
    // shows every change up to it (and perhaps later ones).
    uint64_t position = wcfgFeJournalPosition();
    // The same answer as the last read of the path, while nothing it shows
    // can have changed.
    WHttpValueStamp stamp = wHttpValueStampNow();
    std::string text;
    if (ret == 0 && wHttpValueCacheFind(path, firstLevelOnly, stamp, text)) {
        wHttpValueReadResponse(request, std::move(text), chunked, position);
        return 1;
    }
    json_object* doc = json_object_new_object();
    wHttpSetRequestedPath(doc, path);
    json_object* answer = nullptr;
    if (ret == 0) {
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s objPath=%s\n", __func__, path);
        ret = wHttpGetTR181ObjByPath(path, 1, firstLevelOnly, &answer);
    }
    if (ret == 0) {
        wHttpSetOperStatus(doc, "Success");
        wHttpSetObject(doc, answer);
    } else {
        // Whatever the failure, a read answers "Invalid object".
        if (answer)
            json_object_put(answer);
        wHttpSetOperStatus(doc, "Invalid object");
    }
    text = wHttpAnswerText(doc);
    json_object_put(doc);
    if (path[0])
        wHttpValueCacheKeep(path, firstLevelOnly, stamp, text);
    wHttpValueReadResponse(request, std::move(text), chunked, position);
    // The next request on this thread loads and refreshes what it reads again.
    wHttpEndRead();
    return 1;
}

int wHttpTR181ValueSetHandle(CgHttpRequest* request, uint8_t chunked) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    char path[256] = "";
    if (wHttpParseTR181Path(request, path, nullptr) != 0) {
        wHttpSetRequestedPath(doc, path);
        wHttpSetOperStatus(doc, "Invalid object");
        send(request, doc, chunked, 1);
        return 1;
    }
    json_object* raw = nullptr;
    if (wHttpParseTR181Object(request, &raw) != 0) {
        // Nothing to write: answered as a success.
        wHttpSetOperStatusByWcfgRet(doc, 0);
        send(request, doc, chunked, 1);
        return 1;
    }
    JsonPtr body(raw);
    if (isTrue(body.get(), "MultiObjects")) {
        json_object* list = nullptr;
        if (!json_object_object_get_ex(body.get(), "TR181_Objects", &list) ||
            !json_object_is_type(list, json_type_array)) {
            wHttpSetRequestedPath(doc, path);
            wHttpSetOperStatus(doc, "Invalid object");
            send(request, doc, chunked, 1);
            return 1;
        }
        wHttpSetRequestedPath(doc, path);
        json_object* result = json_object_new_array();
        bool anySuccess = setBatch(list, result);
        if (json_object_array_length(list) > 0)
            wHttpSetObject(doc, result);
        else
            json_object_put(result);
        wHttpSetOperStatusByWcfgRet(doc, 0);
        send(request, doc, chunked, 1);
        // The answer goes out before the batch is applied (applying may take
        // the client's link down for a moment).
        wHttpPostHeldAnswer(request);
        if (anySuccess)
            applyBatch(list);
        return 1;
    }
    wHttpSetRequestedPath(doc, path);
    int ret = wHttpSetTR181ObjByPath(path, body.get(), 1);
    body.reset();
    if (ret == WCFG_SUCCESS)
        addReadBack(doc, path);
    wHttpSetOperStatusByWcfgRet(doc, ret);
    send(request, doc, chunked, 1);
    return 1;
}

int wHttpTR181ValueAddHandle(CgHttpRequest* request, uint8_t chunked) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    char path[256] = "";
    int ret = wHttpParseTR181Path(request, path, nullptr);
    wHttpSetRequestedPath(doc, path);  // the table's path as requested
    if (ret == 0) {
        json_object* raw = nullptr;
        wHttpParseTR181Object(request, &raw);  // no usable body: an add without values
        JsonPtr body(raw);
        ret = wHttpAddTR181ObjByPath(path, body.get(), sizeof path);
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s %d wcfgRet=%d objPath=%s\n", __func__, __LINE__, ret,
             path);
        if (ret == WCFG_SUCCESS)
            addReadBack(doc, path);
    }
    wHttpSetOperStatusByWcfgRet(doc, ret);
    send(request, doc, chunked, 1);
    return 1;
}

int wHttpTR181ValueDelHandle(CgHttpRequest* request, uint8_t chunked) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", __func__);
    json_object* doc = json_object_new_object();
    char path[256] = "";
    int ret = wHttpParseTR181Path(request, path, nullptr);
    wHttpSetRequestedPath(doc, path);
    if (ret == 0)
        ret = wHttpDelTR181ObjByPath(path);
    wHttpSetOperStatusByWcfgRet(doc, ret);
    send(request, doc, chunked, 1);
    return 1;
}

namespace {

const struct {
    const char* method;
    int (*handler)(CgHttpRequest* request, uint8_t chunked);
} kByMethod[] = {{"GET", wHttpTR181ValueGetHandle},
                 {"PUT", wHttpTR181ValueSetHandle},
                 {"POST", wHttpTR181ValueAddHandle},
                 {"DELETE", wHttpTR181ValueDelHandle}};

}  // namespace

int wHttpTR181ValueHandle(CgHttpRequest* request, uint8_t chunked, int /*spare*/) {
    const char* method = cg_http_request_getmethod(request);
    if (!method)
        method = "";
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Method=%s\n", __func__, method);
    for (const auto& m : kByMethod)
        if (!strcmp(method, m.method))
            return m.handler(request, chunked);
    return 0;  // the URI table answers the other methods
}
