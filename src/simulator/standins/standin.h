// Stand-ins of the device's other services: the request journal, the
// firmware image format, the Wi-Fi service and the shell tools.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace standin {

// The journal: one JSON line per request the stand-ins receive.
std::string journalPath();
void journal(json_object* entry);

// The platform as shipped: attaches the stand-ins to the store (apply and
// refresh hooks, device requests) and to the bus (the services a bus server
// starts, the Wi-Fi service's answers), and the bus's change notice to the
// store.  Every program of the platform calls it first; a firmware build
// attaches its own services instead.
void install();

// Handles a device request (reboot, reset, image check, upgrade): journals it
// and answers a return code.
int handleRequest(uint32_t type, const char* payload);

// The Wi-Fi service's answer to a WPS request message (header + payload);
// returns a newly allocated reply (free()) or nullptr.
void* wifiServiceReply(const void* request, size_t length);

// A WPS session of interface `ifName` began: the data model's running status
// becomes "Requested", and the outcome once `walkMs` have passed.
void wpsSessionStarted(const std::string& ifName, const std::string& outcome, long walkMs);

// Starts the stand-in services that run by themselves (the bandwidth
// monitor), once per process.
void startServices();

// Follows the files of the home network and rebuilds the host table when
// they change (hosts_watch.cpp); started with the services.
void startHostsWatch();

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
