// The device's command runner as the daemon calls it; carried out by the
// installed device (device.h).
#pragma once

// Runs a program with its arguments, found on PATH, without a shell: no
// argument is ever interpreted (stdin from /dev/null).  Returns the exit
// status, or -1 when it could not be run.
int wos_exec(int flags, const char* const argv[]);
// The same, with no file the program writes growing beyond `maxFileBytes`
// (0: no limit; the program ends with SIGXFSZ when it tries).
int wos_exec_limited(int flags, const char* const argv[], long long maxFileBytes);
// Runs a shell command (stdin from /dev/null).  Bit 0 of `flags` logs the
// command line at debug level.  Returns the exit status, or -1 when the
// command could not be run.
int wos_formsys(int flags, const char* cmd);
