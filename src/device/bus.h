// The configuration service's message bus as the daemon uses it: one
// endpoint id per program, datagrams with a 60-byte header and a JSON
// payload; carried out by the installed device (device.h).
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)
// Message header; the payload (JSON text with its NUL) follows at offset 60.
// Programs fill and read it in their own byte order; on the socket its
// fields are big-endian (wcfg_wire.h), so that processes of any CPU agree.
struct wcfgMsgHdr_t {
    uint32_t type;
    uint32_t oid;
    uint8_t srcEid;
    uint8_t dstEid;
    uint16_t flags;
    uint32_t length;   // payload length
    uint32_t seq;      // echoed by the replier
    int32_t statCode;  // reply kind: 0 JSON payload, 1 success without reply, <0 error
    char ifName[28];
    uint8_t reserved[8];
};
#pragma pack(pop)
static_assert(sizeof(wcfgMsgHdr_t) == 60, "bus header is 60 bytes");

#define WCFG_MSG_MAX_SIZE 65536
#define WCFG_EID_WIFI 40
#define WCFG_EID_WHTTPD 78

// Registers the caller's endpoint id and identity.
int wcfg_msg_eidInit(int eid, const char* identity);
// Opens the caller's receive socket.  0 on success.
int wcfg_msg_serverInit(void);
// Waits for the next message (timeoutMs 0: no limit).  0 and a message to be
// released with free(), or -1 (failure, time-out or interrupted wait).
int wcfg_msg_serverRecv(void** msg, int timeoutMs, const char* file, int line);
// Wakes a wait in wcfg_msg_serverRecv; async-signal-safe.
void wcfg_msg_serverWakeup(void);
// Sends a request to the endpoint named in its header and waits for the
// reply: 0 and a reply to be released with free(), WCFG_TIMEOUT or
// WCFG_INVALID_EID.
int wcfg_msg_sendAndGetReply(const void* request, void** reply, int timeoutMs);
// Sends a message without waiting for a reply; 0 or WCFG_INVALID_EID.
int wcfg_msg_send(int dstEid, const void* msg, size_t length);
