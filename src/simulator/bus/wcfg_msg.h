// The embedded message bus: Unix-domain datagram sockets below the device
// root ("/var/run/wcfg/eid.<N>"), one per registered endpoint id.  The
// calls of bus.h reach it through the embedded device; the stand-ins attach
// what the process that serves the bus starts and the answers of services
// nobody serves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/bus.h"

namespace wbus {
int eidInit(int eid, const char* identity);
int serverInit();
int serverRecv(void** msg, int timeoutMs);
void serverWakeup();
int sendAndGetReply(const void* request, void** reply, int timeoutMs);
int send(int dstEid, const void* msg, size_t length);
}  // namespace wbus

// What the process that serves the bus starts with it (the services that
// work by themselves); set before wcfg_msg_serverInit.
void wcfg_msg_setServerStartHook(void (*start)(void));
// The answer to a request for endpoint `eid` while nobody serves it (a
// stand-in of that service): a reply to be released with free(), or nullptr
// to let the caller wait its time-out out.  Set before the first request.
using WcfgStandInReply = void* (*)(const void* request, size_t length);
void wcfg_msg_setStandIn(int eid, WcfgStandInReply reply);

namespace wcfg {
// Sends the data-model-changed notice to every registered bus endpoint.
void notifyDataModelChanged();
}  // namespace wcfg
