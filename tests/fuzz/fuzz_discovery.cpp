// A discovery datagram as the responder reads it: at most 4096 bytes into a
// zeroed buffer one byte longer.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "discover/whttpd_discover.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    unsigned char buf[4097];
    memset(buf, 0, sizeof buf);
    size_t n = size < 4096 ? size : 4096;
    memcpy(buf, data, n);
    if (n > 0)
        whttpDiscoverIsRequest(buf, static_cast<ssize_t>(n));
    return 0;
}
