// The registered extended-object table and the end-of-read releases.
#include "datamodel/ext_objects.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cstdio>
#include <vector>

namespace {

const VxExtObjRow kNoRows[] = {{nullptr, nullptr, nullptr, nullptr, nullptr, false}};
std::atomic<const VxExtObjRow*> gTable{kNoRows};

thread_local std::vector<void (*)(void)> tReleases;

}  // namespace

void vxExtObjSetTable(const VxExtObjRow* table) {
    gTable = table ? table : kNoRows;
}

int vxExtObjFind(const char* className) {
    const VxExtObjRow* table = gTable.load();
    for (int i = 0; table[i].path; ++i) {
        if (!strcmp(table[i].path, className))
            return i;
    }
    return -1;
}

const VxExtObjRow& vxExtObjRow(int row) {
    return gTable.load()[row];
}

int vxExtObjCovering(const char* className) {
    int row = vxExtObjFind(className);
    if (row >= 0)
        return row;
    // The instances' class: asked on every quick read, so built on the stack.
    char instances[260];
    int n = snprintf(instances, sizeof instances, "%si.", className);
    return n > 0 && static_cast<size_t>(n) < sizeof instances ? vxExtObjFind(instances) : -1;
}

bool vxExtObjReadMayWait(const char* className) {
    int row = vxExtObjCovering(className);
    return row >= 0 && vxExtObjRow(row).readWaits;
}

void wHttpAtReadEnd(void (*release)(void)) {
    if (std::find(tReleases.begin(), tReleases.end(), release) == tReleases.end())
        tReleases.push_back(release);
}

void wHttpEndRead(void) {
    std::vector<void (*)(void)> releases;
    releases.swap(tReleases);
    for (auto release : releases)
        release();
}

namespace {
thread_local bool tAskServices = true;
}

void wHttpSetReadsAskServices(bool ask) {
    tAskServices = ask;
}

bool wHttpReadsAskServices(void) {
    return tAskServices;
}
