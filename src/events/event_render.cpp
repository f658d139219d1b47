// Event data: see event_render.h.
#include "events/event_render.h"

#include "datamodel/ext_objects.h"
#include "datamodel/obj_by_path.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "context/response_writer.h"

namespace {

std::string plainText(json_object* doc) {
    return json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN);
}

std::string oneMember(const char* key, const char* value) {
    JsonPtr doc(json_object_new_object());
    json_object_object_add(doc.get(), key, json_object_new_string(value));
    return plainText(doc.get());
}

}  // namespace

std::string wHttpEventObjectData(const std::string& path, int group) {
    json_object* obj = nullptr;
    int ret;
    {
        // Read as the session would: its group is the caller.
        WcfgCallerScope caller(group);
        ret = wHttpGetTR181ObjByPath(path.c_str(), 1, 1, &obj);
        wHttpEndRead();
    }
    JsonPtr owned(obj);
    if (ret != 0 || !obj || !json_object_is_type(obj, json_type_object))
        return "";
    if (wHttpHtmlEncodeSwitch() == 1)
        wHttpHtmlEncode(obj);
    JsonPtr doc(json_object_new_object());
    json_object_object_add(doc.get(), "path", json_object_new_string(path.c_str()));
    json_object_object_add(doc.get(), "Object", owned.release());
    return plainText(doc.get());
}

std::string wHttpEventPathData(const std::string& path) {
    return oneMember("path", path.c_str());
}

std::string wHttpEventReasonData(const char* reason) {
    return oneMember("reason", reason);
}
