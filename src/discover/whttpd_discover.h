// App discovery responder: a UDP socket on port 263 (WHTTPD_DISCOVERY_PORT)
// that answers a discovery request with the REST API's description, from the
// mesh controller with the mesh app enabled only.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

// Builds the discovery document (naming the daemon's HTTPS port) and starts
// the responder thread (detached).  Returns the detach result, or the
// thread-creation error.
int whttpDiscoverThreadInit(int httpsPort);

// Whether a datagram of `n` bytes is a discovery request with the magic.
// `buf` holds 4097 bytes, zero after the datagram (as the responder reads).
bool whttpDiscoverIsRequest(const unsigned char* buf, ssize_t n);

// The largest answer datagram: the 4-byte header and at most 4095
// characters of the document.
constexpr size_t kDiscoverAnswerMax = 4 + 4095;
// Writes the answer datagram for `document` into `out` (kDiscoverAnswerMax
// bytes): version 1, type 2, the text's length, the text (cut where a
// character ends, at 4095 bytes at most).  Returns the text's length.
size_t whttpDiscoverBuildAnswer(std::string_view document, unsigned char* out);
