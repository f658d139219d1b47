// Extended objects as the data model sees them: paths that a module above
// answers or post-processes itself.  The module registers its table at
// start-up; the single-object operations consult it before the
// configuration service.  A read may leave per-thread state behind (loaded
// tables, marks) that the module releases when the value GET ends.
#pragma once

#include <json-c/json.h>

#include <cstdint>

typedef int (*VxGetHandler)(const char* path, int row, json_object** out);
typedef int (*VxSetHandler)(const char* path, int row, json_object* values, uint8_t apply);
typedef int (*VxAddHandler)(char* path, int row, json_object* values);
typedef int (*VxDelHandler)(const char* path, int row);

struct VxExtObjRow {
    const char* path;  // schema class name; nullptr ends the table
    VxGetHandler get;
    VxSetHandler set;
    VxAddHandler add;
    VxDelHandler del;
    // A read waits for something outside the process (files and a database
    // refreshed, a shell tool, another service): never on a network thread.
    bool readWaits;
};

// Registers the table (before the server starts); rows are matched by exact
// class name, first row first, and an empty slot refuses its operation.
void vxExtObjSetTable(const VxExtObjRow* table);
// The row whose path equals `className` exactly, or -1.
int vxExtObjFind(const char* className);
// A row found by vxExtObjFind.
const VxExtObjRow& vxExtObjRow(int row);
// The row that answers reads of `className`: its own, or for a table the
// row of its instances; -1 when the configuration answers them alone.
int vxExtObjCovering(const char* className);
// Whether a read (first level only) of the class may wait (its covering
// row's `readWaits`); reads that never wait may be answered on a network
// thread.
bool vxExtObjReadMayWait(const char* className);

// Asks for `release` to run on this thread when the current value GET ends
// (once, however often asked).
void wHttpAtReadEnd(void (*release)(void));
// Ends the current value GET of this thread: runs what was asked for.
void wHttpEndRead(void);

// Whether reads of this thread may ask the device's other services (the
// Wi-Fi service's live WPS status), as a client's GET does; when not, they
// show what the configuration holds, which those services keep in step.
// The event hub reads so, so that a silent service never holds up a stream.
void wHttpSetReadsAskServices(bool ask);
bool wHttpReadsAskServices(void);
