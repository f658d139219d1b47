// App discovery responder: a UDP socket on port 263 (WHTTPD_DISCOVERY_PORT)
// that answers a discovery request with the REST API's description, from the
// mesh controller with the mesh app enabled only.
#pragma once

#include <sys/types.h>

// Builds the discovery document and starts the responder thread (detached).
// Returns the detach result, or the thread-creation error.
int whttpDiscoverThreadInit(void);

// Whether a datagram of `n` bytes is a discovery request with the magic.
// `buf` holds 4097 bytes, zero after the datagram (as the responder reads).
bool whttpDiscoverIsRequest(const unsigned char* buf, ssize_t n);
