// Front-end calls of the configuration service, carried out by the store of
// this process.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "platform/store/dm_def.h"
#include "platform/store/wcfg.h"
#include "platform/store/store.h"

int32_t wcfgFeObjNameToObjId(const char* path, objIndex_t* iid) {
    if (!path || !iid)
        return WCFG_INVALID_OBJECT;
    *iid = objIndex_t{};
    std::vector<std::string> segs;
    const char* p = path;
    while (*p) {
        const char* dot = strchr(p, '.');
        size_t len = dot ? static_cast<size_t>(dot - p) : strlen(p);
        if (len)
            segs.emplace_back(p, len);
        if (!dot)
            break;
        p = dot + 1;
    }
    if (segs.empty())
        return WCFG_INVALID_OBJECT;
    if (segs[0] != "Device")
        segs.insert(segs.begin(), "Device");
    const wdm::Model& m = wdm::model();
    const wdm::Object* cur = m.byPathForm("Device.");
    if (!cur)
        return WCFG_INVALID_OBJECT;
    bool numbered = true;  // whether the current table has its instance number
    int level = 0;
    for (size_t i = 1; i < segs.size(); ++i) {
        const std::string& s = segs[i];
        bool isNumber = !s.empty() && std::all_of(s.begin(), s.end(), ::isdigit);
        if (isNumber || s == "i") {
            if (!cur->table || numbered || level >= 6)
                return WCFG_INVALID_OBJECT;
            long n = isNumber ? (s.size() > 3 ? 256 : std::stol(s)) : 0;
            if (n > 255)
                return WCFG_INVALID_OBJECT;
            iid->idx[level++] = static_cast<uint8_t>(n);
            numbered = true;
            continue;
        }
        if (!numbered)
            return WCFG_INVALID_OBJECT;
        std::string base = cur->path;
        const wdm::Object* next = m.byPathForm(base + s + ".");
        if (!next)
            next = m.byPathForm(base + s + ".{i}.");
        if (!next)
            return WCFG_INVALID_OBJECT;
        cur = next;
        numbered = !cur->table;
    }
    if (cur->isVirtual)
        return WCFG_INVALID_OBJECT;
    iid->level = static_cast<uint8_t>(level);
    return cur->id;
}

int wcfgFeObjJsonGet(int32_t oid, objIndex_t* iid, json_object** out) {
    return wcfg::Store::instance().get(oid, iid, out, true);
}

int wcfgFeObjJsonGetWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out) {
    return wcfg::Store::instance().get(oid, iid, out, false);
}

int wcfgFeObjJsonGetNext(int32_t oid, objIndex_t* iid, json_object** out) {
    return wcfg::Store::instance().getNext(oid, iid, out, true);
}

int wcfgFeObjJsonGetNextWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out) {
    return wcfg::Store::instance().getNext(oid, iid, out, false);
}

int wcfgFeObjJsonSetWithAdditions(int32_t oid, objIndex_t* iid, json_object* values,
                                  json_object** /*feedback*/, uint32_t flags, void* /*additions*/) {
    wcfg::WriteMode mode;
    mode.apply = flags & WCFG_FLAG_APPLY;
    mode.notify = flags & WCFG_FLAG_NOTIFY;
    return wcfg::Store::instance().set(oid, iid, values, mode);
}

int wcfgFeObjJsonSetWithoutApply(int32_t oid, objIndex_t* iid, json_object* values,
                                 json_object** /*feedback*/) {
    return wcfg::Store::instance().set(oid, iid, values, wcfg::WriteMode{});
}

int wcfgFeObjJsonAdd(int32_t oid, objIndex_t* iid, void* /*reserved*/) {
    wcfg::WriteMode mode;
    mode.apply = mode.notify = true;
    return wcfg::Store::instance().add(oid, iid, nullptr, mode);
}

int wcfgFeObjJsonDel(int32_t oid, objIndex_t* iid, void* /*reserved*/) {
    return wcfg::Store::instance().del(oid, iid);
}

uint64_t wcfgFeDataVersion(void) {
    return wcfg::Store::instance().version();
}
