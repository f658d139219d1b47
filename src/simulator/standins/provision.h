// Preparing a device root: factory data, the configuration store with the
// default configuration, the REST schema, the OpenSSL configuration, the
// host-probe database, the status files of the device's other services and
// the stand-in tools.
#pragma once

#include <json-c/json.h>

#include <string>

namespace provision {

// Written as the last step of a complete provisioning: a start-up script
// provisions a root without it (again).
inline constexpr const char* kProvisionedMark = "/data/wcfg/provisioned";

// Creates a complete device root below WHTTPD_ROOT; `self` is the path of
// the multi-call wcfgctl binary that the stand-in tools link to.
bool initDeviceRoot(const std::string& self, std::string& err);

// The REST schema generated from the data-model definition (new object).
json_object* buildSchema();

// Writes the host-probe database with the default hosts and mesh nodes.
bool writeHostDatabase(std::string& err);

}  // namespace provision
