// The message bus's calls (bus.h), carried out by the installed device.
#include "device/bus.h"
#include "device/device.h"

namespace {

device::Bus& bus() {
    return *device::current().bus;
}

}  // namespace

int wcfg_msg_eidInit(int eid, const char* identity) {
    return bus().registerEndpoint(eid, identity);
}

int wcfg_msg_serverInit(void) {
    return bus().serverInit();
}

int wcfg_msg_serverRecv(void** msg, int timeoutMs, const char* /*file*/, int /*line*/) {
    return bus().receive(msg, timeoutMs);
}

void wcfg_msg_serverWakeup(void) {
    bus().wakeReceiver();
}

int wcfg_msg_sendAndGetReply(const void* request, void** reply, int timeoutMs) {
    return bus().sendAndGetReply(request, reply, timeoutMs);
}

int wcfg_msg_send(int dstEid, const void* msg, size_t length) {
    return bus().send(dstEid, msg, length);
}
