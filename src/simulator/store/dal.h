// DAL calls of the embedded configuration service: the operation mode and
// the account editor (wcfgFeDalGetOpertaionMode, wcfgFeDal_User_Account_Edit).
#pragma once

#include <json-c/json.h>

#include <cstddef>

namespace wcfg {

int dalOperationMode();
int dalAccountEdit(json_object* request, char* reply, size_t size);

}  // namespace wcfg
