// Object operations by id, generic or through an extended object's handlers.
#include "datamodel/obj_ops.h"

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "datamodel/ext_objects.h"
#include "device/wcfg.h"

#define IID_FMT "%s iid.level=%u [%u, %u, %u, %u, %u, %u]\n"
#define IID_ARGS(iid) \
    (iid).level, (iid).idx[0], (iid).idx[1], (iid).idx[2], (iid).idx[3], (iid).idx[4], (iid).idx[5]

namespace {

// The object id of a path, its record zeroed first and then filled.
int32_t translate(const char* func, const char* path, objIndex_t* iid) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() Enter\n", func);
    *iid = objIndex_t{};
    int32_t oid = wcfgFeObjNameToObjId(path, iid);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s oid=%d\n", func, oid);
    return oid;
}

}  // namespace

int wHttpGetTR181ObjGeneric(const char* path, json_object** out) {
    objIndex_t iid;
    int32_t oid = translate(__func__, path, &iid);
    if (oid < 0)
        return WCFG_INVALID_OBJECT;
    int ret = wcfgFeObjJsonGet(oid, &iid, out);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s ret=%d\n", __func__, ret);
    return ret;
}

int wHttpSetTR181ObjGeneric(const char* path, json_object* values, uint8_t apply) {
    objIndex_t iid;
    int32_t oid = translate(__func__, path, &iid);
    if (oid < 0)
        return WCFG_INVALID_OBJECT;
    int ret =
        apply ? wcfgFeObjJsonSetWithAdditions(oid, &iid, values, nullptr, WCFG_APPLY_FLAGS, nullptr)
              : wcfgFeObjJsonSetWithoutApply(oid, &iid, values, nullptr);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s wcfgRet=%d\n", __func__, ret);
    return ret;
}

int wHttpAddTR181ObjGeneric(char* path, json_object* values, size_t size) {
    size_t len = strnlen(path, size);
    if (len + 1 < size) {
        path[len] = 'i';
        path[len + 1] = '\0';
    }
    objIndex_t iid;
    int32_t oid = translate(__func__, path, &iid);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, IID_FMT, __func__, IID_ARGS(iid));
    int ret = wcfgFeObjJsonAdd(oid, &iid, nullptr);
    if (ret != WCFG_SUCCESS)
        return ret;
    // "Device.NAT.PortMapping.i" becomes "Device.NAT.PortMapping.<n>.".
    size_t n = strnlen(path, size);
    if (n)
        --n;
    unsigned inst = iid.level ? iid.idx[iid.level - 1] : 0;
    snprintf(path + n, size - n, "%u.", inst);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s %d objPath=%s\n", __func__, __LINE__, path);
    if (values) {
        ret = wcfgFeObjJsonSetWithAdditions(oid, &iid, values, nullptr, WCFG_APPLY_FLAGS, nullptr);
        if (ret != WCFG_SUCCESS) {
            WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s %d wcfgRet=%d\n", __func__, __LINE__, ret);
            wcfgFeObjJsonDel(oid, &iid, nullptr);
            // Every write error reads "Invalid parameter value".
            return 1;
        }
        WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s return iid.level=%u [%u, %u, %u, %u, %u, %u]\n", __func__,
             IID_ARGS(iid));
    }
    return 0;
}

int wHttpDelTR181ObjGeneric(const char* path) {
    objIndex_t iid;
    int32_t oid = translate(__func__, path, &iid);
    WLOG(WLOG_DEBUG, WHTTPD_SRC, IID_FMT, __func__, IID_ARGS(iid));
    return wcfgFeObjJsonDel(oid, &iid, nullptr);
}

namespace {

// A write through an extended object whose path names no stored object (a
// view the daemon computes): the store's journal names only the objects
// behind it, so the change is recorded under the view's own path too.
int noteView(int ret, int kind, const char* path) {
    objIndex_t iid;
    if (ret == WCFG_SUCCESS && wcfgFeObjNameToObjId(path, &iid) < 0)
        wcfgFeNoteChange(kind, path);
    return ret;
}

}  // namespace

int wHttpGetSingleTR181Obj(const char* path, const char* className, json_object** out) {
    WLOG(WLOG_DEBUG, WHTTPD_SRC, "%s() TR181ClassName=%s\n", __func__, className);
    int row = vxExtObjFind(className);
    if (row < 0)
        return wHttpGetTR181ObjGeneric(path, out);
    const VxExtObjRow& ext = vxExtObjRow(row);
    if (!ext.get)
        return WCFG_INVALID_OBJECT;
    return ext.get(path, row, out);
}

int wHttpSetSingleTR181Obj(const char* path, const char* className, json_object* values,
                           uint8_t apply) {
    int row = vxExtObjFind(className);
    if (row < 0)
        return wHttpSetTR181ObjGeneric(path, values, apply);
    const VxExtObjRow& ext = vxExtObjRow(row);
    if (!ext.set)
        return WCFG_INVALID_OBJECT;
    return noteView(ext.set(path, row, values, apply), 1, path);
}

int wHttpAddSingleTR181Obj(char* path, const char* className, json_object* values, size_t size) {
    int row = vxExtObjFind(className);
    if (row < 0)
        return wHttpAddTR181ObjGeneric(path, values, size);
    const VxExtObjRow& ext = vxExtObjRow(row);
    if (!ext.add)
        return WCFG_INVALID_OBJECT;
    return noteView(ext.add(path, row, values), 2, path);
}

int wHttpDelSingleTR181Obj(const char* path, const char* className) {
    int row = vxExtObjFind(className);
    if (row < 0)
        return wHttpDelTR181ObjGeneric(path);
    const VxExtObjRow& ext = vxExtObjRow(row);
    if (!ext.del)
        return WCFG_INVALID_OBJECT;
    return noteView(ext.del(path, row), 3, path);
}
