// The URI table's policy: which row a name falls to (by prefix, first row
// first) and what the request entry checks and runs for a method of it.
#include <cstring>

#include "rest/whttpd_rest.h"

namespace {

const struct {
    const char* name;
    uint8_t bit;
} kMethods[] = {
    {"GET", kWHttpGet}, {"PUT", kWHttpPut}, {"POST", kWHttpPost}, {"DELETE", kWHttpDelete}};

// Methods are compared as exact upper-case text; any other is none of them.
uint8_t methodBit(const char* method) {
    for (const auto& m : kMethods)
        if (method && !strcmp(method, m.name))
            return m.bit;
    return 0;
}

bool modifying(uint8_t method) {
    return method & (kWHttpPut | kWHttpPost | kWHttpDelete);
}

}  // namespace

const WHttpUriRow* wHttpFindUriRow(const char* name) {
    for (const WHttpUriRow* row = gRestUriTable; row->name; ++row)
        if (strncmp(name, row->name, strlen(row->name)) == 0)
            return row;
    return nullptr;
}

WHttpUriPolicy wHttpUriPolicyOf(const char* name, const char* method) {
    WHttpUriPolicy p;
    uint8_t bit = methodBit(method);
    p.row = wHttpFindUriRow(name);
    const WHttpUriRow* row = p.row;
    // An open row is open on its exact name only; a longer name that it
    // matches by prefix is checked as any other.
    if (row && row->access == WHttpAccess::Open && !strcmp(name, row->name)) {
        p.loginCheck = false;
    } else {
        // A device action acts only on POST or PUT with the key; any other
        // method is refused as a request without it.
        p.keyRefused =
            row && row->access == WHttpAccess::DeviceAction && !(bit & (kWHttpPost | kWHttpPut));
        p.keyNeeded = modifying(bit) && !(row && row->access == WHttpAccess::SessionRead);
    }
    if (row) {
        p.otherMethod = row->methods != kWHttpAnyMethod && !(row->methods & bit);
        p.dataModelLock = !p.otherMethod && row->dataModelLock && modifying(bit);
    }
    return p;
}
