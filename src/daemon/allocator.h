// The memory allocator's settings for the daemon, applied before it runs.
#pragma once

// Starts the program again (same process, same arguments, once) with the
// allocator's per-thread cache of freed blocks cut to two per size, unless
// GLIBC_TUNABLES was given (even empty: the operator's settings stand, and
// tools that follow the process, such as valgrind, see no second start).
// Returns when nothing is to be done, in the second start, or when the new
// start failed.
void daemonTuneAllocator(char** argv);
