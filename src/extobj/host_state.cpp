// Per-thread host-list state: each request thread has its own mark and its
// own loaded host-probe table, released when its value GET ends.
#include <sqlite3.h>

#include "datamodel/ext_objects.h"
#include "extobj/whttpd_extobj.h"

namespace {

thread_local int tRefreshed = 0;
thread_local char** tHostTable = nullptr;
thread_local int tHostRows = 0;
thread_local int tHostColumns = 0;

}  // namespace

int vxHostsRefreshedMark(void) {
    return tRefreshed;
}

void vxHostsSetRefreshedMark(void) {
    tRefreshed = 1;
    wHttpAtReadEnd(vxHostsClearRefreshedMark);
}

void vxHostsClearRefreshedMark(void) {
    tRefreshed = 0;
}

void vxHostsReleaseTable(void) {
    if (tHostTable) {
        sqlite3_free_table(tHostTable);
        tHostTable = nullptr;
    }
    tHostRows = 0;
    tHostColumns = 0;
}

VxHostTable vxHostsTable(void) {
    return {tHostTable, tHostRows, tHostColumns};
}

void vxHostsKeepTable(char** table, int rows, int columns) {
    vxHostsReleaseTable();
    tHostTable = table;
    tHostRows = rows;
    tHostColumns = columns;
    wHttpAtReadEnd(vxHostsReleaseTable);
}
