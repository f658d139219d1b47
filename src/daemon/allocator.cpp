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
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

const char kTunables[] = "glibc.malloc.tcache_count=2";
// Set for the second start only: there is never a third, and the setting
// is this process's own (the programs it runs do not inherit it).
const char kMarker[] = "WHTTPD_ALLOCATOR_SET";

const char* baseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

}  // namespace

void daemonTuneAllocator(char** argv) {
    if (getenv(kMarker)) {
        unsetenv(kMarker);
        unsetenv("GLIBC_TUNABLES");
        return;
    }
    // The operator's settings stand; a program that runs with privileges it
    // was given by its file sees its tunables removed by the C library.
    if (getenv("GLIBC_TUNABLES") || getauxval(AT_SECURE) || !argv || !argv[0])
        return;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return;
    self[n] = '\0';
    // Only the program's own file under the name it was started by: not the
    // dynamic loader that may have started it, nor the target of a link of
    // another name (the process keeps its name for ps and pidof).
    if (strcmp(baseName(self), baseName(argv[0])) != 0)
        return;
    if (setenv("GLIBC_TUNABLES", kTunables, 1) != 0 || setenv(kMarker, "1", 1) != 0)
        return;
    execv(self, argv);
    // Not started again (the file was replaced or removed): run with the
    // allocator as it is.
    unsetenv(kMarker);
    unsetenv("GLIBC_TUNABLES");
}
