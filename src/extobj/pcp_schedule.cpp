// Device.X_OLVEX_ParentalControl.Profile.P.Schedule.S.: a nested view of the
// flat schedule table.  A profile names its schedules in "ScheduleRuleList"
// ("X_OLVEX_Schedule.N" entries joined by ","); S counts the entries of that
// list from 1.  The four handlers translate between the two and keep the
// list in step.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "datamodel/oid_names.h"
#include "extobj/whttpd_extobj.h"
#include "base/json_util.h"
#include "device/wcfg.h"
#include "base/platform.h"

namespace {

const char* const kScheduleRef = "X_OLVEX_Schedule.%hhu";
const size_t kListMax = 255;  // characters of the list that are used

int32_t profileOid() {
    static const int32_t oid = wHttpOidByName("RDM_OID_PAREN_CTL_PROF");
    return oid;
}

int32_t scheduleOid() {
    static const int32_t oid = wHttpOidByName("RDM_OID_SCHEDULE");
    return oid;
}

objIndex_t record(uint8_t n) {
    objIndex_t iid{};
    iid.level = 1;
    iid.idx[0] = n;
    return iid;
}

// Instance `n` of a table (read without update), or nullptr.
JsonPtr getInstance(int32_t oid, uint8_t n) {
    return wHttpGetObject(oid, false, record(n));
}

JsonPtr getProfile(uint8_t p) {
    return getInstance(profileOid(), p);
}

// The entries of a rule list, as written.
std::vector<std::string> entriesOf(const std::string& list) {
    std::vector<std::string> out;
    std::string used = list.substr(0, kListMax);
    size_t pos = 0;
    while (pos <= used.size() && !used.empty()) {
        size_t comma = used.find(',', pos);
        out.push_back(used.substr(pos, comma == std::string::npos ? comma : comma - pos));
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    return out;
}

std::string joined(const std::vector<std::string>& entries) {
    std::string out;
    for (const std::string& e : entries)
        out += (out.empty() ? "" : ",") + e;
    return out;
}

// Profile P and the instance number of its S-th schedule: 0, -3 (profile or
// list unreadable, entry unreadable) or -18 (no entry S; S 0 included).
int resolve(const char* path, uint8_t& p, uint8_t& n, JsonPtr* profile = nullptr) {
    uint8_t s = 0;
    if (sscanf(path, "Device.X_OLVEX_ParentalControl.Profile.%hhu.Schedule.%hhu.", &p, &s) != 2)
        return WCFG_INVALID_OBJECT;
    JsonPtr prof = getProfile(p);
    json_object* list = nullptr;
    if (!prof || !json_object_object_get_ex(prof.get(), "ScheduleRuleList", &list))
        return WCFG_ERROR_PARAMETER_TYPE;
    std::vector<std::string> entries = entriesOf(json_object_get_string(list));
    if (s == 0 || s > entries.size())
        return WCFG_INVALID_OBJECT;
    if (sscanf(entries[s - 1].c_str(), kScheduleRef, &n) != 1)
        return WCFG_ERROR_PARAMETER_TYPE;
    if (profile)
        *profile = std::move(prof);
    return WCFG_SUCCESS;
}

int writeApplied(int32_t oid, uint8_t n, json_object* values) {
    objIndex_t iid = record(n);
    return wcfgFeObjJsonSetWithAdditions(oid, &iid, values, nullptr, WCFG_APPLY_FLAGS, nullptr);
}

int writeList(uint8_t p, const std::string& list) {
    JsonPtr values(json_object_new_object());
    json_object_object_add(values.get(), "ScheduleRuleList", json_object_new_string(list.c_str()));
    return writeApplied(profileOid(), p, values.get());
}

}  // namespace

int vxPcpScheduleGet(const char* path, int /*row*/, json_object** out) {
    json_object* answer = json_object_new_object();
    *out = answer;
    uint8_t p = 0, n = 0;
    if (int ret = resolve(path, p, n))
        return ret;
    JsonPtr owned = getInstance(scheduleOid(), n);
    if (!owned)
        return WCFG_ERROR_PARAMETER_TYPE;
    json_object* sched = owned.get();
    // "Enable" is copied as text too: it reads "true" or "false".
    for (const char* key : {"Enable", "Name", "Description", "Days"}) {
        json_object* v = nullptr;
        json_object_object_get_ex(sched, key, &v);
        json_object_object_add(answer, key,
                               json_object_new_string(v ? json_object_get_string(v) : ""));
    }
    for (const char* key : {"TimeStartHour", "TimeStartMin", "TimeStopHour", "TimeStopMin"}) {
        json_object* v = nullptr;
        json_object_object_get_ex(sched, key, &v);
        json_object_object_add(answer, key, json_object_new_int(v ? json_object_get_int(v) : 0));
    }
    return WCFG_SUCCESS;
}

int vxPcpScheduleSet(const char* path, int /*row*/, json_object* values, uint8_t /*apply*/) {
    uint8_t p = 0, n = 0;
    if (int ret = resolve(path, p, n))
        return ret;
    if (!getInstance(scheduleOid(), n))
        return WCFG_ERROR_PARAMETER_TYPE;
    int ret = writeApplied(scheduleOid(), n, values);
    if (ret != WCFG_SUCCESS)
        return ret;
    // The profile written back unchanged applies its rules anew.
    JsonPtr profile = getProfile(p);
    if (!profile)
        return WCFG_ERROR_PARAMETER_TYPE;
    return writeApplied(profileOid(), p, profile.get());
}

int vxPcpScheduleAdd(char* path, int /*row*/, json_object* values) {
    uint8_t p = 0;
    sscanf(path, "Device.X_OLVEX_ParentalControl.Profile.%hhu.Schedule.", &p);
    objIndex_t iid = record(0);
    bool created = wcfgFeObjJsonAdd(scheduleOid(), &iid, nullptr) == WCFG_SUCCESS;
    uint8_t n = iid.idx[0];
    JsonPtr profile = getProfile(p);
    if (!profile)
        return WCFG_ERROR_PARAMETER_TYPE;
    if (!values || !created)
        return WCFG_INVALID_ARGUMENTS;
    // The schedule takes the profile's switch and name.
    for (const char* key : {"Enable", "Name"}) {
        json_object* v = nullptr;
        if (json_object_object_get_ex(profile.get(), key, &v))
            json_object_object_add(values, key, json_object_get(v));
    }
    json_object_object_add(values, "Description", json_object_new_string("ParentalControl"));
    if (writeApplied(scheduleOid(), n, values) != WCFG_SUCCESS) {
        wos_pk("%s error\n", path);
        objIndex_t del = record(n);
        wcfgFeObjJsonDel(scheduleOid(), &del, nullptr);
        return 1;
    }
    profile = getProfile(p);
    if (!profile)
        return WCFG_ERROR_PARAMETER_TYPE;
    std::string list = jsonString(profile.get(), "ScheduleRuleList");
    char ref[32];
    snprintf(ref, sizeof ref, list.empty() ? "X_OLVEX_Schedule.%d" : ",X_OLVEX_Schedule.%d", n);
    list = (list + ref).substr(0, 255);  // the list is capped at 256 bytes
    int ret = writeList(p, list);
    if (ret == WCFG_SUCCESS) {
        // The new schedule's own path, for the answer's read-back.
        snprintf(path, 256, "Device.X_OLVEX_ParentalControl.Profile.%u.Schedule.%zu.", p,
                 entriesOf(list).size());
    }
    return ret;
}

int vxPcpScheduleDel(const char* path, int /*row*/) {
    uint8_t p = 0, n = 0;
    JsonPtr profile;
    int ret = resolve(path, p, n, &profile);
    if (ret == WCFG_ERROR_PARAMETER_TYPE)
        wos_pk("%s get error\n", path);
    if (ret)
        return ret;
    // Every reference to the schedule goes, duplicates included.
    std::vector<std::string> kept;
    for (const std::string& e : entriesOf(jsonString(profile.get(), "ScheduleRuleList"))) {
        uint8_t m = 0;
        if (sscanf(e.c_str(), kScheduleRef, &m) != 1 || m != n)
            kept.push_back(e);
    }
    writeList(p, joined(kept));
    objIndex_t iid = record(n);
    if (wcfgFeObjJsonDel(scheduleOid(), &iid, nullptr) != WCFG_SUCCESS) {
        wos_pk("%s del error\n", path);
        return WCFG_INVALID_OBJECT;
    }
    return WCFG_SUCCESS;
}
