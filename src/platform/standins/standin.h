// Stand-ins of the device's other services: the request journal, the
// firmware image format, the Wi-Fi service and the shell tools.
#pragma once

#include <json-c/json.h>

#include <string>

namespace standin {

// The journal: one JSON line per request the stand-ins receive.
std::string journalPath();
void journal(json_object* entry);

// The Wi-Fi service's answer to a WPS request message (header + payload);
// returns a newly allocated reply (free()) or nullptr.
void* wifiServiceReply(const void* request, size_t length);

// Starts the stand-in services that run by themselves (the bandwidth
// monitor), once per process.
void startServices();

// Rebuilds the host table from the leases, the association lists and the
// host-probe database (a read of Device.Hosts. with update runs it).
void refreshHosts();

// Runs a stand-in shell tool when argv[0] names one (vxslctl, vx1905App,
// killall, kill, ifconfig); returns its exit status, or -1 when argv[0] is none.
int runTool(int argc, char** argv);
// Installs the stand-in tools into the device root's tool directory as links
// to `self` (the multi-call wcfgctl binary).
bool installTools(const std::string& self);

}  // namespace standin
