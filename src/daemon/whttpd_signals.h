// Requests that the signal handler leaves for the main loop.
#pragma once

#include <atomic>

extern std::atomic<int> gDumpRequested;  // SIGUSR1: print the session table
extern std::atomic<int> gStopRequested;  // SIGTERM or SIGQUIT received
