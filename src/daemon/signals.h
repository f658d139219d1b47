// The daemon's signals: the handler only sets flags and wakes the main
// thread's bus wait; the main loop acts on them.
#pragma once

#include <atomic>

extern std::atomic<int> gDumpRequested;  // SIGUSR1: print the session table
extern std::atomic<int> gStopRequested;  // SIGTERM or SIGQUIT received

// Installs the handler for SIGQUIT, SIGKILL, SIGTERM, SIGINT, SIGUSR1 and
// SIGUSR2 (SIGUSR2 toggles compact JSON output), and ignores SIGPIPE.
void wHttpInstallSignalHandler(void);
