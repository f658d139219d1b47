// The configuration service's calls (wcfg.h), carried out by the installed
// device.
#include "device/device.h"
#include "device/wcfg.h"

namespace {

device::Config& config() {
    return *device::current().config;
}

}  // namespace

int32_t wcfgFeObjNameToObjId(const char* path, objIndex_t* iid) {
    if (!path || !iid)
        return WCFG_INVALID_OBJECT;
    return config().nameToOid(path, iid);
}

int wcfgFeObjJsonGet(int32_t oid, objIndex_t* iid, json_object** out) {
    return config().get(oid, iid, true, out);
}

int wcfgFeObjJsonGetWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out) {
    return config().get(oid, iid, false, out);
}

int wcfgFeObjJsonGetNext(int32_t oid, objIndex_t* iid, json_object** out) {
    return config().getNext(oid, iid, true, out);
}

int wcfgFeObjJsonGetNextWithoutUpdate(int32_t oid, objIndex_t* iid, json_object** out) {
    return config().getNext(oid, iid, false, out);
}

int wcfgFeObjJsonSetWithAdditions(int32_t oid, objIndex_t* iid, json_object* values,
                                  json_object** /*feedback*/, uint32_t flags, void* /*additions*/) {
    return config().set(oid, iid, values, flags, true);
}

int wcfgFeObjJsonSetWithoutApply(int32_t oid, objIndex_t* iid, json_object* values,
                                 json_object** /*feedback*/) {
    return config().set(oid, iid, values, 0, false);
}

int wcfgFeObjJsonAdd(int32_t oid, objIndex_t* iid, void* /*reserved*/) {
    return config().add(oid, iid);
}

int wcfgFeObjJsonDel(int32_t oid, objIndex_t* iid, void* /*reserved*/) {
    return config().del(oid, iid);
}

uint64_t wcfgFeDataVersion(void) {
    return config().dataVersion();
}

uint64_t wcfgFeJournalPosition(void) {
    return device::current().journal->position();
}

int wcfgFeNoteChange(int kind, const char* path) {
    if (!path || kind < 1 || kind > 3)
        return WCFG_INVALID_ARGUMENTS;
    return device::current().journal->note(static_cast<wcfg::JournalKind>(kind), path);
}

int wcfgFeReqSend(uint32_t type, const char* payload) {
    return config().request(type, payload);
}

void wcfgFeSetCaller(int caller) {
    config().setCaller(caller);
}

int wcfgFeGetCaller(void) {
    return config().caller();
}

int wcfgFeDalGetOpertaionMode(void) {
    return config().operationMode();
}

int wcfgFeDal_User_Account_Edit(json_object* request, char* reply, size_t size) {
    return device::current().accounts->edit(request, reply, size);
}
