// Return codes of the configuration service and the "oper_status" texts the
// daemon answers for them.
#pragma once

#include <json-c/json.h>

// Name of a code ("WCFG_SUCCESS"), "WCFG_UNKNOWN" for a code of no name.
const char* wHttpRetCodeName(int code);
// Writes "oper_status" for a code into the response document.
int wHttpSetOperStatusByWcfgRet(json_object* doc, int code);
