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
    int level = 0;
    const wdm::Object* o = wdm::model().resolve(path, iid->idx, &level);
    if (!o)
        return WCFG_INVALID_OBJECT;
    iid->level = static_cast<uint8_t>(level);
    return o->id;
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

uint64_t wcfgFeJournalPosition(void) {
    return wcfg::Store::instance().journalPosition();
}

int wcfgFeNoteChange(int kind, const char* path) {
    if (!path || kind < 1 || kind > 3)
        return WCFG_INVALID_ARGUMENTS;
    return wcfg::Store::instance().noteChange(static_cast<wcfg::JournalKind>(kind), path);
}
