// Which requests the HTTPS server answers on its network threads: a GET of
// a row that only computes its answer (the method list, a value read of one
// object or table whose read never waits, an event stream's opening), and
// the web console's files.
// Everything else, and anything in doubt, goes to a worker, so that a
// request that waits never holds up the other connections of a thread.
#include <cstring>

#include "datamodel/path_parse.h"
#include "datamodel/schema.h"
#include "datamodel/ext_objects.h"
#include "rest/whttpd_rest.h"
#include "webui/console_files.h"

namespace {

// A value GET of one object or table (first level only) whose read does not
// wait; a path the schema does not know is answered at once as well.
bool quickValueRead(CgHttpRequest* request) {
    const char* uri = cg_http_request_geturi(request);
    char path[256] = "";
    int firstLevelOnly = 1;
    if (wHttpParseTR181PathText(uri, cg_http_request_getparam(request, "first_level_only"), path,
                                &firstLevelOnly) != 0)
        return false;
    if (!firstLevelOnly || strncmp(path, "Device.", 7) != 0)
        return false;  // a subtree (work in proportion to its size), or no object path
    char className[256] = "";
    if (!wHttpGetSchemaObj(path, className, sizeof className, nullptr, 0, nullptr))
        return true;
    return !vxExtObjReadMayWait(className);
}

}  // namespace

bool wHttpRequestIsQuick(CgHttpRequest* request) {
    const char* method = cg_http_request_getmethod(request);
    const char* uri = cg_http_request_geturi(request);
    // The console's files are in memory already: answered at once, with no
    // lock and no worker.
    if (wHttpConsoleOwns(uri))
        return true;
    if (!method || strcmp(method, "GET") != 0 || !uri || strlen(uri) < 8 ||
        strncmp(uri + 5, "v1/", 3) != 0)
        return false;
    const WHttpUriRow* row = wHttpFindUriRow(uri + 8);
    if (!row)
        return true;  // "Invalid URI"
    switch (row->quickGet) {
        case WHttpQuick::Yes:
            return true;
        case WHttpQuick::ValueRead:
            return quickValueRead(request);
        default:
            return false;
    }
}
