// The commands of whttpctl, one function each; main.cpp's table maps names
// to them.  Each returns the process's exit status.
#pragma once

#include <string>

#include "cli.h"

namespace whttpctl {

// Session: cmd_session.cpp
int cmdLogin(Context& ctx);
int cmdLogout(Context& ctx);
int cmdPasswd(Context& ctx);

// Data model: cmd_value.cpp
int cmdGet(Context& ctx);
int cmdSet(Context& ctx);
int cmdAdd(Context& ctx);
int cmdDel(Context& ctx);
int cmdBatch(Context& ctx);
int cmdSchema(Context& ctx);
int cmdMethods(Context& ctx);

// Whether `path` may stand in a request: kOk, or the usage error printed.
int checkPath(const std::string& path);

// Following the device's changes: cmd_watch.cpp
int cmdWatch(Context& ctx);

// Device actions and firmware: cmd_device.cpp
int cmdReboot(Context& ctx);
int cmdMeshReboot(Context& ctx);
int cmdMeshReset(Context& ctx);
int cmdFota(Context& ctx);

// Finding devices: discover.cpp
int cmdDiscover(Context& ctx);

}  // namespace whttpctl
