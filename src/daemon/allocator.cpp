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

#include <limits.h>
#include <unistd.h>

#include <cstdlib>

namespace {

const char kTunables[] = "glibc.malloc.tcache_count=2";

}  // namespace

void daemonTuneAllocator(char** argv) {
    if (getenv("GLIBC_TUNABLES"))
        return;
    // The program's own file by its name, so that the process keeps its name
    // (ps, pidof) rather than taking that of /proc/self/exe.
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return;
    self[n] = '\0';
    if (setenv("GLIBC_TUNABLES", kTunables, 1) != 0)
        return;
    execv(self, argv);
    // Not started again (the file was replaced or removed): run with the
    // allocator as it is.
    unsetenv("GLIBC_TUNABLES");
}
