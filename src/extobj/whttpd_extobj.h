// Extended objects: data-model paths that the daemon answers or
// post-processes itself.  A constant table maps a schema class name to up to
// four handlers; registered with the data model at start-up, it is consulted
// by the single-object operations before the configuration service.
#pragma once

#include <json-c/json.h>
#include <sqlite3.h>

#include <cstdint>

#include "datamodel/ext_objects.h"

extern const VxExtObjRow gVxExtObjTable[];

// Registers the table with the data model (at start-up).
void vxExtObjRegister(void);

// The device's operation mode (0 router, else an extender or access point),
// read from the configuration service at start-up.
void vxReadOperationMode(void);
int vxOperationMode(void);

// Opens the host-probe database ("/tmp/devscout.db"), trying again every
// second until it opens or `stop` says so.
void vxOpenHostDatabase(bool (*stop)(void));

// Handlers, by row.
int vxHostsGet(const char* path, int row, json_object** out);
int vxHostsHostGet(const char* path, int row, json_object** out);
int vxWanInfoGet(const char* path, int row, json_object** out);
// The ping test of a device that is no router: 1 when the internet answered.
int vxExtenderConnStatusGet(void);
int vxPcpScheduleGet(const char* path, int row, json_object** out);
int vxPcpScheduleSet(const char* path, int row, json_object* values, uint8_t apply);
int vxPcpScheduleAdd(char* path, int row, json_object* values);
int vxPcpScheduleDel(const char* path, int row);
int vxChangeIconNameGet(const char* path, int row, json_object** out);
int vxChangeIconNameSet(const char* path, int row, json_object* values, uint8_t apply);
int vxChangeIconNameAdd(char* path, int row, json_object* values);
int vxChangeIconNameDel(const char* path, int row);
int vxWifi_AP_WPS_Get(const char* path, int row, json_object** out);
int vxWifi_AP_WPS_Set(const char* path, int row, json_object* values, uint8_t apply);
int vxWifi_AP_WPS_Add(char* path, int row, json_object* values);
int vxWifi_AP_WPS_Del(const char* path, int row);
int vxInterBlockingGet(const char* path, int row, json_object** out);
int vxInternetSpeedGet(const char* path, int row, json_object** out);
int vxInternetSpeedSet(const char* path, int row, json_object* values, uint8_t apply);
int vxSystemStateGet(const char* path, int row, json_object** out);

// Per-thread host-list state of the current value GET: the mark that the
// host list was refreshed, and the loaded host-probe table; both are released
// when the GET ends.
int vxHostsRefreshedMark(void);
void vxHostsSetRefreshedMark(void);
void vxHostsClearRefreshedMark(void);
void vxHostsReleaseTable(void);

// The host-probe Device table this thread loaded for the current request:
// the result grid of sqlite3_get_table (row 0 the column names, data rows 1 to
// `rows`), nullptr when none is loaded.
struct VxHostTable {
    char** cells;
    int rows;
    int columns;
    const char* at(int row, int column) const { return cells[row * columns + column]; }
};
VxHostTable vxHostsTable(void);
// Keeps a loaded table for the rest of the request (released by
// vxHostsReleaseTable).
void vxHostsKeepTable(char** table, int rows, int columns);
