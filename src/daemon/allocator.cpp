// The memory allocator's settings for the daemon, applied before it runs.
//
// glibc gives each thread a cache of freed blocks, seven of each size, that
// no trim hands back: after a burst of requests the caches of the network
// and worker threads pin pages in every arena they touched (1.3 MB of the
// daemon's private memory after bench/compare.sh's load).  Two blocks of
// each size keep the fast path of a request's allocations as fast, as far
// as the benchmark can tell.  The setting is read by the C library only when
// a program starts, so the daemon starts itself again with it.
#include "daemon/allocator.h"

#include <unistd.h>

#include <cstdlib>

namespace {

const char kTunables[] = "glibc.malloc.tcache_count=2";

}  // namespace

void daemonTuneAllocator(char** argv) {
    if (getenv("GLIBC_TUNABLES"))
        return;
    if (setenv("GLIBC_TUNABLES", kTunables, 1) != 0)
        return;
    execv("/proc/self/exe", argv);
    // Not started again (no /proc): run with the allocator as it is.
    unsetenv("GLIBC_TUNABLES");
}
