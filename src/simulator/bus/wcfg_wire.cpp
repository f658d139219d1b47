// Byte order of the bus header on the socket (see wcfg_wire.h).  Fields are
// read and written through memcpy: a message buffer carries no alignment.
#include "simulator/bus/wcfg_wire.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "simulator/bus/wcfg_msg.h"

namespace wcfg {

namespace {

// Converts the field of type Int at `offset`, when the message holds all of it.
template <typename Int, typename Convert>
void convertAt(unsigned char* msg, size_t length, size_t offset, Convert convert) {
    Int v;
    if (offset + sizeof v > length)
        return;
    memcpy(&v, msg + offset, sizeof v);
    v = convert(v);
    memcpy(msg + offset, &v, sizeof v);
}

// Applies the 32- and 16-bit conversions to every multi-byte field; the
// endpoint ids, the interface name and the reserved bytes are bytes.
template <typename C32, typename C16>
void convert(void* msg, size_t length, C32 c32, C16 c16) {
    if (!msg)
        return;
    auto* m = static_cast<unsigned char*>(msg);
    convertAt<uint32_t>(m, length, offsetof(wcfgMsgHdr_t, type), c32);
    convertAt<uint32_t>(m, length, offsetof(wcfgMsgHdr_t, oid), c32);
    convertAt<uint16_t>(m, length, offsetof(wcfgMsgHdr_t, flags), c16);
    convertAt<uint32_t>(m, length, offsetof(wcfgMsgHdr_t, length), c32);
    convertAt<uint32_t>(m, length, offsetof(wcfgMsgHdr_t, seq), c32);
    convertAt<uint32_t>(m, length, offsetof(wcfgMsgHdr_t, statCode), c32);
}

}  // namespace

void headerToWire(void* msg, size_t length) {
    convert(
        msg, length, [](uint32_t v) { return htonl(v); }, [](uint16_t v) { return htons(v); });
}

void headerFromWire(void* msg, size_t length) {
    convert(
        msg, length, [](uint32_t v) { return ntohl(v); }, [](uint16_t v) { return ntohs(v); });
}

}  // namespace wcfg
